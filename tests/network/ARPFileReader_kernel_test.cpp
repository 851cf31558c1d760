// The kernel's own ARP table read as a file, beside what the ip command tells of it.

#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Neighbours.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"
#include "tests/support/Privileges.h"

using IPv4::IPAddress;
using TarnTest::AddManyPermanent;
using TarnTest::AddPermanent;
using TarnTest::AskInVain;
using TarnTest::ChildProcess;
using TarnTest::InChild;
using TarnTest::no_mac;
using TarnTest::ReadNeighbours;
using TarnTest::Resolve;
using TarnTest::TextOf;
using TarnTest::WiredHosts;
using testing::HasSubstr;

namespace {

using ArpTableFile = TarnTest::NetworkTest;

/// Expects that the reader knows the neighbours of a device as the ip command does.
void ExpectNeighbours(const ARPFileReader& reader, const WiredHosts& net, const std::string& device) {
    for (const auto& [ip, mac] : ReadNeighbours(net, device)) {
        EXPECT_EQ(mac.empty() ? no_mac : mac, TextOf(reader.GetCachedMACAddress(IPAddress(ip)))) << ip;
    }
}

}  // namespace

TEST_F(ArpTableFile, NeighboursAreKnownOnceItIsRead) {
    const WiredHosts net(2);
    const std::string first = Resolve(net, "192.0.2.2", "wire0");
    const std::string second = Resolve(net, "198.51.100.2", "wire1");
    ASSERT_NE(first, second);
    ARPFileReader reader;
    EXPECT_EQ(no_mac, TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 2))));
    reader.CacheFileContent();
    EXPECT_EQ(first, TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 2))));
    EXPECT_EQ(second, TextOf(reader.GetCachedMACAddress(IPAddress(198, 51, 100, 2))));
    EXPECT_EQ(no_mac, TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 1))));
    ExpectNeighbours(reader, net, "wire0");
    ExpectNeighbours(reader, net, "wire1");
}

TEST_F(ArpTableFile, PermanentEntriesAreKnown) {
    const WiredHosts net;
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    AddPermanent(net, "192.0.2.78", "ff:ff:ff:ff:ff:ff", "wire0");
    ARPFileReader reader;
    reader.CacheFileContent();
    EXPECT_EQ("02:1a:00:3c:fd:5e", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 77))));
    EXPECT_EQ("ff:ff:ff:ff:ff:ff", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 78))));
    ExpectNeighbours(reader, net, "wire0");
}

TEST_F(ArpTableFile, ANeighbourThatDoesNotAnswerIsOfNoAddress) {
    const WiredHosts net;
    AskInVain(net, "192.0.2.99", "wire0");
    const std::string mac = Resolve(net, "192.0.2.2", "wire0");
    ARPFileReader reader;
    reader.CacheFileContent();
    EXPECT_EQ(no_mac, TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 99))));
    EXPECT_EQ(mac, TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 2))));
}

TEST_F(ArpTableFile, AnAddressThatIsAnsweredForIsOfNoAddress) {
    const WiredHosts net;
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    net.Run("ip neigh add proxy 192.0.2.88 dev wire0");
    net.Run("ip neigh add proxy 192.0.2.89 dev wire0");
    ARPFileReader reader;
    reader.CacheFileContent();
    EXPECT_EQ(no_mac, TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 88))));
    EXPECT_EQ("02:1a:00:3c:fd:5e", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 77))));
}

TEST_F(ArpTableFile, AnEmptyTableKnowsNobody) {
    const WiredHosts net;
    net.Run("ip neigh flush all");
    ChildProcess child([] {
        ARPFileReader reader;
        reader.CacheFileContent();
        EXPECT_EQ(no_mac, TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 2))));
        EXPECT_EQ(no_mac, TextOf(reader.GetCachedMACAddress(IPAddress(0, 0, 0, 0))));
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("", child.Output());
    EXPECT_EQ("", child.Errors());
}

TEST_F(ArpTableFile, ManyNeighboursAreKnown) {
    const WiredHosts net;
    AddManyPermanent(net, "wire0");
    const auto neighbours = ReadNeighbours(net, "wire0");
    ASSERT_EQ(150U, neighbours.size());
    ARPFileReader reader;
    reader.CacheFileContent();
    ExpectNeighbours(reader, net, "wire0");
    EXPECT_EQ("02:00:00:12:34:64", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 100))));
}

TEST_F(ArpTableFile, WhatHasChangedIsKnownWhenItIsReadAgain) {
    const WiredHosts net;
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    AddPermanent(net, "192.0.2.78", "02:1a:00:3c:fd:5f", "wire0");
    ARPFileReader reader;
    reader.CacheFileContent();
    net.Run("ip neigh replace 192.0.2.77 lladdr 02:ff:ee:dd:cc:bb nud permanent dev wire0");
    net.Run("ip neigh delete 192.0.2.78 dev wire0");
    AddPermanent(net, "192.0.2.79", "02:1a:00:3c:fd:60", "wire0");
    EXPECT_EQ("02:1a:00:3c:fd:5e", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 77))));
    EXPECT_EQ("02:1a:00:3c:fd:5f", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 78))));
    EXPECT_EQ(no_mac, TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 79))));
    reader.CacheFileContent();
    EXPECT_EQ("02:ff:ee:dd:cc:bb", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 77))));
    EXPECT_EQ(no_mac, TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 78))));
    EXPECT_EQ("02:1a:00:3c:fd:60", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 79))));
}

TEST_F(ArpTableFile, OneAddressOnTwoDevicesEndsTheProcess) {
    const WiredHosts net(2);
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    AddPermanent(net, "192.0.2.77", "02:ff:ee:dd:cc:bb", "wire1");
    ChildProcess child([] {
        ARPFileReader reader;
        reader.CacheFileContent();
    });
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_EQ("", child.Output());
    EXPECT_THAT(child.Errors(),
                HasSubstr("Assertion `m_IPARPEntryMap.find(tblentry.m_IPAddress) == m_IPARPEntryMap.end()' failed."));
}

// The default file is that of the process, which its first thread stands for; a thread may be in another network.
TEST_F(ArpTableFile, AThreadHasATableOfItsOwn) {
    const WiredHosts net;
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    net.InPeer([&] {
        AddPermanent(net, "192.0.2.77", "02:ff:ee:dd:cc:bb", "wire0");
        ARPFileReader reader("/proc/thread-self/net/arp");
        reader.CacheFileContent();
        EXPECT_EQ("02:ff:ee:dd:cc:bb", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 77))));
        reader.Set(ARPFileReader::DEFAULT_ARP_FILE);
        EXPECT_EQ("02:ff:ee:dd:cc:bb", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 77))));
        reader.CacheFileContent();
        EXPECT_EQ("02:1a:00:3c:fd:5e", TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 77))));
    });
}

TEST_F(ArpTableFile, AProcessWithoutPrivilegesReadsItToo) {
    const WiredHosts net;
    const std::string mac = Resolve(net, "192.0.2.2", "wire0");
    InChild([&] {
        ASSERT_TRUE(TarnTest::GiveUpPrivileges());
        ARPFileReader reader;
        reader.CacheFileContent();
        EXPECT_EQ(mac, TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 2))));
    });
}

TEST_F(ArpTableFile, LookUpsRunSideBySide) {
    const WiredHosts net;
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    AddPermanent(net, "192.0.2.78", "02:ff:ee:dd:cc:bb", "wire0");
    ARPFileReader reader;
    reader.CacheFileContent();
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 200; ++j) {
                right += TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 77))) == "02:1a:00:3c:fd:5e";
                right += TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 78))) == "02:ff:ee:dd:cc:bb";
                right += TextOf(reader.GetCachedMACAddress(IPAddress(192, 0, 2, 79))) == no_mac;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(4 * 200 * 3, right);
}

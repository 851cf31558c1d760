// What the library finds in the kernel's ARP table, beside what the ip command tells of it.

#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <TarnSocketIO/IPv4/ARPIO.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/InterfaceState.h"
#include "tests/support/Neighbours.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"
#include "tests/support/Privileges.h"

using IPv4::IPAddress;
using TarnSocketIO::ARPIO;
using TarnTest::AddManyPermanent;
using TarnTest::AddPermanent;
using TarnTest::ChildProcess;
using TarnTest::HardwareAddressOf;
using TarnTest::InChild;
using TarnTest::no_mac;
using TarnTest::PrivateNetwork;
using TarnTest::ReadNeighbours;
using TarnTest::Resolve;
using TarnTest::TextOf;
using TarnTest::WiredHosts;

namespace {

using KernelArpTable = TarnTest::ArpQueryTest;

std::string MacOf(const PrivateNetwork& net, const std::string& interface) {
    std::string mac;
    net.InPeer([&] { mac = HardwareAddressOf(net, interface); });
    return mac;
}

/// Expects a query that fails: no address, and these words.
void ExpectNotFound(const std::string& ip, int error, const std::function<std::string()>& query) {
    SCOPED_TRACE(ip);
    ChildProcess child([&] { EXPECT_EQ(no_mac, query()); });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("ARPIO::GetEntry error: " + ip + " ", child.Output());
    EXPECT_EQ(std::string("ioctl(Get ARP entry): ") + std::strerror(error) + "\n", child.Errors());
}

}  // namespace

// ---- neighbours that answer

TEST_F(KernelArpTable, ANeighbourIsFoundOnTheDeviceOfTheObject) {
    const WiredHosts net;
    ASSERT_EQ(MacOf(net, "wire0"), Resolve(net, "192.0.2.2", "wire0"));
    InChild([&] { EXPECT_EQ(MacOf(net, "wire0"), TextOf(ARPIO("wire0").GetMACAddress(IPAddress(192, 0, 2, 2)))); });
}

TEST_F(KernelArpTable, ANeighbourIsFoundOnTheDeviceOfTheCall) {
    const WiredHosts net(2);
    const std::string mac = Resolve(net, "192.0.2.2", "wire0");
    const ARPIO none;
    const ARPIO other("wire1");
    InChild([&] {
        EXPECT_EQ(mac, TextOf(none.GetMACAddress(IPAddress(192, 0, 2, 2), "wire0")));
        EXPECT_EQ(mac, TextOf(other.GetMACAddress(IPAddress(192, 0, 2, 2), "wire0")));
    });
}

TEST_F(KernelArpTable, EachDeviceHasItsOwnNeighbours) {
    const WiredHosts net(2);
    const std::string first = Resolve(net, "192.0.2.2", "wire0");
    const std::string second = Resolve(net, "198.51.100.2", "wire1");
    ASSERT_NE(first, second);
    const ARPIO arp("wire0");
    InChild([&] {
        EXPECT_EQ(first, TextOf(arp.GetMACAddress(IPAddress(192, 0, 2, 2))));
        EXPECT_EQ(second, TextOf(arp.GetMACAddress(IPAddress(198, 51, 100, 2), "wire1")));
        // The device of the object is still the first one.
        EXPECT_EQ(first, TextOf(arp.GetMACAddress(IPAddress(192, 0, 2, 2))));
    });
    ExpectNotFound("198.51.100.2", ENXIO, [&] { return TextOf(arp.GetMACAddress(IPAddress(198, 51, 100, 2))); });
    ExpectNotFound("192.0.2.2", ENXIO, [&] { return TextOf(arp.GetMACAddress(IPAddress(192, 0, 2, 2), "wire1")); });
}

TEST_F(KernelArpTable, OneAddressOnTwoDevicesIsTwoNeighbours) {
    const WiredHosts net(2);
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    AddPermanent(net, "192.0.2.77", "02:ff:ee:dd:cc:bb", "wire1");
    InChild([] {
        EXPECT_EQ("02:1a:00:3c:fd:5e", TextOf(ARPIO("wire0").GetMACAddress(IPAddress(192, 0, 2, 77))));
        EXPECT_EQ("02:ff:ee:dd:cc:bb", TextOf(ARPIO("wire1").GetMACAddress(IPAddress(192, 0, 2, 77))));
    });
}

TEST_F(KernelArpTable, ManyNeighboursAreFound) {
    const WiredHosts net;
    AddManyPermanent(net, "wire0");
    Resolve(net, "192.0.2.2", "wire0");
    const auto neighbours = ReadNeighbours(net, "wire0");
    ASSERT_EQ(151U, neighbours.size());
    const ARPIO arp("wire0");
    InChild([&] {
        for (const auto& [ip, mac] : neighbours) {
            EXPECT_EQ(mac, TextOf(arp.GetMACAddress(IPAddress(ip)))) << ip;
        }
    });
}

TEST_F(KernelArpTable, TheTableIsThatOfTheSocketsNetwork) {
    const WiredHosts net;
    Resolve(net, "192.0.2.2", "wire0");
    std::unique_ptr<const ARPIO> of_peer;
    net.InPeer([&] {
        of_peer = std::make_unique<const ARPIO>("wire0");
        AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    });
    InChild([&] { EXPECT_EQ("02:1a:00:3c:fd:5e", TextOf(of_peer->GetMACAddress(IPAddress(192, 0, 2, 77)))); });
    ExpectNotFound("192.0.2.2", ENXIO, [&] { return TextOf(of_peer->GetMACAddress(IPAddress(192, 0, 2, 2))); });
}

TEST_F(KernelArpTable, TheFileTellsTheSame) {
    const WiredHosts net;
    Resolve(net, "192.0.2.2", "wire0");
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    AddPermanent(net, "192.0.2.78", "ff:ff:ff:ff:ff:ff", "wire0");
    ARPFileReader reader;
    reader.CacheFileContent();
    InChild([&] {
        const ARPIO arp("wire0");
        for (const char* const ip : {"192.0.2.2", "192.0.2.77", "192.0.2.78"}) {
            EXPECT_EQ(TextOf(reader.GetCachedMACAddress(IPAddress(ip))), TextOf(arp.GetMACAddress(IPAddress(ip))))
                << ip;
        }
    });
}

TEST_F(KernelArpTable, AnEntryThatChangesIsReadAnew) {
    const WiredHosts net;
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    const ARPIO arp("wire0");
    EXPECT_EQ("02:1a:00:3c:fd:5e", TextOf(arp.GetMACAddress(IPAddress(192, 0, 2, 77))));
    net.Run("ip neigh replace 192.0.2.77 lladdr 02:ff:ee:dd:cc:bb nud permanent dev wire0");
    EXPECT_EQ("02:ff:ee:dd:cc:bb", TextOf(arp.GetMACAddress(IPAddress(192, 0, 2, 77))));
}

TEST_F(KernelArpTable, NoPrivilegeIsNeeded) {
    const WiredHosts net;
    const std::string mac = Resolve(net, "192.0.2.2", "wire0");
    InChild([&] {
        ASSERT_TRUE(TarnTest::GiveUpPrivileges());
        EXPECT_EQ(mac, TextOf(ARPIO("wire0").GetMACAddress(IPAddress(192, 0, 2, 2))));
    });
}

TEST_F(KernelArpTable, OneObjectServesSeveralThreads) {
    const WiredHosts net(2);
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    AddPermanent(net, "192.0.2.78", "02:ff:ee:dd:cc:bb", "wire0");
    AddPermanent(net, "198.51.100.7", "06:05:04:03:02:01", "wire1");
    const ARPIO arp("wire0");
    std::atomic<int> right{0};
    const auto count = [&](const char* mac, const TarnSocketIO::MACAddress& found) { right += TextOf(found) == mac; };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 200; ++j) {
                count("02:1a:00:3c:fd:5e", arp.GetMACAddress(IPAddress(192, 0, 2, 77)));
                count("06:05:04:03:02:01", arp.GetMACAddress(IPAddress(198, 51, 100, 7), "wire1"));
                count("02:ff:ee:dd:cc:bb", arp.GetMACAddress(IPAddress(192, 0, 2, 78)));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(4 * 200 * 3, right);
}

// ---- what is not there

TEST_F(KernelArpTable, AnAddressWithoutAnEntryIsTold) {
    const WiredHosts net;
    ExpectNotFound("10.0.0.99", ENXIO, [] { return TextOf(ARPIO("wire0").GetMACAddress(IPAddress(10, 0, 0, 99))); });
    ExpectNotFound("10.0.0.99", ENXIO, [] { return TextOf(ARPIO().GetMACAddress(IPAddress(10, 0, 0, 99), "wire0")); });
    // One's own address is nobody's neighbour.
    ExpectNotFound("192.0.2.1", ENXIO, [] { return TextOf(ARPIO("wire0").GetMACAddress(IPAddress(192, 0, 2, 1))); });
}

TEST_F(KernelArpTable, WithoutADeviceNothingIsFound) {
    const WiredHosts net;
    Resolve(net, "192.0.2.2", "wire0");
    ExpectNotFound("192.0.2.2", ENODEV, [] { return TextOf(ARPIO().GetMACAddress(IPAddress(192, 0, 2, 2))); });
    ExpectNotFound("192.0.2.2", ENODEV, [] { return TextOf(ARPIO("").GetMACAddress(IPAddress(192, 0, 2, 2))); });
    ExpectNotFound("192.0.2.2", ENODEV,
                   [] { return TextOf(ARPIO("wire0").GetMACAddress(IPAddress(192, 0, 2, 2), "")); });
}

TEST_F(KernelArpTable, OnAnUnknownDeviceNothingIsFound) {
    const WiredHosts net;
    Resolve(net, "192.0.2.2", "wire0");
    ExpectNotFound("192.0.2.2", ENODEV, [] { return TextOf(ARPIO("wire9").GetMACAddress(IPAddress(192, 0, 2, 2))); });
    ExpectNotFound("192.0.2.2", ENODEV,
                   [] { return TextOf(ARPIO("wire0").GetMACAddress(IPAddress(192, 0, 2, 2), "wire9")); });
}

TEST_F(KernelArpTable, TheFirstFifteenCharactersOfADeviceCount) {
    PrivateNetwork net;
    net.AddInterface("a23456789012345", "192.0.2.1/24", "192.0.2.2/24");
    const std::string mac = Resolve(net, "192.0.2.2", "a23456789012345");
    InChild([&] {
        EXPECT_EQ(mac, TextOf(ARPIO("a23456789012345").GetMACAddress(IPAddress(192, 0, 2, 2))));
        EXPECT_EQ(mac, TextOf(ARPIO("a234567890123456").GetMACAddress(IPAddress(192, 0, 2, 2))));
        const std::string longer = "a23456789012345" + std::string(85, 'x');
        EXPECT_EQ(mac, TextOf(ARPIO().GetMACAddress(IPAddress(192, 0, 2, 2), longer.c_str())));
    });
}

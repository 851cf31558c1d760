// Entries of the kernel's ARP table, and announcements.

#include <TarnSocketIO/CIPString.h>
#include <TarnSocketIO/CMacAddress.h>
#include <TarnSocketIO/CSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/Packets.h"
#include "tests/support/TestEndpoint.h"

using TarnSocketIO::CIPString;
using TarnSocketIO::CMacAddress;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::ChildProcess;
using TarnTest::FrameSocket;
using TarnTest::LinesOf;
using TarnTest::TestEndpoint;
using TarnTest::WiredHosts;
using TarnTest::WordAt;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using CSocketArpTable = TarnTest::NetworkTest;
using CSocketArping = TarnTest::NetworkTest;

CMacAddress Mac(const char (&octets)[7]) {
    CMacAddress mac;
    std::memcpy(mac.m_Octets, octets, sizeof mac.m_Octets);
    return mac;
}

/// With a receiver and no threads.
class Endpoint : public TestEndpoint {
public:
    Endpoint() : TestEndpoint(CONNECTION_UDP) { InitialiseReceiver(); }
    ~Endpoint() override { TerminateAll(); }
};

/// The line of an address in the table of the calling thread's network, its words apart by one blank: address, type,
/// flags, hardware address, mask, device.
std::string TableLine(const std::string& ip) {
    std::ifstream file("/proc/thread-self/net/arp");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string text;
        for (std::string word; words >> word;) {
            text += (text.empty() ? "" : " ") + word;
        }
        if (text.compare(0, ip.size() + 1, ip + " ") == 0) {
            return text;
        }
    }
    return "";
}

/// A directory on the search path with an arping of the test's own, which writes its arguments down, one a line, and
/// ends with a status.
class StandIn {
public:
    explicit StandIn(int status) {
        if (mkdtemp(m_directory.data()) == nullptr) {
            throw std::runtime_error(m_directory);
        }
        const std::string script = m_directory + "/arping";
        std::ofstream(script) << "#!/bin/sh\nprintf '%s\\n' \"$@\" >> " << m_directory << "/arguments\nexit " << status
                              << "\n";
        chmod(script.c_str(), 0700);
    }
    ~StandIn() { std::filesystem::remove_all(m_directory); }
    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;

    const std::string& Directory() const { return m_directory; }

    std::vector<std::string> Arguments() const {
        std::ifstream file(m_directory + "/arguments");
        std::vector<std::string> arguments;
        for (std::string line; std::getline(file, line);) {
            arguments.push_back(line);
        }
        return arguments;
    }

private:
    std::string m_directory = "/tmp/arping_XXXXXX";
};

/// The status of an announcement in a process whose search path is this one.
int StatusWithPath(const std::string& path, const CIPString& source, const CIPString& target) {
    const TarnTest::Shared<int> status;
    ChildProcess child([&] {
        setenv("PATH", path.c_str(), 1);
        TestEndpoint endpoint(CONNECTION_UDP);
        *status = endpoint.Arping(source, target);
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures() << child.Errors();
    return *status;
}

}  // namespace

// ---- the table

TEST_F(CSocketArpTable, AnEntryIsPermanentOnItsDevice) {
    const WiredHosts net(2);
    Endpoint endpoint;
    CMacAddress mac = Mac("\x02\x1a\x00\x3c\xfd\x5e");
    EXPECT_TRUE(endpoint.UpdateARPTable("wire0", CIPString("192.0.2.77"), mac));
    EXPECT_EQ("192.0.2.77 0x1 0x6 02:1a:00:3c:fd:5e * wire0", TableLine("192.0.2.77"));
    EXPECT_THAT(net.Run("ip neigh show 192.0.2.77"),
                AllOf(HasSubstr("dev wire0 lladdr 02:1a:00:3c:fd:5e"), HasSubstr("PERMANENT")));

    EXPECT_TRUE(endpoint.UpdateARPTable("wire1", CIPString("198.51.100.7"), mac));
    EXPECT_EQ("198.51.100.7 0x1 0x6 02:1a:00:3c:fd:5e * wire1", TableLine("198.51.100.7"));
    EXPECT_EQ("192.0.2.77 0x1 0x6 02:1a:00:3c:fd:5e * wire0", TableLine("192.0.2.77"));
}

TEST_F(CSocketArpTable, AnEntryIsReplaced) {
    const WiredHosts net;
    Endpoint endpoint;
    CMacAddress first = Mac("\x02\x00\x00\x00\x00\x01");
    CMacAddress second = Mac("\x02\xff\xee\xdd\xcc\xbb");
    ASSERT_TRUE(endpoint.UpdateARPTable("wire0", CIPString("192.0.2.77"), first));
    EXPECT_TRUE(endpoint.UpdateARPTable("wire0", CIPString("192.0.2.77"), second));
    EXPECT_EQ("192.0.2.77 0x1 0x6 02:ff:ee:dd:cc:bb * wire0", TableLine("192.0.2.77"));
    // What the kernel has found out itself gives way, too.
    net.Run("ip neigh replace 192.0.2.78 lladdr 02:00:00:00:00:09 nud reachable dev wire0");
    EXPECT_TRUE(endpoint.UpdateARPTable("wire0", CIPString("192.0.2.78"), second));
    EXPECT_EQ("192.0.2.78 0x1 0x6 02:ff:ee:dd:cc:bb * wire0", TableLine("192.0.2.78"));
}

TEST_F(CSocketArpTable, AnEntryIsUsed) {
    const WiredHosts net;
    const auto wire = net.FromPeer([] { return std::make_unique<FrameSocket>("wire0", ETHERTYPE_IP); });
    Endpoint endpoint;
    CMacAddress mac = Mac("\x02\x00\x5e\x00\x53\x42");
    ASSERT_TRUE(endpoint.UpdateARPTable("wire0", CIPString("192.0.2.77"), mac));
    ASSERT_TRUE(endpoint.StartClient());
    ASSERT_TRUE(endpoint.Send("192.0.2.77", 9, "x", 1));
    const std::string frame = wire->Await([](const std::string&) { return true; });
    EXPECT_EQ(std::string("\x02\x00\x5e\x00\x53\x42", 6), frame.substr(0, 6));
}

// Kept so: field reports are read by it.
TEST_F(CSocketArpTable, TheLineHoldsTheOctetsThemselves) {
    const WiredHosts net;
    Endpoint endpoint;
    CMacAddress letters = Mac("BADGER");
    EXPECT_THAT(LinesOf([&] { EXPECT_TRUE(endpoint.UpdateARPTable("wire0", CIPString("192.0.2.77"), letters)); }),
                ElementsAre("CSocket::UpdateARPTable - adding IP: 192.0.2.77 MAC: BADGER"));
    CMacAddress with_zero = Mac("BA\0GER");
    EXPECT_THAT(LinesOf([&] { EXPECT_TRUE(endpoint.UpdateARPTable("wire0", CIPString("192.0.2.77"), with_zero)); }),
                ElementsAre("CSocket::UpdateARPTable - adding IP: 192.0.2.77 MAC: BA"));
    CMacAddress conversions = Mac("%s%n%d");
    EXPECT_THAT(LinesOf([&] { endpoint.UpdateARPTable("wire0", CIPString("192.0.2.77"), conversions); }),
                ElementsAre("CSocket::UpdateARPTable - adding IP: 192.0.2.77 MAC: %s%n%d"));
}

TEST_F(CSocketArpTable, WithoutADeviceThereIsNoEntry) {
    const WiredHosts net;
    Endpoint endpoint;
    CMacAddress mac = Mac("BADGER");
    EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(endpoint.UpdateARPTable("", CIPString("192.0.2.77"), mac)); }),
                ElementsAre("CSocket::UpdateARPTable - bad device"));
    EXPECT_EQ("", TableLine("192.0.2.77"));
}

TEST_F(CSocketArpTable, OnAnUnknownDeviceThereIsNoEntry) {
    const WiredHosts net;
    Endpoint endpoint;
    CMacAddress mac = Mac("BADGER");
    for (const std::string& device : {std::string("wire9"), std::string("wire"), std::string(15, 'x'),
                                      std::string(16, 'x'), std::string(5000, 'x'), std::string("wire0          x")}) {
        SCOPED_TRACE(device);
        EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(endpoint.UpdateARPTable(device, CIPString("192.0.2.77"), mac)); }),
                    ElementsAre("CSocket::UpdateARPTable - adding IP: 192.0.2.77 MAC: BADGER"));
    }
    EXPECT_EQ("", TableLine("192.0.2.77"));
}

TEST_F(CSocketArpTable, ADeviceNameMayHaveFifteenCharacters) {
    WiredHosts net;
    net.AddInterface("a23456789012345", "198.51.100.1/24", "198.51.100.2/24");
    Endpoint endpoint;
    CMacAddress mac = Mac("BADGER");
    EXPECT_TRUE(endpoint.UpdateARPTable("a23456789012345", CIPString("198.51.100.7"), mac));
    EXPECT_THAT(TableLine("198.51.100.7"), EndsWith(" 42:41:44:47:45:52 * a23456789012345"));
}

TEST_F(CSocketArpTable, WithoutAReceiverThereIsNoEntryAndNoLine) {
    const WiredHosts net;
    TestEndpoint endpoint(CONNECTION_UDP);
    CMacAddress mac = Mac("BADGER");
    for (const int receiver : {0, -1}) {
        endpoint.m_socReceiver = receiver;
        for (const char* const device : {"wire0", ""}) {
            EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(endpoint.UpdateARPTable(device, CIPString("192.0.2.77"), mac)); }),
                        IsEmpty());
        }
    }
    EXPECT_EQ("", TableLine("192.0.2.77"));
}

// ---- announcements

TEST_F(CSocketArping, ThePeerSeesTheAnnouncement) {
    if (std::system("arping -V 2>&1 | grep -q iputils") != 0) {
        GTEST_SKIP() << "needs the arping of iputils";
    }
    const WiredHosts net;
    const auto wire = net.FromPeer([] { return std::make_unique<FrameSocket>("wire0", ETHERTYPE_ARP); });
    TestEndpoint endpoint(CONNECTION_UDP);
    EXPECT_EQ(0, endpoint.Arping(CIPString("192.0.2.1"), CIPString("192.0.2.9")));
    const std::string frame = wire->Await([](const std::string& one) { return WordAt(one, 20) == 2; });
    ASSERT_GE(frame.size(), 42u);
    const std::string own = frame.substr(6, 6);
    EXPECT_EQ(std::string(6, '\xff'), frame.substr(0, 6));
    EXPECT_EQ(std::string("\x08\x06\x00\x01\x08\x00\x06\x04\x00\x02", 10), frame.substr(12, 10));
    EXPECT_EQ(own, frame.substr(22, 6));
    EXPECT_EQ(std::string("\xc0\x00\x02\x01", 4), frame.substr(28, 4));
    EXPECT_EQ(std::string("\xc0\x00\x02\x09", 4), frame.substr(38, 4));
}

TEST_F(CSocketArping, RunsTheToolWithTheseArguments) {
    const StandIn tool(0);
    EXPECT_EQ(0, StatusWithPath(tool.Directory() + ":/usr/bin:/bin", CIPString("10.0.0.2"), CIPString("10.0.0.1")));
    EXPECT_THAT(tool.Arguments(), ElementsAre("-q", "-A", "-c1", "-s", "10.0.0.2", "10.0.0.1"));
}

TEST_F(CSocketArping, TheLongestAddressesAreWhole) {
    const StandIn tool(0);
    EXPECT_EQ(0, StatusWithPath(tool.Directory() + ":/usr/bin:/bin", CIPString("255.255.255.254"),
                                CIPString("223.255.255.253")));
    EXPECT_THAT(tool.Arguments(), ElementsAre("-q", "-A", "-c1", "-s", "255.255.255.254", "223.255.255.253"));
}

TEST_F(CSocketArping, ReturnsTheStatusOfTheShell) {
    for (const int status : {1, 3, 255}) {
        const StandIn tool(status);
        const int returned =
            StatusWithPath(tool.Directory() + ":/usr/bin:/bin", CIPString("10.0.0.2"), CIPString("10.0.0.1"));
        EXPECT_TRUE(WIFEXITED(returned));
        EXPECT_EQ(status, WEXITSTATUS(returned));
    }
    const int missing = StatusWithPath("/nowhere", CIPString("10.0.0.2"), CIPString("10.0.0.1"));
    EXPECT_TRUE(WIFEXITED(missing));
    EXPECT_EQ(127, WEXITSTATUS(missing));
}

TEST_F(CSocketArping, NothingReachesTheShellThatItCouldMisread) {
    const StandIn tool(0);
    const std::string path = tool.Directory() + ":/usr/bin:/bin";
    for (const char* const text : {"10.0.0.2;exit 9", "$(exit).`x`.|.&", "' \" \\ > <"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(0, StatusWithPath(path, CIPString(text), CIPString(text)));
    }
    const std::vector<std::string> arguments = tool.Arguments();
    ASSERT_EQ(3u * 6u, arguments.size());
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        SCOPED_TRACE(arguments[i]);
        EXPECT_EQ(i % 6 >= 4, arguments[i].find_first_not_of("0123456789.") == std::string::npos);
    }
    // An address without a text leaves no word.
    EXPECT_EQ(0, StatusWithPath(path, CIPString(), CIPString("10.0.0.1")));
    EXPECT_THAT(tool.Arguments().back(), "10.0.0.1");
    EXPECT_EQ(3u * 6u + 5u, tool.Arguments().size());
}

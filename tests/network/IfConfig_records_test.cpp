// Flags and addresses of single interfaces, beside what the ip command tells of them.

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/IfConfig.h>
#include <TarnSocketIO/ioctl_structs.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/InterfaceRequests.h"
#include "tests/support/InterfaceState.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"

using IPv4::IPAddress;
using TarnSocketIO::GetIoCltIf;
using TarnSocketIO::IfConfig;
using TarnSocketIO::IfFlagsReq;
using TarnSocketIO::IfReq;
using TarnTest::AddressLines;
using TarnTest::Eventually;
using TarnTest::GetBroadcast;
using TarnTest::GetNetmask;
using TarnTest::LinkFlags;
using TarnTest::PrivateNetwork;
using TarnTest::SetAddress;
using TarnTest::SetBroadcast;
using TarnTest::SetNetmask;
using TarnTest::WiredHosts;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

namespace {

using InterfaceFlags = TarnTest::NetworkTest;
using InterfaceAddresses = TarnTest::NetworkTest;

using GetAddress = GetIoCltIf<SIOCGIFADDR, IPAddress, &IfReq::GetAddress>;
using GetDestination = GetIoCltIf<SIOCGIFDSTADDR, IPAddress, &IfReq::GetDestinationAddress>;

IfFlagsReq ReadFlags(const char* name) {
    const IfConfig config;
    IfFlagsReq flags(name);
    EXPECT_EQ(0, flags.DoIoCtl(config.GetSocketDescriptor(), SIOCGIFFLAGS));
    return flags;
}

/// The names, as the ip command writes them, of the flags that are set.
std::vector<std::string> NamesOf(const IfFlagsReq& flags) {
    std::vector<std::string> names;
    const auto add = [&](bool is_set, const char* name) {
        if (is_set) {
            names.emplace_back(name);
        }
    };
    add(flags.IsUp(), "UP");
    add(flags.IsBroadcast(), "BROADCAST");
    add(flags.IsMultcast(), "MULTICAST");
    add(flags.IsLoopback(), "LOOPBACK");
    add(flags.IsUp() && !flags.IsRunning(), "NO-CARRIER");
    return names;
}

/// The same from the ip command, as far as records tell it.
std::vector<std::string> ExpectedNames(const PrivateNetwork& net, const std::string& interface) {
    std::vector<std::string> names;
    for (const std::string& name : LinkFlags(net, interface)) {
        if (name == "UP" || name == "BROADCAST" || name == "MULTICAST" || name == "LOOPBACK" || name == "NO-CARRIER") {
            names.push_back(name);
        }
    }
    return names;
}

/// Switches an interface on or off, and touches none of the other flags.
void Switch(const char* name, bool on) {
    IfFlagsReq flags = ReadFlags(name);
    const int up = IFF_UP;
    flags.ifr_flags = static_cast<short>(on ? flags.ifr_flags | up : flags.ifr_flags & ~up);
    const IfConfig config;
    EXPECT_EQ(0, flags.DoIoCtl(config.GetSocketDescriptor(), SIOCSIFFLAGS));
}

template <class Get>
IPAddress Read(const char* name) {
    const IfConfig config;
    Get get(name);
    IPAddress value;
    EXPECT_EQ(0, config.DoIoCtl(get, value));
    EXPECT_EQ(value, get.Get());
    return value;
}

template <class Set>
void Write(const char* name, IPAddress value) {
    const IfConfig config;
    Set set(name, value);
    EXPECT_EQ(0, config.DoIoCtl(set));
}

}  // namespace

// ---- flags

TEST_F(InterfaceFlags, TheLoopbackInterfaceIsUpAndRunning) {
    const PrivateNetwork net;
    const IfFlagsReq flags = ReadFlags("lo");
    EXPECT_TRUE(flags.IsLoopback());
    EXPECT_TRUE(flags.IsUp());
    EXPECT_TRUE(flags.IsRunning());
    EXPECT_FALSE(flags.IsBroadcast());
    EXPECT_FALSE(flags.IsMultcast());
    EXPECT_STREQ("lo", flags.GetIfName());
    EXPECT_THAT(NamesOf(flags), UnorderedElementsAreArray(ExpectedNames(net, "lo")));
}

TEST_F(InterfaceFlags, AWireIsForBroadcastsAndMulticasts) {
    const WiredHosts net;
    const IfFlagsReq flags = ReadFlags("wire0");
    EXPECT_FALSE(flags.IsLoopback());
    EXPECT_TRUE(flags.IsUp());
    EXPECT_TRUE(flags.IsRunning());
    EXPECT_TRUE(flags.IsBroadcast());
    EXPECT_TRUE(flags.IsMultcast());
    EXPECT_THAT(NamesOf(flags), UnorderedElementsAreArray(ExpectedNames(net, "wire0")));
}

TEST_F(InterfaceFlags, AWireWhoseOtherEndIsDownIsUpButDoesNotRun) {
    const WiredHosts net;
    net.InPeer([&] { net.Run("ip link set wire0 down"); });
    // The kernel notices a little later.
    ASSERT_TRUE(Eventually([&] { return !ReadFlags("wire0").IsRunning(); }));
    const IfFlagsReq flags = ReadFlags("wire0");
    EXPECT_TRUE(flags.IsUp());
    EXPECT_THAT(ExpectedNames(net, "wire0"), UnorderedElementsAre("NO-CARRIER", "BROADCAST", "MULTICAST", "UP"));
    EXPECT_THAT(NamesOf(flags), UnorderedElementsAreArray(ExpectedNames(net, "wire0")));

    net.InPeer([&] { net.Run("ip link set wire0 up"); });
    EXPECT_TRUE(Eventually([&] { return ReadFlags("wire0").IsRunning(); }));
}

TEST_F(InterfaceFlags, EachFlagFollowsTheInterface) {
    const WiredHosts net;
    net.Run("ip link set wire0 multicast off");
    EXPECT_FALSE(ReadFlags("wire0").IsMultcast());
    EXPECT_TRUE(ReadFlags("wire0").IsBroadcast());
    net.Run("ip link set wire0 multicast on");
    EXPECT_TRUE(ReadFlags("wire0").IsMultcast());
    net.Run("ip link set wire0 down");
    EXPECT_FALSE(ReadFlags("wire0").IsUp());
    EXPECT_FALSE(ReadFlags("wire0").IsRunning());
    net.Run("ip link set lo down");
    EXPECT_FALSE(ReadFlags("lo").IsUp());
    EXPECT_TRUE(ReadFlags("lo").IsLoopback());
}

TEST_F(InterfaceFlags, AnInterfaceIsSwitchedOffAndOn) {
    const WiredHosts net(2);
    Switch("wire0", false);
    EXPECT_FALSE(net.IsUp("wire0"));
    EXPECT_TRUE(net.IsUp("wire1"));
    EXPECT_THAT(LinkFlags(net, "wire0"), UnorderedElementsAre("BROADCAST", "MULTICAST"));
    EXPECT_FALSE(ReadFlags("wire0").IsUp());

    Switch("wire0", true);
    EXPECT_TRUE(net.IsUp("wire0"));
    EXPECT_THAT(LinkFlags(net, "wire0"), Contains("MULTICAST"));
    EXPECT_TRUE(ReadFlags("wire0").IsUp());
}

TEST_F(InterfaceFlags, OtherFlagsAreWrittenToo) {
    const WiredHosts net;
    const IfConfig config;
    IfFlagsReq flags = ReadFlags("wire0");
    const int without = ~IFF_MULTICAST;
    flags.ifr_flags = static_cast<short>((flags.ifr_flags & without) | IFF_PROMISC);
    EXPECT_EQ(0, flags.DoIoCtl(config.GetSocketDescriptor(), SIOCSIFFLAGS));
    EXPECT_THAT(LinkFlags(net, "wire0"), Contains("PROMISC"));
    EXPECT_THAT(LinkFlags(net, "wire0"), Not(Contains("MULTICAST")));
    EXPECT_TRUE(net.IsUp("wire0"));
}

TEST_F(InterfaceFlags, TheSocketsNetworkCounts) {
    const WiredHosts net;
    std::unique_ptr<const IfConfig> of_peer;
    net.InPeer([&] {
        of_peer = std::make_unique<const IfConfig>();
        net.Run("ip link set wire0 multicast off");
    });
    IfFlagsReq flags("wire0");
    EXPECT_EQ(0, flags.DoIoCtl(of_peer->GetSocketDescriptor(), SIOCGIFFLAGS));
    EXPECT_FALSE(flags.IsMultcast());
    EXPECT_TRUE(ReadFlags("wire0").IsMultcast());
}

// ---- reading addresses

TEST_F(InterfaceAddresses, AreReadOfAnInterface) {
    PrivateNetwork net;
    net.AddInterface("wire0", "");
    net.Run("ip address add 10.1.2.3/20 broadcast 10.1.77.99 dev wire0");
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 10.1.2.3/20 brd 10.1.77.99"));
    EXPECT_EQ(IPAddress(10, 1, 2, 3), Read<GetAddress>("wire0"));
    EXPECT_EQ(IPAddress(255, 255, 240, 0), Read<GetNetmask>("wire0"));
    EXPECT_EQ(IPAddress(10, 1, 77, 99), Read<GetBroadcast>("wire0"));
    // Without one at the other end it is the interface's own.
    EXPECT_EQ(IPAddress(10, 1, 2, 3), Read<GetDestination>("wire0"));
}

TEST_F(InterfaceAddresses, AreReadOfTheLoopbackInterface) {
    const PrivateNetwork net;
    EXPECT_THAT(AddressLines(net, "lo"), ElementsAre("lo 127.0.0.1/8"));
    EXPECT_EQ(IPAddress(127, 0, 0, 1), Read<GetAddress>("lo"));
    EXPECT_EQ(IPAddress(255, 0, 0, 0), Read<GetNetmask>("lo"));
    EXPECT_EQ(IPAddress(0, 0, 0, 0), Read<GetBroadcast>("lo"));
}

TEST_F(InterfaceAddresses, AreReadOfTheFarEnd) {
    PrivateNetwork net;
    net.AddInterface("wire0", "");
    net.Run("ip address add 10.1.2.3 peer 172.16.200.9/32 dev wire0");
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 10.1.2.3 peer 172.16.200.9/32"));
    EXPECT_EQ(IPAddress(172, 16, 200, 9), Read<GetDestination>("wire0"));
    EXPECT_EQ(IPAddress(10, 1, 2, 3), Read<GetAddress>("wire0"));
    EXPECT_EQ(IPAddress(255, 255, 255, 255), Read<GetNetmask>("wire0"));
}

TEST_F(InterfaceAddresses, AreReadOfAnAlias) {
    WiredHosts net;
    net.Run("ip address add 203.0.113.7/28 broadcast 203.0.113.14 label wire0:mail dev wire0");
    EXPECT_EQ(IPAddress(203, 0, 113, 7), Read<GetAddress>("wire0:mail"));
    EXPECT_EQ(IPAddress(255, 255, 255, 240), Read<GetNetmask>("wire0:mail"));
    EXPECT_EQ(IPAddress(203, 0, 113, 14), Read<GetBroadcast>("wire0:mail"));
    EXPECT_EQ(IPAddress(192, 0, 2, 1), Read<GetAddress>("wire0"));
    EXPECT_EQ(IPAddress(255, 255, 255, 0), Read<GetNetmask>("wire0"));
}

// ---- writing them

TEST_F(InterfaceAddresses, AreWritten) {
    PrivateNetwork net;
    net.AddInterface("wire0", "");
    Write<SetAddress>("wire0", IPAddress(10, 1, 2, 3));
    // The kernel's defaults are those of the address's class.
    EXPECT_THAT(AddressLines(net), ElementsAre("lo 127.0.0.1/8", "wire0 10.1.2.3/8 brd 10.255.255.255"));
    Write<SetNetmask>("wire0", IPAddress(255, 255, 240, 0));
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 10.1.2.3/20 brd 10.1.15.255"));
    Write<SetBroadcast>("wire0", IPAddress(10, 1, 77, 99));
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 10.1.2.3/20 brd 10.1.77.99"));
    EXPECT_EQ(IPAddress(10, 1, 77, 99), Read<GetBroadcast>("wire0"));
    EXPECT_THAT(AddressLines(net, "lo"), ElementsAre("lo 127.0.0.1/8"));
}

TEST_F(InterfaceAddresses, OneRecordWritesSeveral) {
    PrivateNetwork net;
    net.AddInterface("wire0", "192.0.2.1/24");
    const IfConfig config;
    SetNetmask set("wire0", IPAddress(255, 255, 0, 0));
    EXPECT_EQ(0, config.DoIoCtl(set));
    set.Set(IPAddress(255, 255, 255, 252));
    EXPECT_EQ(0, config.DoIoCtl(set));
    EXPECT_EQ(IPAddress(255, 255, 255, 252), Read<GetNetmask>("wire0"));
    EXPECT_THAT(net.Run("ip -4 -oneline address show dev wire0"), testing::HasSubstr("inet 192.0.2.1/30 "));
    set.SetIfName("lo");
    EXPECT_EQ(0, config.DoIoCtl(set));
    EXPECT_THAT(AddressLines(net, "lo"), ElementsAre("lo 127.0.0.1/30"));
}

// Changes of an alias's settings, as the ip command sees them.

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/IfConfig.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/InterfaceState.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"

using IPv4::IPAddress;
using TarnSocketIO::ChangeAliasIf;
using TarnSocketIO::IfConfig;
using TarnTest::AddressLines;
using TarnTest::PrivateNetwork;
using TarnTest::WiredHosts;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace {

using ChangedAlias = TarnTest::NetworkTest;

const IPAddress leave_alone(0, 0, 0, 0);
const IPAddress from_main(1, 0, 0, 0);

constexpr const char* main_line = "wire0 10.1.2.3/20 brd 10.1.14.99";

/// One end of a wire with an alias. All settings differ, and none is what anybody would guess.
class Host : public PrivateNetwork {
public:
    Host() {
        AddInterface("wire0", "");
        Run("ip address add 10.1.2.3/20 broadcast 10.1.14.99 dev wire0");
        Run("ip address add 203.0.113.7/28 broadcast 203.0.113.12 label wire0:1 dev wire0");
    }
};

/// Changes wire0:1. @return the operation, with its results.
ChangeAliasIf Change(IPAddress address, IPAddress netmask, IPAddress broadcast) {
    const IfConfig config;
    ChangeAliasIf change("wire0", "wire0:1", address, netmask, broadcast);
    EXPECT_EQ(0, config.DoIoCtl(change));
    EXPECT_EQ(address, change.m_alias_ip);
    EXPECT_EQ("wire0", change.m_main_if_name);
    EXPECT_EQ("wire0:1", change.m_alias_if_name);
    return change;
}

}  // namespace

// ---- nothing, and each alone

TEST_F(ChangedAlias, StaysAsItIsIfAllValuesAreAbsent) {
    const Host net;
    const ChangeAliasIf change = Change(leave_alone, leave_alone, leave_alone);
    EXPECT_EQ(leave_alone, change.m_netmask);
    EXPECT_EQ(leave_alone, change.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre(main_line, "wire0:1 203.0.113.7/28 brd 203.0.113.12"));
}

TEST_F(ChangedAlias, WithAllValuesAbsentNeedNotBeThere) {
    const PrivateNetwork net;
    Change(leave_alone, leave_alone, leave_alone);
    EXPECT_THAT(AddressLines(net), ElementsAre("lo 127.0.0.1/8"));
}

TEST_F(ChangedAlias, HasANewAddressWithTheDefaultsOfItsClass) {
    const Host net;
    const ChangeAliasIf change = Change(IPAddress(172, 16, 2, 9), leave_alone, leave_alone);
    EXPECT_EQ(leave_alone, change.m_netmask);
    EXPECT_EQ(leave_alone, change.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"),
                UnorderedElementsAre(main_line, "wire0:1 172.16.2.9/16 brd 172.16.255.255"));
}

TEST_F(ChangedAlias, KeepsItsSettingsIfTheAddressIsTheSame) {
    const Host net;
    Change(IPAddress(203, 0, 113, 7), leave_alone, leave_alone);
    EXPECT_THAT(AddressLines(net, "wire0"), UnorderedElementsAre(main_line, "wire0:1 203.0.113.7/28 brd 203.0.113.12"));
}

TEST_F(ChangedAlias, HasANewNetmaskAndNothingElse) {
    const Host net;
    const ChangeAliasIf change = Change(leave_alone, IPAddress(255, 255, 255, 192), leave_alone);
    EXPECT_EQ(IPAddress(255, 255, 255, 192), change.m_netmask);
    EXPECT_EQ(leave_alone, change.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"), UnorderedElementsAre(main_line, "wire0:1 203.0.113.7/26 brd 203.0.113.12"));
}

TEST_F(ChangedAlias, HasTheMainInterfacesNetmaskAndNothingElse) {
    const Host net;
    const ChangeAliasIf change = Change(leave_alone, from_main, leave_alone);
    EXPECT_EQ(IPAddress(255, 255, 240, 0), change.m_netmask);
    EXPECT_EQ(leave_alone, change.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"), UnorderedElementsAre(main_line, "wire0:1 203.0.113.7/20 brd 203.0.113.12"));
}

TEST_F(ChangedAlias, HasANewBroadcastAddressAndNothingElse) {
    const Host net;
    const ChangeAliasIf change = Change(leave_alone, leave_alone, IPAddress(203, 0, 113, 9));
    EXPECT_EQ(leave_alone, change.m_netmask);
    EXPECT_EQ(IPAddress(203, 0, 113, 9), change.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"), UnorderedElementsAre(main_line, "wire0:1 203.0.113.7/28 brd 203.0.113.9"));
}

TEST_F(ChangedAlias, HasTheMainInterfacesBroadcastAddressAndNothingElse) {
    const Host net;
    const ChangeAliasIf change = Change(leave_alone, leave_alone, from_main);
    EXPECT_EQ(leave_alone, change.m_netmask);
    EXPECT_EQ(IPAddress(10, 1, 14, 99), change.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"), UnorderedElementsAre(main_line, "wire0:1 203.0.113.7/28 brd 10.1.14.99"));
}

// ---- together

TEST_F(ChangedAlias, HasAllThatIsGiven) {
    const Host net;
    const ChangeAliasIf change =
        Change(IPAddress(198, 51, 100, 66), IPAddress(255, 255, 252, 0), IPAddress(198, 51, 101, 77));
    EXPECT_EQ(IPAddress(255, 255, 252, 0), change.m_netmask);
    EXPECT_EQ(IPAddress(198, 51, 101, 77), change.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"),
                UnorderedElementsAre(main_line, "wire0:1 198.51.100.66/22 brd 198.51.101.77"));
}

TEST_F(ChangedAlias, HasAllOfTheMainInterface) {
    const Host net;
    const ChangeAliasIf change = Change(IPAddress(10, 1, 2, 9), from_main, from_main);
    EXPECT_EQ(IPAddress(255, 255, 240, 0), change.m_netmask);
    EXPECT_EQ(IPAddress(10, 1, 14, 99), change.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre(main_line, "wire0:1 10.1.2.9/20 brd 10.1.14.99"));
}

TEST_F(ChangedAlias, HasOneOfTheMainInterfaceAndOneThatIsGiven) {
    {
        const Host net;
        const ChangeAliasIf change = Change(leave_alone, from_main, IPAddress(203, 0, 113, 9));
        EXPECT_EQ(IPAddress(255, 255, 240, 0), change.m_netmask);
        EXPECT_EQ(IPAddress(203, 0, 113, 9), change.m_bcast);
        EXPECT_THAT(AddressLines(net, "wire0"),
                    UnorderedElementsAre(main_line, "wire0:1 203.0.113.7/20 brd 203.0.113.9"));
    }
    const Host net;
    const ChangeAliasIf change = Change(leave_alone, IPAddress(255, 255, 255, 192), from_main);
    EXPECT_EQ(IPAddress(255, 255, 255, 192), change.m_netmask);
    EXPECT_EQ(IPAddress(10, 1, 14, 99), change.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"), UnorderedElementsAre(main_line, "wire0:1 203.0.113.7/26 brd 10.1.14.99"));
}

// The kernel gives a new address the netmask of its class: a netmask that came first would be lost.
TEST_F(ChangedAlias, GetsTheAddressBeforeTheNetmask) {
    const Host net;
    Change(IPAddress(192, 0, 2, 9), IPAddress(255, 255, 255, 192), leave_alone);
    EXPECT_THAT(AddressLines(net, "wire0"), UnorderedElementsAre(main_line, "wire0:1 192.0.2.9/26 brd 192.0.2.63"));
}

// The kernel moves a broadcast address that is the old netmask's along with the netmask: one that came first would be
// changed again.
TEST_F(ChangedAlias, GetsTheNetmaskBeforeTheBroadcastAddress) {
    const Host net;
    net.Run("ip address flush dev wire0");
    net.Run("ip address add 192.0.2.9/24 broadcast 192.0.2.255 label wire0:1 dev wire0");
    Change(leave_alone, IPAddress(255, 255, 255, 192), IPAddress(192, 0, 2, 255));
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0:1 192.0.2.9/26 brd 192.0.2.255"));
}

TEST_F(ChangedAlias, TakesTheHighestAndLowestNetmasks) {
    const Host net;
    const ChangeAliasIf host = Change(leave_alone, IPAddress(255, 255, 255, 255), leave_alone);
    EXPECT_EQ(IPAddress(255, 255, 255, 255), host.m_netmask);
    EXPECT_THAT(AddressLines(net, "wire0"), UnorderedElementsAre(main_line, "wire0:1 203.0.113.7/32 brd 203.0.113.12"));
    const ChangeAliasIf half = Change(leave_alone, IPAddress(128, 0, 0, 0), IPAddress(255, 255, 255, 255));
    EXPECT_EQ(IPAddress(128, 0, 0, 0), half.m_netmask);
    EXPECT_THAT(AddressLines(net, "wire0"),
                UnorderedElementsAre(main_line, "wire0:1 203.0.113.7/1 brd 255.255.255.255"));
}

// ---- the operation

TEST_F(ChangedAlias, StaysWhenTheOperationIsGone) {
    const Host net;
    {
        const auto config = std::make_unique<IfConfig>();
        const auto change =
            std::make_unique<ChangeAliasIf>("wire0", "wire0:1", IPAddress(10, 1, 2, 9), from_main, from_main);
        EXPECT_EQ(0, config->DoIoCtl(*change));
    }
    EXPECT_THAT(AddressLines(net), ElementsAre("lo 127.0.0.1/8", main_line, "wire0:1 10.1.2.9/20 brd 10.1.14.99"));
}

// The sentinels are gone after the first run.
TEST_F(ChangedAlias, AppliesWhatWasReadWhenItIsRunAgain) {
    const Host net;
    const IfConfig config;
    ChangeAliasIf change("wire0", "wire0:1", leave_alone, from_main, from_main);
    EXPECT_EQ(0, config.DoIoCtl(change));
    net.Run("ip address flush dev wire0");
    net.Run("ip address add 192.0.2.1/24 dev wire0");
    net.Run("ip address add 203.0.113.7/28 label wire0:1 dev wire0");
    EXPECT_EQ(0, config.DoIoCtl(change));
    EXPECT_THAT(AddressLines(net, "wire0"),
                UnorderedElementsAre("wire0 192.0.2.1/24", "wire0:1 203.0.113.7/20 brd 10.1.14.99"));
}

TEST_F(ChangedAlias, MayHaveALongName) {
    const Host net;
    net.Run("ip address add 10.1.2.9/24 label wire0:789012345 dev wire0");
    const IfConfig config;
    for (const std::string& name :
         {std::string("wire0:789012345"), std::string("wire0:7890123456"), "wire0:789012345" + std::string(85, 'x')}) {
        SCOPED_TRACE(name);
        net.Run("ip address replace 10.1.2.9/24 label wire0:789012345 dev wire0");
        ChangeAliasIf change("wire0", name.c_str(), leave_alone, from_main, IPAddress(10, 1, 2, 99));
        EXPECT_EQ(0, config.DoIoCtl(change));
        EXPECT_EQ(IPAddress(255, 255, 240, 0), change.m_netmask);
        EXPECT_THAT(AddressLines(net, "wire0"),
                    UnorderedElementsAre(main_line, "wire0:1 203.0.113.7/28 brd 203.0.113.12",
                                         "wire0:789012345 10.1.2.9/20 brd 10.1.2.99"));
        net.Run("ip address delete 10.1.2.9/20 dev wire0");
    }
}

TEST_F(ChangedAlias, LeavesOtherAliasesAlone) {
    Host net;
    net.AddAlias("wire0:11", "198.51.100.7/28");
    net.AddAlias("wire0:2", "198.51.100.99/28");
    Change(IPAddress(10, 1, 2, 9), from_main, from_main);
    EXPECT_THAT(AddressLines(net, "wire0"),
                UnorderedElementsAre(main_line, "wire0:1 10.1.2.9/20 brd 10.1.14.99", "wire0:11 198.51.100.7/28",
                                     "wire0:2 198.51.100.99/28"));
}

TEST_F(ChangedAlias, TakesTheSettingsOfTheInterfaceThatIsNamed) {
    WiredHosts net(2);
    net.AddAlias("wire0:1", "203.0.113.7/28");
    net.Run("ip address flush dev wire1");
    net.Run("ip address add 10.1.2.3/20 broadcast 10.1.14.99 dev wire1");
    const IfConfig config;
    ChangeAliasIf change("wire1", "wire0:1", leave_alone, from_main, from_main);
    EXPECT_EQ(0, config.DoIoCtl(change));
    EXPECT_THAT(AddressLines(net, "wire0"), testing::Contains("wire0:1 203.0.113.7/20 brd 10.1.14.99"));
}

// Also the interface itself goes by a name.
TEST_F(ChangedAlias, MayBeTheMainInterface) {
    const WiredHosts net;
    const IfConfig config;
    ChangeAliasIf change("wire0", "wire0", IPAddress(10, 9, 8, 7), IPAddress(255, 255, 255, 0), leave_alone);
    EXPECT_EQ(0, config.DoIoCtl(change));
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 10.9.8.7/24 brd 10.9.8.255"));
}

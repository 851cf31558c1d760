// Aliases that come and go, as the ip command sees them.

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/IfConfig.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/InterfaceState.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"

using IPv4::IPAddress;
using TarnSocketIO::AddAliasIf;
using TarnSocketIO::DelAliasIf;
using TarnSocketIO::IfConfig;
using TarnTest::AddressLines;
using TarnTest::LinkFlags;
using TarnTest::PrivateNetwork;
using TarnTest::WiredHosts;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace {

using NewAlias = TarnTest::NetworkTest;
using DeletedAlias = TarnTest::NetworkTest;

/// One end of a wire, whose netmask and broadcast address are not what anybody would guess.
class Host : public PrivateNetwork {
public:
    Host() {
        AddInterface("wire0", "");
        Run("ip address add 10.1.2.3/20 broadcast 10.1.14.99 dev wire0");
    }
};

/// Makes an alias. @return the operation, with its results.
AddAliasIf Add(const char* main, const char* alias, IPAddress address, bool copy_main_settings) {
    const IfConfig config;
    AddAliasIf add(main, alias, address, copy_main_settings);
    EXPECT_EQ(0, config.DoIoCtl(add));
    return add;
}

int Delete(const char* main, const char* alias) {
    const IfConfig config;
    DelAliasIf del(main, alias);
    return config.DoIoCtl(del);
}

}  // namespace

// ---- made

TEST_F(NewAlias, HasTheSettingsOfTheMainInterface) {
    const Host net;
    const AddAliasIf added = Add("wire0", "wire0:1", IPAddress(10, 1, 2, 9), true);
    EXPECT_EQ(IPAddress(255, 255, 240, 0), added.m_netmask);
    EXPECT_EQ(IPAddress(10, 1, 14, 99), added.m_bcast);
    EXPECT_EQ(IPAddress(10, 1, 2, 9), added.m_alias_ip);
    EXPECT_EQ("wire0", added.m_main_if_name);
    EXPECT_EQ("wire0:1", added.m_alias_if_name);
    EXPECT_TRUE(added.m_copy_main_settings);
    EXPECT_THAT(AddressLines(net, "wire0"),
                ElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99", "wire0:1 10.1.2.9/20 brd 10.1.14.99"));
}

TEST_F(NewAlias, HasThemOnAnotherNetworkToo) {
    const Host net;
    const AddAliasIf added = Add("wire0", "wire0:1", IPAddress(192, 0, 2, 9), true);
    EXPECT_EQ(IPAddress(255, 255, 240, 0), added.m_netmask);
    EXPECT_EQ(IPAddress(10, 1, 14, 99), added.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"),
                UnorderedElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99", "wire0:1 192.0.2.9/20 brd 10.1.14.99"));
}

TEST_F(NewAlias, HasTheKernelsDefaultsIfNothingIsCopied) {
    const std::pair<IPAddress, const char*> classes[] = {
        {IPAddress(10, 77, 2, 9), "wire0:1 10.77.2.9/8 brd 10.255.255.255"},
        {IPAddress(172, 16, 2, 9), "wire0:1 172.16.2.9/16 brd 172.16.255.255"},
        {IPAddress(192, 0, 2, 9), "wire0:1 192.0.2.9/24 brd 192.0.2.255"}};
    for (const auto& [address, line] : classes) {
        SCOPED_TRACE(line);
        const Host net;
        const AddAliasIf added = Add("wire0", "wire0:1", address, false);
        EXPECT_EQ(IPAddress(0, 0, 0, 0), added.m_netmask);
        EXPECT_EQ(IPAddress(0, 0, 0, 0), added.m_bcast);
        EXPECT_EQ(address, added.m_alias_ip);
        EXPECT_FALSE(added.m_copy_main_settings);
        EXPECT_THAT(AddressLines(net, "wire0"), UnorderedElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99", line));
    }
}

TEST_F(NewAlias, TakesItsSettingsFromTheInterfaceThatIsNamed) {
    WiredHosts net(2);
    net.Run("ip address flush dev wire1");
    net.Run("ip address add 10.1.2.3/20 broadcast 10.1.14.99 dev wire1");
    const AddAliasIf added = Add("wire1", "wire0:1", IPAddress(203, 0, 113, 9), true);
    EXPECT_EQ(IPAddress(255, 255, 240, 0), added.m_netmask);
    EXPECT_EQ(IPAddress(10, 1, 14, 99), added.m_bcast);
    EXPECT_THAT(AddressLines(net, "wire0"), testing::Contains("wire0:1 203.0.113.9/20 brd 10.1.14.99"));
    EXPECT_THAT(AddressLines(net, "wire1"), ElementsAre("wire1 10.1.2.3/20 brd 10.1.14.99"));
}

TEST_F(NewAlias, StaysWhenTheOperationIsGone) {
    const Host net;
    {
        auto config = std::make_unique<IfConfig>();
        auto add = std::make_unique<AddAliasIf>("wire0", "wire0:1", IPAddress(10, 1, 2, 9), true);
        EXPECT_EQ(0, config->DoIoCtl(*add));
    }
    EXPECT_THAT(AddressLines(net), ElementsAre("lo 127.0.0.1/8", "wire0 10.1.2.3/20 brd 10.1.14.99",
                                               "wire0:1 10.1.2.9/20 brd 10.1.14.99"));
    EXPECT_TRUE(net.IsUp("wire0"));
}

TEST_F(NewAlias, StandsBesideOthers) {
    const Host net;
    Add("wire0", "wire0:1", IPAddress(10, 1, 2, 9), true);
    Add("wire0", "wire0:mail", IPAddress(10, 1, 3, 10), true);
    Add("wire0", "wire0:2", IPAddress(203, 0, 113, 7), false);
    EXPECT_THAT(
        AddressLines(net, "wire0"),
        UnorderedElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99", "wire0:1 10.1.2.9/20 brd 10.1.14.99",
                             "wire0:mail 10.1.3.10/20 brd 10.1.14.99", "wire0:2 203.0.113.7/24 brd 203.0.113.255"));
}

TEST_F(NewAlias, OfTheSameNameMovesToItsNewAddress) {
    const Host net;
    Add("wire0", "wire0:1", IPAddress(10, 1, 2, 9), true);
    Add("wire0", "wire0:1", IPAddress(203, 0, 113, 7), false);
    EXPECT_THAT(AddressLines(net, "wire0"),
                UnorderedElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99", "wire0:1 203.0.113.7/24 brd 203.0.113.255"));
}

TEST_F(NewAlias, IsReached) {
    const WiredHosts net;
    Add("wire0", "wire0:1", IPAddress(192, 0, 2, 9), true);
    net.InPeer([&] { EXPECT_NO_THROW(net.Run("ping -q -c 1 -W 30 192.0.2.9")); });
}

TEST_F(NewAlias, MayHaveANameOfFifteenCharacters) {
    const Host net;
    const AddAliasIf added = Add("wire0", "wire0:789012345", IPAddress(10, 1, 2, 9), true);
    EXPECT_EQ("wire0:789012345", added.m_alias_if_name);
    EXPECT_THAT(AddressLines(net, "wire0"),
                ElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99", "wire0:789012345 10.1.2.9/20 brd 10.1.14.99"));
}

TEST_F(NewAlias, HasTheFirstFifteenCharactersOfALongerName) {
    for (const std::string& name : {std::string("wire0:7890123456"), "wire0:789012345" + std::string(85, 'x'),
                                    "wire0:789012345" + std::string(5000, ':')}) {
        SCOPED_TRACE(name);
        const Host net;
        const AddAliasIf added = Add("wire0", name.c_str(), IPAddress(10, 1, 2, 9), true);
        EXPECT_EQ(name, added.m_alias_if_name);
        EXPECT_EQ(IPAddress(255, 255, 240, 0), added.m_netmask);
        EXPECT_THAT(AddressLines(net, "wire0"),
                    ElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99", "wire0:789012345 10.1.2.9/20 brd 10.1.14.99"));
    }
}

TEST_F(NewAlias, MayBeTheLoopbackInterfaces) {
    const PrivateNetwork net;
    const AddAliasIf added = Add("lo", "lo:1", IPAddress(192, 0, 2, 9), true);
    EXPECT_EQ(IPAddress(255, 0, 0, 0), added.m_netmask);
    EXPECT_EQ(IPAddress(0, 0, 0, 0), added.m_bcast);
    EXPECT_THAT(AddressLines(net, "lo"), UnorderedElementsAre("lo 127.0.0.1/8", "lo:1 192.0.2.9/8"));
}

// ---- deleted

TEST_F(DeletedAlias, LeavesEverythingElse) {
    const Host net;
    Add("wire0", "wire0:1", IPAddress(10, 1, 2, 9), true);
    Add("wire0", "wire0:11", IPAddress(10, 1, 2, 11), true);
    Add("wire0", "wire0:2", IPAddress(203, 0, 113, 7), false);
    const std::vector<std::string> flags = LinkFlags(net, "wire0");
    EXPECT_EQ(0, Delete("wire0", "wire0:1"));
    EXPECT_THAT(AddressLines(net), UnorderedElementsAre("lo 127.0.0.1/8", "wire0 10.1.2.3/20 brd 10.1.14.99",
                                                        "wire0:11 10.1.2.11/20 brd 10.1.14.99",
                                                        "wire0:2 203.0.113.7/24 brd 203.0.113.255"));
    EXPECT_EQ(flags, LinkFlags(net, "wire0"));
    EXPECT_TRUE(net.IsUp("wire0"));
    EXPECT_TRUE(net.IsUp("lo"));
}

TEST_F(DeletedAlias, LeavesTheInterfaceTalking) {
    const WiredHosts net;
    Add("wire0", "wire0:1", IPAddress(192, 0, 2, 9), true);
    EXPECT_EQ(0, Delete("wire0", "wire0:1"));
    net.InPeer([&] { EXPECT_NO_THROW(net.Run("ping -q -c 1 -W 30 192.0.2.1")); });
}

TEST_F(DeletedAlias, CanBeMadeAgain) {
    const Host net;
    for (int i = 0; i < 20; ++i) {
        Add("wire0", "wire0:1", IPAddress(10, 1, 2, 9), true);
        EXPECT_THAT(AddressLines(net, "wire0"),
                    ElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99", "wire0:1 10.1.2.9/20 brd 10.1.14.99"));
        EXPECT_EQ(0, Delete("wire0", "wire0:1"));
        EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99"));
    }
}

TEST_F(DeletedAlias, MayHaveBeenMadeBySomebodyElse) {
    Host net;
    net.AddAlias("wire0:mail", "203.0.113.7/29");
    EXPECT_EQ(0, Delete("wire0", "wire0:mail"));
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99"));
}

TEST_F(DeletedAlias, MayHaveANameOfFifteenCharacters) {
    const Host net;
    Add("wire0", "wire0:789012345", IPAddress(10, 1, 2, 9), true);
    EXPECT_EQ(0, Delete("wire0", "wire0:789012345"));
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99"));
}

TEST_F(DeletedAlias, GoesFromAnInterfaceThatIsDown) {
    const Host net;
    Add("wire0", "wire0:1", IPAddress(10, 1, 2, 9), true);
    net.Run("ip link set wire0 down");
    EXPECT_EQ(0, Delete("wire0", "wire0:1"));
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 10.1.2.3/20 brd 10.1.14.99"));
    EXPECT_FALSE(net.IsUp("wire0"));
}

// Switching off what is not an alias would take the host from the network.
TEST_F(DeletedAlias, IsNeverAPhysicalInterface) {
    WiredHosts net(2);
    net.AddInterface("a23456789012345", "203.0.113.1/24");
    net.AddAlias("wire1:1", "198.51.100.9/24");
    const std::vector<std::string> before = AddressLines(net);
    const std::pair<const char*, const char*> names[] = {
        {"wire0", "wire0"},
        {"wire0", "wire1"},
        {"wire0", "wire1:1"},
        {"wire", "wire0"},
        {"wire", "wire1:1"},
        {"", "wire0"},
        {"", "wire1:1"},
        {"wire0", ""},
        {"", ""},
        {"", ":1"},
        {"lo", "lo"},
        {"a23456789012345", "a23456789012345"},
        // Cut, these would be without a label.
        {"a23456789012345", "a23456789012345:1"},
        {"wire0", "wire0          :1"},
    };
    for (const auto& [main, alias] : names) {
        SCOPED_TRACE(std::string(main) + " " + alias);
        EXPECT_EQ(EINVAL, Delete(main, alias));
        EXPECT_EQ(before, AddressLines(net));
        for (const char* const interface : {"lo", "wire0", "wire1", "a23456789012345"}) {
            EXPECT_TRUE(net.IsUp(interface)) << interface;
        }
    }
}

// The kernel's list of interfaces, beside what the ip command tells of them.

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/IfConfig.h>
#include <TarnSocketIO/ioctl_structs.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <cstddef>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/InterfaceState.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"

using TarnSocketIO::GetAllIfs;
using TarnSocketIO::IfConf;
using TarnSocketIO::IfConfig;
using TarnSocketIO::IfReq;
using TarnTest::AddressLabels;
using TarnTest::PrivateNetwork;
using TarnTest::WiredHosts;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace {

using InterfaceList = TarnTest::NetworkTest;

using Names = std::vector<const char*>;

/// The names as texts, to look at them when the list is gone.
std::vector<std::string> Texts(const Names& names) {
    return {names.begin(), names.end()};
}

/// What a list of its own says.
std::vector<std::string> ListedNames(unsigned int records = GetAllIfs::INITIAL_IFREQ_SIZE) {
    const IfConfig config;
    GetAllIfs list(records);
    Names names;
    EXPECT_EQ(0, config.DoIoCtl(list, names));
    return Texts(names);
}

/// Twelve addresses: of lo, of two interfaces, and of nine aliases, which are not made in the order of their names.
class TwelveAddresses : public PrivateNetwork {
public:
    TwelveAddresses() {
        AddInterface("first", "192.0.2.1/24");
        AddInterface("second", "198.51.100.1/24");
        for (const char* const number : {"5", "3", "8", "1", "9"}) {
            AddAlias(std::string("second:") + number, std::string("198.51.100.1") + number + "/24");
        }
        for (const char* const number : {"7", "2", "6", "4"}) {
            AddAlias(std::string("first:") + number, std::string("192.0.2.1") + number + "/24");
        }
    }
};

}  // namespace

// ---- what is listed

TEST_F(InterfaceList, InterfacesWithAnAddressAreListed) {
    const WiredHosts net(2);
    EXPECT_THAT(ListedNames(), ElementsAre("lo", "wire0", "wire1"));
    EXPECT_THAT(ListedNames(), ElementsAreArray(AddressLabels(net)));
}

TEST_F(InterfaceList, AnInterfaceThatIsUpWithoutAnAddressIsNotListed) {
    PrivateNetwork net;
    net.AddInterface("silent", "");
    net.AddInterface("spoken", "192.0.2.1/24");
    EXPECT_TRUE(net.IsUp("silent"));
    EXPECT_THAT(ListedNames(), ElementsAre("lo", "spoken"));
    net.Run("ip address add 198.51.100.1/24 dev silent");
    EXPECT_THAT(ListedNames(), ElementsAre("lo", "silent", "spoken"));
    net.Run("ip address flush dev spoken");
    EXPECT_THAT(ListedNames(), ElementsAre("lo", "silent"));
}

TEST_F(InterfaceList, AnInterfaceThatIsDownIsListedIfItHasAnAddress) {
    const WiredHosts net;
    net.Run("ip link set wire0 down");
    EXPECT_THAT(ListedNames(), ElementsAre("lo", "wire0"));
}

TEST_F(InterfaceList, AliasesAreListedUnderTheirOwnNames) {
    WiredHosts net;
    net.AddAlias("wire0:1", "192.0.2.7/24");
    net.AddAlias("wire0:mail", "203.0.113.7/24");
    EXPECT_THAT(ListedNames(), ElementsAreArray(AddressLabels(net)));
    EXPECT_THAT(ListedNames(), UnorderedElementsAre("lo", "wire0", "wire0:1", "wire0:mail"));
}

TEST_F(InterfaceList, AnAddressWithoutALabelIsOneMoreOfItsInterface) {
    const WiredHosts net;
    net.Run("ip address add 192.0.2.7/24 dev wire0");
    EXPECT_THAT(ListedNames(), ElementsAre("lo", "wire0", "wire0"));
}

TEST_F(InterfaceList, ANameMayHaveFifteenCharacters) {
    PrivateNetwork net;
    net.AddInterface("a23456789012345", "192.0.2.1/24");
    net.AddInterface("wire0", "198.51.100.1/24");
    net.AddAlias("wire0:789012345", "198.51.100.7/24");
    EXPECT_THAT(ListedNames(), ElementsAre("lo", "a23456789012345", "wire0", "wire0:789012345"));
}

TEST_F(InterfaceList, WithoutAnyAddressNothingIsListed) {
    const PrivateNetwork net;
    net.Run("ip address flush dev lo");
    const IfConfig config;
    GetAllIfs list;
    Names names(3, "of old");
    EXPECT_EQ(0, config.DoIoCtl(list, names));
    EXPECT_THAT(names, IsEmpty());
}

TEST_F(InterfaceList, TheSocketsNetworkIsListed) {
    PrivateNetwork net;
    net.AddInterface("wire0", "192.0.2.1/24", "");
    std::unique_ptr<const IfConfig> of_peer;
    net.InPeer([&] { of_peer = std::make_unique<const IfConfig>(); });
    GetAllIfs list;
    Names names;
    EXPECT_EQ(0, of_peer->DoIoCtl(list, names));
    EXPECT_THAT(Texts(names), ElementsAre("lo"));
}

// ---- how many

TEST_F(InterfaceList, TenRecordsHoldTenOfTwelve) {
    const TwelveAddresses net;
    std::vector<std::string> all = AddressLabels(net);
    ASSERT_THAT(all, SizeIs(12));
    all.resize(10);
    EXPECT_THAT(ListedNames(), ElementsAreArray(all));
    EXPECT_THAT(ListedNames(10), ElementsAreArray(all));
}

TEST_F(InterfaceList, ElevenRecordsHoldEleven) {
    const TwelveAddresses net;
    std::vector<std::string> all = AddressLabels(net);
    ASSERT_THAT(all, SizeIs(12));
    all.resize(11);
    EXPECT_THAT(ListedNames(11), ElementsAreArray(all));
}

TEST_F(InterfaceList, AsManyRecordsAsAddressesOrMoreHoldAll) {
    const TwelveAddresses net;
    const std::vector<std::string> all = AddressLabels(net);
    ASSERT_THAT(all, SizeIs(12));
    for (const unsigned int records : {12U, 13U, 1000U}) {
        EXPECT_THAT(ListedNames(records), ElementsAreArray(all)) << records;
    }
}

TEST_F(InterfaceList, HundredsOfAliasesAreListed) {
    const WiredHosts net;
    net.Run("for i in $(seq 1 250); do echo address add 203.0.113.$i/32 dev wire0 label wire0:$i; done | ip -batch -");
    const std::vector<std::string> all = AddressLabels(net);
    ASSERT_THAT(all, SizeIs(252));
    EXPECT_THAT(ListedNames(300), ElementsAreArray(all));
    EXPECT_THAT(ListedNames(), ElementsAreArray(all.begin(), all.begin() + 10));
}

// ---- one list several times

TEST_F(InterfaceList, ResultsAreReplaced) {
    const WiredHosts net;
    const IfConfig config;
    GetAllIfs list;
    Names names = {"eth0", "eth1", "eth2", "eth3"};
    EXPECT_EQ(0, config.DoIoCtl(list, names));
    EXPECT_THAT(Texts(names), ElementsAre("lo", "wire0"));
    EXPECT_EQ(0, config.DoIoCtl(list, names));
    EXPECT_THAT(Texts(names), ElementsAre("lo", "wire0"));
}

TEST_F(InterfaceList, NamesStayWhereTheyAre) {
    WiredHosts net(2);
    const IfConfig config;
    GetAllIfs list;
    Names before;
    EXPECT_EQ(0, config.DoIoCtl(list, before));
    ASSERT_THAT(Texts(before), ElementsAre("lo", "wire0", "wire1"));
    net.Run("ip address flush dev wire0");
    net.AddAlias("wire1:7", "203.0.113.7/24");
    Names after;
    EXPECT_EQ(0, config.DoIoCtl(list, after));
    EXPECT_THAT(after, ElementsAre(before[0], before[1], before[2]));
    // The records have been written anew, and what was given out before tells it.
    EXPECT_THAT(Texts(before), ElementsAre("lo", "wire1", "wire1:7"));
}

TEST_F(InterfaceList, AShorterListLeavesTheRecordsBehindItAlone) {
    const WiredHosts net(2);
    const IfConfig config;
    GetAllIfs list;
    Names before;
    EXPECT_EQ(0, config.DoIoCtl(list, before));
    ASSERT_THAT(before, SizeIs(3));
    net.Run("ip address flush dev lo");
    net.Run("ip address flush dev wire0");
    Names after;
    EXPECT_EQ(0, config.DoIoCtl(list, after));
    EXPECT_THAT(Texts(after), ElementsAre("wire1"));
    EXPECT_THAT(Texts(before), ElementsAre("wire1", "wire0", "wire1"));
}

TEST_F(InterfaceList, AListSeesMoreAfterItHasSeenFewer) {
    WiredHosts net;
    const IfConfig config;
    GetAllIfs list;
    Names names;
    EXPECT_EQ(0, config.DoIoCtl(list, names));
    EXPECT_THAT(names, SizeIs(2));
    // The length that the kernel has shortened is not that of the next request.
    net.AddAlias("wire0:1", "192.0.2.7/24");
    net.AddAlias("wire0:2", "192.0.2.8/24");
    EXPECT_EQ(0, config.DoIoCtl(list, names));
    EXPECT_THAT(Texts(names), ElementsAre("lo", "wire0", "wire0:1", "wire0:2"));
}

TEST_F(InterfaceList, TwoListsDoNotShareRecords) {
    const WiredHosts net;
    const IfConfig config;
    GetAllIfs one;
    GetAllIfs other;
    Names of_one;
    Names of_other;
    EXPECT_EQ(0, config.DoIoCtl(one, of_one));
    net.Run("ip address flush dev lo");
    EXPECT_EQ(0, config.DoIoCtl(other, of_other));
    EXPECT_THAT(Texts(of_one), ElementsAre("lo", "wire0"));
    EXPECT_THAT(Texts(of_other), ElementsAre("wire0"));
}

// ---- its records

TEST_F(InterfaceList, ARecordIsPrintedWithItsAddress) {
    WiredHosts net;
    net.AddAlias("wire0:1", "203.0.113.7/24");
    const IfConfig config;
    std::vector<IfReq> records(10, IfReq(""));
    IfConf all(records.data(), 10);
    ASSERT_EQ(0, ioctl(config.GetSocketDescriptor(), SIOCGIFCONF, &all));
    ASSERT_EQ(3 * sizeof(ifreq), static_cast<std::size_t>(all.ifc_len));
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < 3; ++i) {
        std::ostringstream text;
        text << std::hex << records[i] << " " << 17;
        texts.push_back(text.str());
    }
    // The family of an address, 2, looks like the flag of broadcast.
    EXPECT_THAT(texts, ElementsAre("lo\t\t< DOWN BCAST=1 MCAST=0 RUNNING=0 LOOPBACK=0 >\n\t\tADDRESS: 127.0.0.1"
                                   "\n\t\tBROADCAST: 127.0.0.1\n\t\tDESTINATION: 127.0.0.1 17",
                                   "wire0\t\t< DOWN BCAST=1 MCAST=0 RUNNING=0 LOOPBACK=0 >\n\t\tADDRESS: 192.0.2.1"
                                   "\n\t\tBROADCAST: 192.0.2.1\n\t\tDESTINATION: 192.0.2.1 17",
                                   "wire0:1\t\t< DOWN BCAST=1 MCAST=0 RUNNING=0 LOOPBACK=0 >\n\t\tADDRESS: 203.0.113.7"
                                   "\n\t\tBROADCAST: 203.0.113.7\n\t\tDESTINATION: 203.0.113.7 17"));
}

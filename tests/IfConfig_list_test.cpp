// What the kernel lists, beside what the C library lists at the same moment.

#include <TarnSocketIO/IfConfig.h>
#include <gmock/gmock.h>
#include <ifaddrs.h>
#include <sys/socket.h>

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"

namespace {

using TarnSocketIO::GetAllIfs;
using TarnSocketIO::IfConfig;
using TarnTest::PrivateNetwork;
using testing::ElementsAre;

class GetAllIfsNetwork : public TarnTest::NetworkTest {};

std::vector<std::string> Names(const std::vector<const char*>& results) {
    return {results.begin(), results.end()};
}

/// The names that the C library lists addresses of IPv4 under.
std::vector<std::string> NamesByGetIfAddrs() {
    std::vector<std::string> names;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) == 0) {
        for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
            if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
                names.emplace_back(entry->ifa_name);
            }
        }
        freeifaddrs(list);
    }
    return names;
}

/// Gives the loopback interface further addresses, so that it has `count` in all, each under a name of its own.
void AddLoopbackAddresses(const PrivateNetwork& network, int count) {
    std::string commands = ":";
    for (int i = 1; i < count; ++i) {
        commands += "; ip address add 192.0.2." + std::to_string(i) + "/32 dev lo label lo:" + std::to_string(i);
    }
    EXPECT_EQ("", network.Run(commands));
}

TEST_F(GetAllIfsNetwork, ListHasOneNameForEachAddress) {
    PrivateNetwork network;
    network.AddInterface("wire0", "198.51.100.1/24");
    network.AddInterface("wire1", "");
    AddLoopbackAddresses(network, 3);
    const IfConfig config;
    GetAllIfs get_all;
    std::vector<const char*> results;
    EXPECT_EQ(0, config.DoIoCtl(get_all, results));
    EXPECT_THAT(Names(results), ElementsAre("lo", "lo:1", "lo:2", "wire0"));
    EXPECT_EQ(NamesByGetIfAddrs(), Names(results));
    EXPECT_TRUE(network.IsUp("wire1")) << "it is listed nowhere though it is up";
}

TEST_F(GetAllIfsNetwork, ListHasAsManyNamesAsThereIsRoomFor) {
    const PrivateNetwork network;
    AddLoopbackAddresses(network, 12);
    const IfConfig config;
    const std::vector<std::string> all = NamesByGetIfAddrs();
    ASSERT_EQ(12U, all.size());
    for (const unsigned int room : {10U, 11U, 12U, 13U, 100U}) {
        SCOPED_TRACE(room);
        GetAllIfs get_all(room);
        std::vector<const char*> results;
        EXPECT_EQ(0, config.DoIoCtl(get_all, results));
        const auto end = room < 12 ? all.begin() + static_cast<std::ptrdiff_t>(room) : all.end();
        EXPECT_EQ(std::vector<std::string>(all.begin(), end), Names(results));
    }
    GetAllIfs by_default;
    std::vector<const char*> results;
    EXPECT_EQ(0, config.DoIoCtl(by_default, results));
    EXPECT_EQ(10U, results.size());
}

TEST_F(GetAllIfsNetwork, ListReplacesWhatWasInTheResults) {
    const PrivateNetwork network;
    const IfConfig config;
    GetAllIfs get_all;
    std::vector<const char*> results{"eth7", "eth8", nullptr};
    EXPECT_EQ(0, config.DoIoCtl(get_all, results));
    EXPECT_THAT(Names(results), ElementsAre("lo"));
}

TEST_F(GetAllIfsNetwork, ListIsEmptyWithoutAnAddress) {
    const PrivateNetwork network;
    network.Run("ip link set lo down; ip -4 address flush dev lo");
    const IfConfig config;
    GetAllIfs get_all;
    std::vector<const char*> results{"eth7"};
    EXPECT_EQ(0, config.DoIoCtl(get_all, results));
    EXPECT_TRUE(results.empty());
}

TEST_F(GetAllIfsNetwork, ListIsAtTheSamePlacesEachTime) {
    const PrivateNetwork network;
    AddLoopbackAddresses(network, 3);
    const IfConfig config;
    GetAllIfs get_all;
    std::vector<const char*> first;
    ASSERT_EQ(0, config.DoIoCtl(get_all, first));
    ASSERT_THAT(Names(first), ElementsAre("lo", "lo:1", "lo:2"));

    network.Run("ip address del 192.0.2.1/32 dev lo");
    AddLoopbackAddresses(network, 1);
    network.Run("ip address add 203.0.113.1/32 dev lo label lo:new");
    std::vector<const char*> second;
    ASSERT_EQ(0, config.DoIoCtl(get_all, second));
    EXPECT_EQ(first, second);
    EXPECT_THAT(Names(first), ElementsAre("lo", "lo:2", "lo:new"));

    network.Run("ip address del 192.0.2.2/32 dev lo");
    ASSERT_EQ(0, config.DoIoCtl(get_all, second));
    EXPECT_THAT(Names(second), ElementsAre("lo", "lo:new"));
    EXPECT_EQ(first[0], second[0]);
    EXPECT_EQ(first[1], second[1]);
}

}  // namespace

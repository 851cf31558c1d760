#include "tests/support/PrivateNetwork.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/support/Eventually.h"
#include "tests/support/Resources.h"

using TarnTest::CountOpenDescriptors;
using TarnTest::CountThreads;
using TarnTest::Eventually;
using TarnTest::PrivateNetwork;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

std::string NamespaceOfThisThread() {
    return std::filesystem::read_symlink("/proc/thread-self/ns/net").string();
}

sockaddr_in Address(const char* ip, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = inet_addr(ip);
    return address;
}

/// A datagram socket that is bound to an address and gives up waiting after half a minute.
class DatagramSocket {
public:
    explicit DatagramSocket(const char* ip) : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        timeval timeout{};
        timeout.tv_sec = 30;
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        const sockaddr_in address = Address(ip, 0);
        m_bound = bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~DatagramSocket() { close(m_fd); }
    DatagramSocket(const DatagramSocket&) = delete;
    DatagramSocket& operator=(const DatagramSocket&) = delete;

    bool IsBound() const { return m_bound; }

    std::uint16_t Port() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    bool Send(const char* ip, std::uint16_t port, const std::string& data) const {
        const sockaddr_in address = Address(ip, port);
        return sendto(m_fd, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
               -1;
    }

    std::string Receive() const {
        std::array<char, 256> data{};
        const ssize_t length = recv(m_fd, data.data(), data.size(), 0);
        return {data.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
    }

    bool Join(const char* group) const {
        ip_mreq request{};
        request.imr_multiaddr.s_addr = inet_addr(group);
        return setsockopt(m_fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0;
    }

private:
    const int m_fd;
    bool m_bound;
};

class PrivateNetworkTest : public testing::Test {
protected:
    void SetUp() override {
        const std::string missing = PrivateNetwork::WhatIsMissing();
        if (!missing.empty()) {
            GTEST_SKIP() << "needs " << missing;
        }
    }
};

}  // namespace

TEST_F(PrivateNetworkTest, IsApartFromTheMachinesNetworkAndGoneWithTheObject) {
    const std::string outside = NamespaceOfThisThread();
    ASSERT_EQ(0u, if_nametoindex("test0"));
    {
        PrivateNetwork net;
        net.AddInterface("test0", "192.0.2.1/24");
        EXPECT_NE(outside, NamespaceOfThisThread());
        EXPECT_NE(0u, if_nametoindex("test0"));
    }
    EXPECT_EQ(outside, NamespaceOfThisThread());
    EXPECT_EQ(0u, if_nametoindex("test0"));
}

TEST_F(PrivateNetworkTest, LeavesNothingBehind) {
    const std::size_t threads = CountThreads();
    { const PrivateNetwork once_before_counting; }
    const std::size_t descriptors = CountOpenDescriptors();
    for (int i = 0; i < 3; ++i) {
        PrivateNetwork net;
        net.AddInterface("test0", "192.0.2.1/24", "192.0.2.2/24");
    }
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads; }));
}

TEST_F(PrivateNetworkTest, HasAWorkingLoopbackOnBothSides) {
    const PrivateNetwork net;
    const auto send_to_self = [] {
        const DatagramSocket self("127.0.0.1");
        EXPECT_TRUE(self.Send("127.0.0.1", self.Port(), "echo"));
        EXPECT_EQ("echo", self.Receive());
    };
    send_to_self();
    net.InPeer(send_to_self);
}

TEST_F(PrivateNetworkTest, CarriesDatagramsBothWays) {
    PrivateNetwork net;
    net.AddInterface("test0", "192.0.2.1/24", "192.0.2.2/24");
    const DatagramSocket here("192.0.2.1");
    ASSERT_TRUE(here.IsBound());
    net.InPeer([&] {
        const DatagramSocket there("192.0.2.2");
        ASSERT_TRUE(there.IsBound());
        EXPECT_TRUE(there.Send("192.0.2.1", here.Port(), "to the test"));
        EXPECT_TRUE(here.Send("192.0.2.2", there.Port(), "to the peer"));
        EXPECT_EQ("to the peer", there.Receive());
    });
    EXPECT_EQ("to the test", here.Receive());
}

TEST_F(PrivateNetworkTest, HasAPeerWithAddressesOfItsOwn) {
    PrivateNetwork net;
    net.AddInterface("test0", "192.0.2.1/24", "192.0.2.2/24");
    net.AddInterface("test1", "198.51.100.1/24");
    EXPECT_THAT(net.AddressesOf("test0"), ElementsAre("192.0.2.1"));
    EXPECT_THAT(net.AddressesOf("test1"), ElementsAre("198.51.100.1"));
    net.InPeer([&] {
        EXPECT_THAT(net.AddressesOf("test0"), ElementsAre("192.0.2.2"));
        EXPECT_THAT(net.AddressesOf("test1"), ElementsAre());
        EXPECT_TRUE(net.IsUp("test1"));
        EXPECT_FALSE(DatagramSocket("192.0.2.1").IsBound());
    });
    EXPECT_FALSE(DatagramSocket("192.0.2.2").IsBound());
}

TEST_F(PrivateNetworkTest, ThrowsWhatIsThrownInThePeer) {
    const PrivateNetwork net;
    EXPECT_THROW(net.InPeer([] { throw std::out_of_range("from the peer"); }), std::out_of_range);
}

TEST_F(PrivateNetworkTest, StaysInTheTestsNamespaceAfterTheFunctionInThePeer) {
    const PrivateNetwork net;
    const std::string before = NamespaceOfThisThread();
    net.InPeer([&] { EXPECT_NE(before, NamespaceOfThisThread()); });
    EXPECT_EQ(before, NamespaceOfThisThread());
}

TEST_F(PrivateNetworkTest, NamesTheCommandThatFailedAndWhatItSaid) {
    const PrivateNetwork net;
    try {
        net.Run("ip link set missing0 up");
        FAIL() << "a command that cannot work has worked";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), AllOf(HasSubstr("ip link set missing0 up"), HasSubstr("Cannot find device")));
    }
}

TEST_F(PrivateNetworkTest, TellsAnAliasFromItsInterface) {
    PrivateNetwork net;
    net.AddInterface("test0", "192.0.2.1/24");
    net.AddAlias("test0:1", "192.0.2.9/24");
    EXPECT_THAT(net.AddressesOf("test0"), ElementsAre("192.0.2.1", "192.0.2.9"));
    EXPECT_THAT(net.AddressesOf("test0:1"), ElementsAre("192.0.2.9"));
}

TEST_F(PrivateNetworkTest, SeesAnInterfaceGoDown) {
    PrivateNetwork net;
    net.AddInterface("test0", "192.0.2.1/24");
    EXPECT_TRUE(net.IsUp("test0"));
    net.Run("ip link set test0 down");
    EXPECT_FALSE(net.IsUp("test0"));
}

TEST_F(PrivateNetworkTest, ListsTheGroupsOfOneInterface) {
    PrivateNetwork net;
    net.AddInterface("test0", "192.0.2.1/24");
    net.AddInterface("test1", "198.51.100.1/24");
    net.AddRoute("239.192.0.0/14", "test1");
    const DatagramSocket member("0.0.0.0");
    ASSERT_TRUE(member.Join("239.192.1.2"));
    EXPECT_THAT(net.GroupsOf("test0"), ElementsAre("224.0.0.1"));
    EXPECT_THAT(net.GroupsOf("test1"), AllOf(Contains("239.192.1.2"), Contains("224.0.0.1")));
    net.InPeer([&] { EXPECT_THAT(net.GroupsOf("test1"), Not(Contains("239.192.1.2"))); });
}

// The client side of an endpoint: its sender socket, addresses, connecting, disconnecting.

#include <TarnSocketIO/ConnectionType.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include "tests/support/AllDescriptorsTaken.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ConnectionServer.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestEndpoint.h"

namespace {

using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_ICMP;
using TarnSocketIO::CONNECTION_PACKET;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnSocketIO::CSocket;
using TarnTest::AllDescriptorsTaken;
using TarnTest::BackgroundCall;
using TarnTest::CanOpen;
using TarnTest::ChildProcess;
using TarnTest::ConnectionServer;
using TarnTest::CountOpenDescriptors;
using TarnTest::Eventually;
using TarnTest::IsOpen;
using TarnTest::LingerOf;
using TarnTest::LogCapture;
using TarnTest::OptionOf;
using TarnTest::OwnedDescriptor;
using TarnTest::SocketKind;
using TarnTest::TcpClient;
using TarnTest::TestEndpoint;
using TarnTest::UseAnEndpointOnce;
using testing::ElementsAre;

std::string CreatingLine(int fd) {
    return "CSocket::StartClient() - creating sender socket " + std::to_string(fd);
}

// ---- StartClient

struct TypeAndSocket {
    CONNECTION_TYPE type;
    int domain;
    int socket_type;
    int protocol;
};

class CSocketSender : public testing::TestWithParam<TypeAndSocket> {
protected:
    void SetUp() override {
        if (!CanOpen(GetParam().domain, GetParam().socket_type, GetParam().protocol)) {
            GTEST_SKIP() << "this process may not open raw sockets";
        }
    }
};

INSTANTIATE_TEST_SUITE_P(OfEveryType, CSocketSender,
                         testing::Values(TypeAndSocket{CONNECTION_STREAM, AF_INET, SOCK_STREAM, 0},
                                         TypeAndSocket{CONNECTION_UDP, AF_INET, SOCK_DGRAM, IPPROTO_UDP},
                                         TypeAndSocket{CONNECTION_DATAGRAM, AF_INET, SOCK_DGRAM, 0},
                                         TypeAndSocket{CONNECTION_ICMP, AF_INET, SOCK_RAW, IPPROTO_ICMP},
                                         TypeAndSocket{CONNECTION_PACKET, AF_INET, SOCK_STREAM, 0},
                                         TypeAndSocket{static_cast<CONNECTION_TYPE>(5), AF_INET, SOCK_STREAM, 0},
                                         TypeAndSocket{static_cast<CONNECTION_TYPE>(-1), AF_INET, SOCK_STREAM, 0}),
                         [](const auto& kind) { return "Type" + std::to_string(kind.index); });

TEST_P(CSocketSender, IsASocketOfTheTypesKind) {
    TestEndpoint endpoint(GetParam().type);
    ASSERT_TRUE(endpoint.StartClient());
    // The kernel names the protocol that it has chosen for 0.
    const OwnedDescriptor same(socket(GetParam().domain, GetParam().socket_type, GetParam().protocol));
    EXPECT_TRUE(SocketKind(same.Number()) == SocketKind(endpoint.m_socSender));
    EXPECT_EQ(GetParam().domain, OptionOf(endpoint.m_socSender, SO_DOMAIN));
    EXPECT_EQ(GetParam().socket_type, OptionOf(endpoint.m_socSender, SO_TYPE));
}

TEST_P(CSocketSender, HasItsOptions) {
    TestEndpoint endpoint(GetParam().type);
    ASSERT_TRUE(endpoint.StartClient());
    EXPECT_EQ(1, OptionOf(endpoint.m_socSender, SO_BROADCAST));
    EXPECT_EQ(1, LingerOf(endpoint.m_socSender).l_onoff);
    EXPECT_EQ(0, LingerOf(endpoint.m_socSender).l_linger);
    // The kernel doubles and limits what it is asked for.
    const OwnedDescriptor same(socket(GetParam().domain, GetParam().socket_type, GetParam().protocol));
    const int size = 262144;
    ASSERT_EQ(0, setsockopt(same.Number(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size));
    EXPECT_EQ(OptionOf(same.Number(), SO_SNDBUF), OptionOf(endpoint.m_socSender, SO_SNDBUF));
}

TEST_P(CSocketSender, OfAMulticastSenderMayNotBroadcast) {
    TestEndpoint endpoint(GetParam().type);
    endpoint.m_bMulticastSender = true;
    ASSERT_TRUE(endpoint.StartClient());
    EXPECT_EQ(0, OptionOf(endpoint.m_socSender, SO_BROADCAST));
    EXPECT_EQ(1, LingerOf(endpoint.m_socSender).l_onoff);
}

TEST_P(CSocketSender, IsLogged) {
    TestEndpoint endpoint(GetParam().type);
    const LogCapture log;
    ASSERT_TRUE(endpoint.StartClient());
    EXPECT_GT(endpoint.m_socSender, 0);
    EXPECT_THAT(log.Messages(), ElementsAre(CreatingLine(endpoint.m_socSender)));
}

TEST(CSocketStartClient, WithoutADescriptorLeftFails) {
    UseAnEndpointOnce(CONNECTION_UDP);
    TestEndpoint endpoint(CONNECTION_UDP);
    const LogCapture log;
    {
        const AllDescriptorsTaken none_left;
        EXPECT_FALSE(endpoint.StartClient());
    }
    EXPECT_EQ(-1, endpoint.m_socSender);
    EXPECT_THAT(log.Messages(), ElementsAre(CreatingLine(-1), "CSocket::StartClient() - sender error -1"));
    EXPECT_TRUE(endpoint.StartClient());
}

TEST(CSocketStartClient, TwiceLeavesTheFirstSenderOpen) {
    const std::size_t descriptors = CountOpenDescriptors();
    {
        TestEndpoint endpoint(CONNECTION_UDP);
        ASSERT_TRUE(endpoint.StartClient());
        const int first = endpoint.m_socSender;
        ASSERT_TRUE(endpoint.StartClient());
        EXPECT_NE(first, endpoint.m_socSender);
        EXPECT_TRUE(IsOpen(first));
        EXPECT_TRUE(IsOpen(endpoint.m_socSender));
        EXPECT_EQ(descriptors + 2, CountOpenDescriptors());
    }
    EXPECT_EQ(descriptors, CountOpenDescriptors()) << "what is set aside ends with the endpoint";
}

TEST(CSocketStartClient, SenderIsNotInheritedByPrograms) {
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    EXPECT_EQ(FD_CLOEXEC, fcntl(endpoint.m_socSender, F_GETFD));
}

// ---- ConstructDestinationAddr

class CSocketDestination : public testing::Test {
protected:
    CSocketDestination() { std::memset(&address, 0xee, sizeof address); }

    std::string Text() const { return inet_ntoa(address.sin_addr); }

    sockaddr_in address;
};

TEST_F(CSocketDestination, OfADottedQuadIsItsAddress) {
    EXPECT_TRUE(CSocket::ConstructDestinationAddr("192.0.2.7", 5000, address));
    EXPECT_EQ(AF_INET, address.sin_family);
    EXPECT_EQ(htons(5000), address.sin_port);
    EXPECT_EQ("192.0.2.7", Text());
}

TEST_F(CSocketDestination, OfOtherFormsOfAnAddressIsTheAddress) {
    EXPECT_TRUE(CSocket::ConstructDestinationAddr("127.1", 1, address));
    EXPECT_EQ("127.0.0.1", Text());
    EXPECT_TRUE(CSocket::ConstructDestinationAddr("0x7f000002", 1, address));
    EXPECT_EQ("127.0.0.2", Text());
}

TEST_F(CSocketDestination, OfNothingIsAnyAddress) {
    for (const char* const host : {static_cast<const char*>(nullptr), ""}) {
        address.sin_addr.s_addr = 0xeeeeeeee;
        EXPECT_TRUE(CSocket::ConstructDestinationAddr(host, 65535, address));
        EXPECT_EQ(htonl(INADDR_ANY), address.sin_addr.s_addr);
        EXPECT_EQ(htons(65535), address.sin_port);
        EXPECT_EQ(AF_INET, address.sin_family);
    }
}

TEST_F(CSocketDestination, OfAHostNameIsItsFirstAddress) {
    EXPECT_TRUE(CSocket::ConstructDestinationAddr("localhost", 0, address));
    EXPECT_EQ("127.0.0.1", Text());
    EXPECT_EQ(0, address.sin_port);
}

TEST_F(CSocketDestination, OfAnUnknownNameIsNone) {
    // A label of more than 63 characters cannot be asked for: no name server gets to see it.
    EXPECT_FALSE(CSocket::ConstructDestinationAddr(std::string(64, 'x').c_str(), 1, address));
}

TEST_F(CSocketDestination, OfTheBroadcastTextComesFromTheResolver) {
    EXPECT_TRUE(CSocket::ConstructDestinationAddr("255.255.255.255", 9, address));
    EXPECT_EQ(INADDR_BROADCAST, address.sin_addr.s_addr);
}

TEST_F(CSocketDestination, ThatIsNoAddressIsLookedUp) {
    EXPECT_FALSE(CSocket::ConstructDestinationAddr("256.1.1.1", 9, address));
}

// ---- SelectInterface, SetSocketOption

TEST(CSocketSelectInterface, BindsTheSenderToADevice) {
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    const OwnedDescriptor probe(socket(AF_INET, SOCK_DGRAM, 0));
    if (setsockopt(probe.Number(), SOL_SOCKET, SO_BINDTODEVICE, "lo", 2) != 0) {
        GTEST_SKIP() << "this process may not bind sockets to a device: " << std::strerror(errno);
    }
    char device[] = "lo";
    ChildProcess quiet([&] { endpoint.SelectInterface(device); });
    EXPECT_EQ(0, quiet.ExitStatus());
    EXPECT_EQ("", quiet.Errors());

    endpoint.SelectInterface(device);
    std::array<char, IFNAMSIZ> name = {};
    socklen_t length = name.size();
    if (getsockopt(endpoint.m_socSender, SOL_SOCKET, SO_BINDTODEVICE, name.data(), &length) != 0) {
        GTEST_SKIP() << "the emulator does not tell the device";
    }
    EXPECT_STREQ("lo", name.data());
}

TEST(CSocketSelectInterface, TellsOnStandardErrorWhatWentWrong) {
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    char device[] = "tarn-none";
    ChildProcess child([&] { endpoint.SelectInterface(device); });
    EXPECT_EQ(0, child.ExitStatus());
    const OwnedDescriptor probe(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(-1, setsockopt(probe.Number(), SOL_SOCKET, SO_BINDTODEVICE, device, 9));
    EXPECT_EQ(std::string("selectinterface: : ") + std::strerror(errno) + "\n", child.Errors());
}

TEST(CSocketSetSocketOption, SetsTheOptionAndReturnsTheResult) {
    const OwnedDescriptor fd(socket(AF_INET, SOCK_DGRAM, 0));
    int on = 1;
    EXPECT_EQ(0, CSocket::SetSocketOption(fd.Number(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on));
    EXPECT_EQ(1, OptionOf(fd.Number(), SO_BROADCAST));
    errno = 0;
    EXPECT_EQ(-1, CSocket::SetSocketOption(fd.Number(), SOL_SOCKET, SO_BROADCAST, &on, 1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, CSocket::SetSocketOption(-1, SOL_SOCKET, SO_BROADCAST, &on, sizeof on));
    EXPECT_EQ(EBADF, errno);
}

// ---- Disconnect

TEST(CSocketDisconnect, WithoutASenderClosesNothing) {
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    const std::size_t descriptors = CountOpenDescriptors();
    endpoint.m_bServerStarted = true;
    EXPECT_FALSE(endpoint.Disconnect());
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_TRUE(IsOpen(endpoint.m_socReceiver));
    EXPECT_TRUE(endpoint.m_bServerStarted);
}

TEST(CSocketDisconnect, ClosesSenderAndReceiverAndKeepsTheReceiversNumber) {
    const std::size_t descriptors = CountOpenDescriptors();
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    endpoint.m_bServerStarted = true;
    const int receiver = endpoint.m_socReceiver;
    EXPECT_TRUE(endpoint.Disconnect());
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_EQ(0, endpoint.m_socSender);
    EXPECT_EQ(receiver, endpoint.m_socReceiver);
    EXPECT_FALSE(endpoint.m_bServerStarted);
}

TEST(CSocketDisconnect, ASecondTimeIsFalse) {
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    EXPECT_TRUE(endpoint.Disconnect());
    EXPECT_FALSE(endpoint.Disconnect());
}

TEST(CSocketDisconnect, WithoutAReceiverLeavesDescriptorZeroOpen) {
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    EXPECT_TRUE(endpoint.Disconnect());
    EXPECT_TRUE(IsOpen(STDIN_FILENO));
}

TEST(CSocketDisconnect, OfAStreamServerClosesNothing) {
    ConnectionServer server;
    bool was_closed = true;
    server.on_connected = [&](int) {  // the acceptor sets no sender aside meanwhile
        server.StartClient();
        const int sender = server.m_socSender;
        was_closed = server.Disconnect() || !IsOpen(sender) || server.m_socSender != sender;
    };
    const TcpClient client(server.Port());
    ASSERT_TRUE(Eventually([&] { return server.NotificationCounts().connected == 1; }));
    server.TerminateAll();
    EXPECT_FALSE(was_closed);
}

TEST(CSocketDisconnect, WaitsForTheSendersMutex) {
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    const int sender = endpoint.m_socSender;
    pthread_mutex_lock(&endpoint.m_SenderMutex);
    BackgroundCall call([&] { return endpoint.Disconnect(); });
    EXPECT_TRUE(Eventually([&] { return call.Waits(); }));
    EXPECT_FALSE(call.HasEnded());
    EXPECT_TRUE(IsOpen(sender));
    pthread_mutex_unlock(&endpoint.m_SenderMutex);
    EXPECT_TRUE(call.Result());
    EXPECT_FALSE(IsOpen(sender));
}

}  // namespace

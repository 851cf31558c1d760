// The receiver socket of an endpoint.

#include <TarnSocketIO/ConnectionType.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/AllDescriptorsTaken.h"
#include "tests/support/OutputLog.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"
#include "tests/support/TestEndpoint.h"

namespace {

using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_ICMP;
using TarnSocketIO::CONNECTION_PACKET;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::AddressOf;
using TarnTest::AllDescriptorsTaken;
using TarnTest::CanOpen;
using TarnTest::CountOpenDescriptors;
using TarnTest::FindUnusedPort;
using TarnTest::IsOpen;
using TarnTest::LingerOf;
using TarnTest::LoopbackSocket;
using TarnTest::OptionOf;
using TarnTest::OutputLog;
using TarnTest::OwnedDescriptor;
using TarnTest::PortOf;
using TarnTest::SocketKind;
using TarnTest::TestEndpoint;
using TarnTest::UseAnEndpointOnce;
using testing::ElementsAre;

using Lines = std::vector<std::string>;

std::string CreatedLine(int fd) {
    return "initialised receiver: m_socReceiver " + std::to_string(fd);
}

std::string CreatingLine(int fd, unsigned int port, const std::string& interface) {
    return "CSocket::InitialiseReceiver - creating receiver socket " + std::to_string(fd) + ", port " +
           std::to_string(port) + " if " + interface;
}

struct TypeAndSocket {
    CONNECTION_TYPE type;
    int domain;
    int socket_type;
    int protocol;
};

class CSocketReceiver : public testing::TestWithParam<TypeAndSocket> {
protected:
    void SetUp() override {
        if (!CanOpen(GetParam().domain, GetParam().socket_type, GetParam().protocol)) {
            GTEST_SKIP() << "this process may not open raw sockets";
        }
    }

    OwnedDescriptor Same() const {
        return OwnedDescriptor(socket(GetParam().domain, GetParam().socket_type | SOCK_CLOEXEC, GetParam().protocol));
    }
};

INSTANTIATE_TEST_SUITE_P(OfEveryType, CSocketReceiver,
                         testing::Values(TypeAndSocket{CONNECTION_STREAM, AF_INET, SOCK_STREAM, 0},
                                         TypeAndSocket{CONNECTION_UDP, AF_INET, SOCK_DGRAM, IPPROTO_UDP},
                                         TypeAndSocket{CONNECTION_DATAGRAM, AF_INET, SOCK_DGRAM, 0},
                                         TypeAndSocket{CONNECTION_ICMP, AF_INET, SOCK_RAW, IPPROTO_ICMP},
                                         TypeAndSocket{CONNECTION_PACKET, PF_PACKET, SOCK_RAW, htons(0x0800)},
                                         TypeAndSocket{static_cast<CONNECTION_TYPE>(5), AF_INET, SOCK_STREAM, 0}),
                         [](const auto& kind) { return "Type" + std::to_string(kind.index); });

TEST_P(CSocketReceiver, IsASocketOfTheTypesKind) {
    TestEndpoint endpoint(GetParam().type);
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    EXPECT_TRUE(SocketKind(Same().Number()) == SocketKind(endpoint.m_socReceiver));
    EXPECT_EQ(GetParam().domain, OptionOf(endpoint.m_socReceiver, SO_DOMAIN));
    EXPECT_EQ(GetParam().socket_type, OptionOf(endpoint.m_socReceiver, SO_TYPE));
    EXPECT_EQ(FD_CLOEXEC, fcntl(endpoint.m_socReceiver, F_GETFD));
}

TEST_P(CSocketReceiver, HasItsOptions) {
    TestEndpoint endpoint(GetParam().type);
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    EXPECT_EQ(1, LingerOf(endpoint.m_socReceiver).l_onoff);
    EXPECT_EQ(0, LingerOf(endpoint.m_socReceiver).l_linger);
    EXPECT_EQ(1, OptionOf(endpoint.m_socReceiver, SO_REUSEADDR));
    // The kernel doubles and limits what it is asked for.
    const OwnedDescriptor same = Same();
    const int size = GetParam().type == CONNECTION_PACKET ? 262140 : 131070;
    ASSERT_EQ(0, setsockopt(same.Number(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size));
    EXPECT_EQ(OptionOf(same.Number(), SO_RCVBUF), OptionOf(endpoint.m_socReceiver, SO_RCVBUF));
}

TEST_P(CSocketReceiver, IsLogged) {
    TestEndpoint endpoint(GetParam().type);
    const OutputLog log;
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    EXPECT_THAT(log.Lines(),
                ElementsAre(CreatedLine(endpoint.m_socReceiver), "", CreatingLine(endpoint.m_socReceiver, 0, "")));
}

TEST_P(CSocketReceiver, MadeAnewLeavesTheOneBeforeOpen) {
    const std::size_t descriptors = CountOpenDescriptors();
    {
        TestEndpoint endpoint(GetParam().type);
        ASSERT_TRUE(endpoint.InitialiseReceiver());
        const int first = endpoint.m_socReceiver;
        ASSERT_TRUE(endpoint.InitialiseReceiver());
        EXPECT_NE(first, endpoint.m_socReceiver);
        EXPECT_TRUE(IsOpen(first));
        EXPECT_EQ(descriptors + 2, CountOpenDescriptors());
    }
    EXPECT_EQ(descriptors, CountOpenDescriptors());
}

TEST(CSocketInitialiseReceiver, BindsToPortAndInterface) {
    for (const CONNECTION_TYPE type : {CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_DATAGRAM}) {
        SCOPED_TRACE(type);
        TestEndpoint endpoint(type);
        endpoint.m_uiPort = FindUnusedPort();
        std::strcpy(endpoint.m_szLocalIf, "127.0.0.1");
        const OutputLog log;
        ASSERT_TRUE(endpoint.InitialiseReceiver());
        EXPECT_EQ(endpoint.m_uiPort, PortOf(endpoint.m_socReceiver));
        EXPECT_EQ("127.0.0.1", AddressOf(endpoint.m_socReceiver));
        EXPECT_THAT(log.Lines(), ElementsAre(CreatedLine(endpoint.m_socReceiver), "",
                                             CreatingLine(endpoint.m_socReceiver, endpoint.m_uiPort, "127.0.0.1")));
    }
}

TEST(CSocketInitialiseReceiver, SharesItsPortWithAnother) {
    TestEndpoint first(CONNECTION_UDP);
    ASSERT_TRUE(first.InitialiseReceiver());
    TestEndpoint second(CONNECTION_UDP);
    second.m_uiPort = first.ReceiverPort();
    ASSERT_TRUE(second.InitialiseReceiver());
    EXPECT_EQ(first.ReceiverPort(), second.ReceiverPort());
}

TEST(CSocketInitialiseReceiver, OnATakenPortIsTrueAndTold) {
    const LoopbackSocket taken(SOCK_DGRAM);
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.m_uiPort = taken.Port();
    const OutputLog log;
    EXPECT_TRUE(endpoint.InitialiseReceiver());
    const std::string port = std::to_string(taken.Port());
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(CreatedLine(endpoint.m_socReceiver), "", CreatingLine(endpoint.m_socReceiver, taken.Port(), ""),
                    "CSocket::InitialiseReceiver - receiver socket bind failed -1 (port " + port + ")",
                    "CSocket::InitialiseReceiver - receiver socket bind failed errno = " + std::to_string(EADDRINUSE)));
}

TEST(CSocketInitialiseReceiver, OnTheSecondCallIsBoundThoughTheFirstHasThePort) {
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.m_uiPort = FindUnusedPort();
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    EXPECT_EQ(endpoint.m_uiPort, endpoint.ReceiverPort());
}

TEST(CSocketInitialiseReceiver, WithoutADescriptorLeftGoesThroughAllItsSteps) {
    for (const CONNECTION_TYPE type : {CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_DATAGRAM, CONNECTION_ICMP}) {
        SCOPED_TRACE(type);
        UseAnEndpointOnce(type);
        TestEndpoint endpoint(type);
        endpoint.m_uiPort = 7;
        const OutputLog log;
        {
            const AllDescriptorsTaken none_left;
            EXPECT_FALSE(endpoint.InitialiseReceiver());
        }
        EXPECT_EQ(-1, endpoint.m_socReceiver);
        EXPECT_THAT(log.Lines(), ElementsAre(CreatingLine(-1, 7, ""),
                                             "CSocket::InitialiseReceiver - receiver socket bind failed -1 (port 7)",
                                             "CSocket::InitialiseReceiver - receiver socket bind failed errno = " +
                                                 std::to_string(EBADF)));
    }
}

TEST(CSocketInitialiseReceiver, WithoutADescriptorLeftCannotJoinItsGroupEither) {
    UseAnEndpointOnce(CONNECTION_UDP);
    TestEndpoint endpoint(CONNECTION_UDP);
    std::strcpy(endpoint.m_szGroup, "239.1.2.3");
    const OutputLog log;
    {
        const AllDescriptorsTaken none_left;
        EXPECT_FALSE(endpoint.InitialiseReceiver());
    }
    EXPECT_THAT(log.Lines(), testing::Contains("CSocket::InitialiseReceiver - join multicast group - failed"));
    EXPECT_TRUE(endpoint.m_Groups.empty());
}

TEST(CSocketInitialiseReceiver, OfFramesWithoutADescriptorLeftTellsOfItsBind) {
    UseAnEndpointOnce(CONNECTION_PACKET);
    TestEndpoint endpoint(CONNECTION_PACKET);
    const OutputLog log;
    {
        const AllDescriptorsTaken none_left;
        EXPECT_FALSE(endpoint.InitialiseReceiver());
    }
    EXPECT_THAT(log.Lines(), ElementsAre(CreatingLine(-1, 0, ""),
                                         "CSocket::InitialiseReceiver - PF_PACKET receiver socket bind failed -1"));
}

TEST(CSocketInitialiseReceiver, OfFramesIsBoundToAllInterfaces) {
    if (!CanOpen(PF_PACKET, SOCK_RAW, htons(0x0800))) {
        GTEST_SKIP() << "this process may not open raw sockets";
    }
    TestEndpoint endpoint(CONNECTION_PACKET);
    std::strcpy(endpoint.m_szLocalIf, "256.1.1.1");  // means nothing to this type
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    sockaddr_ll address = {};
    socklen_t length = sizeof address;
    ASSERT_EQ(0, getsockname(endpoint.m_socReceiver, reinterpret_cast<sockaddr*>(&address), &length));
    EXPECT_EQ(AF_PACKET, address.sll_family);
    EXPECT_EQ(htons(0x0800), address.sll_protocol);
    EXPECT_EQ(0, address.sll_ifindex);
}

TEST(CSocketInitialiseReceiver, PrintsNothingWhenAllIsWell) {
    TestEndpoint endpoint(CONNECTION_UDP);
    const TarnTest::OutputCapture output;
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    EXPECT_EQ("", output.Text());
}

}  // namespace

// Starting the receiving side: what is opened, bound, set, started, and logged, and in which order.

#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/ConnectionType.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/AllDescriptorsTaken.h"
#include "tests/support/ConnectionServer.h"
#include "tests/support/Datagrams.h"
#include "tests/support/EndpointMembers.h"
#include "tests/support/Eventually.h"
#include "tests/support/OutputLog.h"
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
using TarnTest::AddressOf;
using TarnTest::AllDescriptorsTaken;
using TarnTest::ConnectionServer;
using TarnTest::CountOpenDescriptors;
using TarnTest::Eventually;
using TarnTest::FindUnusedPort;
using TarnTest::HasBytes;
using TarnTest::IsOpen;
using TarnTest::LoopbackSocket;
using TarnTest::OptionOf;
using TarnTest::OutputLog;
using TarnTest::PortOf;
using TarnTest::SendDatagram;
using TarnTest::TcpClient;
using TarnTest::TestEndpoint;
using TarnTest::UseAnEndpointOnce;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

using Members = TarnTest::EndpointMembers;
using Lines = std::vector<std::string>;

// An address that no interface of a test machine has (RFC 5737).
constexpr const char* foreign_address = "192.0.2.77";

std::string ThreadsLine(int threads) {
    return "CSocket::InitialiseLocalSockets - threads " + std::to_string(threads);
}

std::string SenderLine(int fd) {
    return "CSocket::StartClient() - creating sender socket " + std::to_string(fd);
}

std::string ReceiverLine(int fd) {
    return "initialised receiver: m_socReceiver " + std::to_string(fd);
}

std::string CreatingLine(int fd, unsigned int port, const std::string& interface) {
    return "CSocket::InitialiseReceiver - creating receiver socket " + std::to_string(fd) + ", port " +
           std::to_string(port) + " if " + interface;
}

std::string StartingLine(int thread, int of) {
    return "CSocket::InitialiseLocalSockets - starting receiver thread " + std::to_string(thread) + " of " +
           std::to_string(of);
}

constexpr const char* running_line = "CSocket::InitialiseLocalSockets - running receiver thread - succeeded";

/// What a receiver on a port writes that cannot be bound.
Lines BindFailure(unsigned int port, int error) {
    return {"CSocket::InitialiseReceiver - receiver socket bind failed -1 (port " + std::to_string(port) + ")",
            "CSocket::InitialiseReceiver - receiver socket bind failed errno = " + std::to_string(error)};
}

Lines operator+(Lines one, const Lines& other) {
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

Lines LinesUpTo(const Lines& lines, const std::string& last) {
    const auto end = std::find(lines.begin(), lines.end(), last);
    return {lines.begin(), end == lines.end() ? end : end + 1};
}

// ---- StartServer

TEST(CSocketStartServer, OpensADatagramServerInOrder) {
    for (const CONNECTION_TYPE type : {CONNECTION_UDP, CONNECTION_DATAGRAM}) {
        SCOPED_TRACE(type);
        const OutputLog log;
        TestEndpoint endpoint(type);
        const std::size_t before = log.LinesOfEndpoint().size();
        const std::uint16_t port = FindUnusedPort();
        EXPECT_TRUE(endpoint.StartServer(port, nullptr, "127.0.0.1", 2));
        EXPECT_TRUE(endpoint.m_bServerStarted);
        Lines lines = log.LinesOfEndpoint();
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
        EXPECT_THAT(lines,
                    ElementsAre(ThreadsLine(2), SenderLine(endpoint.m_socSender), ReceiverLine(endpoint.m_socReceiver),
                                "", CreatingLine(endpoint.m_socReceiver, port, "127.0.0.1"), StartingLine(1, 2),
                                running_line, StartingLine(2, 2), running_line,
                                "CSocket::StartServer StartClient for connectionless replies - succeeded"));
        EXPECT_LT(endpoint.m_socSender, endpoint.m_socReceiver);
    }
}

TEST(CSocketStartServer, OfAPingerOrFrameReceiverOpensNothing) {
    for (const CONNECTION_TYPE type : {CONNECTION_ICMP, CONNECTION_PACKET}) {
        SCOPED_TRACE(type);
        TestEndpoint endpoint(type);
        const OutputLog log;
        const std::size_t descriptors = CountOpenDescriptors();
        EXPECT_TRUE(endpoint.StartServer(1, "239.1.2.3", "127.0.0.1", 3));
        EXPECT_TRUE(endpoint.m_bServerStarted);
        EXPECT_EQ(descriptors, CountOpenDescriptors());
        EXPECT_EQ(0, endpoint.m_nReceiverThreads);
        EXPECT_THAT(log.Lines(), IsEmpty());
    }
}

TEST(CSocketStartServer, OfAStreamServerThatRunsIsTrueAndStartsNothing) {
    ConnectionServer server;
    const std::uint16_t port = server.Port();
    const OutputLog log;
    EXPECT_TRUE(server.StartServer(0, nullptr, nullptr, 0));
    EXPECT_EQ(port, server.Port());
    EXPECT_THAT(log.LinesOfEndpoint(), IsEmpty());
}

TEST(CSocketStartServer, OnATakenPortIsTrueAllTheSame) {
    const LoopbackSocket taken(SOCK_DGRAM);
    const OutputLog log;
    TestEndpoint endpoint(CONNECTION_UDP);
    const std::size_t before = log.LinesOfEndpoint().size();
    EXPECT_TRUE(endpoint.StartServer(taken.Port(), nullptr, "127.0.0.1", 0));
    Lines lines = log.LinesOfEndpoint();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_EQ((Lines{ThreadsLine(0), SenderLine(endpoint.m_socSender), ReceiverLine(endpoint.m_socReceiver), "",
                     CreatingLine(endpoint.m_socReceiver, taken.Port(), "127.0.0.1")} +
               BindFailure(taken.Port(), EADDRINUSE) +
               Lines{"CSocket::StartServer StartClient for connectionless replies - succeeded"}),
              lines);
    EXPECT_TRUE(IsOpen(endpoint.m_socReceiver));
}

TEST(CSocketStartServer, StreamServerOnATakenPortIsMadeAndTold) {
    const LoopbackSocket taken(SOCK_STREAM);
    const OutputLog log;
    {
        const CSocket server(taken.Port(), CONNECTION_STREAM, nullptr, false, false, nullptr, 0);
        EXPECT_TRUE(Members::IsAcceptorRunning(server));
    }
    const Lines lines = log.LinesOfEndpoint();
    EXPECT_THAT(lines, Contains("CAsyncIO::CreateListenerSocket - failed to bind socket"));
    EXPECT_THAT(LinesUpTo(lines, "CSocket::CSocket - StartServer() - succeeded"),
                Contains("CSocket::StartServer - running connection acceptor - succeeded"));
}

// ---- InitialiseLocalSockets

class CSocketLocalSockets : public testing::Test {
protected:
    /// Initialises the sockets. @return what that logged.
    static Lines Initialise(TestEndpoint& endpoint, unsigned int port, const char* group, const char* interface,
                            int threads) {
        const OutputLog log;
        EXPECT_TRUE(endpoint.InitialiseLocalSockets(port, group, interface, threads));
        return log.LinesOfEndpoint();
    }
};

TEST_F(CSocketLocalSockets, RunNoMoreThanFiveReceivers) {
    TestEndpoint endpoint(CONNECTION_UDP);
    const Lines lines = Initialise(endpoint, 0, nullptr, "127.0.0.1", 7);
    EXPECT_THAT(lines,
                ElementsAre(ThreadsLine(7), SenderLine(endpoint.m_socSender), ReceiverLine(endpoint.m_socReceiver), "",
                            CreatingLine(endpoint.m_socReceiver, 0, "127.0.0.1"), StartingLine(1, 5), running_line,
                            StartingLine(2, 5), running_line, StartingLine(3, 5), running_line, StartingLine(4, 5),
                            running_line, StartingLine(5, 5), running_line));
    EXPECT_EQ(5, endpoint.m_nReceiverThreads);
    EXPECT_TRUE(endpoint.m_bReceiversRunning);
    for (const auto* const receiver : endpoint.m_pReceivers) {
        EXPECT_NE(nullptr, receiver);
    }
}

TEST_F(CSocketLocalSockets, RunAsManyReceiversAsAskedFor) {
    for (int threads = 1; threads <= 5; ++threads) {
        SCOPED_TRACE(threads);
        const OutputLog log;
        TestEndpoint endpoint(CONNECTION_UDP);
        endpoint.InitialiseLocalSockets(0, nullptr, "127.0.0.1", threads);
        EXPECT_EQ(threads, endpoint.m_nReceiverThreads);
        EXPECT_EQ(5 - threads, std::count(std::begin(endpoint.m_pReceivers), std::end(endpoint.m_pReceivers), nullptr));
        const auto started = [&] {
            const Lines lines = log.Lines();
            return std::count(lines.begin(), lines.end(), "CSocketThread::ThreadProc - started");
        };
        EXPECT_TRUE(Eventually([&] { return started() >= threads; }));
        endpoint.TerminateAll();
        EXPECT_EQ(threads, started());
    }
}

TEST_F(CSocketLocalSockets, WithoutReceiversStillHaveTheirReceiverSocket) {
    for (const int threads : {0, -1, -100}) {
        SCOPED_TRACE(threads);
        TestEndpoint endpoint(CONNECTION_UDP);
        const Lines lines = Initialise(endpoint, 0, nullptr, "127.0.0.1", threads);
        EXPECT_THAT(lines, ElementsAre(ThreadsLine(threads), SenderLine(endpoint.m_socSender),
                                       ReceiverLine(endpoint.m_socReceiver), "",
                                       CreatingLine(endpoint.m_socReceiver, 0, "127.0.0.1")));
        EXPECT_EQ(threads, endpoint.m_nReceiverThreads);
        EXPECT_TRUE(endpoint.m_bReceiversRunning);
        EXPECT_EQ(nullptr, endpoint.m_pReceivers[0]);
        EXPECT_TRUE(endpoint.TerminateAll());
    }
}

TEST_F(CSocketLocalSockets, OfASendOnlyEndpointAreTheSenderAlone) {
    TestEndpoint endpoint(CONNECTION_UDP, true);
    const std::size_t descriptors = CountOpenDescriptors();
    const Lines lines = Initialise(endpoint, 4, nullptr, "127.0.0.1", 3);
    EXPECT_THAT(lines, ElementsAre(ThreadsLine(3), SenderLine(endpoint.m_socSender)));
    EXPECT_EQ(descriptors + 1, CountOpenDescriptors());
    EXPECT_EQ(0, endpoint.m_socReceiver);
    EXPECT_EQ(0, endpoint.m_nReceiverThreads);
    EXPECT_FALSE(endpoint.m_bReceiversRunning);
    EXPECT_EQ(4u, endpoint.m_uiPort);
    EXPECT_TRUE(endpoint.TerminateAll());
}

TEST_F(CSocketLocalSockets, BindSenderAndReceiverToTheInterface) {
    TestEndpoint endpoint(CONNECTION_UDP);
    const std::uint16_t port = FindUnusedPort();
    Initialise(endpoint, port, nullptr, "127.0.0.1", 0);
    EXPECT_EQ("127.0.0.1", AddressOf(endpoint.m_socSender));
    EXPECT_NE(0, PortOf(endpoint.m_socSender));
    EXPECT_NE(port, PortOf(endpoint.m_socSender));
    EXPECT_EQ("127.0.0.1", AddressOf(endpoint.m_socReceiver));
    EXPECT_EQ(port, PortOf(endpoint.m_socReceiver));
    EXPECT_EQ(port, endpoint.m_uiPort);
}

TEST_F(CSocketLocalSockets, BindToAnyAddressWithoutAnInterface) {
    TestEndpoint endpoint(CONNECTION_UDP);
    Initialise(endpoint, 0, nullptr, nullptr, 0);
    EXPECT_EQ("0.0.0.0", AddressOf(endpoint.m_socSender));
    EXPECT_NE(0, PortOf(endpoint.m_socSender));
    EXPECT_EQ("0.0.0.0", AddressOf(endpoint.m_socReceiver));
    EXPECT_NE(0, PortOf(endpoint.m_socReceiver));
}

TEST_F(CSocketLocalSockets, BindTheSenderToAnyAddressWhereTheInterfaceIsNotRepeated) {
    TestEndpoint endpoint(CONNECTION_UDP);
    std::strcpy(endpoint.m_szLocalIf, "127.0.0.1");
    Initialise(endpoint, 0, nullptr, nullptr, 0);
    EXPECT_EQ("0.0.0.0", AddressOf(endpoint.m_socSender));
    EXPECT_EQ("127.0.0.1", AddressOf(endpoint.m_socReceiver));
    EXPECT_STREQ("127.0.0.1", endpoint.m_szLocalIf);
}

TEST_F(CSocketLocalSockets, CopyNoMoreOfTheirTextsThanTheFieldsHold) {
    TestEndpoint endpoint(CONNECTION_UDP, true);
    const std::string text(200, 'x');
    Initialise(endpoint, 0, text.c_str(), text.c_str(), 0);
    EXPECT_EQ(std::string(63, 'x'), endpoint.m_szGroup);
    EXPECT_EQ(std::string(63, 'x'), endpoint.m_szLocalIf);
}

TEST_F(CSocketLocalSockets, OfAMulticastSenderChooseItsInterfaceInsteadOfABind) {
    TestEndpoint endpoint(CONNECTION_UDP, true);
    endpoint.m_bMulticastSender = true;
    Initialise(endpoint, 0, nullptr, "127.0.0.1", 0);
    in_addr interface = {htonl(INADDR_NONE)};
    socklen_t length = sizeof interface;
    if (getsockopt(endpoint.m_socSender, IPPROTO_IP, IP_MULTICAST_IF, &interface, &length) != 0) {
        GTEST_SKIP() << "the emulator does not know this option";
    }
    EXPECT_EQ(htonl(INADDR_LOOPBACK), interface.s_addr);
    EXPECT_EQ(0, PortOf(endpoint.m_socSender)) << "it is bound";
    EXPECT_EQ(0, OptionOf(endpoint.m_socSender, SO_BROADCAST));
}

TEST_F(CSocketLocalSockets, OfAnotherSenderLeaveItsMulticastInterfaceAlone) {
    TestEndpoint endpoint(CONNECTION_UDP, true);
    Initialise(endpoint, 0, nullptr, "127.0.0.1", 0);
    in_addr interface = {htonl(INADDR_NONE)};
    socklen_t length = sizeof interface;
    if (getsockopt(endpoint.m_socSender, IPPROTO_IP, IP_MULTICAST_IF, &interface, &length) != 0) {
        GTEST_SKIP() << "the emulator does not know this option";
    }
    EXPECT_EQ(htonl(INADDR_ANY), interface.s_addr);
    EXPECT_EQ(1, OptionOf(endpoint.m_socSender, SO_BROADCAST));
}

TEST_F(CSocketLocalSockets, OnAForeignInterfaceAreMadeAndNotBound) {
    TestEndpoint endpoint(CONNECTION_UDP);
    const Lines lines = Initialise(endpoint, 9, nullptr, foreign_address, 1);
    EXPECT_EQ(
        (Lines{ThreadsLine(1), SenderLine(endpoint.m_socSender),
               "CSocket::InitialiseLocalSockets sender socket failed to bind -1", ReceiverLine(endpoint.m_socReceiver),
               "", CreatingLine(endpoint.m_socReceiver, 9, foreign_address)} +
         BindFailure(9, EADDRNOTAVAIL) + Lines{StartingLine(1, 1), running_line}),
        lines);
    EXPECT_TRUE(IsOpen(endpoint.m_socSender));
}

TEST_F(CSocketLocalSockets, OnAnUnknownInterfaceAreMadeAndNotBound) {
    TestEndpoint endpoint(CONNECTION_UDP);
    // No resolver is asked for what can only be an address, and is none.
    const Lines lines = Initialise(endpoint, 9, nullptr, "256.1.1.1", 0);
    EXPECT_THAT(lines,
                ElementsAre(ThreadsLine(0), SenderLine(endpoint.m_socSender), ReceiverLine(endpoint.m_socReceiver), "",
                            CreatingLine(endpoint.m_socReceiver, 9, "256.1.1.1"),
                            "CSocket::InitialiseReceiver - ConstructDestinationAddr failed"));
    EXPECT_EQ(0, PortOf(endpoint.m_socSender));
    EXPECT_EQ(0, PortOf(endpoint.m_socReceiver));
}

TEST_F(CSocketLocalSockets, WithoutASenderAreNotOpenedAndNoThreadIsStarted) {
    UseAnEndpointOnce(CONNECTION_UDP);
    TestEndpoint endpoint(CONNECTION_UDP);
    Lines lines;
    {
        const OutputLog log;
        {
            const AllDescriptorsTaken none_left;
            EXPECT_TRUE(endpoint.InitialiseLocalSockets(77, "239.1.2.3", "127.0.0.1", 2));
        }
        lines = log.LinesOfEndpoint();
    }
    EXPECT_THAT(lines, ElementsAre(ThreadsLine(2), SenderLine(-1), "CSocket::StartClient() - sender error -1"));
    EXPECT_EQ(0, endpoint.m_socReceiver);
    EXPECT_EQ(0, endpoint.m_nReceiverThreads);
    EXPECT_FALSE(endpoint.m_bReceiversRunning);
    EXPECT_EQ(77u, endpoint.m_uiPort);
    EXPECT_STREQ("239.1.2.3", endpoint.m_szGroup);
    EXPECT_STREQ("127.0.0.1", endpoint.m_szLocalIf);
}

TEST_F(CSocketLocalSockets, DeliverWhatComesToTheirPort) {
    TestEndpoint endpoint(CONNECTION_DATAGRAM);
    Initialise(endpoint, 0, nullptr, "127.0.0.1", 2);
    for (const char* const data : {"one", "two", "three"}) {
        SendDatagram(endpoint.ReceiverPort(), data);
    }
    EXPECT_TRUE(Eventually([&] { return endpoint.Received().size() == 3; }));
    EXPECT_THAT(endpoint.Received(), ElementsAre("one", "two", "three"));
}

TEST_F(CSocketLocalSockets, OfAStreamServerRunItsPoller) {
    ConnectionServer accepting;
    TcpClient client(accepting.Port());
    client.Send("hello");
    client.EndSending();
    ASSERT_TRUE(Eventually([&] { return accepting.NotificationCounts().connected == 1; }));
    ASSERT_TRUE(HasBytes(accepting.Open().at(0), 5));
    EXPECT_EQ(0, accepting.m_nReceiverThreads);
    EXPECT_EQ(0, accepting.NotificationCounts().terminated) << "nothing receives yet";
    accepting.InitialiseLocalSockets(0, nullptr, "127.0.0.1", 1);
    EXPECT_TRUE(Eventually([&] { return accepting.NotificationCounts().terminated == 1; }));
    EXPECT_THAT(accepting.Conversations(), ElementsAre("hello"));
}

}  // namespace

// What a server is before and after Initialise, how it opens its listener, and how it accepts.

#include <TarnSocketIO/CAsyncIO.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Duration.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/ServerLog.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestServer.h"

namespace {

using std::chrono::milliseconds;
using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_ICMP;
using TarnSocketIO::CONNECTION_PACKET;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::accepted_line;
using TarnTest::bind_failed_line;
using TarnTest::Connection;
using TarnTest::CountOpenDescriptors;
using TarnTest::DurationOf;
using TarnTest::FindUnusedPort;
using TarnTest::join_failed_line;
using TarnTest::ListeningServer;
using TarnTest::LogCapture;
using TarnTest::ServeUntil;
using TarnTest::StandardInputSetAside;
using TarnTest::TcpClient;
using TarnTest::TestServer;
using TarnTest::uninitialised_line;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Kind = TestServer::Notification::Kind;

constexpr std::size_t most_connections = 20;

int OptionOf(int socket, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(0, getsockopt(socket, SOL_SOCKET, option, &value, &length)) << std::strerror(errno);
    return value;
}

linger LingerOf(int socket) {
    linger value = {};
    socklen_t length = sizeof value;
    EXPECT_EQ(0, getsockopt(socket, SOL_SOCKET, SO_LINGER, &value, &length)) << std::strerror(errno);
    return value;
}

sockaddr_in AddressOf(int socket) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(0, getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length)) << std::strerror(errno);
    return address;
}

// ---- before there is a listener

TEST(CAsyncIO, KeepsTheKindItWasConstructedWith) {
    EXPECT_EQ(CONNECTION_STREAM, TestServer(CONNECTION_STREAM).GetConnectionType());
    EXPECT_EQ(CONNECTION_UDP, TestServer(CONNECTION_UDP).GetConnectionType());
    EXPECT_EQ(CONNECTION_DATAGRAM, TestServer(CONNECTION_DATAGRAM).GetConnectionType());
    EXPECT_EQ(CONNECTION_PACKET, TestServer(CONNECTION_PACKET).GetConnectionType());
}

TEST(CAsyncIO, KindsHaveTheValuesOfTheInterface) {
    EXPECT_EQ(0, CONNECTION_STREAM);
    EXPECT_EQ(1, CONNECTION_UDP);
    EXPECT_EQ(2, CONNECTION_DATAGRAM);
    EXPECT_EQ(3, CONNECTION_ICMP);
    EXPECT_EQ(4, CONNECTION_PACKET);
}

TEST(CAsyncIO, ContextIsTheHostNameAndThePollRecord) {
    EXPECT_EQ(512u, sizeof(TarnSocketIO::_SOCKET_CONTEXT::m_szHostName));
    EXPECT_EQ(512u, offsetof(TarnSocketIO::_SOCKET_CONTEXT, m_PollFd));
    EXPECT_EQ(512u + sizeof(pollfd), sizeof(TarnSocketIO::_SOCKET_CONTEXT));
}

TEST(CAsyncIO, HasNoListenerAfterConstruction) {
    const std::size_t descriptors = CountOpenDescriptors();
    const TestServer server;
    EXPECT_EQ(-1, server.GetListenerSocket());
    EXPECT_EQ(descriptors, CountOpenDescriptors());
}

TEST(CAsyncIO, PassOfAnUninitialisedServerIsReportedEachTime) {
    for (const CONNECTION_TYPE type : {CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_DATAGRAM, CONNECTION_ICMP}) {
        SCOPED_TRACE(type);
        const LogCapture log;
        TestServer server(type);
        EXPECT_FALSE(server.MultiConnectionPoller());
        EXPECT_FALSE(server.MultiConnectionPoller());
        EXPECT_THAT(log.Messages(), ElementsAre(uninitialised_line, uninitialised_line));
    }
}

TEST(CAsyncIO, UninitialisedServerAcceptsNothingAndLogsNothing) {
    const LogCapture log;
    TestServer server;
    EXPECT_FALSE(server.MultiConnectionAcceptor());
    EXPECT_THAT(log.Messages(), IsEmpty());
}

// A loop around the acceptor used to take a whole processor when the port was in use.
TEST(CAsyncIO, UninitialisedAcceptorPausesOneStep) {
    TestServer server;
    EXPECT_GE(DurationOf([&] { server.MultiConnectionAcceptor(); }), milliseconds(3));
}

TEST(CAsyncIO, UninitialisedServerSendsNothingAndLogsNothing) {
    const LogCapture log;
    TestServer server;
    EXPECT_FALSE(server.Send(STDOUT_FILENO, "x", 1));
    EXPECT_THAT(log.Messages(), IsEmpty());
}

// ---- Initialise and CreateListenerSocket

TEST(CAsyncIO, InitialiseOpensOneDescriptorAndLogsNothing) {
    const LogCapture log;
    const std::size_t descriptors = CountOpenDescriptors();
    TestServer server;
    EXPECT_TRUE(server.Initialise(0, nullptr));
    EXPECT_EQ(descriptors + 1, CountOpenDescriptors());
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST(CAsyncIO, InitialiseBindsTheGivenPort) {
    const std::uint16_t port = FindUnusedPort();
    for (const CONNECTION_TYPE type : {CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_DATAGRAM, CONNECTION_ICMP}) {
        SCOPED_TRACE(type);
        TestServer server(type);
        ASSERT_TRUE(server.Initialise(port, nullptr));
        EXPECT_EQ(port, server.Port());
    }
}

TEST(CAsyncIO, SecondInitialiseIsRefusedAndChangesNothing) {
    const LogCapture log;
    ListeningServer server;
    const int listener = server.GetListenerSocket();
    const std::uint16_t port = server.Port();
    const std::size_t descriptors = CountOpenDescriptors();

    EXPECT_FALSE(server.Initialise(0, nullptr));
    EXPECT_FALSE(server.Initialise(port, nullptr));

    EXPECT_EQ(listener, server.GetListenerSocket());
    EXPECT_EQ(port, server.Port());
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_NE(-1, Connection(server).socket);
}

TEST(CAsyncIO, InitialiseIsStillRefusedAfterStopListener) {
    ListeningServer server;
    server.StopListener();
    EXPECT_FALSE(server.Initialise(0, nullptr));
    EXPECT_EQ(-1, server.GetListenerSocket());
}

TEST(CAsyncIO, PortInUseLeavesTheServerUninitialised) {
    ListeningServer other;
    const LogCapture log;
    TestServer server;
    EXPECT_TRUE(server.Initialise(other.Port(), nullptr));
    EXPECT_THAT(log.Messages(), ElementsAre(bind_failed_line));

    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_FALSE(server.MultiConnectionAcceptor());
    EXPECT_FALSE(server.Send(other.GetListenerSocket(), "x", 1));
    EXPECT_THAT(log.Messages(), ElementsAre(bind_failed_line, uninitialised_line));
}

TEST(CAsyncIO, InitialiseCanBeTriedAgainAfterAFailure) {
    ListeningServer other;
    const std::size_t descriptors = CountOpenDescriptors();
    TestServer server;
    ASSERT_TRUE(server.Initialise(other.Port(), nullptr));
    ASSERT_TRUE(server.Initialise(other.Port(), nullptr));

    EXPECT_TRUE(server.Initialise(0, nullptr));

    EXPECT_EQ(descriptors + 1, CountOpenDescriptors()) << "the sockets of the failures are still open";
    const Connection connection(server);
    EXPECT_NE(-1, connection.socket);
    EXPECT_FALSE(server.Initialise(0, nullptr)) << "initialised now";
}

TEST(CAsyncIO, FailedListenerIsGoneAfterStopListener) {
    ListeningServer other;
    const std::size_t descriptors = CountOpenDescriptors();
    TestServer server;
    ASSERT_TRUE(server.Initialise(other.Port(), nullptr));
    server.StopListener();
    EXPECT_EQ(descriptors, CountOpenDescriptors());
}

TEST(CAsyncIO, ListenerWithTheNumber0IsAFailureWithoutAMessage) {
    const LogCapture log;
    const StandardInputSetAside zero_is_free;
    TestServer server;
    EXPECT_TRUE(server.Initialise(0, nullptr));
    EXPECT_THAT(log.Messages(), IsEmpty());
    server.MultiConnectionPoller();
    ASSERT_THAT(log.Messages(), ElementsAre(uninitialised_line));
    EXPECT_FALSE(server.MultiConnectionAcceptor());
}

TEST(CAsyncIO, StandardInputIsNeverShutDown) {
    const StandardInputSetAside zero_is_free;
    TestServer server;
    ASSERT_TRUE(server.Initialise(0, nullptr));
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    ASSERT_EQ(STDIN_FILENO, dup2(pair[0], STDIN_FILENO));  // the application opens its standard input
    server.StopListener();
    EXPECT_EQ(1, send(STDIN_FILENO, "x", 1, MSG_NOSIGNAL)) << std::strerror(errno);
    close(pair[0]);
    close(pair[1]);
}

TEST(CAsyncIO, PortAbove65535IsNeverCutToAnother) {
    const std::uint16_t port = FindUnusedPort();
    const LogCapture log;
    TestServer server;
    EXPECT_TRUE(server.Initialise(65536u + port, nullptr));
    EXPECT_NE(port, server.Port());
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_THAT(log.Messages(), ElementsAre(bind_failed_line, uninitialised_line));

    TestServer datagrams(CONNECTION_UDP);
    EXPECT_TRUE(datagrams.Initialise(65536u + port, nullptr));
    EXPECT_EQ(0, datagrams.Port());
}

TEST(CAsyncIO, GroupIsIgnoredByTheKindsThatJoinNone) {
    for (const CONNECTION_TYPE type : {CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_ICMP}) {
        SCOPED_TRACE(type);
        const LogCapture log;
        TestServer server(type);
        EXPECT_TRUE(server.Initialise(0, "no group"));
        EXPECT_THAT(log.Messages(), IsEmpty());
    }
}

TEST(CAsyncIO, FailedJoinIsLoggedAndTheListenerWorks) {
    const std::string long_group(5000, '2');
    for (const char* group : {static_cast<const char*>(nullptr), "", "no group", "127.0.0.1", long_group.c_str()}) {
        SCOPED_TRACE(group == nullptr ? "null" : group);
        const LogCapture log;
        TestServer server(CONNECTION_DATAGRAM);
        EXPECT_TRUE(server.Initialise(0, group));
        EXPECT_THAT(log.Messages(), ElementsAre(join_failed_line));
        EXPECT_FALSE(server.Initialise(0, group)) << "initialised in spite of the group";
    }
}

TEST(CAsyncIO, CreateListenerSocketAloneDoesNotInitialise) {
    const LogCapture log;
    TestServer server;
    EXPECT_TRUE(server.CreateListenerSocket());
    EXPECT_EQ(1, OptionOf(server.GetListenerSocket(), SO_ACCEPTCONN));
    EXPECT_FALSE(server.MultiConnectionAcceptor());
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_THAT(log.Messages(), ElementsAre(uninitialised_line));
}

TEST(CAsyncIO, CreateListenerSocketReplacesTheListenerOnTheSamePort) {
    const std::uint16_t port = FindUnusedPort();
    TestServer server;
    ASSERT_TRUE(server.Initialise(port, nullptr));
    const std::size_t descriptors = CountOpenDescriptors();

    EXPECT_TRUE(server.CreateListenerSocket());

    EXPECT_EQ(port, server.Port());
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_NE(-1, Connection(server).socket);
}

TEST(CAsyncIO, CreateListenerSocketReopensAStoppedListener) {
    const std::uint16_t port = FindUnusedPort();
    TestServer server;
    ASSERT_TRUE(server.Initialise(port, nullptr));
    server.StopListener();

    EXPECT_TRUE(server.CreateListenerSocket());

    EXPECT_EQ(port, server.Port());
    EXPECT_NE(-1, Connection(server).socket);
}

TEST(CAsyncIO, CreateListenerSocketReportsAPortInUse) {
    ListeningServer other;
    TestServer server;
    ASSERT_TRUE(server.Initialise(other.Port(), nullptr));
    const LogCapture log;
    EXPECT_FALSE(server.CreateListenerSocket());
    EXPECT_THAT(log.Messages(), ElementsAre(bind_failed_line));
}

// ---- the listening socket, read back from the kernel

TEST(CAsyncIO, EachKindOpensItsSocketType) {
    struct Case {
        CONNECTION_TYPE kind;
        int type;
        int protocol;
        int listens;
    };
    for (const Case& c :
         {Case{CONNECTION_STREAM, SOCK_STREAM, IPPROTO_TCP, 1}, Case{CONNECTION_UDP, SOCK_DGRAM, IPPROTO_UDP, 0},
          Case{CONNECTION_DATAGRAM, SOCK_DGRAM, IPPROTO_UDP, 0}, Case{CONNECTION_ICMP, SOCK_STREAM, IPPROTO_TCP, 0},
          Case{CONNECTION_PACKET, SOCK_STREAM, IPPROTO_TCP, 0}}) {
        SCOPED_TRACE(c.kind);
        const ListeningServer server(c.kind);
        const int listener = server.GetListenerSocket();
        EXPECT_EQ(c.type, OptionOf(listener, SO_TYPE));
        EXPECT_EQ(c.protocol, OptionOf(listener, SO_PROTOCOL));
        EXPECT_EQ(c.listens, OptionOf(listener, SO_ACCEPTCONN));
    }
}

TEST(CAsyncIO, ListenerIsBoundToAllInterfacesLingersOneSecondAndIsClosedOnExec) {
    for (const CONNECTION_TYPE type : {CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_DATAGRAM, CONNECTION_ICMP}) {
        SCOPED_TRACE(type);
        const ListeningServer server(type);
        const int listener = server.GetListenerSocket();
        EXPECT_EQ(AF_INET, AddressOf(listener).sin_family);
        EXPECT_EQ(htonl(INADDR_ANY), AddressOf(listener).sin_addr.s_addr);
        EXPECT_NE(0, AddressOf(listener).sin_port);
        EXPECT_NE(0, LingerOf(listener).l_onoff);
        EXPECT_EQ(1, LingerOf(listener).l_linger);
        EXPECT_EQ(FD_CLOEXEC, fcntl(listener, F_GETFD) & FD_CLOEXEC);
    }
}

TEST(CAsyncIO, AcceptedConnectionLingersOneSecondAndIsClosedOnExec) {
    ListeningServer server;
    const Connection connection(server);
    EXPECT_NE(0, LingerOf(connection.socket).l_onoff);
    EXPECT_EQ(1, LingerOf(connection.socket).l_linger);
    EXPECT_EQ(FD_CLOEXEC, fcntl(connection.socket, F_GETFD) & FD_CLOEXEC);
}

TEST(CAsyncIO, Backlog128HoldsThatManyClientsBeforeTheFirstIsAccepted) {
    int most = 0;
    std::ifstream("/proc/sys/net/core/somaxconn") >> most;
    if (most < 128) {
        GTEST_SKIP() << "net.core.somaxconn allows a backlog of only " << most;
    }
    ListeningServer server;
    std::vector<TcpClient> clients;
    for (int i = 0; i < 128; ++i) {
        ASSERT_NO_THROW(clients.emplace_back(server.Port())) << "client " << i;
    }
    EXPECT_NE(-1, server.Accept());
}

// ---- MultiConnectionAcceptor

TEST(CAsyncIO, AcceptorTakesOneConnectionPerCall) {
    const LogCapture log;
    ListeningServer server;
    const TcpClient first(server.Port());
    const TcpClient second(server.Port());

    EXPECT_TRUE(server.MultiConnectionAcceptor());
    EXPECT_THAT(server.Connected(), SizeIs(1));
    EXPECT_THAT(log.Messages(), ElementsAre(accepted_line));
    EXPECT_TRUE(server.MultiConnectionAcceptor());
    EXPECT_THAT(server.Connected(), SizeIs(2));
    EXPECT_THAT(log.Messages(), ElementsAre(accepted_line, accepted_line));
}

TEST(CAsyncIO, OnConnectedRunsOnTheAcceptingThreadWithTheConnection) {
    ListeningServer server;
    const Connection connection(server);

    const auto notifications = server.Notifications();
    ASSERT_THAT(notifications, SizeIs(1));
    EXPECT_EQ(Kind::connected, notifications[0].kind);
    EXPECT_EQ(std::this_thread::get_id(), notifications[0].thread);
    sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    ASSERT_EQ(0, getpeername(notifications[0].socket, reinterpret_cast<sockaddr*>(&peer), &length));
    EXPECT_EQ(AddressOf(connection.client.Socket()).sin_port, peer.sin_port);
}

TEST(CAsyncIO, ConnectionIsRegisteredBeforeOnConnected) {
    ListeningServer server;
    bool was_sent = false;
    server.on_connected = [&](int socket) { was_sent = server.Send(socket, "hello", 5); };
    Connection connection(server);
    ASSERT_TRUE(was_sent);
    EXPECT_EQ("hello", connection.client.Receive(5));
}

TEST(CAsyncIO, ExceptionOfOnConnectedReachesTheCallerAndTheConnectionStays) {
    ListeningServer server;
    server.on_connected = [](int) { throw std::runtime_error("not today"); };
    TcpClient client(server.Port());
    EXPECT_THROW(server.MultiConnectionAcceptor(), std::runtime_error);

    ASSERT_THAT(server.Connected(), SizeIs(1));
    const int socket = server.Connected()[0];
    ASSERT_TRUE(server.Send(socket, "still here", 10));
    EXPECT_EQ("still here", client.Receive(10));
    client.Send("good");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(socket) == "good"; }));

    server.on_connected = nullptr;
    EXPECT_NE(-1, Connection(server).socket);
}

TEST(CAsyncIO, The21stConnectionWaitsUntilOneOfThe20Ends) {
    ListeningServer server;
    std::vector<Connection> connections;
    for (std::size_t i = 0; i < most_connections; ++i) {
        connections.emplace_back(server);
        ASSERT_NE(-1, connections.back().socket);
    }
    TcpClient waiting(server.Port());
    waiting.Send("patience");

    const LogCapture log;
    for (int i = 0; i < 3; ++i) {
        bool accepted = true;
        const auto start = std::chrono::steady_clock::now();
        accepted = server.MultiConnectionAcceptor();
        EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(3)) << "a loop around it would spin";
        EXPECT_FALSE(accepted);
    }
    EXPECT_THAT(server.Connected(), SizeIs(most_connections));
    EXPECT_THAT(log.Messages(), IsEmpty());

    connections[7].client.Close();
    ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
    EXPECT_THAT(server.Terminated(), ElementsAre(connections[7].socket));
    const int socket = server.Accept();
    ASSERT_NE(-1, socket);
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(socket) == "patience"; }));
    EXPECT_TRUE(server.Send(socket, "thanks", 6));
    EXPECT_EQ("thanks", waiting.Receive(6));
}

}  // namespace

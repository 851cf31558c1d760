// What happens to a server's descriptors and their numbers: used again, StopListener, destruction.

#include <TarnSocketIO/CAsyncIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/ServerLog.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestServer.h"

namespace {

using std::chrono::milliseconds;
using TarnSocketIO::CAsyncIO;
using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_ICMP;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::accept_failed_line;
using TarnTest::attempts;
using TarnTest::BackgroundCall;
using TarnTest::Connection;
using TarnTest::CountOpenDescriptors;
using TarnTest::CountThreads;
using TarnTest::cut_short;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::FindUnusedPort;
using TarnTest::IsOpen;
using TarnTest::IsReadable;
using TarnTest::ListeningServer;
using TarnTest::LogCapture;
using TarnTest::no_context_line;
using TarnTest::SendDatagram;
using TarnTest::ServeUntil;
using TarnTest::TcpClient;
using TarnTest::TestServer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Clock = std::chrono::steady_clock;

/// A socket of the test's own, on a number that a server had before.
class Decoy {
public:
    Decoy(int type, int number) : m_number(number) {
        const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        if (type == SOCK_STREAM) {
            EXPECT_EQ(0, listen(fd, 5));
        }
        if (fd != number) {
            EXPECT_FALSE(IsOpen(number)) << "the number is not free";
            EXPECT_EQ(number, dup2(fd, number));
            close(fd);
        }
    }
    ~Decoy() { close(m_number); }
    Decoy(const Decoy&) = delete;
    Decoy& operator=(const Decoy&) = delete;

    std::uint16_t Port() const {
        sockaddr_in address = {};
        socklen_t length = sizeof address;
        EXPECT_EQ(0, getsockname(m_number, reinterpret_cast<sockaddr*>(&address), &length));
        return ntohs(address.sin_port);
    }

    /// Sends itself a datagram.
    void SendToItself() const {
        sockaddr_in address = {};
        socklen_t length = sizeof address;
        EXPECT_EQ(0, getsockname(m_number, reinterpret_cast<sockaddr*>(&address), &length));
        EXPECT_EQ(5, sendto(m_number, "decoy", 5, 0, reinterpret_cast<const sockaddr*>(&address), length));
    }

    bool HasSomethingWaiting() const { return IsReadable(m_number); }

private:
    int m_number;
};

/// Whether a socket that insists on the port for itself gets it.
bool CanListenOn(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    const bool can = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && listen(fd, 1) == 0;
    close(fd);
    return can;
}

// ---- numbers that are used again

TEST(CAsyncIO, NewConnectionWithTheNumberOfAnEndingOneSurvivesIt) {
    ListeningServer server;
    Connection old(server);
    TcpClient next(server.Port());
    server.on_terminated = [&](int socket) {
        server.on_terminated = [](int ended) { close(ended); };
        close(socket);
        ASSERT_EQ(socket, server.Accept()) << "the number was not given again";
    };
    old.client.EndSending();
    ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
    ASSERT_THAT(server.Connected(), ElementsAre(old.socket, old.socket));

    EXPECT_TRUE(server.Send(old.socket, "welcome", 7));
    EXPECT_EQ("welcome", next.Receive(7));
    next.Send("thanks");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(old.socket) == "thanks"; }));
    EXPECT_THAT(server.Terminated(), SizeIs(1));
    next.Close();
    EXPECT_TRUE(ServeUntil(server, [&] { return server.Terminated().size() == 2; }));
    EXPECT_FALSE(server.Send(old.socket, "x", 1));
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_THAT(server.Terminated(), SizeIs(2));
}

TEST(CAsyncIO, NewConnectionWithTheNumberOfAnEndingOneCanBeSentToAtOnce) {
    ListeningServer server;
    Connection old(server);
    TcpClient next(server.Port());
    server.on_terminated = [&](int socket) {
        close(socket);
        ASSERT_EQ(socket, server.Accept()) << "the number was not given again";
        EXPECT_TRUE(server.Send(socket, "hello", 5));
        EXPECT_TRUE(BackgroundCall([&] { return server.Send(socket, " you", 4); }).Result());
    };
    old.client.EndSending();
    ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
    EXPECT_EQ("hello you", next.Receive(9));
    EXPECT_EQ("", old.client.ReceiveAll());
}

TEST(CAsyncIO, EndedConnectionIsForgottenThoughOnTerminatedAccepts) {
    ListeningServer server;
    std::vector<Connection> connections;
    for (int i = 0; i < 3; ++i) {
        connections.emplace_back(server);
    }
    const TcpClient next(server.Port());
    int accepted = -1;
    server.on_terminated = [&](int) { accepted = server.Accept(); };  // the old number stays taken
    connections[1].client.EndSending();
    ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
    EXPECT_NE(connections[1].socket, accepted);
    EXPECT_FALSE(server.Send(connections[1].socket, "x", 1));
    for (const int socket : {connections[0].socket, connections[2].socket, accepted}) {
        EXPECT_TRUE(server.Send(socket, "x", 1));
    }
    close(connections[1].socket);
}

TEST(CAsyncIO, OtherThreadsCannotSendWhileOnTerminatedRuns) {
    ListeningServer server;
    Connection connection(server);
    bool was_sent_by_other = true;
    bool was_sent = false;
    server.on_terminated = [&](int socket) {
        was_sent_by_other = BackgroundCall([&] { return server.Send(socket, "other", 5); }).Result();
        was_sent = server.Send(socket, "own", 3);
        close(socket);
    };
    const LogCapture log;
    connection.client.EndSending();
    ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
    EXPECT_FALSE(was_sent_by_other);
    EXPECT_TRUE(was_sent);
    EXPECT_EQ(1u, log.Count(no_context_line));
    EXPECT_EQ("own", connection.client.ReceiveAll());
}

// ---- StopListener

TEST(CAsyncIO, StopListenerWakesAWaitingAcceptor) {
    ListeningServer server;
    const LogCapture log;
    BackgroundCall acceptor([&] { return server.MultiConnectionAcceptor(); });
    ASSERT_TRUE(Eventually([&] { return acceptor.Waits(); }));
    server.StopListener();
    EXPECT_TRUE(Eventually([&] { return acceptor.HasEnded(); }));
    EXPECT_FALSE(acceptor.Result());
    EXPECT_THAT(log.Messages(), ElementsAre(accept_failed_line));
}

TEST(CAsyncIO, AcceptorAfterStopListenerReportsABadSocket) {
    ListeningServer server;
    server.StopListener();
    const LogCapture log;
    EXPECT_FALSE(server.MultiConnectionAcceptor());
    EXPECT_THAT(log.Messages(), ElementsAre(accept_failed_line));
}

TEST(CAsyncIO, AcceptorAfterStopListenerPausesOneStep) {
    ListeningServer server;
    server.StopListener();
    EXPECT_GE(DurationOf([&] { server.MultiConnectionAcceptor(); }), milliseconds(3));
}

TEST(CAsyncIO, StopListenerClosesTheListenerAndForgetsIt) {
    const std::size_t descriptors = CountOpenDescriptors();
    for (const CONNECTION_TYPE type : {CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_DATAGRAM, CONNECTION_ICMP}) {
        SCOPED_TRACE(type);
        ListeningServer server(type);
        const LogCapture log;
        server.StopListener();
        EXPECT_EQ(descriptors, CountOpenDescriptors());
        EXPECT_EQ(-1, server.GetListenerSocket());
        EXPECT_THAT(log.Messages(), IsEmpty());
    }
}

TEST(CAsyncIO, StopListenerRefusesFurtherClients) {
    ListeningServer server;
    const std::uint16_t port = server.Port();
    server.StopListener();
    EXPECT_THROW(TcpClient client(port), std::system_error);
}

TEST(CAsyncIO, StopListenerWithoutAListenerDoesNothing) {
    const std::size_t descriptors = CountOpenDescriptors();
    const LogCapture log;
    TestServer server;
    server.StopListener();
    EXPECT_EQ(-1, server.GetListenerSocket());
    EXPECT_TRUE(IsOpen(STDIN_FILENO));
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_TRUE(server.Initialise(0, nullptr));
    EXPECT_NE(-1, Connection(server).socket);
}

TEST(CAsyncIO, PortIsFreeAsSoonAsStopListenerReturns) {
    const std::uint16_t port = FindUnusedPort();
    for (int i = 0; i < 200; ++i) {
        SCOPED_TRACE(i);
        TestServer server;
        ASSERT_TRUE(server.Initialise(port, nullptr));
        ASSERT_EQ(port, server.Port());
        BackgroundCall acceptor([&] { return server.MultiConnectionAcceptor(); });
        if (i % 2 == 0) {
            ASSERT_TRUE(Eventually([&] { return acceptor.Waits(); }));
        }
        server.StopListener();
        ASSERT_TRUE(CanListenOn(port));
        ASSERT_TRUE(Eventually([&] { return acceptor.HasEnded(); }));
    }
}

TEST(CAsyncIO, StopListenerFromWithinOnConnectedClosesTheListener) {
    ListeningServer server;
    server.on_connected = [&](int) {
        const int listener = server.GetListenerSocket();
        server.StopListener();
        EXPECT_FALSE(IsOpen(listener));
        EXPECT_EQ(-1, server.GetListenerSocket());
    };
    const std::size_t descriptors = CountOpenDescriptors();
    const Connection connection(server);
    EXPECT_NE(-1, connection.socket);
    EXPECT_EQ(descriptors + 2 - 1, CountOpenDescriptors()) << "both ends of the connection, and no listener";
    EXPECT_TRUE(server.Send(connection.socket, "x", 1));
    EXPECT_FALSE(server.MultiConnectionAcceptor());
}

TEST(CAsyncIO, StopListenerFromWithinOnReceivedDataClosesADatagramListener) {
    for (const CONNECTION_TYPE type : {CONNECTION_UDP, CONNECTION_DATAGRAM}) {
        SCOPED_TRACE(type);
        ListeningServer server(type);
        server.on_received = [&](int socket, char*, long) {
            server.StopListener();
            EXPECT_FALSE(IsOpen(socket));
            EXPECT_EQ(-1, server.GetListenerSocket());
        };
        SendDatagram(server.Port(), "stop");
        ASSERT_TRUE(IsReadable(server.GetListenerSocket()));
        server.MultiConnectionPoller();
        EXPECT_THAT(server.Received(), ElementsAre("stop"));
    }
}

TEST(CAsyncIO, StopListenerFromWithinANotificationWakesTheAcceptor) {
    ListeningServer server;
    Connection connection(server);
    server.on_received = [&](int, char*, long) { server.StopListener(); };
    BackgroundCall acceptor([&] { return server.MultiConnectionAcceptor(); });
    ASSERT_TRUE(Eventually([&] { return acceptor.Waits(); }));
    connection.client.Send("stop");
    ASSERT_TRUE(IsReadable(connection.socket));
    server.MultiConnectionPoller();
    EXPECT_TRUE(Eventually([&] { return acceptor.HasEnded(); }));
    EXPECT_FALSE(acceptor.Result());
}

TEST(CAsyncIO, ConnectionsAreServedAfterStopListener) {
    ListeningServer server;
    Connection connection(server);
    server.StopListener();
    EXPECT_TRUE(server.Send(connection.socket, "still here", 10));
    EXPECT_EQ("still here", connection.client.Receive(10));
    connection.client.Send("good");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(connection.socket) == "good"; }));
    connection.client.Close();
    EXPECT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
    EXPECT_THAT(server.Terminated(), ElementsAre(connection.socket));
}

TEST(CAsyncIO, NothingTouchesTheNumberOfAStoppedListener) {
    std::optional<ListeningServer> server(std::in_place);
    const Connection connection(*server);
    const int number = server->GetListenerSocket();
    server->StopListener();
    const Decoy decoy(SOCK_STREAM, number);
    const TcpClient client(decoy.Port());

    EXPECT_FALSE(server->MultiConnectionAcceptor());
    EXPECT_THAT(server->Connected(), SizeIs(1)) << "a connection of somebody else was taken";
    EXPECT_FALSE(server->MultiConnectionPoller());
    server->StopListener();
    EXPECT_TRUE(decoy.HasSomethingWaiting());
    server.reset();
    EXPECT_TRUE(IsOpen(number));
    const TcpClient second(decoy.Port());
}

TEST(CAsyncIO, PassDoesNotReadTheNumberOfAStoppedDatagramListener) {
    for (const CONNECTION_TYPE type : {CONNECTION_UDP, CONNECTION_DATAGRAM, CONNECTION_ICMP}) {
        SCOPED_TRACE(type);
        std::optional<ListeningServer> server(std::in_place, type);
        const int number = server->GetListenerSocket();
        server->StopListener();
        const Decoy decoy(SOCK_DGRAM, number);
        decoy.SendToItself();
        ASSERT_TRUE(decoy.HasSomethingWaiting());

        EXPECT_FALSE(server->MultiConnectionPoller());
        EXPECT_THAT(server->Notifications(), IsEmpty());
        server->StopListener();
        server.reset();
        EXPECT_TRUE(decoy.HasSomethingWaiting()) << "its datagram was read";
    }
}

TEST(CAsyncIO, LoopsAroundAStoppedListenerLeaveItsNumberAlone) {
    for (int i = 0; i < 50; ++i) {
        ListeningServer server;
        server.StartAcceptor();
        server.StopListener();
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(0, listen(fd, 5));
        const Decoy decoy(SOCK_STREAM, fd + 1);
        close(fd);
        const TcpClient client(decoy.Port());
        EXPECT_TRUE(decoy.HasSomethingWaiting());
        std::this_thread::sleep_for(milliseconds(1));
        EXPECT_TRUE(decoy.HasSomethingWaiting());
        server.EndLoops();
        EXPECT_THAT(server.Connected(), IsEmpty());
    }
}

TEST(CAsyncIO, StopListenerByManyThreadsClosesOnce) {
    for (int i = 0; i < 50; ++i) {
        const std::size_t descriptors = CountOpenDescriptors();
        ListeningServer server;
        const int number = server.GetListenerSocket();
        std::vector<std::unique_ptr<BackgroundCall>> calls;
        for (int thread = 0; thread < 4; ++thread) {
            calls.push_back(std::make_unique<BackgroundCall>([&server] {
                server.StopListener();
                return true;
            }));
        }
        calls.clear();
        EXPECT_FALSE(IsOpen(number));
        EXPECT_EQ(descriptors, CountOpenDescriptors());
    }
}

TEST(CAsyncIO, StopListenerWakesAWaitingDatagramPass) {
    for (const CONNECTION_TYPE type : {CONNECTION_UDP, CONNECTION_DATAGRAM}) {
        SCOPED_TRACE(type);
        Clock::duration fastest = Clock::duration::max();
        for (int i = 0; i < attempts && fastest >= cut_short; ++i) {
            ListeningServer server(type);
            BackgroundCall pass([&] { return server.MultiConnectionPoller(); });
            ASSERT_TRUE(Eventually([&] { return pass.Waits() || pass.HasEnded(); }));
            const auto start = Clock::now();
            server.StopListener();
            EXPECT_FALSE(pass.Result());
            fastest = std::min(fastest, Clock::now() - start);
            EXPECT_THAT(server.Notifications(), IsEmpty());
        }
        EXPECT_LT(fastest, cut_short);
    }
}

// ---- destruction

/// Closes nothing by itself.
class PlainServer : public CAsyncIO {
public:
    PlainServer() : CAsyncIO(CONNECTION_STREAM) { Initialise(0, nullptr); }

    using CAsyncIO::GetListenerSocket;
    std::vector<int> connections;

protected:
    void OnConnected(int socket) override { connections.push_back(socket); }
    void OnTerminated(int) override {}
    void OnReceivedData(int, char*, long) override {}
};

TEST(CAsyncIO, DestructorClosesNeitherListenerNorConnections) {
    std::optional<PlainServer> server(std::in_place);
    const int listener = server->GetListenerSocket();
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    ASSERT_EQ(0, getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length));
    std::vector<TcpClient> clients;
    for (int i = 0; i < 3; ++i) {
        clients.emplace_back(ntohs(address.sin_port));
        ASSERT_TRUE(server->MultiConnectionAcceptor());
    }
    const std::vector<int> connections = server->connections;
    const std::size_t descriptors = CountOpenDescriptors();

    server.reset();

    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_NO_THROW(TcpClient(ntohs(address.sin_port))) << "the listener does not listen any more";
    for (std::size_t i = 0; i < connections.size(); ++i) {
        EXPECT_EQ(1, send(connections[i], "x", 1, MSG_NOSIGNAL));
        EXPECT_EQ("x", clients[i].Receive(1));
        close(connections[i]);
    }
    close(listener);
}

TEST(CAsyncIO, ThousandServersLeaveNoDescriptorAndNoThreadBehind) {
    const std::size_t descriptors = CountOpenDescriptors();
    const std::size_t threads = CountThreads();
    for (int i = 0; i < 1000; ++i) {
        ListeningServer server(static_cast<CONNECTION_TYPE>(i % 4));
        if (i % 4 == CONNECTION_STREAM) {
            const Connection connection(server);
        }
    }
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads; }));
}

TEST(CAsyncIO, NotificationsFollowTheDestructorInTheInterfacesOrder) {
    // A pointer to a virtual member begins with 1 plus the offset of its slot on every platform that the library has.
    class Slots : public TestServer {
    public:
        static std::size_t Of(void (Slots::*notification)(int)) { return Slot(&notification); }
        static std::size_t Of(void (Slots::*notification)(int, char*, long)) { return Slot(&notification); }
        static std::vector<std::size_t> All() {
            return {Of(&Slots::OnConnected), Of(&Slots::OnTerminated), Of(&Slots::OnReceivedData)};
        }

    private:
        static std::size_t Slot(const void* pointer_to_member) {
            return (*static_cast<const std::size_t*>(pointer_to_member) - 1) / sizeof(void*);
        }
    };
    EXPECT_THAT(Slots::All(), ElementsAre(2, 3, 4));
}

}  // namespace

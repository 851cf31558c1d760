// What one pass of the poller does with connections: what it reads, what it notifies, and how a connection ends.

#include <TarnSocketIO/CAsyncIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/ServerLog.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestServer.h"

namespace {

using std::chrono::milliseconds;
using TarnTest::Connection;
using TarnTest::DurationOf;
using TarnTest::end_line;
using TarnTest::Eventually;
using TarnTest::FindUnusedPort;
using TarnTest::hang_up_line;
using TarnTest::IsOpen;
using TarnTest::IsReadable;
using TarnTest::IsZero;
using TarnTest::ListeningServer;
using TarnTest::LogCapture;
using TarnTest::longest_read;
using TarnTest::no_context_line;
using TarnTest::Pattern;
using TarnTest::readable_line;
using TarnTest::received_exception_line;
using TarnTest::removing_line;
using TarnTest::ServeUntil;
using TarnTest::TcpClient;
using TarnTest::terminated_exception_line;
using TarnTest::TestServer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Kind = TestServer::Notification::Kind;

constexpr std::size_t most_connections = 20;

bool HasToRead(int socket, int length) {
    return Eventually([&] {
        int available = 0;
        ioctl(socket, FIONREAD, &available);
        return available >= length;
    });
}

bool HasUrgentData(int socket) {
    pollfd record = {socket, POLLPRI, 0};
    return poll(&record, 1, 30000) == 1;
}

// ---- MultiConnectionPoller

TEST(CAsyncIO, PassWithoutConnectionsReturnsAtOnce) {
    const LogCapture log;
    ListeningServer server;
    EXPECT_LT(DurationOf([&] { EXPECT_FALSE(server.MultiConnectionPoller()); }), milliseconds(250));
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST(CAsyncIO, PassWithoutConnectionsLeavesAWaitingClientAlone) {
    ListeningServer server;
    const TcpClient client(server.Port());
    EXPECT_LT(DurationOf([&] { EXPECT_FALSE(server.MultiConnectionPoller()); }), milliseconds(250));
    EXPECT_THAT(server.Notifications(), IsEmpty());
    EXPECT_NE(-1, server.Accept());
}

TEST(CAsyncIO, PassWaitsHalfASecondForDataAndLeavesASilentPeerAlone) {
    ListeningServer server;
    Connection connection(server);
    const LogCapture log;
    const milliseconds duration = DurationOf([&] { EXPECT_FALSE(server.MultiConnectionPoller()); });
    EXPECT_GE(duration, milliseconds(490));
    EXPECT_LT(duration, milliseconds(5000));
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_THAT(server.Notifications(), SizeIs(1)) << "more than its OnConnected";
    EXPECT_TRUE(server.Send(connection.socket, "awake?", 6));
    EXPECT_EQ("awake?", connection.client.Receive(6));
}

TEST(CAsyncIO, PassReturnsFalseAfterDataToo) {
    ListeningServer server;
    Connection connection(server);
    const LogCapture log;
    connection.client.Send("data");
    ASSERT_TRUE(IsReadable(connection.socket));
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_THAT(server.Received(), ElementsAre("data"));
    EXPECT_THAT(log.Messages(), ElementsAre(readable_line));
}

TEST(CAsyncIO, NotificationsOfAPassRunOnItsThread) {
    ListeningServer server;
    Connection connection(server);
    connection.client.Send("data");
    connection.client.Close();
    std::thread passes([&] { ServeUntil(server, [&] { return !server.Terminated().empty(); }); });
    const std::thread::id id = passes.get_id();
    passes.join();

    const auto notifications = server.Notifications();
    ASSERT_THAT(notifications, SizeIs(3));
    EXPECT_EQ(Kind::received, notifications[1].kind);
    EXPECT_EQ(id, notifications[1].thread);
    EXPECT_EQ(Kind::terminated, notifications[2].kind);
    EXPECT_EQ(id, notifications[2].thread);
}

TEST(CAsyncIO, ConnectionAcceptedDuringAPassJoinsTheNext) {
    ListeningServer server;
    Connection first(server);
    TcpClient second(server.Port());
    second.Send("second");
    server.on_received = [&](int, char*, long) {
        server.on_received = nullptr;
        EXPECT_TRUE(IsReadable(server.Accept()));
    };
    first.client.Send("first");
    ASSERT_TRUE(IsReadable(first.socket));

    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), ElementsAre("first"));
    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), ElementsAre("first", "second"));
}

TEST(CAsyncIO, ConnectionsAreServedInTheOrderOfTheirDescriptors) {
    ListeningServer server;
    std::vector<Connection> connections;
    for (int i = 0; i < 3; ++i) {
        connections.emplace_back(server);
    }
    connections[0].client.Close();
    ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
    connections.emplace_back(server);
    ASSERT_LT(connections[3].socket, connections[1].socket) << "the last one did not get the lowest number";

    for (const std::size_t i : {2u, 1u, 3u}) {
        connections[i].client.Send(std::string(1, static_cast<char>('0' + i)));
        ASSERT_TRUE(IsReadable(connections[i].socket));
    }
    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), ElementsAre("3", "1", "2"));
}

TEST(CAsyncIO, OnePassServesAll20Connections) {
    ListeningServer server;
    std::vector<Connection> connections;
    std::vector<std::string> expected;
    for (std::size_t i = 0; i < most_connections; ++i) {
        connections.emplace_back(server);
        expected.push_back(std::to_string(connections.back().socket));
    }
    for (Connection& connection : connections) {
        connection.client.Send(std::to_string(connection.socket));
        ASSERT_TRUE(IsReadable(connection.socket));
    }
    server.MultiConnectionPoller();
    EXPECT_EQ(expected, server.Received());
}

TEST(CAsyncIO, DataArrivesWholeAndInOrderInChunksOfAtMost131070) {
    for (const std::size_t length : {1u, 131069u, 131070u, 131071u, 1048576u}) {
        SCOPED_TRACE(length);
        ListeningServer server;
        Connection connection(server);
        long longest = 0;
        server.on_received = [&](int, char*, long chunk) { longest = std::max(longest, chunk); };
        const std::string pattern = Pattern(length);
        const auto sent = std::async(std::launch::async, [&] { connection.client.Send(pattern); });
        ASSERT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(connection.socket).size() >= length; }));
        EXPECT_TRUE(pattern == server.ReceivedFrom(connection.socket)) << "not the bytes that were sent";
        EXPECT_GE(longest, 1);
        EXPECT_LE(longest, longest_read);
    }
}

TEST(CAsyncIO, OnePassReads131070BytesOfAConnectionAndTheNextTheRest) {
    ListeningServer server;
    const int window = 1 << 20;
    ASSERT_EQ(0, setsockopt(server.GetListenerSocket(), SOL_SOCKET, SO_RCVBUF, &window, sizeof window));
    Connection connection(server);
    bool was_terminated = false;
    server.on_received = [&](int, char* data, long length) { was_terminated = data[length] == 0; };
    const std::string pattern = Pattern(longest_read + 1000);
    connection.client.Send(pattern);
    ASSERT_TRUE(HasToRead(connection.socket, longest_read + 1000));

    server.MultiConnectionPoller();
    ASSERT_THAT(server.Received(), SizeIs(1));
    EXPECT_EQ(static_cast<std::size_t>(longest_read), server.Received()[0].size());
    EXPECT_TRUE(was_terminated);
    server.MultiConnectionPoller();
    ASSERT_THAT(server.Received(), SizeIs(2));
    EXPECT_EQ(1000u, server.Received()[1].size());
    EXPECT_TRUE(pattern == server.ReceivedFrom(connection.socket)) << "not the bytes that were sent";
}

TEST(CAsyncIO, BufferBehindTheDataIsZeroAlsoAfterALongerMessage) {
    ListeningServer server;
    Connection connection(server);
    std::vector<bool> is_zero;
    server.on_received = [&](int, char* data, long length) {
        is_zero.push_back(IsZero(data + length, data + longest_read));
    };
    for (const std::size_t length : {60000u, 5u, 1u}) {
        connection.client.Send(std::string(length, 'm'));
        ASSERT_TRUE(HasToRead(connection.socket, static_cast<int>(length)));
        server.MultiConnectionPoller();
    }
    EXPECT_THAT(server.Received(), SizeIs(3));
    EXPECT_THAT(is_zero, ElementsAre(true, true, true));
}

TEST(CAsyncIO, ReceiveBufferIsZeroAfterTheMessageOfAnotherConnection) {
    ListeningServer server;
    Connection first(server);
    Connection second(server);
    std::vector<bool> is_zero;
    server.on_received = [&](int, char* data, long length) {
        is_zero.push_back(IsZero(data + length, data + longest_read));
    };
    first.client.Send(std::string(60000, 'f'));
    second.client.Send("s");
    ASSERT_TRUE(HasToRead(first.socket, 60000));
    ASSERT_TRUE(HasToRead(second.socket, 1));
    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), SizeIs(2));
    EXPECT_THAT(is_zero, ElementsAre(true, true));
}

TEST(CAsyncIO, UrgentDataDoesNoHarm) {
    ListeningServer server;
    Connection connection(server);
    const LogCapture log;
    connection.client.SendUrgent('!');
    ASSERT_TRUE(HasUrgentData(connection.socket));

    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_THAT(log.Messages(), ElementsAre(readable_line));
    EXPECT_THAT(server.Notifications(), SizeIs(1)) << "more than its OnConnected";

    EXPECT_GE(DurationOf([&] { server.MultiConnectionPoller(); }), milliseconds(490)) << "loops around it would spin";
    connection.client.Send("calm");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(connection.socket) == "calm"; }));
}

TEST(CAsyncIO, UrgentByteBehindDataHoldsNothingUp) {
    ListeningServer server;
    Connection connection(server);
    connection.client.Send("data");
    connection.client.SendUrgent('!');
    ASSERT_TRUE(HasToRead(connection.socket, 4));
    ASSERT_TRUE(HasUrgentData(connection.socket));

    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), ElementsAre("data"));
    server.MultiConnectionPoller();  // for the urgent byte alone
    EXPECT_GE(DurationOf([&] { server.MultiConnectionPoller(); }), milliseconds(490)) << "loops around it would spin";
    EXPECT_THAT(server.Received(), ElementsAre("data"));
    EXPECT_THAT(server.Terminated(), IsEmpty());

    connection.client.Send(" goes on");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(connection.socket) == "data goes on"; }));
}

TEST(CAsyncIO, UrgentByteBetweenDataIsLeftOut) {
    ListeningServer server;
    Connection connection(server);
    connection.client.Send("before");
    connection.client.SendUrgent('!');
    connection.client.Send("after");
    ASSERT_TRUE(HasUrgentData(connection.socket));
    ASSERT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(connection.socket) == "beforeafter"; }));
    EXPECT_GE(DurationOf([&] { server.MultiConnectionPoller(); }), milliseconds(490)) << "loops around it would spin";
    EXPECT_THAT(server.Received(), ElementsAre("before", "after")) << "read beyond the urgent byte in one go";
    EXPECT_THAT(server.Terminated(), IsEmpty());
}

TEST(CAsyncIO, ExceptionOfOnReceivedDataIsLoggedAndThePassGoesOn) {
    ListeningServer server;
    Connection first(server);
    Connection second(server);
    Connection third(server);
    server.on_received = [&](int socket, char*, long) {
        if (socket == first.socket) {
            throw std::runtime_error("not today");
        }
        if (socket == second.socket) {
            throw 42;
        }
    };
    for (Connection* connection : {&first, &second, &third}) {
        connection->client.Send("data");
        ASSERT_TRUE(IsReadable(connection->socket));
    }
    const LogCapture log;
    EXPECT_NO_THROW(server.MultiConnectionPoller());
    EXPECT_THAT(log.Messages(), ElementsAre(readable_line, received_exception_line, readable_line,
                                            received_exception_line, readable_line));
    EXPECT_EQ("data", server.ReceivedFrom(third.socket));
    EXPECT_THAT(server.Terminated(), IsEmpty());

    server.on_received = nullptr;
    first.client.Send(" again");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(first.socket) == "data again"; }));
}

TEST(CAsyncIO, ExceptionOfOnTerminatedIsLoggedAndThePassGoesOn) {
    ListeningServer server;
    Connection first(server);
    Connection second(server);
    Connection third(server);
    server.on_terminated = [&](int socket) {
        close(socket);
        if (socket == first.socket) {
            throw std::runtime_error("not today");
        }
        throw 42;
    };
    first.client.Close();
    second.client.Close();
    third.client.Send("data");
    for (const Connection* connection : {&first, &second, &third}) {
        ASSERT_TRUE(IsReadable(connection->socket));
    }
    const LogCapture log;
    EXPECT_NO_THROW(server.MultiConnectionPoller());
    EXPECT_THAT(log.Messages(),
                ElementsAre(readable_line, end_line, removing_line, terminated_exception_line,  //
                            readable_line, end_line, removing_line, terminated_exception_line, readable_line));
    EXPECT_EQ("data", server.ReceivedFrom(third.socket));

    EXPECT_FALSE(server.Send(first.socket, "x", 1)) << "not forgotten";
    EXPECT_FALSE(server.Send(second.socket, "x", 1)) << "not forgotten";
    third.client.Send(" again");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(third.socket) == "data again"; }));
    EXPECT_THAT(server.Terminated(), ElementsAre(first.socket, second.socket));
}

// ---- the end of a connection

TEST(CAsyncIO, PeerThatClosesIsTerminatedOnceAndForgotten) {
    ListeningServer server;
    Connection connection(server);
    connection.client.Close();
    ASSERT_TRUE(IsReadable(connection.socket));

    const LogCapture log;
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_THAT(server.Terminated(), ElementsAre(connection.socket));
    EXPECT_THAT(log.Messages(), ElementsAre(readable_line, end_line, removing_line));

    EXPECT_FALSE(server.Send(connection.socket, "x", 1));
    EXPECT_THAT(log.Messages(), ElementsAre(readable_line, end_line, removing_line, no_context_line));
    EXPECT_LT(DurationOf([&] { server.MultiConnectionPoller(); }), milliseconds(250)) << "still polled";
    EXPECT_THAT(server.Terminated(), SizeIs(1));
}

TEST(CAsyncIO, EndedConnectionIsForgottenButNotClosed) {
    ListeningServer server;
    server.on_terminated = nullptr;
    Connection connection(server);
    connection.client.EndSending();
    ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));

    EXPECT_TRUE(IsOpen(connection.socket));
    EXPECT_FALSE(server.Send(connection.socket, "x", 1)) << "an open descriptor, but no connection of the server";
    EXPECT_LT(DurationOf([&] { server.MultiConnectionPoller(); }), milliseconds(250)) << "still polled";
    EXPECT_THAT(server.Terminated(), SizeIs(1));
    close(connection.socket);
    EXPECT_EQ("", connection.client.ReceiveAll());
}

TEST(CAsyncIO, EndedConnectionDoesNotKeepPassesFromWaitingForOthers) {
    for (const bool is_closed : {true, false}) {
        SCOPED_TRACE(is_closed);
        ListeningServer server;
        if (!is_closed) {
            server.on_terminated = nullptr;
        }
        const Connection idle(server);
        Connection ended(server);
        ended.client.EndSending();
        ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
        EXPECT_GE(DurationOf([&] { server.MultiConnectionPoller(); }), milliseconds(490));
        EXPECT_THAT(server.Terminated(), ElementsAre(ended.socket));
        if (!is_closed) {
            close(ended.socket);
        }
    }
}

TEST(CAsyncIO, DataBeforeTheEndIsDeliveredFirst) {
    ListeningServer server;
    Connection connection(server);
    connection.client.Send("last words");
    connection.client.Close();
    ASSERT_TRUE(HasToRead(connection.socket, 10));
    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), ElementsAre("last words"));
    EXPECT_THAT(server.Terminated(), IsEmpty()) << "in the same pass as the data";
    ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
    EXPECT_THAT(server.Notifications(), SizeIs(3));
}

TEST(CAsyncIO, PeerThatResetsIsTerminatedOnce) {
    ListeningServer server;
    Connection connection(server);
    connection.client.Reset();
    ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
    server.MultiConnectionPoller();
    EXPECT_THAT(server.Terminated(), ElementsAre(connection.socket));
    EXPECT_THAT(server.Received(), IsEmpty());
    EXPECT_FALSE(server.Send(connection.socket, "x", 1));
}

TEST(CAsyncIO, HalfClosedPeerCanStillBeAnsweredFromWithinOnTerminated) {
    ListeningServer server;
    bool was_sent = false;
    server.on_terminated = [&](int socket) {
        was_sent = server.Send(socket, "farewell", 8);
        close(socket);
    };
    Connection connection(server);
    connection.client.EndSending();
    ASSERT_TRUE(ServeUntil(server, [&] { return !server.Terminated().empty(); }));
    EXPECT_TRUE(was_sent);
    EXPECT_EQ("farewell", connection.client.ReceiveAll());
}

// A connection that is dissolved on this side is neither readable nor at its end: it only hangs up.
TEST(CAsyncIO, HangUpWithoutDataEndsTheConnection) {
    ListeningServer server;
    Connection connection(server);
    sockaddr unconnected = {};
    unconnected.sa_family = AF_UNSPEC;
    ASSERT_EQ(0, connect(connection.socket, &unconnected, sizeof unconnected));

    const LogCapture log;
    server.MultiConnectionPoller();
    EXPECT_THAT(log.Messages(), ElementsAre(hang_up_line, removing_line));
    EXPECT_THAT(server.Terminated(), ElementsAre(connection.socket));
    EXPECT_FALSE(server.Send(connection.socket, "x", 1));
}

TEST(CAsyncIO, ErrorConditionAloneCallsNothing) {
    ListeningServer server;
    Connection connection(server);
    // A datagram socket whose peer does not exist has an error pending, but nothing to read and no end.
    const int refused = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in nobody = {};
    nobody.sin_family = AF_INET;
    nobody.sin_port = htons(FindUnusedPort());
    nobody.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, connect(refused, reinterpret_cast<const sockaddr*>(&nobody), sizeof nobody));
    ASSERT_EQ(1, send(refused, "x", 1, 0));
    ASSERT_EQ(connection.socket, dup2(refused, connection.socket));
    close(refused);
    pollfd record = {connection.socket, POLLIN, 0};
    ASSERT_EQ(1, poll(&record, 1, 30000));
    ASSERT_EQ(POLLERR, record.revents);

    const LogCapture log;
    EXPECT_LT(DurationOf([&] { EXPECT_FALSE(server.MultiConnectionPoller()); }), milliseconds(250));
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_THAT(server.Notifications(), SizeIs(1)) << "more than its OnConnected";
}

TEST(CAsyncIO, ClosedDescriptorAloneCallsNothing) {
    ListeningServer server;
    Connection connection(server);
    const int other = dup(connection.socket);
    close(connection.socket);

    const LogCapture log;
    EXPECT_LT(DurationOf([&] { EXPECT_FALSE(server.MultiConnectionPoller()); }), milliseconds(250));
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_THAT(server.Notifications(), SizeIs(1)) << "more than its OnConnected";

    ASSERT_EQ(connection.socket, dup2(other, connection.socket));
    close(other);
}

}  // namespace

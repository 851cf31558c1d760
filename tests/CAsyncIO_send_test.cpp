// What Send takes, what it refuses, and that it never waits.

#include <TarnSocketIO/CAsyncIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <limits>
#include <string>

#include "tests/support/Bytes.h"
#include "tests/support/Duration.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ServerLog.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestServer.h"

namespace {

using std::chrono::milliseconds;
using TarnTest::Connection;
using TarnTest::DurationOf;
using TarnTest::ListeningServer;
using TarnTest::LogCapture;
using TarnTest::no_context_line;
using TarnTest::Pattern;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(CAsyncIO, SendReachesThePeerOfItsConnectionOnly) {
    ListeningServer server;
    Connection first(server);
    Connection second(server);
    const std::string pattern = Pattern(1000);
    EXPECT_TRUE(server.Send(second.socket, pattern.data(), 1000));
    EXPECT_TRUE(server.Send(first.socket, "first", 5));
    EXPECT_EQ(pattern, second.client.Receive(1000));
    EXPECT_EQ("first", first.client.Receive(5));
}

TEST(CAsyncIO, SendToAnythingButAConnectionIsRefused) {
    ListeningServer server;
    ListeningServer other;
    const Connection stranger(other);
    for (const int socket : {-1, stranger.socket, stranger.client.Socket(), server.GetListenerSocket(), 1 << 20}) {
        SCOPED_TRACE(socket);
        const LogCapture log;
        EXPECT_FALSE(server.Send(socket, "x", 1));
        EXPECT_THAT(log.Messages(), ElementsAre(no_context_line));
    }
}

TEST(CAsyncIO, SendOfNothingSucceedsAndSendsNothing) {
    ListeningServer server;
    Connection connection(server);
    const LogCapture log;
    EXPECT_TRUE(server.Send(connection.socket, "ignored", 0));
    EXPECT_TRUE(server.Send(connection.socket, nullptr, 0));
    EXPECT_TRUE(server.Send(connection.socket, "x", 1));
    EXPECT_EQ("x", connection.client.Receive(1));
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST(CAsyncIO, NegativeLengthIsRefused) {
    ListeningServer server;
    Connection connection(server);
    EXPECT_FALSE(server.Send(connection.socket, "x", -1));
    EXPECT_FALSE(server.Send(connection.socket, "x", std::numeric_limits<long>::min()));
    EXPECT_TRUE(server.Send(connection.socket, "y", 1));
    EXPECT_EQ("y", connection.client.Receive(1));
}

TEST(CAsyncIO, ShortSendIsASuccessAndAFullBufferAFailureWithoutWaiting) {
    ListeningServer server;
    Connection connection(server);
    const timeval five_seconds = {5, 0};  // a send that waits would come back then
    ASSERT_EQ(0, setsockopt(connection.socket, SOL_SOCKET, SO_SNDTIMEO, &five_seconds, sizeof five_seconds));
    const std::string pattern = Pattern(64u << 20);
    const long length = static_cast<long>(pattern.size());

    bool was_sent = false;
    EXPECT_LT(DurationOf([&] { was_sent = server.Send(connection.socket, pattern.data(), length); }),
              milliseconds(4500));
    EXPECT_TRUE(was_sent);

    int sent_again = 0;
    while (sent_again < 1000 && server.Send(connection.socket, pattern.data(), length)) {
        ++sent_again;
    }
    ASSERT_LT(sent_again, 1000) << "the buffer never filled up";
    EXPECT_LT(DurationOf([&] { server.Send(connection.socket, pattern.data(), length); }), milliseconds(4500));

    shutdown(connection.socket, SHUT_WR);
    const std::string received = connection.client.ReceiveAll();
    EXPECT_LT(received.size(), pattern.size()) << "nothing was cut";
    EXPECT_GT(received.size(), 0u);
    EXPECT_EQ(0, received.compare(0, 1000, pattern, 0, 1000));
}

TEST(CAsyncIO, SendToAVanishedPeerFailsWithoutASignal) {
    ListeningServer server;
    Connection connection(server);
    connection.client.Reset();
    pollfd record = {connection.socket, 0, 0};
    ASSERT_EQ(1, poll(&record, 1, 30000));

    sigset_t broken_pipe;
    sigset_t before;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    const auto disposition = std::signal(SIGPIPE, SIG_DFL);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &broken_pipe, &before));
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(server.Send(connection.socket, "x", 1));
    }
    const timespec at_once = {0, 0};
    EXPECT_EQ(-1, sigtimedwait(&broken_pipe, nullptr, &at_once)) << "SIGPIPE was raised";
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    std::signal(SIGPIPE, disposition);
}

}  // namespace

// The three ways to send.

#include <TarnSocketIO/ConnectionType.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ConnectionServer.h"
#include "tests/support/Eventually.h"
#include "tests/support/OutputLog.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestEndpoint.h"

namespace {

using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::BackgroundCall;
using TarnTest::ConnectionServer;
using TarnTest::Eventually;
using TarnTest::InChild;
using TarnTest::IsReadable;
using TarnTest::LoopbackSocket;
using TarnTest::OutputLog;
using TarnTest::OwnedDescriptor;
using TarnTest::TcpClient;
using TarnTest::TestEndpoint;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* succeeded_line = "CSocket::Send - send - succeeded";
constexpr const char* failed_line = "CSocket::Send - send - failed";

std::string FailedSendTo(const std::string& host, int error) {
    return "sendto (" + host + ") failed with errno = " + std::to_string(error) + " (" + std::strerror(error) + ")";
}

/// Calls `send` while the test holds the mutex. @return whether it waited for it; the result of the call in `result`.
template <class Send>
bool WaitsForMutex(pthread_mutex_t& mutex, Send send, bool& result) {
    pthread_mutex_lock(&mutex);
    BackgroundCall call(send);
    const bool has_waited = Eventually([&] { return call.Waits() || call.HasEnded(); }) && !call.HasEnded();
    pthread_mutex_unlock(&mutex);
    result = call.Result();
    return has_waited;
}

bool IsFree(pthread_mutex_t& mutex) {
    if (pthread_mutex_trylock(&mutex) != 0) {
        return false;
    }
    pthread_mutex_unlock(&mutex);
    return true;
}

// ---- to a destination

class CSocketSendTo : public testing::Test {
protected:
    CSocketSendTo() { sender.StartClient(); }

    /// What the peer has been sent next.
    std::string Next() const {
        std::array<char, 65536> buffer = {};
        if (!IsReadable(peer.Number())) {
            return "nothing";
        }
        const ssize_t length = recv(peer.Number(), buffer.data(), buffer.size(), 0);
        return std::string(buffer.data(), static_cast<std::size_t>(length));
    }

    const LoopbackSocket peer{SOCK_DGRAM};
    TestEndpoint sender{CONNECTION_UDP};
};

TEST_F(CSocketSendTo, ADestinationSendsOneDatagram) {
    EXPECT_TRUE(sender.Send("127.0.0.1", peer.Port(), "hello", 5));
    EXPECT_EQ("hello", Next());
    EXPECT_TRUE(sender.Send("127.0.0.1", peer.Port(), "\0\n%", 3));
    EXPECT_EQ(std::string("\0\n%", 3), Next());
}

TEST_F(CSocketSendTo, ADestinationSendsEmptyDatagramsToo) {
    EXPECT_TRUE(sender.Send("127.0.0.1", peer.Port(), "", 0));
    EXPECT_EQ("", Next());
}

TEST_F(CSocketSendTo, ADestinationLogsItAndTheOutcome) {
    const OutputLog log;
    EXPECT_TRUE(sender.Send("127.0.0.1", peer.Port(), "hello", 5));
    EXPECT_THAT(log.Lines(), ElementsAre("CSocket::Send - to 127.0.0.1", succeeded_line));
}

TEST_F(CSocketSendTo, AHostNameLooksItUp) {
    const OutputLog log;
    EXPECT_TRUE(sender.Send("localhost", peer.Port(), "hello", 5));
    EXPECT_EQ("hello", Next());
    EXPECT_THAT(log.Lines(), ElementsAre("CSocket::Send - to localhost", succeeded_line));
}

TEST_F(CSocketSendTo, AnUnknownHostFailsWithoutATry) {
    const OutputLog log;
    EXPECT_FALSE(sender.Send(std::string(64, 'x').c_str(), peer.Port(), "hello", 5));
    EXPECT_THAT(log.Lines(), ElementsAre(failed_line));
    EXPECT_TRUE(IsFree(sender.m_SenderMutex));
}

TEST_F(CSocketSendTo, ADestinationPrintsTheReasonOfAFailure) {
    const OutputLog log;
    EXPECT_FALSE(sender.Send("127.0.0.1", peer.Port(), std::string(65508, 'x').data(), 65508));
    EXPECT_THAT(log.Lines(),
                ElementsAre("CSocket::Send - to 127.0.0.1", FailedSendTo("127.0.0.1", EMSGSIZE), failed_line));
    EXPECT_TRUE(IsFree(sender.m_SenderMutex));
}

TEST_F(CSocketSendTo, ADestinationPrintsTheReasonWithTheLogSwitchedOff) {
    const TarnTest::OutputCapture output;
    EXPECT_FALSE(sender.Send("127.0.0.1", peer.Port(), std::string(65508, 'x').data(), 65508));
    EXPECT_EQ(FailedSendTo("127.0.0.1", EMSGSIZE) + "\n", output.Text());
}

TEST_F(CSocketSendTo, ADestinationWithTheLongestDatagramIsRight) {
    const std::string longest(65507, 'l');
    EXPECT_TRUE(sender.Send("127.0.0.1", peer.Port(), longest.data(), 65507));
    EXPECT_TRUE(longest == Next());
}

TEST_F(CSocketSendTo, ADestinationWithoutASenderFails) {
    TestEndpoint fresh(CONNECTION_UDP);
    const OutputLog log;
    EXPECT_FALSE(fresh.Send("127.0.0.1", peer.Port(), "hello", 5));
    const std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("CSocket::Send - to 127.0.0.1", lines[0]);
    EXPECT_THAT(lines[1], testing::StartsWith("sendto (127.0.0.1) failed with errno = "));
    EXPECT_EQ(failed_line, lines[2]);
}

TEST_F(CSocketSendTo, ADestinationDoesNotTouchDescriptorZero) {
    const LoopbackSocket bystander(SOCK_DGRAM);
    const TarnTest::StandardInputSetAside standard_input;
    const OwnedDescriptor zero(dup(bystander.Number()));
    ASSERT_EQ(0, zero.Number());
    TestEndpoint fresh(CONNECTION_UDP);
    const OutputLog log;
    EXPECT_FALSE(fresh.Send("127.0.0.1", peer.Port(), "hello", 5));
    EXPECT_FALSE(fresh.Send("hello", 5));
}

TEST_F(CSocketSendTo, NullOrEmptyIsThisHost) {
    for (const char* const host : {"", static_cast<const char*>(nullptr)}) {
        EXPECT_TRUE(sender.Send(host, peer.Port(), "home", 4));
        EXPECT_EQ("home", Next());
    }
}

TEST_F(CSocketSendTo, ADestinationWaitsForTheSendersMutex) {
    bool result = false;
    EXPECT_TRUE(WaitsForMutex(
        sender.m_SenderMutex, [&] { return sender.Send("127.0.0.1", peer.Port(), "hello", 5); }, result));
    EXPECT_TRUE(result);
    EXPECT_EQ("hello", Next());
    EXPECT_TRUE(IsFree(sender.m_SenderMutex));
}

TEST_F(CSocketSendTo, ADestinationAsOneOfADatagramTypeWorksToo) {
    TestEndpoint datagrams(CONNECTION_DATAGRAM);
    ASSERT_TRUE(datagrams.StartClient());
    EXPECT_TRUE(datagrams.Send("127.0.0.1", peer.Port(), "hello", 5));
    EXPECT_EQ("hello", Next());
}

// ---- on the connected sender

class CSocketSendOnConnection : public testing::Test {
protected:
    void Connect() {
        ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
        peer.emplace_back(accept4(listener.Number(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    int Peer() const { return peer.at(0).Number(); }

    const LoopbackSocket listener{SOCK_STREAM};
    TestEndpoint client{CONNECTION_STREAM};
    std::vector<OwnedDescriptor> peer;
};

TEST_F(CSocketSendOnConnection, SendsTheBytes) {
    Connect();
    const OutputLog log;
    EXPECT_TRUE(client.Send("hello", 5));
    EXPECT_THAT(log.LinesOfEndpoint(), IsEmpty());
    std::array<char, 6> buffer = {};
    EXPECT_EQ(5, recv(Peer(), buffer.data(), 5, MSG_WAITALL));
    EXPECT_STREQ("hello", buffer.data());
}

TEST_F(CSocketSendOnConnection, NothingIsSentTrue) {
    Connect();
    EXPECT_TRUE(client.Send("", 0));
}

TEST_F(CSocketSendOnConnection, WithoutASenderIsFalse) {
    EXPECT_FALSE(client.Send("hello", 5));
    EXPECT_TRUE(IsFree(client.m_SenderMutex));
}

TEST_F(CSocketSendOnConnection, NotConnectedIsFalse) {
    ASSERT_TRUE(client.StartClient());
    EXPECT_FALSE(client.Send("hello", 5));
    EXPECT_TRUE(IsFree(client.m_SenderMutex));
}

TEST_F(CSocketSendOnConnection, APartIsSuccessAndAFullBufferIsNotWaitedFor) {
    Connect();
    // More than both ends' buffers can ever take.
    const std::string much(64 << 20, 'm');
    EXPECT_TRUE(client.Send(much.data(), static_cast<long>(much.size())));
    // What has no room fails at once, when the kernel has moved what it still could to the peer's buffer.
    EXPECT_TRUE(Eventually([&] { return !client.Send(much.data(), static_cast<long>(much.size())); }));
}

TEST_F(CSocketSendOnConnection, ToAPeerThatIsGoneRaisesNoSignal) {
    Connect();
    InChild([&] {
        std::signal(SIGPIPE, SIG_DFL);
        ASSERT_EQ(0, shutdown(client.m_socSender, SHUT_WR));
        EXPECT_FALSE(client.Send("x", 1));
    });
}

TEST_F(CSocketSendOnConnection, WaitsForTheSendersMutex) {
    Connect();
    bool result = false;
    EXPECT_TRUE(WaitsForMutex(
        client.m_SenderMutex, [&] { return client.Send("hello", 5); }, result));
    EXPECT_TRUE(result);
    EXPECT_TRUE(IsFree(client.m_SenderMutex));
}

TEST_F(CSocketSendOnConnection, WorksForDatagramsToo) {
    const LoopbackSocket receiver(SOCK_DGRAM);
    TestEndpoint datagrams(CONNECTION_UDP);
    ASSERT_TRUE(datagrams.Connect("127.0.0.1", receiver.Port()));
    EXPECT_TRUE(datagrams.Send("hello", 5));
    EXPECT_TRUE(TarnTest::HasBytes(receiver.Number(), 5));
}

TEST_F(CSocketSendOnConnection, OfAStreamServerIsFalse) {
    ConnectionServer server;
    bool was_sent = true;
    server.on_connected = [&](int) {  // the acceptor sets no sender aside meanwhile
        server.StartClient();
        sockaddr_in address = listener.Address();
        static_cast<void>(!connect(server.m_socSender, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        was_sent = server.CSocket::Send("hello", 5);
    };
    const TcpClient visitor(server.Port());
    ASSERT_TRUE(Eventually([&] { return server.NotificationCounts().connected == 1; }));
    server.TerminateAll();
    EXPECT_FALSE(was_sent);
}

// ---- on one connection of a stream server

TEST(CSocketSendToClient, SendsOnItsConnection) {
    ConnectionServer server;
    TcpClient first(server.Port());
    TcpClient second(server.Port());
    ASSERT_TRUE(Eventually([&] { return server.Open().size() == 2; }));
    const std::vector<int> connections = server.Open();
    const OutputLog log;
    EXPECT_TRUE(server.CSocket::Send(connections[0], "hello", 5));
    EXPECT_TRUE(server.CSocket::Send(connections[1], "hello", 5));
    EXPECT_THAT(log.Lines(), Not(Contains(HasSubstr("Send"))));
    EXPECT_EQ("hello", first.Receive(5));
    EXPECT_EQ("hello", second.Receive(5));
}

TEST(CSocketSendToClient, OnNoConnectionOfTheServerIsFalse) {
    ConnectionServer server;
    const LoopbackSocket other(SOCK_DGRAM);
    const OutputLog log;
    EXPECT_FALSE(server.CSocket::Send(other.Number(), "hello", 5));
    EXPECT_THAT(log.Lines(), Contains("CAsyncIO::Send - failed to find context for socket"));
}

TEST(CSocketSendToClient, OfAnyOtherEndpointIsFalseAndSendsNothing) {
    const LoopbackSocket peer(SOCK_DGRAM);
    const OwnedDescriptor own(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = peer.Address();
    ASSERT_EQ(0, connect(own.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    for (const CONNECTION_TYPE type : {CONNECTION_STREAM, CONNECTION_UDP}) {
        TestEndpoint endpoint(type);
        const OutputLog log;
        EXPECT_FALSE(endpoint.CSocket::Send(own.Number(), "hello", 5));
        EXPECT_THAT(log.Lines(), IsEmpty()) << "the server base was asked";
        EXPECT_TRUE(IsFree(endpoint.m_SenderMutex));
    }
}

/// Accepts by hand, though it is no stream server.
class Accepting : public TestEndpoint {
public:
    Accepting() : TestEndpoint(CONNECTION_STREAM) { Initialise(0, nullptr); }
    ~Accepting() override {
        TerminateAll();
        close(connection);
    }
    using CAsyncIO::GetListenerSocket;
    int connection = -1;

protected:
    using TestEndpoint::OnConnected;
    void OnConnected(int socket) override { connection = socket; }
};

TEST(CSocketSendToClient, OfAnEndpointThatIsNoStreamServerIsFalseThoughItsBaseHasTheConnection) {
    Accepting endpoint;
    const TcpClient client(TarnTest::PortOf(endpoint.GetListenerSocket()));
    ASSERT_TRUE(endpoint.MultiConnectionAcceptor());
    EXPECT_FALSE(endpoint.CSocket::Send(endpoint.connection, "hello", 5));
    EXPECT_TRUE(endpoint.CAsyncIO::Send(endpoint.connection, "hello", 5));
}

}  // namespace

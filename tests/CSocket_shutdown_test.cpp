// The end of an endpoint: what is told, stopped, closed and freed, in which order, and what is left alone.

#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/ConnectionType.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/ConnectionServer.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/OutputLog.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestEndpoint.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_ICMP;
using TarnSocketIO::CONNECTION_PACKET;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnSocketIO::CSocket;
using TarnTest::attempts;
using TarnTest::BackgroundCall;
using TarnTest::ConnectionServer;
using TarnTest::CountOpenDescriptors;
using TarnTest::CountThreads;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::IsOpen;
using TarnTest::LoopbackSocket;
using TarnTest::OutputLog;
using TarnTest::OwnedDescriptor;
using TarnTest::SendDatagram;
using TarnTest::TcpClient;
using TarnTest::TestEndpoint;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

using Lines = std::vector<std::string>;

constexpr const char* disconnected_line = "CSocket::TerminateAll - Disconnect() - succeeded";
constexpr const char* not_disconnected_line = "CSocket::TerminateAll - Disconnect() - failed";
constexpr const char* acceptor_line = "CSocket::TerminateAll - stopping acceptor thread";
constexpr const char* receivers_line = "CSocket::TerminateAll - stopping receiver threads";
constexpr const char* stop_line = "CSocketThread::Stop - started";
constexpr const char* stopped_line = "CSocketThread::Stop - wait for thread sync - succeeded";
constexpr const char* destructor_line = "CSocket::~CSocket - called";
constexpr const char* ended_line = "CSocket::~CSocket - TerminateAll - succeeded";
constexpr const char* ended_before_line = "CSocket::~CSocket - TerminateAll - failed";

/// What the controlling thread logs: neither the workers' lines nor those of the server's base.
template <class Action>
Lines LinesOf(Action action) {
    const OutputLog log;
    action();
    Lines lines;
    for (const std::string& line : log.Lines()) {
        if (line.rfind("CSocket::", 0) == 0 || line.rfind("CSocketThread::Stop", 0) == 0) {
            lines.push_back(line);
        }
    }
    return lines;
}

/// A datagram server on the loopback interface.
class DatagramServer : public TestEndpoint {
public:
    explicit DatagramServer(int threads, CONNECTION_TYPE type = CONNECTION_UDP, int poll_timeout = 0)
        : TestEndpoint(type) {
        m_iPollTimeout = poll_timeout;
        InitialiseLocalSockets(0, nullptr, "127.0.0.1", threads);
    }
    ~DatagramServer() override { TerminateAll(); }
};

// ---- TerminateAll: what it tells, in which order

TEST(CSocketTerminateAll, OfADatagramServerDisconnectsAndThenStopsItsReceivers) {
    DatagramServer server(3);
    bool result = false;
    EXPECT_THAT(LinesOf([&] { result = server.TerminateAll(); }),
                ElementsAre(disconnected_line, receivers_line, stop_line, stopped_line, stop_line, stopped_line,
                            stop_line, stopped_line));
    EXPECT_TRUE(result);
    EXPECT_TRUE(server.m_bTerminated);
    EXPECT_THAT(server.m_pReceivers, Each(nullptr));
    EXPECT_TRUE(server.m_bReceiversRunning) << "the running flags are not cleared";
    EXPECT_FALSE(server.m_bServerStarted);
}

TEST(CSocketTerminateAll, OfAStreamServerStopsAcceptorAndReceivers) {
    ConnectionServer server(2);
    bool result = true;
    EXPECT_THAT(LinesOf([&] { result = server.TerminateAll(); }),
                ElementsAre(not_disconnected_line, acceptor_line, stop_line, stopped_line, receivers_line, stop_line,
                            stopped_line, stop_line, stopped_line));
    EXPECT_FALSE(result) << "there is nothing to disconnect";
}

TEST(CSocketTerminateAll, OfAStreamServerWithoutReceiversStopsItsAcceptor) {
    ConnectionServer server;
    EXPECT_THAT(LinesOf([&] { server.TerminateAll(); }),
                ElementsAre(not_disconnected_line, acceptor_line, stop_line, stopped_line));
}

TEST(CSocketTerminateAll, OfAnEndpointThatHasDoneNothingIsFalse) {
    TestEndpoint endpoint(CONNECTION_UDP);
    bool result = true;
    EXPECT_THAT(LinesOf([&] { result = endpoint.TerminateAll(); }), ElementsAre(not_disconnected_line));
    EXPECT_FALSE(result);
    EXPECT_TRUE(endpoint.m_bTerminated);
}

TEST(CSocketTerminateAll, OfASendingEndpointIsTrue) {
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    bool result = false;
    EXPECT_THAT(LinesOf([&] { result = endpoint.TerminateAll(); }), ElementsAre(disconnected_line));
    EXPECT_TRUE(result);
}

TEST(CSocketTerminateAll, OfASendOnlyOrThreadlessServerIsTrue) {
    DatagramServer threadless(0);
    EXPECT_TRUE(threadless.TerminateAll());
    TestEndpoint send_only(CONNECTION_UDP, true);
    send_only.InitialiseLocalSockets(0, nullptr, "127.0.0.1", 3);
    EXPECT_TRUE(send_only.TerminateAll());
}

TEST(CSocketTerminateAll, ASecondTimeIsFalseAndDoesNothing) {
    DatagramServer server(1);
    ASSERT_TRUE(server.TerminateAll());
    ASSERT_TRUE(server.StartClient());
    bool result = true;
    EXPECT_THAT(LinesOf([&] { result = server.TerminateAll(); }), IsEmpty());
    EXPECT_FALSE(result);
    EXPECT_TRUE(IsOpen(server.m_socSender));
}

TEST(CSocketTerminateAll, AfterDisconnectStillStopsTheReceivers) {
    DatagramServer server(1);
    ASSERT_TRUE(server.Disconnect());
    EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(server.TerminateAll()); }),
                ElementsAre(not_disconnected_line, receivers_line, stop_line, stopped_line));
    EXPECT_EQ(nullptr, server.m_pReceivers[0]);
}

TEST(CSocketTerminateAll, StopsTheListenerOfEveryType) {
    for (const CONNECTION_TYPE type : {CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_DATAGRAM}) {
        SCOPED_TRACE(type);
        const std::size_t descriptors = CountOpenDescriptors();
        TestEndpoint endpoint(type);
        endpoint.Initialise(0, nullptr);
        ASSERT_EQ(descriptors + 1, CountOpenDescriptors());
        endpoint.TerminateAll();
        EXPECT_EQ(descriptors, CountOpenDescriptors());
    }
}

TEST(CSocketTerminateAll, OfAStreamServerRefusesFurtherClients) {
    ConnectionServer server;
    const std::uint16_t port = server.Port();
    { const TcpClient client(port); }
    server.TerminateAll();
    EXPECT_THROW(TcpClient late(port), std::system_error);
}

TEST(CSocketTerminateAll, LeavesNothingThatIsNotified) {
    DatagramServer server(2);
    SendDatagram(server.ReceiverPort(), "in time");
    ASSERT_TRUE(Eventually([&] { return server.Events().size() == 1; }));
    const std::uint16_t port = server.ReceiverPort();
    server.TerminateAll();
    SendDatagram(port, "late");
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_THAT(server.Received(), ElementsAre("in time"));
}

TEST(CSocketTerminateAll, GivesAReceiverThatDoesNotReturnTenSeconds) {
    std::promise<void> gate;
    DatagramServer server(1);
    server.on_received = [&](char*, long) { gate.get_future().wait(); };
    SendDatagram(server.ReceiverPort(), "x");
    ASSERT_TRUE(Eventually([&] { return server.Events().size() == 1; }));
    const milliseconds duration = DurationOf([&] { EXPECT_TRUE(server.TerminateAll()); });
    EXPECT_GE(duration, seconds(9));
    EXPECT_LT(duration, seconds(30));
    gate.set_value();  // and the destructor waits for the thread
}

// ---- how long it takes

class CSocketTimeout : public testing::TestWithParam<int> {
protected:
    /// The fastest end of a few: noise only makes them slower.
    template <class Make>
    static milliseconds FastestEnd(Make make) {
        milliseconds fastest = milliseconds::max();
        for (int i = 0; i < attempts && fastest >= seconds(1); ++i) {
            const auto endpoint = make();
            fastest = std::min(fastest, DurationOf([&] { endpoint->TerminateAll(); }));
        }
        return fastest;
    }

    /// Gives threads the time to begin their wait, which nothing outside them tells of.
    static void AwaitPasses() { std::this_thread::sleep_for(milliseconds(30)); }
};

INSTANTIATE_TEST_SUITE_P(LongAndInfinite, CSocketTimeout, testing::Values(600000, -1),
                         [](const auto& timeout) { return timeout.param < 0 ? "Infinite" : "TenMinutes"; });

TEST_P(CSocketTimeout, OfADatagramServerDoesNotDelayItsEnd) {
    for (const CONNECTION_TYPE type : {CONNECTION_UDP, CONNECTION_DATAGRAM}) {
        for (const int threads : {1, 5}) {
            EXPECT_LT(FastestEnd([&] {
                          auto server = std::make_unique<DatagramServer>(threads, type, GetParam());
                          AwaitPasses();
                          return server;
                      }),
                      seconds(1));
        }
    }
}

TEST_P(CSocketTimeout, OfAReceiverThatStaysOpenDoesNotDelayItsEnd) {
    EXPECT_LT(FastestEnd([&] {
                  auto server = std::make_unique<DatagramServer>(2, CONNECTION_UDP, GetParam());
                  server->ConnectionAcceptor();  // sets the sender aside: there is nothing to disconnect
                  AwaitPasses();
                  return server;
              }),
              seconds(1));
}

TEST_P(CSocketTimeout, OfAFrameOrEchoReceiverDoesNotDelayItsEnd) {
    if (!TarnTest::CanOpen(AF_INET, SOCK_RAW, IPPROTO_ICMP)) {
        GTEST_SKIP() << "this process may not open raw sockets";
    }
    for (const CONNECTION_TYPE type : {CONNECTION_ICMP, CONNECTION_PACKET}) {
        EXPECT_LT(FastestEnd([&] {
                      auto server = std::make_unique<DatagramServer>(2, type, GetParam());
                      AwaitPasses();
                      return server;
                  }),
                  seconds(1));
    }
}

TEST_P(CSocketTimeout, OfAStreamClientDoesNotDelayItsEnd) {
    const LoopbackSocket listener(SOCK_STREAM);
    EXPECT_LT(FastestEnd([&] {
                  auto client = std::make_unique<TestEndpoint>(CONNECTION_STREAM);
                  client->m_iPollTimeout = GetParam();
                  EXPECT_TRUE(client->Connect("127.0.0.1", listener.Port()));
                  AwaitPasses();
                  return client;
              }),
              seconds(1));
}

TEST_P(CSocketTimeout, OfAReadOfTheSenderEndsWithDisconnect) {
    const LoopbackSocket listener(SOCK_STREAM);
    TestEndpoint client(CONNECTION_STREAM);
    client.m_iPollTimeout = GetParam();
    ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    std::vector<char> buffer(131070);
    long length = 0;
    BackgroundCall reading([&] { return client.ReceiveData(buffer.data(), length, nullptr, true); });
    ASSERT_TRUE(Eventually([&] { return reading.Waits(); }));
    EXPECT_TRUE(client.Disconnect());
    EXPECT_TRUE(Eventually([&] { return reading.HasEnded(); }));
}

// ---- destruction

TEST(CSocketDestructor, EndsTheThreadsOfAnEndpointThatWasNotEnded) {
    std::optional<CSocket> endpoint(std::in_place, CONNECTION_UDP, false, false);
    endpoint->InitialiseLocalSockets(0, nullptr, "127.0.0.1", 3);
    const std::size_t threads = CountThreads();
    endpoint.reset();
    EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads - 3; }));
}

TEST(CSocketDestructor, LogsItsStepsInOrder) {
    std::optional<CSocket> endpoint(std::in_place, CONNECTION_UDP, false, false);
    endpoint->InitialiseLocalSockets(0, nullptr, "127.0.0.1", 1);
    EXPECT_THAT(LinesOf([&] { endpoint.reset(); }),
                ElementsAre(destructor_line, disconnected_line, receivers_line, stop_line, stopped_line, ended_line));
}

TEST(CSocketDestructor, OfAnEndedEndpointEndsNothing) {
    std::optional<CSocket> endpoint(std::in_place, CONNECTION_UDP, false, false);
    endpoint->StartClient();
    endpoint->TerminateAll();
    EXPECT_THAT(LinesOf([&] { endpoint.reset(); }), ElementsAre(destructor_line, ended_before_line));
}

TEST(CSocketDestructor, ClosesWhatTheAcceptorHasSetAside) {
    const std::size_t descriptors = CountOpenDescriptors();
    {
        ConnectionServer server;
        std::atomic<int> sender = 0;
        server.on_connected = [&](int) {
            server.StartClient();
            sender = server.m_socSender.load();
        };
        const TcpClient client(server.Port());
        ASSERT_TRUE(Eventually([&] { return sender > 0 && server.m_socSender == 0; }));
        server.TerminateAll();
        EXPECT_EQ(0, server.m_socSender);
        EXPECT_TRUE(IsOpen(sender));
    }
    EXPECT_EQ(descriptors, CountOpenDescriptors());
}

TEST(CSocketDestructor, LeavesNothingBehindOfHundredsOfEndpoints) {
    const LoopbackSocket listener(SOCK_STREAM);
    { const DatagramServer first(1); }  // brings the sanitizer's helper with it
    const std::size_t descriptors = CountOpenDescriptors();
    const std::size_t threads = CountThreads();
    for (int i = 0; i < 40; ++i) {
        { const DatagramServer server(i % 6, i % 2 == 0 ? CONNECTION_UDP : CONNECTION_DATAGRAM); }
        { const ConnectionServer server(i % 3); }
        {
            TestEndpoint client(CONNECTION_STREAM);
            EXPECT_TRUE(client.Connect("127.0.0.1", listener.Port()));
            const OwnedDescriptor accepted(accept4(listener.Number(), nullptr, nullptr, SOCK_CLOEXEC));
            client.Connect("127.0.0.1", listener.Port());
            const OwnedDescriptor second(accept4(listener.Number(), nullptr, nullptr, SOCK_CLOEXEC));
            client.InitialiseReceiver();
        }
        { const TestEndpoint unused(static_cast<CONNECTION_TYPE>(i % 5)); }
        ASSERT_EQ(descriptors, CountOpenDescriptors());
    }
    EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads; }));
}

TEST(CSocketDestructor, EndsAnEndpointThatWasDisconnectedByItsOwnNotification) {
    DatagramServer server(2);
    bool result = false;
    server.on_received = [&](char*, long) { result = server.Disconnect(); };
    SendDatagram(server.ReceiverPort(), "end");
    ASSERT_TRUE(Eventually([&] { return server.m_socSender == 0; }));
    EXPECT_FALSE(server.TerminateAll()) << "there is no sender any more";
    EXPECT_TRUE(result);
}

}  // namespace

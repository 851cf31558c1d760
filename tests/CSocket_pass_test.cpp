// Receive passes, made on the test's own thread: how often they receive, and what they do with what they get.

#include <TarnSocketIO/ConnectionType.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Bytes.h"
#include "tests/support/ConnectionServer.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestEndpoint.h"

namespace {

using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_PACKET;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::BackgroundCall;
using TarnTest::CanOpen;
using TarnTest::ConnectionServer;
using TarnTest::EndpointEvent;
using TarnTest::Eventually;
using TarnTest::HasBytes;
using TarnTest::IsReadable;
using TarnTest::LogCapture;
using TarnTest::LoopbackSocket;
using TarnTest::OwnedDescriptor;
using TarnTest::Pattern;
using TarnTest::SendDatagram;
using TarnTest::TcpClient;
using TarnTest::TestEndpoint;
using testing::ElementsAre;
using testing::IsEmpty;

using Kind = EndpointEvent::Kind;

constexpr const char* events_line = "CSocket::DataReceiver - received POLLIN or POLLPRI events";
constexpr const char* threw_line = "CSocket::DataReceiver - OnReceivedData threw exception!";

/// An endpoint with a receiver socket whose passes the test makes.
class Endpoint : public TestEndpoint {
public:
    explicit Endpoint(CONNECTION_TYPE type = CONNECTION_UDP, bool timestamp = false)
        : TestEndpoint(type, false, timestamp) {
        InitialiseReceiver();
    }
    ~Endpoint() override { TerminateAll(); }

    /// Sends it a datagram, and waits until the receiver has something.
    void Get(const std::string& data) const {
        SendDatagram(ReceiverPort(), data);
        ASSERT_TRUE(IsReadable(m_socReceiver));
    }

    void Pass() { DataReceiver(0); }

    bool IsReceiverMutexFree() {
        if (pthread_mutex_trylock(&m_ReceiverMutex) != 0) {
            return false;
        }
        pthread_mutex_unlock(&m_ReceiverMutex);
        return true;
    }
};

// ---- how often

struct Receives {
    int per_pass;
    std::size_t made;
};

class CSocketPassOf : public testing::TestWithParam<Receives> {};

INSTANTIATE_TEST_SUITE_P(AtMost, CSocketPassOf,
                         testing::Values(Receives{1, 1}, Receives{2, 1}, Receives{3, 2}, Receives{4, 3}, Receives{5, 4},
                                         Receives{std::numeric_limits<int>::max(), 8}, Receives{0, 8}, Receives{-1, 8},
                                         Receives{std::numeric_limits<int>::min(), 8}),
                         [](const auto& values) {
                             const int n = values.param.per_pass;
                             return n < 0 ? "Minus" + std::to_string(-(n + 1)) + "And1" : std::to_string(n);
                         });

TEST_P(CSocketPassOf, ReceivesAsOftenAsIsSet) {
    Endpoint endpoint;
    endpoint.m_iReceivesPerPass = GetParam().per_pass;
    for (char data = '1'; data <= '8'; ++data) {
        endpoint.Get(std::string(1, data));
    }
    endpoint.m_iPollTimeout = 200;  // bridges what the kernel still has on its way
    endpoint.Pass();
    EXPECT_EQ(GetParam().made, endpoint.Received().size());
    EXPECT_EQ(std::string(1, '1'), endpoint.Received().at(0));
    EXPECT_EQ(std::to_string(GetParam().made), endpoint.Received().back());
}

TEST_P(CSocketPassOf, EndsWhenThereIsNothing) {
    Endpoint endpoint;
    endpoint.m_iReceivesPerPass = GetParam().per_pass;
    const LogCapture log;
    endpoint.Pass();
    EXPECT_THAT(endpoint.Events(), IsEmpty());
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_TRUE(endpoint.IsReceiverMutexFree());
}

TEST(CSocketPass, GoesOnWhereTheOneBeforeEnded) {
    Endpoint endpoint;
    endpoint.m_iReceivesPerPass = 3;
    for (const char* const data : {"1", "2", "3", "4", "5"}) {
        endpoint.Get(data);
    }
    endpoint.Pass();
    EXPECT_THAT(endpoint.Received(), ElementsAre("1", "2"));
    endpoint.Pass();
    EXPECT_THAT(endpoint.Received(), ElementsAre("1", "2", "3", "4"));
    endpoint.Pass();
    EXPECT_THAT(endpoint.Received(), ElementsAre("1", "2", "3", "4", "5"));
}

TEST(CSocketPass, LooksAtNothingOfItsArgument) {
    Endpoint endpoint;
    for (const unsigned long argument : {0ul, 1ul, ~0ul}) {
        endpoint.Get("x");
        endpoint.DataReceiver(argument);
    }
    EXPECT_THAT(endpoint.Received(), ElementsAre("x", "x", "x"));
}

// ---- the forms

TEST(CSocketPass, DeliversDataInThePlainForm) {
    Endpoint endpoint;
    endpoint.Get("hello");
    const LogCapture log;
    endpoint.Pass();
    ASSERT_EQ(1u, endpoint.Events().size());
    EXPECT_EQ(Kind::received, endpoint.Events()[0].kind);
    EXPECT_EQ("hello", endpoint.Events()[0].data);
    EXPECT_EQ(std::this_thread::get_id(), endpoint.Events()[0].thread);
    EXPECT_THAT(log.Messages(), ElementsAre(events_line));
}

TEST(CSocketPass, DeliversDataWithTheTimeOfTheRead) {
    Endpoint endpoint(CONNECTION_UDP, true);
    endpoint.Get("hello");
    timeval before = {};
    timeval after = {};
    gettimeofday(&before, nullptr);
    endpoint.Pass();
    gettimeofday(&after, nullptr);
    ASSERT_EQ(1u, endpoint.Events().size());
    const EndpointEvent event = endpoint.Events()[0];
    EXPECT_EQ(Kind::received_stamped, event.kind);
    EXPECT_EQ("hello", event.data);
    EXPECT_FALSE(timercmp(&event.time, &before, <));
    EXPECT_FALSE(timercmp(&event.time, &after, >));
    EXPECT_FALSE(timercmp(&event.time, &endpoint.m_tvReceived, !=));
}

TEST(CSocketPass, DeliversDataWithItsSource) {
    Endpoint endpoint;
    endpoint.m_bReportSource = true;
    endpoint.Get("hello");
    endpoint.Pass();
    ASSERT_EQ(1u, endpoint.Events().size());
    EXPECT_EQ(Kind::received_from, endpoint.Events()[0].kind);
    EXPECT_EQ("hello", endpoint.Events()[0].data);
    EXPECT_EQ("127.0.0.1", endpoint.Events()[0].from);
}

TEST(CSocketPass, TellsSourcesApart) {
    Endpoint endpoint;
    endpoint.m_bReportSource = true;
    const OwnedDescriptor other(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(0x7f010203);
    ASSERT_EQ(0, bind(other.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    address.sin_port = htons(endpoint.ReceiverPort());
    ASSERT_EQ(1, sendto(other.Number(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    endpoint.Pass();
    EXPECT_EQ("127.1.2.3", endpoint.Events().at(0).from);
}

TEST(CSocketPass, DeliversTheTimeAndNotTheSourceWhereBothAreAskedFor) {
    Endpoint endpoint(CONNECTION_DATAGRAM, true);
    endpoint.m_bReportSource = true;
    endpoint.Get("hello");
    endpoint.Pass();
    ASSERT_EQ(1u, endpoint.Events().size());
    EXPECT_EQ(Kind::received_stamped, endpoint.Events()[0].kind);
}

TEST(CSocketPass, NeverDeliversTheSourceOfAFrame) {
    if (!CanOpen(PF_PACKET, SOCK_RAW, htons(0x0800))) {
        GTEST_SKIP() << "this process may not open raw sockets";
    }
    Endpoint endpoint(CONNECTION_PACKET);
    endpoint.m_bReportSource = true;
    const LoopbackSocket target(SOCK_DGRAM);
    SendDatagram(target.Port(), "a datagram to find in its frame");
    const auto has_come = [&] {
        endpoint.Pass();
        for (const std::string& frame : endpoint.Received()) {
            if (frame.find("a datagram to find in its frame") != std::string::npos) {
                return true;
            }
        }
        return false;
    };
    EXPECT_TRUE(Eventually(has_come));
    EXPECT_EQ(0u, endpoint.Count(Kind::received_from));
    EXPECT_EQ(endpoint.Events().size(), endpoint.Count(Kind::received));
}

// ---- the data

TEST(CSocketPass, TerminatesWhatItDelivers) {
    Endpoint endpoint;
    endpoint.m_iReceivesPerPass = 0;
    endpoint.Get("a long one first");
    endpoint.Get("short");
    endpoint.Get(std::string("\0inside", 7));
    endpoint.m_iPollTimeout = 200;
    endpoint.Pass();
    ASSERT_EQ(3u, endpoint.Events().size());
    for (const EndpointEvent& event : endpoint.Events()) {
        EXPECT_TRUE(event.is_terminated) << event.data;
    }
    EXPECT_EQ(std::string("\0inside", 7), endpoint.Events()[2].data);
}

TEST(CSocketPass, DeliversTheLongestDatagramWhole) {
    Endpoint endpoint;
    const std::string longest = Pattern(65507);
    endpoint.Get(longest);
    endpoint.Pass();
    ASSERT_EQ(1u, endpoint.Received().size());
    EXPECT_TRUE(longest == endpoint.Received()[0]);
    EXPECT_TRUE(endpoint.Events()[0].is_terminated);
}

TEST(CSocketPass, TellsOfAnEmptyDatagramAsAnEnd) {
    Endpoint endpoint;
    endpoint.Get("");
    endpoint.Pass();
    ASSERT_EQ(1u, endpoint.Events().size());
    EXPECT_EQ(Kind::terminated, endpoint.Events()[0].kind);
}

TEST(CSocketPass, GoesOnBehindAnEmptyDatagram) {
    Endpoint endpoint;
    endpoint.m_iReceivesPerPass = 0;
    for (const char* const data : {"before", "", "behind"}) {
        endpoint.Get(data);
    }
    endpoint.m_iPollTimeout = 200;
    endpoint.Pass();
    EXPECT_THAT(endpoint.Received(), ElementsAre("before", "behind"));
    ASSERT_EQ(3u, endpoint.Events().size());
    EXPECT_EQ(Kind::terminated, endpoint.Events()[1].kind);
}

TEST(CSocketPass, OfAStreamReceiverDeliversDataAndThenItsEnd) {
    const LoopbackSocket listener(SOCK_STREAM);
    Endpoint endpoint(CONNECTION_STREAM);
    // The application's own doing: the library connects senders.
    sockaddr_in address = listener.Address();
    ASSERT_EQ(0, connect(endpoint.m_socReceiver, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    OwnedDescriptor peer(accept4(listener.Number(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_EQ(5, send(peer.Number(), "hello", 5, MSG_NOSIGNAL));
    ASSERT_TRUE(HasBytes(endpoint.m_socReceiver, 5));
    endpoint.Pass();
    EXPECT_THAT(endpoint.Received(), ElementsAre("hello"));
    EXPECT_EQ(0u, endpoint.Count(Kind::terminated));
    peer.Close();
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    endpoint.Pass();
    EXPECT_EQ(1u, endpoint.Count(Kind::terminated));
    endpoint.Pass();
    EXPECT_EQ(2u, endpoint.Count(Kind::terminated)) << "each pass finds the end again";
}

TEST(CSocketPass, OfAnUnconnectedStreamReceiverFindsNothing) {
    Endpoint endpoint(CONNECTION_STREAM);
    endpoint.m_iReceivesPerPass = 0;
    endpoint.Pass();
    EXPECT_THAT(endpoint.Events(), IsEmpty());
}

// ---- exceptions

TEST(CSocketPass, LogsExceptionsOfEveryFormAndGoesOn) {
    for (const bool timestamp : {false, true}) {
        for (const bool source : {false, true}) {
            Endpoint endpoint(CONNECTION_UDP, timestamp);
            endpoint.m_bReportSource = source;
            endpoint.m_iReceivesPerPass = 4;
            endpoint.on_received = [](char* data, long) {
                if (*data == '1') {
                    throw std::runtime_error("not today");
                }
                if (*data == '2') {
                    throw 2;
                }
            };
            for (const char* const data : {"1", "2", "3"}) {
                endpoint.Get(data);
            }
            endpoint.m_iPollTimeout = 200;
            const LogCapture log;
            endpoint.Pass();
            EXPECT_THAT(endpoint.Received(), ElementsAre("1", "2", "3"));
            EXPECT_THAT(log.Messages(), ElementsAre(events_line, threw_line, events_line, threw_line, events_line));
            EXPECT_TRUE(endpoint.IsReceiverMutexFree());
        }
    }
}

TEST(CSocketPass, IsLeftByAnExceptionOfOnTerminated) {
    Endpoint endpoint;
    endpoint.m_iReceivesPerPass = 0;
    endpoint.on_terminated = [] { throw std::runtime_error("not today"); };
    endpoint.Get("");
    endpoint.Get("behind");
    const LogCapture log;
    EXPECT_THROW(endpoint.Pass(), std::runtime_error);
    EXPECT_EQ(0u, log.Count(threw_line));
    EXPECT_THAT(endpoint.Received(), IsEmpty());
    EXPECT_TRUE(endpoint.IsReceiverMutexFree());
    endpoint.Pass();
    EXPECT_THAT(endpoint.Received(), ElementsAre("behind"));
}

TEST(CSocketPass, OfAThreadIsFollowedByTheNextAfterAnExceptionOfOnTerminated) {
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.on_terminated = [] { throw std::runtime_error("not today"); };
    const LogCapture log;
    endpoint.InitialiseLocalSockets(0, nullptr, "127.0.0.1", 2);
    SendDatagram(endpoint.ReceiverPort(), "");
    SendDatagram(endpoint.ReceiverPort(), "behind");
    EXPECT_TRUE(Eventually([&] { return endpoint.Received().size() == 1; }));
    // The other thread may deliver what is behind before this one has told of its exception.
    EXPECT_TRUE(Eventually([&] { return log.Count("CSocketThread::ThreadProc - Do threw exception!") == 1; }));
    EXPECT_EQ(1u, endpoint.Count(Kind::terminated));
}

// ---- the lock

TEST(CSocketPass, HoldsTheReceiversMutexInItsNotifications) {
    Endpoint endpoint;
    std::vector<bool> was_free;
    endpoint.on_received = [&](char*, long) { was_free.push_back(endpoint.IsReceiverMutexFree()); };
    endpoint.on_terminated = [&] { was_free.push_back(endpoint.IsReceiverMutexFree()); };
    endpoint.Get("x");
    endpoint.Pass();
    endpoint.Get("");
    endpoint.Pass();
    EXPECT_THAT(was_free, ElementsAre(false, false));
    EXPECT_TRUE(endpoint.IsReceiverMutexFree());
}

TEST(CSocketPass, WaitsForTheOneUnderWay) {
    Endpoint endpoint;
    endpoint.Get("x");
    pthread_mutex_lock(&endpoint.m_ReceiverMutex);
    BackgroundCall pass([&] {
        endpoint.Pass();
        return true;
    });
    EXPECT_TRUE(Eventually([&] { return pass.Waits(); }));
    EXPECT_FALSE(pass.HasEnded());
    EXPECT_THAT(endpoint.Received(), IsEmpty());
    pthread_mutex_unlock(&endpoint.m_ReceiverMutex);
    EXPECT_TRUE(pass.Result());
    EXPECT_THAT(endpoint.Received(), ElementsAre("x"));
}

TEST(CSocketPass, LetsItsNotificationsSend) {
    const LoopbackSocket peer(SOCK_DGRAM);
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.StartClient());
    endpoint.on_received = [&](char* data, long length) { endpoint.Send("127.0.0.1", peer.Port(), data, length); };
    endpoint.Get("echo");
    endpoint.Pass();
    EXPECT_TRUE(HasBytes(peer.Number(), 4));
}

// ---- stream servers

TEST(CSocketPass, OfAStreamServerServesItsConnections) {
    ConnectionServer server;
    TcpClient client(server.Port());
    ASSERT_TRUE(Eventually([&] { return server.Open().size() == 1; }));
    std::string received;
    server.on_received = [&](int, char* data, long length) { received.append(data, static_cast<std::size_t>(length)); };
    client.Send("hello");
    ASSERT_TRUE(HasBytes(server.Open()[0], 5));
    const LogCapture log;
    server.DataReceiver(0);
    EXPECT_EQ("hello", received);
    EXPECT_EQ(0u, log.Count(events_line)) << "no receiver socket was looked at";
}

}  // namespace

// What happens when an endpoint is opened, joined or started once more, or after its end.

#include <TarnSocketIO/ConnectionType.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "tests/support/Datagrams.h"
#include "tests/support/Eventually.h"
#include "tests/support/OutputCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

namespace {

using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_UDP;
using TarnSocketIO::CSocket;
using TarnTest::CountOpenDescriptors;
using TarnTest::CountThreads;
using TarnTest::Eventually;
using TarnTest::IsOpen;
using TarnTest::OutputCapture;
using TarnTest::SendDatagram;
using TarnTest::TestEndpoint;

constexpr const char* loopback = "127.0.0.1";
constexpr const char* group = "239.192.1.2";

bool LoopsBack(int socket) {
    int on = -1;
    socklen_t length = sizeof on;
    EXPECT_EQ(0, getsockopt(socket, IPPROTO_IP, IP_MULTICAST_LOOP, &on, &length));
    return on != 0;
}

TEST(CSocketAgain, OpenedItsThreadsStayAndReadTheNewReceiver) {
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 2);
    const auto* const first = endpoint.m_pReceivers[0];
    const auto* const second = endpoint.m_pReceivers[1];
    const std::uint16_t old_port = endpoint.ReceiverPort();

    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 3);
    EXPECT_EQ(first, endpoint.m_pReceivers[0]);
    EXPECT_EQ(second, endpoint.m_pReceivers[1]);
    EXPECT_NE(nullptr, endpoint.m_pReceivers[2]);
    EXPECT_EQ(3, endpoint.m_nReceiverThreads);
    ASSERT_NE(old_port, endpoint.ReceiverPort());
    SendDatagram(endpoint.ReceiverPort(), "to the new one");
    EXPECT_TRUE(Eventually([&] { return endpoint.Received().size() == 1; }));
}

TEST(CSocketAgain, OpenedItsEarlierSocketsAreClosedWithIt) {
    const std::size_t before = CountOpenDescriptors();
    const std::size_t threads = CountThreads();
    {
        TestEndpoint endpoint(CONNECTION_UDP);
        for (int i = 0; i < 5; ++i) {
            endpoint.InitialiseLocalSockets(0, nullptr, loopback, i);
        }
        EXPECT_EQ(before + 10, CountOpenDescriptors());
    }
    EXPECT_EQ(before, CountOpenDescriptors());
    EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads + 1; }));
}

TEST(CSocketAgain, OpenedWithFewerThreadsAllOfThemAreStopped) {
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 4);
    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 1);
    EXPECT_TRUE(endpoint.TerminateAll());
    for (const auto* const receiver : endpoint.m_pReceivers) {
        EXPECT_EQ(nullptr, receiver);
    }
}

TEST(CSocketAgain, OpenedAfterItsEndItStartsNoThreads) {
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 1);
    EXPECT_TRUE(endpoint.TerminateAll());
    const std::size_t threads = CountThreads();
    EXPECT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, loopback, 2));
    EXPECT_FALSE(endpoint.m_bReceiversRunning);
    EXPECT_LE(CountThreads(), threads);
    EXPECT_TRUE(endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4)) << "it can still send";
}

TEST(CSocketAgain, StartedAfterItsEndItRunsNoAcceptor) {
    TestEndpoint endpoint(CONNECTION_STREAM);
    EXPECT_FALSE(endpoint.TerminateAll());
    EXPECT_FALSE(endpoint.StartServer(0, nullptr, nullptr, 0));
    EXPECT_FALSE(endpoint.m_bAcceptorRunning);
    EXPECT_FALSE(endpoint.IsRunning());
}

/// Its acceptor thread is started by hand, behind the endpoint's back.
class HandStarted : public CSocket {
public:
    explicit HandStarted(std::atomic<int>& calls) : CSocket(CONNECTION_UDP, true, false), m_calls(calls) {}
    ~HandStarted() override {
        // The virtual operations of this class end here, and so must their calls.
        while (IsRunning() && !StopAcceptor()) {
        }
    }
    void ConnectionAcceptor() override {
        CSocket::ConnectionAcceptor();
        ++m_calls;
    }

private:
    std::atomic<int>& m_calls;
};

TEST(CSocketAgain, AnAcceptorThatWasStartedByHandCanBeStoppedByHand) {
    std::atomic<int> calls{0};
    HandStarted endpoint(calls);
    ASSERT_TRUE(endpoint.RunAcceptor());
    ASSERT_TRUE(Eventually([&] { return calls > 1; }));
    EXPECT_TRUE(endpoint.StopAcceptor());
    const int at_the_end = calls;
    EXPECT_FALSE(endpoint.IsRunning());
    EXPECT_EQ(at_the_end, calls);
}

TEST(CSocketAgain, AnAcceptorThatWasStartedByHandEndsWithItsEndpoint) {
    const std::size_t threads = CountThreads();
    {
        CSocket endpoint(CONNECTION_UDP, true, false);
        ASSERT_TRUE(endpoint.RunAcceptor());
    }
    EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads + 1; }));
}

TEST(CSocketAgain, ASenderThatIsMadeAfterAJoinDoesNotLoopBackEither) {
    const OutputCapture output;
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 0);
    EXPECT_TRUE(LoopsBack(endpoint.m_socSender));
    ASSERT_TRUE(endpoint.AddToGroup(group));
    EXPECT_FALSE(LoopsBack(endpoint.m_socSender));
    EXPECT_FALSE(LoopsBack(endpoint.m_socReceiver));
    ASSERT_TRUE(endpoint.StartClient());
    EXPECT_FALSE(LoopsBack(endpoint.m_socSender));
}

TEST(CSocketAgain, ASenderOfAnEndpointThatHasNotJoinedLoopsBack) {
    const OutputCapture output;
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 0);
    EXPECT_FALSE(endpoint.AddToGroup("10.0.0.1"));
    ASSERT_TRUE(endpoint.StartClient());
    EXPECT_TRUE(LoopsBack(endpoint.m_socSender));
}

TEST(CSocketAgain, MoreSocketsThanAnyListExpectsAreClosedWithIt) {
    const std::size_t before = CountOpenDescriptors();
    {
        TestEndpoint endpoint(CONNECTION_UDP);
        std::array<int, 100> senders{};
        for (int& sender : senders) {
            ASSERT_TRUE(endpoint.StartClient());
            sender = endpoint.m_socSender;
        }
        for (const int sender : senders) {
            EXPECT_TRUE(IsOpen(sender));
        }
    }
    EXPECT_EQ(before, CountOpenDescriptors());
}

}  // namespace

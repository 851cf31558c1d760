// What an endpoint does without memory, and without threads.

#include <TarnSocketIO/CSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/ConnectionServer.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"
#include "tests/support/Resources.h"
#include "tests/support/RuntimeCalls.h"
#include "tests/support/SocketState.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestEndpoint.h"
#include "tests/support/Worker.h"

namespace {

using std::chrono::seconds;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_UDP;
using TarnSocketIO::CSocket;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::ConsoleMessagesOf;
using TarnTest::CountBlocks;
using TarnTest::CountOpenDescriptors;
using TarnTest::CountThreads;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::FailingCalls;
using TarnTest::ForwardLookup;
using TarnTest::IsReadable;
using TarnTest::LogCapture;
using TarnTest::OutputOf;
using TarnTest::PortOf;
using TarnTest::SendDatagram;
using TarnTest::TcpClient;
using TarnTest::TestEndpoint;
using TarnTest::ThreadsMade;
using testing::Each;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::NotNull;

constexpr const char* loopback = "127.0.0.1";
constexpr const char* group = "239.192.1.2";
constexpr int always = std::numeric_limits<int>::max();

/// An endpoint whose notifications allocate nothing.
class FrugalEndpoint final : public CSocket {
public:
    FrugalEndpoint() : CSocket(CONNECTION_UDP, false, false) {}
    ~FrugalEndpoint() override { TerminateAll(); }

    std::uint16_t ReceiverPort() const { return PortOf(m_socReceiver); }
    int Socket() const { return m_socReceiver; }
    int Received() const { return m_received; }

protected:
    using CSocket::OnReceivedData;
    void OnReceivedData(char*, long) override { ++m_received; }

private:
    std::atomic<int> m_received{0};
};

}  // namespace

namespace WithoutMemory {

/// The same of a stream server; it has the name of all classes that are made with the server constructor.
class ConnectionServer final : public CSocket {
public:
    // Neither inlined nor local to this file: the thread sanitizer is told of it by its name.
    [[gnu::noinline]] ConnectionServer() : CSocket(0, CONNECTION_STREAM, nullptr, false, false, nullptr, 0) {}
    ~ConnectionServer() override { TerminateAll(); }

    std::uint16_t Port() const { return PortOf(GetListenerSocket()); }
    int Received() const { return m_received; }
    int Terminated() const { return m_terminated; }

protected:
    using CSocket::OnConnected;
    using CSocket::OnReceivedData;
    using CSocket::OnTerminated;
    void OnConnected(int) override {}
    void OnReceivedData(int, char*, long length) override { m_received += static_cast<int>(length); }
    void OnTerminated(int socket) override {
        close(socket);
        ++m_terminated;
    }

private:
    std::atomic<int> m_received{0};
    std::atomic<int> m_terminated{0};
};

}  // namespace WithoutMemory

namespace {

using WithoutMemory::ConnectionServer;

/// What a process has that must be given back.
struct Possessions {
    std::size_t descriptors = CountOpenDescriptors();
    std::size_t threads = CountThreads();
    int blocks = CountBlocks();
};

/// Whether all that was gained since is gone; the last of a thread may go a moment after its endpoint.
bool IsAllGivenBack(const Possessions& before) {
    return Eventually([&] {
        return CountBlocks() <= before.blocks && CountThreads() <= before.threads &&
               CountOpenDescriptors() <= before.descriptors;
    });
}

template <class Action>
bool Throws(Action action) {
    try {
        action();
        return false;
    } catch (...) {
        return true;
    }
}

/// What an endpoint that sends to itself goes through, unless an order has made that impossible.
void LiveAsADatagramServer(const FailingCalls& order) {
    FrugalEndpoint endpoint;
    endpoint.InitialiseLocalSockets(0, group, loopback, 2);
    endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4);
    endpoint.AddToGroup("239.192.1.3");
    endpoint.StartClient();
    endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4);
    EXPECT_TRUE(Eventually([&] { return endpoint.Received() >= 2 || order.Failed() != 0; }));
    endpoint.RepairReceiverSocket();
    endpoint.TerminateAll();
}

void LiveAsAStreamServer(const FailingCalls& order) {
    ConnectionServer server;
    server.InitialiseLocalSockets(0, nullptr, loopback, 2);
    if (const std::uint16_t port = server.Port(); port != 0 && order.Failed() == 0) {
        TcpClient client(port);
        client.Send("data");
        EXPECT_TRUE(Eventually([&] { return server.Received() == 4 || order.Failed() != 0; }));
        client.Close();
        EXPECT_TRUE(Eventually([&] { return server.Terminated() == 1 || order.Failed() != 0; }));
    }
    server.TerminateAll();
}

/// Goes through a life with the first, the second, ... allocation failing: one, or all that follow.
void ExpectNothingIsLostInALife(void (*live)(const FailingCalls&), int lives) {
    const ForwardLookup lookup({loopback, "192.0.2.1"});
    const auto live_with_failures = [&](int passing, int times) {
        const FailingCalls order(Call::Allocate, ENOMEM, times, passing);
        EXPECT_FALSE(Throws([&] { live(order); }));
    };
    OutputOf([&] { live_with_failures(0, 0); });  // what the C++ library allocates once
    for (int n = 0; n < lives; ++n) {
        for (const int times : {1, always}) {
            SCOPED_TRACE(testing::Message() << times << " failing after " << n);
            const Possessions before;
            OutputOf([&] { live_with_failures(n, times); });
            ASSERT_TRUE(IsAllGivenBack(before)) << "blocks " << CountBlocks() - before.blocks << ", descriptors "
                                                << CountOpenDescriptors() << " after " << before.descriptors;
        }
    }
}

}  // namespace

// --- lives ---

TEST(CSocketWithoutMemory, ADatagramServersLifeLosesNothing) {
    ExpectNothingIsLostInALife(LiveAsADatagramServer, 40);
}

TEST(CSocketWithoutMemory, AStreamServersLifeLosesNothing) {
    ExpectNothingIsLostInALife(LiveAsAStreamServer, 25);
}

TEST(CSocketWithoutMemory, ALifeWithALogLosesNothing) {
    const LogCapture log;
    ExpectNothingIsLostInALife(LiveAsADatagramServer, 40);
}

// --- receiving ---

TEST(CSocketWithoutMemory, APassEndsAndTheNextOneDelivers) {
    FrugalEndpoint endpoint;
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    SendDatagram(endpoint.ReceiverPort(), "data");
    ASSERT_TRUE(IsReadable(endpoint.Socket()));
    {
        const FailingCalls exhausted(Call::Allocate, ENOMEM, always);
        EXPECT_FALSE(Throws([&] { endpoint.DataReceiver(0); }));
        EXPECT_EQ(1, exhausted.Failed());
    }
    EXPECT_EQ(0, endpoint.Received());
    endpoint.DataReceiver(0);
    EXPECT_EQ(1, endpoint.Received());
}

TEST(CSocketWithoutMemory, AThreadLivesOnUntilThereIsSome) {
    FrugalEndpoint endpoint;
    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 2);
    const std::uint16_t port = endpoint.ReceiverPort();
    const std::string data = "data";
    {
        const FailingCalls exhausted(Call::Allocate, ENOMEM, always);
        EXPECT_TRUE(Eventually([&] { return exhausted.Failed() >= 5; }));
        SendDatagram(port, data);
        const int failed = exhausted.Failed();
        EXPECT_TRUE(Eventually([&] { return exhausted.Failed() >= failed + 5; }));
        EXPECT_EQ(0, endpoint.Received());
    }
    EXPECT_TRUE(Eventually([&] { return endpoint.Received() == 1; }));
}

// --- receiver threads ---

TEST(CSocketWithoutMemory, ThreadsThatCannotBeMadeCanBeMadeLater) {
    // Each receiver has its object, and a count that it shares with its thread.
    for (int n = 0; n < 6; ++n) {
        SCOPED_TRACE(n);
        FrugalEndpoint endpoint;
        {
            const FailingCalls exhausted(Call::Allocate, ENOMEM, always, n);
            EXPECT_FALSE(Throws([&] { EXPECT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, loopback, 3)); }));
            EXPECT_GT(exhausted.Failed(), 0);
        }
        endpoint.InitialiseLocalSockets(0, nullptr, loopback, 3);
        ASSERT_TRUE(endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4));
        EXPECT_TRUE(Eventually([&] { return endpoint.Received() == 1; }));
        EXPECT_LT(DurationOf([&] { EXPECT_TRUE(endpoint.TerminateAll()); }), seconds(5));
    }
}

TEST(CSocketWithoutMemory, ReceiversRunOnlyIfAllOfThemDo) {
    for (int n = 0; n < 8; ++n) {
        SCOPED_TRACE(n);
        TestEndpoint endpoint(CONNECTION_UDP);
        const CallWatch threads(Call::CreateThread);
        {
            const FailingCalls exhausted(Call::Allocate, ENOMEM, always, n);
            EXPECT_FALSE(Throws([&] { EXPECT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, loopback, 2)); }));
        }
        EXPECT_EQ(threads.Count() == 2, endpoint.m_bReceiversRunning);
        EXPECT_LT(DurationOf([&] { endpoint.TerminateAll(); }), seconds(5));
        EXPECT_THAT(endpoint.m_pReceivers, Each(nullptr));
    }
}

TEST(CSocketWithoutThreads, TheOnesThatRunReceiveAndAreStoppedAndFreed) {
    for (int running = 0; running < 5; ++running) {
        SCOPED_TRACE(running);
        const Possessions before;
        {
            TestEndpoint endpoint(CONNECTION_UDP);
            const int made = ThreadsMade();
            {
                const FailingCalls refused(Call::CreateThread, EAGAIN, 1, running);
                const CallWatch creations(Call::CreateThread);
                const std::vector<std::string> messages =
                    ConsoleMessagesOf([&] { endpoint.InitialiseLocalSockets(0, nullptr, loopback, 5); });
                EXPECT_EQ(running + 1, creations.Count()) << "later ones are made, but not started";
                EXPECT_EQ(5 - running,
                          std::count(messages.begin(), messages.end(),
                                     "CSocket::InitialiseLocalSockets - running receiver thread - failed"));
            }
            EXPECT_EQ(made + running, ThreadsMade());
            EXPECT_FALSE(endpoint.m_bReceiversRunning);
            EXPECT_EQ(5, endpoint.m_nReceiverThreads);
            EXPECT_THAT(endpoint.m_pReceivers, Each(NotNull()));
            if (running > 0) {
                ASSERT_TRUE(endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4));
                EXPECT_TRUE(Eventually([&] { return endpoint.Received().size() == 1; }));
            }
            EXPECT_LT(DurationOf([&] { EXPECT_TRUE(endpoint.TerminateAll()); }), seconds(5));
            EXPECT_THAT(endpoint.m_pReceivers, Each(nullptr));
        }
        EXPECT_TRUE(IsAllGivenBack(before));
    }
}

TEST(CSocketWithoutThreads, AServerWithoutItsAcceptorIsLoggedAndEndsAtOnce) {
    const Possessions before;
    {
        std::vector<std::string> messages;
        const auto duration = DurationOf([&messages] {
            const FailingCalls refused(Call::CreateThread, EAGAIN);
            messages = ConsoleMessagesOf([] { const ConnectionServer server; });
        });
        EXPECT_THAT(messages, IsSupersetOf({"CSocket::StartServer - running connection acceptor - failed",
                                            "CSocket::CSocket - StartServer() - failed"}));
        EXPECT_LT(duration, seconds(5));
    }
    EXPECT_TRUE(IsAllGivenBack(before));
}

TEST(CSocketWithoutThreads, AClientConnectsWithoutItsReceiver) {
    TarnTest::ConnectionServer server;
    TestEndpoint client(CONNECTION_STREAM);
    const FailingCalls refused(Call::CreateThread, EAGAIN);
    EXPECT_TRUE(client.Connect(loopback, server.Port()));
    EXPECT_EQ(1, refused.Failed());
    EXPECT_FALSE(client.m_bReceiversRunning);
    EXPECT_EQ(1u, client.Count(TarnTest::EndpointEvent::Kind::connected));
    EXPECT_TRUE(client.Send("data", 4));
    EXPECT_LT(DurationOf([&] { EXPECT_TRUE(client.TerminateAll()); }), seconds(5));
}

// --- groups ---

TEST(CSocketWithoutMemory, AGroupIsJoinedAndRememberedOrNeither) {
    TestEndpoint endpoint(CONNECTION_UDP);
    std::strcpy(endpoint.m_szLocalIf, loopback);
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    int n = 0;
    for (bool failed = true; failed; ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, 20);
        bool joined = true;
        const CallWatch joins(Call::JoinGroup);
        OutputOf([&] {
            const FailingCalls exhausted(Call::Allocate, ENOMEM, always, n);
            EXPECT_FALSE(Throws([&] { joined = endpoint.AddToGroup(group); }));
            failed = exhausted.Failed() != 0;
        });
        EXPECT_EQ(joined ? 1 : 0, joins.Count());
        EXPECT_EQ(!failed, joined);
        EXPECT_EQ(joined ? 1u : 0u, endpoint.m_Groups.size());
    }
    EXPECT_GE(n, 2);
}

TEST(CSocketWithoutMemory, AStartGroupIsJoinedAndRememberedOrNeither) {
    int n = 0;
    for (bool failed = true; failed; ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, 20);
        TestEndpoint endpoint(CONNECTION_UDP);
        std::strcpy(endpoint.m_szLocalIf, loopback);
        std::strcpy(endpoint.m_szGroup, group);
        const CallWatch joins(Call::JoinGroup);
        OutputOf([&] {
            const FailingCalls exhausted(Call::Allocate, ENOMEM, always, n);
            EXPECT_FALSE(Throws([&] { endpoint.InitialiseReceiver(); }));
            failed = exhausted.Failed() != 0;
        });
        EXPECT_EQ(failed ? 0 : 1, joins.Count());
        EXPECT_EQ(failed ? 0u : 1u, endpoint.m_Groups.size());
    }
    EXPECT_GE(n, 2);
}

TEST(CSocketWithoutMemory, GroupsAreLeftWithoutAllocating) {
    TestEndpoint endpoint(CONNECTION_UDP);
    std::strcpy(endpoint.m_szLocalIf, loopback);
    ASSERT_TRUE(endpoint.InitialiseReceiver());
    OutputOf([&] {
        ASSERT_TRUE(endpoint.AddToGroup(group));
        ASSERT_TRUE(endpoint.AddToGroup("239.192.1.3"));
    });
    const CallWatch left(Call::LeaveGroup);
    {
        const FailingCalls exhausted(Call::Allocate, ENOMEM, always);
        EXPECT_FALSE(Throws([&] { endpoint.DropGroup(group, true); }));
        EXPECT_FALSE(Throws([&] { endpoint.DropAllGroups(); }));
    }
    EXPECT_EQ(2, left.Count());
    EXPECT_THAT(endpoint.m_Groups, IsEmpty());
}

// --- names ---

TEST(CSocketWithoutMemory, TheLocalAddressesAreAllOrNone) {
    const ForwardLookup lookup({"192.0.2.1", "192.0.2.2", "192.0.2.3"});
    int n = 0;
    for (bool failed = true; failed; ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, 30);
        const FailingCalls exhausted(Call::Allocate, ENOMEM, always, n);
        EXPECT_FALSE(Throws([&] {
            TestEndpoint endpoint(CONNECTION_UDP);
            failed = exhausted.Failed() != 0;
            EXPECT_EQ(failed ? 0 : 3, endpoint.m_nLocalIPs);
            EXPECT_EQ(failed, endpoint.m_pLocalIPs == nullptr);
        }));
    }
    EXPECT_GE(n, 3);
}

TEST(CSocketWithoutMemory, ANameIsNotFoundAndNothingIsSent) {
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    const ForwardLookup lookup({loopback});
    const CallWatch sent(Call::SendTo);
    bool result = true;
    {
        const FailingCalls exhausted(Call::Allocate, ENOMEM, always);
        EXPECT_FALSE(Throws([&] { result = endpoint.Send("board.example", 9, "data", 4); }));
    }
    EXPECT_FALSE(result);
    EXPECT_EQ(0, sent.Count());
    EXPECT_TRUE(endpoint.Send("board.example", 9, "data", 4));
}

// Receiver threads at work: several at once, under load, with notifications that misbehave.

#include <TarnSocketIO/CSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OutputCapture.h"
#include "tests/support/Pour.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::BackgroundCall;
using TarnTest::CountOpenDescriptors;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::LogCapture;
using TarnTest::OutputCapture;
using TarnTest::Pour;
using TarnTest::SendDatagram;
using TarnTest::TestEndpoint;
using testing::Each;
using testing::SizeIs;
using Kind = TarnTest::EndpointEvent::Kind;

constexpr const char* loopback = "127.0.0.1";

std::string Numbered(int number) {
    return "number " + std::to_string(number);
}

/// A datagram server on loopback.
class Server : public TestEndpoint {
public:
    /// @param prepare  sets what has to be there before the threads are.
    explicit Server(
        int threads, const std::function<void(Server&)>& prepare = [](Server&) {})
        : TestEndpoint(CONNECTION_UDP) {
        prepare(*this);
        InitialiseLocalSockets(0, nullptr, loopback, threads);
    }
    ~Server() override { TerminateAll(); }

    bool HasReceived(std::size_t count) {
        return Eventually([&] { return Received().size() >= count; });
    }
};

}  // namespace

// ---- one pass at a time

TEST(CSocketThreads, NotificationsOfFiveThreadsNeverOverlap) {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    constexpr int count = 200;
    Server server(5, [&](Server& self) {
        self.on_received = [&](char*, long) {
            overlaps += ++inside > 1 ? 1 : 0;
            std::this_thread::yield();
            --inside;
        };
    });
    for (int i = 0; i < count; ++i) {
        SendDatagram(server.ReceiverPort(), Numbered(i));
        if (i % 20 == 19) {
            ASSERT_TRUE(server.HasReceived(static_cast<std::size_t>(i + 1)));
        }
    }
    const std::vector<std::string> received = server.Received();
    ASSERT_THAT(received, SizeIs(count));
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(Numbered(i), received[static_cast<std::size_t>(i)]) << "each once, in their order";
    }
    EXPECT_EQ(0, overlaps);
}

TEST(CSocketThreads, TheLargestDatagramsComeWholeAndTerminated) {
    Server server(2);
    constexpr std::size_t largest = 65507;
    for (int i = 0; i < 20; ++i) {
        std::string data(largest, static_cast<char>('a' + i));
        data.back() = '!';
        ASSERT_TRUE(server.Send(loopback, server.ReceiverPort(), data.data(), static_cast<long>(data.size())));
        ASSERT_TRUE(server.HasReceived(static_cast<std::size_t>(i + 1)));
        EXPECT_TRUE(server.Received().back() == data) << i;
    }
    for (const auto& event : server.Events()) {
        EXPECT_TRUE(event.is_terminated);
    }
}

TEST(CSocketThreads, AShortDatagramAfterALongOneEndsWhereItEnds) {
    Server server(1);
    SendDatagram(server.ReceiverPort(), std::string(5000, 'x'));
    SendDatagram(server.ReceiverPort(), "short");
    ASSERT_TRUE(server.HasReceived(2));
    EXPECT_EQ("short", server.Received()[1]);
    EXPECT_TRUE(server.Events()[1].is_terminated);
}

TEST(CSocketThreads, ABurstIsDrainedAtFullSpeed) {
    Server server(1);
    server.m_iReceivesPerPass = 0;
    server.m_iPollTimeout = 100;
    constexpr int count = 500;
    const auto duration = DurationOf([&] {
        int sent = 0;
        while (sent < count) {
            // No more at a time than the receive buffer holds.
            for (int i = 0; i < 50; ++i, ++sent) {
                SendDatagram(server.ReceiverPort(), Numbered(sent));
            }
            ASSERT_TRUE(Eventually([&] { return server.Count(Kind::received) == static_cast<std::size_t>(sent); }));
        }
    });
    EXPECT_LT(duration, milliseconds(count * 3)) << "as slow as with a pause after each";
}

// ---- notifications that misbehave

TEST(CSocketThreads, AnExceptionCostsNeitherDataNorTheThread) {
    const LogCapture log;
    Server server(3, [](Server& self) {
        self.on_received = [](char* data, long) {
            if (*data == '!') {
                throw std::runtime_error("of the application");
            }
        };
        self.on_terminated = [] { throw 42; };
    });
    for (int i = 0; i < 10; ++i) {
        SendDatagram(server.ReceiverPort(), "!");
        SendDatagram(server.ReceiverPort(), "");
        SendDatagram(server.ReceiverPort(), "data");
    }
    ASSERT_TRUE(server.HasReceived(20));
    EXPECT_TRUE(Eventually([&] { return server.Count(Kind::terminated) == 10; }));
    EXPECT_EQ(10u, log.Count("CSocket::DataReceiver - OnReceivedData threw exception!"));
    EXPECT_TRUE(Eventually([&] { return log.Count("CSocketThread::ThreadProc - Do threw exception!") == 10; }));
}

TEST(CSocketThreads, ANotificationMaySendAndJoin) {
    const OutputCapture output;
    std::atomic<int> replies{0};
    std::atomic<int> joined{0};
    Server server(2, [&](Server& self) {
        self.on_received = [&](char* data, long length) {
            if (*data == '?') {
                *data = '!';
                replies += self.Send(loopback, self.ReceiverPort(), data, length) ? 1 : 0;
                joined += self.AddToGroup("239.192.7.7") ? 1 : 0;
                self.DropGroup("239.192.7.7", true);
            }
        };
    });
    for (int i = 0; i < 20; ++i) {
        SendDatagram(server.ReceiverPort(), "?" + Numbered(i));
        ASSERT_TRUE(server.HasReceived(2 * static_cast<std::size_t>(i + 1)));
    }
    EXPECT_EQ(20, replies);
    EXPECT_EQ(20, joined);
    EXPECT_EQ("!" + Numbered(19), server.Received().back());
}

TEST(CSocketThreads, ANotificationMayDisconnectItsOwnEndpoint) {
    for (const int threads : {1, 5}) {
        const std::size_t before = CountOpenDescriptors();
        Server server(
            threads, [](Server& self) { self.on_received = [&self](char*, long) { EXPECT_TRUE(self.Disconnect()); }; });
        SendDatagram(server.ReceiverPort(), "disconnect");
        ASSERT_TRUE(server.HasReceived(1));
        EXPECT_TRUE(Eventually([&] { return CountOpenDescriptors() == before; }));
        EXPECT_FALSE(server.Disconnect());
        EXPECT_LT(DurationOf([&] { EXPECT_FALSE(server.TerminateAll()); }), seconds(5));
    }
}

TEST(CSocketThreads, TerminateAllGivesUpOnANotificationThatBlocksAndTheDestructorWaits) {
    std::promise<void> gate;
    const std::shared_future<void> opened(gate.get_future());
    std::atomic<bool> has_left{false};
    auto server = std::make_unique<Server>(1, [&](Server& self) {
        self.on_received = [&](char*, long) {
            opened.wait();
            has_left = true;
        };
    });
    const std::uint16_t port = server->ReceiverPort();
    SendDatagram(port, "block");
    ASSERT_TRUE(server->HasReceived(1));

    const auto duration = DurationOf([&] { EXPECT_TRUE(server->TerminateAll()); });
    EXPECT_GE(duration, seconds(9));
    EXPECT_LT(duration, seconds(25));
    EXPECT_FALSE(has_left);
    EXPECT_FALSE(server->Send(loopback, port, "late", 4));

    BackgroundCall destruction([&] {
        server.reset();
        return has_left.load();
    });
    EXPECT_TRUE(Eventually([&] { return destruction.Waits(); }));
    EXPECT_FALSE(destruction.HasEnded());
    gate.set_value();
    EXPECT_TRUE(destruction.Result()) << "destroyed under the notification's feet";
}

// ---- sockets that go while data pours in

TEST(CSocketThreads, TheReceiverIsRebuiltWhileDataPoursIn) {
    const OutputCapture output;
    TestEndpoint server(CONNECTION_UDP);
    const std::uint16_t port = TarnTest::FindUnusedPort();
    const std::size_t before = CountOpenDescriptors();
    server.InitialiseLocalSockets(port, nullptr, loopback, 5);
    server.m_iReceivesPerPass = 0;
    const std::size_t with_sockets = CountOpenDescriptors();
    ASSERT_EQ(before + 2, with_sockets);
    {
        const Pour data(port);
        for (int i = 0; i < 50; ++i) {
            const std::size_t received = server.Count(Kind::received);
            ASSERT_TRUE(server.RepairReceiverSocket());
            ASSERT_TRUE(Eventually([&] { return server.Count(Kind::received) > received; })) << i;
        }
    }
    EXPECT_THAT(server.Received(), Each(std::string(Pour::data)));
    EXPECT_EQ(with_sockets, CountOpenDescriptors());
    EXPECT_EQ(0u, server.Count(Kind::terminated)) << "a closed socket looked like an empty datagram";
}

TEST(CSocketThreads, EndpointsAreDestroyedWhileDataPoursIn) {
    const OutputCapture output;
    const std::uint16_t port = TarnTest::FindUnusedPort();
    const std::size_t before = CountOpenDescriptors();
    {
        const Pour data(port);
        for (int i = 0; i < 50; ++i) {
            TestEndpoint server(CONNECTION_UDP);
            server.m_iPollTimeout = i % 2 == 0 ? 0 : -1;
            server.m_iReceivesPerPass = i % 3 == 0 ? 1 : 0;
            server.InitialiseLocalSockets(port, nullptr, loopback, 1 + i % 5);
            ASSERT_TRUE(Eventually([&] { return server.Count(Kind::received) > 2; })) << i;
            ASSERT_TRUE(server.TerminateAll());
            EXPECT_THAT(server.Received(), Each(std::string(Pour::data)));
            EXPECT_EQ(0u, server.Count(Kind::terminated));
        }
    }
    EXPECT_EQ(before, CountOpenDescriptors());
}

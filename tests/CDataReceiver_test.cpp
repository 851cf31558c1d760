#include <TarnSocketIO/CDataReceiver.h>
#include <TarnSocketIO/CSocketThread.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/Datagrams.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

namespace {

using std::chrono::milliseconds;
using TarnSocketIO::CDataReceiver;
using TarnSocketIO::CONNECTION_UDP;
using TarnSocketIO::CSocketThread;
using TarnTest::Eventually;
using TarnTest::IsReadable;
using TarnTest::LogCapture;
using TarnTest::SendDatagram;
using TarnTest::TestEndpoint;
using testing::ElementsAre;
using testing::IsEmpty;

using Clock = std::chrono::steady_clock;

static_assert(std::is_base_of_v<CSocketThread, CDataReceiver>, "a receiver is a worker thread");
static_assert(!std::is_convertible_v<TarnSocketIO::CSocket*, CDataReceiver>, "a receiver is made on purpose");

/// An endpoint with a receiver socket, and no thread that reads it.
class Endpoint : public TestEndpoint {
public:
    Endpoint() : TestEndpoint(CONNECTION_UDP) { InitialiseReceiver(); }
    ~Endpoint() override { TerminateAll(); }
};

/// Ends its thread before the endpoint that it reads for.
class Receiver : public CDataReceiver {
public:
    explicit Receiver(TarnSocketIO::CSocket* socket) : CDataReceiver(socket) {}
    ~Receiver() override {
        if (m_has_started) {
            StopReceiver();
        }
    }

    bool Run() { return m_has_started = RunReceiver(); }
    using CDataReceiver::Do;
    using CDataReceiver::ThreadStarted;

private:
    bool m_has_started = false;
};

TEST(CDataReceiver, DoMakesOnePassOnTheCallingThread) {
    Endpoint endpoint;
    Receiver receiver(&endpoint);
    SendDatagram(endpoint.ReceiverPort(), "first");
    SendDatagram(endpoint.ReceiverPort(), "second");
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    receiver.Do();
    EXPECT_THAT(endpoint.Received(), ElementsAre("first"));
    EXPECT_EQ(std::this_thread::get_id(), endpoint.Events()[0].thread);
}

TEST(CDataReceiver, WithoutAnEndpointDoDoesNothing) {
    const LogCapture log;
    Receiver receiver(nullptr);
    receiver.Do();
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST(CDataReceiver, WithoutAnEndpointItRunsAndStops) {
    const LogCapture log;
    Receiver receiver(nullptr);
    EXPECT_TRUE(receiver.Run());
    EXPECT_TRUE(Eventually([&] { return log.Count("CSocketThread::ThreadProc - started") == 1; }));
    EXPECT_TRUE(receiver.StopReceiver());
    EXPECT_EQ(0u, log.Count("CSocketThread::ThreadProc - Do threw exception!"));
}

TEST(CDataReceiver, ThreadStartedDoesNothing) {
    const LogCapture log;
    Endpoint endpoint;
    Receiver receiver(&endpoint);
    const std::size_t lines = log.Messages().size();
    SendDatagram(endpoint.ReceiverPort(), "waiting");
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    receiver.ThreadStarted();
    EXPECT_THAT(endpoint.Events(), IsEmpty());
    EXPECT_EQ(lines, log.Messages().size());
}

TEST(CDataReceiver, RunReceiverMakesPassesOnAThreadOfItsOwn) {
    Endpoint endpoint;
    Receiver receiver(&endpoint);
    EXPECT_TRUE(receiver.Run());
    for (const char* const data : {"one", "two", "three"}) {
        SendDatagram(endpoint.ReceiverPort(), data);
    }
    EXPECT_TRUE(Eventually([&] { return endpoint.Received().size() == 3; }));
    EXPECT_THAT(endpoint.Received(), ElementsAre("one", "two", "three"));
    EXPECT_NE(std::this_thread::get_id(), endpoint.Events()[0].thread);
}

TEST(CDataReceiver, PassesAreAboutThreeMillisecondsApart) {
    Endpoint endpoint;
    std::mutex mutex;
    std::vector<Clock::time_point> times;
    endpoint.on_received = [&](char*, long) {
        const std::lock_guard<std::mutex> lock(mutex);
        times.push_back(Clock::now());
    };
    constexpr std::size_t datagrams = 30;
    for (std::size_t i = 0; i < datagrams; ++i) {
        SendDatagram(endpoint.ReceiverPort(), "x");
    }
    {
        Receiver receiver(&endpoint);
        ASSERT_TRUE(receiver.Run());
        ASSERT_TRUE(Eventually([&] { return endpoint.Received().size() == datagrams; }));
        ASSERT_TRUE(receiver.StopReceiver());
    }
    Clock::duration shortest = Clock::duration::max();
    for (std::size_t i = 1; i < times.size(); ++i) {
        shortest = std::min(shortest, times[i] - times[i - 1]);
    }
    EXPECT_GE(shortest, milliseconds(3));
    EXPECT_LT(shortest, milliseconds(50)) << "noise makes pauses longer, but not all of them so much";
}

TEST(CDataReceiver, RunReceiverReplacesAPauseThatWasSetBefore) {
    Endpoint endpoint;
    Receiver receiver(&endpoint);
    receiver.SetIterationDelay(3600, 999999999);
    ASSERT_TRUE(receiver.Run());
    for (std::size_t i = 1; i <= 3; ++i) {
        SendDatagram(endpoint.ReceiverPort(), "x");
        ASSERT_TRUE(Eventually([&] { return endpoint.Received().size() == i; }));
    }
}

TEST(CDataReceiver, NoPassIsMadeAfterStopReceiver) {
    Endpoint endpoint;
    Receiver receiver(&endpoint);
    ASSERT_TRUE(receiver.Run());
    SendDatagram(endpoint.ReceiverPort(), "in time");
    ASSERT_TRUE(Eventually([&] { return endpoint.Received().size() == 1; }));
    EXPECT_TRUE(receiver.StopReceiver());
    SendDatagram(endpoint.ReceiverPort(), "late");
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_THAT(endpoint.Received(), ElementsAre("in time"));
}

TEST(CDataReceiver, StopReceiverWithoutAThreadIsFalse) {
    Receiver receiver(nullptr);
    EXPECT_FALSE(receiver.StopReceiver());
}

TEST(CDataReceiver, VirtualOperationsAreInTheInterfacesOrder) {
    // A pointer to a virtual member begins with 1 plus the offset of its slot on every platform that the library has.
    class Slots : public Receiver {
    public:
        static std::size_t Of(void (Slots::*operation)()) {
            return (*static_cast<const std::size_t*>(static_cast<const void*>(&operation)) - 1) / sizeof(void*);
        }
        static std::vector<std::size_t> All() { return {Of(&Slots::Do), Of(&Slots::ThreadStarted)}; }
    };
    EXPECT_THAT(Slots::All(), ElementsAre(2, 3)) << "behind both entries of the destructor";
}

}  // namespace

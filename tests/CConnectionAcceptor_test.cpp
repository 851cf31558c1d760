#include <TarnSocketIO/CConnectionAcceptor.h>
#include <TarnSocketIO/CSocketThread.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"

namespace {

using std::chrono::milliseconds;
using TarnSocketIO::CConnectionAcceptor;
using TarnSocketIO::CSocketThread;
using TarnTest::CountThreads;
using TarnTest::Eventually;
using TarnTest::LogCapture;
using testing::ElementsAre;

using Clock = std::chrono::steady_clock;

static_assert(std::is_base_of_v<CSocketThread, CConnectionAcceptor>, "the acceptor is a worker thread");
static_assert(std::is_abstract_v<CConnectionAcceptor>, "what to accept is for a derived class");
static_assert(sizeof(CConnectionAcceptor) == sizeof(CSocketThread), "the acceptor has members of its own");

/// Remembers when it was called.
class Acceptor : public CConnectionAcceptor {
public:
    ~Acceptor() override {
        if (m_has_started) {
            StopAcceptor();
        }
    }

    bool Run() { return m_has_started = RunAcceptor(); }
    void ConnectionAcceptor() override {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_starts.push_back(Clock::now());
            m_thread = std::this_thread::get_id();
        }
        if (must_throw) {
            throw std::runtime_error("not today");
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ends.push_back(Clock::now());
    }

    using CConnectionAcceptor::Do;

    std::size_t Calls() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_starts.size();
    }
    std::thread::id Thread() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_thread;
    }
    /// From the end of each call to the start of the next.
    std::vector<Clock::duration> Pauses() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Clock::duration> pauses;
        for (std::size_t i = 0; i + 1 < m_starts.size() && i < m_ends.size(); ++i) {
            pauses.push_back(m_starts[i + 1] - m_ends[i]);
        }
        return pauses;
    }

    std::atomic<bool> must_throw{false};

private:
    bool m_has_started = false;
    mutable std::mutex m_mutex;
    std::vector<Clock::time_point> m_starts;
    std::vector<Clock::time_point> m_ends;
    std::thread::id m_thread;
};

TEST(CConnectionAcceptor, DoAcceptsOnceOnTheCallingThread) {
    Acceptor acceptor;
    acceptor.Do();
    EXPECT_EQ(1u, acceptor.Calls());
    EXPECT_EQ(std::this_thread::get_id(), acceptor.Thread());
    acceptor.Do();
    EXPECT_EQ(2u, acceptor.Calls());
}

TEST(CConnectionAcceptor, RunAcceptorAcceptsOverAndOverOnAThreadOfItsOwn) {
    Acceptor acceptor;
    EXPECT_TRUE(acceptor.Run());
    EXPECT_TRUE(Eventually([&] { return acceptor.Calls() >= 3; }));
    EXPECT_NE(std::this_thread::get_id(), acceptor.Thread());
}

TEST(CConnectionAcceptor, CallsAreAboutThreeMillisecondsApart) {
    Acceptor acceptor;
    ASSERT_TRUE(acceptor.Run());
    ASSERT_TRUE(Eventually([&] { return acceptor.Calls() > 30; }));
    const std::vector<Clock::duration> pauses = acceptor.Pauses();
    ASSERT_FALSE(pauses.empty());
    const Clock::duration shortest = *std::min_element(pauses.begin(), pauses.end());
    EXPECT_GE(shortest, milliseconds(3));
    EXPECT_LT(shortest, milliseconds(50)) << "noise makes pauses longer, but not all of them so much";
}

TEST(CConnectionAcceptor, RunAcceptorReplacesAPauseThatWasSetBefore) {
    Acceptor acceptor;
    acceptor.SetIterationDelay(3600, 999999999);
    ASSERT_TRUE(acceptor.Run());
    EXPECT_TRUE(Eventually([&] { return acceptor.Calls() >= 3; }));
}

TEST(CConnectionAcceptor, ExceptionOfOneCallDoesNotEndTheThread) {
    const LogCapture log;
    Acceptor acceptor;
    acceptor.must_throw = true;
    ASSERT_TRUE(acceptor.Run());
    EXPECT_TRUE(Eventually([&] { return acceptor.Calls() >= 3; }));
    EXPECT_TRUE(Eventually([&] { return log.Count("CSocketThread::ThreadProc - Do threw exception!") >= 2; }));
}

TEST(CConnectionAcceptor, NothingIsAcceptedAfterStopAcceptor) {
    Acceptor acceptor;
    ASSERT_TRUE(acceptor.Run());
    ASSERT_TRUE(Eventually([&] { return acceptor.Calls() >= 1; }));
    EXPECT_TRUE(acceptor.StopAcceptor());
    const std::size_t calls = acceptor.Calls();
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_EQ(calls, acceptor.Calls());
}

TEST(CConnectionAcceptor, StopAcceptorLeavesNoThreadBehind) {
    {
        Acceptor first;  // brings the sanitizer's helper with it
        ASSERT_TRUE(first.Run());
    }
    const std::size_t threads = CountThreads();
    for (int i = 0; i < 10; ++i) {
        Acceptor acceptor;
        ASSERT_TRUE(acceptor.Run());
        EXPECT_TRUE(acceptor.StopAcceptor());
    }
    EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads; }));
}

TEST(CConnectionAcceptor, VirtualOperationsAreInTheInterfacesOrder) {
    // A pointer to a virtual member begins with 1 plus the offset of its slot on every platform that the library has.
    class Slots : public Acceptor {
    public:
        static std::size_t Of(void (Slots::*operation)()) {
            return (*static_cast<const std::size_t*>(static_cast<const void*>(&operation)) - 1) / sizeof(void*);
        }
        static std::vector<std::size_t> All() {
            return {Of(&Slots::Do), Of(&Slots::ThreadStarted), Of(&Slots::ConnectionAcceptor)};
        }
    };
    EXPECT_THAT(Slots::All(), ElementsAre(2, 3, 4)) << "behind both entries of the destructor";
}

}  // namespace

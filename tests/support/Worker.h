#pragma once

#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/CSocketThread.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"
#include "tests/support/Resources.h"

/// What the tests of the worker threads have in common.
namespace TarnTest {

inline constexpr char proc_started_line[] = "CSocketThread::ThreadProc - started";
inline constexpr char priority_set_line[] = "CSocketThread::Start - set thread priority OK";
inline constexpr char priority_refused_line[] = "CSocketThread::Start - error setting thread priority";
inline constexpr char do_threw_line[] = "CSocketThread::ThreadProc - Do threw exception!";
inline constexpr char loop_ending_line[] = "CSocketThread::IterateThreadFunction - ending";
inline constexpr char proc_ending_line[] = "CSocketThread::ThreadProc - ending";
inline constexpr char stop_started_line[] = "CSocketThread::Stop - started";
inline constexpr char stop_succeeded_line[] = "CSocketThread::Stop - wait for thread sync - succeeded";
inline constexpr char stop_failed_line[] = "CSocketThread::Stop - wait for thread sync - failed";

/// A worker thread that counts its calls and does what the test sets; nothing, if the test sets nothing.
class Worker final : public TarnSocketIO::CSocketThread {
public:
    Worker() = default;
    ~Worker() override {
        if (m_was_started) {
            EXPECT_TRUE(Stop()) << "the thread still uses the object";
        }
    }

    bool Start(int priority = -1) {
        const bool is_started = CSocketThread::Start(priority);
        m_was_started = m_was_started || is_started;
        return is_started;
    }

    // What the worker does beyond counting; set before Start. What it refers to must outlive the worker, or Stop().
    std::function<void()> on_started;
    std::function<void()> on_do;

    /// How often ThreadStarted and Do have been called so far, the call that runs included.
    int Starts() const { return m_starts; }
    int Calls() const { return m_calls; }

    /// The number of the thread that ThreadStarted was called on last; 0 before.
    pid_t Thread() const { return m_thread; }

    /// Waits until Do has been called so often.
    bool WaitForCalls(int calls) const {
        return Eventually([&] { return m_calls >= calls; });
    }

private:
    void ThreadStarted() override {
        m_thread = ThisThread();
        ++m_starts;
        if (on_started) {
            on_started();
        }
    }

    void Do() override {
        ++m_calls;
        if (on_do) {
            on_do();
        }
    }

    bool m_was_started = false;
    std::atomic<int> m_starts{0};
    std::atomic<int> m_calls{0};
    std::atomic<pid_t> m_thread{0};
};

/// The clock that the library measures pauses on, as exactly as it reads it: when that is set or slewed, it is seen
/// here, too.
inline std::chrono::nanoseconds WallClock() {
    return std::chrono::floor<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch());
}

inline std::chrono::nanoseconds SteadyClock() {
    return std::chrono::steady_clock::now().time_since_epoch();
}

/// The times from the start of one call of Do to the start of the next. Starts and stops the worker, and calls `act` in
/// each of its calls.
inline std::vector<std::chrono::nanoseconds> Intervals(
    Worker& worker, std::size_t count, std::chrono::nanoseconds (*now)(), const std::function<void()>& act = [] {}) {
    std::vector<std::chrono::nanoseconds> times;
    worker.on_do = [&] {
        times.push_back(now());
        act();
    };
    EXPECT_TRUE(worker.Start());
    EXPECT_TRUE(worker.WaitForCalls(static_cast<int>(count) + 1));
    EXPECT_TRUE(worker.Stop());
    std::adjacent_difference(times.begin(), times.end(), times.begin());
    times.erase(times.begin());
    return times;
}

inline std::chrono::nanoseconds Shortest(const std::vector<std::chrono::nanoseconds>& intervals) {
    return *std::min_element(intervals.begin(), intervals.end());
}

/// The settings that threads without a priority get.
struct DefaultScheduling {
    bool override_inherited;
    int policy;
    int priority;
};

inline bool operator==(const DefaultScheduling& one, const DefaultScheduling& other) {
    return one.override_inherited == other.override_inherited && one.policy == other.policy &&
           one.priority == other.priority;
}

inline DefaultScheduling CurrentDefaults() {
    using TarnSocketIO::CSocketThread;
    const CScopedLocker<CMutex> locker(CSocketThread::g_oDefaultSchedulingMutex);
    return {CSocketThread::g_bOverrideInheritedScheduling, CSocketThread::g_iDefaultSchedulingPolicy,
            CSocketThread::g_iDefaultSchedulingPriority};
}

inline void RestoreDefaults(const DefaultScheduling& defaults) {
    using TarnSocketIO::CSocketThread;
    const CScopedLocker<CMutex> locker(CSocketThread::g_oDefaultSchedulingMutex);
    CSocketThread::g_bOverrideInheritedScheduling = defaults.override_inherited;
    CSocketThread::g_iDefaultSchedulingPolicy = defaults.policy;
    CSocketThread::g_iDefaultSchedulingPriority = defaults.priority;
}

/// Each test starts with a silent log, leaves no thread behind, and the default scheduling as it was.
class WorkerTest : public testing::Test {
protected:
    WorkerTest() : m_threads(CountThreads()), m_defaults(CurrentDefaults()) { ResetLog(); }
    ~WorkerTest() override {
        EXPECT_TRUE(AllThreadsHaveEnded());
        RestoreDefaults(m_defaults);
    }

    /// Waits until there are no more threads than at the start of the test.
    bool AllThreadsHaveEnded() const {
        const bool have_ended = Eventually([this] { return CountThreads() <= m_threads; });
        // Nobody has joined them: only the log's lock orders their last lines before what is done with the log next.
        LockIsFree();
        return have_ended;
    }

private:
    const std::size_t m_threads;
    const DefaultScheduling m_defaults;
};

/// The messages that are written to standard output while `act` runs with the log directed there. Expectations that
/// fail in `act` are not seen: their words go there, too.
inline std::vector<std::string> ConsoleMessagesOf(const std::function<void()>& act) {
    Restart(1);
    std::istringstream output(OutputOf(act));
    Log::SetLoggingDestination(0);
    std::vector<std::string> messages;
    for (std::string line; std::getline(output, line);) {
        messages.push_back(Message(line));
    }
    return messages;
}

}  // namespace TarnTest

// What the worker threads ask of the system, scheduling above all, and what they do when it refuses.

#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/CSocketThread.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"
#include "tests/support/Resources.h"
#include "tests/support/RuntimeCalls.h"
#include "tests/support/Worker.h"

namespace TarnTest {

bool operator==(const SchedulingRequest& one, const SchedulingRequest& other) {
    return one.pid == other.pid && one.policy == other.policy && one.priority == other.priority &&
           one.caller == other.caller;
}

void PrintTo(const SchedulingRequest& request, std::ostream* out) {
    *out << "thread " << request.caller << " for " << request.pid << ": policy " << request.policy << ", priority "
         << request.priority;
}

void PrintTo(const DefaultScheduling& defaults, std::ostream* out) {
    *out << "override " << defaults.override_inherited << ", policy " << defaults.policy << ", priority "
         << defaults.priority;
}

}  // namespace TarnTest

namespace {

using std::chrono::seconds;
using TarnTest::BackgroundCall;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::CurrentDefaults;
using TarnTest::DefaultScheduling;
using TarnTest::do_threw_line;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::FailingCalls;
using TarnTest::HadDefaultAttributes;
using TarnTest::LogCapture;
using TarnTest::loop_ending_line;
using TarnTest::OutputOf;
using TarnTest::priority_refused_line;
using TarnTest::priority_set_line;
using TarnTest::proc_ending_line;
using TarnTest::proc_started_line;
using TarnTest::Restart;
using TarnTest::SchedulingRequest;
using TarnTest::SchedulingWatch;
using TarnTest::stop_started_line;
using TarnTest::ThreadsDetached;
using TarnTest::ThreadsMade;
using TarnTest::Worker;
using testing::ElementsAre;
using testing::IsEmpty;

using CSocketThread = TarnTest::WorkerTest;
using Thread = TarnSocketIO::CSocketThread;

// ---- the thread

TEST_F(CSocketThread, ThreadIsMadeWithDefaultAttributesAndDetachedOnce) {
    const int made = ThreadsMade();
    const int detached = ThreadsDetached();
    for (int i = 1; i <= 20; ++i) {
        Worker worker;
        const CallWatch creations(Call::CreateThread);
        EXPECT_TRUE(worker.Start());
        EXPECT_EQ(1, creations.Count());
        EXPECT_EQ(made + i, ThreadsMade());
        EXPECT_TRUE(HadDefaultAttributes());
        EXPECT_TRUE(worker.Stop());
        EXPECT_TRUE(AllThreadsHaveEnded());
        EXPECT_EQ(detached + i, ThreadsDetached());
    }
}

TEST_F(CSocketThread, StartWithoutAThreadReturnsFalseAndDoesNothingElse) {
    const LogCapture log;
    for (const int error : {EAGAIN, ENOMEM, EPERM}) {
        const int made = ThreadsMade();
        const int detached = ThreadsDetached();
        Worker worker;
        const FailingCalls refused(Call::CreateThread, error);
        EXPECT_FALSE(worker.Start());
        EXPECT_EQ(1, refused.Failed());
        EXPECT_EQ(made, ThreadsMade());
        EXPECT_EQ(detached, ThreadsDetached());
        EXPECT_EQ(0, worker.Starts());
    }
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(CSocketThread, StartWorksAfterItHasFailed) {
    Worker worker;
    {
        const FailingCalls refused(Call::CreateThread, EAGAIN, 3);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(worker.Start());
        }
    }
    EXPECT_TRUE(worker.Start());
    EXPECT_TRUE(worker.WaitForCalls(3));
    EXPECT_LT(DurationOf([&] { EXPECT_TRUE(worker.Stop()); }), seconds(5)) << "waits for threads that there are not";
}

TEST_F(CSocketThread, FailedStartOfWhatRunsChangesNothing) {
    Worker worker;
    worker.Start();
    {
        const FailingCalls refused(Call::CreateThread, EAGAIN);
        EXPECT_FALSE(worker.Start());
    }
    EXPECT_TRUE(worker.WaitForCalls(worker.Calls() + 3));
    EXPECT_LT(DurationOf([&] { EXPECT_TRUE(worker.Stop()); }), seconds(5));
    EXPECT_EQ(1, worker.Starts());
}

// ---- scheduling: what is asked for

TEST_F(CSocketThread, WithoutAPriorityNorDefaultsSchedulingIsLeftAlone) {
    const SchedulingWatch watch(SchedulingWatch::Answer::Success);
    const LogCapture log;
    Worker worker;
    worker.Start(-1);
    ASSERT_TRUE(worker.WaitForCalls(3));
    EXPECT_THAT(watch.Requests(), IsEmpty());
    EXPECT_THAT(log.Messages(), ElementsAre(proc_started_line));
}

/// Starts a worker and expects what it asks for, once, on its own thread and before ThreadStarted.
void ExpectRequest(int priority_of_start, int policy, int priority) {
    SCOPED_TRACE(priority_of_start);
    const SchedulingWatch watch(SchedulingWatch::Answer::Success);
    const LogCapture log;
    std::vector<SchedulingRequest> requested_before;
    std::vector<std::string> logged_before;
    Worker worker;
    worker.on_started = [&] {
        requested_before = watch.Requests();
        logged_before = log.Messages();
    };
    EXPECT_TRUE(worker.Start(priority_of_start));
    EXPECT_TRUE(worker.WaitForCalls(3));
    EXPECT_TRUE(worker.Stop());
    EXPECT_THAT(requested_before, ElementsAre(SchedulingRequest{0, policy, priority, worker.Thread()}));
    EXPECT_THAT(logged_before, ElementsAre(proc_started_line, priority_set_line));
    EXPECT_EQ(requested_before, watch.Requests());
}

TEST_F(CSocketThread, PriorityIsAskedForWithTheRoundRobinPolicy) {
    static_assert(SCHED_RR == 2);
    for (const int priority : {10, 1, 99, 0, -2, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        ExpectRequest(priority, SCHED_RR, priority);
    }
}

TEST_F(CSocketThread, DefaultsAreAskedForByThreadsWithoutAPriority) {
    Thread::AssignDefaultScheduling(5, SCHED_FIFO);
    static_assert(SCHED_FIFO == 1);
    ExpectRequest(-1, 1, 5);
    ExpectRequest(-1, 1, 5);
    Thread::AssignDefaultScheduling(0, SCHED_BATCH);
    ExpectRequest(-1, SCHED_BATCH, 0);
    Thread::AssignDefaultScheduling(-1, -1);
    ExpectRequest(-1, -1, -1);
}

TEST_F(CSocketThread, PriorityOfAThreadCountsMoreThanTheDefaults) {
    Thread::AssignDefaultScheduling(5, SCHED_FIFO);
    ExpectRequest(10, SCHED_RR, 10);
    ExpectRequest(0, SCHED_RR, 0);
}

TEST_F(CSocketThread, DefaultsDoNotConcernThreadsThatRunAlready) {
    const SchedulingWatch watch(SchedulingWatch::Answer::Success);
    Worker worker;
    worker.Start(-1);
    ASSERT_TRUE(worker.WaitForCalls(1));
    Thread::AssignDefaultScheduling(5, SCHED_FIFO);
    ASSERT_TRUE(worker.WaitForCalls(worker.Calls() + 3));
    EXPECT_THAT(watch.Requests(), IsEmpty());
}

TEST_F(CSocketThread, EachStartCountsWithItsOwnPriority) {
    const SchedulingWatch watch(SchedulingWatch::Answer::Success);
    Worker worker;
    worker.Start(10);
    ASSERT_TRUE(worker.WaitForCalls(1));
    const pid_t first = worker.Thread();
    ASSERT_TRUE(worker.Stop());
    worker.Start(20);
    ASSERT_TRUE(worker.Stop());
    worker.Start(-1);
    ASSERT_TRUE(worker.Stop());
    EXPECT_EQ(3, worker.Starts());
    const std::vector<SchedulingRequest> requests = watch.Requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ((SchedulingRequest{0, SCHED_RR, 10, first}), requests[0]);
    EXPECT_EQ(20, requests[1].priority);
}

// ---- scheduling: what comes of it

TEST_F(CSocketThread, RefusedPriorityIsLoggedAndTheThreadRunsOn) {
    for (const int error : {EPERM, EINVAL}) {
        const SchedulingWatch watch(SchedulingWatch::Answer::System);
        const FailingCalls refused(Call::SetScheduler, error);
        const LogCapture log;
        Worker worker;
        EXPECT_TRUE(worker.Start(10));
        EXPECT_TRUE(worker.WaitForCalls(3));
        EXPECT_EQ(1, refused.Failed());
        EXPECT_THAT(watch.Requests(), ElementsAre(SchedulingRequest{0, SCHED_RR, 10, worker.Thread()}));
        EXPECT_THAT(log.Messages(), ElementsAre(proc_started_line, priority_refused_line));
        EXPECT_TRUE(worker.Stop());
        EXPECT_TRUE(AllThreadsHaveEnded());
    }
}

TEST_F(CSocketThread, OutcomeOfThePriorityIsLoggedBeforeAllThatTheThreadDoes) {
    for (const bool is_refused : {false, true}) {
        const SchedulingWatch watch(SchedulingWatch::Answer::Success);
        const FailingCalls refused(Call::SetScheduler, EPERM, is_refused ? 1 : 0);
        Thread::AssignDefaultScheduling(5, SCHED_FIFO);
        const LogCapture log;
        Worker worker;
        worker.on_do = [&] {
            if (worker.Calls() <= 2) {
                throw 5;
            }
        };
        worker.Start(-1);
        ASSERT_TRUE(worker.WaitForCalls(4));
        ASSERT_TRUE(worker.Stop());
        ASSERT_TRUE(AllThreadsHaveEnded());
        EXPECT_THAT(log.Messages(),
                    ElementsAre(proc_started_line, is_refused ? priority_refused_line : priority_set_line,
                                do_threw_line, do_threw_line, stop_started_line, loop_ending_line, proc_ending_line));
    }
}

/// How a thread is scheduled.
struct Scheduling {
    int policy = -1;
    int priority = -1;
};

Scheduling OfThisThread() {
    sched_param parameters = {};
    sched_getparam(0, &parameters);
    return {sched_getscheduler(0), parameters.sched_priority};
}

/// The scheduling in Do of a worker.
Scheduling InDo(int priority_of_start) {
    Scheduling scheduling;
    Worker worker;
    worker.on_do = [&] { scheduling = OfThisThread(); };
    EXPECT_TRUE(worker.Start(priority_of_start));
    EXPECT_TRUE(worker.WaitForCalls(1));
    EXPECT_TRUE(worker.Stop());
    return scheduling;
}

TEST_F(CSocketThread, SystemGivesTheThreadItsPriority) {
    const int own_policy = OfThisThread().policy;
    int error = 0;
    BackgroundCall([&] {
        const sched_param parameters = {10};
        error = sched_setscheduler(0, SCHED_RR, &parameters) == 0 ? 0 : errno;
        return true;
    }).Result();
    if (error != 0) {
        GTEST_SKIP() << "no real-time priority to be had: " << std::strerror(error);
    }
    const Scheduling explicitly = InDo(10);
    EXPECT_EQ(SCHED_RR, explicitly.policy);
    EXPECT_EQ(10, explicitly.priority);
    Thread::AssignDefaultScheduling(5, SCHED_FIFO);
    const Scheduling by_default = InDo(-1);
    EXPECT_EQ(SCHED_FIFO, by_default.policy);
    EXPECT_EQ(5, by_default.priority);
    EXPECT_EQ(own_policy, OfThisThread().policy) << "the thread that starts others keeps its own";
}

TEST_F(CSocketThread, SystemRefusesAPriorityThatThereIsNot) {
    const LogCapture log;
    for (const int priority : {0, 100}) {
        EXPECT_EQ(OfThisThread().policy, InDo(priority).policy);
    }
    EXPECT_EQ(2u, log.Count(priority_refused_line));
    EXPECT_EQ(0u, log.Count(priority_set_line));
}

TEST_F(CSocketThread, WithoutAPriorityTheSchedulingOfTheStarterIsInherited) {
    BackgroundCall([&] {
        const sched_param parameters = {0};
        EXPECT_EQ(0, sched_setscheduler(0, SCHED_BATCH, &parameters));
        EXPECT_EQ(SCHED_BATCH, InDo(-1).policy);
        return true;
    }).Result();
    EXPECT_EQ(OfThisThread().policy, InDo(-1).policy);
}

// ---- the default settings

TEST_F(CSocketThread, DefaultsAreZeroUntilTheyAreAssigned) {
    EXPECT_EQ((DefaultScheduling{false, 0, 0}), CurrentDefaults());
}

TEST_F(CSocketThread, AssignedDefaultsTakeThePriorityFirst) {
    Thread::AssignDefaultScheduling(5, 1);
    EXPECT_EQ((DefaultScheduling{true, 1, 5}), CurrentDefaults());
    Thread::AssignDefaultScheduling(-7, 1000);
    EXPECT_EQ((DefaultScheduling{true, 1000, -7}), CurrentDefaults());
    Thread::AssignDefaultScheduling(0, 0);
    EXPECT_EQ((DefaultScheduling{true, 0, 0}), CurrentDefaults());
}

TEST_F(CSocketThread, DefaultsAreAssignedUnderTheirLock) {
    std::optional<BackgroundCall> assignment;
    {
        const CScopedLocker<CMutex> locker(Thread::g_oDefaultSchedulingMutex);
        assignment.emplace([] {
            Thread::AssignDefaultScheduling(5, 1);
            return true;
        });
        EXPECT_TRUE(Eventually([&] { return assignment->Waits() || assignment->HasEnded(); }));
        EXPECT_FALSE(assignment->HasEnded());
        EXPECT_FALSE(Thread::g_bOverrideInheritedScheduling);
        EXPECT_EQ(0, Thread::g_iDefaultSchedulingPolicy);
        EXPECT_EQ(0, Thread::g_iDefaultSchedulingPriority);
    }
    EXPECT_TRUE(assignment->Result());
    EXPECT_EQ((DefaultScheduling{true, 1, 5}), CurrentDefaults());
}

TEST_F(CSocketThread, OnlyAThreadWithoutAPriorityWaitsForTheLockOfTheDefaults) {
    const SchedulingWatch watch(SchedulingWatch::Answer::Success);
    Worker by_default;
    Worker explicitly;
    {
        const CScopedLocker<CMutex> locker(Thread::g_oDefaultSchedulingMutex);
        EXPECT_TRUE(by_default.Start(-1));
        EXPECT_TRUE(explicitly.Start(10));
        EXPECT_TRUE(explicitly.WaitForCalls(20));
        EXPECT_EQ(0, by_default.Starts());
    }
    EXPECT_TRUE(by_default.WaitForCalls(1));
    EXPECT_EQ(1u, watch.Requests().size());
}

TEST_F(CSocketThread, DefaultsThatAreAssignedTogetherAreUsedTogether) {
    const SchedulingWatch watch(SchedulingWatch::Answer::Success);
    Thread::AssignDefaultScheduling(1, 1000);
    std::atomic<bool> end{false};
    std::vector<std::thread> setters;
    for (const int priority : {1, 2}) {
        setters.emplace_back([&end, priority] {
            while (!end) {
                Thread::AssignDefaultScheduling(priority, priority * 1000);
                std::this_thread::yield();
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        Worker worker;
        EXPECT_TRUE(worker.Start(-1));
    }
    end = true;
    for (std::thread& setter : setters) {
        setter.join();
    }
    const std::vector<SchedulingRequest> requests = watch.Requests();
    EXPECT_EQ(100u, requests.size());
    for (const SchedulingRequest& request : requests) {
        EXPECT_EQ(1000 * request.priority, request.policy);
    }
}

// ---- memory

/// Calls `act` while there is no memory for any thread. Its output is not seen.
///
/// @return whether it has thrown nothing.
bool WorksWithoutMemory(const std::function<void()>& act) {
    bool works = true;
    OutputOf([&] {
        const FailingCalls exhausted(Call::Allocate, ENOMEM, std::numeric_limits<int>::max());
        try {
            act();
        } catch (...) {
            works = false;
        }
    });
    return works;
}

TEST_F(CSocketThread, StartWithoutMemoryFailsAndWorksLater) {
    bool has_started = true;
    Worker worker;
    EXPECT_TRUE(WorksWithoutMemory([&] { has_started = worker.Start(); }));
    EXPECT_FALSE(has_started);
    EXPECT_TRUE(worker.Start());
    EXPECT_TRUE(worker.WaitForCalls(1));
}

TEST_F(CSocketThread, StopWithoutMemoryStopsAndReturnsTrue) {
    for (const int dest : {0, 1, 3}) {
        SCOPED_TRACE(dest);
        Restart(dest);
        bool has_stopped = false;
        bool works = false;
        OutputOf([&] {
            Worker worker;
            worker.Start();
            worker.WaitForCalls(1);
            works = WorksWithoutMemory([&] { has_stopped = worker.Stop(); });
            AllThreadsHaveEnded();
        });
        EXPECT_TRUE(works);
        EXPECT_TRUE(has_stopped);
    }
}

TEST_F(CSocketThread, ThreadWithoutMemoryCallsAndStops) {
    for (const int dest : {0, 1, 3}) {
        SCOPED_TRACE(dest);
        Restart(dest);
        bool has_started = false;
        bool has_called = false;
        bool has_stopped = false;
        bool works = false;
        OutputOf([&] {
            Worker worker;
            worker.on_do = [] { throw 5; };
            has_started = worker.Start(100);
            works = WorksWithoutMemory([&] {
                has_called = worker.WaitForCalls(10);
                has_stopped = worker.Stop();
            });
            AllThreadsHaveEnded();
        });
        EXPECT_TRUE(works);
        EXPECT_TRUE(has_started);
        EXPECT_TRUE(has_called);
        EXPECT_TRUE(has_stopped);
    }
}

}  // namespace

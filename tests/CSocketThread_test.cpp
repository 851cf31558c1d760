#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/CSocketThread.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"
#include "tests/support/Resources.h"
#include "tests/support/Worker.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using TarnTest::attempts;
using TarnTest::BackgroundCall;
using TarnTest::ConsoleMessagesOf;
using TarnTest::cut_short;
using TarnTest::do_threw_line;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::Intervals;
using TarnTest::IsAsleep;
using TarnTest::LogCapture;
using TarnTest::loop_ending_line;
using TarnTest::OnlyMessage;
using TarnTest::OutputOf;
using TarnTest::proc_ending_line;
using TarnTest::proc_started_line;
using TarnTest::Shortest;
using TarnTest::SteadyClock;
using TarnTest::stop_failed_line;
using TarnTest::stop_started_line;
using TarnTest::stop_succeeded_line;
using TarnTest::ThisThread;
using TarnTest::WallClock;
using TarnTest::Worker;
using testing::Each;
using testing::ElementsAre;

using CSocketThread = TarnTest::WorkerTest;
using Thread = TarnSocketIO::CSocketThread;

// ---- the thread and its calls

TEST_F(CSocketThread, StartMakesAThreadThatCallsDoOverAndOver) {
    Worker worker;
    EXPECT_TRUE(worker.Start());
    EXPECT_TRUE(worker.WaitForCalls(20));
}

TEST_F(CSocketThread, NothingIsCalledBeforeStart) {
    const LogCapture log;
    {
        Worker other;
        const Worker worker;
        other.Start();
        ASSERT_TRUE(other.WaitForCalls(10));
        EXPECT_EQ(0, worker.Starts());
        EXPECT_EQ(0, worker.Calls());
    }
    EXPECT_EQ(1u, log.Count(proc_started_line));
}

TEST_F(CSocketThread, AllCallsAreMadeOnOneThreadThatIsNotTheCallers) {
    std::vector<pid_t> threads;
    Worker worker;
    worker.on_started = [&] { threads.push_back(ThisThread()); };
    worker.on_do = worker.on_started;
    worker.Start();
    ASSERT_TRUE(worker.WaitForCalls(20));
    ASSERT_TRUE(worker.Stop());
    EXPECT_NE(ThisThread(), threads.front());
    EXPECT_THAT(threads, Each(threads.front()));
}

TEST_F(CSocketThread, ThreadStartedIsCalledOnceBeforeTheFirstDo) {
    std::vector<std::string> calls;
    Worker worker;
    worker.on_started = [&] { calls.emplace_back("ThreadStarted"); };
    worker.on_do = [&] { calls.emplace_back("Do"); };
    worker.Start();
    ASSERT_TRUE(worker.WaitForCalls(10));
    ASSERT_TRUE(worker.Stop());
    EXPECT_EQ("ThreadStarted", calls.front());
    calls.erase(calls.begin());
    EXPECT_THAT(calls, Each("Do"));
}

TEST_F(CSocketThread, StartDoesNotWaitForTheThread) {
    Worker worker;
    std::promise<void> gate;
    worker.on_started = [opened = gate.get_future().share()] { opened.wait(); };
    EXPECT_TRUE(worker.Start());
    EXPECT_TRUE(Eventually([&] { return worker.Starts() == 1; }));
    EXPECT_EQ(0, worker.Calls());
    gate.set_value();
    EXPECT_TRUE(worker.WaitForCalls(1));
}

TEST_F(CSocketThread, BaseThreadStartedDoesNothing) {
    class Plain : public Thread {
    public:
        Plain() = default;
        ~Plain() override { EXPECT_TRUE(Stop()); }
        std::atomic<int> calls{0};

    private:
        void Do() override { ++calls; }
    };
    const LogCapture log;
    {
        Plain plain;
        plain.Start(-1);
        EXPECT_TRUE(Eventually([&] { return plain.calls >= 3; }));
        EXPECT_THAT(log.Messages(), ElementsAre(proc_started_line));
    }
}

TEST_F(CSocketThread, StoppedThreadThatIsStartedAgainCallsDoOnceAndEnds) {
    const LogCapture log;
    Worker worker;
    worker.Start();
    ASSERT_TRUE(worker.WaitForCalls(3));
    ASSERT_TRUE(worker.Stop());
    ASSERT_TRUE(AllThreadsHaveEnded());
    for (int i = 1; i <= 3; ++i) {
        const int calls = worker.Calls();
        EXPECT_TRUE(worker.Start());
        EXPECT_TRUE(worker.WaitForCalls(calls + 1));
        EXPECT_TRUE(AllThreadsHaveEnded());
        EXPECT_EQ(calls + 1, worker.Calls());
        EXPECT_EQ(1 + i, worker.Starts());
        EXPECT_EQ(1u + static_cast<std::size_t>(i), log.Count(proc_ending_line));
    }
    EXPECT_TRUE(worker.Stop());
}

// ---- pauses

TEST_F(CSocketThread, CallsAreThreeMillisecondsApartWithoutADelay) {
    Worker worker;
    const nanoseconds shortest = Shortest(Intervals(worker, 100, SteadyClock));
    EXPECT_GE(shortest, milliseconds(3));
    EXPECT_LT(shortest, milliseconds(40));
}

TEST_F(CSocketThread, DelayThatIsLessThanAStepLastsOneStep) {
    for (const unsigned long delay_ns : {1UL, 999UL, 1'000UL, 50'000UL, 1'000'000UL}) {
        SCOPED_TRACE(delay_ns);
        Worker worker;
        worker.SetIterationDelay(0, delay_ns);
        const nanoseconds shortest = Shortest(Intervals(worker, 20, SteadyClock));
        EXPECT_GE(shortest, milliseconds(3));
        EXPECT_LT(shortest, milliseconds(40));
    }
}

TEST_F(CSocketThread, CallThatThrowsIsFollowedByAPause) {
    Worker worker;
    const auto intervals = Intervals(worker, 50, SteadyClock, [] { throw std::runtime_error("from Do"); });
    EXPECT_GE(Shortest(intervals), milliseconds(3));
}

TEST_F(CSocketThread, DelayIsKept) {
    Worker worker;
    worker.SetIterationDelay(0, 50'000'000);
    const nanoseconds shortest = Shortest(Intervals(worker, 10, WallClock));
    EXPECT_GE(shortest, milliseconds(50));
    EXPECT_LT(shortest, cut_short);
}

TEST_F(CSocketThread, DelayIsCountedFromTheEndOfACall) {
    constexpr milliseconds duration(60);
    Worker worker;
    worker.SetIterationDelay(0, 60'000'000);
    const auto intervals = Intervals(worker, 3, SteadyClock, [&] { std::this_thread::sleep_for(duration); });
    EXPECT_GE(Shortest(intervals), duration + milliseconds(55)) << "5 ms are for a clock that is being adjusted";
}

TEST_F(CSocketThread, DelayOfSecondsAndNanosecondsIsKept) {
    Worker worker;
    worker.SetIterationDelay(1, 500'000'000);
    const nanoseconds shortest = Shortest(Intervals(worker, 1, WallClock));
    EXPECT_GE(shortest, milliseconds(1500));
    EXPECT_LT(shortest, seconds(10));
}

TEST_F(CSocketThread, DelayCountsFromTheNextPauseOn) {
    std::vector<nanoseconds> times;
    std::atomic<bool> has_left{false};
    Worker worker;
    std::promise<void> gate;
    worker.on_do = [&, opened = gate.get_future().share()] {
        times.push_back(WallClock());
        opened.wait();
        has_left = true;
    };
    worker.Start();
    ASSERT_TRUE(worker.WaitForCalls(1));
    worker.SetIterationDelay(0, 300'000'000);
    gate.set_value();
    ASSERT_TRUE(Eventually([&] { return has_left && IsAsleep(worker.Thread()); }));
    worker.SetIterationDelay(0, 0);
    ASSERT_TRUE(worker.WaitForCalls(20));
    ASSERT_TRUE(worker.Stop());
    EXPECT_GE(times[1] - times[0], milliseconds(300)) << "the pause that follows is the first that can be meant";
    std::adjacent_difference(times.begin(), times.end(), times.begin());
    EXPECT_LT(*std::min_element(times.begin() + 2, times.end()), milliseconds(100));
}

/// How long it takes to stop a worker in its first pause: the fastest of a few.
milliseconds FastestStop(unsigned long delay_s, unsigned long delay_ns) {
    milliseconds fastest = milliseconds::max();
    for (int i = 0; i < attempts && fastest >= cut_short; ++i) {
        Worker worker;
        worker.SetIterationDelay(delay_s, delay_ns);
        EXPECT_TRUE(worker.Start());
        EXPECT_TRUE(worker.WaitForCalls(1));
        EXPECT_TRUE(Eventually([&] { return IsAsleep(worker.Thread()); }));
        fastest = std::min(fastest, DurationOf([&] { EXPECT_TRUE(worker.Stop()); }));
    }
    return fastest;
}

TEST_F(CSocketThread, StopCutsAPauseShort) {
    EXPECT_LT(FastestStop(0, 0), cut_short);
    EXPECT_LT(FastestStop(1, 500'000'000), cut_short);
    EXPECT_LT(FastestStop(ULONG_MAX, 999'999'999), cut_short);
}

TEST_F(CSocketThread, GreatestDelaysPause) {
    for (const unsigned long delay_s : {1'000'000'000UL, LONG_MAX - 1UL, LONG_MAX + 0UL, LONG_MAX + 1UL, ULONG_MAX}) {
        SCOPED_TRACE(delay_s);
        Worker brisk;
        Worker patient;
        patient.SetIterationDelay(delay_s, 999'999'999);
        patient.Start();
        ASSERT_TRUE(patient.WaitForCalls(1));
        brisk.Start();
        ASSERT_TRUE(brisk.WaitForCalls(50));
        EXPECT_EQ(1, patient.Calls());
    }
}

// ---- Stop

TEST_F(CSocketThread, NothingIsCalledOnceStopHasReturnedTrue) {
    Worker worker;
    worker.Start();
    ASSERT_TRUE(worker.WaitForCalls(3));
    EXPECT_TRUE(worker.Stop());
    const int calls = worker.Calls();
    EXPECT_TRUE(AllThreadsHaveEnded());
    EXPECT_EQ(calls, worker.Calls());
}

TEST_F(CSocketThread, StopWaitsForTheCallThatRunsAndLetsNoOtherFollow) {
    Worker worker;
    std::promise<void> gate;
    worker.on_do = [opened = gate.get_future().share()] { opened.wait(); };
    worker.Start();
    ASSERT_TRUE(worker.WaitForCalls(1));
    BackgroundCall stop([&] { return worker.Stop(); });
    Worker other;
    other.Start();
    ASSERT_TRUE(other.WaitForCalls(10));
    EXPECT_FALSE(stop.HasEnded());
    gate.set_value();
    EXPECT_TRUE(stop.Result());
    EXPECT_TRUE(other.Stop());
    EXPECT_TRUE(AllThreadsHaveEnded());
    EXPECT_EQ(1, worker.Calls());
}

TEST_F(CSocketThread, ThreadThatIsStoppedAtOnceCallsDoNevertheless) {
    for (int i = 0; i < 50; ++i) {
        Worker worker;
        worker.Start();
        EXPECT_TRUE(worker.Stop());
        EXPECT_EQ(1, worker.Starts());
        EXPECT_LE(1, worker.Calls());
    }
}

TEST_F(CSocketThread, SecondStopReturnsTrueAtOnce) {
    Worker worker;
    worker.Start();
    EXPECT_TRUE(worker.Stop());
    milliseconds fastest = milliseconds::max();
    for (int i = 0; i < attempts; ++i) {
        fastest = std::min(fastest, DurationOf([&] { EXPECT_TRUE(worker.Stop()); }));
    }
    EXPECT_LT(fastest, milliseconds(3));
}

TEST_F(CSocketThread, WithoutAThreadStopWaitsTenSecondsAndFails) {
    Worker worker;
    bool has_stopped = true;
    const nanoseconds start = WallClock();
    const auto messages = ConsoleMessagesOf([&] { has_stopped = worker.Stop(); });
    const nanoseconds duration = WallClock() - start;
    EXPECT_FALSE(has_stopped);
    EXPECT_GE(duration, seconds(10));
    EXPECT_LT(duration, seconds(25));
    EXPECT_THAT(messages, ElementsAre(stop_started_line, stop_failed_line));

    EXPECT_TRUE(worker.Start());
    EXPECT_TRUE(worker.Stop());
    EXPECT_EQ(1, worker.Calls()) << "it was told to stop before it started";
}

// ---- log

TEST_F(CSocketThread, LogTellsOfTheThreadAndOfItsStopInOrder) {
    const LogCapture log;
    Worker worker;
    worker.Start();
    ASSERT_TRUE(worker.WaitForCalls(3));
    EXPECT_THAT(log.Messages(), ElementsAre(proc_started_line));
    EXPECT_EQ(stop_succeeded_line, OnlyMessage(OutputOf([&] { worker.Stop(); }))) << "the outcome is never in the ring";
    EXPECT_TRUE(AllThreadsHaveEnded());
    EXPECT_THAT(log.Messages(), ElementsAre(proc_started_line, stop_started_line, loop_ending_line, proc_ending_line));
}

TEST_F(CSocketThread, ConsoleTellsTheOutcomeOfStopToo) {
    Worker worker;
    std::vector<std::string> messages = ConsoleMessagesOf([&] {
        worker.Start();
        worker.WaitForCalls(3);
        worker.Stop();
        AllThreadsHaveEnded();
    });
    const auto outcome = std::find(messages.begin(), messages.end(), stop_succeeded_line);
    ASSERT_NE(messages.end(), outcome);
    EXPECT_LT(std::find(messages.begin(), messages.end(), stop_started_line), outcome);
    messages.erase(outcome);
    EXPECT_THAT(messages, ElementsAre(proc_started_line, stop_started_line, loop_ending_line, proc_ending_line));
}

// ---- exceptions

TEST_F(CSocketThread, ExceptionOfAnyKindFromDoIsLoggedAndTheNextCallFollows) {
    struct NotAnException {};
    const std::function<void()> calls[] = {
        [] { throw std::runtime_error("from Do"); },
        [] { throw std::bad_alloc(); },
        [] { throw 5; },
        [] { throw "text"; },
        [] { throw NotAnException(); },
        [] { throw std::make_unique<int>(5); },
        [] {},
    };
    const LogCapture log;
    Worker worker;
    worker.on_do = [&] {
        const auto call = static_cast<std::size_t>(worker.Calls() - 1);
        if (call < std::size(calls)) {
            calls[call]();
        }
    };
    worker.Start();
    ASSERT_TRUE(worker.WaitForCalls(static_cast<int>(std::size(calls)) + 3));
    EXPECT_THAT(log.Messages(), ElementsAre(proc_started_line, do_threw_line, do_threw_line, do_threw_line,
                                            do_threw_line, do_threw_line, do_threw_line));
    EXPECT_EQ(1, worker.Starts());
}

TEST_F(CSocketThread, EachCallThatThrowsIsLoggedOnce) {
    Worker worker;
    worker.on_do = [] { throw std::runtime_error("from Do"); };
    bool has_stopped = false;
    const auto messages = ConsoleMessagesOf([&] {
        worker.Start();
        for (int calls = 100; calls <= 1000; calls += 100) {
            worker.WaitForCalls(calls);
        }
        has_stopped = worker.Stop();
        AllThreadsHaveEnded();
    });
    EXPECT_TRUE(has_stopped);
    EXPECT_LE(1000, worker.Calls());
    EXPECT_EQ(worker.Calls(), std::count(messages.begin(), messages.end(), do_threw_line));
    EXPECT_EQ(static_cast<std::size_t>(worker.Calls()) + 5, messages.size());
}

/// @return only when the process was not ended.
void RunWorkerWhoseThreadStartedThrows() {
    Worker worker;
    worker.on_started = [] { throw std::runtime_error("from ThreadStarted"); };
    worker.Start();
    Eventually([&] { return worker.Calls() != 0; });
    _exit(0);
}

TEST_F(CSocketThread, ExceptionFromThreadStartedEndsTheProcess) {
    EXPECT_EXIT(RunWorkerWhoseThreadStartedThrows(), testing::KilledBySignal(SIGABRT), "from ThreadStarted");
}

// ---- the functions that the thread runs

TEST_F(CSocketThread, ThreadProcWithoutAnObjectOnlyLogs) {
    for (const auto procedure : {&Thread::ThreadProc, &TarnSocketIO::ThreadProcWrapper}) {
        const LogCapture log;
        EXPECT_EQ(nullptr, procedure(nullptr));
        EXPECT_THAT(log.Messages(), ElementsAre(proc_started_line, proc_ending_line));
    }
}

/// Expects that `run` is the whole life of a worker, on the thread that calls it.
void ExpectRunsTheWorker(const std::function<bool(Worker&)>& run) {
    Worker worker;
    std::atomic<pid_t> caller{0};
    BackgroundCall call([&] {
        caller = ThisThread();
        return run(worker);
    });
    EXPECT_TRUE(worker.WaitForCalls(3));
    EXPECT_EQ(caller, worker.Thread());
    EXPECT_FALSE(call.HasEnded());
    EXPECT_TRUE(worker.Stop());
    EXPECT_TRUE(call.Result());
    EXPECT_EQ(1, worker.Starts());
}

TEST_F(CSocketThread, ThreadProcRunsTheObjectUntilItIsStopped) {
    for (const auto procedure : {&Thread::ThreadProc, &TarnSocketIO::ThreadProcWrapper}) {
        const LogCapture log;
        ExpectRunsTheWorker([&](Worker& worker) { return procedure(&worker) == nullptr; });
        EXPECT_THAT(log.Messages(),
                    ElementsAre(proc_started_line, stop_started_line, loop_ending_line, proc_ending_line));
    }
}

TEST_F(CSocketThread, IterateThreadFunctionIsTheLoop) {
    const LogCapture log;
    ExpectRunsTheWorker([](Worker& worker) {
        worker.IterateThreadFunction();
        return true;
    });
    EXPECT_THAT(log.Messages(), ElementsAre(stop_started_line, loop_ending_line));
}

}  // namespace

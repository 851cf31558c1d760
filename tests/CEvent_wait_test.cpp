// How long an event is waited for, on the real clock.
//
// Lower bounds are firm. Upper ones hold for the fastest of many attempts: noise only ever makes a wait longer.

#include <TarnSocketIO/CEvent.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <limits>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Eventually.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using TarnSocketIO::CEvent;
using TarnTest::BackgroundCall;
using TarnTest::Eventually;

using Clock = std::chrono::steady_clock;

constexpr milliseconds step(3);

// Steps that may be lost even in the fastest attempt.
constexpr milliseconds tolerance = 3 * step;

// Nothing in here takes as long, however busy the machine is.
constexpr seconds far_too_long(60);

constexpr long longest = std::numeric_limits<long>::max();
constexpr long shortest = std::numeric_limits<long>::min();

/// The least that a wait with this timeout lasts. gettimeofday has no fractions of a microsecond.
nanoseconds LeastFor(microseconds timeout) {
    return std::max<nanoseconds>(step, timeout - microseconds(1));
}

struct Wait {
    bool has_fired;
    nanoseconds duration;
};

Wait WaitOn(CEvent& event, long s, long us) {
    const auto start = Clock::now();
    const bool has_fired = event.WaitOnEvent(s, us);
    return {has_fired, Clock::now() - start};
}

Wait WaitOn(CEvent& event, microseconds timeout) {
    return WaitOn(event, 0, static_cast<long>(timeout.count()));
}

/// The shortest of the durations that `measure` returns, which is called until one is below `limit`, or often enough.
template <class Measure>
nanoseconds Fastest(nanoseconds limit, Measure measure) {
    nanoseconds fastest = far_too_long;
    for (int i = 0; i < 100 && fastest >= limit; ++i) {
        fastest = std::min<nanoseconds>(fastest, measure());
    }
    return fastest;
}

// ---- fired before the wait

TEST(CEventWait, ReturnsAtOnceWhenFired) {
    CEvent event;
    event.SetEvent();
    for (const long s : {0L, 10L, -1L, longest, shortest}) {
        for (const long us : {0L, 999'999L, -1L}) {
            SCOPED_TRACE(testing::Message() << s << " s, " << us << " us");
            EXPECT_LT(Fastest(step,
                              [&] {
                                  const Wait wait = WaitOn(event, s, us);
                                  EXPECT_TRUE(wait.has_fired);
                                  return wait.duration;
                              }),
                      step);
        }
    }
}

TEST(CEventWait, ReturnsAtOnceEachTimeUntilReset) {
    CEvent event;
    event.SetEvent();
    const auto start = Clock::now();
    for (int i = 0; i < 10'000; ++i) {
        ASSERT_TRUE(event.WaitOnEvent(10, 0));
    }
    // Ten thousand steps would have been 30 s.
    EXPECT_LT(Clock::now() - start, 10'000 * step);
    EXPECT_TRUE(event.GetFired()) << "reset by the waits";

    event.ResetEvent();
    const Wait wait = WaitOn(event, 0, 20'000);
    EXPECT_FALSE(wait.has_fired);
    EXPECT_GE(wait.duration, LeastFor(milliseconds(20)));
}

// ---- time over

TEST(CEventWait, SleepsOneStepWithAZeroTimeout) {
    CEvent event;
    const nanoseconds fastest = Fastest(2 * step, [&] {
        const Wait wait = WaitOn(event, 0, 0);
        EXPECT_FALSE(wait.has_fired);
        EXPECT_GE(wait.duration, step);
        return wait.duration;
    });
    EXPECT_LT(fastest, 2 * step) << "more than one step";
}

TEST(CEventWait, SleepsOneStepWithANegativeTimeout) {
    const std::vector<std::pair<long, long>> timeouts = {
        {-1, 0},       {0, -1},       {-1, 999'999},        {-1, -1},       {-10, 500'000},     {0, -5'000'000},
        {shortest, 0}, {0, shortest}, {shortest, shortest}, {-1, shortest}, {shortest, 999'999}};
    CEvent event;
    for (const auto& [s, us] : timeouts) {
        SCOPED_TRACE(testing::Message() << s << " s, " << us << " us");
        const nanoseconds fastest = Fastest(2 * step, [&, s = s, us = us] {
            const Wait wait = WaitOn(event, s, us);
            EXPECT_FALSE(wait.has_fired);
            EXPECT_GE(wait.duration, step);
            return wait.duration;
        });
        EXPECT_LT(fastest, 2 * step) << "more than one step";
    }
}

TEST(CEventWait, LastsAtLeastItsTimeout) {
    CEvent event;
    for (const long us : {1L, 2'999L, 3'000L, 3'001L, 10'000L, 50'000L, 123'456L}) {
        SCOPED_TRACE(us);
        const Wait wait = WaitOn(event, 0, us);
        EXPECT_FALSE(wait.has_fired);
        EXPECT_GE(wait.duration, LeastFor(microseconds(us)));
        EXPECT_LT(wait.duration, far_too_long);
    }
}

TEST(CEventWait, LastsAtLeastASecond) {
    CEvent event;
    const Wait wait = WaitOn(event, 1, 0);
    EXPECT_FALSE(wait.has_fired);
    EXPECT_GE(wait.duration, LeastFor(seconds(1)));
    EXPECT_LT(wait.duration, far_too_long);
}

TEST(CEventWait, LastsAtLeastAMicrosecondLessThanASecond) {
    CEvent event;
    const Wait wait = WaitOn(event, 0, 999'999);
    EXPECT_FALSE(wait.has_fired);
    EXPECT_GE(wait.duration, LeastFor(microseconds(999'999)));
    EXPECT_LT(wait.duration, far_too_long);
}

TEST(CEventWait, LastsAtLeastSecondsAndMicrosecondsTogether) {
    CEvent event;
    const Wait wait = WaitOn(event, 1, 200'000);
    EXPECT_FALSE(wait.has_fired);
    EXPECT_GE(wait.duration, LeastFor(milliseconds(1'200)));
    EXPECT_LT(wait.duration, far_too_long);
}

TEST(CEventWait, EndsAtMostAStepAfterItsTimeout) {
    CEvent event;
    for (const milliseconds timeout : {milliseconds(4), milliseconds(10), milliseconds(20)}) {
        SCOPED_TRACE(timeout.count());
        const nanoseconds latest = timeout + step + tolerance;
        EXPECT_LT(Fastest(latest,
                          [&] {
                              const Wait wait = WaitOn(event, timeout);
                              EXPECT_FALSE(wait.has_fired);
                              EXPECT_GE(wait.duration, LeastFor(timeout));
                              return wait.duration;
                          }),
                  latest);
    }
}

TEST(CEventWait, EachWaiterOfAnEventHasItsOwnTimeout) {
    CEvent event;
    std::vector<std::thread> waiters;
    for (const milliseconds timeout : {milliseconds(0), milliseconds(20), milliseconds(100), milliseconds(300)}) {
        waiters.emplace_back([&event, timeout] {
            const Wait wait = WaitOn(event, timeout);
            EXPECT_FALSE(wait.has_fired);
            EXPECT_GE(wait.duration, LeastFor(timeout));
        });
    }
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
}

// ---- fired during the wait

/// How long after its SetEvent, by another thread and after `delay`, a wait of 10 s ends.
nanoseconds LatenessOfAWaitThatIsEndedAfter(milliseconds delay) {
    CEvent event;
    Clock::time_point set_at;
    std::thread setter([&] {
        std::this_thread::sleep_for(delay);
        set_at = Clock::now();
        event.SetEvent();
    });
    EXPECT_TRUE(event.WaitOnEvent(10, 0));
    const Clock::time_point ended_at = Clock::now();
    setter.join();
    EXPECT_GE(ended_at, set_at) << "ended before the event was set";
    EXPECT_LT(ended_at - set_at, seconds(5));
    return ended_at - set_at;
}

TEST(CEventWait, EndsAStepAfterTheSetAtMost) {
    const auto measure = [] { return LatenessOfAWaitThatIsEndedAfter(milliseconds(50)); };
    EXPECT_LT(Fastest(2 * step, measure), 2 * step);
}

TEST(CEventWait, EndsWhenTheEventIsSetHoweverLongTheTimeout) {
    for (const long s : {1'000'000L, longest}) {
        SCOPED_TRACE(s);
        CEvent event;
        BackgroundCall waiter([&] { return event.WaitOnEvent(s, 999'999); });
        EXPECT_TRUE(Eventually([&] { return waiter.Waits() || waiter.HasEnded(); }));
        EXPECT_FALSE(event.WaitOnEvent(0, 30'000));
        EXPECT_FALSE(waiter.HasEnded());
        event.SetEvent();
        EXPECT_TRUE(waiter.Result());
    }
}

TEST(CEventWait, ReturnsTrueWhenTheEventFiresInTheStepThatEndsTheTime) {
    // Set for certain before the only step was over, and after it had begun: that is what an attempt has to be.
    bool has_happened = false;
    for (int i = 0; i < 200 && !has_happened; ++i) {
        CEvent event;
        std::atomic<bool> begins{false};
        Clock::time_point set_at;
        std::thread setter([&] {
            while (!begins) {
                std::this_thread::yield();
            }
            std::this_thread::sleep_for(milliseconds(1));
            event.SetEvent();
            set_at = Clock::now();
        });
        begins = true;
        const auto start = Clock::now();
        const Wait wait = WaitOn(event, 0, 0);
        setter.join();
        if (set_at - start < step && wait.duration >= step) {
            EXPECT_TRUE(wait.has_fired);
            has_happened = true;
        }
    }
    EXPECT_TRUE(has_happened) << "the machine was too busy in every attempt";
}

TEST(CEventWait, DoesNotResetTheEvent) {
    CEvent event;
    BackgroundCall waiter([&] { return event.WaitOnEvent(30, 0); });
    EXPECT_TRUE(Eventually([&] { return waiter.Waits(); }));
    event.SetEvent();
    EXPECT_TRUE(waiter.Result());
    EXPECT_TRUE(event.GetFired());
    EXPECT_TRUE(event.WaitOnEvent(0, 0));
    EXPECT_TRUE(event.GetFired());
}

TEST(CEventWait, EndsForEveryWaiterOfTheEvent) {
    CEvent event;
    std::vector<std::unique_ptr<BackgroundCall>> waiters;
    for (int i = 0; i < 20; ++i) {
        waiters.push_back(std::make_unique<BackgroundCall>([&] { return event.WaitOnEvent(30, 0); }));
    }
    for (const auto& waiter : waiters) {
        EXPECT_TRUE(Eventually([&] { return waiter->Waits(); }));
        EXPECT_FALSE(waiter->HasEnded());
    }
    event.SetEvent();
    for (const auto& waiter : waiters) {
        EXPECT_TRUE(waiter->Result());
    }
    EXPECT_TRUE(event.GetFired());
}

// ---- signals

std::atomic<int> signals_handled{0};
std::atomic<CEvent*> set_by_signal{nullptr};

void CountSignal(int) {
    ++signals_handled;
}

void SetOnSignal(int) {
    CEvent* const event = set_by_signal.exchange(nullptr);
    if (event != nullptr) {
        event->SetEvent();
    }
}

/// A handler that lets system calls be interrupted, for as long as the object lives.
class SignalHandler {
public:
    SignalHandler(int signal, void (*handler)(int)) : m_signal(signal) {
        struct sigaction action = {};
        action.sa_handler = handler;
        sigaction(signal, &action, &m_before);
    }
    ~SignalHandler() { sigaction(m_signal, &m_before, nullptr); }
    SignalHandler(const SignalHandler&) = delete;
    SignalHandler& operator=(const SignalHandler&) = delete;

private:
    const int m_signal;
    struct sigaction m_before = {};
};

/// Interrupts the thread that made it every millisecond, for as long as the object lives, but for no longer than a wait
/// that does not end because of it would have to be told from one that does.
class Interruptions {
public:
    Interruptions()
        : m_handler(SIGUSR1, CountSignal),
          m_before(signals_handled),
          m_is_over(false),
          m_thread([this, target = pthread_self()] {
              for (int i = 0; i < 20'000 && !m_is_over; ++i) {
                  pthread_kill(target, SIGUSR1);
                  std::this_thread::sleep_for(milliseconds(1));
              }
          }) {
        EXPECT_TRUE(Eventually([this] { return Count() > 0; })) << "no signal has come";
    }
    ~Interruptions() {
        m_is_over = true;
        m_thread.join();
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

    int Count() const { return signals_handled - m_before; }

private:
    const SignalHandler m_handler;
    const int m_before;
    std::atomic<bool> m_is_over;
    std::thread m_thread;
};

TEST(CEventWait, StepIsNotCutShortBySignals) {
    CEvent event;
    const Interruptions interruptions;
    for (int i = 0; i < 1'000 && interruptions.Count() < 2'000; ++i) {
        const Wait wait = WaitOn(event, 0, 0);
        ASSERT_FALSE(wait.has_fired);
        ASSERT_GE(wait.duration, step);
        ASSERT_LT(wait.duration, seconds(10)) << "begun anew with each signal";
    }
    EXPECT_LT(200, interruptions.Count()) << "too few signals to show anything";
}

TEST(CEventWait, TimeoutIsNotCutShortBySignals) {
    CEvent event;
    const Interruptions interruptions;
    for (int i = 0; i < 150 && interruptions.Count() < 2'000; ++i) {
        const Wait wait = WaitOn(event, 0, 20'000);
        ASSERT_FALSE(wait.has_fired);
        ASSERT_GE(wait.duration, LeastFor(milliseconds(20)));
        ASSERT_LT(wait.duration, seconds(10)) << "begun anew with each signal";
    }
    EXPECT_LT(200, interruptions.Count()) << "too few signals to show anything";
}

TEST(CEventWait, TimeoutIsNotDrawnOutBySignals) {
    CEvent event;
    const Interruptions interruptions;
    const nanoseconds latest = milliseconds(20) + step + tolerance;
    const auto measure = [&]() -> nanoseconds {
        const int before = interruptions.Count();
        const nanoseconds duration = WaitOn(event, 0, 20'000).duration;
        return interruptions.Count() > before ? duration : far_too_long;
    };
    EXPECT_LT(Fastest(latest, measure), latest);
}

TEST(CEventWait, SetIsNoticedInTimeAmongSignals) {
    const Interruptions interruptions;
    const auto measure = [] { return LatenessOfAWaitThatIsEndedAfter(milliseconds(50)); };
    EXPECT_LT(Fastest(3 * step, measure), 3 * step);
}

TEST(CEventWait, EndsWhenASignalHandlerSetsTheEvent) {
    const SignalHandler handler(SIGALRM, SetOnSignal);
    for (int i = 0; i < 20; ++i) {
        CEvent event;
        set_by_signal = &event;
        itimerval timer = {};
        timer.it_value.tv_usec = 10'000;
        ASSERT_EQ(0, setitimer(ITIMER_REAL, &timer, nullptr));
        EXPECT_TRUE(event.WaitOnEvent(30, 0));
        EXPECT_EQ(nullptr, set_by_signal);
    }
}

}  // namespace

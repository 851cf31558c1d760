// What a wait asks of the system, and what it makes of the answers: sleeps, the clock, failures.

#include <TarnSocketIO/CEvent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/Duration.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/RuntimeCalls.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using TarnSocketIO::CEvent;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::ClockShift;
using TarnTest::DurationOf;
using TarnTest::FailingCalls;
using TarnTest::SleepWatch;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

using Clock = std::chrono::steady_clock;

constexpr nanoseconds step(3'000'000);

constexpr int forever = std::numeric_limits<int>::max();
constexpr long longest = std::numeric_limits<long>::max();
constexpr long shortest = std::numeric_limits<long>::min();

/// How long the sleeps of this thread were to last in a wait for an event that does not fire.
std::vector<nanoseconds> SleepsOf(long s, long us) {
    CEvent event;
    const SleepWatch sleeps;
    EXPECT_FALSE(event.WaitOnEvent(s, us));
    return sleeps.Requested();
}

// ---- steps

TEST(CEventFaults, EachStepIsOfThreeMilliseconds) {
    const std::vector<nanoseconds> sleeps = SleepsOf(0, 30'000);
    EXPECT_THAT(sleeps, Each(step));
    EXPECT_LE(1U, sleeps.size());
    EXPECT_GE(11U, sleeps.size()) << "went on after the time was over";
}

TEST(CEventFaults, TimeoutOfASingleStepOrLessSleepsOnce) {
    for (const long us : {0L, 1L, 2'000L, 2'999L}) {
        SCOPED_TRACE(us);
        EXPECT_THAT(SleepsOf(0, us), ElementsAre(step));
    }
}

TEST(CEventFaults, NegativeTimeoutSleepsOnce) {
    const std::vector<std::pair<long, long>> timeouts = {
        {-1, 0}, {0, -1}, {-1, 999'999}, {shortest, 0}, {0, shortest}, {shortest, shortest}, {shortest, longest}};
    for (const auto& [s, us] : timeouts) {
        SCOPED_TRACE(testing::Message() << s << " s, " << us << " us");
        EXPECT_THAT(SleepsOf(s, us), ElementsAre(step));
    }
}

TEST(CEventFaults, FiredEventSleepsNotAtAll) {
    CEvent event;
    event.SetEvent();
    const SleepWatch sleeps;
    for (const long s : {0L, 10L, -1L, longest, shortest}) {
        EXPECT_TRUE(event.WaitOnEvent(s, 0));
        EXPECT_TRUE(event.WaitOnEvent(s, 999'999));
        EXPECT_TRUE(event.WaitOnEvent(s, -1));
    }
    EXPECT_THAT(sleeps.Requested(), IsEmpty());

    event.ResetEvent();
    EXPECT_FALSE(event.WaitOnEvent(0, 0));
    EXPECT_THAT(sleeps.Requested(), ElementsAre(step)) << "a sleep would not have been noticed";
}

TEST(CEventFaults, OnlyWaitingSleeps) {
    const SleepWatch sleeps;
    CEvent event;
    event.Lock();
    event.SetEvent();
    event.GetFired();
    event.ResetEvent();
    event.Unlock();
    EXPECT_THAT(sleeps.Requested(), IsEmpty());
}

TEST(CEventFaults, WaitAfterTheEventFiredSleepsNoMore) {
    CEvent event;
    std::thread setter([&] {
        std::this_thread::sleep_for(milliseconds(20));
        event.SetEvent();
    });
    const SleepWatch sleeps;
    EXPECT_TRUE(event.WaitOnEvent(30, 0));
    const std::size_t needed = sleeps.Requested().size();
    EXPECT_TRUE(event.WaitOnEvent(30, 0));
    setter.join();
    EXPECT_THAT(sleeps.Requested(), Each(step));
    EXPECT_EQ(needed, sleeps.Requested().size());
}

TEST(CEventFaults, MakesOneMutexAndAllocatesNothing) {
    alignas(CEvent) std::array<unsigned char, sizeof(CEvent)> room;
    const CallWatch mutexes(Call::CreateMutex);
    const CallWatch allocations(Call::Allocate);
    auto* const event = new (room.data()) CEvent;
    EXPECT_EQ(1, mutexes.Count());
    event->Lock();
    event->WaitOnEvent(0, 0);
    event->SetEvent();
    event->WaitOnEvent(0, 0);
    event->GetFired();
    event->ResetEvent();
    event->Unlock();
    event->~CEvent();
    EXPECT_EQ(1, mutexes.Count());
    EXPECT_EQ(0, allocations.Count());
}

/// Acts on a thread of its own while the test's thread waits. It does not sleep: sleeps are counted.
class Meanwhile {
public:
    /// @param act  called when the wait has begun its first sleep, hence recorded its start.
    template <class Act>
    explicit Meanwhile(Act act)
        : m_is_over(false), m_thread([this, act] {
              if (SleepsBegin(1)) {
                  act(*this);
              }
          }) {}
    ~Meanwhile() {
        m_is_over = true;
        m_thread.join();
    }
    Meanwhile(const Meanwhile&) = delete;
    Meanwhile& operator=(const Meanwhile&) = delete;

    /// How many sleeps have begun.
    int Sleeps() const { return m_sleeps.Count(); }

    /// Waits until this many have begun. @return false if the wait ends before.
    bool SleepsBegin(int count) const {
        while (Sleeps() < count && !m_is_over) {
            std::this_thread::yield();
        }
        return Sleeps() >= count;
    }

private:
    const CallWatch m_sleeps{Call::Sleep};
    std::atomic<bool> m_is_over;
    std::thread m_thread;
};

// ---- interrupted sleeps

TEST(CEventFaults, InterruptedStepIsContinued) {
    for (const int times : {1, 2, 10}) {
        SCOPED_TRACE(times);
        CEvent event;
        const FailingCalls interrupted(Call::Sleep, EINTR, times);
        const CallWatch sleeps(Call::Sleep);
        EXPECT_GE(DurationOf([&] { EXPECT_FALSE(event.WaitOnEvent(0, 0)); }), step);
        EXPECT_EQ(times, interrupted.Failed());
        EXPECT_EQ(times + 1, sleeps.Count());
    }
}

TEST(CEventFaults, StepThatIsInterruptedLaterInTheWaitIsContinued) {
    CEvent event;
    const FailingCalls interrupted(Call::Sleep, EINTR, 3, 2);
    const auto start = Clock::now();
    EXPECT_FALSE(event.WaitOnEvent(0, 30'000));
    EXPECT_GE(Clock::now() - start, milliseconds(30) - microseconds(1));
    EXPECT_EQ(3, interrupted.Failed());
}

TEST(CEventFaults, InterruptionsDoNotHideThatTheEventFired) {
    CEvent event;
    const FailingCalls interrupted(Call::Sleep, EINTR, 5, 1);
    {
        const Meanwhile meanwhile([&](const Meanwhile& self) {
            EXPECT_TRUE(self.SleepsBegin(7));
            event.SetEvent();
        });
        EXPECT_TRUE(event.WaitOnEvent(30, 0));
    }
    EXPECT_EQ(5, interrupted.Failed());
}

TEST(CEventFaults, ErrorFromBeforeTheWaitMeansNothingToIt) {
    for (const int error : {EINTR, EINVAL, EAGAIN}) {
        errno = error;
        EXPECT_THAT(SleepsOf(0, 0), ElementsAre(step));
    }
}

TEST(CEventFaults, SleepThatFailsForGoodDoesNotKeepTheWaitFromItsEnd) {
    for (const int error : {EINVAL, EFAULT, ENOSYS}) {
        SCOPED_TRACE(error);
        CEvent event;
        const FailingCalls failing(Call::Sleep, error, forever);
        const auto start = Clock::now();
        EXPECT_FALSE(event.WaitOnEvent(0, 20'000));
        EXPECT_GE(Clock::now() - start, milliseconds(20) - microseconds(1));
        event.SetEvent();
        EXPECT_TRUE(event.WaitOnEvent(0, 0));
    }
}

// ---- the clock

struct Wait {
    bool has_fired;
    nanoseconds duration;
    int sleeps_afterwards;  ///< that were begun after the clock was set
};

/// A wait during which the clock is set forward.
Wait WaitWhileTheClockIsSet(long s, long us, microseconds shift) {
    CEvent event;
    ClockShift clock(microseconds(0));
    int sleeps_before = 0;
    int sleeps = 0;
    Wait wait = {};
    {
        const Meanwhile meanwhile([&](const Meanwhile& self) {
            clock.Set(shift);
            sleeps_before = self.Sleeps();
        });
        const auto start = Clock::now();
        wait.has_fired = event.WaitOnEvent(s, us);
        wait.duration = Clock::now() - start;
        sleeps = meanwhile.Sleeps();
    }
    wait.sleeps_afterwards = sleeps - sleeps_before;
    return wait;
}

TEST(CEventFaults, ClockSetForwardEndsTheWait) {
    struct Case {
        long s;
        long us;
        seconds shift;
    };
    const Case cases[] = {
        {10, 0, seconds(10)},      {10, 1, seconds(10)},     {9, 999'999, seconds(10)},
        {5, 900'000, seconds(10)}, {0, 999'999, seconds(1)}, {1'000, 0, seconds(1'000'000)},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(testing::Message() << one.s << " s, " << one.us << " us");
        const Wait wait = WaitWhileTheClockIsSet(one.s, one.us, one.shift);
        EXPECT_FALSE(wait.has_fired);
        // One at most: begun after the clock was read for the last time, and before it was set.
        EXPECT_GE(1, wait.sleeps_afterwards);
    }
}

TEST(CEventFaults, ClockSetForwardTakesNoMoreFromTheWaitThanItWasSet) {
    const Wait wait = WaitWhileTheClockIsSet(10, 999'999, seconds(10));
    EXPECT_FALSE(wait.has_fired);
    EXPECT_GE(wait.duration, microseconds(999'998));
}

TEST(CEventFaults, MicrosecondsAloneDoNotEndTheWait) {
    CEvent event;
    ClockShift clock(microseconds(0));
    bool went_on = false;
    {
        const Meanwhile meanwhile([&](const Meanwhile& self) {
            clock.Set(seconds(10) + milliseconds(500));
            went_on = self.SleepsBegin(self.Sleeps() + 10);
            event.SetEvent();
        });
        EXPECT_TRUE(event.WaitOnEvent(1'000, 1));
    }
    EXPECT_TRUE(went_on);
}

TEST(CEventFaults, ClockSetBackDrawsTheWaitOut) {
    CEvent event;
    ClockShift clock(microseconds(0));
    bool went_on = false;
    {
        const Meanwhile meanwhile([&](const Meanwhile& self) {
            clock.Set(-seconds(1'000));
            went_on = self.SleepsBegin(self.Sleeps() + 30);
            clock.Set(microseconds(0));
        });
        EXPECT_FALSE(event.WaitOnEvent(0, 20'000));
    }
    EXPECT_TRUE(went_on);
}

TEST(CEventFaults, ClockSetBackByLessThanASecondDrawsTheWaitOut) {
    CEvent event;
    ClockShift clock(microseconds(0));
    bool went_on = false;
    {
        const Meanwhile meanwhile([&](const Meanwhile& self) {
            clock.Set(-milliseconds(500));
            went_on = self.SleepsBegin(self.Sleeps() + 10);
            event.SetEvent();
        });
        EXPECT_TRUE(event.WaitOnEvent(0, 900'000));
    }
    EXPECT_TRUE(went_on);
}

TEST(CEventFaults, ClockThatWasWrongFromTheStartMakesNoDifference) {
    for (const seconds shift : {seconds(1'000'000), seconds(-1'000'000)}) {
        SCOPED_TRACE(shift.count());
        const ClockShift clock(shift);
        const auto start = Clock::now();
        const std::vector<nanoseconds> sleeps = SleepsOf(0, 30'000);
        EXPECT_GE(Clock::now() - start, milliseconds(30) - microseconds(1));
        EXPECT_GE(11U, sleeps.size());
    }
}

TEST(CEventFaults, SecondThatBeginsDuringTheWaitIsNoSecondThatHasPassed) {
    timeval now = {};
    ASSERT_EQ(0, gettimeofday(&now, nullptr));
    const ClockShift clock(microseconds(990'000 - now.tv_usec));
    const auto start = Clock::now();
    const std::vector<nanoseconds> sleeps = SleepsOf(0, 30'000);
    EXPECT_GE(Clock::now() - start, milliseconds(30) - microseconds(1));
    EXPECT_GE(11U, sleeps.size());
}

TEST(CEventFaults, EventThatFiresInTheStepThatEndsTheTimeIsFired) {
    CEvent event;
    ClockShift clock(microseconds(0));
    {
        const Meanwhile meanwhile([&](const Meanwhile&) {
            event.SetEvent();
            clock.Set(seconds(1'000));
        });
        EXPECT_TRUE(event.WaitOnEvent(30, 0));
    }
}

TEST(CEventFaults, MicrosecondsBeyondASecondCountAsTheRestOfIt) {
    const Wait wait = WaitWhileTheClockIsSet(10, 5'000'000, seconds(11));
    EXPECT_FALSE(wait.has_fired);
    EXPECT_GE(1, wait.sleeps_afterwards);
}

TEST(CEventFaults, MicrosecondsBelowZeroLeaveTheSecondsAsTheyAre) {
    CEvent event;
    ClockShift clock(microseconds(0));
    bool went_on = false;
    {
        const Meanwhile meanwhile([&](const Meanwhile& self) {
            clock.Set(seconds(500));
            went_on = self.SleepsBegin(self.Sleeps() + 10);
            clock.Set(seconds(1'000));
        });
        EXPECT_FALSE(event.WaitOnEvent(1'000, -1));
    }
    EXPECT_TRUE(went_on);
}

}  // namespace

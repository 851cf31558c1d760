// The steps of a wait one by one, in a time that passes in sleeps only.

#include <TarnSocketIO/CEvent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

#include "tests/support/FailingCalls.h"
#include "tests/support/RuntimeCalls.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using TarnSocketIO::CEvent;
using TarnTest::Call;
using TarnTest::FailingCalls;
using TarnTest::SleptTime;

constexpr microseconds step(3'000);

// What the clock shows at the start of a wait: any, then such that a second begins in or right after the first step.
constexpr microseconds starts[] = {
    seconds(1'700'000'000) + microseconds(123'456), seconds(1'700'000'000),
    seconds(1'700'000'000) + microseconds(997'000), seconds(1'700'000'000) + microseconds(997'001),
    seconds(1'700'000'000) + microseconds(999'999), microseconds(0),
};

/// How many steps a wait for an event that does not fire is made of.
int StepsOf(microseconds start, long s, long us) {
    CEvent event;
    const SleptTime time(start);
    EXPECT_FALSE(event.WaitOnEvent(s, us));
    return time.Sleeps();
}

TEST(CEventSteps, TimeIsOverWhenAsMuchHasPassedAndNotBefore) {
    struct Case {
        long s;
        long us;
        int steps;
    };
    const Case cases[] = {
        {0, 0, 1},     {0, 1, 1},         {0, 2'999, 1},     {0, 3'000, 1},     {0, 3'001, 2},     {0, 6'000, 2},
        {0, 6'001, 3}, {0, 996'000, 332}, {0, 996'001, 333}, {0, 999'000, 333}, {0, 999'001, 334}, {0, 999'999, 334},
        {1, 0, 334},   {1, 1'999, 334},   {1, 2'000, 334},   {1, 2'001, 335},   {1, 998'000, 666}, {1, 998'001, 667},
        {2, 0, 667},   {3, 0, 1'000},     {3, 1, 1'001},     {10, 0, 3'334},
    };
    for (const microseconds start : starts) {
        for (const Case& one : cases) {
            EXPECT_EQ(one.steps, StepsOf(start, one.s, one.us))
                << one.s << " s, " << one.us << " us from " << start.count();
        }
    }
}

TEST(CEventSteps, TimeoutIsRoundedUpToWholeSteps) {
    for (long us = 0; us <= 30'000; us += 7) {
        const int whole_steps = static_cast<int>((us + step.count() - 1) / step.count());
        ASSERT_EQ(std::max(1, whole_steps), StepsOf(starts[us % 5], 0, us)) << us;
    }
}

TEST(CEventSteps, NegativeTimeoutIsOverAfterOneStep) {
    constexpr long shortest = std::numeric_limits<long>::min();
    for (const microseconds start : starts) {
        for (const long us : {0L, 999'999L, -1L, shortest}) {
            EXPECT_EQ(1, StepsOf(start, -1, us));
            EXPECT_EQ(1, StepsOf(start, shortest, us));
        }
        EXPECT_EQ(1, StepsOf(start, 0, -1));
        EXPECT_EQ(1, StepsOf(start, 0, shortest));
    }
}

TEST(CEventSteps, MicrosecondsBeyondASecondCountAsTheRestOfIt) {
    for (const long us : {1'000'000L, 5'000'000L, std::numeric_limits<long>::max()}) {
        EXPECT_EQ(334, StepsOf(starts[0], 0, us));
        EXPECT_EQ(667, StepsOf(starts[0], 1, us));
    }
}

TEST(CEventSteps, EndsWithTheStepInWhichTheEventFires) {
    for (const int last : {0, 1, 2, 99, 332, 333}) {
        CEvent event;
        const SleptTime time(starts[0], [&](int sleeps) {
            if (sleeps == last) {
                event.SetEvent();
            }
        });
        EXPECT_TRUE(event.WaitOnEvent(10, 0));
        EXPECT_EQ(last + 1, time.Sleeps());
    }
}

TEST(CEventSteps, IsFiredWhenTheEventFiresInTheStepThatEndsTheTime) {
    for (const long us : {0L, 3'000L, 3'001L, 30'000L}) {
        CEvent event;
        const int last = StepsOf(starts[0], 0, us) - 1;
        const SleptTime time(starts[0], [&](int sleeps) {
            if (sleeps == last) {
                event.SetEvent();
            }
        });
        EXPECT_TRUE(event.WaitOnEvent(0, us));
        EXPECT_EQ(last + 1, time.Sleeps());
    }
}

TEST(CEventSteps, EventThatIsResetAgainWithinAStepGoesUnnoticed) {
    CEvent event;
    const SleptTime time(starts[0], [&](int) {
        event.SetEvent();
        event.ResetEvent();
    });
    EXPECT_FALSE(event.WaitOnEvent(0, 30'000));
    EXPECT_EQ(10, time.Sleeps());
}

TEST(CEventSteps, InterruptionsAreNoSteps) {
    CEvent event;
    const SleptTime time(starts[0]);
    const FailingCalls interrupted(Call::Sleep, EINTR, 7, 3);
    EXPECT_FALSE(event.WaitOnEvent(0, 30'000));
    EXPECT_EQ(7, interrupted.Failed());
    EXPECT_EQ(10, time.Sleeps());
}

TEST(CEventSteps, ClockSetForwardEndsTheWaitWhenItPassesTheTimeout) {
    struct Case {
        microseconds shift;
        int steps;
    };
    // Set in the second step, which ends 6 ms after the start.
    const Case cases[] = {
        {seconds(10), 2},
        {seconds(10) - milliseconds(6), 2},
        {seconds(10) - milliseconds(6) - microseconds(1), 3},
        {seconds(10) - milliseconds(9), 3},
        {seconds(9), 334},
        {-seconds(1), 3'667},
    };
    for (const microseconds start : starts) {
        for (const Case& one : cases) {
            CEvent event;
            SleptTime time(start, [&](int sleeps) {
                if (sleeps == 1) {
                    time.SetClock(time.Now() + one.shift);
                }
            });
            EXPECT_FALSE(event.WaitOnEvent(10, 0));
            EXPECT_EQ(one.steps, time.Sleeps()) << one.shift.count() << " us from " << start.count();
        }
    }
}

}  // namespace

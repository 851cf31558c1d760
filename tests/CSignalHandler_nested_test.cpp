#include <TarnSocketIO/CSignalHandler.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/SignalReports.h"

namespace {

using TarnSocketIO::CSignalHandler;
using TarnTest::BlockedSignals;
using TarnTest::CaughtLines;
using TarnTest::ChildProcess;
using TarnTest::Eventually;
using TarnTest::handled_signals;
using TarnTest::InChild;
using TarnTest::SignalRecorder;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;

// The thread used to wait for the lock that it held itself, for ever.
TEST(CSignalHandlerNested, ASignalDuringTheCallbackComesWhenTheCallbackHasReturned) {
    InChild([] {
        SignalRecorder recorder;
        const CSignalHandler handler(&recorder);
        recorder.on_signal = [&recorder](int signal) {
            if (signal == SIGTERM) {
                raise(SIGINT);
                EXPECT_EQ(0U, recorder.Calls());
            }
        };
        raise(SIGTERM);
        EXPECT_THAT(recorder.Signals(), ElementsAre(SIGTERM, SIGINT));
        EXPECT_FALSE(recorder.HasOverlapped());
    });
}

TEST(CSignalHandlerNested, EveryHandledSignalWaitsForTheCallback) {
    InChild([] {
        SignalRecorder recorder;
        const CSignalHandler handler(&recorder);
        recorder.on_signal = [&recorder](int) {
            if (recorder.Calls() == 0) {
                for (const int signal : handled_signals) {
                    raise(signal);
                }
                EXPECT_EQ(0U, recorder.Calls());
            }
        };
        raise(SIGCONT);
        std::vector<int> expected(handled_signals.begin(), handled_signals.end());
        expected.push_back(SIGCONT);
        EXPECT_THAT(recorder.Signals(), UnorderedElementsAreArray(expected));
        EXPECT_FALSE(recorder.HasOverlapped());
    });
}

TEST(CSignalHandlerNested, AFaultInTheCallbackEndsTheProcess) {
    ChildProcess child([] {
        SignalRecorder recorder;
        const CSignalHandler handler(&recorder);
        recorder.on_signal = [](int) {
            volatile std::uintptr_t nowhere = 0x10;
            // NOLINTNEXTLINE(performance-no-int-to-ptr): a pointer to nothing is the point
            static_cast<void>(*reinterpret_cast<const volatile int*>(nowhere));
        };
        raise(SIGTERM);
    });
    EXPECT_EQ(SIGSEGV, child.EndingSignal());
}

TEST(CSignalHandlerNested, TheCallbackLeavesTheMaskOfItsThreadAsItWas) {
    InChild([] {
        SignalRecorder recorder;
        CSignalHandler handler(&recorder);
        EXPECT_THAT(BlockedSignals(), IsEmpty());
        raise(SIGCONT);
        EXPECT_THAT(BlockedSignals(), IsEmpty());
        handler.BlockSignals();
        raise(SIGCONT);
        const CSignalHandler another(&recorder);
        EXPECT_THAT(BlockedSignals(), ElementsAre(SIGINT, SIGTERM));
        EXPECT_EQ(2U, recorder.Calls());
    });
}

// A signal that hit the thread in the moment of registration used to hang it.
TEST(CSignalHandlerNested, RegisteringGoesOnInARainOfSignals) {
    InChild([] {
        constexpr std::size_t enough = 500;
        SignalRecorder recorder;
        const CSignalHandler handler(&recorder);
        std::atomic<bool> done{false};
        std::thread rain([&done, registering = pthread_self()] {
            while (!done) {
                pthread_kill(registering, SIGPOLL);
                std::this_thread::sleep_for(std::chrono::microseconds(20));
            }
        });
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (recorder.Calls() < enough && std::chrono::steady_clock::now() < end) {
            // The one that goes leaves no callback, the next brings it back.
            const CSignalHandler another(&recorder);
        }
        done = true;
        rain.join();
        EXPECT_GE(recorder.Calls(), enough);
    });
}

// A signal that hit a thread in the moment in which it took the lock of standard output used to hang it.
TEST(CSignalHandlerNested, TheReportComesAlsoWhileStandardOutputIsLocked) {
    ChildProcess child([] {
        SignalRecorder recorder;
        const CSignalHandler handler(&recorder);
        std::atomic<bool> is_locked{false};
        std::atomic<bool> done{false};
        std::thread printing([&] {
            flockfile(stdout);
            is_locked = true;
            Eventually([&] { return done.load(); });
            funlockfile(stdout);
        });
        EXPECT_TRUE(Eventually([&] { return is_locked.load(); }));
        pthread_kill(pthread_self(), SIGINT);
        EXPECT_EQ(1U, recorder.Calls());
        done = true;
        printing.join();
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_THAT(child.Output(), HasSubstr(CaughtLines("SIGINT")));
}

TEST(CSignalHandlerNested, TheReportComesInItsPlaceAmongWhatTheProcessPrints) {
    ChildProcess child([] {
        SignalRecorder recorder;
        const CSignalHandler handler(&recorder);
        std::printf("before\n");
        raise(SIGCONT);
        std::printf("after\n");
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_THAT(child.Output(), AllOf(HasSubstr("before\nCSignalHandler::SignalHandler - got signal"),
                                      EndsWith(CaughtLines("unknown") + "after\n")));
}

}  // namespace

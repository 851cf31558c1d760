// Signals in processes with threads, at a high rate, inside of each other, and in processes that are broken. All of it
// happens in child processes.

#include <TarnSocketIO/CSignalHandler.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/Resources.h"
#include "tests/support/SignalReports.h"

namespace {

using TarnSocketIO::CSignalHandler;
using TarnTest::BackgroundCall;
using TarnTest::BlockedSignals;
using TarnTest::ChildProcess;
using TarnTest::Eventually;
using TarnTest::handled_signals;
using TarnTest::HandlerWithRecorder;
using TarnTest::InChild;
using TarnTest::PrepareForSignals;
using TarnTest::Report;
using TarnTest::SendToItself;
using TarnTest::SignalRecord;
using TarnTest::SignalRecorder;
using TarnTest::ThisThread;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsSupersetOf;
using testing::UnorderedElementsAre;

using Clock = std::chrono::steady_clock;

void Block(int signal) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &set, nullptr));
}

/// Waits without a pause, for what happens very often.
template <class Condition>
bool Soon(Condition condition) {
    const Clock::time_point end = Clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

std::size_t CountOf(const std::string& part, const std::string& text) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

// ---- which thread

TEST(CSignalHandler, BlockedTerminationWaitsUntilTheThreadIsOpened) {
    InChild([] {
        const HandlerWithRecorder handled;
        (*handled).BlockSignals();
        for (const int signal : {SIGTERM, SIGINT}) {
            ASSERT_EQ(0, kill(getpid(), signal));
        }
        raise(SIGCONT);  // what is not blocked comes
        EXPECT_THAT(handled.recorder.Signals(), ElementsAre(SIGCONT));
        (*handled).UnblockSignals();
        EXPECT_TRUE(handled.HasBeenTold(3));
        EXPECT_THAT(handled.recorder.Signals(), UnorderedElementsAre(SIGCONT, SIGTERM, SIGINT));
    });
}

TEST(CSignalHandler, TerminationGoesToTheThreadThatIsNotBlocked) {
    InChild([] {
        const HandlerWithRecorder handled;
        std::atomic<pid_t> worker_id{0};
        std::thread worker([&] {
            PrepareForSignals();
            worker_id = ThisThread();
            EXPECT_TRUE(handled.HasBeenTold(20));
        });
        (*handled).BlockSignals();
        EXPECT_TRUE(Eventually([&] { return worker_id != 0; }));
        for (std::size_t n = 0; n < 20; ++n) {
            EXPECT_EQ(0, kill(getpid(), SIGTERM));
            EXPECT_TRUE(handled.HasBeenTold(n + 1));
            EXPECT_EQ(worker_id, handled.recorder.Told(n).thread);
        }
        worker.join();
    });
}

TEST(CSignalHandler, NewThreadsInheritWhatIsBlocked) {
    InChild([] {
        const HandlerWithRecorder handled;
        (*handled).BlockSignals();
        std::thread([] { EXPECT_THAT(BlockedSignals(), IsSupersetOf({SIGINT, SIGTERM})); }).join();
    });
}

TEST(CSignalHandler, CallbackRunsOnTheThreadThatGetsTheSignal) {
    InChild([] {
        const HandlerWithRecorder handled;
        std::atomic<pid_t> worker_id{0};
        std::thread worker([&] {
            PrepareForSignals();
            worker_id = ThisThread();
            EXPECT_TRUE(handled.HasBeenTold(2));
        });
        EXPECT_TRUE(Eventually([&] { return worker_id != 0; }));
        raise(SIGINT);
        EXPECT_EQ(0, pthread_kill(worker.native_handle(), SIGINT));
        worker.join();
        EXPECT_EQ(ThisThread(), handled.recorder.Told(0).thread);
        EXPECT_EQ(worker_id, handled.recorder.Told(1).thread);
    });
}

// ---- while a callback runs

/// A callback that stays where it is, on a thread of its own, until it is let go.
class StayingCallback {
public:
    StayingCallback() : m_is_free(false), m_thread([this] { return Raise(); }) {
        EXPECT_TRUE(Eventually([this] { return handled.recorder.IsRunning(); }));
    }
    ~StayingCallback() { LetGo(); }
    StayingCallback(const StayingCallback&) = delete;
    StayingCallback& operator=(const StayingCallback&) = delete;

    void LetGo() { m_is_free = true; }

    HandlerWithRecorder handled;

private:
    bool Raise() {
        handled.recorder.on_signal = [this](int) { Soon([this] { return m_is_free.load(); }); };
        return raise(SIGINT) == 0;
    }

    std::atomic<bool> m_is_free;
    BackgroundCall m_thread;
};

TEST(CSignalHandler, RegistrationWaitsForARunningCallback) {
    InChild([] {
        SignalRecorder recorder;
        StayingCallback staying;
        BackgroundCall registration([&] {
            const CSignalHandler next(&recorder);
            return staying.handled.recorder.Calls() == 1;
        });
        EXPECT_TRUE(Eventually([&] { return registration.Waits(); }));
        EXPECT_FALSE(registration.HasEnded());
        EXPECT_EQ(&staying.handled.recorder, CSignalHandler::m_pHandler.load());
        staying.LetGo();
        EXPECT_TRUE(registration.Result()) << "registered while the callback ran";
    });
}

TEST(CSignalHandler, DestructionDoesNotWaitForARunningCallback) {
    InChild([] {
        StayingCallback staying;
        staying.handled.DestroyHandler();
        EXPECT_EQ(nullptr, CSignalHandler::m_pHandler.load());
        EXPECT_TRUE(staying.handled.recorder.IsRunning());
    });
}

TEST(CSignalHandler, SignalsOfOtherThreadsWaitForARunningCallback) {
    InChild([] {
        StayingCallback staying;
        BackgroundCall other([] { return raise(SIGTERM) == 0; });
        EXPECT_TRUE(Eventually([&] { return other.Waits(); }));
        EXPECT_EQ(0u, staying.handled.recorder.Calls());
        staying.LetGo();
        EXPECT_TRUE(other.Result());
        EXPECT_TRUE(staying.handled.HasBeenTold(2));
        EXPECT_THAT(staying.handled.recorder.Signals(), ElementsAre(SIGINT, SIGTERM));
        EXPECT_FALSE(staying.handled.recorder.HasOverlapped());
    });
}

TEST(CSignalHandler, CallbackCanEndTheProcessAsTheSignalWouldHave) {
    for (const int signal : {SIGTERM, SIGSEGV}) {
        SignalRecorder recorder;
        recorder.on_signal = [](int ending) {
            std::signal(ending, SIG_DFL);
            raise(ending);
        };
        ChildProcess child([&recorder, signal] {
            const CSignalHandler handler(&recorder);
            if (signal == SIGSEGV) {
                TarnTest::ReadFrom(nullptr);
            }
            raise(signal);
        });
        EXPECT_EQ(signal, child.EndingSignal());
        EXPECT_EQ(1u, CountOf("got signal", child.Output()));
    }
}

TEST(CSignalHandler, InstanceMayBeDestroyedByItsCallback) {
    // As by exit(3) in the callback, for a static instance.
    InChild([] {
        SignalRecorder recorder;
        std::optional<CSignalHandler> handler;
        handler.emplace(&recorder);
        recorder.on_signal = [&handler](int) { handler.reset(); };
        raise(SIGTERM);
        raise(SIGTERM);
        EXPECT_EQ(1u, recorder.Calls());
        EXPECT_EQ(nullptr, CSignalHandler::m_pHandler.load());
    });
}

// ---- many signals

TEST(CSignalHandler, EverySignalThatThreadsRaiseAtOnceIsReportedAndForwarded) {
    static constexpr int threads = 4;
    static constexpr int times = 500;
    static constexpr std::size_t all = std::size_t{threads} * times;
    ChildProcess child([] {
        const HandlerWithRecorder handled;
        std::vector<std::thread> raising;
        for (int i = 0; i < threads; ++i) {
            raising.emplace_back([signal = handled_signals[static_cast<std::size_t>(i)]] {
                for (int n = 0; n < times; ++n) {
                    EXPECT_EQ(0, raise(signal));
                }
            });
        }
        for (std::thread& thread : raising) {
            thread.join();
        }
        EXPECT_EQ(all, handled.recorder.Calls());
        EXPECT_FALSE(handled.recorder.HasOverlapped());
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.EndingSignal();
    EXPECT_EQ("", child.Failures() + child.Errors());
    EXPECT_EQ(all, CountOf("CSignalHandler::SignalHandler - got signal ", child.Output()));
    EXPECT_EQ(all, CountOf("\t\t*** signal caught *** - ", child.Output()));
    EXPECT_EQ(std::size_t{times}, CountOf("\t\t*** signal caught *** - SIGTERM\n", child.Output()));
    EXPECT_EQ(std::size_t{times}, CountOf("\t\t*** signal caught *** - SIGINT\n", child.Output()));
}

TEST(CSignalHandler, ThreadsMayBeInterruptedWhileTheyAllocate) {
    static constexpr std::size_t enough = 10;
    constexpr const char* text = "POLL: remote descriptor closed";
    const TarnTest::Shared<std::size_t> sent;
    SignalRecorder recorder;
    ChildProcess child([&] {
        const CSignalHandler handler(&recorder);
        std::atomic<bool> is_over{false};
        const auto allocate = [&is_over] {
            // From what a thread has in stock up to what it needs the lock of the heap for.
            std::vector<std::vector<char>> blocks(20);
            for (std::size_t n = 0; !is_over; ++n) {
                blocks[n % blocks.size()] = std::vector<char>((n * 97) % 5000, 'x');
            }
        };
        std::thread one(allocate);
        std::thread other(allocate);
        Block(SIGPOLL);  // so that one of them gets it
        const Clock::time_point end = Clock::now() + std::chrono::seconds(1);
        while ((Clock::now() < end || *sent < enough) && SendToItself(SignalRecord(SIGPOLL, POLL_HUP)) &&
               Soon([&] { return recorder.Calls() > *sent; })) {
            ++*sent;
        }
        EXPECT_EQ(*sent, recorder.Calls());
        is_over = true;
        one.join();
        other.join();
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.EndingSignal();
    EXPECT_EQ("", child.Failures() + child.Errors());
    EXPECT_LE(enough, *sent);
    EXPECT_EQ(*sent, CountOf(Report(SIGPOLL, &recorder, text), child.Output()));
}

// ---- broken processes

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool has_own_heap = true;
#else
constexpr bool has_own_heap = false;
#endif

/// Volatile, so that no allocation is left out.
void* volatile kept_block = nullptr;

/// Leaves a heap that the next allocation of a small block finds to be broken.
void BreakHeap() {
    for (std::size_t size = 1; size <= 1024; ++size) {
        for (int i = 0; i < 32; ++i) {
            kept_block = std::malloc(size);  // takes what was free until now
        }
    }
    // Behind the last block is what is left of the heap, which begins with its size.
    const volatile std::size_t size = 100'000;
    kept_block = std::malloc(size);
    std::memset(kept_block, 0xff, malloc_usable_size(kept_block) + size / 1000);
}

TEST(CSignalHandler, ReportNeedsNoHeap) {
    if (has_own_heap) {
        GTEST_SKIP() << "the sanitizer has a heap of its own, which is not broken by this";
    }
    ChildProcess control([] {
        BreakHeap();
        kept_block = std::malloc(50);
    });
    EXPECT_EQ(SIGABRT, control.EndingSignal()) << "the heap was not broken";

    SignalRecorder recorder;
    ChildProcess child([&recorder] {
        const CSignalHandler handler(&recorder);
        BreakHeap();
        recorder.on_signal = [](int signal) {
            if (signal == SIGSEGV) {
                _exit(42);
            }
        };
        SendToItself(SignalRecord(SIGPOLL, POLL_PRI));
        SendToItself(SignalRecord(SIGFPE, FPE_FLTDIV));
        TarnTest::ReadFrom(nullptr);
    });
    EXPECT_EQ(42, child.ExitStatus()) << child.EndingSignal();
    EXPECT_EQ("", child.Errors());
    EXPECT_THAT(child.Output(),
                EndsWith("\n" + Report(SIGPOLL, &recorder, "POLL: priority data available") +
                         Report(SIGFPE, &recorder, "FLOATING POINT EXCEPTION: floating point divide by zero") +
                         Report(SIGSEGV, &recorder, "SEGMENTATION FAULT: address not mapped to object")));
}

}  // namespace

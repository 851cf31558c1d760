// What instances of the handler do to the process and to its threads. All of it happens in child processes.

#include <TarnSocketIO/CSignalHandler.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <atomic>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogTest.h"
#include "tests/support/OutputCapture.h"
#include "tests/support/SignalReports.h"

namespace {

using TarnSocketIO::CSignalHandler;
using TarnSocketIO::CSignalHandlerBase;
using TarnTest::BackgroundCall;
using TarnTest::BlockedSignals;
using TarnTest::Disposition;
using TarnTest::DispositionOf;
using TarnTest::Eventually;
using TarnTest::handled_signals;
using TarnTest::HandledWith;
using TarnTest::InChild;
using TarnTest::OutputCapture;
using TarnTest::OutputOf;
using TarnTest::RegistrationLine;
using TarnTest::SignalRecorder;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;

static_assert(std::is_abstract_v<CSignalHandlerBase> && std::has_virtual_destructor_v<CSignalHandlerBase>);
static_assert(std::has_virtual_destructor_v<CSignalHandler>);
static_assert(!std::is_copy_constructible_v<CSignalHandler> && !std::is_copy_assignable_v<CSignalHandler>);

// ---- construction and destruction

TEST(CSignalHandler, NothingIsRegisteredBeforeTheFirstInstance) {
    EXPECT_EQ(nullptr, CSignalHandler::m_pHandler.load());
    EXPECT_FALSE(CSignalHandler::s_bInitialised);
    EXPECT_EQ(0, CSignalHandler::s_nRegisteredHandlerIter);
    for (const int signal : handled_signals) {
        EXPECT_NE(CSignalHandler::SignalHandler, DispositionOf(signal).handler) << signal;
    }
}

TEST(CSignalHandler, EachInstancePrintsThatItRegisters) {
    InChild([] {
        SignalRecorder recorder;
        const OutputCapture output;
        const CSignalHandler first(&recorder);
        const CSignalHandler second(nullptr);
        EXPECT_EQ(RegistrationLine(0, &first) + RegistrationLine(0, &second), output.Text());
        EXPECT_EQ(0, CSignalHandler::s_nRegisteredHandlerIter);
    });
}

TEST(CSignalHandler, RegistrationIsPrintedWithTheNumberThatTheApplicationHasSet) {
    InChild([] {
        for (const int number : {7, -3, std::numeric_limits<int>::max()}) {
            CSignalHandler::s_nRegisteredHandlerIter = number;
            const OutputCapture output;
            const CSignalHandler handler(nullptr);
            EXPECT_EQ(RegistrationLine(number, &handler), output.Text());
            EXPECT_EQ(number, CSignalHandler::s_nRegisteredHandlerIter);
        }
    });
}

TEST(CSignalHandler, LatestInstanceRegistersItsCallback) {
    InChild([] {
        SignalRecorder first_callback;
        SignalRecorder second_callback;
        const CSignalHandler first(&first_callback);
        EXPECT_EQ(&first_callback, CSignalHandler::m_pHandler.load());
        EXPECT_TRUE(CSignalHandler::s_bInitialised);
        const CSignalHandler second(&second_callback);
        EXPECT_EQ(&second_callback, CSignalHandler::m_pHandler.load());
        const CSignalHandler third(nullptr);
        EXPECT_EQ(nullptr, CSignalHandler::m_pHandler.load());
        EXPECT_TRUE(CSignalHandler::s_bInitialised);
    });
}

TEST(CSignalHandler, AnyInstanceLeavesNoCallbackRegistered) {
    InChild([] {
        SignalRecorder recorder;
        auto first = std::make_unique<CSignalHandler>(nullptr);
        auto second = std::make_unique<CSignalHandler>(&recorder);
        ASSERT_EQ(&recorder, CSignalHandler::m_pHandler.load());
        first.reset();
        EXPECT_EQ(nullptr, CSignalHandler::m_pHandler.load()) << "the instance that did not register it has gone";
        first = std::make_unique<CSignalHandler>(&recorder);
        ASSERT_EQ(&recorder, CSignalHandler::m_pHandler.load());
        first.reset();
        EXPECT_EQ(nullptr, CSignalHandler::m_pHandler.load());
        EXPECT_TRUE(CSignalHandler::s_bInitialised);
    });
}

TEST(CSignalHandler, DestructionDoesNotWaitForTheRegistrationLock) {
    InChild([] {
        SignalRecorder recorder;
        auto handler = std::make_unique<CSignalHandler>(&recorder);
        CSignalHandler::m_mutex.Lock();
        handler.reset();
        EXPECT_EQ(nullptr, CSignalHandler::m_pHandler.load());
        CSignalHandler::m_mutex.Unlock();
    });
}

/// Makes an instance that has to wait for the lock of the registration, while `meanwhile` is registered.
void RegisterWithWaiting(std::optional<CSignalHandler>& instance, CSignalHandlerBase* callback,
                         const CSignalHandlerBase* meanwhile) {
    CSignalHandler::m_mutex.Lock();
    BackgroundCall registration([&] { return instance.emplace(callback), true; });
    EXPECT_TRUE(Eventually([&] { return registration.Waits() && CSignalHandler::m_pHandler == meanwhile; }));
    EXPECT_FALSE(registration.HasEnded());
    CSignalHandler::m_mutex.Unlock();
    EXPECT_TRUE(registration.Result());
    EXPECT_EQ(callback, CSignalHandler::m_pHandler.load());
}

TEST(CSignalHandler, RegistrationWaitsForItsLockAndOnlyTheFirstClearsBefore) {
    InChild([] {
        std::array<SignalRecorder, 3> callbacks;
        std::array<std::optional<CSignalHandler>, 2> instances;
        CSignalHandler::m_pHandler = &callbacks[0];
        RegisterWithWaiting(instances[0], &callbacks[1], nullptr);
        RegisterWithWaiting(instances[1], &callbacks[2], &callbacks[1]);
    });
}

// ---- dispositions

std::map<int, Disposition> Dispositions() {
    std::map<int, Disposition> all;
    for (int signal = 1; signal < NSIG; ++signal) {
        all[signal] = DispositionOf(signal);
    }
    return all;
}

/// What the process does about signals when the handler is installed.
std::map<int, Disposition> Handling(std::map<int, Disposition> before, const std::vector<int>& mask = {}) {
    for (const int signal : handled_signals) {
        before[signal] = HandledWith(mask);
    }
    return before;
}

TEST(CSignalHandler, FirstInstanceInstallsTheHandlerForEightSignalsAndNoOther) {
    InChild([] {
        const std::map<int, Disposition> before = Dispositions();
        const CSignalHandler handler(nullptr);
        EXPECT_TRUE(Handling(before) == Dispositions());
        for (const int signal : handled_signals) {
            const Disposition now = DispositionOf(signal);
            EXPECT_EQ(CSignalHandler::SignalHandler, now.handler) << signal;
            EXPECT_EQ(SA_SIGINFO, now.flags) << signal;
            EXPECT_THAT(now.mask, IsEmpty()) << signal;
        }
    });
}

TEST(CSignalHandler, LaterInstanceDoesNotInstallAgain) {
    InChild([] {
        auto first = std::make_unique<CSignalHandler>(nullptr);
        for (const int signal : handled_signals) {
            ASSERT_NE(SIG_ERR, std::signal(signal, SIG_IGN));
        }
        const std::map<int, Disposition> before = Dispositions();
        const CSignalHandler second(nullptr);
        EXPECT_TRUE(before == Dispositions());
        first.reset();
        const CSignalHandler third(nullptr);
        EXPECT_TRUE(before == Dispositions()) << "after an instance has gone";
    });
}

TEST(CSignalHandler, DispositionsStayWhenTheLastInstanceIsGone) {
    InChild([] {
        const std::map<int, Disposition> before = Dispositions();
        std::make_unique<CSignalHandler>(nullptr).reset();
        EXPECT_TRUE(Handling(before) == Dispositions());
    });
}

TEST(CSignalHandler, InitialisingAnInstanceAgainInstallsWithItsBlockSetAsMask) {
    InChild([] {
        const std::map<int, Disposition> before = Dispositions();
        CSignalHandler first(nullptr);
        first.Initialise();
        EXPECT_TRUE(Handling(before, {SIGINT, SIGTERM}) == Dispositions());
        EXPECT_THAT(DispositionOf(SIGCONT).mask, ElementsAre(SIGINT, SIGTERM));

        CSignalHandler second(nullptr);
        second.Initialise();
        EXPECT_TRUE(Handling(before) == Dispositions()) << "the block set of another instance";
        second.Initialise();
        EXPECT_TRUE(Handling(before, {SIGINT, SIGTERM}) == Dispositions());
    });
}

TEST(CSignalHandler, InitialiseChangesNeitherCallbackNorOutput) {
    InChild([] {
        SignalRecorder recorder;
        CSignalHandler handler(&recorder);
        EXPECT_EQ("", OutputOf([&handler] { handler.Initialise(); }));
        EXPECT_EQ(&recorder, CSignalHandler::m_pHandler.load());
    });
}

// ---- BlockSignals and UnblockSignals

TEST(CSignalHandler, ConstructionAndDestructionLeaveWhatTheThreadBlocks) {
    InChild([] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        sigaddset(&set, SIGCONT);
        ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &set, nullptr));
        const std::vector<int> before = BlockedSignals();
        {
            const CSignalHandler first(nullptr);
            EXPECT_EQ(before, BlockedSignals());
            const CSignalHandler second(nullptr);
            EXPECT_EQ(before, BlockedSignals());
        }
        EXPECT_EQ(before, BlockedSignals());
    });
}

TEST(CSignalHandler, FirstInstanceBlocksTerminationAndInterruptAndNothingElse) {
    InChild([] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &set, nullptr));
        const std::vector<int> before = BlockedSignals();
        std::vector<int> blocked = before;
        blocked.insert(blocked.end(), {SIGINT, SIGTERM});

        CSignalHandler handler(nullptr);
        for (int i = 0; i < 2; ++i) {
            handler.BlockSignals();
            EXPECT_THAT(BlockedSignals(), UnorderedElementsAreArray(blocked));
            handler.BlockSignals();
            EXPECT_THAT(BlockedSignals(), UnorderedElementsAreArray(blocked)) << "blocked twice";
            handler.UnblockSignals();
            EXPECT_EQ(before, BlockedSignals());
            handler.UnblockSignals();
            EXPECT_EQ(before, BlockedSignals()) << "opened twice";
        }
    });
}

TEST(CSignalHandler, OtherThreadsAreNeitherBlockedNorOpened) {
    InChild([] {
        CSignalHandler handler(nullptr);
        const std::vector<int> before = BlockedSignals();
        std::atomic<int> step{0};
        std::vector<int> blocked_there;
        std::vector<int> opened_there;
        std::thread other([&] {
            EXPECT_TRUE(Eventually([&step] { return step == 1; }));
            blocked_there = BlockedSignals();
            handler.BlockSignals();
            step = 2;
            EXPECT_TRUE(Eventually([&step] { return step == 3; }));
            opened_there = BlockedSignals();
        });
        handler.BlockSignals();
        step = 1;
        EXPECT_TRUE(Eventually([&step] { return step == 2; }));
        handler.UnblockSignals();
        EXPECT_EQ(before, BlockedSignals());
        step = 3;
        other.join();
        EXPECT_EQ(before, blocked_there);
        EXPECT_THAT(opened_there, testing::IsSupersetOf({SIGINT, SIGTERM}));
    });
}

TEST(CSignalHandler, LaterInstancesBlockAndOpenNothing) {
    InChild([] {
        CSignalHandler first(nullptr);
        CSignalHandler second(nullptr);
        const std::vector<int> before = BlockedSignals();
        second.BlockSignals();
        EXPECT_EQ(before, BlockedSignals());
        first.BlockSignals();
        const std::vector<int> blocked = BlockedSignals();
        ASSERT_NE(before, blocked);
        second.UnblockSignals();
        EXPECT_EQ(blocked, BlockedSignals());
    });
}

TEST(CSignalHandler, InitialisedLaterInstanceBlocksAsTheFirstDoes) {
    InChild([] {
        CSignalHandler first(nullptr);
        CSignalHandler second(nullptr);
        second.Initialise();
        second.BlockSignals();
        EXPECT_THAT(BlockedSignals(), testing::IsSupersetOf({SIGINT, SIGTERM}));
        second.UnblockSignals();
        EXPECT_THAT(BlockedSignals(), testing::Not(testing::Contains(AnyOf(SIGINT, SIGTERM))));
    });
}

}  // namespace

// Signals that cannot be had, and memory that has run out. What changes the process is done in child processes.

#include <TarnSocketIO/CSignalHandler.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"
#include "tests/support/OutputCapture.h"
#include "tests/support/RuntimeCalls.h"
#include "tests/support/SignalReports.h"

namespace {

using TarnSocketIO::CSignalHandler;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::CaughtLines;
using TarnTest::Disposition;
using TarnTest::DispositionOf;
using TarnTest::FailingCalls;
using TarnTest::handled_signals;
using TarnTest::HandledWith;
using TarnTest::InChild;
using TarnTest::LogCapture;
using TarnTest::OutputCapture;
using TarnTest::OutputOf;
using TarnTest::RegistrationLine;
using TarnTest::Report;
using TarnTest::SignalActionWatch;
using TarnTest::SignalCode;
using TarnTest::SignalDecoder;
using TarnTest::SignalDecoders;
using TarnTest::SignalRecord;
using TarnTest::SignalRecorder;
using testing::ElementsAre;
using testing::ElementsAreArray;

/// What is said about a signal that cannot be had; the last two are said by the debug log.
const std::vector<std::string> refusals = {
    "CSignalHandler::Initialise - could not register SIGTERM\n",
    "CSignalHandler::Initialise - could not register SIGINT\n",
    "CSignalHandler::Initialise - could not register SIGSEGV\n",
    "CSignalHandler::Initialise - could not register SIGILL\n",
    "CSignalHandler::Initialise - could not register SIGFPE\n",
    "CSignalHandler::Initialise - could not register SIGBUS\n",
    "CSignalHandler::Initialise - could not register SIGCONT\n",
    "CSignalHandler::Initialise - could not register SIGPOLL\n",
};

constexpr std::size_t printed = 6;

TEST(CSignalHandler, SignalsAreInstalledInTheirOrder) {
    InChild([] {
        const SignalActionWatch watch;
        const CSignalHandler first(nullptr);
        EXPECT_THAT(watch.Signals(), ElementsAreArray(handled_signals));
        EXPECT_THAT(watch.Signals(), ElementsAre(SIGTERM, SIGINT, SIGSEGV, SIGILL, SIGFPE, SIGBUS, SIGCONT, SIGPOLL));
        const CSignalHandler second(nullptr);
        EXPECT_EQ(handled_signals.size(), watch.Signals().size()) << "installed again";
    });
}

TEST(CSignalHandler, SignalThatCannotBeHadIsReportedAndTheOthersAreInstalled) {
    for (std::size_t refused = 0; refused < handled_signals.size(); ++refused) {
        SCOPED_TRACE(refusals[refused]);
        InChild([refused] {
            const LogCapture log;
            const SignalActionWatch watch;
            const FailingCalls failing(Call::SetSignalAction, EINVAL, 1, static_cast<int>(refused));
            const Disposition before = DispositionOf(handled_signals[refused]);
            const OutputCapture output;
            const CSignalHandler handler(nullptr);

            const bool is_printed = refused < printed;
            EXPECT_EQ(RegistrationLine(0, &handler) + (is_printed ? refusals[refused] : ""), output.Text());
            EXPECT_EQ(is_printed ? std::vector<std::string>() : std::vector<std::string>{refusals[refused]},
                      log.Messages());
            EXPECT_THAT(watch.Signals(), ElementsAreArray(handled_signals));
            for (std::size_t i = 0; i < handled_signals.size(); ++i) {
                EXPECT_TRUE((i == refused ? before : HandledWith({})) == DispositionOf(handled_signals[i])) << i;
            }
            EXPECT_TRUE(CSignalHandler::s_bInitialised);
        });
    }
}

TEST(CSignalHandler, LoggedRefusalsBringAnEmptyLineToTheConsole) {
    InChild([] {
        TarnTest::Restart(1);
        const FailingCalls failing(Call::SetSignalAction, EPERM, 1, 6);
        const OutputCapture output;
        const CSignalHandler handler(nullptr);
        const std::string registration = RegistrationLine(0, &handler);
        ASSERT_EQ(registration, output.Text().substr(0, registration.size()));
        EXPECT_EQ(refusals[6], TarnTest::OnlyMessage(output.Text().substr(registration.size())));
    });
}

TEST(CSignalHandler, NothingIsInstalledWhenEverySignalIsRefused) {
    InChild([] {
        std::vector<Disposition> before;
        for (const int signal : handled_signals) {
            before.push_back(DispositionOf(signal));
        }
        SignalRecorder recorder;
        const LogCapture log;
        const SignalActionWatch watch;
        const FailingCalls failing(Call::SetSignalAction, EINVAL, std::numeric_limits<int>::max());
        const OutputCapture output;
        CSignalHandler handler(&recorder);

        std::string expected = RegistrationLine(0, &handler);
        for (std::size_t i = 0; i < printed; ++i) {
            expected += refusals[i];
        }
        EXPECT_EQ(expected, output.Text());
        EXPECT_THAT(log.Messages(), ElementsAre(refusals[6], refusals[7]));
        EXPECT_EQ(8, failing.Failed());
        for (std::size_t i = 0; i < handled_signals.size(); ++i) {
            EXPECT_TRUE(before[i] == DispositionOf(handled_signals[i])) << i;
        }

        EXPECT_TRUE(CSignalHandler::s_bInitialised);
        EXPECT_EQ(&recorder, CSignalHandler::m_pHandler.load());
        const CSignalHandler next(nullptr);
        EXPECT_EQ(8u, watch.Signals().size()) << "the next instance has tried again";
        handler.BlockSignals();
        EXPECT_THAT(TarnTest::BlockedSignals(), testing::IsSupersetOf({SIGINT, SIGTERM}));
    });
}

TEST(CSignalHandler, RefusalsAreNotPrintedByASilentLog) {
    InChild([] {
        TarnTest::ResetLog();
        const FailingCalls failing(Call::SetSignalAction, EINVAL, 2, 6);
        const OutputCapture output;
        const CSignalHandler handler(nullptr);
        EXPECT_EQ(RegistrationLine(0, &handler), output.Text());
        EXPECT_EQ(2, failing.Failed());
    });
}

TEST(CSignalHandler, InitialiseThatFailsLaterIsReportedToo) {
    InChild([] {
        CSignalHandler handler(nullptr);
        const FailingCalls failing(Call::SetSignalAction, EINVAL, 1, 5);
        EXPECT_EQ(refusals[5], OutputOf([&handler] { handler.Initialise(); }));
        EXPECT_TRUE(HandledWith({}) == DispositionOf(SIGBUS));
        EXPECT_TRUE(HandledWith({SIGINT, SIGTERM}) == DispositionOf(SIGCONT));
    });
}

TEST(CSignalHandler, ReportsNeedNoMemory) {
    for (const SignalDecoder& decoder : SignalDecoders()) {
        std::vector<SignalCode> codes = decoder.codes;
        const std::string lowest = decoder.unknown + std::to_string(std::numeric_limits<int>::min());
        codes.push_back({std::numeric_limits<int>::min(), lowest.c_str()});
        for (const SignalCode& each : codes) {
            siginfo_t record = SignalRecord(decoder.signal, each.code);
            int allocated = 0;
            const std::string output = OutputOf([&record, &allocated] {
                const CallWatch allocations(Call::Allocate);
                const FailingCalls none_left(Call::Allocate, ENOMEM, std::numeric_limits<int>::max());
                CSignalHandler::ParseSigInfo(&record);
                allocated = allocations.Count();
            });
            EXPECT_EQ(CaughtLines(each.text), output);
            EXPECT_EQ(0, allocated) << each.text;
        }
    }
}

TEST(CSignalHandler, HandlerNeedsNoMemory) {
    InChild([] {
        SignalRecorder recorder;
        const CSignalHandler handler(&recorder);
        siginfo_t record = SignalRecord(SIGFPE, FPE_FLTINV);
        int allocated = 0;
        const std::string output = OutputOf([&record, &allocated] {
            const CallWatch allocations(Call::Allocate);
            const FailingCalls none_left(Call::Allocate, ENOMEM, std::numeric_limits<int>::max());
            CSignalHandler::SignalHandler(SIGFPE, &record, nullptr);
            raise(SIGTERM);
            allocated = allocations.Count();
        });
        EXPECT_EQ(Report(SIGFPE, &recorder, "FLOATING POINT EXCEPTION: floating point invalid operation") +
                      Report(SIGTERM, &recorder, "SIGTERM"),
                  output);
        EXPECT_EQ(0, allocated);
        EXPECT_EQ(2u, recorder.Calls());
    });
}

}  // namespace

// How signals are decoded and printed.

#include <TarnSocketIO/CSignalHandler.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"
#include "tests/support/SignalReports.h"

namespace {

using TarnSocketIO::CSignalHandler;
using TarnTest::CaughtLines;
using TarnTest::GotLine;
using TarnTest::handled_signals;
using TarnTest::InChild;
using TarnTest::LogCapture;
using TarnTest::OnlyMessage;
using TarnTest::OutputOf;
using TarnTest::Report;
using TarnTest::SignalCode;
using TarnTest::SignalDecoder;
using TarnTest::SignalDecoders;
using TarnTest::SignalRecord;
using TarnTest::SignalRecorder;
using testing::ElementsAre;

constexpr const char* null_record_line = "CSignalHandler::ParseSIInfo - NULL siginfo";

// NOLINTBEGIN(performance-no-int-to-ptr): places that nobody has
void* const somewhere = reinterpret_cast<void*>(std::uintptr_t{0x10});
void* const far_away = reinterpret_cast<void*>(std::numeric_limits<std::uintptr_t>::max());
// NOLINTEND(performance-no-int-to-ptr)

// ---- the decoders

TEST(CSignalHandler, EachCodeHasItsText) {
    for (const SignalDecoder& decoder : SignalDecoders()) {
        for (const SignalCode& known : decoder.codes) {
            std::string text;
            decoder.decode(known.code, text);
            EXPECT_EQ(known.text, text);
        }
    }
}

TEST(CSignalHandler, OtherCodesAreNamedByTheirNumber) {
    constexpr int lowest = std::numeric_limits<int>::min();
    constexpr int highest = std::numeric_limits<int>::max();
    for (const SignalDecoder& decoder : SignalDecoders()) {
        for (const int code : {0, -1, -4, -6, decoder.last + 1, 0x80, 257, lowest, lowest + 1, highest}) {
            std::string text;
            decoder.decode(code, text);
            EXPECT_EQ(decoder.unknown + std::to_string(code), text);
        }
        if (decoder.signal != SIGPOLL) {
            std::string text;
            decoder.decode(SI_SIGIO, text);
            EXPECT_EQ(decoder.unknown + "-5", text);
        }
    }
}

TEST(CSignalHandler, DecodersReplaceWhatTheTextWas) {
    for (const SignalDecoder& decoder : SignalDecoders()) {
        for (const std::string before : {"a", "something that is longer than any of the texts that a code can have"}) {
            std::string text = before;
            decoder.decode(1, text);
            EXPECT_EQ(decoder.codes[0].text, text);
            text = before;
            decoder.decode(99, text);
            EXPECT_EQ(decoder.unknown + "99", text);
        }
    }
}

// ---- ParseSigInfo

std::string Parsed(siginfo_t record) {
    return OutputOf([&record] { CSignalHandler::ParseSigInfo(&record); });
}

TEST(CSignalHandler, RecordsArePrintedWithTheTextOfTheirCode) {
    for (const SignalDecoder& decoder : SignalDecoders()) {
        for (const SignalCode& known : decoder.codes) {
            EXPECT_EQ(CaughtLines(known.text), Parsed(SignalRecord(decoder.signal, known.code)));
        }
        for (const int code : std::vector<int>{SI_USER, SI_QUEUE, SI_TKILL, decoder.last + 1, -1000}) {
            EXPECT_EQ(CaughtLines(decoder.unknown + std::to_string(code)), Parsed(SignalRecord(decoder.signal, code)));
        }
    }
}

TEST(CSignalHandler, PrintedRecordHasThreeLinesWithTabsAndEmptyLines) {
    EXPECT_EQ("\n\t\t*** signal caught *** - SIGINT\n\n", Parsed(SignalRecord(SIGINT, SI_USER)));
}

TEST(CSignalHandler, InterruptAndTerminationArePrintedByNameWhateverTheirCode) {
    for (const int code : std::vector<int>{SI_USER, SI_QUEUE, SI_KERNEL, 1}) {
        EXPECT_EQ(CaughtLines("SIGINT"), Parsed(SignalRecord(SIGINT, code)));
        EXPECT_EQ(CaughtLines("SIGTERM"), Parsed(SignalRecord(SIGTERM, code)));
    }
}

TEST(CSignalHandler, OtherSignalsAreUnknown) {
    for (int signal = -1; signal <= NSIG; ++signal) {
        const bool has_text = signal != SIGCONT && std::count(handled_signals.begin(), handled_signals.end(), signal);
        for (const int code : std::vector<int>{SI_USER, 1, 2}) {
            const std::string output = Parsed(SignalRecord(signal, code));
            EXPECT_EQ(has_text, output != CaughtLines("unknown")) << signal;
        }
    }
}

TEST(CSignalHandler, AddressOfASegmentationFaultIsPrinted) {
    siginfo_t record = SignalRecord(SIGSEGV, SEGV_MAPERR);
    record.si_addr = somewhere;
    EXPECT_EQ(CaughtLines("SEGMENTATION FAULT: address not mapped to object", somewhere), Parsed(record));
    EXPECT_EQ(
        "\n\t\t*** signal caught *** - SEGMENTATION FAULT: address not mapped to object\n\n\t\tAt address 0x10\n\n",
        Parsed(record));

    record.si_code = SEGV_ACCERR;
    record.si_addr = far_away;
    EXPECT_EQ(CaughtLines("SEGMENTATION FAULT: invalid permissions for mapped object", far_away), Parsed(record));

    record.si_code = 3;
    EXPECT_EQ(CaughtLines("SEGMENTATION FAULT: unknown value 3", far_away), Parsed(record));
}

TEST(CSignalHandler, NullAddressIsNotPrinted) {
    siginfo_t record = SignalRecord(SIGSEGV, SEGV_MAPERR);
    record.si_addr = nullptr;
    EXPECT_EQ(CaughtLines("SEGMENTATION FAULT: address not mapped to object"), Parsed(record));
}

TEST(CSignalHandler, AddressesOfOtherSignalsAreNotPrinted) {
    for (const int signal : {SIGBUS, SIGILL, SIGFPE, SIGTERM, SIGCONT}) {
        siginfo_t record = SignalRecord(signal, 1);
        const std::string without_address = Parsed(record);
        record.si_addr = somewhere;
        EXPECT_EQ(without_address, Parsed(record)) << signal;
    }
}

TEST(CSignalHandler, MissingRecordIsLoggedAndNotPrinted) {
    const LogCapture log;
    EXPECT_EQ("", OutputOf([] { CSignalHandler::ParseSigInfo(nullptr); }));
    EXPECT_THAT(log.Messages(), ElementsAre(null_record_line));

    TarnTest::Log::SetLoggingDestination(1);
    EXPECT_EQ(null_record_line, OnlyMessage(OutputOf([] { CSignalHandler::ParseSigInfo(nullptr); })));
    TarnTest::Log::SetLoggingDestination(0);
    EXPECT_EQ("", OutputOf([] { CSignalHandler::ParseSigInfo(nullptr); }));
}

// ---- the handler as a function

TEST(CSignalHandler, RecordDecidesWhatIsPrintedAndTheNumberWhatIsForwarded) {
    InChild([] {
        SignalRecorder recorder;
        const CSignalHandler handler(&recorder);
        siginfo_t record = SignalRecord(SIGINT, SI_USER);
        EXPECT_EQ(Report(SIGTERM, &recorder, "SIGINT"),
                  OutputOf([&record] { CSignalHandler::SignalHandler(SIGTERM, &record, nullptr); }));
        EXPECT_THAT(recorder.Signals(), ElementsAre(SIGTERM));
        EXPECT_EQ(SIGINT, recorder.Told(0).info.si_signo);
    });
}

TEST(CSignalHandler, MissingRecordIsForwardedToTheCallback) {
    InChild([] {
        SignalRecorder recorder;
        const CSignalHandler handler(&recorder);
        const LogCapture log;
        EXPECT_EQ(GotLine(SIGINT, &recorder),
                  OutputOf([] { CSignalHandler::SignalHandler(SIGINT, nullptr, nullptr); }));
        EXPECT_THAT(log.Messages(), ElementsAre(null_record_line));
        EXPECT_THAT(recorder.Signals(), ElementsAre(SIGINT));
        EXPECT_FALSE(recorder.Told(0).has_info);
    });
}

}  // namespace

#include <TarnSocketIO/CUtility.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <limits>
#include <string>
#include <utility>

#include "tests/support/FailingCalls.h"
#include "tests/support/LogTest.h"

using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::Entry;
using TarnTest::FailingCalls;
using TarnTest::Fields;
using TarnTest::LockIsFree;
using TarnTest::Log;
using TarnTest::LooksLikeAStamp;
using TarnTest::Message;
using TarnTest::MessageOf;
using TarnTest::OnlyMessage;
using TarnTest::OutputOf;
using TarnTest::Restart;
using TarnTest::Start;
using TarnTest::Text;
using TarnTest::WriteUnderLock;

namespace {

using CUtility = TarnTest::LogTest;

constexpr char message_lost[] = "CUtility::DebugLog - exception caugh\n";
constexpr char stamp_lost[] = "CUtility::PrefixTimestamp - exception caugh\n";

constexpr wchar_t no_character_of_the_c_locale[] = L"\u20ac";

TEST_F(CUtility, MessageThatCannotBeFormattedIsReported) {
    char unused[16];
    ASSERT_LT(std::snprintf(unused, sizeof unused, "%ls", no_character_of_the_c_locale), 0);

    for (const int dest : {1, 3}) {
        SCOPED_TRACE(dest);
        Restart(dest);
        EXPECT_EQ(message_lost, OutputOf([] { Log::Debug("text %ls", no_character_of_the_c_locale); }));
        EXPECT_EQ(message_lost, OutputOf([] { Log::DebugLocal("s", "f", "%ls", no_character_of_the_c_locale); }));
        EXPECT_EQ(message_lost, OutputOf([] { WriteUnderLock("%ls", no_character_of_the_c_locale); }));
        EXPECT_EQ(0, Log::m_nLogEntryIter);
        EXPECT_TRUE(LockIsFree());
    }
}

TEST_F(CUtility, MessageThatCannotBeFormattedLeavesTheRingAsItWas) {
    Start(3);
    const Fields empty;
    OutputOf([] { Log::Debug("text %ls", no_character_of_the_c_locale); });
    EXPECT_EQ(empty, Fields());
    for (int i = 0; i < Log::LOG_ENTRIES + 5; ++i) {
        Log::Debug("message %d", i);
    }
    const Fields full;
    OutputOf([] { Log::DebugLocal("s", "f", "text %ls", no_character_of_the_c_locale); });
    EXPECT_EQ(full, Fields());
}

TEST_F(CUtility, LogWorksOnAfterALostMessage) {
    Start(3);
    Log::Debug("before");
    OutputOf([] { Log::Debug("%ls", no_character_of_the_c_locale); });
    Log::Debug("after");
    EXPECT_EQ("before", Message(Entry(0)));
    EXPECT_EQ("after", Message(Entry(1)));
    EXPECT_EQ(2, Log::m_nLogEntryIter);
}

/// What `act` writes to standard output without memory. Expects that it keeps all exceptions to itself.
std::string OutputWithoutMemory(const std::function<void()>& act) {
    bool threw = false;
    std::string output = OutputOf([&act, &threw] {
        const FailingCalls exhausted(Call::Allocate, ENOMEM, std::numeric_limits<int>::max());
        try {
            act();
        } catch (...) {
            threw = true;
        }
    });
    EXPECT_FALSE(threw);
    return output;
}

TEST_F(CUtility, PrefixTimestampWithoutMemoryIsEmptyAndReported) {
    const std::string text = "text";
    std::string line = "not empty";
    EXPECT_EQ(stamp_lost, OutputWithoutMemory([&] { line = Log::PrefixTimestamp(text); }));
    EXPECT_EQ("", line);
    EXPECT_EQ("text", Message(Log::PrefixTimestamp(text)));
}

TEST_F(CUtility, OutcomeOfATextThatIsNoStringNeedsNoMemory) {
    Start(1);
    const char* const text = "a text that is longer than what a string keeps within itself";
    EXPECT_EQ(std::string(text) + " - failed",
              OnlyMessage(OutputWithoutMemory([&] { Log::ConditionalDebug(text, false); })));
}

TEST_F(CUtility, OutcomeOfNoTextIsWrittenAsTheCLibraryWould) {
    const char* const none = nullptr;
    EXPECT_EQ("(null) - succeeded", MessageOf([&] {
                  Start(1);
                  Log::ConditionalDebug(none, true);
              }));
}

TEST_F(CUtility, NothingIsThrownWhenMemoryRunsOut) {
    std::string subsystem;
    std::string filter;
    const std::string text = Text(100);
    const std::function<void()> calls[] = {
        [] { Log::Debug("a format that is longer than what a string keeps within itself"); },
        [&] { Log::DebugLocal(std::move(subsystem), std::move(filter), "n=%d, %s", 3, text.c_str()); },
        [&] { Log::ConditionalDebug(text, true); },
        [&] { Log::ConditionalDebugLocal(std::move(subsystem), std::move(filter), text, false); },
    };
    for (const int dest : {1, 3}) {
        for (const auto& call : calls) {
            Restart(dest);
            subsystem = Text(50);
            filter = Text(50);
            const std::string output = OutputWithoutMemory(call);
            EXPECT_TRUE(LockIsFree());
            EXPECT_TRUE(LooksLikeAStamp(output) || LooksLikeAStamp(Entry(0)) ||
                        output.find("exception caugh\n") != std::string::npos)
                << "neither written nor reported: " << output;
            Log::SetLoggingDestination(1);
            EXPECT_EQ("works on", MessageOf([] { Log::Debug("works on"); }));
        }
    }
}

const char* NoFormat() {
    return nullptr;
}

TEST_F(CUtility, NullFormatIsSurvived) {
    for (const int dest : {0, 1, 3, -1}) {
        SCOPED_TRACE(dest);
        Restart(dest);
        OutputOf([] {
            Log::Debug(NoFormat(), 1);
            Log::DebugLocal("net", "rx", NoFormat(), 1);
        });
        EXPECT_TRUE(LockIsFree());
        Log::SetLoggingDestination(1);
        EXPECT_EQ("works on", MessageOf([] { Log::Debug("works on"); }));
    }
}

/// Whether a call of Debug had an effect: its format was evaluated, or memory was allocated.
bool DebugDoesAnything() {
    int formatted = -1;
    const CallWatch allocations(Call::Allocate);
    Log::Debug("a format that is longer than what a string keeps within itself%n", &formatted);
    return formatted != -1 || allocations.Count() != 0;
}

TEST_F(CUtility, SwitchedOffDebugFormatsAndAllocatesNothing) {
    Start(0);
    EXPECT_FALSE(DebugDoesAnything());
    Log::SetLoggingDestination(-1);
    EXPECT_FALSE(DebugDoesAnything());
    Log::SetLoggingDestination(3);
    Log::SetFilter("rx");
    EXPECT_FALSE(DebugDoesAnything());
    Log::m_bHaveFilter = false;
    Log::SetSubsystem("net");
    EXPECT_FALSE(DebugDoesAnything());
    Log::m_bHaveSubsystem = false;
    EXPECT_TRUE(DebugDoesAnything()) << "an effect would not have been noticed";
    const CallWatch allocations(Call::Allocate);
    Log::PrefixTimestamp("");
    EXPECT_LT(0, allocations.Count()) << "an allocation would not have been noticed";
}

}  // namespace

#include <TarnSocketIO/CUtility.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include "tests/support/Eventually.h"
#include "tests/support/LogTest.h"

using TarnTest::Entry;
using TarnTest::Eventually;
using TarnTest::IsZero;
using TarnTest::line_length;
using TarnTest::Log;
using TarnTest::Message;
using TarnTest::message_length;
using TarnTest::MessageOf;
using TarnTest::OutputOf;
using TarnTest::Restart;
using TarnTest::RingIsZero;
using TarnTest::Start;
using TarnTest::Stopwatch;
using TarnTest::Text;
using TarnTest::WriteUnderLock;

namespace {

using CUtility = TarnTest::LogTest;

/// Sets the process's time zone for as long as it lives.
class TimeZone {
public:
    explicit TimeZone(const char* zone) {
        if (const char* const before = std::getenv("TZ")) {
            m_before = std::make_unique<std::string>(before);
        }
        Change(zone);
    }
    ~TimeZone() {
        if (m_before) {
            Change(m_before->c_str());
        } else {
            unsetenv("TZ");
            tzset();
        }
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

    /// By the environment alone, as an application does it: whoever breaks a time down has to look there.
    static void Change(const char* zone) { setenv("TZ", zone, 1); }

private:
    std::unique_ptr<std::string> m_before;
};

// Bounds of a line

constexpr std::size_t long_messages[] = {message_length - 1, message_length, message_length + 1, 511, 512, 513, 2000};

TEST_F(CUtility, LineOnTheConsoleIsCutTo511Characters) {
    Start(1);
    for (const std::size_t length : long_messages) {
        SCOPED_TRACE(length);
        const std::string expected = Text(length).substr(0, message_length);
        EXPECT_EQ(expected, MessageOf([length] { Log::Debug("%s", Text(length).c_str()); }));
        EXPECT_EQ(expected, MessageOf([length] { WriteUnderLock("%s", Text(length).c_str()); }));
    }
}

TEST_F(CUtility, LineInTheRingIsCutTo511CharactersAndSpillsNowhere) {
    for (const std::size_t length : long_messages) {
        for (const int index : {0, 1, 198, 199}) {
            SCOPED_TRACE(std::to_string(length) + " characters, entry " + std::to_string(index));
            Restart(3);
            for (int i = 0; i < Log::LOG_ENTRIES; ++i) {
                Log::Debug("neighbour");
            }
            Log::m_nLogEntryIter = index;
            Log::Debug("%s", Text(length).c_str());
            EXPECT_EQ(Text(length).substr(0, message_length), Message(Entry(index)));
            EXPECT_EQ('\0', Log::m_szLogEntry[index][line_length]);
            EXPECT_EQ((index + 1) % Log::LOG_ENTRIES, Log::m_nLogEntryIter);
            for (int i = 0; i < Log::LOG_ENTRIES; ++i) {
                EXPECT_TRUE(i == index || Message(Entry(i)) == "neighbour") << i << ": " << Entry(i);
            }
            EXPECT_TRUE(IsZero(Log::m_szFilename) && IsZero(Log::m_strSubsystem) && IsZero(Log::m_strFilter));
        }
    }
}

TEST_F(CUtility, LineOfAWideConversionIsCutTo511Characters) {
    Start(3);
    Log::Debug("%2000d", 5);
    EXPECT_EQ(std::string(message_length, ' '), Message(Entry(0)));
    Log::Debug("%-2000d", 5);
    EXPECT_EQ("5" + std::string(message_length - 1, ' '), Message(Entry(1)));
}

TEST_F(CUtility, TaggedLineIsCutTo511Characters) {
    const std::string tags = "net: rx: ";
    Start(1);
    for (const std::size_t total : long_messages) {
        SCOPED_TRACE(total);
        const std::string text = Text(total - tags.size());
        const std::string expected = (tags + text).substr(0, message_length);
        Log::SetLoggingDestination(1);
        EXPECT_EQ(expected, MessageOf([&] { Log::DebugLocal("net", "rx", "%s", text.c_str()); }));
        Log::SetLoggingDestination(3);
        Log::m_nLogEntryIter = 0;
        Log::DebugLocal("net", "rx", "%s", text.c_str());
        EXPECT_EQ(expected, Message(Entry(0)));
    }
}

TEST_F(CUtility, LineOfOverlongTagsIsCutTo511Characters) {
    Start(3);
    for (const std::size_t length : {300U, 477U, 486U, 487U, 488U, 500U, 2000U}) {
        SCOPED_TRACE(length);
        Log::m_nLogEntryIter = 0;
        Log::DebugLocal(Text(length), Text(length), "n=%d", 3);
        EXPECT_EQ((Text(length) + ": " + Text(length) + ": n=3").substr(0, message_length), Message(Entry(0)));
        EXPECT_EQ("", Entry(1));
    }
}

// How much text stays before an outcome: 511 - 24 - " - succeeded" or " - failed".
constexpr std::size_t success_text = 475;
constexpr std::size_t failure_text = 478;

TEST_F(CUtility, OverlongOutcomeLosesTextAndKeepsTheOutcome) {
    for (const int dest : {1, 3}) {
        Restart(dest);
        for (const std::size_t length : {474U, 475U, 476U, 477U, 478U, 479U, 486U, 487U, 488U, 512U, 2000U}) {
            SCOPED_TRACE(length);
            EXPECT_EQ(Text(length).substr(0, success_text) + " - succeeded",
                      MessageOf([length] { Log::ConditionalDebug(Text(length), true); }));
            EXPECT_EQ(Text(length).substr(0, failure_text) + " - failed",
                      MessageOf([length] { Log::ConditionalDebug(Text(length), false); }));
        }
    }
    EXPECT_TRUE(RingIsZero());
}

TEST_F(CUtility, OverlongTaggedOutcomeLosesTextAndKeepsTheOutcome) {
    Start(1);
    const std::string tags = "net: rx: ";
    for (const std::size_t total : {474U, 475U, 476U, 477U, 478U, 479U, 486U, 487U, 488U, 512U, 2000U}) {
        SCOPED_TRACE(total);
        const std::string text = Text(total - tags.size());
        EXPECT_EQ((tags + text).substr(0, success_text) + " - succeeded",
                  MessageOf([&] { Log::ConditionalDebugLocal("net", "rx", text, true); }));
        EXPECT_EQ((tags + text).substr(0, failure_text) + " - failed",
                  MessageOf([&] { Log::ConditionalDebugLocal("net", "rx", text, false); }));
    }
}

TEST_F(CUtility, OutcomeOfOverlongTagsKeepsTheOutcome) {
    Start(1);
    for (const std::size_t length : {237U, 300U, 487U, 2000U}) {
        SCOPED_TRACE(length);
        const std::string text = Text(length) + ": " + Text(length) + ": open";
        EXPECT_EQ(text.substr(0, success_text) + " - succeeded",
                  MessageOf([length] { Log::ConditionalDebugLocal(Text(length), Text(length), "open", true); }));
        EXPECT_EQ(text.substr(0, failure_text) + " - failed",
                  MessageOf([length] { Log::ConditionalDebugLocal(Text(length), Text(length), "open", false); }));
    }
}

// Per cent signs

struct PercentRow {
    const char* message;
    const char* on_console;
};

constexpr PercentRow percent_rows[] = {
    {"%", "%"},
    {"100%", "100%"},
    {"%%", "%"},
    {"100%%", "100%"},
    {"%%%", "%%"},
    {"%%%%", "%%"},
    {"%%%%%", "%%%"},
    {"%n", "%n"},
    {"%n%n%n", "%n%n%n"},
    {"%s", "%s"},
    {"%s%s%s%s%s%s%s%s", "%s%s%s%s%s%s%s%s"},
    {"%d and %x", "%d and %x"},
    {"%%d", "%d"},
    {"%%s", "%s"},
    {"%%n", "%n"},
    {"%%%d", "%%d"},
    {"%%%%d", "%%d"},
    {"%5$n", "%5$n"},
    {"%2000d", "%2000d"},
    {"%*s", "%*s"},
    {"% %", "% %"},
    {"%l%", "%l%"},
    {"%ls %hhn %lld", "%ls %hhn %lld"},
    {"a%%b%%c%", "a%b%c%"},
    {"%-", "%-"},
    {"%\n%%\n", "%\n%\n"},
};

TEST_F(CUtility, PercentSignsReachTheConsoleAsText) {
    Start(1);
    for (const PercentRow& row : percent_rows) {
        SCOPED_TRACE(row.message);
        EXPECT_EQ(row.on_console, MessageOf([&row] { Log::Debug("%s", row.message); }));
        EXPECT_EQ(row.on_console, MessageOf([&row] { WriteUnderLock("%s", row.message); }));
        EXPECT_EQ(std::string("s: f: ") + row.on_console,
                  MessageOf([&row] { Log::DebugLocal("s", "f", "%s", row.message); }));
    }
}

TEST_F(CUtility, PercentSignsOfOutcomesReachTheConsoleAsText) {
    Start(1);
    for (const PercentRow& row : percent_rows) {
        SCOPED_TRACE(row.message);
        EXPECT_EQ(std::string(row.on_console) + " - failed",
                  MessageOf([&row] { Log::ConditionalDebug(row.message, false); }));
        EXPECT_EQ(std::string("s: f: ") + row.on_console + " - succeeded",
                  MessageOf([&row] { Log::ConditionalDebugLocal("s", "f", row.message, true); }));
    }
}

TEST_F(CUtility, PercentSignsStandInTheRingAsFormatted) {
    Start(3);
    for (const PercentRow& row : percent_rows) {
        SCOPED_TRACE(row.message);
        Log::m_nLogEntryIter = 0;
        Log::Debug("%s", row.message);
        EXPECT_EQ(row.message, Message(Entry(0)));
        Log::DebugLocal("s", "f", "%s", row.message);
        EXPECT_EQ(std::string("s: f: ") + row.message, Message(Entry(1)));
    }
}

TEST_F(CUtility, PercentSignsOfTheFormatAreFormattedOnceForTheRingAndReducedOnceMoreForTheConsole) {
    Start(3);
    Log::Debug("100%% %%%%d %d%%%%", 7);
    EXPECT_EQ("100% %%d 7%%", Message(Entry(0)));
    Log::SetLoggingDestination(1);
    EXPECT_EQ("100% %d 7%", MessageOf([] { Log::Debug("100%% %%%%d %d%%%%", 7); }));
}

TEST_F(CUtility, PercentSignsOfTagsAreText) {
    Start(3);
    for (const PercentRow& row : percent_rows) {
        SCOPED_TRACE(row.message);
        const std::string tag = row.message;
        Log::SetLoggingDestination(3);
        Log::m_nLogEntryIter = 0;
        Log::DebugLocal(tag, "f", "n=%d", 3);
        EXPECT_EQ(tag + ": f: n=3", Message(Entry(0)));
        Log::DebugLocal("s", tag, "n=%d", 3);
        EXPECT_EQ("s: " + tag + ": n=3", Message(Entry(1)));
        Log::SetLoggingDestination(1);
        EXPECT_EQ(std::string(row.on_console) + ": f: n=3", MessageOf([&] { Log::DebugLocal(tag, "f", "n=%d", 3); }));
        EXPECT_EQ("s: " + std::string(row.on_console) + ": open - failed",
                  MessageOf([&] { Log::ConditionalDebugLocal("s", tag, "open", false); }));
    }
}

TEST_F(CUtility, PercentSignsOfLongTagsAreText) {
    Start(3);
    const std::string tag(300, '%');
    Log::DebugLocal(tag, "f", "n=%d", 3);
    EXPECT_EQ(tag + ": f: n=3", Message(Entry(0)));
    Log::DebugLocal(tag, tag, "n=%d", 3);
    EXPECT_EQ((tag + ": " + tag).substr(0, message_length), Message(Entry(1)));
}

TEST_F(CUtility, PercentSignsOfSetNamesAreCompared) {
    Start(3);
    Log::SetSubsystem("50%%");
    Log::DebugLocal("50%", "f", "m");
    EXPECT_TRUE(RingIsZero());
    Log::DebugLocal("50%%", "f", "m");
    EXPECT_EQ("50%%: f: m", Message(Entry(0)));
}

TEST_F(CUtility, PercentSignAtTheCutIsText) {
    Start(1);
    const std::string message = Text(message_length - 1) + "%%d";
    EXPECT_EQ(Text(message_length - 1) + "%", MessageOf([&message] { Log::Debug("%s", message.c_str()); }));
}

TEST_F(CUtility, LineOfPercentSignsOnlyIsReducedByHalf) {
    Start(1);
    const std::string message(2000, '%');
    EXPECT_EQ(std::string((message_length + 1) / 2, '%'), MessageOf([&message] { Log::Debug("%s", message.c_str()); }));
}

// The time stamp

// Half the zones are two days apart from the other half, so that day and month are told apart on any date; and hours,
// minutes and seconds differ from zone to zone.
constexpr const char* zones[] = {"UTC0", "ABC-24", "ABC+24", "ABC-5:30", "ABC+3:17:43", "CET-1CEST,M3.5.0,M10.5.0/3"};

TEST_F(CUtility, PrefixTimestampIsTheLocalTimeWithItsMonthFromZero) {
    TimeZone zone("UTC0");
    for (const char* const name : zones) {
        SCOPED_TRACE(name);
        TimeZone::Change(name);
        const Stopwatch now;
        const std::string line = Log::PrefixTimestamp("text");
        EXPECT_TRUE(now.Covers(line)) << line;
        EXPECT_EQ("text", Message(line));
    }
}

TEST_F(CUtility, PrefixTimestampTakesNoNoticeOfDestinationAndFilters) {
    Log::SetSubsystem("net");
    Log::SetFilter("rx");
    std::string line;
    EXPECT_EQ("", OutputOf([&line] { line = Log::PrefixTimestamp("text"); }));
    EXPECT_EQ("text", Message(line));
}

TEST_F(CUtility, PrefixTimestampChangesNothingInTheText) {
    for (const char* const text : {"", "%", "%%", "%n%s", "two\nlines", " spaces "}) {
        EXPECT_EQ(text, Message(Log::PrefixTimestamp(text)));
    }
}

TEST_F(CUtility, PrefixTimestampCutsTheLineTo511Characters) {
    for (const std::size_t length : long_messages) {
        EXPECT_EQ(Text(length).substr(0, message_length), Message(Log::PrefixTimestamp(Text(length)))) << length;
    }
}

TEST_F(CUtility, PrefixTimestampMovesOnWithTheClock) {
    const std::string first = Log::PrefixTimestamp("");
    EXPECT_TRUE(Eventually([&] { return Log::PrefixTimestamp("") != first; }));
    const Stopwatch now;
    const std::string later = Log::PrefixTimestamp("");
    EXPECT_TRUE(now.Covers(later)) << later;
}

TEST_F(CUtility, LinesMoveOnWithTheClock) {
    Start(3);
    Log::Debug("m");
    const std::string first = Entry(0);
    EXPECT_TRUE(Eventually([&] {
        Log::m_nLogEntryIter = 0;
        Log::Debug("m");
        return Entry(0) != first;
    }));
    const Stopwatch now;
    Log::Debug("m");
    EXPECT_TRUE(now.Covers(Entry(1))) << Entry(1);
}

TEST_F(CUtility, LinesFollowTheTimeZoneWithinASecond) {
    TimeZone zone("UTC0");
    Start(3);
    for (const char* const name : {"ABC-5", "ABC+24", "UTC0"}) {
        SCOPED_TRACE(name);
        Log::Debug("in the zone before");
        TimeZone::Change(name);
        const auto changed = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
        ASSERT_TRUE(Eventually([changed] { return std::time(nullptr) > changed; }));
        Log::m_nLogEntryIter = 0;
        const Stopwatch now;
        Log::Debug("m");
        EXPECT_TRUE(now.Covers(Entry(0))) << Entry(0);
        const std::string outcome = OutputOf([] { Log::ConditionalDebug("m", true); });
        EXPECT_TRUE(now.Covers(outcome)) << outcome;
    }
}

}  // namespace

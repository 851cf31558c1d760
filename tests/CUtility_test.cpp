#include <TarnSocketIO/CUtility.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <type_traits>

#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"

using TarnTest::Entry;
using TarnTest::EverythingIsZero;
using TarnTest::Fields;
using TarnTest::Fill;
using TarnTest::IsZero;
using TarnTest::LockIsFree;
using TarnTest::Log;
using TarnTest::LooksLikeAStamp;
using TarnTest::Message;
using TarnTest::message_length;
using TarnTest::MessageOf;
using TarnTest::OnlyMessage;
using TarnTest::OutputOf;
using TarnTest::ResetLog;
using TarnTest::Restart;
using TarnTest::RingIsZero;
using TarnTest::stamp_length;
using TarnTest::Start;
using TarnTest::Stopwatch;
using TarnTest::Text;
using TarnTest::WriteUnderLock;

namespace {

using CUtility = TarnTest::LogTest;

static_assert(!std::is_default_constructible_v<Log>);
static_assert(sizeof Log::m_szLogEntry == 102400);
static_assert(sizeof Log::m_szLogEntry[0] == 512);
static_assert(sizeof Log::m_szFilename == 64);
static_assert(sizeof Log::m_strSubsystem == 64);
static_assert(sizeof Log::m_strFilter == 64);
static_assert(std::is_same_v<decltype(Log::m_nLogDest.load()), std::int32_t>);
static_assert(std::is_same_v<decltype(Log::m_nLogEntryIter.load()), std::int32_t>);

const bool everything_is_zero_at_load = EverythingIsZero();

// Load and Initialise

TEST_F(CUtility, IsAllZeroWhenTheLibraryIsLoaded) {
    EXPECT_TRUE(everything_is_zero_at_load);
}

TEST_F(CUtility, IsSilentBeforeInitialise) {
    const std::string output = OutputOf([] {
        Log::Debug("x=%d", 5);
        Log::DebugLocal("net", "rx", "x=%d", 5);
        Log::ConditionalDebug("open", true);
        Log::ConditionalDebugLocal("net", "rx", "open", true);
    });
    EXPECT_EQ("", output);
    EXPECT_TRUE(EverythingIsZero());
}

TEST_F(CUtility, InitialisePrintsItsBannerWithTheDestination) {
    for (const int dest : {1, 0, 3, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        ResetLog();
        EXPECT_EQ("CUtility::Initialise - called, log dest " + std::to_string(dest) + "\n",
                  OutputOf([dest] { Log::Initialise(dest); }));
    }
}

TEST_F(CUtility, InitialiseSetsDestinationAndFlag) {
    for (const int dest : {0, 1, 2, 3, -1}) {
        Restart(dest);
        EXPECT_EQ(dest, Log::m_nLogDest);
        EXPECT_TRUE(Log::m_bInitialised);
    }
}

TEST_F(CUtility, InitialiseZeroesNamesRingAndIndex) {
    Fill(Log::m_szFilename, 'x');
    Fill(Log::m_strSubsystem, 'x');
    Fill(Log::m_strFilter, 'x');
    Log::m_nLogEntryIter = 77;
    std::for_each(std::begin(Log::m_szLogEntry), std::end(Log::m_szLogEntry), [](auto& entry) { Fill(entry, 'x'); });
    Start(1);
    EXPECT_TRUE(IsZero(Log::m_szFilename));
    EXPECT_TRUE(IsZero(Log::m_strSubsystem));
    EXPECT_TRUE(IsZero(Log::m_strFilter));
    EXPECT_EQ(0, Log::m_nLogEntryIter);
    EXPECT_TRUE(RingIsZero());
}

TEST_F(CUtility, InitialiseMakesAMutexThatOneThreadLocksOnce) {
    Start(1);
    ASSERT_EQ(0, pthread_mutex_trylock(&Log::m_mutex));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&Log::m_mutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&Log::m_mutex));
}

TEST_F(CUtility, InitialiseLeavesFilterAndSubsystemOff) {
    Start(1);
    EXPECT_FALSE(Log::m_bHaveFilter);
    EXPECT_FALSE(Log::m_bHaveSubsystem);
}

TEST_F(CUtility, InitialiseEmptiesAFilterAndASubsystemThatWereSetButLeavesThemInForce) {
    Log::SetSubsystem("net");
    Log::SetFilter("rx");
    Start(1);
    EXPECT_TRUE(Log::m_bHaveSubsystem);
    EXPECT_TRUE(Log::m_bHaveFilter);
    EXPECT_EQ("", OutputOf([] { Log::Debug("suppressed"); }));
    EXPECT_EQ("", OutputOf([] { Log::DebugLocal("net", "rx", "suppressed"); }));
    EXPECT_EQ(": : passes", MessageOf([] { Log::DebugLocal("", "", "passes"); }));
}

TEST_F(CUtility, SecondInitialisePrintsItsBannerAndLeavesTheDestination) {
    Start(3);
    EXPECT_EQ("CUtility::Initialise - called, log dest 1\n", OutputOf([] { Log::Initialise(1); }));
    EXPECT_EQ(3, Log::m_nLogDest);
}

TEST_F(CUtility, SecondInitialiseChangesNothing) {
    Start(3);
    Log::Debug("kept");
    Log::SetFileDebug("log.txt");
    Log::SetSubsystem("net");
    Log::SetFilter("rx");
    const Fields before;
    Start(1);
    EXPECT_EQ(before, Fields());
    EXPECT_EQ("kept", Message(Entry(0)));
    EXPECT_EQ(1, Log::m_nLogEntryIter);
}

// Destruct

/// Makes the mutex good again for the tests that follow in the same process.
class CUtilityDestruct : public CUtility {
protected:
    ~CUtilityDestruct() override { Restart(0); }
};

TEST_F(CUtilityDestruct, BeforeInitialiseDoesNothing) {
    EXPECT_EQ("", OutputOf([] { Log::Destruct(); }));
    EXPECT_TRUE(EverythingIsZero());
    EXPECT_TRUE(LockIsFree()) << "the mutex is gone";
}

TEST_F(CUtilityDestruct, ChangesNoFieldAndWritesNothing) {
    Start(3);
    Log::Debug("kept");
    Log::SetFileDebug("log.txt");
    Log::SetSubsystem("net");
    Log::SetFilter("rx");
    const Fields before;
    EXPECT_EQ("", OutputOf([] { Log::Destruct(); }));
    EXPECT_EQ(before, Fields());
    EXPECT_TRUE(Log::m_bInitialised);
}

TEST_F(CUtilityDestruct, IsNotUndoneByAnotherInitialise) {
    Start(3);
    Log::Debug("kept");
    Log::Destruct();
    const Fields before;
    EXPECT_EQ("CUtility::Initialise - called, log dest 1\n", OutputOf([] { Log::Initialise(1); }));
    EXPECT_EQ(before, Fields());
}

TEST_F(CUtilityDestruct, LeavesALockThatKeepsLaterLinesApart) {
    Start(1);
    Log::Destruct();
    ASSERT_EQ(0, pthread_mutex_trylock(&Log::m_mutex));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&Log::m_mutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&Log::m_mutex));
}

TEST_F(CUtilityDestruct, LeavesLoggingSafeOnTheConsole) {
    Start(1);
    Log::Destruct();
    const std::string output = OutputOf([] {
        Log::Debug("late");
        Log::DebugLocal("net", "rx", "late");
        Log::ConditionalDebug("late", true);
        Log::ConditionalDebugLocal("net", "rx", "late", false);
    });
    std::string rest = output;
    for (const char* const message : {"late", "net: rx: late", "late - succeeded", "net: rx: late - failed"}) {
        if (rest.empty()) {
            break;
        }
        EXPECT_EQ(message, OnlyMessage(rest.substr(0, rest.find('\n') + 1)));
        rest.erase(0, rest.find('\n') + 1);
    }
    EXPECT_EQ("", rest);
}

TEST_F(CUtilityDestruct, LeavesLoggingSafeInTheRing) {
    Start(3);
    Log::Destruct();
    for (int i = 0; i < 2 * Log::LOG_ENTRIES; ++i) {
        Log::Debug("late");
    }
    EXPECT_TRUE(Entry(0).empty() || Message(Entry(0)) == "late") << Entry(0);
    EXPECT_TRUE(Log::m_nLogEntryIter >= 0 && Log::m_nLogEntryIter < Log::LOG_ENTRIES);
}

TEST_F(CUtilityDestruct, LeavesTheSettersSafe) {
    Start(1);
    Log::Destruct();
    const std::string output = OutputOf([] {
        Log::SetSubsystem("net");
        Log::SetFilter("rx");
        Log::ClearFilter();
        Log::ClearSubsystem();
        Log::SetFileDebug("log.txt");
        Log::ClearFileDebug();
        Log::SetLoggingDestination(0);
    });
    EXPECT_EQ("CUtility::ClearSubsystems\n", output);
}

// Destinations

enum Sink { nowhere, console, ring };

/// Where the message that `write` writes turns up.
Sink SinkOf(const std::function<void()>& write) {
    Log::m_nLogEntryIter = 5;
    std::memset(Log::m_szLogEntry, 0, sizeof Log::m_szLogEntry);
    const std::string output = OutputOf(write);
    const bool on_console = LooksLikeAStamp(output) && output.back() == '\n';
    const bool in_ring = LooksLikeAStamp(Entry(5)) && Log::m_nLogEntryIter == 6;
    EXPECT_EQ(on_console, !output.empty()) << output;
    EXPECT_EQ(in_ring, !RingIsZero());
    EXPECT_EQ(in_ring ? 6 : 5, Log::m_nLogEntryIter);
    EXPECT_FALSE(on_console && in_ring);
    return on_console ? console : in_ring ? ring : nowhere;
}

TEST_F(CUtility, DestinationSelectsTheSinkOfEachEntryPoint) {
    struct Row {
        int dest;
        Sink debug;
        Sink debug_local;
        Sink conditional;
        Sink conditional_local;
    };
    static constexpr Row rows[] = {
        {std::numeric_limits<int>::min(), nowhere, nowhere, nowhere, nowhere},
        {-8, nowhere, nowhere, nowhere, nowhere},
        {-5, nowhere, ring, nowhere, nowhere},
        {-4, nowhere, nowhere, nowhere, nowhere},
        {-3, nowhere, console, nowhere, nowhere},
        {-2, nowhere, nowhere, nowhere, nowhere},
        {-1, nowhere, ring, nowhere, nowhere},
        {0, nowhere, nowhere, nowhere, nowhere},
        {1, console, console, console, console},
        {2, nowhere, nowhere, nowhere, nowhere},
        {3, ring, ring, console, console},
        {4, nowhere, nowhere, nowhere, nowhere},
        {5, console, console, console, console},
        {6, nowhere, nowhere, nowhere, nowhere},
        {7, ring, ring, console, console},
        {8, nowhere, nowhere, nowhere, nowhere},
        {256 + 1, console, console, console, console},
        {65536 + 3, ring, ring, console, console},
        {std::numeric_limits<int>::max(), ring, ring, console, console},
    };
    Start(0);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.dest);
        Log::SetLoggingDestination(row.dest);
        EXPECT_EQ(row.dest, Log::m_nLogDest);
        EXPECT_EQ(row.debug, SinkOf([] { Log::Debug("m"); }));
        EXPECT_EQ(row.debug_local, SinkOf([] { Log::DebugLocal("s", "f", "m"); }));
        EXPECT_EQ(row.conditional, SinkOf([] { Log::ConditionalDebug("m", true); }));
        EXPECT_EQ(row.conditional, SinkOf([] { Log::ConditionalDebug("m", false); }));
        EXPECT_EQ(row.conditional_local, SinkOf([] { Log::ConditionalDebugLocal("s", "f", "m", true); }));
        EXPECT_EQ(row.conditional_local, SinkOf([] { Log::ConditionalDebugLocal("s", "f", "m", false); }));
        // The writer has no gate at all, and so goes where a tagged message goes.
        EXPECT_EQ(row.debug_local, SinkOf([] { WriteUnderLock("m"); }));
    }
}

TEST_F(CUtility, DestinationGivenToInitialiseSelectsTheSink) {
    Start(1);
    EXPECT_EQ(console, SinkOf([] { Log::Debug("m"); }));
    Restart(3);
    EXPECT_EQ(ring, SinkOf([] { Log::Debug("m"); }));
    Restart(2);
    EXPECT_EQ(nowhere, SinkOf([] { Log::Debug("m"); }));
}

TEST_F(CUtility, DestinationIsChangedForTheNextMessage) {
    Start(1);
    EXPECT_EQ(console, SinkOf([] { Log::Debug("m"); }));
    Log::SetLoggingDestination(3);
    EXPECT_EQ(ring, SinkOf([] { Log::Debug("m"); }));
    Log::SetLoggingDestination(0);
    EXPECT_EQ(nowhere, SinkOf([] { Log::Debug("m"); }));
    Log::SetLoggingDestination(1);
    EXPECT_EQ(console, SinkOf([] { Log::Debug("m"); }));
}

TEST_F(CUtility, SetLoggingDestinationChangesNothingElse) {
    Start(3);
    Log::Debug("kept");
    Log::SetFilter("rx");
    Fields expected;
    expected.dest = -7;
    EXPECT_EQ("", OutputOf([] { Log::SetLoggingDestination(-7); }));
    EXPECT_EQ(expected, Fields());
}

// Debug

TEST_F(CUtility, DebugPrintsAStampedLine) {
    Start(1);
    const Stopwatch now;
    const std::string output = OutputOf([] { Log::Debug("x=%d", 5); });
    EXPECT_EQ("x=5", OnlyMessage(output));
    EXPECT_TRUE(now.Covers(output)) << output;
    EXPECT_TRUE(RingIsZero());
    EXPECT_EQ(0, Log::m_nLogEntryIter);
}

TEST_F(CUtility, DebugFillsTheRingAndPrintsNothing) {
    Start(3);
    const Stopwatch now;
    EXPECT_EQ("", OutputOf([] { Log::Debug("x=%d", 5); }));
    EXPECT_EQ("x=5", Message(Entry(0)));
    EXPECT_TRUE(now.Covers(Entry(0))) << Entry(0);
    EXPECT_EQ(1, Log::m_nLogEntryIter);
}

TEST_F(CUtility, DebugFormatsEveryKindOfArgument) {
    Start(3);
    Log::Debug("%s %c %5d|%-5d|%05d %u %lld %x %.3f %p %%", "text", 'c', -42, 42, 42, 4000000000U,
               -9000000000000000000LL, 0xBEEFU, 2.5, static_cast<void*>(nullptr));
    EXPECT_EQ("text c   -42|42   |00042 4000000000 -9000000000000000000 beef 2.500 (nil) %", Message(Entry(0)));
}

TEST_F(CUtility, DebugOfAnEmptyMessageWritesTheStampAlone) {
    Start(1);
    EXPECT_EQ("", MessageOf([] { Log::Debug("%s", ""); }));
    Log::SetLoggingDestination(3);
    Log::Debug("%s", "");
    EXPECT_EQ("", Message(Entry(0)));
    EXPECT_EQ(1, Log::m_nLogEntryIter);
}

TEST_F(CUtility, DebugWritesOneLinePerMessageInOrder) {
    Start(1);
    const std::string text = OutputOf([] {
        Log::Debug("first");
        Log::Debug("second");
    });
    const std::size_t end = text.find('\n') + 1;
    EXPECT_EQ("first", OnlyMessage(text.substr(0, end)));
    EXPECT_EQ("second", OnlyMessage(text.substr(end)));
}

TEST_F(CUtility, UntaggedMessagesAreSuppressedByASubsystem) {
    Start(1);
    Log::SetSubsystem("net");
    EXPECT_EQ(nowhere, SinkOf([] { Log::Debug("m"); }));
    EXPECT_EQ(nowhere, SinkOf([] { Log::ConditionalDebug("m", true); }));
    Log::SetLoggingDestination(3);
    EXPECT_EQ(nowhere, SinkOf([] { Log::Debug("m"); }));
}

TEST_F(CUtility, UntaggedMessagesAreSuppressedByAFilter) {
    Start(1);
    Log::SetFilter("rx");
    EXPECT_EQ(nowhere, SinkOf([] { Log::Debug("m"); }));
    EXPECT_EQ(nowhere, SinkOf([] { Log::ConditionalDebug("m", true); }));
    Log::SetLoggingDestination(3);
    EXPECT_EQ(nowhere, SinkOf([] { Log::Debug("m"); }));
}

TEST_F(CUtility, UntaggedMessagesAreSuppressedByAnEmptySubsystemOrFilter) {
    Start(1);
    Log::SetSubsystem("");
    EXPECT_EQ(nowhere, SinkOf([] { Log::Debug("m"); }));
    EXPECT_EQ(nowhere, SinkOf([] { Log::ConditionalDebug("m", true); }));
    Restart(1);
    Log::SetFilter("");
    EXPECT_EQ(nowhere, SinkOf([] { Log::Debug("m"); }));
    EXPECT_EQ(nowhere, SinkOf([] { Log::ConditionalDebug("m", true); }));
}

// The ring

TEST_F(CUtility, RingEntriesAreReadByIndex) {
    Start(3);
    for (int i = 0; i < Log::LOG_ENTRIES; ++i) {
        EXPECT_EQ(Log::m_szLogEntry[i], Log::GetCyclicLogEntries(i));
    }
}

TEST_F(CUtility, RingEntryNeverWrittenIsEmpty) {
    Start(3);
    Log::Debug("m");
    for (int i = 1; i < Log::LOG_ENTRIES; ++i) {
        EXPECT_STREQ("", Log::GetCyclicLogEntries(i));
    }
}

TEST_F(CUtility, RingIsFilledInOrder) {
    Start(3);
    for (int i = 0; i < Log::LOG_ENTRIES; ++i) {
        ASSERT_EQ(i, Log::m_nLogEntryIter);
        Log::Debug("message %d", i);
    }
    for (int i = 0; i < Log::LOG_ENTRIES; ++i) {
        EXPECT_EQ("message " + std::to_string(i), Message(Entry(i)));
    }
}

TEST_F(CUtility, RingStartsAgainAfter200Messages) {
    Start(3);
    for (int i = 0; i < 199; ++i) {
        Log::Debug("message %d", i);
    }
    EXPECT_EQ(199, Log::m_nLogEntryIter);
    Log::Debug("message %d", 199);
    EXPECT_EQ(0, Log::m_nLogEntryIter);
    EXPECT_EQ("message 0", Message(Entry(0)));
    Log::Debug("message %d", 200);
    EXPECT_EQ(1, Log::m_nLogEntryIter);
    EXPECT_EQ("message 200", Message(Entry(0)));
    EXPECT_EQ("message 1", Message(Entry(1))) << "the oldest";
    EXPECT_EQ("message 199", Message(Entry(199)));
}

TEST_F(CUtility, RingKeepsTheLast200Messages) {
    Start(3);
    for (int i = 0; i < 1234; ++i) {
        Log::Debug("message %d", i);
    }
    EXPECT_EQ(1234 % 200, Log::m_nLogEntryIter);
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ("message " + std::to_string(1034 + i), Message(Entry((Log::m_nLogEntryIter + i) % 200)));
    }
}

TEST_F(CUtility, RingEntryKeepsNothingOfTheLongerLineBefore) {
    Start(3);
    Log::Debug("%s", Text(message_length).c_str());
    Log::m_nLogEntryIter = 0;
    Log::Debug("short");
    const std::string entry(Log::m_szLogEntry[0], sizeof Log::m_szLogEntry[0]);
    EXPECT_EQ("short", Message(Entry(0)));
    EXPECT_EQ(std::string::npos, entry.find_first_not_of('\0', stamp_length + 5));
}

TEST_F(CUtility, RingEntryCanBeLoggedAgain) {
    Start(3);
    Log::Debug("old");
    const std::string old = Entry(0);
    Log::Debug("again: %s", Log::GetCyclicLogEntries(0));
    EXPECT_EQ("again: " + old, Message(Entry(1)));
}

// The argument is then the very entry that the new line replaces.
TEST_F(CUtility, OldestRingEntryCanBeLoggedAgain) {
    Start(3);
    for (int i = 0; i < Log::LOG_ENTRIES; ++i) {
        Log::Debug("message %d", i);
    }
    const std::string oldest = Entry(0);
    Log::Debug("again: %s", Log::GetCyclicLogEntries(0));
    EXPECT_EQ("again: " + oldest, Message(Entry(0)));
    const std::string next = Entry(1);
    Log::DebugLocal("net", "rx", "%s", Log::GetCyclicLogEntries(1));
    EXPECT_EQ("net: rx: " + next, Message(Entry(1)));
}

// Tagged messages

TEST_F(CUtility, DebugLocalWritesSubsystemAndFilterBeforeTheMessage) {
    Start(1);
    const Stopwatch now;
    const std::string output = OutputOf([] { Log::DebugLocal("net", "rx", "n=%d of %s", 3, "five"); });
    EXPECT_EQ("net: rx: n=3 of five", OnlyMessage(output));
    EXPECT_TRUE(now.Covers(output)) << output;
    Log::SetLoggingDestination(3);
    EXPECT_EQ("", OutputOf([] { Log::DebugLocal("net", "rx", "n=%d", 3); }));
    EXPECT_EQ("net: rx: n=3", Message(Entry(0)));
}

TEST_F(CUtility, DebugLocalWritesEmptyTagsToo) {
    Start(1);
    EXPECT_EQ(": : m", MessageOf([] { Log::DebugLocal("", "", "m"); }));
    EXPECT_EQ("net: : m", MessageOf([] { Log::DebugLocal("net", "", "m"); }));
    EXPECT_EQ(": rx: m", MessageOf([] { Log::DebugLocal("", "rx", "m"); }));
}

TEST_F(CUtility, TaggedMessagesPassWhereTheyEqualWhatIsSet) {
    struct Row {
        const char* set_subsystem;  // null: none is set
        const char* set_filter;
        const char* subsystem;
        const char* filter;
        bool passes;
    };
    static constexpr Row rows[] = {
        {nullptr, nullptr, "net", "rx", true},
        {nullptr, nullptr, "", "", true},
        {"net", nullptr, "net", "rx", true},
        {"net", nullptr, "net", "", true},
        {"net", nullptr, "ui", "rx", false},
        {"net", nullptr, "", "rx", false},
        {"net", nullptr, "Net", "rx", false},
        {"net", nullptr, "NET", "rx", false},
        {"net", nullptr, "ne", "rx", false},
        {"net", nullptr, "nets", "rx", false},
        {"net", nullptr, "rx", "net", false},
        {"", nullptr, "", "rx", true},
        {"", nullptr, "net", "rx", false},
        {nullptr, "rx", "net", "rx", true},
        {nullptr, "rx", "", "rx", true},
        {nullptr, "rx", "net", "tx", false},
        {nullptr, "rx", "net", "", false},
        {nullptr, "rx", "net", "RX", false},
        {nullptr, "rx", "net", "r", false},
        {nullptr, "rx", "net", "rx ", false},
        {nullptr, "rx", "rx", "net", false},
        {nullptr, "", "net", "", true},
        {nullptr, "", "net", "rx", false},
        {"net", "rx", "net", "rx", true},
        {"net", "rx", "net", "tx", false},
        {"net", "rx", "ui", "rx", false},
        {"net", "rx", "ui", "tx", false},
        {"net", "rx", "rx", "net", false},
        {"net", "", "net", "", true},
        {"net", "", "net", "rx", false},
        {"", "rx", "", "rx", true},
        {"", "rx", "net", "rx", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string("set ") + (row.set_subsystem ? row.set_subsystem : "none") + ", " +
                     (row.set_filter ? row.set_filter : "none") + "; tags " + row.subsystem + ", " + row.filter);
        Restart(1);
        if (row.set_subsystem) {
            Log::SetSubsystem(row.set_subsystem);
        }
        if (row.set_filter) {
            Log::SetFilter(row.set_filter);
        }
        const std::string tags = std::string(row.subsystem) + ": " + row.filter + ": ";
        const std::string debug = OutputOf([&] { Log::DebugLocal(row.subsystem, row.filter, "n=%d", 3); });
        const std::string outcome =
            OutputOf([&] { Log::ConditionalDebugLocal(row.subsystem, row.filter, "open", true); });
        if (row.passes) {
            EXPECT_EQ(tags + "n=3", OnlyMessage(debug));
            EXPECT_EQ(tags + "open - succeeded", OnlyMessage(outcome));
        } else {
            EXPECT_EQ("", debug);
            EXPECT_EQ("", outcome);
        }
    }
}

TEST_F(CUtility, DebugLocalIsFilteredInTheRingToo) {
    Start(3);
    Log::SetSubsystem("net");
    Log::DebugLocal("ui", "rx", "m");
    EXPECT_TRUE(RingIsZero());
    EXPECT_EQ(0, Log::m_nLogEntryIter);
    Log::SetLoggingDestination(-1);
    Log::DebugLocal("ui", "rx", "m");
    EXPECT_TRUE(RingIsZero());
    Log::DebugLocal("net", "rx", "m");
    EXPECT_EQ("net: rx: m", Message(Entry(0)));
}

// Outcomes

TEST_F(CUtility, ConditionalDebugPrintsTheOutcome) {
    Start(1);
    const Stopwatch now;
    const std::string output = OutputOf([] { Log::ConditionalDebug("open", true); });
    EXPECT_EQ("open - succeeded", OnlyMessage(output));
    EXPECT_TRUE(now.Covers(output)) << output;
    EXPECT_EQ("open - failed", MessageOf([] { Log::ConditionalDebug("open", false); }));
    EXPECT_EQ(" - failed", MessageOf([] { Log::ConditionalDebug("", false); }));
}

TEST_F(CUtility, ConditionalDebugPrintsAlsoWhereTheDestinationIsTheRing) {
    Start(3);
    EXPECT_EQ("open - succeeded", MessageOf([] { Log::ConditionalDebug("open", true); }));
    EXPECT_EQ("open - failed", MessageOf([] { Log::ConditionalDebug("open", false); }));
    EXPECT_TRUE(RingIsZero());
    EXPECT_EQ(0, Log::m_nLogEntryIter);
}

TEST_F(CUtility, ConditionalDebugLocalPrintsTagsAndOutcome) {
    for (const int dest : {1, 3}) {
        Restart(dest);
        const Stopwatch now;
        const std::string output = OutputOf([] { Log::ConditionalDebugLocal("net", "rx", "open", true); });
        EXPECT_EQ("net: rx: open - succeeded", OnlyMessage(output));
        EXPECT_TRUE(now.Covers(output)) << output;
        EXPECT_EQ("net: rx: open - failed", MessageOf([] { Log::ConditionalDebugLocal("net", "rx", "open", false); }));
        EXPECT_TRUE(RingIsZero());
        EXPECT_EQ(0, Log::m_nLogEntryIter);
    }
}

// tvSub

TEST_F(CUtility, TvSubTakesTheFirstTimeFromTheSecond) {
    struct Row {
        long a_sec, a_usec, b_sec, b_usec, sec, usec;
    };
    static constexpr Row rows[] = {
        {1, 900000, 3, 100000, 1, 200000},  // borrows
        {1, 100000, 3, 900000, 2, 800000},
        {0, 0, 0, 0, 0, 0},
        {0, 0, 5, 7, 5, 7},
        {5, 7, 5, 7, 0, 0},
        {1, 999999, 2, 0, 0, 1},
        {1, 0, 1, 999999, 0, 999999},
        {1, 1, 2, 0, 0, 999999},
        {1, 1, 2, 1, 1, 0},
        {0, 999999, 1, 999998, 0, 999999},
        {1000000000, 500000, 1700000000, 499999, 699999999, 999999},
        {5, 7, 0, 0, -6, 999993},  // the first is the later one
        {3, 500000, 1, 0, -3, 500000},
        {3, 0, 1, 0, -2, 0},
        {3, 0, 1, 500000, -2, 500000},
        {1, 1, 1, 0, -1, 999999},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.b_sec) + "." + std::to_string(row.b_usec) + " - " + std::to_string(row.a_sec) +
                     "." + std::to_string(row.a_usec));
        const timeval a = {row.a_sec, row.a_usec};
        timeval b = {row.b_sec, row.b_usec};
        Log::tvSub(a, b);
        EXPECT_EQ(row.sec, b.tv_sec);
        EXPECT_EQ(row.usec, b.tv_usec);
        EXPECT_EQ(row.a_sec, a.tv_sec);
        EXPECT_EQ(row.a_usec, a.tv_usec);
    }
}

TEST_F(CUtility, TvSubOfATimeFromItselfIsZero) {
    timeval time = {1700000000, 123456};
    Log::tvSub(time, time);
    EXPECT_EQ(0, time.tv_sec);
    EXPECT_EQ(0, time.tv_usec);
}

}  // namespace

#include <TarnSocketIO/CUtility.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string>

#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"

using TarnTest::Entry;
using TarnTest::EverythingIsZero;
using TarnTest::Fields;
using TarnTest::Fill;
using TarnTest::IsZero;
using TarnTest::LockIsFree;
using TarnTest::Log;
using TarnTest::Message;
using TarnTest::MessageOf;
using TarnTest::OutputOf;
using TarnTest::ResetLog;
using TarnTest::Restart;
using TarnTest::RingIsZero;
using TarnTest::Start;
using TarnTest::Text;

namespace {

using CUtility = TarnTest::LogTest;

/// A name as it is kept in a field: cut to 63 characters, the rest of the field zero.
std::string Field(const std::string& name) {
    std::string field = name.substr(0, Log::NAME_SIZE - 1);
    field.resize(Log::NAME_SIZE);
    return field;
}

// Subsystem, filter and file name

TEST_F(CUtility, SetSubsystemKeepsTheNameAndChangesNothingElse) {
    Start(3);
    Log::SetFileDebug("log.txt");
    Fields expected;
    expected.subsystem = Field("net");
    expected.have_subsystem = true;
    EXPECT_EQ("", OutputOf([] { Log::SetSubsystem("net"); }));
    EXPECT_EQ(expected, Fields());
}

TEST_F(CUtility, SetFilterKeepsTheNameAndChangesNothingElse) {
    Start(3);
    Log::SetFileDebug("log.txt");
    Fields expected;
    expected.filter = Field("rx");
    expected.have_filter = true;
    EXPECT_EQ("", OutputOf([] { Log::SetFilter("rx"); }));
    EXPECT_EQ(expected, Fields());
}

TEST_F(CUtility, ShorterNamesReplaceLongerOnes) {
    Start(1);
    Log::SetSubsystem("network");
    Log::SetSubsystem("net");
    Log::SetFilter("receive");
    Log::SetFilter("rx");
    EXPECT_TRUE(Log::SetFileDebug("longer.txt"));
    EXPECT_TRUE(Log::SetFileDebug("log"));
    EXPECT_STREQ("net", Log::m_strSubsystem);
    EXPECT_STREQ("rx", Log::m_strFilter);
    EXPECT_STREQ("log", Log::m_szFilename);
    EXPECT_EQ("net: rx: m", MessageOf([] { Log::DebugLocal("net", "rx", "m"); }));
}

TEST_F(CUtility, ClearSubsystemSwitchesTheSubsystemOff) {
    Start(1);
    Fill(Log::m_strSubsystem, 'x');
    Log::m_bHaveSubsystem = true;
    EXPECT_EQ("CUtility::ClearSubsystems\n", OutputOf([] { Log::ClearSubsystem(); }));
    EXPECT_FALSE(Log::m_bHaveSubsystem);
    EXPECT_TRUE(IsZero(Log::m_strSubsystem));
    EXPECT_EQ("m", MessageOf([] { Log::Debug("m"); }));
    EXPECT_EQ("ui: rx: m", MessageOf([] { Log::DebugLocal("ui", "rx", "m"); }));
}

TEST_F(CUtility, ClearSubsystemPrintsItsLineWhateverTheDestination) {
    EXPECT_EQ("CUtility::ClearSubsystems\n", OutputOf([] { Log::ClearSubsystem(); })) << "before Initialise";
    for (const int dest : {-1, 0, 1, 2, 3}) {
        Restart(dest);
        EXPECT_EQ("CUtility::ClearSubsystems\n", OutputOf([] { Log::ClearSubsystem(); })) << dest;
        EXPECT_TRUE(RingIsZero());
    }
}

TEST_F(CUtility, ClearSubsystemLeavesTheFilterInForce) {
    Start(1);
    Log::SetSubsystem("net");
    Log::SetFilter("rx");
    OutputOf([] { Log::ClearSubsystem(); });
    EXPECT_STREQ("rx", Log::m_strFilter);
    EXPECT_EQ("", OutputOf([] { Log::Debug("m"); }));
    EXPECT_EQ("", OutputOf([] { Log::DebugLocal("net", "tx", "m"); }));
    EXPECT_EQ("ui: rx: m", MessageOf([] { Log::DebugLocal("ui", "rx", "m"); }));
}

TEST_F(CUtility, ClearFilterLeavesTheEmptyFilterInForce) {
    Start(1);
    Fill(Log::m_strFilter, 'x');
    Log::m_bHaveFilter = true;
    EXPECT_EQ("", OutputOf([] { Log::ClearFilter(); }));
    EXPECT_TRUE(Log::m_bHaveFilter);
    EXPECT_TRUE(IsZero(Log::m_strFilter));
    EXPECT_EQ("", OutputOf([] { Log::Debug("m"); }));
    EXPECT_EQ("", OutputOf([] { Log::ConditionalDebug("m", true); }));
    EXPECT_EQ("", OutputOf([] { Log::DebugLocal("net", "rx", "m"); }));
    EXPECT_EQ("", OutputOf([] { Log::ConditionalDebugLocal("net", "rx", "m", true); }));
    EXPECT_EQ("net: : m", MessageOf([] { Log::DebugLocal("net", "", "m"); }));
    EXPECT_EQ("net: : m - failed", MessageOf([] { Log::ConditionalDebugLocal("net", "", "m", false); }));
}

TEST_F(CUtility, ClearFilterSwitchesTheEmptyFilterOnWhereNoneWasSet) {
    Start(1);
    Log::ClearFilter();
    EXPECT_TRUE(Log::m_bHaveFilter);
    EXPECT_EQ("", OutputOf([] { Log::Debug("m"); }));
    EXPECT_EQ("net: : m", MessageOf([] { Log::DebugLocal("net", "", "m"); }));
}

TEST_F(CUtility, ClearFilterLeavesTheSubsystemInForce) {
    Start(1);
    Log::SetSubsystem("net");
    Log::ClearFilter();
    EXPECT_STREQ("net", Log::m_strSubsystem);
    EXPECT_TRUE(Log::m_bHaveSubsystem);
    EXPECT_EQ("", OutputOf([] { Log::DebugLocal("ui", "", "m"); }));
}

TEST_F(CUtility, SetFileDebugTakesNamesOfUpTo64Characters) {
    for (const std::size_t length : {0U, 1U, 62U, 63U, 64U}) {
        SCOPED_TRACE(length);
        ResetLog();
        Fields expected;
        expected.file = Field(Text(length));
        EXPECT_TRUE(Log::SetFileDebug(Text(length).c_str()));
        EXPECT_EQ(expected, Fields());
    }
}

TEST_F(CUtility, SetFileDebugRefusesLongerNamesAndLeavesTheOldOne) {
    for (const std::size_t length : {65U, 66U, 500U}) {
        SCOPED_TRACE(length);
        EXPECT_TRUE(Log::SetFileDebug("log.txt"));
        const Fields before;
        EXPECT_FALSE(Log::SetFileDebug(Text(length).c_str()));
        EXPECT_EQ(before, Fields());
    }
}

TEST_F(CUtility, SetFileDebugRefusesNullAndLeavesTheOldName) {
    EXPECT_TRUE(Log::SetFileDebug("log.txt"));
    EXPECT_FALSE(Log::SetFileDebug(nullptr));
    EXPECT_STREQ("log.txt", Log::m_szFilename);
    EXPECT_TRUE(LockIsFree());
}

TEST_F(CUtility, ClearFileDebugZeroesTheWholeName) {
    Fill(Log::m_szFilename, 'x');
    Log::ClearFileDebug();
    EXPECT_TRUE(IsZero(Log::m_szFilename));
    EXPECT_TRUE(EverythingIsZero());
}

TEST_F(CUtility, NoFileIsEverWritten) {
    char folder[] = "/tmp/tarn-log-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder));
    const std::string file = std::string(folder) + "/log.txt";
    for (const int dest : {1, 2, 3, 4, 7}) {
        Restart(dest);
        ASSERT_TRUE(Log::SetFileDebug(file.c_str()));
        OutputOf([] {
            Log::Debug("m");
            Log::DebugLocal("net", "rx", "m");
            Log::ConditionalDebug("m", true);
        });
        EXPECT_NE(0, access(file.c_str(), F_OK));
        Log::ClearFileDebug();
        EXPECT_NE(0, access(file.c_str(), F_OK));
    }
    EXPECT_EQ(0, rmdir(folder)) << "something was left in " << folder;
}

TEST_F(CUtility, SubsystemOfUpTo63CharactersIsKeptWhole) {
    for (const std::size_t length : {1U, 62U, 63U}) {
        SCOPED_TRACE(length);
        Restart(1);
        Log::SetSubsystem(Text(length));
        EXPECT_EQ(Text(length), Log::m_strSubsystem);
        EXPECT_EQ(Text(length) + ": rx: m", MessageOf([&] { Log::DebugLocal(Text(length), "rx", "m"); }));
        EXPECT_EQ("", OutputOf([&] { Log::DebugLocal(Text(length - 1), "rx", "m"); }));
    }
}

TEST_F(CUtility, LongerSubsystemIsCutAndSpillsNowhere) {
    for (const std::size_t length : {64U, 65U, 500U}) {
        SCOPED_TRACE(length);
        Restart(1);
        ASSERT_TRUE(Log::SetFileDebug("log.txt"));
        Log::SetFilter("rx");
        Fields expected;
        expected.subsystem = Field(Text(length));
        expected.have_subsystem = true;
        Log::SetSubsystem(Text(length));
        EXPECT_EQ(expected, Fields());
        EXPECT_EQ("", OutputOf([&] { Log::DebugLocal(Text(length), "rx", "m"); })) << "equal to what was cut";
        EXPECT_EQ(Text(63) + ": rx: m", MessageOf([&] { Log::DebugLocal(Text(63), "rx", "m"); }));
    }
}

TEST_F(CUtility, FilterOfUpTo63CharactersIsKeptWhole) {
    for (const std::size_t length : {1U, 62U, 63U}) {
        SCOPED_TRACE(length);
        Restart(1);
        Log::SetFilter(Text(length));
        EXPECT_EQ(Text(length), Log::m_strFilter);
        EXPECT_EQ("net: " + Text(length) + ": m", MessageOf([&] { Log::DebugLocal("net", Text(length), "m"); }));
        EXPECT_EQ("", OutputOf([&] { Log::DebugLocal("net", Text(length - 1), "m"); }));
    }
}

TEST_F(CUtility, LongerFilterIsCutAndSpillsNowhere) {
    for (const std::size_t length : {64U, 65U, 500U}) {
        SCOPED_TRACE(length);
        Restart(1);
        ASSERT_TRUE(Log::SetFileDebug("log.txt"));
        Log::SetSubsystem("net");
        Fields expected;
        expected.filter = Field(Text(length));
        expected.have_filter = true;
        Log::SetFilter(Text(length));
        EXPECT_EQ(expected, Fields());
        EXPECT_EQ("", OutputOf([&] { Log::DebugLocal("net", Text(length), "m"); })) << "equal to what was cut";
        EXPECT_EQ("net: " + Text(63) + ": m", MessageOf([&] { Log::DebugLocal("net", Text(63), "m"); }));
    }
}

TEST_F(CUtility, LongTagsAreWrittenWholeWhereNothingIsSet) {
    Start(3);
    for (const std::size_t length : {62U, 63U, 64U, 65U, 200U}) {
        Log::m_nLogEntryIter = 0;
        Log::DebugLocal(Text(length), Text(length), "n=%d", 3);
        EXPECT_EQ(Text(length) + ": " + Text(length) + ": n=3", Message(Entry(0)));
        EXPECT_EQ(Text(length) + ": " + Text(length) + ": open - failed",
                  MessageOf([length] { Log::ConditionalDebugLocal(Text(length), Text(length), "open", false); }));
    }
}

}  // namespace

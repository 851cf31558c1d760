#pragma once

#include <TarnSocketIO/CUtility.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <iosfwd>
#include <iterator>
#include <string>

/// What the tests of the debug log have in common.
namespace TarnTest {

using Log = TarnSocketIO::CUtility;

constexpr std::size_t stamp_length = 24;
constexpr std::size_t line_length = 511;
constexpr std::size_t message_length = line_length - stamp_length;

/// Each test starts with the log as it is when the library is loaded.
class LogTest : public testing::Test {
protected:
    LogTest();
    ~LogTest() override;
};

/// Switches the log on without showing its banner.
void Start(int dest);

/// The same, as if for the first time.
void Restart(int dest);

template <std::size_t Size>
bool IsZero(const char (&bytes)[Size]) {
    return std::all_of(std::begin(bytes), std::end(bytes), [](char c) { return c == '\0'; });
}

bool RingIsZero();

/// Whether every field except the mutex is as it is when the library is loaded.
bool EverythingIsZero();

/// Fills a field with a text of its full length.
template <std::size_t Size>
void Fill(char (&field)[Size], char c) {
    std::fill(std::begin(field), std::end(field), c);
    field[Size - 1] = '\0';
}

/// The contents of every field except the mutex.
struct Fields {
    bool initialised = Log::m_bInitialised;
    std::string file{Log::m_szFilename, sizeof Log::m_szFilename};
    std::string subsystem{Log::m_strSubsystem, sizeof Log::m_strSubsystem};
    std::string filter{Log::m_strFilter, sizeof Log::m_strFilter};
    std::int32_t dest = Log::m_nLogDest;
    std::int32_t index = Log::m_nLogEntryIter;
    std::string ring{Log::m_szLogEntry[0], sizeof Log::m_szLogEntry};
    bool have_filter = Log::m_bHaveFilter;
    bool have_subsystem = Log::m_bHaveSubsystem;
};

bool operator==(const Fields& one, const Fields& other);
void PrintTo(const Fields& fields, std::ostream* out);

bool LockIsFree();

/// Calls DebugLog as its callers have to.
void WriteUnderLock(const char* fmt, ...) TARN_PRINTF_FORMAT(1, 2);

/// `length` characters of which no two neighbouring stretches are alike.
std::string Text(std::size_t length);

/// What `act` writes to standard output.
std::string OutputOf(const std::function<void()>& act);

std::string Entry(int index);

bool LooksLikeAStamp(const std::string& line);

/// The message of a stamped line; a text that no message equals if there is no stamp.
std::string Message(const std::string& line);

/// The message of what must be exactly one stamped line with its newline.
std::string OnlyMessage(const std::string& output);

/// The message of the one line that `act` writes to standard output.
std::string MessageOf(const std::function<void()>& act);

/// The seconds that pass from when it is made.
class Stopwatch {
public:
    /// Whether `line` carries the stamp of one of the seconds until now.
    bool Covers(const std::string& line) const;

private:
    const std::time_t m_first = std::time(nullptr);
};

}  // namespace TarnTest

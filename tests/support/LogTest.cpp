#include "tests/support/LogTest.h"

#include <pthread.h>

#include <chrono>
#include <cstdarg>
#include <ostream>
#include <tuple>

#include "tests/support/LogCapture.h"
#include "tests/support/OutputCapture.h"

namespace TarnTest {

namespace {

std::string Stamp(std::time_t time) {
    tm parts = {};
    tzset();
    localtime_r(&time, &parts);
    char day[8];
    char rest[32];
    std::strftime(day, sizeof day, "%d/", &parts);
    std::strftime(rest, sizeof rest, "/%Y - %H:%M:%S - ", &parts);
    return day + std::string(parts.tm_mon < 10 ? "0" : "") + std::to_string(parts.tm_mon) + rest;
}

}  // namespace

LogTest::LogTest() {
    ResetLog();
}

LogTest::~LogTest() {
    ResetLog();
}

void Start(int dest) {
    const OutputCapture banner;
    Log::Initialise(dest);
}

void Restart(int dest) {
    ResetLog();
    Start(dest);
}

bool RingIsZero() {
    return std::all_of(std::begin(Log::m_szLogEntry), std::end(Log::m_szLogEntry),
                       [](const auto& entry) { return IsZero(entry); });
}

bool EverythingIsZero() {
    return !Log::m_bInitialised && Log::m_nLogDest == 0 && Log::m_nLogEntryIter == 0 && !Log::m_bHaveFilter &&
           !Log::m_bHaveSubsystem && IsZero(Log::m_szFilename) && IsZero(Log::m_strSubsystem) &&
           IsZero(Log::m_strFilter) && RingIsZero();
}

bool operator==(const Fields& one, const Fields& other) {
    const auto all = [](const Fields& f) {
        return std::tie(f.initialised, f.file, f.subsystem, f.filter, f.dest, f.index, f.ring, f.have_filter,
                        f.have_subsystem);
    };
    return all(one) == all(other);
}

void PrintTo(const Fields& fields, std::ostream* out) {
    *out << "initialised " << fields.initialised << ", file " << fields.file.c_str() << ", subsystem "
         << fields.have_subsystem << " " << fields.subsystem.c_str() << ", filter " << fields.have_filter << " "
         << fields.filter.c_str() << ", destination " << fields.dest << ", next entry " << fields.index << ", ring";
    for (std::size_t at = 0; at < fields.ring.size(); at += Log::LOG_ENTRY_SIZE) {
        if (fields.ring[at] != '\0') {
            *out << " [" << fields.ring.c_str() + at << "]";
        }
    }
}

bool LockIsFree() {
    if (pthread_mutex_trylock(&Log::m_mutex) != 0) {
        return false;
    }
    pthread_mutex_unlock(&Log::m_mutex);
    return true;
}

void WriteUnderLock(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    pthread_mutex_lock(&Log::m_mutex);
    Log::DebugLog(fmt, args);
    pthread_mutex_unlock(&Log::m_mutex);
    va_end(args);
}

std::string Text(std::size_t length) {
    std::string text;
    for (int i = 0; text.size() < length; ++i) {
        text += std::to_string(i) + '.';
    }
    text.resize(length);
    return text;
}

std::string OutputOf(const std::function<void()>& act) {
    const OutputCapture output;
    act();
    return output.Text();
}

std::string Entry(int index) {
    return Log::GetCyclicLogEntries(index);
}

bool LooksLikeAStamp(const std::string& line) {
    static constexpr char form[] = "dd/dd/dddd - dd:dd:dd - ";
    static_assert(sizeof form == stamp_length + 1);
    return line.size() >= stamp_length && std::equal(form, form + stamp_length, line.begin(), [](char want, char have) {
               return want == 'd' ? have >= '0' && have <= '9' : have == want;
           });
}

std::string Message(const std::string& line) {
    return LooksLikeAStamp(line) ? line.substr(stamp_length) : "<no stamp> " + line;
}

std::string OnlyMessage(const std::string& output) {
    if (output.empty() || output.back() != '\n') {
        return "<no line> " + output;
    }
    return Message(output.substr(0, output.size() - 1));
}

std::string MessageOf(const std::function<void()>& act) {
    return OnlyMessage(OutputOf(act));
}

bool Stopwatch::Covers(const std::string& line) const {
    // The clock behind time() may be a tick late: it must not be the one that ends the interval.
    const std::time_t last = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    for (std::time_t second = m_first; second <= last; ++second) {
        if (line.compare(0, stamp_length, Stamp(second)) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace TarnTest

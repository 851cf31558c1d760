#include <TarnSocketIO/CUtility.h>

#include <cstdio>
#include <ctime>
#include <exception>
#include <string_view>

#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/PosixLock.h>

namespace TarnSocketIO {

using detail::BoundedText;
using detail::CopyText;
using detail::PosixLock;

// A statically initialised mutex is all zero on Linux, and has default attributes.
std::atomic<bool> CUtility::m_bInitialised{false};
pthread_mutex_t CUtility::m_mutex = PTHREAD_MUTEX_INITIALIZER;
char CUtility::m_szFilename[NAME_SIZE];
char CUtility::m_strSubsystem[NAME_SIZE];
char CUtility::m_strFilter[NAME_SIZE];
std::atomic<std::int32_t> CUtility::m_nLogDest{0};
std::atomic<std::int32_t> CUtility::m_nLogEntryIter{0};
char CUtility::m_szLogEntry[LOG_ENTRIES][LOG_ENTRY_SIZE];
std::atomic<bool> CUtility::m_bHaveFilter{false};
std::atomic<bool> CUtility::m_bHaveSubsystem{false};

namespace {

enum class Sink { None, Console, Ring };

Sink SinkOf(int dest) {
    if ((dest & 3) == 3) {
        return Sink::Ring;
    }
    return (dest & 1) != 0 ? Sink::Console : Sink::None;
}

/// A time of day as it stands at the front of a line, with room for years of more than four digits.
class TimeStamp {
public:
    explicit TimeStamp(std::time_t second) : m_second(second) {
        std::tm local{};
        // The re-entrant form does not look at TZ by itself, and must not share its result with the application.
        tzset();
        localtime_r(&second, &local);
        // Kept: the month is printed as the broken-down time holds it, January as 0.
        std::snprintf(m_text, sizeof m_text, "%02d/%02d/%04d - %02d:%02d:%02d - ", local.tm_mday, local.tm_mon,
                      local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec);
        m_length = std::string_view(m_text).size();
    }

    std::time_t Second() const { return m_second; }
    std::string_view View() const { return {m_text, m_length}; }

private:
    std::time_t m_second;
    char m_text[80];
    std::size_t m_length = 0;
};

/// The stamp of this moment. Breaking the time down costs more than all the rest of a line, and holds for a second.
std::string_view StampLocked() {
    static TimeStamp current(std::time(nullptr));
    const std::time_t now = std::time(nullptr);
    if (now != current.Second()) {
        current = TimeStamp(now);
    }
    return current.View();
}

/// Writes a line and its newline to standard output in one piece, as printf would write it if it were a format without
/// arguments and only `%%` were known to it.
void PrintLine(std::string_view line) {
    char output[CUtility::LOG_ENTRY_SIZE];
    std::size_t length = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
        output[length++] = line[i];
        if (line[i] == '%' && i + 1 < line.size() && line[i + 1] == '%') {
            ++i;
        }
    }
    output[length++] = '\n';
    std::fwrite(output, 1, length, stdout);
}

bool IsUntaggedLogOn() {
    return CUtility::m_nLogDest > 0 && !CUtility::m_bHaveFilter && !CUtility::m_bHaveSubsystem;
}

bool DoTagsPassLocked(const std::string& subsystem, const std::string& filter) {
    return (!CUtility::m_bHaveSubsystem || subsystem == CUtility::m_strSubsystem) &&
           (!CUtility::m_bHaveFilter || filter == CUtility::m_strFilter);
}

void AppendTags(BoundedText& line, const std::string& subsystem, const std::string& filter) {
    line.Append(subsystem.c_str());
    line.Append(": ");
    line.Append(filter.c_str());
    line.Append(": ");
}

/// Stamps, formats and writes one line. `tags(line)` puts what stands before the message.
template <class Tags>
void WriteMessageLocked(Tags tags, const char* fmt, va_list args) {
    const Sink sink = SinkOf(CUtility::m_nLogDest);
    if (sink == Sink::None) {
        return;
    }
    // Not made in the ring itself: the arguments may point into the very entry that is written next.
    char buffer[CUtility::LOG_ENTRY_SIZE];
    BoundedText line(buffer, sizeof buffer);
    line.Append(StampLocked());
    tags(line);
    if (!line.AppendFormat(fmt != nullptr ? fmt : "(null)", args)) {
        std::puts("CUtility::DebugLog - exception caugh");
    } else if (sink == Sink::Ring) {
        const std::int32_t entry = CUtility::m_nLogEntryIter;
        CopyText(CUtility::m_szLogEntry[entry], line.View());
        CUtility::m_nLogEntryIter = (entry + 1) % CUtility::LOG_ENTRIES;
    } else {
        PrintLine(line.View());
    }
}

/// Writes "text - succeeded" or "text - failed"; the ring never gets one.
template <class Tags>
void WriteOutcomeLocked(Tags tags, const std::string& text, bool ok) {
    if ((CUtility::m_nLogDest & 1) == 0) {
        return;
    }
    const std::string_view outcome = ok ? " - succeeded" : " - failed";
    char buffer[CUtility::LOG_ENTRY_SIZE];
    BoundedText line(buffer, sizeof buffer);
    line.Append(StampLocked());
    tags(line);
    line.Append(text.c_str());
    line.AppendWhole(outcome);
    PrintLine(line.View());
}

constexpr auto no_tags = [](BoundedText&) {};

}  // namespace

void CUtility::Initialise(int dest) {
    std::printf("CUtility::Initialise - called, log dest %d\n", dest);
    const PosixLock lock(m_mutex);
    if (m_bInitialised) {
        return;
    }
    CopyText(m_szFilename, "");
    CopyText(m_strSubsystem, "");
    CopyText(m_strFilter, "");
    m_nLogEntryIter = 0;
    std::memset(m_szLogEntry, 0, sizeof m_szLogEntry);
    m_nLogDest = dest;
    m_bInitialised = true;
}

void CUtility::Destruct() {
    // Made anew at once: static objects of the application are destroyed later, and some of them log.
    if (m_bInitialised && pthread_mutex_destroy(&m_mutex) == 0) {
        pthread_mutex_init(&m_mutex, nullptr);
    }
}

void CUtility::SetLoggingDestination(int dest) {
    m_nLogDest = dest;
}

void CUtility::Debug(const char* fmt, ...) {
    if (!IsUntaggedLogOn()) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    {
        const PosixLock lock(m_mutex);
        WriteMessageLocked(no_tags, fmt, args);
    }
    va_end(args);
}

void CUtility::DebugLocal(std::string subsystem, std::string filter, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    {
        const PosixLock lock(m_mutex);
        if (DoTagsPassLocked(subsystem, filter)) {
            WriteMessageLocked([&](BoundedText& line) { AppendTags(line, subsystem, filter); }, fmt, args);
        }
    }
    va_end(args);
}

void CUtility::ConditionalDebug(const std::string& text, bool ok) {
    if (!IsUntaggedLogOn()) {
        return;
    }
    const PosixLock lock(m_mutex);
    WriteOutcomeLocked(no_tags, text, ok);
}

void CUtility::ConditionalDebugLocal(std::string subsystem, std::string filter, const std::string& text, bool ok) {
    if (m_nLogDest <= 0) {
        return;
    }
    const PosixLock lock(m_mutex);
    if (DoTagsPassLocked(subsystem, filter)) {
        WriteOutcomeLocked([&](BoundedText& line) { AppendTags(line, subsystem, filter); }, text, ok);
    }
}

void CUtility::DebugLog(const std::string& fmt, va_list args) {
    WriteMessageLocked(no_tags, fmt.c_str(), args);
}

std::string CUtility::PrefixTimestamp(const std::string& text) {
    std::string result;
    try {
        char buffer[LOG_ENTRY_SIZE];
        BoundedText line(buffer, sizeof buffer);
        line.Append(TimeStamp(std::time(nullptr)).View());
        line.Append(text.c_str());
        result = line.View();
    } catch (const std::exception&) {
        std::puts("CUtility::PrefixTimestamp - exception caugh");
    }
    return result;
}

char* CUtility::GetCyclicLogEntries(int index) {
    return m_szLogEntry[index];
}

bool CUtility::SetFileDebug(const char* name) {
    const PosixLock lock(m_mutex);
    if (name == nullptr || std::strlen(name) > sizeof m_szFilename) {
        return false;
    }
    CopyText(m_szFilename, name);
    return true;
}

void CUtility::ClearFileDebug() {
    const PosixLock lock(m_mutex);
    CopyText(m_szFilename, "");
}

void CUtility::SetSubsystem(const std::string& s) {
    const PosixLock lock(m_mutex);
    CopyText(m_strSubsystem, s.c_str());
    m_bHaveSubsystem = true;
}

void CUtility::ClearSubsystem() {
    std::puts("CUtility::ClearSubsystems");
    const PosixLock lock(m_mutex);
    CopyText(m_strSubsystem, "");
    m_bHaveSubsystem = false;
}

void CUtility::SetFilter(const std::string& f) {
    const PosixLock lock(m_mutex);
    CopyText(m_strFilter, f.c_str());
    m_bHaveFilter = true;
}

void CUtility::ClearFilter() {
    const PosixLock lock(m_mutex);
    CopyText(m_strFilter, "");
    // Kept: unlike a cleared subsystem, a cleared filter stays in force, as the empty word.
    m_bHaveFilter = true;
}

void CUtility::tvSub(const timeval& a, timeval& b) {
    b.tv_usec -= a.tv_usec;
    if (b.tv_usec < 0) {
        b.tv_sec -= 1;
        b.tv_usec += 1000000;
    }
    b.tv_sec -= a.tv_sec;
}

}  // namespace TarnSocketIO

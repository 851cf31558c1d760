#include <TarnSocketIO/CUtility.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <string_view>
#include <type_traits>
#include <utility>

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
    /// Of a second that never comes again.
    constexpr TimeStamp() = default;

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

    /// Puts the stamp, and zeros behind it, at the front of an empty buffer of at least TEXT_SIZE bytes.
    ///
    /// @return its length.
    std::size_t CopyTo(char* buffer) const {
        std::memcpy(buffer, m_text, sizeof m_text);
        return m_length;
    }

    static constexpr std::size_t TEXT_SIZE = 64;

private:
    std::time_t m_second = -1;
    char m_text[TEXT_SIZE] = {};
    std::size_t m_length = 0;
};

/// The stamp of this moment. Breaking the time down costs more than all the rest of a line, and holds for a second.
const TimeStamp& StampLocked() {
    static TimeStamp current;
    const std::time_t now = std::time(nullptr);
    if (now != current.Second()) {
        current = TimeStamp(now);
    }
    return current;
}

/// A line while it is made, its stamp already there. It goes to its sink from here and is not made in the ring itself,
/// because its arguments may point into the very entry that is written next.
class Line {
public:
    explicit Line(const TimeStamp& stamp) : m_text(m_buffer, CUtility::LOG_ENTRY_SIZE, stamp.CopyTo(m_buffer)) {}

    BoundedText& Text() { return m_text; }

    /// Writes the line and a newline to standard output in one piece, as printf would write it if it were a format
    /// without arguments and only `%%` were known to it.
    void WriteToConsole() const {
        const std::string_view text = m_text.View();
        char output[CUtility::LOG_ENTRY_SIZE];
        std::size_t length = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            output[length++] = text[i];
            if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%') {
                ++i;
            }
        }
        output[length++] = '\n';
        std::fwrite(output, 1, length, stdout);
    }

    /// Puts the line into the ring, zeros behind it, and goes on to the next entry.
    ///
    /// Works by whole blocks, of which a line has one or two, and clears only those that the line before has used: so
    /// little of the ring passes through the cache, and no branch depends on the very length of a line.
    void WriteToRingLocked() {
        static std::size_t used_bytes[CUtility::LOG_ENTRIES];
        const std::int32_t entry = CUtility::m_nLogEntryIter;
        char* const target = CUtility::m_szLogEntry[entry];
        const std::size_t length = m_text.View().size();
        std::memset(m_buffer + length, 0, block);
        std::size_t at = 0;
        for (; at <= length; at += block) {
            std::memcpy(target + at, m_buffer + at, block);
        }
        const std::size_t used_before = std::exchange(used_bytes[entry], at);
        for (; at < used_before; at += block) {
            std::memset(target + at, 0, block);
        }
        // Only written under the lock; a stronger order would wait here for the whole line to reach the cache.
        CUtility::m_nLogEntryIter.store((entry + 1) % CUtility::LOG_ENTRIES, std::memory_order_relaxed);
    }

private:
    static constexpr std::size_t block = 64;
    static_assert(CUtility::LOG_ENTRY_SIZE % block == 0);

    char m_buffer[CUtility::LOG_ENTRY_SIZE + block];
    BoundedText m_text;
};

/// Wraps around where it leaves the range: times may come from outside.
template <class Number>
Number WrappingDifference(Number a, Number b) {
    using Unsigned = std::make_unsigned_t<Number>;
    return static_cast<Number>(static_cast<Unsigned>(a) - static_cast<Unsigned>(b));
}

bool IsUntaggedLogOn() {
    return CUtility::m_nLogDest > 0 && !CUtility::m_bHaveFilter && !CUtility::m_bHaveSubsystem;
}

/// What a tagged message is filtered by, and begins with.
struct Tags {
    const std::string& subsystem;
    const std::string& filter;

    bool DoPassLocked() const {
        return (!CUtility::m_bHaveSubsystem || subsystem == CUtility::m_strSubsystem) &&
               (!CUtility::m_bHaveFilter || filter == CUtility::m_strFilter);
    }

    void AppendTo(BoundedText& line) const {
        line.Append(subsystem.c_str());
        line.Append(": ");
        line.Append(filter.c_str());
        line.Append(": ");
    }
};

/// Stamps, formats and writes one line.
///
/// @param tags  null for an untagged message.
void WriteMessageLocked(const Tags* tags, const char* fmt, va_list args) {
    const Sink sink = SinkOf(CUtility::m_nLogDest);
    if (sink == Sink::None) {
        return;
    }
    Line line(StampLocked());
    if (tags != nullptr) {
        tags->AppendTo(line.Text());
    }
    if (!line.Text().AppendFormat(fmt != nullptr ? fmt : "(null)", args)) {
        std::puts("CUtility::DebugLog - exception caugh");
    } else if (sink == Sink::Ring) {
        line.WriteToRingLocked();
    } else {
        line.WriteToConsole();
    }
}

/// Writes "text - succeeded" or "text - failed"; the ring never gets one.
///
/// @param tags  null for an untagged message.
void WriteOutcomeLocked(const Tags* tags, const char* text, bool ok) {
    if ((CUtility::m_nLogDest & 1) == 0) {
        return;
    }
    Line line(StampLocked());
    if (tags != nullptr) {
        tags->AppendTo(line.Text());
    }
    line.Text().Append(text);
    line.Text().AppendWhole(ok ? " - succeeded" : " - failed");
    line.WriteToConsole();
}

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
        WriteMessageLocked(nullptr, fmt, args);
    }
    va_end(args);
}

// The tags come by value because the interface says so.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void CUtility::DebugLocal(std::string subsystem, std::string filter, const char* fmt, ...) {
    const Tags tags{subsystem, filter};
    va_list args;
    va_start(args, fmt);
    {
        const PosixLock lock(m_mutex);
        if (tags.DoPassLocked()) {
            WriteMessageLocked(&tags, fmt, args);
        }
    }
    va_end(args);
}

void CUtility::ConditionalDebug(const std::string& text, bool ok) {
    ConditionalDebug(text.c_str(), ok);
}

void CUtility::ConditionalDebug(const char* text, bool ok) {
    if (!IsUntaggedLogOn()) {
        return;
    }
    const PosixLock lock(m_mutex);
    WriteOutcomeLocked(nullptr, detail::Printable(text), ok);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param)
void CUtility::ConditionalDebugLocal(std::string subsystem, std::string filter, const std::string& text, bool ok) {
    if (m_nLogDest <= 0) {
        return;
    }
    const Tags tags{subsystem, filter};
    const PosixLock lock(m_mutex);
    if (tags.DoPassLocked()) {
        WriteOutcomeLocked(&tags, text.c_str(), ok);
    }
}

void CUtility::DebugLog(const std::string& fmt, va_list args) {
    WriteMessageLocked(nullptr, fmt.c_str(), args);
}

std::string CUtility::PrefixTimestamp(const std::string& text) {
    std::string result;
    try {
        Line line(TimeStamp(std::time(nullptr)));
        line.Text().Append(text.c_str());
        result = line.Text().View();
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
    b.tv_usec = WrappingDifference(b.tv_usec, a.tv_usec);
    if (b.tv_usec < 0) {
        b.tv_sec = WrappingDifference<time_t>(b.tv_sec, 1);
        b.tv_usec += 1000000;
    }
    b.tv_sec = WrappingDifference(b.tv_sec, a.tv_sec);
}

}  // namespace TarnSocketIO

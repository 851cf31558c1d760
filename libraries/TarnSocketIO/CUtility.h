#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <string>

/// Lets the compiler check a message's arguments against its format, as it does for printf.
#define TARN_PRINTF_FORMAT(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))

namespace TarnSocketIO {

/// The process-wide debug log. Every class of the library writes its progress and its failures here.
///
/// It is silent until the application calls Initialise. A line is a local time stamp of 24 characters and the message,
/// 511 characters in all; what is longer is cut. Lines go to standard output (destination 1) or into a ring of 200
/// lines in memory (destination 3), never to a file:
///
///     05/02/2024 - 14:07:09 - CAsyncIO::MultiConnectionAcceptor - new connection
///
/// The month is the one of `struct tm`, where January is 0: the line above was written on 5 March.
///
/// Untagged messages (Debug, ConditionalDebug) are for everyone. Tagged ones (DebugLocal, ConditionalDebugLocal) name a
/// subsystem and a filter word, and SetSubsystem and SetFilter narrow the log down to them: while either is set, every
/// untagged message is suppressed.
///
/// Threads: every operation may be called from any thread, except where it says otherwise. One lock, #m_mutex, is held
/// while a line is formatted and written, so lines are never mixed. Nothing here throws. None of it may be used in a
/// signal handler.
class CUtility {
public:
    CUtility() = delete;

    static constexpr int LOG_ENTRIES = 200;     ///< lines that the ring holds
    static constexpr int LOG_ENTRY_SIZE = 512;  ///< bytes of a line, its terminator included
    static constexpr int NAME_SIZE = 64;        ///< bytes of a file, subsystem or filter name, terminator included

    /// Switches the log on, once: prints "CUtility::Initialise - called, log dest %d", empties the ring and sets the
    /// destination. A later call prints its line and changes nothing; use SetLoggingDestination.
    ///
    /// @param dest  0 or negative: off. Otherwise the two low bits count: 1 standard output, 3 the ring, 2 nowhere.
    static void Initialise(int dest);

    /// Ends the use of the log before the process ends; it cannot be initialised again. Not while another thread logs.
    /// Lines that static destructors write afterwards are still safe.
    static void Destruct();

    /// Changes the destination; values as for Initialise. Takes effect with the next message.
    static void SetLoggingDestination(int dest);

    /// Writes a message if the log is on and neither a subsystem nor a filter is set. While it is off, a call costs a
    /// few nanoseconds: nothing is formatted, locked or allocated.
    static void Debug(const char* fmt, ...) TARN_PRINTF_FORMAT(1, 2);

    /// Writes "subsystem: filter: message" if both tags pass: each must equal the one that is set, if one is set. A `%`
    /// in a tag is text. The sign of the destination is not looked at, so that with -1 (both low bits set) a tagged
    /// message still goes to the ring.
    static void DebugLocal(std::string subsystem, std::string filter, const char* fmt, ...) TARN_PRINTF_FORMAT(3, 4);

    /// Writes an outcome, "text - succeeded" or "text - failed", under the same conditions as Debug; of an over-long
    /// line the text is cut, not the outcome. Standard output only, also where the destination is the ring.
    static void ConditionalDebug(const std::string& text, bool ok);

    /// As above, for a text that is no std::string yet: nothing is allocated, so the line comes also without memory.
    static void ConditionalDebug(const char* text, bool ok);

    /// Writes the outcome "subsystem: filter: text - succeeded" or "... - failed" if the log is on and both tags pass.
    /// Standard output only, as ConditionalDebug.
    static void ConditionalDebugLocal(std::string subsystem, std::string filter, const std::string& text, bool ok);

    /// The writer behind Debug, for forwarding a `va_list`. The caller holds #m_mutex.
    ///
    /// On standard output a `%%` that is left in the formatted line becomes `%`; any other `%` is written as it stands,
    /// so that text from outside is never taken for a conversion. A message that cannot be formatted is lost and
    /// reported there as "CUtility::DebugLog - exception caugh".
    static void DebugLog(const std::string& fmt, va_list args);

    /// @return the line that would be written for `text` now. Empty, with "CUtility::PrefixTimestamp - exception
    /// caugh" on standard output, if memory runs out.
    static std::string PrefixTimestamp(const std::string& text);

    /// @param index  0 to 199, not checked. The oldest line is the one at #m_nLogEntryIter; the order is cyclic.
    /// @return the ring's own line, always terminated, empty if it was never written. Valid for ever, but rewritten
    ///         when its turn comes: to read it while others log, hold #m_mutex.
    static char* GetCyclicLogEntries(int index);

    /// Keeps a name for the application; the library never opens it.
    ///
    /// @return false, and nothing is changed, if the name has more than 64 characters or is null. Of one with exactly
    ///         64 characters the first 63 are kept.
    static bool SetFileDebug(const char* name);
    static void ClearFileDebug();

    /// From now on only tagged messages with this subsystem pass. Case matters. Only the first 63 characters are kept,
    /// so keep names shorter: a longer tag is never equal to what was kept of it.
    static void SetSubsystem(const std::string& s);

    /// Ends the narrowing by subsystem; writes "CUtility::ClearSubsystems" to standard output.
    static void ClearSubsystem();

    /// From now on only tagged messages with this filter word pass; as SetSubsystem.
    static void SetFilter(const std::string& f);

    /// Sets the filter to the empty word. It stays in force: only tagged messages with an empty filter word pass, and
    /// untagged ones stay suppressed.
    static void ClearFilter();

    /// `b = b - a` for two points in time. Microseconds are kept within 0 to 999,999 if both have them there; what
    /// leaves the range of its type wraps around. `a` is not changed.
    static void tvSub(const timeval& a, timeval& b);

    static std::atomic<bool> m_bInitialised;           ///< set by the first Initialise, never cleared
    static pthread_mutex_t m_mutex;                    ///< held for each line and by every setter but the destination's
    static char m_szFilename[NAME_SIZE];               ///< set by SetFileDebug
    static char m_strSubsystem[NAME_SIZE];             ///< counts while #m_bHaveSubsystem is set
    static char m_strFilter[NAME_SIZE];                ///< counts while #m_bHaveFilter is set
    static std::atomic<std::int32_t> m_nLogDest;       ///< destination; 0 is off
    static std::atomic<std::int32_t> m_nLogEntryIter;  ///< the ring entry that is written next, 0 to 199
    static char m_szLogEntry[LOG_ENTRIES][LOG_ENTRY_SIZE];
    static std::atomic<bool> m_bHaveFilter;
    static std::atomic<bool> m_bHaveSubsystem;
};

}  // namespace TarnSocketIO

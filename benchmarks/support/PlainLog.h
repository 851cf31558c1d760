#pragma once

/// Logs to compare the library's with. Each keeps a ring of 200 lines of 512 bytes behind one mutex, as the library
/// does. They are compiled apart from the benchmarks, so that the compiler cannot fold a known format into them.
namespace TarnBenchmark {

/// A call with a format and arguments, and nothing else.
void LogNothing(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The least a line can cost: lock, one bounded format, one copy of the entry. No time stamp.
void LogWithoutStamp(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The obvious way: clears its buffers, breaks the time down anew for each line, joins stamp and text in a string, and
/// copies that into a cleared entry.
void LogWithFreshStamp(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace TarnBenchmark

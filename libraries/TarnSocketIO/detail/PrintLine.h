#pragma once

namespace TarnSocketIO::detail {

/// Formats a line of up to 511 characters, writes it to std::cout at once and whole, also where several threads print,
/// and flushes it. Does not throw, whatever the application has set for the stream. Changes errno.
///
/// @param format  as for printf; the line's end, where it has one, is part of it.
void PrintLine(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

/// Writes a text to std::cout, and does not flush it. Does not throw.
void PrintText(const char* text) noexcept;

/// Writes what has failed to standard error, as perror(3) does for `error`. Errno is `error` then.
void PrintError(const char* what, int error) noexcept;

}  // namespace TarnSocketIO::detail

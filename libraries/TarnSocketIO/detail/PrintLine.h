#pragma once

namespace TarnSocketIO::detail {

/// Formats a line of up to 511 characters and writes it to std::cout at once and whole, also where several threads
/// print. Does not throw, whatever the application has set for the stream. Changes errno.
///
/// @param format  as for printf, with its newline.
void PrintLine(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

}  // namespace TarnSocketIO::detail

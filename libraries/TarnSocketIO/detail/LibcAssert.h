#pragma once

namespace TarnSocketIO::detail {

/// Ends the process as the C library's assert() does, with its words and its abort(), whether or not NDEBUG is set.
[[noreturn]] void FailLibcAssertion(const char* expression, const char* file, unsigned int line, const char* function);

}  // namespace TarnSocketIO::detail

/// The C library's assertion, never compiled out, at a place that stays the same however the file changes.
#define TARN_LIBC_ASSERT_IN(file, line, expression) \
    (static_cast<bool>(expression)                  \
         ? static_cast<void>(0)                     \
         : ::TarnSocketIO::detail::FailLibcAssertion(#expression, file, line, __PRETTY_FUNCTION__))

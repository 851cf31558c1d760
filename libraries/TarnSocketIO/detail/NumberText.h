#pragma once

namespace TarnSocketIO::detail {

/// What ReadNumber found.
struct Number {
    long value;       ///< 0 where there was none
    const char* end;  ///< the first character that is not part of it; the start of the text where there was none
};

/// Reads a number as strtol(3) does in the C locale, whatever the locale of the process is: white space, a sign, the
/// prefix, digits; too large values become those at the end of the range of `long`.
///
/// The C library's own is not used because it depends on the locale, and newer ones take prefixes that older ones do
/// not.
///
/// @param base  10; 16, which allows the prefix 0x; or 0, where the prefix 0x or 0 chooses 16 or 8.
Number ReadNumber(const char* text, int base);

}  // namespace TarnSocketIO::detail

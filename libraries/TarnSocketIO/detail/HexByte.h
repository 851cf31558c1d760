#pragma once

#include <array>

namespace TarnSocketIO::detail {

inline constexpr char lower_hex_digits[] = "0123456789abcdef";
inline constexpr char upper_hex_digits[] = "0123456789ABCDEF";

/// Writes two digits, without a terminator. @return the place behind them.
inline char* WriteHexByte(char* at, unsigned char value, const char* digits) {
    at[0] = digits[value >> 4];
    at[1] = digits[value & 0x0F];
    return at + 2;
}

/// For every character the value of the digit that it is, or -1.
inline constexpr std::array<signed char, 256> hex_digit_values = [] {
    std::array<signed char, 256> values{};
    for (signed char& value : values) {
        value = -1;
    }
    for (unsigned char digit = 0; digit < 16; ++digit) {
        values[static_cast<unsigned char>(lower_hex_digits[digit])] = static_cast<signed char>(digit);
        values[static_cast<unsigned char>(upper_hex_digits[digit])] = static_cast<signed char>(digit);
    }
    return values;
}();

/// @return 0 to 15, or -1 if `digit` is none.
constexpr int HexDigit(char digit) {
    return hex_digit_values[static_cast<unsigned char>(digit)];
}

}  // namespace TarnSocketIO::detail

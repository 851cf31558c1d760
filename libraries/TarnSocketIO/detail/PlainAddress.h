#pragma once

#include <TarnSocketIO/detail/HexByte.h>

/// Readers of addresses that are written as nearly all are. Whatever is unusual about another text is left to
/// ReadNumberFields.
namespace TarnSocketIO::detail {

/// Reads four plain decimal numbers with dots in between; octal numbers are none.
///
/// @param text  goes behind the last number, where the caller has to see that the text ends.
/// @return false for another text; `text` and `octets` are unspecified then.
inline bool ReadPlainQuad(const char*& text, unsigned char (&octets)[4]) {
    const auto digit = [&text] { return static_cast<unsigned int>(*text) - '0'; };
    for (int i = 0; i < 4; ++i) {
        unsigned int value = digit();
        if (value > 9) {
            return false;
        }
        ++text;
        if (digit() <= 9) {
            // A leading zero would mean an octal number.
            if (value == 0) {
                return false;
            }
            value = value * 10 + digit();
            ++text;
            if (digit() <= 9) {
                value = value * 10 + digit();
                ++text;
            }
        }
        if (value > 255 || (i < 3 && *text++ != '.')) {
            return false;
        }
        octets[i] = static_cast<unsigned char>(value);
    }
    return true;
}

/// Reads six times two hexadecimal digits with colons in between, likewise.
inline bool ReadPlainHardwareAddress(const char*& text, unsigned char (&octets)[6]) {
    for (int i = 0; i < 6; ++i) {
        const int high = HexDigit(text[0]);
        if (high < 0) {
            return false;
        }
        const int low = HexDigit(text[1]);
        if (low < 0 || (i < 5 && text[2] != ':')) {
            return false;
        }
        octets[i] = static_cast<unsigned char>(high << 4 | low);
        text += i < 5 ? 3 : 2;
    }
    return true;
}

}  // namespace TarnSocketIO::detail

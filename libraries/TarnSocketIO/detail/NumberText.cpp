#include <TarnSocketIO/detail/HexByte.h>
#include <TarnSocketIO/detail/NumberText.h>

#include <limits>

namespace TarnSocketIO::detail {

namespace {

bool IsBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// @return the digit's value, or -1 if `c` is no digit of the base.
int Digit(char c, int base) {
    const int digit = HexDigit(c);
    return digit < base ? digit : -1;
}

/// A prefix counts only if a digit follows: of "0x" alone, the 0 is the number.
bool HasHexPrefix(const char* text) {
    return text[0] == '0' && (text[1] == 'x' || text[1] == 'X') && HexDigit(text[2]) >= 0;
}

}  // namespace

Number ReadNumber(const char* text, int base) {
    const char* at = text;
    while (IsBlank(*at)) {
        ++at;
    }
    const bool negative = *at == '-';
    if (*at == '-' || *at == '+') {
        ++at;
    }
    if (base != 10 && HasHexPrefix(at)) {
        at += 2;
        base = 16;
    } else if (base == 0) {
        base = *at == '0' ? 8 : 10;
    }
    if (Digit(*at, base) < 0) {
        return {0, text};
    }

    // Counted downwards, because the range reaches further below zero than above it.
    constexpr long lowest = std::numeric_limits<long>::min();
    constexpr long highest = std::numeric_limits<long>::max();
    long value = 0;
    bool is_in_range = true;
    for (int digit = Digit(*at, base); digit >= 0; digit = Digit(*++at, base)) {
        is_in_range = is_in_range && value >= (lowest + digit) / base;
        value = is_in_range ? value * base - digit : lowest;
    }
    if (negative) {
        return {value, at};
    }
    return {value < -highest ? highest : -value, at};
}

}  // namespace TarnSocketIO::detail

#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace TarnTest {

/// The most that one pass reads of a connection.
inline constexpr long longest_read = 131070;

/// All byte values, in an order that tells each place from its neighbours.
inline std::string Pattern(std::size_t length) {
    std::string pattern(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        pattern[i] = static_cast<char>((i * 31 + i / 251) & 0xff);
    }
    return pattern;
}

inline bool IsZero(const char* first, const char* end) {
    return std::all_of(first, end, [](char byte) { return byte == 0; });
}

}  // namespace TarnTest

#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace TarnFuzz {

/// @return the text with everything that is not printable ASCII as \xNN, so that it can be read in a report.
inline std::string Readable(std::string_view text) {
    std::string readable;
    for (const char c : text) {
        char shown[] = "\\x00";
        if (c >= ' ' && c <= '~') {
            readable += c;
        } else {
            std::snprintf(shown, sizeof shown, "\\x%02x", static_cast<unsigned char>(c));
            readable += shown;
        }
    }
    return readable;
}

/// Aborts with both texts if they differ: the fuzzer then keeps the input that led here.
inline void Expect(std::string_view expected, std::string_view actual, const char* where) {
    if (expected != actual) {
        std::fprintf(stderr, "%s: \"%s\" instead of \"%s\"\n", where, Readable(actual).c_str(),
                     Readable(expected).c_str());
        std::abort();
    }
}

}  // namespace TarnFuzz

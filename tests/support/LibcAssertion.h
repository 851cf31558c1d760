#pragma once

#include <gmock/gmock.h>

#include <string>

#include "tests/support/ErrorCapture.h"

namespace TarnTest {

/// What a failed assertion of the C library says: `file:line: function: Assertion `expression' failed.`
struct LibcAssertion {
    const char* file;
    int line;
    const char* function;
    const char* expression;

    std::string Words() const {
        return std::string(file) + ":" + std::to_string(line) + ": " + function + ": Assertion `" + expression +
               "' failed.\n";
    }
};

/// Matches all that a process that died of the assertion has written to standard error. It may begin with the name of
/// the program, but holds no other line and no path.
MATCHER_P(SaysThat, assertion, "says: " + assertion.Words()) {
    const std::string words = LastWords(arg);
    const std::string expected = assertion.Words();
    return testing::Value(words, testing::EndsWith(expected)) && words.find('\n') == words.size() - 1 &&
           words.find('/') == words.size() - expected.size() + expected.find('/');
}

}  // namespace TarnTest

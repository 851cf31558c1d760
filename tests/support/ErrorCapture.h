#pragma once

#include <gmock/gmock.h>

#include <ios>
#include <sstream>
#include <string>

namespace TarnTest {

/// Catches what is written to std::cerr for as long as the object lives; then the stream is as it was before, its base
/// and its flags included. What goes to descriptor 2 by another way is not caught.
class ErrorCapture {
public:
    ErrorCapture();
    ~ErrorCapture();
    ErrorCapture(const ErrorCapture&) = delete;
    ErrorCapture& operator=(const ErrorCapture&) = delete;

    /// All that has been written so far.
    std::string Text() const { return m_buffer.str(); }

    /// What would be on a terminal: all that had been written when the stream was flushed last. std::cerr is flushed
    /// after each insertion, unless the test has said std::nounitbuf.
    std::string FlushedText() const { return m_buffer.flushed; }

    int Flushes() const { return m_buffer.flushes; }

private:
    class Buffer : public std::stringbuf {
    public:
        std::string flushed;
        int flushes = 0;

    protected:
        int sync() override;
    };

    Buffer m_buffer;
    std::ios m_format;
    std::streambuf* const m_original;
};

/// What a process that was killed has said itself: an emulator adds a line about the signal.
std::string LastWords(const std::string& errors);

/// Matches all that a dying process has written to standard error.
MATCHER_P(Says, words, "") {
    return LastWords(arg) == words;
}

/// Matches if these are the last of them.
MATCHER_P(EndsSaying, words, "") {
    return testing::Value(LastWords(arg), testing::EndsWith(words));
}

}  // namespace TarnTest

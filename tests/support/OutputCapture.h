#pragma once

#include <string>

namespace TarnTest {

/// Catches what the process writes to standard output, whoever writes it, for as long as the object lives.
class OutputCapture {
public:
    OutputCapture();
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    /// All that has been written so far.
    std::string Text() const;

private:
    int m_file;
    int m_original;
};

}  // namespace TarnTest

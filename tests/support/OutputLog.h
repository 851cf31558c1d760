#pragma once

#include <TarnSocketIO/CUtility.h>

#include <cstddef>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"
#include "tests/support/OutputCapture.h"

namespace TarnTest {

/// Switches the debug log on, to standard output, and catches that for as long as the object lives. Outcomes and what
/// is printed directly are in here among the other lines, in order; the ring (LogCapture) has neither.
class OutputLog {
public:
    OutputLog() {
        ResetLog();
        TarnSocketIO::CUtility::Initialise(1);
        m_first = m_output.Text().size();
    }
    ~OutputLog() { TarnSocketIO::CUtility::SetLoggingDestination(0); }
    OutputLog(const OutputLog&) = delete;
    OutputLog& operator=(const OutputLog&) = delete;

    /// All lines so far, without their time stamps.
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        std::istringstream text(m_output.Text().substr(m_first));
        for (std::string line; std::getline(text, line);) {
            lines.push_back(LooksLikeAStamp(line) ? Message(line) : line);
        }
        return lines;
    }

    /// The same without those of worker threads, which come in when they like.
    std::vector<std::string> LinesOfEndpoint() const {
        std::vector<std::string> lines;
        for (const std::string& line : Lines()) {
            if (line.rfind("CSocketThread::", 0) != 0) {
                lines.push_back(line);
            }
        }
        return lines;
    }

private:
    const OutputCapture m_output;
    std::size_t m_first;
};

}  // namespace TarnTest

#pragma once

#include <string>
#include <vector>

namespace TarnTest {

/// Lets failed assertions of the value-reporting kind pass, for as long as the object lives, and remembers them: what
/// stands behind an assertion can then be run. One at a time. The values of an assertion go to std::cerr, as always.
///
/// The program that links LoggingReporter.cpp has its definitions in the place of the companion runtime's. Without an
/// object an assertion of it aborts, so that none passes that the test did not expect.
///
/// Threads: any may fail.
class LoggingReporter {
public:
    /// One call of AssertFailStdErrBase::ReportWhat, with its arguments in their order.
    struct Header {
        std::string banner;
        std::string function;
        std::string file;
        unsigned int line;
        std::string expression;
        std::string extra_text;
        int extra_level;
    };

    LoggingReporter();
    ~LoggingReporter();
    LoggingReporter(const LoggingReporter&) = delete;
    LoggingReporter& operator=(const LoggingReporter&) = delete;

    /// What has been reported so far, oldest first.
    std::vector<Header> Headers() const;

    /// How often the failure action has run.
    int Actions() const;
};

}  // namespace TarnTest

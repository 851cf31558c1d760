#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/LoggingReporter.h"

namespace TarnTest {

/// Where an assertion has failed, such as `IfConf::Set: ifs != 0 && arr_size > 0 (ioctl_structs.h:42)`: the operation
/// without its namespace and without what compilers write each in its own way, the expression, file and line.
inline std::string SiteOf(const LoggingReporter::Header& header) {
    std::string operation;
    int depth = 0;
    for (const char c : header.function) {
        depth += c == '<' ? 1 : 0;
        if (c == '(' && depth == 0) {
            break;
        }
        if (depth == 0) {
            operation += c == ' ' ? '\n' : c;
        }
        depth -= c == '>' ? 1 : 0;
    }
    operation.erase(0, operation.rfind('\n') + 1);
    const auto without = [](const std::string& text, const std::string& prefix) {
        return text.rfind(prefix, 0) == 0 ? text.substr(prefix.size()) : text;
    };
    return without(operation, "TarnSocketIO::") + ": " + header.expression + " (" +
           without(header.file, "libraries/TarnSocketIO/") + ":" + std::to_string(header.line) + ")";
}

/// What a program says that goes on behind its failed assertions.
struct ReturningRun {
    std::string output;              ///< all of standard output
    std::string errors;              ///< all of standard error, values of assertions among it
    std::vector<std::string> sites;  ///< that have failed, in their order: see SiteOf
};

/// Runs `act` in a child process with a failure action that returns; it must say this, and nothing else.
inline void ExpectRun(const ReturningRun& expected, const std::function<void()>& act) {
    ChildProcess child([&] {
        const LoggingReporter reporter;
        act();
        std::vector<std::string> sites;
        for (const LoggingReporter::Header& header : reporter.Headers()) {
            EXPECT_EQ("Assertion Failed", header.banner);
            sites.push_back(SiteOf(header));
        }
        EXPECT_THAT(sites, testing::ElementsAreArray(expected.sites));
        EXPECT_EQ(static_cast<int>(expected.sites.size()), reporter.Actions());
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ(expected.output, child.Output());
    EXPECT_EQ(expected.errors, child.Errors());
}

}  // namespace TarnTest

#pragma once

#include <gmock/gmock.h>

#include <csignal>
#include <functional>
#include <ostream>
#include <string>

#include "tests/support/ChildProcess.h"

namespace TarnTest {

/// What a process says that ends by a failed assertion.
struct AssertionReport {
    std::string output;  ///< all of standard output
    std::string errors;  ///< what stands on standard error before the report
    std::string expression;
    std::string operation;  ///< a part of the signature: the rest of it is the compiler's business
    std::string file;
    int line;
    std::string values;
};

inline void PrintTo(const AssertionReport& report, std::ostream* os) {
    *os << report.expression << " at " << report.file << ":" << report.line;
}

/// Runs `act` in a child process, which must abort and must have said this, and nothing else.
inline void ExpectAssertion(const AssertionReport& report, const std::function<void()>& act) {
    SCOPED_TRACE(testing::PrintToString(report));
    ChildProcess child(act);
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ(report.output, child.Output());

    const std::string all = child.Errors();
    const std::string before = report.errors + "Assertion Failed\n expression: " + report.expression + "\n function: ";
    const std::string behind = "\n file: " + report.file + "\n line: " + std::to_string(report.line) + report.values;
    ASSERT_THAT(all, testing::StartsWith(before));
    ASSERT_THAT(all, testing::EndsWith(behind));
    ASSERT_GE(all.size(), before.size() + behind.size());
    const std::string function = all.substr(before.size(), all.size() - before.size() - behind.size());
    EXPECT_THAT(function, testing::HasSubstr(report.operation));
    EXPECT_EQ(std::string::npos, function.find('\n')) << function;
}

}  // namespace TarnTest

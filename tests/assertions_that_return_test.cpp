// What stands behind each assertion, run with a reporter whose action returns. A program of its own: the reporter takes
// the place of the companion runtime's in all of it.

#include <TarnSocketIO/Asserter.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <gmock/gmock.h>
#include <netinet/in.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/support/ErrorCapture.h"
#include "tests/support/LoggingReporter.h"

/// Outside the unnamed namespace, for which compilers have different names.
namespace Application {

int Halve(int number, std::vector<std::string>& steps) {
    steps.emplace_back("before");
    SOCKETIO_ASSERT_IN("halve.cpp", 12, number % 2 == 0)(number)(number % 2);
    steps.emplace_back("behind");
    return number / 2;
}

}  // namespace Application

namespace {

using IPv4::IPAddress;
using TarnTest::ErrorCapture;
using TarnTest::LoggingReporter;

const std::string ip_address = "libraries/TarnSocketIO/IPv4/IPAddress.cpp";

sockaddr_in RecordOfAnotherFamily(const IPAddress& address) {
    sockaddr_in record = address;
    record.sin_family = AF_INET6;
    return record;
}

void ExpectFailure(const LoggingReporter& reporter, const std::string& expression, const std::string& operation,
                   const std::string& file, unsigned int line) {
    ASSERT_EQ(1U, reporter.Headers().size());
    const LoggingReporter::Header header = reporter.Headers().front();
    EXPECT_EQ("Assertion Failed", header.banner);
    EXPECT_THAT(header.function, testing::HasSubstr(operation + "("));
    EXPECT_EQ(file, header.file);
    EXPECT_EQ(line, header.line);
    EXPECT_EQ(expression, header.expression);
    EXPECT_EQ("", header.extra_text);
    EXPECT_EQ(3, header.extra_level);
    EXPECT_EQ(1, reporter.Actions());
}

TEST(AssertionsThatReturn, IPAddressHasTheAddressOfARecordOfAnotherFamily) {
    const LoggingReporter reporter;
    const ErrorCapture errors;
    const IPAddress address(RecordOfAnotherFamily(IPAddress(192, 0, 2, 1)));
    EXPECT_EQ(IPAddress(192, 0, 2, 1), address);
    ExpectFailure(reporter, "addr.sin_family == AF_INET", "IPv4::IPAddress::IPAddress", ip_address, 225);
    EXPECT_EQ("\n addr.sin_family: 10\n 2: 2", errors.Text());
}

TEST(AssertionsThatReturn, IPAddressIsSetToTheAddressOfARecordOfAnotherFamily) {
    const LoggingReporter reporter;
    const ErrorCapture errors;
    IPAddress address(198, 51, 100, 7);
    address.Set(RecordOfAnotherFamily(IPAddress(192, 0, 2, 1)));
    EXPECT_EQ(IPAddress(192, 0, 2, 1), address);
    ExpectFailure(reporter, "addr.sin_family == AF_INET", "void IPv4::IPAddress::Set", ip_address, 241);
    EXPECT_EQ("\n addr.sin_family: 10\n 2: 2", errors.Text());
}

TEST(AssertionsThatReturn, ApplicationGoesOnBehindItsAssertion) {
    const LoggingReporter reporter;
    const ErrorCapture errors;
    std::vector<std::string> steps;
    EXPECT_EQ(3, Application::Halve(7, steps));
    EXPECT_THAT(steps, testing::ElementsAre("before", "behind"));
    ExpectFailure(reporter, "number % 2 == 0", "int Application::Halve", "halve.cpp", 12);
    EXPECT_EQ("\n number: 7\n number % 2: 1", errors.Text());
}

TEST(AssertionsThatReturn, ApplicationIsNotReportedWhereItsAssertionHolds) {
    const LoggingReporter reporter;
    const ErrorCapture errors;
    std::vector<std::string> steps;
    EXPECT_EQ(4, Application::Halve(8, steps));
    EXPECT_TRUE(reporter.Headers().empty());
    EXPECT_EQ(0, reporter.Actions());
    EXPECT_EQ("", errors.Text());
}

TEST(AssertionsThatReturn, ActionRunsWhenAllValuesAreWritten) {
    const LoggingReporter reporter;
    const ErrorCapture errors;
    SOCKETIO_ASSERT(false)(reporter.Headers().size())(reporter.Actions());
    EXPECT_EQ("\n reporter.Headers().size(): 1\n reporter.Actions(): 0", errors.Text());
    EXPECT_EQ(1, reporter.Actions());
}

TEST(AssertionsThatReturn, ActionRunsWithoutValuesToo) {
    const LoggingReporter reporter;
    const ErrorCapture errors;
    SOCKETIO_ASSERT(1 + 1 == 3);
    EXPECT_EQ("", errors.Text());
    EXPECT_EQ(1U, reporter.Headers().size());
    EXPECT_EQ(1, reporter.Actions());
}

TEST(AssertionsThatReturn, EachFailureIsReportedInItsTurn) {
    const LoggingReporter reporter;
    for (unsigned int i = 0; i < 3; ++i) {
        SOCKETIO_ASSERT_AT(static_cast<int>(i), i > 2);
    }
    const std::vector<LoggingReporter::Header> headers = reporter.Headers();
    ASSERT_EQ(3U, headers.size());
    for (unsigned int i = 0; i < 3; ++i) {
        EXPECT_EQ(i, headers[i].line);
    }
    EXPECT_EQ(3, reporter.Actions());
}

// The expression is evaluated for the test, and again for the reporter.
TEST(AssertionsThatReturn, ExpressionThatComesTrueOnlyGetsItsHeaderSpared) {
    const LoggingReporter reporter;
    const ErrorCapture errors;
    int evaluations = 0;
    const auto evaluate = [&] { return ++evaluations; };
    SOCKETIO_ASSERT(evaluate() == 2)(evaluations);
    EXPECT_TRUE(reporter.Headers().empty());
    EXPECT_EQ("\n evaluations: 2", errors.Text());
    EXPECT_EQ(1, reporter.Actions());
}

// The one branch of an `if` without braces is a whole assertion, and the `else` is not its own.
TEST(AssertionsThatReturn, AssertionIsOneStatement) {
    const LoggingReporter reporter;
    const ErrorCapture errors;
    bool has_else = false;
    for (const bool in_first_branch : {true, false}) {
        // NOLINTBEGIN(readability-braces-around-statements): without them is how it must work, too
        if (in_first_branch)
            SOCKETIO_ASSERT(false)(1)(2);
        else
            has_else = true;
        // NOLINTEND(readability-braces-around-statements)
    }
    EXPECT_TRUE(has_else);
    EXPECT_EQ(1, reporter.Actions());
}

TEST(LoggingReporter, StartsEmptyEachTime) {
    {
        const LoggingReporter before;
        SOCKETIO_ASSERT(false);
    }
    const LoggingReporter reporter;
    EXPECT_TRUE(reporter.Headers().empty());
    EXPECT_EQ(0, reporter.Actions());
}

TEST(LoggingReporter, AbortsWhereNobodyExpectsAFailure) {
    { const LoggingReporter reporter; }
    EXPECT_EXIT(SOCKETIO_ASSERT_IN("a.cpp", 5, 1 > 2)(1), testing::KilledBySignal(SIGABRT),
                TarnTest::Says("Unexpected: Assertion Failed: 1 > 2 at a.cpp:5\n 1: 1"));
}

}  // namespace

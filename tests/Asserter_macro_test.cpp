#include <TarnSocketIO/Asserter.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "tests/support/ErrorCapture.h"

// The text of what a macro stands for.
#define TEXT_OF(tokens) #tokens
#define EXPANDED_TEXT_OF(tokens) TEXT_OF(tokens)

#define HIGHEST_PORT 65535

/// What asserts here. It has a namespace with a name, because compilers have different names for one without.
namespace Application {

struct Frame {
    char bytes[1514];
};

void Receive(unsigned int length) {
    SOCKETIO_ASSERT_IN("receiver.cpp", 12, length <= sizeof(Frame))(length)(sizeof(Frame));
}

class Port {
public:
    explicit Port(int number) {
        SOCKETIO_ASSERT_IN("port.h", 8, number > 0 && number <= HIGHEST_PORT)(number)(HIGHEST_PORT);
    }
};

void Open(int error) {
    errno = error;
    SOCKETIO_ASSERT_IN("open.cpp", 3, !errno)(errno);
}

constexpr int line_of_fail_here = __LINE__ + 2;
void FailHere() {
    SOCKETIO_ASSERT(HIGHEST_PORT == 0);
}

void FailAtAStatedLine(int line) {
    SOCKETIO_ASSERT_AT(line, HIGHEST_PORT == 0);
}

}  // namespace Application

/// An application with classes of the same names as those that the macro stands for.
namespace OtherNames {

class Asserter {};
class AssertFailStdErrAbort {};
class SocketIOAssertDone {};

void Open(int number) {
    SOCKETIO_ASSERT_AT(4, number == 3)(number);
}

}  // namespace OtherNames

namespace {

using IPv4::IPAddress;
using TarnTest::EndsSaying;
using TarnTest::ErrorCapture;
using TarnTest::Says;
using testing::EndsWith;
using testing::KilledBySignal;

struct Counter {
    int Next() { return ++count; }
    int count = 0;
};

/// As the last value of an assertion it ends the report before the action is reached.
struct ThrowsWhenWritten {};
std::ostream& operator<<(std::ostream&, ThrowsWhenWritten) {
    throw std::runtime_error("written");
}

int ThrowsWhenEvaluated() {
    throw std::runtime_error("evaluated");
}

struct SetsErrnoWhenWritten {
    int error;
};
std::ostream& operator<<(std::ostream& os, SetsErrnoWhenWritten value) {
    os << value.error;
    errno = value.error;
    return os;
}

TEST(SocketIOAssert, DoesNotActWhenAValueThrows) {
    const ErrorCapture errors;
    EXPECT_THROW(SOCKETIO_ASSERT(false)(1)(ThrowsWhenWritten()), std::runtime_error);
    EXPECT_THAT(errors.Text(), EndsWith("\n 1: 1\n ThrowsWhenWritten(): "));
}

TEST(SocketIOAssert, WritesTheHeaderBeforeItLooksAtTheValues) {
    const ErrorCapture errors;
    EXPECT_THROW(SOCKETIO_ASSERT_AT(26, false)(ThrowsWhenEvaluated()), std::runtime_error);
    EXPECT_THAT(errors.Text(), testing::StartsWith("Assertion Failed\n expression: false\n"));
    EXPECT_THAT(errors.Text(), EndsWith("\n line: 26"));
}

TEST(SocketIOAssert, EvaluatesOnlyAnExpressionThatHoldsAndOnlyOnce) {
    const ErrorCapture errors;
    Counter evaluations;
    Counter looks;
    SOCKETIO_ASSERT(evaluations.Next() > 0);
    EXPECT_EQ(1, evaluations.count);
    SOCKETIO_ASSERT(evaluations.Next() > 0)(looks.Next())(looks.Next());
    EXPECT_EQ(2, evaluations.count);
    SOCKETIO_ASSERT_AT(1, evaluations.Next() > 0)(looks.Next());
    EXPECT_EQ(3, evaluations.count);
    SOCKETIO_ASSERT_IN("a.cpp", 1, evaluations.Next() > 0)(looks.Next());
    EXPECT_EQ(4, evaluations.count);
    EXPECT_EQ(0, looks.count);
    EXPECT_EQ("", errors.Text());
    EXPECT_EQ(0, errors.Flushes());
}

TEST(SocketIOAssert, ReportsAndAborts) {
    const std::string words =
        "Assertion Failed\n expression: length <= sizeof(Frame)\n function: void Application::Receive(unsigned int)\n "
        "file: receiver.cpp\n line: 12\n length: 1515\n sizeof(Frame): 1514";
    EXPECT_EXIT(Application::Receive(1515), KilledBySignal(SIGABRT), Says(words));
}

TEST(SocketIOAssert, ReportsTheSignatureOfTheFunctionItIsIn) {
    const std::string words =
        "Assertion Failed\n expression: number > 0 && number <= HIGHEST_PORT\n function: "
        "Application::Port::Port(int)\n file: port.h\n line: 8\n number: 65536\n 65535: 65535";
    EXPECT_EXIT(Application::Port(65536), KilledBySignal(SIGABRT), Says(words));
}

TEST(SocketIOAssert, ReportsTheExpressionAsWrittenAndValuesAfterMacroExpansion) {
    const std::string words =
        "Assertion Failed\n expression: !errno\n function: void Application::Open(int)\n file: open.cpp\n line: 3\n " +
        std::string(EXPANDED_TEXT_OF(errno)) + ": 19";
    EXPECT_EXIT(Application::Open(19), KilledBySignal(SIGABRT), Says(words));
#ifdef __GLIBC__
    EXPECT_STREQ("(*__errno_location ())", EXPANDED_TEXT_OF(errno));
#endif
}

TEST(SocketIOAssert, ReportsWhereItStands) {
    EXPECT_EXIT(Application::FailHere(), KilledBySignal(SIGABRT),
                Says("Assertion Failed\n expression: HIGHEST_PORT == 0\n function: void Application::FailHere()\n "
                     "file: " __FILE__ "\n line: " +
                     std::to_string(Application::line_of_fail_here)));
}

TEST(SocketIOAssert, ReportsTheLineThatIsStated) {
    EXPECT_EXIT(
        Application::FailAtAStatedLine(4711), KilledBySignal(SIGABRT),
        Says("Assertion Failed\n expression: HIGHEST_PORT == 0\n function: void Application::FailAtAStatedLine(int)\n "
             "file: " __FILE__ "\n line: 4711"));
}

TEST(SocketIOAssert, EvaluatesAnExpressionThatFailsTwice) {
    Counter evaluations;
    EXPECT_EXIT(SOCKETIO_ASSERT_AT(26, evaluations.Next() > 2)(evaluations.count), KilledBySignal(SIGABRT),
                EndsSaying("\n line: 26\n evaluations.count: 2"));
}

TEST(SocketIOAssert, WritesNoHeaderWhereTheExpressionHoldsTheSecondTime) {
    Counter evaluations;
    EXPECT_EXIT(SOCKETIO_ASSERT(evaluations.Next() > 1)(evaluations.count), KilledBySignal(SIGABRT),
                Says("\n evaluations.count: 2"));
}

TEST(SocketIOAssert, ReportsAsManyValuesAsThereAre) {
    Counter n;
    const ErrorCapture errors;
    EXPECT_THROW(
        SOCKETIO_ASSERT_AT(26, false)(n.Next())(n.Next())(n.count)("three")(4)(n.count + 3)(IPAddress(6, 6, 6, 6))(
            std::string("7"))(8U)(n.count * 4 + 1)(n.Next())(n.count == 3 ? "three" : "")(ThrowsWhenWritten()),
        std::runtime_error);
    EXPECT_THAT(errors.Text(),
                EndsWith("\n line: 26\n n.Next(): 1\n n.Next(): 2\n n.count: 2\n \"three\": three\n 4: 4"
                         "\n n.count + 3: 5\n IPAddress(6, 6, 6, 6): 6.6.6.6\n std::string(\"7\"): 7\n 8U: 8"
                         "\n n.count * 4 + 1: 9\n n.Next(): 3\n n.count == 3 ? \"three\" : \"\": three"
                         "\n ThrowsWhenWritten(): "));
}

TEST(SocketIOAssert, AbortsBehindTheLastOfManyValues) {
    const auto fail = [] { SOCKETIO_ASSERT_AT(26, false)(1)(2)(3)(4)(5)(6)(7)(8)(9)(10)(11)(12); };
    EXPECT_EXIT(fail(), KilledBySignal(SIGABRT),
                EndsSaying("\n line: 26\n 1: 1\n 2: 2\n 3: 3\n 4: 4\n 5: 5\n 6: 6\n 7: 7\n 8: 8\n 9: 9"
                           "\n 10: 10\n 11: 11\n 12: 12"));
}

TEST(SocketIOAssert, ReportsErrnoAsEarlierReportsHaveLeftIt) {
    const ErrorCapture errors;
    const SetsErrnoWhenWritten first{5};
    const SetsErrnoWhenWritten second{6};
    errno = 0;
    EXPECT_THROW(SOCKETIO_ASSERT_AT(1, false)(first)(errno)(second)(errno)(ThrowsWhenWritten()), std::runtime_error);
    const std::string name = EXPANDED_TEXT_OF(errno);
    EXPECT_THAT(errors.Text(), EndsWith("\n line: 1\n first: 5\n " + name + ": 5\n second: 6\n " + name +
                                        ": 6\n ThrowsWhenWritten(): "));
}

TEST(SocketIOAssert, LeavesTheBaseOfTheStreamToItsValues) {
    const auto fail = [] {
        std::cerr << std::hex;
        SOCKETIO_ASSERT_AT(26, false)(255);
    };
    EXPECT_EXIT(fail(), KilledBySignal(SIGABRT), EndsSaying("\n line: 26\n 255: ff"));
}

TEST(SocketIOAssert, SaysEverythingBeforeItAbortsAlsoWhereTheStreamIsBuffered) {
    const auto fail = [] {
        static char buffer[4096];
        std::setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
        std::cerr << std::nounitbuf;
        SOCKETIO_ASSERT_AT(26, false);
    };
    EXPECT_EXIT(fail(), KilledBySignal(SIGABRT), EndsSaying("\n line: 26"));
}

TEST(SocketIOAssert, TakesWhatConvertsToBool) {
    struct Explicit {
        explicit operator bool() const { return value; }
        bool value;
    };
    const ErrorCapture errors;
    const Explicit yes{true};
    const Explicit no{false};
    const Explicit* const pointer = &yes;
    SOCKETIO_ASSERT(yes);
    SOCKETIO_ASSERT(pointer);
    SOCKETIO_ASSERT(no.value || yes.value);
    EXPECT_THROW(SOCKETIO_ASSERT(no)(ThrowsWhenWritten()), std::runtime_error);
}

TEST(SocketIOAssert, IsOneStatementWithoutAValue) {
    static_assert(std::is_void_v<decltype(SOCKETIO_ASSERT(true))>);
    static_assert(std::is_void_v<decltype(SOCKETIO_ASSERT(true)(1)(2))>);
    int others = 0;
    for (const bool holds : {true, false}) {
        // NOLINTBEGIN(readability-braces-around-statements): without them is how it must work, too
        if (holds)
            SOCKETIO_ASSERT(holds)(others);
        else
            ++others;
        // NOLINTEND(readability-braces-around-statements)
    }
    EXPECT_EQ(1, others);
}

TEST(SocketIOAssert, IsNotLedAstrayByNamesOfTheApplication) {
    OtherNames::Open(3);
    EXPECT_EXIT(OtherNames::Open(5), KilledBySignal(SIGABRT), EndsSaying("\n line: 4\n number: 5"));
}

}  // namespace

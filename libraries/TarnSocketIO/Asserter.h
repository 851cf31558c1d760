#pragma once

#include <iostream>

/// Assertions that show values. A failed one tells on the standard error stream what was expected, where, and what was
/// there instead; then it aborts the process.
///
///     SOCKETIO_ASSERT(length <= sizeof(frame))(length)(sizeof(frame));
///
///     Assertion Failed
///      expression: length <= sizeof(frame)
///      function: void Receive(unsigned int)
///      file: receiver.cpp
///      line: 12
///      length: 2048
///      sizeof(frame): 1514
///
/// They are never compiled out: `NDEBUG` changes nothing. One that holds costs a test of its expression, and nothing is
/// built. One that fails evaluates its expression a second time: assert and report nothing that has side effects.
///
/// The header and the end of the process come from the companion runtime: AssertFailStdErrBase::ReportWhat and
/// AssertFailStdErrAbort::DoAction. A program that defines both itself replaces them; if its DoAction returns,
/// execution goes on behind the assertion.
///
/// Threads: any. There is no lock, so the lines of failures at the same time may come mixed.

/// What reporters have in common: the words on the standard error stream.
class AssertFailStdErrBase {
public:
    /// What happens when everything has been reported.
    virtual void DoAction() = 0;
    virtual ~AssertFailStdErrBase() = default;

    /// Writes the header: banner, expression, function, file and line, each on a line of its own, the last one without
    /// its end. Comes from the companion runtime; the bundled one adds `extra_text` unless it is null or empty, and
    /// leaves `extra_level` out.
    void ReportWhat(const char* banner, const char* function, const char* file, unsigned int line,
                    const char* expression, const char* extra_text, int extra_level);

    /// Writes a line break, a blank, the name, ": " and the value as its stream inserter writes it; then flushes.
    /// What the stream throws passes through.
    template <class T>
    void ReportValue(const T& value, const char* name) {
        std::cerr << "\n " << name << ": " << value << std::flush;
    }
};

/// The reporter that ends the process. Its DoAction, and with it its table of virtual operations, comes from the
/// companion runtime.
class AssertFailStdErrAbort : public AssertFailStdErrBase {
public:
    /// Aborts. A replacement may return.
    void DoAction() override;
};

/// One failed assertion, for as long as it is reported. Made by the macros below; owns nothing.
///
/// @tparam Reporter  AssertFailStdErrAbort, or a class with the same operations.
template <class Reporter>
class Asserter : public Reporter {
public:
    /// Calls ReportWhat unless `condition` is true. Texts are borrowed for the call.
    Asserter(const char* banner, const char* expression, bool condition, const char* function, const char* file,
             int line, const char* extra_text, int extra_level)
        : SOCKETIO_ASSERT_A(*this), SOCKETIO_ASSERT_B(*this) {
        if (!condition) {
            this->ReportWhat(banner, function, file, static_cast<unsigned int>(line), expression, extra_text,
                             extra_level);
        }
    }
    Asserter(const Asserter&) = delete;
    Asserter& operator=(const Asserter&) = delete;

    template <class T>
    Asserter& ReportValue(const T& value, const char* name) {
        Reporter::template ReportValue<T>(value, name);
        return *this;
    }

    /// By value, so that `errno` is the number of this very moment.
    Asserter& ReportValue(int value, const char* name) { return ReportValue<int>(value, name); }

    /// Runs the failure action.
    Asserter& operator++() {
        this->DoAction();
        return *this;
    }

    /// Both are this object. The macros of the same names report a value through one and end in the other.
    Asserter& SOCKETIO_ASSERT_A;
    Asserter& SOCKETIO_ASSERT_B;
};

/// Gives both branches of the macro's conditional one type, so that it is a statement like any other.
struct SocketIOAssertDone {
    template <class Reporter>
    void operator&(const Asserter<Reporter>& /*reported*/) const {}
};

/// Asserts an expression, and reports values if it does not hold: SOCKETIO_ASSERT(expression)(value)(value)...;
///
/// The expression is reported as written; a value under its text after macro expansion, so that `errno` shows as
/// `(*__errno_location ())`. An expression with a comma needs parentheses of its own.
#define SOCKETIO_ASSERT(expression) SOCKETIO_ASSERT_AS(__PRETTY_FUNCTION__, __FILE__, __LINE__, expression, #expression)

/// As SOCKETIO_ASSERT, with a line that stays the same however the file changes: file and line together are what
/// reports from the field are looked up by.
#define SOCKETIO_ASSERT_AT(line, expression) \
    SOCKETIO_ASSERT_AS(__PRETTY_FUNCTION__, __FILE__, line, expression, #expression)

/// As SOCKETIO_ASSERT_AT, with the file named too: an installed header must report the name that it has in its own
/// source tree.
#define SOCKETIO_ASSERT_IN(file, line, expression) \
    SOCKETIO_ASSERT_AS(__PRETTY_FUNCTION__, file, line, expression, #expression)

/// @cond internal
// What the three above are made of. Used where a part of an operation reports as the operation does, or where the
// expression is reported in other words than it is written in. `text` is what is reported.
// NOLINTBEGIN(bugprone-macro-parentheses): values follow, and parentheses around all of it would shut them out
#define SOCKETIO_ASSERT_AS(function, file, line, expression, text)                                                \
    static_cast<bool>(expression)                                                                                 \
        ? static_cast<void>(0)                                                                                    \
        : ::SocketIOAssertDone() & ++::Asserter<::AssertFailStdErrAbort>("Assertion Failed", text,                \
                                                                         static_cast<bool>(expression), function, \
                                                                         file, line, "", 3)                       \
                                         .SOCKETIO_ASSERT_A
// NOLINTEND(bugprone-macro-parentheses)
#define SOCKETIO_ASSERT_A(value) SOCKETIO_ASSERT_VALUE(value, B)
#define SOCKETIO_ASSERT_B(value) SOCKETIO_ASSERT_VALUE(value, A)
#define SOCKETIO_ASSERT_VALUE(value, next) SOCKETIO_ASSERT_A.ReportValue((value), #value).SOCKETIO_ASSERT_##next
/// @endcond

#include "tests/support/LoggingReporter.h"

#include <TarnSocketIO/Asserter.h>

#include <cstdlib>
#include <mutex>

namespace {

struct Log {
    std::mutex lock;
    bool is_kept = false;
    std::vector<TarnTest::LoggingReporter::Header> headers;
    int actions = 0;
};

Log& TheLog() {
    static Log log;
    return log;
}

}  // namespace

namespace TarnTest {

LoggingReporter::LoggingReporter() {
    const std::lock_guard<std::mutex> hold(TheLog().lock);
    TheLog().is_kept = true;
    TheLog().headers.clear();
    TheLog().actions = 0;
}

LoggingReporter::~LoggingReporter() {
    const std::lock_guard<std::mutex> hold(TheLog().lock);
    TheLog().is_kept = false;
}

std::vector<LoggingReporter::Header> LoggingReporter::Headers() const {
    const std::lock_guard<std::mutex> hold(TheLog().lock);
    return TheLog().headers;
}

int LoggingReporter::Actions() const {
    const std::lock_guard<std::mutex> hold(TheLog().lock);
    return TheLog().actions;
}

}  // namespace TarnTest

void AssertFailStdErrBase::ReportWhat(const char* banner, const char* function, const char* file, unsigned int line,
                                      const char* expression, const char* extra_text, int extra_level) {
    const std::lock_guard<std::mutex> hold(TheLog().lock);
    if (TheLog().is_kept) {
        TheLog().headers.push_back({banner, function, file, line, expression, extra_text, extra_level});
    } else {
        std::cerr << "Unexpected: " << banner << ": " << expression << " at " << file << ":" << line;
    }
}

void AssertFailStdErrAbort::DoAction() {
    const std::lock_guard<std::mutex> hold(TheLog().lock);
    if (!TheLog().is_kept) {
        std::abort();
    }
    ++TheLog().actions;
}

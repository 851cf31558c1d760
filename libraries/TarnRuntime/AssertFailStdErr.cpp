#include <TarnSocketIO/Asserter.h>

#include <cstdlib>
#include <iostream>
#include <string>

void AssertFailStdErrBase::ReportWhat(const char* banner, const char* function, const char* file, unsigned int line,
                                      const char* expression, const char* extra_text, int /*extra_level*/) {
    // Every line has the form of a reported value. The number is made into text here: the stream may be in another
    // base.
    std::cerr << banner << "\n expression: " << expression << "\n function: " << function << "\n file: " << file
              << "\n line: " << std::to_string(line);
    if (extra_text != nullptr && *extra_text != '\0') {
        std::cerr << "\n note: " << extra_text;
    }
    std::cerr << std::flush;
}

void AssertFailStdErrAbort::DoAction() {
    std::abort();
}

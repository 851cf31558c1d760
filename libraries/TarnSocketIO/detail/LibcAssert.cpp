// The C library declares its failure function only where assertions are on.
#undef NDEBUG
#include <TarnSocketIO/detail/LibcAssert.h>

#include <cassert>

namespace TarnSocketIO::detail {

void FailLibcAssertion(const char* expression, const char* file, unsigned int line, const char* function) {
    __assert_fail(expression, file, line, function);
}

}  // namespace TarnSocketIO::detail

#include "tests/support/ErrorCapture.h"

#include <iostream>

namespace TarnTest {

int ErrorCapture::Buffer::sync() {
    ++flushes;
    flushed = str();
    return 0;
}

ErrorCapture::ErrorCapture() : m_format(nullptr), m_original(std::cerr.rdbuf()) {
    m_format.copyfmt(std::cerr);
    std::cerr.rdbuf(&m_buffer);
}

ErrorCapture::~ErrorCapture() {
    // The mask comes back with the format, when the change of the buffer has cleared whatever it could throw for.
    std::cerr.exceptions(std::ios_base::goodbit);
    std::cerr.rdbuf(m_original);
    std::cerr.copyfmt(m_format);
}

std::string LastWords(const std::string& errors) {
    return errors.substr(0, errors.find("qemu: uncaught target signal"));
}

}  // namespace TarnTest

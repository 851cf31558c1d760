#include "tests/support/OutputCapture.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace TarnTest {

namespace {

void FlushStandardOutput() {
    std::cout.flush();
    std::fflush(stdout);
}

}  // namespace

OutputCapture::OutputCapture() : m_file(open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)), m_original(-1) {
    if (m_file == -1) {
        throw std::runtime_error("no temporary file to catch standard output in");
    }
    FlushStandardOutput();
    m_original = dup(STDOUT_FILENO);
    dup2(m_file, STDOUT_FILENO);
}

OutputCapture::~OutputCapture() {
    FlushStandardOutput();
    dup2(m_original, STDOUT_FILENO);
    close(m_original);
    close(m_file);
}

std::string OutputCapture::Text() const {
    FlushStandardOutput();
    std::string text;
    std::array<char, 4096> part;
    ssize_t length;
    while ((length = pread(m_file, part.data(), part.size(), static_cast<off_t>(text.size()))) > 0) {
        text.append(part.data(), static_cast<std::size_t>(length));
    }
    return text;
}

}  // namespace TarnTest

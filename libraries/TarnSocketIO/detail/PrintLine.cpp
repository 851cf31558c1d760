#include <TarnSocketIO/detail/PrintLine.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <iostream>

#include <TarnSocketIO/detail/BoundedText.h>

namespace TarnSocketIO::detail {

void PrintLine(const char* format, ...) noexcept {
    std::array<char, 512> line{};
    BoundedText text(line.data(), line.size(), 0);
    va_list arguments;
    va_start(arguments, format);
    text.AppendFormat(format, arguments);
    va_end(arguments);
    try {
        std::cout << line.data() << std::flush;
    } catch (const std::exception&) {
        // The stream is broken, and there is nobody else to tell.
    }
}

void PrintText(const char* text) noexcept {
    try {
        std::cout << text;
    } catch (const std::exception&) {
        // As above.
    }
}

void PrintError(const char* what, int error) noexcept {
    errno = error;
    std::perror(what);
    errno = error;
}

}  // namespace TarnSocketIO::detail

#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace TarnSocketIO::detail {

/// Copies text into a fixed field: cut to fit, terminated, and zero behind it.
template <std::size_t Size>
void CopyText(char (&field)[Size], std::string_view text) {
    const std::size_t length = std::min(text.size(), Size - 1);
    std::memcpy(field, text.data(), length);
    std::memset(field + length, 0, Size - length);
}

/// Builds a line in somebody else's buffer. It is terminated at every moment and what does not fit is cut.
class BoundedText {
public:
    /// @param size  of the buffer, 1 or more; the text has one character less.
    BoundedText(char* buffer, std::size_t size) : m_buffer(buffer), m_size(size) { m_buffer[0] = '\0'; }

    void Append(std::string_view text) {
        const std::size_t length = std::min(text.size(), Room());
        std::memcpy(m_buffer + m_length, text.data(), length);
        m_length += length;
        m_buffer[m_length] = '\0';
    }

    /// Appends a text shorter than the buffer whole; if need be, what stands before it is cut instead.
    void AppendWhole(std::string_view text) {
        m_length = std::min(m_length, m_size - 1 - text.size());
        Append(text);
    }

    /// @return false if the C library could not format the message; nothing is appended then.
    bool AppendFormat(const char* format, va_list arguments) {
        const int wanted = std::vsnprintf(m_buffer + m_length, m_size - m_length, format, arguments);
        if (wanted < 0) {
            m_buffer[m_length] = '\0';
            return false;
        }
        m_length += std::min(static_cast<std::size_t>(wanted), Room());
        return true;
    }

    std::string_view View() const { return {m_buffer, m_length}; }

private:
    std::size_t Room() const { return m_size - 1 - m_length; }

    char* const m_buffer;
    const std::size_t m_size;
    std::size_t m_length = 0;
};

}  // namespace TarnSocketIO::detail

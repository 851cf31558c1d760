#include <TarnSocketIO/detail/BoundedText.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace TarnSocketIO::detail {

void CopyText(char* field, std::size_t size, std::string_view text) {
    const std::size_t length = std::min(text.size(), size - 1);
    std::memmove(field, text.data(), length);
    std::memset(field + length, 0, size - length);
}

void BoundedText::Append(std::string_view text) {
    const std::size_t length = std::min(text.size(), Room());
    std::memcpy(m_buffer + m_length, text.data(), length);
    m_length += length;
    m_buffer[m_length] = '\0';
}

void BoundedText::AppendWhole(std::string_view text) {
    m_length = std::min(m_length, m_size - 1 - text.size());
    Append(text);
}

bool BoundedText::AppendFormat(const char* format, va_list arguments) {
    const int wanted = std::vsnprintf(m_buffer + m_length, m_size - m_length, format, arguments);
    if (wanted < 0) {
        m_buffer[m_length] = '\0';
        return false;
    }
    m_length += std::min(static_cast<std::size_t>(wanted), Room());
    return true;
}

}  // namespace TarnSocketIO::detail

#pragma once

#include <cstdarg>
#include <cstddef>
#include <string_view>

namespace TarnSocketIO::detail {

/// A text as the C library prints it, where it may be missing.
inline const char* Printable(const char* text) {
    return text != nullptr ? text : "(null)";
}

/// A text as std::string takes it, where it may be missing.
inline const char* TextOrNone(const char* text) {
    return text != nullptr ? text : "";
}

/// Copies text into a fixed field of `size` bytes: cut to fit, terminated, and zero behind it. The text may
/// be the field's own.
void CopyText(char* field, std::size_t size, std::string_view text);

template <std::size_t Size>
void CopyText(char (&field)[Size], std::string_view text) {
    CopyText(field, Size, text);
}

/// Builds a line in somebody else's buffer. It is terminated at every moment and what does not fit is cut.
///
/// Out of line on purpose: where the compiler knows the buffer's size it makes string instructions of small copies,
/// whose start alone takes longer than the C library's copy.
class BoundedText {
public:
    /// @param size    of the buffer, 1 or more; the text has one character less.
    /// @param length  of the terminated text that is in the buffer already.
    BoundedText(char* buffer, std::size_t size, std::size_t length)
        : m_buffer(buffer), m_size(size), m_length(length) {}

    void Append(std::string_view text);

    /// Appends a text shorter than the buffer whole; if need be, what stands before it is cut instead.
    void AppendWhole(std::string_view text);

    /// @return false if the C library could not format the message; nothing is appended then.
    bool AppendFormat(const char* format, va_list arguments);

    std::string_view View() const { return {m_buffer, m_length}; }

private:
    std::size_t Room() const { return m_size - 1 - m_length; }

    char* const m_buffer;
    const std::size_t m_size;
    std::size_t m_length;
};

}  // namespace TarnSocketIO::detail

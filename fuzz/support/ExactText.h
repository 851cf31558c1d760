#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace TarnFuzz {

/// The input up to its first NUL as a C string, in a heap block of exactly its size: the address sanitizer reports
/// whoever reads past its end.
class ExactText {
public:
    ExactText(const std::uint8_t* data, std::size_t size)
        : m_length(static_cast<std::size_t>(std::find(data, data + size, 0) - data)),
          m_text(std::make_unique<char[]>(m_length + 1)) {
        std::copy_n(data, m_length, m_text.get());
    }

    const char* c_str() const { return m_text.get(); }

private:
    std::size_t m_length;
    std::unique_ptr<char[]> m_text;
};

}  // namespace TarnFuzz

#include <TarnSocketIO/detail/TableText.h>

#include <algorithm>
#include <string_view>

namespace TarnSocketIO::detail {

namespace {

constexpr std::size_t piece_size = 8192;  // as the stream reads it from a file
// What stands behind a piece: where a word ends, where white space ends, and the rest of what BehindSpace looks at
// there.
constexpr std::string_view stops = " x         ";
constexpr std::size_t longest_run = 1'000'000;

}  // namespace

void WordText::Clear() {
    m_length = 0;
    m_text[0] = '\0';
}

void WordText::Append(const char* from, std::size_t length) {
    const std::size_t taken = std::min(length, m_text.size() - 1 - m_length);
    std::memcpy(&m_text[m_length], from, taken);
    m_length += taken;
    m_text[m_length] = '\0';
}

TableText::TableText(std::istream& stream) : m_stream(stream), m_piece(piece_size + stops.size()) {
    m_at = m_end = m_piece.data();
    std::copy(stops.begin(), stops.end(), m_piece.begin());
}

bool TableText::SkipHeader(std::size_t longest) {
    for (std::size_t length = 0; m_at != m_end || Refill(); ++m_at) {
        if (*m_at == '\n') {
            ++m_at;
            return true;
        }
        if (++length > longest) {
            return false;
        }
    }
    return false;
}

bool TableText::TakeWord(WordText& word) {
    word.Clear();
    return TakeParts([&word](const char* from, std::size_t length) { word.Append(from, length); });
}

bool TableText::SkipWord() {
    return TakeParts([](const char* /*from*/, std::size_t /*length*/) {});
}

bool TableText::SkipSpace() {
    std::size_t length = 0;
    do {
        const char* const from = m_at;
        // What stops it at the end of the piece stands behind that.
        m_at = std::min(BehindSpace(m_at), m_end);
        length += static_cast<std::size_t>(m_at - from);
    } while (m_at == m_end && length <= longest_run && Refill());
    return m_at != m_end && length <= longest_run;
}

/// Hands the next word to `use(from, length)`, in as many parts as pieces hold of it.
template <class Use>
bool TableText::TakeParts(Use use) {
    if (!SkipSpace()) {
        return false;
    }
    std::size_t length = 0;
    do {
        const char* const from = m_at;
        m_at = BehindWord(m_at);
        const auto part = static_cast<std::size_t>(m_at - from);
        use(from, part);
        length += part;
        // At the end of a piece there may be more of it.
    } while (m_at == m_end && length <= longest_run && Refill());
    return length <= longest_run && !m_stream.bad();
}

/// Reads the next piece. @return false at the end, and if it cannot be read.
bool TableText::Refill() {
    std::streamsize count = 0;
    // The stream fills its buffer when it is looked at; one read that fails takes nothing of those before it along.
    if (m_stream.peek() != std::istream::traits_type::eof()) {
        count = m_stream.readsome(m_piece.data(), piece_size);
    }
    m_at = m_piece.data();
    m_end = m_at + count;
    std::copy(stops.begin(), stops.end(), m_piece.begin() + count);
    return count > 0;
}

}  // namespace TarnSocketIO::detail

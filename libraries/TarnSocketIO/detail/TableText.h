#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <istream>
#include <vector>

namespace TarnSocketIO::detail {

/// White space of the C locale, which is what separates words in a stream.
constexpr bool IsSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// @return the first place from `at` that is no white space; there must be one. Up to seven bytes behind it are looked
/// at.
inline const char* BehindSpace(const char* at) {
    // Columns that are aligned have many blanks in between.
    constexpr std::uint64_t blanks = 0x2020202020202020;
    std::uint64_t next = 0;
    std::memcpy(&next, at, sizeof next);
    while (next == blanks) {
        at += sizeof next;
        std::memcpy(&next, at, sizeof next);
    }
    while (IsSpace(*at)) {
        ++at;
    }
    return at;
}

/// @return the first place from `at` that is white space; there must be one.
inline const char* BehindWord(const char* at) {
    while (!IsSpace(*at)) {
        ++at;
    }
    return at;
}

/// As much of a word as tells whether it is an address: those of both kinds are shorter.
class WordText {
public:
    void Clear();
    void Append(const char* from, std::size_t length);

    const char* Get() const { return m_text.data(); }

private:
    std::array<char, 32> m_text{};
    std::size_t m_length = 0;
};

/// The text of a table, which is read from a stream in large pieces: a header line, and behind it words with white
/// space in between. Reading ends at a word, or at white space, of more than a million characters.
class TableText {
public:
    explicit TableText(std::istream& stream);

    /// Goes behind the first line. @return false if it has more than `longest` characters, or no end.
    bool SkipHeader(std::size_t longest);

    /// Takes the next word. @return false if there is none.
    bool TakeWord(WordText& word);

    /// Goes behind the next word, likewise.
    bool SkipWord();

    /// Lets `read(at, end)` try to read more than a word at once, straight from the piece at hand: it moves `at` on, up
    /// to `end` at most. Behind that stand a blank, an x and another blank, so that BehindSpace and BehindWord stop.
    ///
    /// @return what it returns: false is that it could not, and then nothing is taken.
    template <class Read>
    bool TakeAtHand(Read read) {
        const char* at = m_at;
        if (!read(at, m_end)) {
            return false;
        }
        m_at = at;
        return true;
    }

private:
    bool SkipSpace();
    template <class Use>
    bool TakeParts(Use use);
    bool Refill();

    std::istream& m_stream;
    std::vector<char> m_piece;
    const char* m_at;
    const char* m_end;
};

}  // namespace TarnSocketIO::detail

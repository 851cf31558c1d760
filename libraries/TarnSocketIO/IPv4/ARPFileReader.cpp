#include <TarnSocketIO/IPv4/ARPFileReader.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <iostream>

#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/LibcAssert.h>

using TarnSocketIO::MACAddress;
using TarnSocketIO::detail::FailLibcAssertion;

namespace {

constexpr const char* source_file = "libraries/TarnSocketIO/IPv4/ARPFileReader.cpp";
constexpr const char* reading_function = "void ARPFileReader::CacheFileContent()";

constexpr std::size_t longest_header = 78;
constexpr std::size_t longest_word = 1'000'000;

/// White space of the C locale, which is what separates words in a stream.
constexpr bool IsSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// As much of a word as tells whether it is an address: those of both kinds are shorter.
class WordText {
public:
    void Clear() {
        m_length = 0;
        m_text[0] = '\0';
    }

    void Append(const char* from, std::size_t length) {
        const std::size_t taken = std::min(length, m_text.size() - 1 - m_length);
        std::memcpy(&m_text[m_length], from, taken);
        m_length += taken;
        m_text[m_length] = '\0';
    }

    const char* Get() const { return m_text.data(); }

private:
    std::array<char, 32> m_text;
    std::size_t m_length;
};

}  // namespace

/// The words of a stream, which it is read for in large pieces.
class ARPFileReader::Words {
public:
    explicit Words(std::istream& stream) : m_stream(stream), m_piece(piece_size + 1) { m_at = m_end = m_piece.data(); }

    /// Goes behind the first line. @return false if that is too long, or all that there is.
    bool SkipHeader() {
        if (!Refill()) {
            return false;
        }
        const std::size_t length = std::min(static_cast<std::size_t>(m_end - m_at), longest_header + 1);
        const void* const line_end = std::memchr(m_at, '\n', length);
        if (line_end == nullptr) {
            return false;
        }
        m_at = static_cast<const char*>(line_end) + 1;
        return true;
    }

    /// Takes the next word. @return false if there is none, or none that ends.
    bool Take(WordText& word) {
        word.Clear();
        return TakeParts([&word](const char* from, std::size_t length) { word.Append(from, length); });
    }

    /// Goes behind the next word, likewise.
    bool Skip() {
        return TakeParts([](const char* /*from*/, std::size_t /*length*/) {});
    }

private:
    static constexpr std::size_t piece_size = 65536;

    template <class Use>
    bool TakeParts(Use use) {
        do {
            while (m_at != m_end && IsSpace(*m_at)) {
                ++m_at;
            }
        } while (m_at == m_end && Refill());
        std::size_t length = 0;
        while (m_at != m_end && length <= longest_word) {
            const char* const from = m_at;
            // There is white space behind the piece.
            while (!IsSpace(*m_at)) {
                ++m_at;
            }
            const auto part = static_cast<std::size_t>(m_at - from);
            use(from, part);
            length += part;
            if (m_at != m_end || !Refill()) {
                break;
            }
        }
        return length > 0 && length <= longest_word && !m_stream.bad();
    }

    /// Reads the next piece. @return false at the end, and if it cannot be read.
    bool Refill() {
        m_stream.read(m_piece.data(), piece_size);
        m_at = m_piece.data();
        m_end = m_at + m_stream.gcount();
        m_piece[static_cast<std::size_t>(m_stream.gcount())] = ' ';
        return m_at != m_end;
    }

    std::istream& m_stream;
    std::vector<char> m_piece;
    const char* m_at;
    const char* m_end;
};

ARPFileReader::ARPFileReader(const char* file) {
    Set(file);
}

void ARPFileReader::Set(const char* file) {
    m_FileName = TarnSocketIO::detail::TextOrNone(file);
}

void ARPFileReader::CacheFileContent() {
    // One that ended by an exception has left it open.
    m_ARPFile.close();
    m_ARPFile.clear();
    m_ARPFile.open(m_FileName, std::ios::in);
    if (!m_ARPFile.is_open()) {
        std::cout << "file could not be open\n" << std::flush;
        FailLibcAssertion("0", source_file, 80, reading_function);
    }
    m_IPARPEntryMap.clear();
    std::vector<ARPTableLineEntry> entries;
    try {
        ReadEntries(entries);
    } catch (...) {
        Keep(entries);
        throw;
    }
    Keep(entries);
    m_ARPFile.close();
}

void ARPFileReader::ReadEntries(std::vector<ARPTableLineEntry>& entries) {
    Words words(m_ARPFile);
    if (!words.SkipHeader()) {
        return;
    }
    WordText address;
    WordText hardware_address;
    while (words.Take(address) && words.Skip() && words.Skip() && words.Take(hardware_address) && words.Skip() &&
           words.Skip()) {
        ARPTableLineEntry tblentry;
        tblentry.m_IPAddress = address.Get();
        tblentry.m_HWAddress = hardware_address.Get();
        entries.push_back(tblentry);
    }
}

void ARPFileReader::Keep(std::vector<ARPTableLineEntry>& entries) {
    // In order, each finds its place at the end of the map without a search.
    std::sort(entries.begin(), entries.end(),
              [](const ARPTableLineEntry& a, const ARPTableLineEntry& b) { return a.m_IPAddress < b.m_IPAddress; });
    for (const ARPTableLineEntry& entry : entries) {
        const std::size_t size = m_IPARPEntryMap.size();
        m_IPARPEntryMap.emplace_hint(m_IPARPEntryMap.end(), entry.m_IPAddress, entry);
        if (m_IPARPEntryMap.size() == size) {
            FailLibcAssertion("m_IPARPEntryMap.find(tblentry.m_IPAddress) == m_IPARPEntryMap.end()", source_file, 71,
                              reading_function);
        }
    }
}

MACAddress ARPFileReader::GetCachedMACAddress(IPv4::IPAddress ip) const {
    const auto found = m_IPARPEntryMap.find(ip);
    return found != m_IPARPEntryMap.end() ? found->second.m_HWAddress : MACAddress();
}

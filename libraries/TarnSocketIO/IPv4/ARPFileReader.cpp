#include <TarnSocketIO/IPv4/ARPFileReader.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <numeric>

#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/LibcAssert.h>
#include <TarnSocketIO/detail/PlainAddress.h>
#include <TarnSocketIO/detail/TableText.h>

using TarnSocketIO::MACAddress;
using TarnSocketIO::detail::BehindSpace;
using TarnSocketIO::detail::BehindWord;
using TarnSocketIO::detail::FailLibcAssertion;
using TarnSocketIO::detail::IsSpace;
using TarnSocketIO::detail::ReadPlainHardwareAddress;
using TarnSocketIO::detail::ReadPlainQuad;
using TarnSocketIO::detail::TableText;
using TarnSocketIO::detail::WordText;

namespace {

using Entry = ARPFileReader::ARPTableLineEntry;

constexpr const char* source_file = "libraries/TarnSocketIO/IPv4/ARPFileReader.cpp";
constexpr const char* reading_function = "void ARPFileReader::CacheFileContent()";

constexpr std::size_t longest_header = 78;

// A file without an end comes to an address that stands in it twice: duplicates are looked for after this many entries,
// and whenever there are twice as many again.
constexpr std::size_t first_look_for_duplicates = 131072;

/// Reads an entry as the kernel writes it. @return false for any other, and for one that does not end before `end`.
bool ReadPlainEntry(const char*& at, const char* end, Entry& entry) {
    const auto skip_word = [&at, end] {
        at = BehindWord(BehindSpace(at));
        return at < end;
    };
    unsigned char address[4];
    unsigned char hardware_address[6];
    at = BehindSpace(at);
    if (!ReadPlainQuad(at, address) || !IsSpace(*at) || !skip_word() || !skip_word()) {
        return false;
    }
    at = BehindSpace(at);
    if (!ReadPlainHardwareAddress(at, hardware_address) || !IsSpace(*at) || !skip_word() || !skip_word()) {
        return false;
    }
    entry.m_IPAddress.Set(address, BigEndian);
    std::copy_n(hardware_address, sizeof hardware_address, entry.m_HWAddress.OctetForm());
    return true;
}

/// Reads an entry whose words may be anything. @return false if there is none.
bool ReadEntry(TableText& text, Entry& entry) {
    WordText address;
    WordText hardware_address;
    if (!text.TakeWord(address) || !text.SkipWord() || !text.SkipWord() || !text.TakeWord(hardware_address) ||
        !text.SkipWord() || !text.SkipWord()) {
        return false;
    }
    entry.m_IPAddress = address.Get();
    entry.m_HWAddress = hardware_address.Get();
    return true;
}

/// Sorts by address: octet by octet, beginning with the last one. Comparisons would be guessed wrong half of the time.
void SortByAddress(std::vector<Entry>& entries) {
    std::vector<Entry> sorted(entries.size());
    for (int octet = 3; octet >= 0; --octet) {
        const auto octet_of = [octet](const Entry& entry) { return entry.m_IPAddress.OctetForm()[octet]; };
        std::array<std::uint32_t, 256> places{};
        for (const Entry& entry : entries) {
            ++places[octet_of(entry)];
        }
        // The hosts of a network have their first octets in common.
        if (entries.empty() || places[octet_of(entries.front())] == entries.size()) {
            continue;
        }
        std::exclusive_scan(places.begin(), places.end(), places.begin(), 0U);
        for (const Entry& entry : entries) {
            sorted[places[octet_of(entry)]++] = entry;
        }
        entries.swap(sorted);
    }
}

/// Sorts, and sees to it that no address is there twice.
void SortDistinct(std::vector<Entry>& entries) {
    SortByAddress(entries);
    const auto duplicate =
        std::adjacent_find(entries.begin(), entries.end(),
                           [](const Entry& left, const Entry& right) { return left.m_IPAddress == right.m_IPAddress; });
    if (duplicate != entries.end()) {
        FailLibcAssertion("m_IPARPEntryMap.find(tblentry.m_IPAddress) == m_IPARPEntryMap.end()", source_file, 71,
                          reading_function);
    }
}

void ReadEntries(std::istream& stream, std::vector<Entry>& entries) {
    TableText text(stream);
    if (!text.SkipHeader(longest_header)) {
        return;
    }
    std::size_t look_for_duplicates = first_look_for_duplicates;
    Entry entry;
    while (text.TakeAtHand([&](const char*& at, const char* end) { return ReadPlainEntry(at, end, entry); }) ||
           ReadEntry(text, entry)) {
        entries.push_back(entry);
        if (entries.size() == look_for_duplicates) {
            SortDistinct(entries);
            look_for_duplicates *= 2;
        }
    }
}

}  // namespace

/// What is left in the map of the read before. The new entries come in order, and take the places of the old ones: most
/// hosts are there again, and neither memory nor the shape of the tree has to change for them. What is left over in the
/// end goes, also if there was no memory for a new one.
class ARPFileReader::Remainder {
public:
    explicit Remainder(EntryMap& map) : m_map(map), m_at(map.begin()) {}
    ~Remainder() { m_map.erase(m_at, m_map.end()); }
    Remainder(const Remainder&) = delete;
    Remainder& operator=(const Remainder&) = delete;

    void Replace(const ARPTableLineEntry& entry) {
        while (m_at != m_map.end() && m_at->first < entry.m_IPAddress) {
            m_at = m_map.erase(m_at);
        }
        if (m_at != m_map.end() && m_at->first == entry.m_IPAddress) {
            m_at->second = entry;
            ++m_at;
        } else {
            m_map.emplace_hint(m_at, entry.m_IPAddress, entry);
        }
    }

private:
    EntryMap& m_map;
    EntryMap::iterator m_at;
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
    std::vector<Entry> entries;
    try {
        entries.reserve(m_IPARPEntryMap.size());
        ReadEntries(m_ARPFile, entries);
    } catch (...) {
        Keep(entries);
        throw;
    }
    Keep(entries);
    m_ARPFile.close();
}

void ARPFileReader::Keep(std::vector<ARPTableLineEntry>& entries) {
    Remainder remainder(m_IPARPEntryMap);
    SortDistinct(entries);
    for (const Entry& entry : entries) {
        remainder.Replace(entry);
    }
}

MACAddress ARPFileReader::GetCachedMACAddress(IPv4::IPAddress ip) const {
    const auto found = m_IPARPEntryMap.find(ip);
    return found != m_IPARPEntryMap.end() ? found->second.m_HWAddress : MACAddress();
}

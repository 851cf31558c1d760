#include <TarnSocketIO/detail/DottedText.h>

#include <array>
#include <cstring>

namespace TarnSocketIO::detail {

namespace {

constexpr std::size_t entry_size = 4;

/// An octet's digits and the dot behind them; zero behind that.
struct Entry {
    char text[entry_size];
    unsigned char length;
};

constexpr Entry MakeEntry(unsigned int octet) {
    Entry entry{};
    const auto append = [&entry](unsigned int character) {
        entry.text[entry.length] = static_cast<char>(character);
        ++entry.length;
    };
    if (octet >= 100) {
        append('0' + octet / 100);
    }
    if (octet >= 10) {
        append('0' + octet / 10 % 10);
    }
    append('0' + octet % 10);
    append('.');
    return entry;
}

constexpr std::array<Entry, 256> MakeTable() {
    std::array<Entry, 256> table{};
    for (unsigned int octet = 0; octet < table.size(); ++octet) {
        table[octet] = MakeEntry(octet);
    }
    return table;
}

constexpr std::array<Entry, 256> table = MakeTable();

}  // namespace

std::size_t WriteDottedText(char* text, const unsigned char* octets) {
    char* at = text;
    for (int i = 0; i < 3; ++i) {
        const Entry& entry = table[octets[i]];
        // Always all four characters, which a register holds: what is too much is covered by the rest of the text.
        std::memcpy(at, entry.text, entry_size);
        at += entry.length;
    }
    const Entry& last = table[octets[3]];
    // Without a branch, which random octets would mispredict: two characters, the last digit, and the terminator over
    // whatever stands behind it.
    const std::size_t digits = last.length - std::size_t{1};
    std::memcpy(at, last.text, 2);
    at[digits - 1] = last.text[digits - 1];
    at += digits;
    *at = '\0';
    return static_cast<std::size_t>(at - text);
}

}  // namespace TarnSocketIO::detail

// The reader of ARP tables, on whole files: entries and exception as an oracle has them that reads word by word.

#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <typeinfo>

#include "support/Expect.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

namespace {

using IPv4::IPAddress;
using TarnFuzz::Expect;
using TarnSocketIO::MACAddress;

using AddressOctets = std::array<unsigned char, 4>;
using HardwareOctets = std::array<unsigned char, 6>;

constexpr std::size_t longest_header = 79;

/// What a stream takes from a file at a time.
constexpr std::size_t piece_size = 8191;

/// A file in memory.
class TableFile {
public:
    TableFile() : m_file(memfd_create("table", MFD_CLOEXEC)), m_name("/proc/self/fd/" + std::to_string(m_file)) {
        if (m_file == -1) {
            std::abort();
        }
    }

    void Write(const std::uint8_t* data, std::size_t size) {
        if (ftruncate(m_file, 0) != 0 || pwrite(m_file, data, size, 0) != static_cast<ssize_t>(size)) {
            std::abort();
        }
    }

    const std::string& Name() const { return m_name; }

private:
    const int m_file;
    const std::string m_name;
};

struct Reading {
    std::map<AddressOctets, HardwareOctets> entries;
    std::string refusal;  ///< type and text of what was thrown; empty if nothing was
    bool aborts = false;  ///< an address stands there twice
};

std::string Text(const std::exception& refusal) {
    return std::string(typeid(refusal).name()) + ": " + refusal.what();
}

Reading Oracle(const std::string& name) {
    Reading reading;
    std::ifstream file(name);
    char header[79];
    file.getline(header, sizeof header);
    try {
        while (!file.eof()) {
            std::string words[6];
            for (std::string& word : words) {
                file >> word;
            }
            if (file.fail()) {
                break;
            }
            IPAddress address;
            address = words[0].c_str();
            MACAddress hardware_address;
            hardware_address = words[3].c_str();
            AddressOctets key{};
            std::copy_n(address.OctetForm(), key.size(), key.begin());
            HardwareOctets value{};
            std::copy_n(hardware_address.OctetForm(), value.size(), value.begin());
            if (!reading.entries.emplace(key, value).second) {
                reading.aborts = true;
                break;
            }
        }
    } catch (const std::exception& refusal) {
        reading.refusal = Text(refusal);
    }
    return reading;
}

std::string Printed(const unsigned char* octets) {
    char text[24];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", octets[0], octets[1], octets[2], octets[3],
                  octets[4], octets[5]);
    return text;
}

void ExpectLookUp(const ARPFileReader& reader, const Reading& expected, const AddressOctets& address) {
    const auto entry = expected.entries.find(address);
    const HardwareOctets octets = entry != expected.entries.end() ? entry->second : HardwareOctets{};
    const MACAddress found = reader.GetCachedMACAddress(IPAddress(address.data(), BigEndian));
    if (!std::equal(octets.begin(), octets.end(), found.OctetForm())) {
        Expect(Printed(octets.data()), Printed(found.OctetForm()), "look-up");
    }
}

/// Reads the table, and looks up all that stands there, and what differs from that in one bit.
void ExpectRead(ARPFileReader& reader, const Reading& expected) {
    std::string refusal;
    try {
        reader.CacheFileContent();
    } catch (const std::exception& thrown) {
        refusal = Text(thrown);
    }
    Expect(expected.refusal, refusal, "refusal");
    ExpectLookUp(reader, expected, {0, 0, 0, 0});
    for (const auto& [address, hardware_address] : expected.entries) {
        ExpectLookUp(reader, expected, address);
        for (unsigned bit = 0; bit < 32; ++bit) {
            AddressOctets other = address;
            other[bit / 8] = static_cast<unsigned char>(other[bit / 8] ^ (1U << bit % 8));
            ExpectLookUp(reader, expected, other);
        }
    }
}

/// Makes tables that are good, or nearly. Random bytes are next to never one.
class Tables {
public:
    explicit Tables(unsigned seed) : m_random(seed) {}

    bool OneIn(std::size_t n) { return Below(n) == 0; }

    std::string Make() {
        std::string text = Some("IP address \t?", OneIn(8) ? 90 : 70) + "\n";
        for (std::size_t lines = Below(8); lines > 0; --lines) {
            text += Address() + Space() + Word() + Space() + Word() + Space() + HardwareAddress() + Space() + Word() +
                    Space() + (OneIn(16) ? "" : Word()) + Space();
        }
        return text;
    }

    /// Puts another word in the place of one, or in the middle of it.
    std::string Change(std::string text) {
        static constexpr char spaces[] = " \t\n\v\f\r";
        const std::size_t at = Below(text.size() + 1);
        const std::size_t end = std::min(text.find_first_of(spaces, at), text.size());
        const std::string word = OneIn(3) ? Word() : OneIn(2) ? Address() : HardwareAddress();
        return text.replace(at, OneIn(4) ? 0 : end - at, word);
    }

private:
    std::size_t Below(std::size_t limit) { return m_random() % limit; }

    std::string Some(const char* characters, std::size_t longest) {
        const std::string choice = characters;
        std::string text(Below(longest + 1), ' ');
        std::generate(text.begin(), text.end(), [&] { return choice[Below(choice.size())]; });
        return text;
    }

    std::string Space() { return OneIn(4) ? " " + Some(" \t\n\v\f\r", 6) : OneIn(16) ? "" : " "; }
    std::string Word() { return "0x" + Some("0123456789*eth", OneIn(16) ? 100 : 4); }

    std::string Number(const char* format, std::size_t limit) {
        char text[24];
        std::snprintf(text, sizeof text, format, static_cast<unsigned>(Below(limit)));
        return text;
    }

    std::string Octet() {
        static const char* const formats[] = {"%u", "%u", "%u", "0x%x", "0%o", "-%u"};
        return OneIn(32) ? Some("0123456789abx+- ", 5)
                         : Number(formats[Below(OneIn(8) ? 6 : 4)], OneIn(64) ? 300 : 256);
    }

    std::string Address() {
        std::string text = OneIn(4) ? "10.0.0" : Octet() + "." + Octet() + "." + Octet();
        return OneIn(64) ? "0" : text + "." + Octet();
    }

    std::string HardwareAddress() {
        std::string text = Number("%02x", 256);
        for (std::size_t rest = OneIn(64) ? Below(8) : 5; rest > 0; --rest) {
            text += OneIn(64) ? ":" + Some("0123456789abcdefgx", 3) : Number(OneIn(2) ? ":%02x" : ":%X", 256);
        }
        return OneIn(64) ? "0" : text;
    }

    std::minstd_rand m_random;
};

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    Tables tables(seed);
    if (tables.OneIn(3)) {
        return LLVMFuzzerMutate(data, size, max_size);
    }
    const std::string text = tables.OneIn(2) ? tables.Change(std::string(data, data + size)) : tables.Make();
    const std::size_t length = std::min(text.size(), max_size);
    std::copy_n(text.begin(), length, data);
    return length;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static TableFile file;
    file.Write(data, size);
    const Reading expected = Oracle(file.Name());
    if (expected.aborts) {
        return 0;
    }
    ARPFileReader reader(file.Name().c_str());
    ExpectRead(reader, expected);
    // Once more, with so much white space behind the header that a stream takes the rest in two pieces.
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::size_t header_end = text.find('\n');
    if (header_end < longest_header) {
        const std::size_t rest = size - header_end - 1;
        const std::size_t cut = rest > 0 ? std::hash<std::string>()(text) % rest : 0;
        const std::size_t blanks = std::max(piece_size, size) - header_end - 1 - cut;
        const std::string moved = std::string(text).insert(header_end + 1, blanks, ' ');
        file.Write(reinterpret_cast<const std::uint8_t*>(moved.data()), moved.size());
        ExpectRead(reader, expected);
    }
    return 0;
}

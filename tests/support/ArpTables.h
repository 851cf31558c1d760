#pragma once

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
#include <exception>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <typeinfo>

/// What the tests of the reader of ARP tables have in common.
namespace TarnTest {

using AddressOctets = std::array<unsigned char, 4>;
using HardwareOctets = std::array<unsigned char, 6>;
using ArpMapping = std::map<AddressOctets, HardwareOctets>;

/// The kernel's.
inline const std::string arp_header =
    "IP address       HW type     Flags       HW address            Mask     Device\n";

/// One line as the kernel writes it.
inline std::string ArpLine(const std::string& address, const std::string& hardware_address) {
    std::string line = address;
    line.resize(std::max<std::size_t>(17, address.size() + 1), ' ');
    return line + "0x1         0x2         " + hardware_address + "     *        eth0\n";
}

/// A file in memory.
class TableFile {
public:
    explicit TableFile(const std::string& text = "") : m_fd(memfd_create("table", MFD_CLOEXEC)) {
        if (m_fd == -1) {
            throw std::runtime_error("no file in memory");
        }
        Write(text);
    }
    ~TableFile() { close(m_fd); }
    TableFile(const TableFile&) = delete;
    TableFile& operator=(const TableFile&) = delete;

    /// Replaces the contents.
    void Write(const std::string& text) {
        const bool is_empty = ftruncate(m_fd, 0) == 0;
        std::size_t written = 0;
        while (is_empty && written < text.size()) {
            const ssize_t part =
                pwrite(m_fd, text.data() + written, text.size() - written, static_cast<off_t>(written));
            if (part <= 0) {
                break;
            }
            written += static_cast<std::size_t>(part);
        }
        if (!is_empty || written != text.size()) {
            throw std::runtime_error("a file in memory cannot be written");
        }
    }

    const std::string& Name() const { return m_name; }

private:
    const int m_fd;
    const std::string m_name = "/proc/self/fd/" + std::to_string(m_fd);
};

inline AddressOctets OctetsOf(IPv4::IPAddress ip) {
    AddressOctets octets{};
    std::copy_n(ip.OctetForm(), octets.size(), octets.begin());
    return octets;
}

inline HardwareOctets OctetsOf(const TarnSocketIO::MACAddress& mac) {
    HardwareOctets octets{};
    std::copy_n(mac.OctetForm(), octets.size(), octets.begin());
    return octets;
}

/// Six lower-case pairs; zeros if the reader does not know the address.
inline std::string Known(const ARPFileReader& reader, IPv4::IPAddress ip) {
    const HardwareOctets o = OctetsOf(reader.GetCachedMACAddress(ip));
    std::array<char, 18> text{};
    std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", o[0], o[1], o[2], o[3], o[4], o[5]);
    return text.data();
}

inline constexpr const char* not_known = "00:00:00:00:00:00";

/// What becomes of reading a table.
struct TableReading {
    ArpMapping entries;
    std::string refusal;  ///< type and text of the exception; empty if there is none
    bool aborts = false;  ///< an address stands there twice; `entries` are those before it
};

/// The table read a second way, word by word.
inline TableReading ReadByWords(const std::string& name) {
    TableReading reading;
    std::ifstream file(name);
    std::array<char, 79> header{};
    file.getline(header.data(), header.size());
    try {
        while (!file.eof()) {
            std::array<std::string, 6> words;
            for (std::string& word : words) {
                file >> word;
            }
            const bool is_too_long =
                std::any_of(words.begin(), words.end(), [](const std::string& word) { return word.size() > 1000000; });
            if (file.fail() || is_too_long) {
                break;
            }
            IPv4::IPAddress address;
            address = words[0].c_str();
            TarnSocketIO::MACAddress hardware_address;
            hardware_address = words[3].c_str();
            if (!reading.entries.emplace(OctetsOf(address), OctetsOf(hardware_address)).second) {
                reading.aborts = true;
                break;
            }
        }
    } catch (const std::exception& refusal) {
        reading.refusal = std::string(typeid(refusal).name()) + ": " + refusal.what();
    }
    return reading;
}

/// @return what is thrown, as TableReading has it; empty if nothing is.
inline std::string RefusalBy(ARPFileReader& reader) {
    try {
        reader.CacheFileContent();
    } catch (const std::exception& refusal) {
        return std::string(typeid(refusal).name()) + ": " + refusal.what();
    }
    return "";
}

/// Looks up each address of the mapping, and those that differ from one of them in one bit.
///
/// @return how many of them are not known as the mapping has it.
inline std::size_t CountDifferences(const ARPFileReader& reader, const ArpMapping& mapping) {
    std::size_t differences = 0;
    const auto look_up = [&](const AddressOctets& address) {
        const auto entry = mapping.find(address);
        const HardwareOctets expected = entry != mapping.end() ? entry->second : HardwareOctets{};
        const IPv4::IPAddress ip(address.data(), BigEndian);
        differences += OctetsOf(reader.GetCachedMACAddress(ip)) != expected ? 1 : 0;
    };
    look_up({0, 0, 0, 0});
    look_up({255, 255, 255, 255});
    for (const auto& [address, hardware_address] : mapping) {
        look_up(address);
        for (unsigned int bit = 0; bit < 32; ++bit) {
            AddressOctets other = address;
            other.at(bit / 8) = static_cast<unsigned char>(other.at(bit / 8) ^ (1U << bit % 8));
            look_up(other);
        }
    }
    return differences;
}

}  // namespace TarnTest

// The parser of hardware addresses: octets or exception as an oracle has them, and the texts that are printed.

#include <TarnSocketIO/CMacAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/ExactText.h"
#include "support/Expect.h"
#include "support/FieldTexts.h"
#include "support/Outcome.h"

namespace {

using TarnFuzz::Expect;
using TarnFuzz::Listed;
using TarnFuzz::OutcomeOf;
using TarnSocketIO::CMacAddress;
using TarnSocketIO::MACAddress;

using Octets = std::array<unsigned char, 6>;

/// What the targets of a parse hold before it.
constexpr Octets before{0xa5, 0x5a, 0xc3, 0x3c, 0x96, 0x69};

Octets Oracle(const char* str) {
    if (std::strcmp(str, "0") == 0) {
        return {};
    }
    const std::size_t n = std::strlen(str);
    if (n < 11 || n > 17) {
        throw std::runtime_error("incorrect length for MAC address string");
    }
    char buffer[18];
    std::memcpy(buffer, str, n + 1);
    const char* fields[6] = {buffer};
    std::size_t count = 1;
    for (std::size_t i = 0; i <= 17 && buffer[i] != '\0'; ++i) {
        if (buffer[i] != ':') {
            continue;
        }
        if (count == 6) {
            throw std::runtime_error("bad formatted MAC address string");
        }
        buffer[i] = '\0';
        fields[count++] = &buffer[i + 1];
    }
    if (count != 6) {
        throw std::runtime_error("bad formatted MAC address string");
    }
    Octets octets{};
    for (std::size_t i = 0; i < 6; ++i) {
        char* end = nullptr;
        const long value = std::strtol(fields[i], &end, 16);
        if (*end != '\0') {
            throw std::runtime_error("bad hex number found in MAC address string");
        }
        octets[i] = static_cast<unsigned char>(value & 0xff);
    }
    return octets;
}

Octets OctetsOf(const MACAddress& mac) {
    Octets octets;
    std::copy_n(mac.OctetForm(), octets.size(), octets.begin());
    return octets;
}

/// Parses by `set`, which is given the address to set.
template <class Set>
void ExpectSet(const std::string& expected, Set set, const char* where) {
    MACAddress mac(before.data(), BigEndian);
    const auto outcome = OutcomeOf([&] {
        set(mac);
        return OctetsOf(mac);
    });
    Expect(expected, outcome.text, where);
    if (!outcome.octets) {
        Expect(Listed(before), Listed(OctetsOf(mac)), "target of a refused text");
    }
}

std::string Printed(const char* format, const Octets& o) {
    char text[24];
    std::snprintf(text, sizeof text, format, o[0], o[1], o[2], o[3], o[4], o[5]);
    return text;
}

void ExpectPrinted(const Octets& octets) {
    const MACAddress mac(octets.data(), BigEndian);
    std::ostringstream decimal;
    decimal << mac;
    Expect(Printed("%03u:%02u:%02u:%02u:%02u:%02u", octets), decimal.str(), "decimal");

    const std::string upper_case = Printed("%02X:%02X:%02X:%02X:%02X:%02X", octets);
    std::ostringstream hexadecimal;
    hexadecimal << std::hex << mac;
    Expect(upper_case, hexadecimal.str(), "hexadecimal");

    CMacAddress plain;
    std::copy(octets.begin(), octets.end(), plain.m_Octets);
    const std::string lower_case = Printed("%02x:%02x:%02x:%02x:%02x:%02x", octets);
    Expect(lower_case, plain.GetString(), "lower case");
    Expect(lower_case, CMacAddress(plain).m_szMacAddress, "copied");

    for (const std::string& text : {upper_case, lower_case}) {
        ExpectSet(
            Listed(octets), [&](MACAddress& read) { read.Set(text.c_str()); }, "read back");
    }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    constexpr TarnFuzz::TextShape shape{':', 6, 16, 17};
    return TarnFuzz::FieldTexts(shape, seed).Mutate(data, size, max_size);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const TarnFuzz::ExactText exact(data, size);
    const char* const text = exact.c_str();

    const auto expected = OutcomeOf([&] { return Oracle(text); });
    ExpectSet(
        expected.text, [&](MACAddress& mac) { mac.Set(text); }, "set");
    ExpectSet(
        expected.text, [&](MACAddress& mac) { mac = text; }, "assigned");
    if (expected.octets) {
        ExpectPrinted(*expected.octets);
    }
    return 0;
}

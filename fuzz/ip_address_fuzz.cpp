// The strict parser of dotted text: octets or exception as an oracle has them, and every printed form reads back.

#include <TarnSocketIO/IPv4/IPAddress.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/ExactText.h"
#include "support/Expect.h"
#include "support/FieldTexts.h"
#include "support/Outcome.h"

namespace {

using IPv4::IPAddress;
using IPv4::StrToAddress;
using TarnFuzz::Expect;
using TarnFuzz::Listed;
using TarnFuzz::OutcomeOf;

using Octets = std::array<unsigned char, 4>;
using Manipulator = std::ios_base& (*)(std::ios_base&);

/// What the targets of an assignment hold before it.
constexpr Octets before{0xa5, 0x5a, 0xc3, 0x3c};

Octets Oracle(const char* str) {
    if (std::strcmp(str, "0") == 0) {
        return {};
    }
    const std::size_t length = std::strlen(str);
    if (length < 7 || length > 19) {
        throw std::runtime_error("bad ip address string length");
    }
    char buffer[20];
    std::memcpy(buffer, str, length + 1);
    const char* fields[4] = {buffer};
    std::size_t count = 1;
    for (std::size_t i = 0; i <= 19 && buffer[i] != '\0'; ++i) {
        if (buffer[i] != '.') {
            continue;
        }
        if (count == 4) {
            throw std::runtime_error("bad ip address string");
        }
        buffer[i] = '\0';
        fields[count++] = &buffer[i + 1];
    }
    if (count != 4) {
        throw std::runtime_error("bad ip address string");
    }
    Octets octets{};
    for (std::size_t i = 0; i < 4; ++i) {
        char* end = nullptr;
        const long value = std::strtol(fields[i], &end, 0);
        if (*end != '\0') {
            throw std::runtime_error("bad ip address string");
        }
        if (value < 0 || value > 255) {
            throw std::range_error("bad ip address string field");
        }
        octets[i] = static_cast<unsigned char>(value);
    }
    return octets;
}

Octets OctetsOf(in_addr_t word) {
    Octets octets;
    std::memcpy(octets.data(), &word, sizeof word);
    return octets;
}

Octets OctetsOf(const IPAddress& ip) {
    Octets octets;
    std::copy_n(ip.OctetForm(), octets.size(), octets.begin());
    return octets;
}

template <class Text>
void ExpectAssigned(const std::string& expected, const Text& text, const char* where) {
    IPAddress ip(before.data(), BigEndian);
    const auto outcome = OutcomeOf([&] {
        ip = text;
        return OctetsOf(ip);
    });
    Expect(expected, outcome.text, where);
    if (!outcome.octets) {
        Expect(Listed(before), Listed(OctetsOf(ip)), "target of a refused text");
    }
}

std::ios_base& PrefixedHex(std::ios_base& stream) {
    stream.setf(std::ios_base::showbase);
    return std::hex(stream);
}

std::ios_base& PrefixedOct(std::ios_base& stream) {
    stream.setf(std::ios_base::showbase);
    return std::oct(stream);
}

/// One of the ways to write an address.
struct Form {
    const char* name;
    Manipulator manipulator;
    const char* format;
    unsigned buffer_size;
    bool reads_back;  ///< whether the text says by itself which base it is in
};

// clang-format off
constexpr Form forms[] = {
    {"dec",               std::dec,    "%u.%u.%u.%u",     16, true},
    {"hex",               std::hex,    "%x.%x.%x.%x",     20, false},
    {"oct",               std::oct,    "%o.%o.%o.%o",     16, false},
    {"hex with a prefix", PrefixedHex, "%#x.%#x.%#x.%#x", 20, true},
    {"oct with a prefix", PrefixedOct, "%#o.%#o.%#o.%#o", 20, true},
};
// clang-format on

void ExpectPrinted(const Octets& octets, const IPAddress& ip, const Form& form) {
    char expected[32];
    std::snprintf(expected, sizeof expected, form.format, octets[0], octets[1], octets[2], octets[3]);

    std::string appended = "at ";
    ip.GetPresentation(appended, form.manipulator);
    Expect("at " + std::string(expected), appended, form.name);

    const auto buffer = std::make_unique<char[]>(form.buffer_size);
    ip.GetPresentation(buffer.get(), form.buffer_size, form.manipulator);
    Expect(expected, buffer.get(), form.name);

    std::ostringstream stream;
    stream << form.manipulator << ip;
    Expect(expected, stream.str(), form.name);

    if (form.reads_back) {
        Expect(Listed(octets), OutcomeOf([&] { return OctetsOf(IPAddress(expected)); }).text, form.name);
    }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    constexpr TarnFuzz::TextShape shape{'.', 4, 10, 19};
    return TarnFuzz::FieldTexts(shape, seed).Mutate(data, size, max_size);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const TarnFuzz::ExactText exact(data, size);
    const char* const text = exact.c_str();
    // A string may hold a NUL, and more behind it; its text ends there all the same.
    const std::string whole(data, data + size);

    const auto expected = OutcomeOf([&] { return Oracle(text); });
    const auto expect_outcome = [&](auto parse, const char* where) {
        Expect(expected.text, OutcomeOf(parse).text, where);
    };
    expect_outcome([&] { return OctetsOf(StrToAddress<BigEndian>(text)); }, "parsed");
    expect_outcome([&] { return OctetsOf(StrToAddress<BigEndian>(whole)); }, "parsed from a string");
    expect_outcome([&] { return OctetsOf(IPAddress(text)); }, "constructed");
    expect_outcome([&] { return OctetsOf(IPAddress(whole)); }, "constructed from a string");
    ExpectAssigned(expected.text, text, "assigned");
    ExpectAssigned(expected.text, whole, "assigned from a string");
    if (expected.octets) {
        for (const Form& form : forms) {
            ExpectPrinted(*expected.octets, IPAddress(text), form);
        }
    }
    return 0;
}

// The lenient parser of dotted text: it never fails, and any text at all has the octets that an oracle gives it.

#include <TarnSocketIO/CIPString.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <string>

#include "support/ExactText.h"
#include "support/Expect.h"
#include "support/FieldTexts.h"
#include "support/Outcome.h"

namespace {

using TarnFuzz::Expect;
using TarnFuzz::Listed;
using TarnSocketIO::CIPString;

using Octets = std::array<unsigned char, 4>;

/// @param octets  those of the object before; the text may not reach them all.
Octets Oracle(Octets octets, const char* s) {
    std::size_t p = 0;
    for (std::size_t k = 0; k < 4; ++k) {
        char field[4] = {};
        std::size_t j = 0;
        bool stopped = false;
        std::size_t i = p;
        while (i <= std::strlen(s)) {
            const char c = s[i];
            if (c == '.' || c == '\0' || j == 3) {
                stopped = true;
                break;
            }
            field[j++] = c;
            ++i;
        }
        if (stopped) {
            p = i + 1;
            // NOLINTNEXTLINE(cert-err34-c): a field is what atoi makes of it, and text that is no number is 0
            octets[k] = static_cast<unsigned char>(std::atoi(field) & 0xff);
        }
    }
    return octets;
}

std::string Printed(const Octets& octets) {
    char text[16];
    std::snprintf(text, sizeof text, "%d.%d.%d.%d", octets[0], octets[1], octets[2], octets[3]);
    return text;
}

Octets OctetsOf(const CIPString& ip) {
    TarnSocketIO::_RAW_IP raw;
    ip.GetRawIP(raw);
    Octets octets;
    std::copy_n(raw.m_Octets, octets.size(), octets.begin());
    return octets;
}

Octets OctetsOf(const IPv4::IPAddress& ip) {
    Octets octets;
    std::copy_n(ip.OctetForm(), octets.size(), octets.begin());
    return octets;
}

int NumberOf(const Octets& octets) {
    std::uint32_t number = 0;
    for (const unsigned char octet : octets) {
        number = number * 256 + octet;
    }
    int value = 0;
    std::memcpy(&value, &number, sizeof value);
    return value;
}

void ExpectNumbers(const Octets& expected, const CIPString& ip, const char* where) {
    Expect(Listed(expected), Listed(OctetsOf(ip)), where);
    Expect(Listed(expected), Listed(OctetsOf(static_cast<IPv4::IPAddress>(ip))), where);
    Expect(std::to_string(NumberOf(expected)), std::to_string(static_cast<int>(ip)), where);
}

void ExpectAddress(const Octets& expected, const CIPString& ip, const char* where) {
    const std::string text = Printed(expected);
    ExpectNumbers(expected, ip, where);
    Expect(text, ip.c_str(), where);
    Expect(text, static_cast<const char*>(ip), where);
    ExpectNumbers(expected, ip, where);

    Expect(text, CIPString(ip).c_str(), "copied");
    Expect(Listed(expected), Listed(OctetsOf(CIPString(ip.c_str()))), "read back");
    Expect(Listed(expected), Listed(OctetsOf(IPv4::IPAddress(ip.c_str()))), "read back by the strict parser");
}

void ExpectDefaultObject(const CIPString& ip, const char* where) {
    ExpectNumbers({}, ip, where);
    Expect("", ip.c_str(), where);
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    constexpr TarnFuzz::TextShape shape{'.', 4, 10, 15};
    return TarnFuzz::FieldTexts(shape, seed).Mutate(data, size, max_size);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const TarnFuzz::ExactText exact(data, size);
    const char* const text = exact.c_str();
    // What its storage held before must not show in a new object.
    alignas(CIPString) unsigned char storage[sizeof(CIPString)];
    std::fill(std::begin(storage), std::end(storage), static_cast<unsigned char>(0xa5));
    ExpectAddress(Oracle({}, text), *new (storage) CIPString(text), "constructed");

    // The length of a string counts, with what is behind a NUL in it; its text ends at the NUL.
    const std::string whole(data, data + size);
    if (whole.length() < 7) {
        ExpectDefaultObject(CIPString(whole), "constructed from a short string");
    } else {
        ExpectAddress(Oracle({}, text), CIPString(whole), "constructed from a string");
    }

    const Octets before{192, 168, 5, 207};
    CIPString parsed(IPv4::IPAddress(before.data(), BigEndian));
    parsed.Parse(text);
    ExpectAddress(Oracle(before, text), parsed, "parsed");

    CIPString assigned(IPv4::IPAddress(before.data(), BigEndian));
    // Its text is made before: it must not be the text of what comes after.
    Expect(Printed(before), assigned.c_str(), "text before the assignment");
    assigned = text;
    ExpectAddress(Oracle(before, text), assigned, "assigned");
    assigned = IPv4::IPAddress(before.data(), BigEndian);
    Expect(Printed(before), assigned.c_str(), "assigned from an address");
    assigned = parsed;
    Expect(parsed.c_str(), assigned.c_str(), "assigned from its like");
    return 0;
}

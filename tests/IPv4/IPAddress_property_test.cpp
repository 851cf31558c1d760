#include <TarnSocketIO/IPv4/IPAddress.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ios>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <vector>

#include "tests/support/Random.h"

namespace {

using IPv4::IPAddress;
using IPv4::StrToAddress;
using TarnTest::Random;
using Octets = std::array<unsigned char, 4>;
using Manipulator = std::ios_base& (*)(std::ios_base&);

/// Both sides of each place where a digit is gained in some base, and the values addresses are full of.
constexpr unsigned char interesting[] = {0,   1,   7,   8,   9,   10,  15,  16,  63,  64,  99,
                                         100, 127, 128, 168, 192, 199, 200, 249, 250, 254, 255};

struct Base {
    Manipulator manipulator;
    const char* plain;     ///< how printf writes an octet in it
    const char* prefixed;  ///< the same with the prefix that makes the parser read it so
};

constexpr Base bases[] = {{std::dec, "%u", "%u"}, {std::hex, "%x", "0x%x"}, {std::oct, "%o", "0%o"}};

std::string Printed(const char* format, unsigned int octet) {
    char text[16];
    std::snprintf(text, sizeof text, format, octet);
    return text;
}

std::string Printed(const char* format, const Octets& octets) {
    return Printed(format, octets[0]) + '.' + Printed(format, octets[1]) + '.' + Printed(format, octets[2]) + '.' +
           Printed(format, octets[3]);
}

IPAddress AddressOf(const Octets& octets) {
    return {octets.data(), BigEndian};
}

/// Every value in every place, each pair of interesting values in each pair of places, and some at random.
std::vector<Octets> ManyOctets() {
    Random random(20240501);
    std::vector<Octets> all;
    for (unsigned int value = 0; value < 256; ++value) {
        for (std::size_t place = 0; place < 4; ++place) {
            all.push_back(random.Octets<4>());
            all.back().at(place) = static_cast<unsigned char>(value);
        }
    }
    for (std::size_t place = 0; place < 4; ++place) {
        for (std::size_t other = 0; other < place; ++other) {
            for (const unsigned char value : interesting) {
                for (const unsigned char beside : interesting) {
                    all.push_back(random.Octets<4>());
                    all.back().at(place) = value;
                    all.back().at(other) = beside;
                }
            }
        }
    }
    std::generate_n(std::back_inserter(all), 1000, [&] { return random.Octets<4>(); });
    return all;
}

// Round trips

TEST(IPAddressProperty, EveryTextOfInterestingOctetsParsesBack) {
    for (const Base& base : bases) {
        std::vector<std::string> fields;
        for (const unsigned char octet : interesting) {
            fields.push_back(Printed(base.prefixed, octet));
        }
        const std::size_t count = fields.size();
        for (std::size_t i = 0; i < count * count * count * count; ++i) {
            const std::size_t at[] = {i / count / count / count, i / count / count % count, i / count % count,
                                      i % count};
            const std::string text = fields[at[0]] + '.' + fields[at[1]] + '.' + fields[at[2]] + '.' + fields[at[3]];
            const Octets octets = {interesting[at[0]], interesting[at[1]], interesting[at[2]], interesting[at[3]]};
            unsigned int expected = 0;
            std::memcpy(&expected, octets.data(), sizeof expected);
            ASSERT_EQ(expected, StrToAddress<BigEndian>(text.c_str())) << text;
        }
    }
}

TEST(IPAddressProperty, EachFieldHasABaseOfItsOwn) {
    Random random(7);
    for (int round = 0; round < 5000; ++round) {
        const Octets octets = random.Octets<4>();
        std::string text;
        for (const unsigned char octet : octets) {
            text += Printed(bases[random.Below(3)].prefixed, octet) + '.';
        }
        text.pop_back();
        ASSERT_EQ(AddressOf(octets), IPAddress(text)) << text;
    }
}

TEST(IPAddressProperty, IsPrintedAsTheCLibraryPrintsItsOctets) {
    for (const Octets& octets : ManyOctets()) {
        const IPAddress ip = AddressOf(octets);
        for (const Base& base : bases) {
            const std::string expected = Printed(base.plain, octets);
            std::string text;
            ip.GetPresentation(text, base.manipulator);
            ASSERT_EQ(expected, text);
            char buffer[32];
            ip.GetPresentation(buffer, sizeof buffer, base.manipulator);
            ASSERT_STREQ(expected.c_str(), buffer);
            std::ostringstream stream;
            stream << base.manipulator << ip;
            ASSERT_EQ(expected, stream.str());
        }
    }
}

TEST(IPAddressProperty, DecimalTextIsTheSameAddressAgain) {
    for (const Octets& octets : ManyOctets()) {
        const IPAddress ip = AddressOf(octets);
        std::string text;
        ip.GetPresentation(text, std::dec);
        ASSERT_EQ(ip, IPAddress(text)) << text;
    }
}

// Order

std::uint32_t NumberOf(const Octets& octets) {
    return std::uint32_t{octets[0]} << 24 | std::uint32_t{octets[1]} << 16 | std::uint32_t{octets[2]} << 8 |
           std::uint32_t{octets[3]};
}

TEST(IPAddressProperty, OrderIsThatOfTheNumbers) {
    Random random(11);
    for (int round = 0; round < 20000; ++round) {
        const Octets left = random.Octets<4>();
        Octets right = random.Octets<4>();
        std::copy_n(left.begin(), random.Below(5), right.begin());  // often alike at first, or altogether
        const IPAddress a = AddressOf(left);
        const IPAddress b = AddressOf(right);
        SCOPED_TRACE(testing::PrintToString(std::make_pair(left, right)));
        ASSERT_EQ(NumberOf(left) < NumberOf(right), a < b);
        ASSERT_EQ(NumberOf(right) < NumberOf(left), b < a);
        ASSERT_EQ(NumberOf(left) == NumberOf(right), a == b);
        ASSERT_EQ(NumberOf(left) != NumberOf(right), a != b);
    }
}

// Random text, held against the parser written a second time

using Reading = std::pair<std::string, in_addr_t>;

const Reading bad_length = {"runtime_error: bad ip address string length", 0};
const Reading bad_text = {"runtime_error: bad ip address string", 0};
const Reading bad_field = {"range_error: bad ip address string field", 0};

/// Four pointers into a copy of the text, whose dots become ends of strings for strtol.
Reading ReadByStrtol(const char* text) {
    if (std::strcmp(text, "0") == 0) {
        return {"accepted", 0};
    }
    char copy[20];
    const std::size_t length = std::strlen(text);
    if (length < 7 || length > 19) {
        return bad_length;
    }
    std::memcpy(copy, text, length + 1);
    const char* fields[4] = {copy, nullptr, nullptr, nullptr};
    std::size_t count = 1;
    for (std::size_t i = 0; i <= 19 && copy[i] != '\0'; ++i) {
        if (copy[i] == '.') {
            if (count == 4) {
                return bad_text;
            }
            copy[i] = '\0';
            fields[count++] = copy + i + 1;
        }
    }
    if (count != 4) {
        return bad_text;
    }
    unsigned char octets[4];
    for (std::size_t i = 0; i < 4; ++i) {
        char* end = nullptr;
        const long value = std::strtol(fields[i], &end, 0);
        if (*end != '\0') {
            return bad_text;
        }
        if (value < 0 || value > 255) {
            return bad_field;
        }
        octets[i] = static_cast<unsigned char>(value);
    }
    Reading reading{"accepted", 0};
    std::memcpy(&reading.second, octets, sizeof octets);
    return reading;
}

Reading ReadByTheLibrary(const char* text) {
    try {
        return {"accepted", StrToAddress<BigEndian>(text)};
    } catch (const std::runtime_error& e) {
        const char* const name = typeid(e) == typeid(std::range_error)     ? "range_error: "
                                 : typeid(e) == typeid(std::runtime_error) ? "runtime_error: "
                                                                           : typeid(e).name();
        return {std::string(name) + e.what(), 0};
    }
}

// Without a b: a newer strtol reads 0b as a prefix.
constexpr std::string_view characters = "0123456789.+-xXaAcdEfFgG \t\n\v\f\r,_\x01\x7f\x80\xa0\xff";

std::string RandomField(Random& random) {
    std::string field;
    if (random.OneIn(8)) {
        field += random.OneOf(" \t\n\v\f\r");
    }
    if (random.OneIn(8)) {
        field += random.OneOf("+-");
    }
    if (!random.OneIn(16)) {
        field += Printed(bases[random.Below(3)].prefixed, random.Below(270));
    }
    return field;
}

/// Fields that are mostly good, then often damaged in one to three places.
std::string RandomAddress(Random& random) {
    std::string text = RandomField(random);
    for (unsigned int i = random.OneIn(16) ? random.Below(5) : 3; i > 0; --i) {
        text += '.' + RandomField(random);
    }
    for (unsigned int damage = random.Below(2) * (1 + random.Below(3)); damage > 0; --damage) {
        const std::size_t place = random.Below(static_cast<unsigned int>(text.size()) + 1);
        text.replace(place, random.Below(2), random.Below(4), random.OneOf(characters));
    }
    return text;
}

std::string RandomCharacters(Random& random) {
    return random.Text(random.OneIn(2) ? characters : characters.substr(0, 13), 0, 23);
}

TEST(IPAddressProperty, RandomTextIsReadAsByStrtol) {
    Random random(1234567);
    std::map<std::string, int> seen;
    for (int round = 0; round < 40000; ++round) {
        const std::string text = round % 4 == 0 ? RandomCharacters(random) : RandomAddress(random);
        const Reading expected = ReadByStrtol(text.c_str());
        ASSERT_EQ(expected, ReadByTheLibrary(text.c_str())) << testing::PrintToString(text);
        ++seen[expected.first];
    }
    for (const std::string& result : {std::string("accepted"), bad_length.first, bad_text.first, bad_field.first}) {
        EXPECT_GT(seen[result], 2000) << result;
    }
}

}  // namespace

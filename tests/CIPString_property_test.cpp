#include <TarnSocketIO/CIPString.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/Random.h"

namespace {

using TarnSocketIO::CIPString;
using TarnTest::Random;
using RawIP = TarnSocketIO::_RAW_IP;

using Octets = std::array<unsigned char, 4>;

/// Both sides of every change in the length of a number, and of the sign of a byte.
constexpr unsigned char interesting[] = {0, 1, 9, 10, 11, 99, 100, 127, 128, 199, 200, 249, 250, 254, 255};

RawIP Raw(const Octets& octets) {
    return {{octets[0], octets[1], octets[2], octets[3]}};
}

Octets OctetsOf(const CIPString& ip) {
    RawIP raw;
    ip.GetRawIP(raw);
    return {raw.m_Octets[0], raw.m_Octets[1], raw.m_Octets[2], raw.m_Octets[3]};
}

std::string Printed(const Octets& octets) {
    char text[16];
    std::snprintf(text, sizeof text, "%d.%d.%d.%d", octets[0], octets[1], octets[2], octets[3]);
    return text;
}

/// What a text makes of an address, field by field and character by character.
Octets Parsed(Octets octets, const char* s) {
    std::size_t p = 0;
    for (unsigned char& octet : octets) {
        char field[4] = {};
        std::size_t j = 0;
        std::size_t i = p;
        bool stopped = false;
        while (!stopped && i <= std::strlen(s)) {
            const char c = s[i];
            if (c == '.' || c == '\0' || j == 3) {
                stopped = true;
            } else {
                field[j++] = c;
                ++i;
            }
        }
        if (stopped) {
            p = i + 1;
            octet = static_cast<unsigned char>(std::atoi(field));  // NOLINT(cert-err34-c): it is what is meant here
        }
    }
    return octets;
}

void ExpectAsDescribed(const std::string& text, const Octets& before) {
    const Octets onto = Parsed(before, text.c_str());
    CIPString parsed(Raw(before));
    parsed.Parse(text.c_str());
    ASSERT_EQ(onto, OctetsOf(parsed)) << '"' << text << "\" onto " << Printed(before);
    ASSERT_EQ(Printed(onto), parsed.c_str()) << '"' << text << '"';
    const Octets fresh = Parsed({}, text.c_str());
    ASSERT_EQ(fresh, OctetsOf(CIPString(text.c_str()))) << '"' << text << '"';
    const CIPString made(text);
    ASSERT_EQ(text.size() < 7 ? Octets{} : fresh, OctetsOf(made)) << '"' << text << '"';
    ASSERT_EQ(text.size() < 7 ? "" : Printed(fresh), made.c_str()) << '"' << text << '"';
}

TEST(CIPStringProperty, RandomTextIsParsedAsDescribed) {
    const std::string alphabets[] = {
        "0123456789.",
        "0123456789...",
        "12.",
        "0123456789. +-",
        "0123456789.....  \t\n\v\f\r+-xXabef",
        "019.-+ \x80\xa0\xb9\xff",
        "abcdefghijklmnopqrstuvwxyz.0123456789",
        "",
    };
    Random random(20261);
    for (const std::string& alphabet : alphabets) {
        for (int i = 0; i < 5000; ++i) {
            ExpectAsDescribed(random.Text(alphabet, 0, 24), random.Octets<4>());
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

// Every text of up to six characters of these five: each way in which a field can begin, end and be cut.
TEST(CIPStringProperty, EveryShortTextIsParsedAsDescribed) {
    const std::string alphabet = "29.- ";
    Random random(20262);
    std::size_t texts = 1;
    for (std::size_t length = 0; length <= 6; ++length, texts *= alphabet.size()) {
        for (std::size_t number = 0; number < texts; ++number) {
            std::string text(length, '\0');
            std::size_t rest = number;
            for (char& c : text) {
                c = alphabet[rest % alphabet.size()];
                rest /= alphabet.size();
            }
            ExpectAsDescribed(text, random.Octets<4>());
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

TEST(CIPStringProperty, TextOfEveryLengthIsParsedInStepsOfFour) {
    static constexpr unsigned char ones[] = {0, 1, 11, 111};
    for (std::size_t length = 0; length <= 64; ++length) {
        SCOPED_TRACE(length);
        const std::string text(length, '1');
        Octets onto = {192, 168, 5, 7};
        Octets fresh = {};
        for (std::size_t k = 0; k < 4 && 4 * k <= length; ++k) {  // three digits and one skipped for each
            onto[k] = fresh[k] = ones[std::min<std::size_t>(length - 4 * k, 3)];
        }
        CIPString ip("192.168.5.7");
        ip.Parse(text.c_str());
        EXPECT_EQ(onto, OctetsOf(ip));
        EXPECT_EQ(fresh, OctetsOf(CIPString(text.c_str())));
        EXPECT_EQ(length < 7 ? Octets{} : fresh, OctetsOf(CIPString(text)));
    }
}

void ExpectRoundTrip(const Octets& octets) {
    const CIPString ip(Raw(octets));
    ASSERT_EQ(octets, OctetsOf(ip));
    const std::string text = ip.c_str();
    ASSERT_EQ(Printed(octets), text);
    ASSERT_EQ(octets, OctetsOf(CIPString(text.c_str())));
    ASSERT_EQ(octets, OctetsOf(CIPString(text)));
    const IPv4::IPAddress address = ip;
    ASSERT_TRUE(address == IPv4::IPAddress(octets[0], octets[1], octets[2], octets[3])) << text;
    ASSERT_EQ(octets, OctetsOf(CIPString(address)));
    ASSERT_TRUE(IPv4::IPAddress(text) == address) << text << " in the strict parser";
    const std::uint32_t number = octets[0] * 0x1000000U + octets[1] * 0x10000U + octets[2] * 0x100U + octets[3];
    ASSERT_EQ(number, static_cast<std::uint32_t>(static_cast<int>(ip))) << text;
}

TEST(CIPStringProperty, EveryFormOfAnAddressLeadsToEveryOther) {
    for (const unsigned char o1 : interesting) {
        for (const unsigned char o2 : interesting) {
            for (const unsigned char o3 : {interesting[0], interesting[2], interesting[6], interesting[14]}) {
                for (const unsigned char o4 : interesting) {
                    ExpectRoundTrip({o1, o2, o3, o4});
                    ExpectRoundTrip({o1, o3, o2, o4});
                    if (HasFatalFailure()) {
                        return;
                    }
                }
            }
        }
    }
}

TEST(CIPStringProperty, EveryOctetIsHeldInEveryPlace) {
    for (std::size_t place = 0; place < 4; ++place) {
        for (int value = 0; value < 256; ++value) {
            Octets octets = {7, 70, 170, 2};
            octets[place] = static_cast<unsigned char>(value);
            ExpectRoundTrip(octets);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

// The text of an object shows what it was when it was last made, whatever happened to the octets since.
TEST(CIPStringProperty, TextFollowsTheOctetsThroughRandomChanges) {
    Random random(20263);
    CIPString ip;
    const char* const text = ip.c_str();
    Octets octets = {};
    std::string shown;
    bool is_current = true;
    for (int i = 0; i < 20000; ++i) {
        const unsigned int step = random.Below(8);
        const Octets next = random.Octets<4>();
        const std::string parsed = random.Text("0123456789.-", 0, 16);
        const CIPString& itself = ip;
        switch (step) {
            case 0:
                ip.Parse(parsed.c_str());
                octets = Parsed(octets, parsed.c_str());
                break;
            case 1:
                ip = Raw(next);
                octets = next;
                break;
            case 2:
                ip = IPv4::IPAddress(next[0], next[1], next[2], next[3]);
                octets = next;
                break;
            case 3:
                ip = CIPString(parsed.c_str());
                octets = Parsed({}, parsed.c_str());
                break;
            case 4:
                ip.Parse(text);  // shows an older state, or this one
                octets = Parsed(octets, shown.c_str());
                break;
            case 5:
                ip = itself;
                break;
            default:
                ASSERT_EQ(text, ip.c_str());
                shown = is_current ? shown : Printed(octets);
                break;
        }
        is_current = step >= 6 || (step == 5 && is_current);
        ASSERT_EQ(octets, OctetsOf(ip)) << "step " << i << ", a " << step;
        ASSERT_EQ(shown, text) << "step " << i << ", a " << step;
    }
}

}  // namespace

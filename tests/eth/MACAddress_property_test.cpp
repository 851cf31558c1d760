#include <TarnSocketIO/eth/MACAddress.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <ios>
#include <locale>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>

#include "tests/support/Random.h"
#include "tests/support/Streams.h"

namespace {

using TarnSocketIO::MACAddress;
using TarnTest::Random;

using Octets = std::array<unsigned char, 6>;

/// What a text leads to: the octets afterwards, and the error if there was one.
struct Outcome {
    Octets octets;
    std::string error;
};

Octets OctetsOf(const MACAddress& mac) {
    Octets octets;
    std::copy_n(mac.OctetForm(), octets.size(), octets.begin());
    return octets;
}

/// The parser as it is described, step by step.
Outcome Expected(const Octets& before, const char* str) {
    if (std::strcmp(str, "0") == 0) {
        return {Octets{}, ""};
    }
    const std::size_t n = std::strlen(str);
    if (n < 11 || n > 17) {
        return {before, "incorrect length for MAC address string"};
    }
    char buffer[18];
    std::memcpy(buffer, str, n + 1);
    const char* fields[6] = {buffer};
    std::size_t count = 1;
    for (std::size_t i = 0; i < 18 && buffer[i] != '\0'; ++i) {
        if (buffer[i] == ':') {
            if (count == 6) {
                return {before, "bad formatted MAC address string"};
            }
            buffer[i] = '\0';
            fields[count++] = buffer + i + 1;
        }
    }
    if (count != 6) {
        return {before, "bad formatted MAC address string"};
    }
    Outcome outcome = {};
    for (std::size_t i = 0; i < 6; ++i) {
        char* end = nullptr;
        const long number = std::strtol(fields[i], &end, 16);
        if (*end != '\0') {
            return {before, "bad hex number found in MAC address string"};
        }
        outcome.octets[i] = static_cast<unsigned char>(number & 0xFF);
    }
    return outcome;
}

/// How many texts were accepted, and how many refused for each reason.
struct Count {
    int accepted = 0;
    int bad_length = 0;
    int bad_format = 0;
    int bad_number = 0;
};

void ExpectAsDescribed(const std::string& text, const Octets& before, Count& count) {
    const Outcome expected = Expected(before, text.c_str());
    MACAddress mac(before.data(), BigEndian);
    std::string error;
    try {
        mac.Set(text.c_str());
    } catch (const std::runtime_error& refused) {
        error = refused.what();
    }
    ASSERT_EQ(expected.error, error) << '"' << text << '"';
    ASSERT_EQ(expected.octets, OctetsOf(mac)) << '"' << text << '"';
    ++(error.empty()                               ? count.accepted
       : error.find("length") != std::string::npos ? count.bad_length
       : error.find("format") != std::string::npos ? count.bad_format
                                                   : count.bad_number);
}

TEST(MACAddressProperty, RandomTextIsParsedAsDescribed) {
    static constexpr std::string_view alphabets[] = {"0123456789abcdefABCDEF:::::::",
                                                     "01:",
                                                     "1:::",
                                                     "01fF:::: +-xX\t",
                                                     ":0123456789abcdefg \n\v\f\r+-xX",
                                                     ":1\xff\x80\xa0 ",
                                                     ""};
    Random random(4801);
    Count count;
    for (const std::string_view alphabet : alphabets) {
        for (int i = 0; i < 4000; ++i) {
            ExpectAsDescribed(random.Text(alphabet, 0, 20), random.Octets<6>(), count);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
    EXPECT_LT(100, count.accepted);
    EXPECT_LT(100, count.bad_length);
    EXPECT_LT(100, count.bad_format);
    EXPECT_LT(100, count.bad_number);
}

// Six fields of a few characters each, so that most texts get as far as their numbers.
TEST(MACAddressProperty, RandomFieldsAreParsedAsDescribed) {
    static constexpr std::string_view alphabets[] = {"0123456789abcdefABCDEF", "01xX", "01 -", "09aAfFgG +-xX\t\n"};
    Random random(4802);
    Count count;
    for (const std::string_view alphabet : alphabets) {
        for (int i = 0; i < 8000; ++i) {
            std::string text = random.Text(alphabet, 0, 3);
            for (unsigned int k = 1; k < 6; ++k) {
                text += ':' + random.Text(alphabet, k % 2, 3);
            }
            ExpectAsDescribed(text, random.Octets<6>(), count);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
    EXPECT_LT(1000, count.accepted);
    EXPECT_LT(1000, count.bad_number);
}

// One long number among empty fields, up to the twelve digits that a text has room for.
TEST(MACAddressProperty, RandomLongNumbersAreReadAsDescribed) {
    Random random(4803);
    Count count;
    for (int i = 0; i < 10000; ++i) {
        static constexpr std::string_view prefixes[] = {"", "-", "+", " ", "0x", "-0X"};
        std::string text(5, ':');
        const std::string_view prefix = prefixes[random.Below(6)];
        const auto longest = static_cast<unsigned int>(12 - prefix.size());
        const std::string number = std::string(prefix) + random.Text("0123456789abcdefABCDEF", longest - 5, longest);
        text.insert(random.Below(6), number);
        ExpectAsDescribed(text, random.Octets<6>(), count);
        if (HasFatalFailure()) {
            return;
        }
    }
    EXPECT_LT(5000, count.accepted);
}

std::string Formatted(const char* format, const Octets& o) {
    char text[40];
    std::snprintf(text, sizeof text, format, o[0], o[1], o[2], o[3], o[4], o[5]);
    return text;
}

void ExpectRoundTrip(const Octets& octets) {
    const MACAddress original(octets.data(), BigEndian);
    std::ostringstream hex;
    hex << std::hex << original;
    ASSERT_EQ(Formatted("%02X:%02X:%02X:%02X:%02X:%02X", octets), hex.str());
    std::ostringstream decimal;
    decimal << original;
    ASSERT_EQ(Formatted("%03u:%02u:%02u:%02u:%02u:%02u", octets), decimal.str());

    MACAddress parsed;
    parsed = hex.str().c_str();
    ASSERT_EQ(octets, OctetsOf(parsed));
    parsed = Formatted("%02x:%02x:%02x:%02x:%02x:%02x", octets).c_str();
    ASSERT_EQ(octets, OctetsOf(parsed));
    parsed = Formatted("%x:%x:%x:%x:%x:%x", octets).c_str();
    ASSERT_EQ(octets, OctetsOf(parsed));

    Octets backwards = octets;
    std::reverse(backwards.begin(), backwards.end());
    ASSERT_EQ(octets, OctetsOf(MACAddress(backwards.data(), LittleEndian)));
    parsed.SwapEndian();
    ASSERT_EQ(backwards, OctetsOf(parsed));
    parsed.Set(parsed.OctetForm(), LittleEndian);
    ASSERT_EQ(octets, OctetsOf(parsed));
}

TEST(MACAddressProperty, EveryOctetIsHeldInEveryPlace) {
    for (std::size_t place = 0; place < 6; ++place) {
        for (int value = 0; value < 256; ++value) {
            Octets octets = {0x09, 0x10, 0xA0, 0x7F, 0xC8, 0x63};
            octets[place] = static_cast<unsigned char>(value);
            ExpectRoundTrip(octets);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

TEST(MACAddressProperty, RandomAddressesReadWhatTheyWrite) {
    Random random(4804);
    for (int i = 0; i < 3000; ++i) {
        ExpectRoundTrip(random.Octets<6>());
        if (HasFatalFailure()) {
            return;
        }
    }
}

// Streams

/// The address as it is to be written, one octet after the other.
void WriteOctets(std::ostream& os, const Octets& octets) {
    if ((os.flags() & std::ios_base::hex) != 0) {
        os << std::uppercase << std::hex << std::setw(2) << std::setfill('0') << unsigned{octets[0]};
        for (std::size_t i = 1; i < octets.size(); ++i) {
            os << ":" << std::hex << std::setw(2) << std::setfill('0') << unsigned{octets[i]};
        }
    } else {
        os << std::setw(3) << std::setfill('0') << unsigned{octets[0]};
        for (std::size_t i = 1; i < octets.size(); ++i) {
            os << ":" << std::setw(2) << std::setfill('0') << unsigned{octets[i]};
        }
    }
}

/// What a stream may have been through before an address is written to it.
struct Setting {
    std::ios_base::fmtflags flags = std::ios_base::skipws | std::ios_base::dec;
    char fill = ' ';
    std::streamsize width = 0;
    std::ios_base::iostate state = std::ios_base::goodbit;
    bool has_marks = false;  // a locale that puts a mark behind every digit
};

/// What is written to a stream, and how it is left behind: text, flags, fill, width, precision, state.
using Written = std::tuple<std::string, std::ios_base::fmtflags, char, std::streamsize, std::streamsize, int>;

template <class Write>
Written WrittenBy(const Setting& setting, Write write, std::size_t room = 1000) {
    TarnTest::ShortBuffer buffer(room);
    std::ostream os(&buffer);
    os.imbue(setting.has_marks ? TarnTest::MarkedDigits() : std::locale::classic());
    os.flags(setting.flags);
    os.fill(setting.fill);
    os.width(setting.width);
    os.setstate(setting.state);
    write(os);
    return {buffer.Text(), os.flags(), os.fill(), os.width(), os.precision(), static_cast<int>(os.rdstate())};
}

void ExpectWrittenAsOctets(const Setting& setting, const Octets& octets) {
    const MACAddress mac(octets.data(), BigEndian);
    EXPECT_EQ(WrittenBy(setting, [&](std::ostream& os) { WriteOctets(os, octets); }),
              WrittenBy(setting, [&](std::ostream& os) { os << mac; }))
        << "flags " << setting.flags << ", fill " << setting.fill << ", width " << setting.width << ", state "
        << setting.state << (setting.has_marks ? ", with marks" : "");
}

constexpr Octets written[] = {
    {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, {9, 10, 99, 100, 7, 0x80}};

TEST(MACAddressProperty, IsWrittenToEveryStreamOctetByOctet) {
    using ios = std::ios_base;
    Setting setting;
    for (const ios::fmtflags base : {ios::fmtflags{}, ios::dec, ios::oct, ios::hex, ios::hex | ios::dec,
                                     ios::hex | ios::oct, ios::dec | ios::oct, ios::hex | ios::dec | ios::oct}) {
        for (const ios::fmtflags adjust :
             {ios::fmtflags{}, ios::left, ios::right, ios::internal, ios::left | ios::right}) {
            for (const ios::fmtflags sign : {ios::fmtflags{}, ios::showbase, ios::showpos, ios::uppercase,
                                             ios::showbase | ios::uppercase, ios::boolalpha | ios::unitbuf}) {
                for (const bool has_marks : {false, true}) {
                    setting.flags = base | adjust | sign;
                    setting.has_marks = has_marks;
                    for (const std::streamsize width : {0, 1, 20}) {
                        setting.width = width;
                        setting.fill = width == 20 ? '*' : ' ';
                        for (const Octets& octets : written) {
                            ExpectWrittenAsOctets(setting, octets);
                        }
                    }
                }
            }
        }
    }
}

// Flags and fill are set all the same; a width waits for a number that will not come.
TEST(MACAddressProperty, IsNotWrittenToAStreamThatHasFailed) {
    for (const std::ios_base::fmtflags base : {std::ios_base::dec, std::ios_base::hex, std::ios_base::oct}) {
        for (const std::ios_base::iostate state :
             {std::ios_base::failbit, std::ios_base::badbit, std::ios_base::eofbit}) {
            Setting setting;
            setting.flags = base;
            setting.state = state;
            Written expected = WrittenBy(setting, [](std::ostream& os) { WriteOctets(os, written[0]); });
            Written outcome = WrittenBy(setting, [](std::ostream& os) { os << MACAddress(); });
            EXPECT_EQ("", std::get<0>(outcome));
            std::get<3>(expected) = std::get<3>(outcome) = 0;
            EXPECT_EQ(expected, outcome);
        }
    }
}

// The rest of the state tells how the text was put together, once the buffer has failed.
TEST(MACAddressProperty, IsWrittenAsFarAsTheBufferTakesIt) {
    for (std::size_t room = 0; room <= 24; ++room) {
        for (const std::ios_base::fmtflags base : {std::ios_base::dec, std::ios_base::hex}) {
            Setting setting;
            setting.flags = base;
            const MACAddress mac(written[1].data(), BigEndian);
            const Written expected = WrittenBy(
                setting, [](std::ostream& os) { WriteOctets(os, written[1]); }, room);
            const Written outcome = WrittenBy(
                setting, [&](std::ostream& os) { os << mac; }, room);
            EXPECT_EQ(std::get<0>(expected), std::get<0>(outcome));
            EXPECT_EQ(std::get<5>(expected) & std::ios_base::badbit, std::get<5>(outcome) & std::ios_base::badbit);
        }
    }
}

}  // namespace

#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/ArpTables.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LibcAssertion.h"
#include "tests/support/Random.h"

namespace {

using TarnTest::AddressOctets;
using TarnTest::ArpMapping;
using TarnTest::ChildProcess;
using TarnTest::CountDifferences;
using TarnTest::HardwareOctets;
using TarnTest::Random;
using TarnTest::ReadByWords;
using TarnTest::RefusalBy;
using TarnTest::TableFile;
using TarnTest::TableReading;

constexpr std::string_view white_space = " \t\n\v\f\r";
constexpr std::string_view letters = "0123456789abcdefghijklmnopqrstuvwxyz*.:-<>";

std::string Printed(const char* format, unsigned int octet) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), format, octet);
    return text.data();
}

std::string Text(Random& random, const AddressOctets& address) {
    const std::array<const char*, 6> formats = {"%u", "%u", "%u", "0x%x", "0X%X", "0%o"};
    std::string text;
    for (const unsigned char octet : address) {
        text += Printed(formats.at(random.Below(6)), octet) + '.';
    }
    text.pop_back();
    return text;
}

std::string Text(Random& random, const HardwareOctets& hardware_address) {
    const std::array<const char*, 4> formats = {"%02x", "%02x", "%02X", "%x"};
    std::string text;
    for (const unsigned char octet : hardware_address) {
        text += Printed(formats.at(random.Below(4)), octet) + ':';
    }
    text.pop_back();
    return text;
}

std::string Space(Random& random) {
    return random.Text(white_space, 1, random.OneIn(50) ? 500 : 3);
}

std::string Word(Random& random) {
    return random.Text(letters, 1, random.OneIn(50) ? 2000 : 12);
}

std::string Line(Random& random, const AddressOctets& address, const HardwareOctets& hardware_address) {
    return Text(random, address) + Space(random) + Word(random) + Space(random) + Word(random) + Space(random) +
           Text(random, hardware_address) + Space(random) + Word(random) + Space(random) + Word(random);
}

std::string Header(Random& random) {
    return random.Text(letters, 0, 78) + '\n' + (random.OneIn(2) ? Space(random) : "");
}

/// A mapping of so many addresses, which are near each other now and then.
ArpMapping RandomMapping(Random& random, std::size_t size) {
    ArpMapping mapping;
    while (mapping.size() < size) {
        AddressOctets address = random.Octets<4>();
        if (!mapping.empty() && random.OneIn(2)) {
            address = mapping.rbegin()->first;
            address.at(random.Below(4)) = static_cast<unsigned char>(random.Below(256));
        }
        mapping.emplace(address, random.Octets<6>());
    }
    return mapping;
}

/// Its entries in any order.
std::string Table(Random& random, const ArpMapping& mapping) {
    std::vector<ArpMapping::const_iterator> order;
    for (auto entry = mapping.begin(); entry != mapping.end(); ++entry) {
        order.push_back(entry);
    }
    for (std::size_t i = order.size(); i > 1; --i) {
        std::swap(order[i - 1], order[random.Below(static_cast<unsigned int>(i))]);
    }
    std::string text = Header(random);
    for (std::size_t i = 0; i < order.size(); ++i) {
        text += i > 0 ? Space(random) : "";
        text += Line(random, order[i]->first, order[i]->second);
    }
    return text + (random.OneIn(2) ? Space(random) : "");
}

TEST(ARPFileReaderProperty, KnowsWhatStandsInATableOfAnyOrderAndLayout) {
    Random random(20240501);
    std::vector<std::size_t> sizes = {0, 1, 2, 3, 1000, 2999, 3000};
    for (int i = 0; i < 60; ++i) {
        sizes.push_back(random.Below(i % 10 == 0 ? 1000 : 30));
    }
    TableFile file;
    ARPFileReader reader(file.Name().c_str());
    for (const std::size_t size : sizes) {
        const ArpMapping mapping = RandomMapping(random, size);
        file.Write(Table(random, mapping));
        ASSERT_EQ("", RefusalBy(reader)) << size;
        ASSERT_EQ(0U, CountDifferences(reader, mapping)) << size;
    }
}

TEST(ARPFileReaderProperty, KnowsNothingOfTheTablesBefore) {
    Random random(7);
    TableFile file;
    ARPFileReader reader(file.Name().c_str());
    ArpMapping before;
    for (int round = 0; round < 50; ++round) {
        ArpMapping mapping = RandomMapping(random, random.Below(40));
        for (const auto& [address, hardware_address] : before) {
            if (random.OneIn(2)) {
                mapping.emplace(address, random.OneIn(2) ? hardware_address : random.Octets<6>());
            }
        }
        file.Write(Table(random, mapping));
        ASSERT_EQ("", RefusalBy(reader));
        ASSERT_EQ(0U, CountDifferences(reader, mapping));
        for (auto& [address, hardware_address] : before) {
            const auto entry = mapping.find(address);
            hardware_address = entry != mapping.end() ? entry->second : HardwareOctets{};
            ASSERT_EQ(hardware_address,
                      TarnTest::OctetsOf(reader.GetCachedMACAddress(IPv4::IPAddress(address.data(), BigEndian))));
        }
        before = mapping;
    }
}

// --- damaged tables ---

void Damage(Random& random, std::string& text) {
    const auto place = [&] { return random.Below(static_cast<unsigned int>(text.size()) + 1); };
    const std::size_t at = place();
    switch (random.Below(8)) {
        case 0:
            text.replace(at, 1, 1, static_cast<char>(random.Below(256)));
            break;
        case 1:
            text.replace(at, random.Below(3), random.Below(3), random.OneOf("0123456789abcdefx.:+- \t\n\r*"));
            break;
        case 2:
            text.resize(at);
            break;
        case 3:
            text.erase(at, random.Below(60));
            break;
        case 4:
            text.insert(at, text.substr(place(), random.Below(80)));
            break;
        case 5:
        case 6:
            // Behind a number of an address, mostly.
            text.insert(std::min(text.find_first_of(".:", at), text.size()), random.OneIn(2) ? "99" : "g");
            break;
        default:
            text.insert(at, random.Below(40), random.OneOf(std::string_view("\0 \n1h", 5)));
            break;
    }
}

/// A line twice, written in two ways.
void Repeat(Random& random, std::string& text, const ArpMapping& mapping) {
    if (!mapping.empty()) {
        text += ' ' + Line(random, mapping.begin()->first, random.Octets<6>());
    }
}

/// Puts white space behind the header, so that a stream takes the rest in two pieces.
void MoveToBoundary(Random& random, std::string& text) {
    const std::size_t header_end = text.find('\n');
    if (header_end != std::string::npos) {
        const std::size_t rest = text.size() - header_end;
        text.insert(
            header_end + 1,
            std::max<std::size_t>(header_end + rest, 8191) - header_end - random.Below(static_cast<unsigned int>(rest)),
            ' ');
    }
}

TEST(ARPFileReaderProperty, ReadsADamagedTableWordByWord) {
    Random random(1234567);
    TableFile file;
    ARPFileReader reader(file.Name().c_str());
    std::map<std::string, int> seen;
    int deaths = 0;
    for (int round = 0; round < 6000; ++round) {
        const ArpMapping mapping = RandomMapping(random, random.Below(6));
        std::string text = Table(random, mapping);
        if (random.OneIn(16)) {
            Repeat(random, text, mapping);
        }
        for (unsigned int damages = random.Below(4); damages > 0; --damages) {
            Damage(random, text);
        }
        if (random.OneIn(2)) {
            MoveToBoundary(random, text);
        }
        file.Write(text);
        const TableReading expected = ReadByWords(file.Name());
        ++seen[expected.aborts ? "aborts" : expected.refusal];
        if (!expected.aborts) {
            ASSERT_EQ(expected.refusal, RefusalBy(reader)) << testing::PrintToString(text);
            ASSERT_EQ(0U, CountDifferences(reader, expected.entries)) << testing::PrintToString(text);
        } else if (deaths < 10) {
            ++deaths;
            ChildProcess child([&] { RefusalBy(reader); });
            EXPECT_EQ(SIGABRT, child.EndingSignal()) << testing::PrintToString(text);
            EXPECT_THAT(child.Errors(), testing::HasSubstr("m_IPARPEntryMap.find(tblentry.m_IPAddress)"));
        }
    }
    EXPECT_EQ(10, deaths);
    EXPECT_EQ(8U, seen.size()) << "good, an address twice, and the three texts that each parser refuses with";
    for (const auto& [result, count] : seen) {
        EXPECT_GT(count, 20) << result;
    }
}

// --- tables that are cut where the system gives the next piece of a file ---

// What streams take from a file at a time, and pages.
constexpr std::array<std::size_t, 5> boundaries = {8191, 8192, 65528, 65536, 131072};

const std::string first_line = "10.0.0.1 0x1 0x2 02:00:00:00:00:01 * eth0";
const std::string second_line = "10.0.0.2\t0x1  0x2 02:00:00:00:00:02 * eth1";
const std::string both_lines = "header\n" + first_line + "\n" + second_line;
const ArpMapping two_entries = {{{10, 0, 0, 1}, {2, 0, 0, 0, 0, 1}}, {{10, 0, 0, 2}, {2, 0, 0, 0, 0, 2}}};

TEST(ARPFileReaderPieces, MayEndInAnyWordOrSeparator) {
    TableFile file;
    ARPFileReader reader(file.Name().c_str());
    for (const std::size_t boundary : boundaries) {
        for (const char filling : {' ', '\n', 'x'}) {
            for (std::size_t cut = 0; cut <= second_line.size() + 4; ++cut) {
                std::string text = "header\n" + first_line;
                text.resize(boundary + 2 - cut, filling);  // behind the device, or more of its name
                text += "\r\n" + second_line + "\n";
                file.Write(text);
                ASSERT_EQ("", RefusalBy(reader)) << boundary << ", " << cut;
                ASSERT_EQ(0U, CountDifferences(reader, two_entries)) << boundary << ", " << cut;
            }
        }
    }
}

TEST(ARPFileReaderPieces, MayEndWhereTheTableDoes) {
    TableFile file;
    ARPFileReader reader(file.Name().c_str());
    for (const std::size_t boundary : boundaries) {
        for (std::size_t size = boundary - 3; size <= boundary + 3; ++size) {
            for (const char filling : {' ', '\n', '\0', 'x'}) {
                std::string text = both_lines;
                text.resize(size, filling);
                file.Write(text);
                ASSERT_EQ("", RefusalBy(reader)) << size;
                ASSERT_EQ(0U, CountDifferences(reader, two_entries)) << size;

                text = "header\n" + first_line;
                text.resize(size - second_line.size(), filling == ' ' ? '\n' : ' ');
                text += second_line;
                file.Write(text);
                ASSERT_EQ("", RefusalBy(reader)) << size;
                ASSERT_EQ(0U, CountDifferences(reader, two_entries)) << size;
            }
        }
    }
}

TEST(ARPFileReaderPieces, MayEndInAnEntryThatIsNotWhole) {
    TableFile file;
    ARPFileReader reader(file.Name().c_str());
    const std::size_t begin_of_device = second_line.find("eth1");
    for (const std::size_t boundary : boundaries) {
        for (std::size_t length = 0; length <= second_line.size(); ++length) {
            std::string text = "header\n" + first_line;
            text.resize(boundary - length, ' ');
            text += second_line.substr(0, length);
            file.Write(text);
            ArpMapping expected = two_entries;
            if (length <= begin_of_device) {
                expected.erase({10, 0, 0, 2});
            }
            ASSERT_EQ("", RefusalBy(reader)) << boundary << ", " << length;
            ASSERT_EQ(0U, CountDifferences(reader, expected)) << boundary << ", " << length;
        }
    }
}

TEST(ARPFileReaderPieces, TakeTurnsWithLinesOfEveryLength) {
    std::string text = "header\n";
    ArpMapping mapping;
    for (unsigned int i = 0; i < 5000; ++i) {
        const AddressOctets address = {10, 0, static_cast<unsigned char>(i / 256), static_cast<unsigned char>(i % 256)};
        const HardwareOctets hardware_address = {2, 0, 0, 0, address[2], address[3]};
        mapping.emplace(address, hardware_address);
        text += "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256) +
                " 0x1 0x2 2:0:0:0:" + Printed("%x", address[2]) + ":" + Printed("%02x", address[3]) + " * " +
                std::string(1 + i % 97, 'd') + "\n";
    }
    const TableFile file(text);
    ARPFileReader reader(file.Name().c_str());
    ASSERT_EQ("", RefusalBy(reader));
    EXPECT_EQ(0U, CountDifferences(reader, mapping));
}

}  // namespace

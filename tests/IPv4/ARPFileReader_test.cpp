#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/ArpTables.h"
#include "tests/support/Resources.h"

namespace {

using IPv4::IPAddress;
using TarnTest::arp_header;
using TarnTest::ArpLine;
using TarnTest::CountOpenDescriptors;
using TarnTest::Known;
using TarnTest::not_known;
using TarnTest::TableFile;

const IPAddress first(192, 168, 1, 1);
const IPAddress second(192, 168, 1, 20);
constexpr const char* first_mac = "00:11:22:33:44:55";
constexpr const char* second_mac = "aa:bb:cc:dd:ee:ff";

const std::string two_entries = arp_header + ArpLine("192.168.1.1", first_mac) + ArpLine("192.168.1.20", second_mac);

static_assert(!std::is_convertible_v<const char*, ARPFileReader>);

/// Reads a table of this text and expects the two entries, and nothing around them.
void ExpectTwoEntries(const std::string& text) {
    const TableFile file(text);
    ARPFileReader reader(file.Name().c_str());
    reader.CacheFileContent();
    EXPECT_EQ(first_mac, Known(reader, first)) << text;
    EXPECT_EQ(second_mac, Known(reader, second)) << text;
    EXPECT_EQ(not_known, Known(reader, IPAddress(192, 168, 1, 2))) << text;
    EXPECT_EQ(not_known, Known(reader, IPAddress())) << text;
}

/// The two entries' words with this between them.
std::string SeparatedBy(const std::string& separator) {
    std::string text;
    for (const char* const word :
         {"192.168.1.1", "0x1", "0x2", first_mac, "*", "eth0", "192.168.1.20", "0x1", "0x2", second_mac, "*", "eth1"}) {
        text += word + separator;
    }
    return text;
}

TEST(ARPFileReader, NamesTheKernelsTable) {
    EXPECT_STREQ("/proc/net/arp", ARPFileReader::DEFAULT_ARP_FILE);
}

TEST(ARPFileReader, AnEntryBeginsAsZeros) {
    const ARPFileReader::ARPTableLineEntry entry;
    EXPECT_EQ(IPAddress(), entry.m_IPAddress);
    EXPECT_EQ(TarnTest::HardwareOctets{}, TarnTest::OctetsOf(entry.m_HWAddress));
}

TEST(ARPFileReader, KnowsNothingBeforeItHasRead) {
    const std::size_t descriptors = CountOpenDescriptors();
    const TableFile file(two_entries);
    const ARPFileReader reader(file.Name().c_str());
    EXPECT_EQ(not_known, Known(reader, first));
    EXPECT_EQ(descriptors + 1, CountOpenDescriptors());
    const ARPFileReader default_reader;
    EXPECT_EQ(not_known, Known(default_reader, first));
    EXPECT_EQ(descriptors + 1, CountOpenDescriptors());
}

TEST(ARPFileReader, NeedsNoFileUntilItReads) {
    const ARPFileReader reader("/no/such/file");
    EXPECT_EQ(not_known, Known(reader, first));
    ARPFileReader other(nullptr);
    other.Set("/no/such/file");
    EXPECT_EQ(not_known, Known(other, first));
}

TEST(ARPFileReader, ReadsTheKernelsTable) {
    ExpectTwoEntries(two_entries);
}

TEST(ARPFileReader, ReadsALastLineWithoutItsEnd) {
    ExpectTwoEntries(two_entries.substr(0, two_entries.size() - 1));
}

TEST(ARPFileReader, LeavesALastLineOutThatIsShort) {
    for (const char* const rest : {"192.168.1.2", "192.168.1.2 0x1 0x2 02:02:02:02:02:02 *", "no address", " \n\t\n"}) {
        ExpectTwoEntries(two_entries + rest);
        ExpectTwoEntries(two_entries + rest + "\n");
    }
}

TEST(ARPFileReader, TakesAnyWhiteSpaceBetweenWords) {
    for (const char* const separator : {" ", "\t", "\n", "\v", "\f", "\r", "\r\n", " \t\n\v\f\r", "\n\n\n"}) {
        ExpectTwoEntries("header\n" + SeparatedBy(separator));
        ExpectTwoEntries("header\n" + (separator + SeparatedBy(separator)));
    }
    ExpectTwoEntries("header\n" + SeparatedBy(std::string(100000, ' ')));
    ExpectTwoEntries("header\n" + SeparatedBy(std::string(70000, '\n')));
}

TEST(ARPFileReader, ReadsLinesThatEndAsOnOtherSystems) {
    std::string text;
    for (const char c : "header\n" + two_entries.substr(arp_header.size())) {
        text += c == '\n' ? "\r\n" : std::string(1, c);
    }
    ExpectTwoEntries(text);
}

TEST(ARPFileReader, DiscardsTheOtherFourWords) {
    ExpectTwoEntries(
        "header\n192.168.1.1 ether incomplete 00:11:22:33:44:55 192.168.1.300 192.168.1.2\n192.168.1.20 0 " +
        std::string("0x0 ") + second_mac + " - aa:bb\n");
}

TEST(ARPFileReader, KnowsAnEntryThatIsNotResolved) {
    const TableFile file(arp_header + "10.0.0.1 0x1 0x0 00:00:00:00:00:00 * eth0\n" + ArpLine("10.0.0.2", first_mac));
    ARPFileReader reader(file.Name().c_str());
    reader.CacheFileContent();
    EXPECT_EQ(not_known, Known(reader, IPAddress(10, 0, 0, 1)));
    EXPECT_EQ(first_mac, Known(reader, IPAddress(10, 0, 0, 2)));
}

TEST(ARPFileReader, TakesAddressesInEachNotationOfTheParser) {
    const struct {
        const char* text;
        IPAddress address;
    } cases[] = {
        {"0x0a.0XFF.0x1.0x63", {10, 255, 1, 99}},
        {"010.1.1.1", {8, 1, 1, 1}},
        {"10.20..3", {10, 20, 0, 3}},
        {"-0.1.2.3", {0, 1, 2, 3}},
        {"+1.+2.+3.+4", {1, 2, 3, 4}},
        {"0", {0, 0, 0, 0}},
        {"0000010.000.00.0377", {8, 0, 0, 255}},
        {"255.0xff.0377.1", {255, 255, 255, 1}},
    };
    for (const auto& [text, address] : cases) {
        const TableFile file("header\n" + ArpLine(text, second_mac));
        ARPFileReader reader(file.Name().c_str());
        reader.CacheFileContent();
        EXPECT_EQ(second_mac, Known(reader, address)) << text;
    }
}

TEST(ARPFileReader, TakesHardwareAddressesInEachNotationOfTheirs) {
    const struct {
        const char* text;
        const char* expected;
    } cases[] = {
        {"AA:BB:cc:DD:ee:FF", second_mac},        {"1:2:3:4:5:6", "01:02:03:04:05:06"},
        {"100:1:2:3:4:5", "00:01:02:03:04:05"},   {"0x1:2:3:4:5:0x6", "01:02:03:04:05:06"},
        {"-1:2:3:4:5:66", "ff:02:03:04:05:66"},   {"0", not_known},
        {"aa::cc:dd:ee:ff", "aa:00:cc:dd:ee:ff"},
    };
    for (const auto& [text, expected] : cases) {
        const TableFile file("header\n" + ArpLine("10.0.0.1", text));
        ARPFileReader reader(file.Name().c_str());
        reader.CacheFileContent();
        EXPECT_EQ(expected, Known(reader, IPAddress(10, 0, 0, 1))) << text;
    }
}

// --- reading again ---

TEST(ARPFileReader, ReadsTheSameTableTwice) {
    const TableFile file(two_entries);
    ARPFileReader reader(file.Name().c_str());
    for (int i = 0; i < 3; ++i) {
        reader.CacheFileContent();
        EXPECT_EQ(first_mac, Known(reader, first));
        EXPECT_EQ(second_mac, Known(reader, second));
    }
}

TEST(ARPFileReader, LeavesNoFileOpen) {
    const TableFile file(two_entries);
    const std::size_t descriptors = CountOpenDescriptors();
    ARPFileReader reader(file.Name().c_str());
    for (int i = 0; i < 300; ++i) {
        reader.CacheFileContent();
        ASSERT_EQ(descriptors, CountOpenDescriptors());
    }
}

TEST(ARPFileReader, KnowsWhatHasBeenReadLast) {
    TableFile file(two_entries);
    ARPFileReader reader(file.Name().c_str());
    reader.CacheFileContent();

    const std::string more = two_entries + ArpLine("10.0.0.1", "02:00:00:00:00:01");
    file.Write(more);
    EXPECT_EQ(not_known, Known(reader, IPAddress(10, 0, 0, 1))) << "a look-up does not read";
    reader.CacheFileContent();
    EXPECT_EQ("02:00:00:00:00:01", Known(reader, IPAddress(10, 0, 0, 1)));
    EXPECT_EQ(first_mac, Known(reader, first));

    file.Write(arp_header + ArpLine("192.168.1.1", second_mac));
    EXPECT_EQ(first_mac, Known(reader, first)) << "a look-up does not read";
    reader.CacheFileContent();
    EXPECT_EQ(second_mac, Known(reader, first));
    EXPECT_EQ(not_known, Known(reader, second));
    EXPECT_EQ(not_known, Known(reader, IPAddress(10, 0, 0, 1)));

    file.Write(arp_header + ArpLine("192.168.1.20", first_mac) + ArpLine("192.168.1.1", second_mac));
    reader.CacheFileContent();
    EXPECT_EQ(second_mac, Known(reader, first));
    EXPECT_EQ(first_mac, Known(reader, second));
}

TEST(ARPFileReader, KnowsNothingAnyMoreWhenTheTableIsEmpty) {
    for (const std::string& nothing : {std::string(), arp_header, arp_header.substr(0, arp_header.size() - 1)}) {
        TableFile file(two_entries);
        ARPFileReader reader(file.Name().c_str());
        reader.CacheFileContent();
        file.Write(nothing);
        reader.CacheFileContent();
        EXPECT_EQ(not_known, Known(reader, first)) << nothing;
        EXPECT_EQ(not_known, Known(reader, second)) << nothing;
        file.Write(two_entries);
        reader.CacheFileContent();
        EXPECT_EQ(first_mac, Known(reader, first)) << nothing;
        EXPECT_EQ(second_mac, Known(reader, second)) << nothing;
    }
}

TEST(ARPFileReader, SetKeepsWhatIsKnownUntilTheNextReading) {
    const TableFile file(two_entries);
    const TableFile other(arp_header + ArpLine("10.0.0.1", "02:00:00:00:00:01"));
    ARPFileReader reader(file.Name().c_str());
    reader.CacheFileContent();
    for (const char* const name : {"/no/such/file", "", other.Name().c_str()}) {
        reader.Set(name);
        EXPECT_EQ(first_mac, Known(reader, first));
        EXPECT_EQ(second_mac, Known(reader, second));
        EXPECT_EQ(not_known, Known(reader, IPAddress(10, 0, 0, 1)));
    }
    reader.CacheFileContent();
    EXPECT_EQ(not_known, Known(reader, first));
    EXPECT_EQ("02:00:00:00:00:01", Known(reader, IPAddress(10, 0, 0, 1)));
}

TEST(ARPFileReader, CopiesTheNameOfTheFile) {
    const TableFile file(two_entries);
    std::string name = file.Name();
    ARPFileReader reader(name.c_str());
    ARPFileReader other(nullptr);
    other.Set(name.c_str());
    std::fill(name.begin(), name.end(), 'x');
    reader.CacheFileContent();
    EXPECT_EQ(first_mac, Known(reader, first));
    other.CacheFileContent();
    EXPECT_EQ(first_mac, Known(other, first));
}

TEST(ARPFileReader, ReadersKnowWhatTheyHaveReadThemselves) {
    TableFile file(two_entries);
    ARPFileReader reader(file.Name().c_str());
    reader.CacheFileContent();
    file.Write(arp_header + ArpLine("192.168.1.1", second_mac));
    ARPFileReader other(file.Name().c_str());
    other.CacheFileContent();
    EXPECT_EQ(first_mac, Known(reader, first));
    EXPECT_EQ(second_mac, Known(other, first));
    EXPECT_EQ(not_known, Known(other, second));
}

// --- threads ---

TEST(ARPFileReader, AnswersSeveralThreads) {
    constexpr unsigned int entries = 250;
    std::string text = arp_header;
    for (unsigned int i = 0; i < entries; ++i) {
        text += ArpLine("10.0.1." + std::to_string(i), "2:0:0:0:0:" + std::string(1, "0123456789abcdef"[i % 16]));
    }
    const TableFile file(text);
    ARPFileReader reader(file.Name().c_str());
    reader.CacheFileContent();
    std::atomic<unsigned int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&right, &constant = std::as_const(reader)] {
            for (unsigned int last = 0; last < 256; ++last) {
                const std::string expected =
                    last < entries ? "02:00:00:00:00:0" + std::string(1, "0123456789abcdef"[last % 16]) : not_known;
                const IPAddress ip(10, 0, 1, static_cast<unsigned char>(last));
                right += Known(constant, ip) == expected ? 1 : 0;
            }
        });
    }
    std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
    EXPECT_EQ(4U * 256, right);
}

}  // namespace

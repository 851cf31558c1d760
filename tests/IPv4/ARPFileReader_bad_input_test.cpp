// What becomes of a table that is not one: too long, cut, malformed, or with an address twice.

#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "tests/support/ArpTables.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LibcAssertion.h"
#include "tests/support/Random.h"
#include "tests/support/Resources.h"

namespace {

using IPv4::IPAddress;
using TarnTest::arp_header;
using TarnTest::ArpLine;
using TarnTest::ChildProcess;
using TarnTest::CountOpenDescriptors;
using TarnTest::Known;
using TarnTest::not_known;
using TarnTest::RefusalBy;
using TarnTest::SaysThat;
using TarnTest::TableFile;

constexpr TarnTest::LibcAssertion stands_twice = {
    "libraries/TarnSocketIO/IPv4/ARPFileReader.cpp", 71, "void ARPFileReader::CacheFileContent()",
    "m_IPARPEntryMap.find(tblentry.m_IPAddress) == m_IPARPEntryMap.end()"};

constexpr const char* mac = "00:11:22:33:44:55";
const IPAddress ip(10, 0, 0, 1);
const IPAddress later_ip(10, 0, 0, 2);
const std::string entry = ArpLine("10.0.0.1", mac);
const std::string later_entry = ArpLine("10.0.0.2", mac);

template <class Refusal>
std::string RefusalOf(const char* text) {
    return std::string(typeid(Refusal).name()) + ": " + text;
}

/// A reader that has read a table once, of which nothing must be left after the next one.
class UsedReader {
public:
    UsedReader() : m_reader(m_file.Name().c_str()) { m_reader.CacheFileContent(); }

    /// Reads a table of this text. @return what is thrown.
    std::string Read(const std::string& text) {
        m_file.Write(text);
        return RefusalBy(m_reader);
    }

    std::string Known(IPAddress address) const { return TarnTest::Known(m_reader, address); }

    /// Whether the next table that is good is read as such.
    bool IsStillGood() {
        return Read(arp_header + ArpLine("10.9.9.8", "02:00:00:00:00:08")).empty() &&
               Known(IPAddress(10, 9, 9, 8)) == "02:00:00:00:00:08" && Known(IPAddress(10, 9, 9, 9)) == not_known &&
               Known(ip) == not_known && Known(later_ip) == not_known;
    }

    ~UsedReader() {
        EXPECT_EQ(not_known, Known(IPAddress(10, 9, 9, 9)));
        EXPECT_TRUE(IsStillGood());
    }
    UsedReader(const UsedReader&) = delete;
    UsedReader& operator=(const UsedReader&) = delete;

private:
    TableFile m_file{arp_header + ArpLine("10.9.9.9", "02:00:00:00:00:09")};
    ARPFileReader m_reader;
};

// --- the header ---

TEST(ARPFileReaderHeader, HasUpToSeventyEightCharacters) {
    for (const std::size_t length : {0U, 1U, 2U, 77U, 78U}) {
        UsedReader reader;
        EXPECT_EQ("", reader.Read(std::string(length, 'h') + "\n" + entry));
        EXPECT_EQ(mac, reader.Known(ip)) << length;
        EXPECT_EQ("", reader.Read(std::string(length, '\0') + "\n" + entry));
        EXPECT_EQ(mac, reader.Known(ip)) << length;
    }
}

TEST(ARPFileReaderHeader, NothingIsReadBehindALongerOne) {
    for (const std::size_t length : {79U, 80U, 81U, 158U, 8191U, 8192U, 65535U, 65536U, 65537U, 100000U}) {
        UsedReader reader;
        EXPECT_EQ("", reader.Read(std::string(length, 'h') + "\n" + entry)) << length;
        EXPECT_EQ(not_known, reader.Known(ip)) << length;
        EXPECT_EQ("", reader.Read(std::string(length, ' ') + "\n" + entry + "no address in here at all\n")) << length;
        EXPECT_EQ(not_known, reader.Known(ip)) << length;
    }
}

TEST(ARPFileReaderHeader, OfTheKernelHasNoRoomForAnotherCharacter) {
    UsedReader reader;
    const std::string header = arp_header.substr(0, arp_header.size() - 1);
    EXPECT_EQ("", reader.Read(header + "\n" + entry));
    EXPECT_EQ(mac, reader.Known(ip));
    EXPECT_EQ("", reader.Read(header + "\r\n" + entry));
    EXPECT_EQ(not_known, reader.Known(ip));
}

TEST(ARPFileReaderHeader, IsTheFirstLineWhateverItSays) {
    UsedReader reader;
    EXPECT_EQ("", reader.Read(entry + later_entry));
    EXPECT_EQ(not_known, reader.Known(ip));
    EXPECT_EQ(mac, reader.Known(later_ip));
    EXPECT_EQ("", reader.Read("\r" + entry + later_entry));
    EXPECT_EQ(not_known, reader.Known(ip));
    EXPECT_EQ(mac, reader.Known(later_ip));
}

TEST(ARPFileReaderHeader, MayBeAllThatThereIs) {
    for (const std::size_t length : {0U, 1U, 77U, 78U, 79U, 80U, 100000U}) {
        UsedReader reader;
        EXPECT_EQ("", reader.Read(std::string(length, 'h')));
        EXPECT_EQ("", reader.Read(std::string(length, 'h') + "\n"));
        EXPECT_EQ(not_known, reader.Known(IPAddress())) << length;
    }
}

// --- cut and overlong ---

TEST(ARPFileReaderCutTable, HasTheEntriesWhoseLastWordHasBegun) {
    const std::string text = arp_header + entry + later_entry;
    const std::size_t first_device = arp_header.size() + entry.find("eth0");
    const std::size_t second_device = arp_header.size() + entry.size() + later_entry.find("eth0");
    UsedReader reader;
    for (std::size_t length = 0; length <= text.size(); ++length) {
        ASSERT_EQ("", reader.Read(text.substr(0, length))) << length;
        ASSERT_EQ(length > first_device ? mac : not_known, reader.Known(ip)) << length;
        ASSERT_EQ(length > second_device ? mac : not_known, reader.Known(later_ip)) << length;
    }
}

/// Two good entries with one between them that has `word` in a column.
std::string TableWith(std::size_t column, const std::string& word) {
    std::array<std::string, 6> words = {"10.0.0.3", "0x1", "0x2", "02:00:00:00:00:03", "*", "eth0"};
    words.at(column) = word;
    std::string text = arp_header + entry;
    for (const std::string& each : words) {
        text += each + ' ';
    }
    return text + "\n" + later_entry;
}

std::string LengthRefusal(std::size_t column) {
    return RefusalOf<std::runtime_error>(column == 0 ? "bad ip address string length"
                                                     : "incorrect length for MAC address string");
}

TEST(ARPFileReaderLongWord, IsAWordOfUpToAMillionCharacters) {
    for (const std::size_t length : {26U, 31U, 32U, 33U, 1000U, 65536U, 100000U, 999999U, 1000000U}) {
        for (std::size_t column = 0; column < 6; ++column) {
            SCOPED_TRACE(testing::Message() << length << " characters in column " << column);
            const bool is_discarded = column != 0 && column != 3;
            UsedReader reader;
            EXPECT_EQ(is_discarded ? "" : LengthRefusal(column),
                      reader.Read(TableWith(column, std::string(length, '1'))));
            EXPECT_EQ(mac, reader.Known(ip));
            EXPECT_EQ(is_discarded ? "02:00:00:00:00:03" : not_known, reader.Known(IPAddress(10, 0, 0, 3)));
            EXPECT_EQ(is_discarded ? mac : not_known, reader.Known(later_ip));
        }
    }
}

TEST(ARPFileReaderLongWord, EndsReadingWhereItIsLonger) {
    for (const std::size_t length : {1000001U, 1000002U, 1050000U, 3000000U}) {
        for (std::size_t column = 0; column < 6; ++column) {
            SCOPED_TRACE(testing::Message() << length << " characters in column " << column);
            UsedReader reader;
            EXPECT_EQ("", reader.Read(TableWith(column, std::string(length, '1'))));
            EXPECT_EQ(mac, reader.Known(ip));
            EXPECT_EQ(not_known, reader.Known(IPAddress(10, 0, 0, 3)));
            EXPECT_EQ(not_known, reader.Known(later_ip));
        }
    }
}

TEST(ARPFileReaderLongWord, DoesNotBecomeAnAddressByBeingCut) {
    UsedReader reader;
    const std::string zeros_behind = std::string("10.0.0.4") + std::string(1000, '\0');
    EXPECT_EQ("", reader.Read(TableWith(0, zeros_behind))) << "a text ends at its first zero byte";
    EXPECT_EQ("02:00:00:00:00:03", reader.Known(IPAddress(10, 0, 0, 4)));
    EXPECT_EQ(LengthRefusal(0), reader.Read(TableWith(0, "0.0.0." + std::string(30, '0'))));
    EXPECT_EQ(LengthRefusal(3), reader.Read(TableWith(3, "0:0:0:0:0:" + std::string(30, '0'))));
}

// --- malformed words ---

TEST(ARPFileReaderMalformed, AddressIsRefusedAsByItsParser) {
    const struct {
        const char* word;
        std::string refusal;
    } cases[] = {
        {"256.1.1.1", RefusalOf<std::range_error>("bad ip address string field")},
        {"1.2.3.-1", RefusalOf<std::range_error>("bad ip address string field")},
        {"1.2.3.0400", RefusalOf<std::range_error>("bad ip address string field")},
        {"1.2.3.4x", RefusalOf<std::runtime_error>("bad ip address string")},
        {"1.2.3.4:5", RefusalOf<std::runtime_error>("bad ip address string")},
        {"1.2.3.1234", RefusalOf<std::range_error>("bad ip address string field")},
        {"1.2.3.08", RefusalOf<std::runtime_error>("bad ip address string")},
        {"1.2.3.4.5", RefusalOf<std::runtime_error>("bad ip address string")},
        {"100.2.3", RefusalOf<std::runtime_error>("bad ip address string")},
        {"1.2.3", RefusalOf<std::runtime_error>("bad ip address string length")},
        {"00", RefusalOf<std::runtime_error>("bad ip address string length")},
        {"?", RefusalOf<std::runtime_error>("bad ip address string length")},
        {"10.10.10.00000000010", RefusalOf<std::runtime_error>("bad ip address string length")},
    };
    for (const auto& [word, refusal] : cases) {
        UsedReader reader;
        EXPECT_EQ(refusal, reader.Read(TableWith(0, word))) << word;
        EXPECT_EQ(mac, reader.Known(ip)) << word;
        EXPECT_EQ(not_known, reader.Known(later_ip)) << word;
    }
}

TEST(ARPFileReaderMalformed, AddressIsRefusedThatRunsIntoTheNextColumn) {
    UsedReader reader;
    EXPECT_EQ(RefusalOf<std::runtime_error>("bad ip address string"),
              reader.Read(arp_header + entry + "10.0.0.1:0x1 0x2 00:11:22:33:44:55 * eth0\n" + later_entry));
    EXPECT_EQ(not_known, reader.Known(later_ip));
}

TEST(ARPFileReaderMalformed, LineOfAnInterfaceWithoutHardwareAddressesIsRefused) {
    // As the kernel writes it: blanks in the place of the hardware address.
    const std::string tunnel = "10.9.0.2         0xfffe      0x4                           *        tun0\n";
    UsedReader reader;
    EXPECT_EQ(RefusalOf<std::runtime_error>("incorrect length for MAC address string"),
              reader.Read(arp_header + entry + tunnel + later_entry));
    EXPECT_EQ(mac, reader.Known(ip));
    EXPECT_EQ(not_known, reader.Known(later_ip));
    EXPECT_EQ("", reader.Read(arp_header + entry + tunnel)) << "a last line that is short";
}

TEST(ARPFileReaderMalformed, HardwareAddressIsRefusedAsByItsParser) {
    const struct {
        const char* word;
        const char* text;
    } cases[] = {
        {"0g:11:22:33:44:55", "bad hex number found in MAC address string"},
        {"1:2:3:4:5:6:7", "bad formatted MAC address string"},
        {"11:22:33:44:55", "bad formatted MAC address string"},
        {"1:2:3:4:5", "incorrect length for MAC address string"},
        {"aa:bb:cc:dd:ee:ff:", "incorrect length for MAC address string"},
        {"*", "incorrect length for MAC address string"},
        {"<incomplete>", "bad formatted MAC address string"},
    };
    for (const auto& [word, text] : cases) {
        UsedReader reader;
        EXPECT_EQ(RefusalOf<std::runtime_error>(text), reader.Read(TableWith(3, word))) << word;
        EXPECT_EQ(mac, reader.Known(ip)) << word;
        EXPECT_EQ(not_known, reader.Known(IPAddress(10, 0, 0, 3))) << word;
        EXPECT_EQ(not_known, reader.Known(later_ip)) << word;
    }
}

TEST(ARPFileReaderMalformed, AddressIsRefusedBeforeTheHardwareAddress) {
    UsedReader reader;
    EXPECT_EQ(RefusalOf<std::range_error>("bad ip address string field"), reader.Read("\n1.1.1.256 0 0 bad * eth0"));
    EXPECT_EQ("", reader.Read("\n1.1.1.256 0 0 bad *\n")) << "not an entry";
}

TEST(ARPFileReaderMalformed, TableStaysOpenUntilItIsReadAgain) {
    TableFile file(TableWith(0, "1.2.3"));
    const std::size_t descriptors = CountOpenDescriptors();
    {
        ARPFileReader reader(file.Name().c_str());
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(LengthRefusal(0), RefusalBy(reader));
            EXPECT_EQ(descriptors + 1, CountOpenDescriptors());
        }
        file.Write(arp_header + later_entry);
        EXPECT_EQ("", RefusalBy(reader));
        EXPECT_EQ(descriptors, CountOpenDescriptors());
        EXPECT_EQ(mac, Known(reader, later_ip));
        EXPECT_EQ(not_known, Known(reader, ip));
        file.Write(TableWith(3, "1.2.3"));
        EXPECT_EQ(LengthRefusal(3), RefusalBy(reader));
        EXPECT_EQ(descriptors + 1, CountOpenDescriptors());
    }
    EXPECT_EQ(descriptors, CountOpenDescriptors());
}

TEST(ARPFileReaderMalformed, BinaryDataIsReadAsWords) {
    TarnTest::Random random(20240607);
    std::size_t refused = 0;
    for (int round = 0; round < 300; ++round) {
        std::string bytes = arp_header + entry;
        for (unsigned int i = random.Below(1000); i > 0; --i) {
            bytes += static_cast<char>(random.OneIn(4) ? 0 : random.Below(256));
        }
        const TableFile file(bytes);
        const TarnTest::TableReading expected = TarnTest::ReadByWords(file.Name());
        ASSERT_FALSE(expected.aborts);
        ARPFileReader reader(file.Name().c_str());
        ASSERT_EQ(expected.refusal, RefusalBy(reader));
        ASSERT_EQ(mac, Known(reader, ip));
        refused += expected.refusal.empty() ? 0 : 1;
    }
    EXPECT_GT(refused, 100U);
}

// --- an address twice ---

/// Expects that reading the table ends the process.
void ExpectDeath(const std::string& name) {
    ChildProcess child([&] {
        ARPFileReader reader(name.c_str());
        RefusalBy(reader);
    });
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_EQ("", child.Output());
    EXPECT_THAT(child.Errors(), SaysThat(stands_twice));
}

TEST(ARPFileReaderDuplicate, EndsTheProcess) {
    const struct {
        const char* address;
        const char* same;
    } cases[] = {
        {"10.0.0.1", "10.0.0.1"}, {"10.0.0.1", "0xa.0.0.0x1"}, {"012.0.0.1", "10.0.0.1"}, {"10.0.0.1", "10.0..1"},
        {"0", "0.0.0.0"},         {"+10.0.0.1", "10.0.0.01"},
    };
    for (const auto& [address, same] : cases) {
        for (const char* const other_mac : {mac, "02:00:00:00:00:01"}) {
            std::string text = arp_header;
            for (const std::string& line :
                 {ArpLine(address, mac), later_entry, ArpLine(same, other_mac), ArpLine("10.0.0.3", mac)}) {
                text += line;
            }
            const TableFile file(text);
            ExpectDeath(file.Name());
        }
    }
}

TEST(ARPFileReaderDuplicate, EndsTheProcessWhicheverOctetOfAnAddressBetweenDiffers) {
    for (const char* const other : {"11.0.0.1", "10.1.0.1", "10.0.1.1", "10.0.0.2", "9.0.0.1", "10.0.0.0"}) {
        const TableFile between(arp_header + ArpLine("10.0.0.1", mac) + ArpLine(other, mac) + ArpLine("10.0.0.1", mac));
        ExpectDeath(between.Name());
        const TableFile before(arp_header + ArpLine(other, mac) + ArpLine("10.0.0.1", mac) + ArpLine(other, mac));
        ExpectDeath(before.Name());
    }
}

TEST(ARPFileReaderDuplicate, EndsTheProcessBeforeAMalformedLineBehindIt) {
    const TableFile file(arp_header + entry + entry + ArpLine("1.2.3", mac));
    ExpectDeath(file.Name());
}

TEST(ARPFileReaderDuplicate, BehindWhatIsRefusedIsNotReached) {
    UsedReader reader;
    EXPECT_EQ(LengthRefusal(0), reader.Read(arp_header + entry + ArpLine("1.2.3", mac) + entry));
    EXPECT_EQ(LengthRefusal(3), reader.Read(arp_header + entry + ArpLine("10.0.0.1", "1")));
    EXPECT_EQ("", reader.Read(arp_header + entry + "10.0.0.1 0x1 0x2 00:11:22:33:44:55 *\n"));
    EXPECT_EQ(mac, reader.Known(ip));
}

}  // namespace

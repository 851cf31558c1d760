// What the reader of ARP tables does when memory runs out.

#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <string>

#include "tests/support/ArpTables.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/Resources.h"

namespace {

using IPv4::IPAddress;
using TarnTest::ArpLine;
using TarnTest::Call;
using TarnTest::CountOpenDescriptors;
using TarnTest::FailingCalls;
using TarnTest::Known;
using TarnTest::not_known;
using TarnTest::TableFile;

constexpr unsigned int entries = 40;

std::string HardwareAddressOf(unsigned int i) {
    return "02:00:00:00:00:" + std::to_string(10 + i);
}

std::string Table() {
    std::string text = "header\n";
    for (unsigned int i = 0; i < entries; ++i) {
        text += ArpLine("10.0.0." + std::to_string(i), HardwareAddressOf(i));
    }
    return text;
}

/// How many entries are known. Each must be as it stands in the table.
unsigned int CountKnown(const ARPFileReader& reader) {
    unsigned int known = 0;
    for (unsigned int i = 0; i < entries; ++i) {
        const std::string found = Known(reader, IPAddress(10, 0, 0, static_cast<unsigned char>(i)));
        known += found != not_known ? 1 : 0;
        EXPECT_TRUE(found == not_known || found == HardwareAddressOf(i)) << found;
    }
    return known;
}

const std::string table_before = "header\n" + ArpLine("10.0.0.5", "02:02:02:02:02:05") +
                                 ArpLine("10.0.1.5", "02:02:02:02:02:06") + ArpLine("1.0.0.5", "02:02:02:02:02:07");

bool KnowsTheTableBefore(const ARPFileReader& reader) {
    return Known(reader, IPAddress(10, 0, 0, 5)) == "02:02:02:02:02:05" &&
           Known(reader, IPAddress(10, 0, 1, 5)) == "02:02:02:02:02:06" &&
           Known(reader, IPAddress(1, 0, 0, 5)) == "02:02:02:02:02:07";
}

TEST(ARPFileReaderMemoryFault, IsThrownAndForgottenByTheNextReading) {
    const TableFile file(Table());
    const TableFile file_before(table_before);
    const std::size_t descriptors = CountOpenDescriptors();
    int failures = 0;
    int failures_to_open = 0;
    bool has_failed = true;
    for (int passing = 0; has_failed && passing < 1000; ++passing) {
        const int blocks = TarnTest::CountBlocks();
        {
            ARPFileReader reader(file_before.Name().c_str());
            reader.CacheFileContent();
            reader.Set(file.Name().c_str());
            {
                const FailingCalls out_of_memory(Call::Allocate, 0, 1, passing);
                try {
                    reader.CacheFileContent();
                } catch (const std::bad_alloc&) {
                    ++failures;
                }
                has_failed = out_of_memory.Failed() == 1;
            }
            if (KnowsTheTableBefore(reader)) {
                EXPECT_TRUE(has_failed) << "the file has not even been opened";
                ++failures_to_open;
            } else {
                EXPECT_EQ(has_failed, CountKnown(reader) < entries) << passing;
                EXPECT_EQ(not_known, Known(reader, IPAddress(1, 0, 0, 5))) << passing;
                EXPECT_EQ(not_known, Known(reader, IPAddress(10, 0, 1, 5))) << passing;
            }
            reader.CacheFileContent();
            EXPECT_EQ(entries, CountKnown(reader)) << passing;
            EXPECT_EQ(descriptors, CountOpenDescriptors()) << passing;
        }
        EXPECT_EQ(blocks, TarnTest::CountBlocks()) << passing;
    }
    EXPECT_FALSE(has_failed);
    EXPECT_GT(failures, 20) << "entries need memory";
    EXPECT_LE(failures_to_open, 3);
}

}  // namespace

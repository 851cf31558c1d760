// Addresses are read and compared on hot paths of small devices: without a call for memory.

#include <TarnSocketIO/CIPString.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <ios>
#include <new>

#include "tests/support/FailingCalls.h"

using IPv4::IPAddress;
using TarnSocketIO::CIPString;
using TarnSocketIO::MACAddress;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::FailingCalls;

namespace {

constexpr const char* accepted[] = {"192.168.1.20",      "0", " 1.2.3.4", "0x0a.010.+1.", "000.000.000.000",
                                    "0x0ff.0x0f.0x00.01"};

TEST(AddressAllocation, StrictParserNeedsNone) {
    IPAddress assigned;
    const CallWatch allocations(Call::Allocate);
    for (const char* const text : accepted) {
        assigned = text;
        const IPAddress made(text);
        EXPECT_EQ(made, assigned) << text;
    }
    EXPECT_EQ(0, allocations.Count());
}

TEST(AddressAllocation, LenientParserAndItsTextNeedNone) {
    CIPString parsed;
    const CallWatch allocations(Call::Allocate);
    for (const char* const text : {"192.168.1.20", "", " 12.+3.-1.1a", "1234567890123456789012345678901234567890"}) {
        parsed = text;
        EXPECT_STRNE("", parsed.c_str());
    }
    EXPECT_EQ(0, allocations.Count());
}

TEST(AddressAllocation, HardwareAddressParserNeedsNone) {
    MACAddress address;
    const CallWatch allocations(Call::Allocate);
    for (const char* const text : {"00:1a:2b:3c:4d:5e", "0", "::::: 0x0ffff", "1:2:3:4:5:6", "ffffffffffff:::::"}) {
        address = text;
    }
    EXPECT_EQ(0, allocations.Count());
}

TEST(AddressAllocation, ComparisonAndBuffersNeedNone) {
    const IPAddress left(10, 0, 0, 1);
    const IPAddress right(10, 0, 0, 2);
    char buffer[20];
    const CallWatch allocations(Call::Allocate);
    EXPECT_TRUE(left < right);
    EXPECT_FALSE(left == right);
    EXPECT_TRUE(left != right);
    left.GetPresentation(buffer, sizeof buffer, std::dec);
    left.GetPresentation(buffer, sizeof buffer, std::hex);
    left.GetPresentation(buffer, sizeof buffer, std::oct);
    EXPECT_EQ(0, allocations.Count());
}

// The text of a refusal lies in memory of its own. Where there is none, the refusal says so and loses nothing.
TEST(AddressAllocation, RefusalWithoutMemoryLeavesTheAddress) {
    IPAddress address(10, 0, 0, 1);
    const FailingCalls no_memory(Call::Allocate, ENOMEM, 100);
    EXPECT_THROW(address = "1.2.3.400", std::bad_alloc);
    EXPECT_EQ(IPAddress(10, 0, 0, 1), address);
}

}  // namespace

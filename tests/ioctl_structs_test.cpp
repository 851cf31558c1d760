#include <TarnSocketIO/ioctl_structs.h>
#include <gmock/gmock.h>
#include <net/if.h>
#include <netinet/in.h>

#include <array>
#include <climits>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/InterfaceRecords.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::IfConf;
using TarnSocketIO::IfFlagsReq;
using TarnSocketIO::IfReq;
using TarnTest::WithAddress;
using TarnTest::WithFlags;

const std::string no_ipv4_address = "IPAddress(const struct sockaddr& addr) addr is not IPv4\n";

static_assert(std::is_base_of_v<ifreq, IfReq>);
static_assert(std::is_base_of_v<IfReq, IfFlagsReq>);
static_assert(std::is_base_of_v<ifconf, IfConf>);
static_assert(std::is_convertible_v<IfReq*, ifreq*>);
static_assert(std::is_convertible_v<IfConf*, ifconf*>);
static_assert(sizeof(IfReq) == sizeof(ifreq));
static_assert(alignof(IfReq) == alignof(ifreq));
static_assert(sizeof(IfFlagsReq) == sizeof(ifreq));
static_assert(alignof(IfFlagsReq) == alignof(ifreq));
static_assert(sizeof(IfConf) == sizeof(ifconf));
static_assert(alignof(IfConf) == alignof(ifconf));
static_assert(std::is_standard_layout_v<IfReq>);
static_assert(std::is_trivially_copyable_v<IfReq>);
static_assert(std::is_standard_layout_v<IfFlagsReq>);
static_assert(std::is_trivially_copyable_v<IfFlagsReq>);
static_assert(std::is_standard_layout_v<IfConf>);
static_assert(std::is_trivially_copyable_v<IfConf>);
static_assert(std::is_same_v<int, IfReq::ErrorType>);
static_assert(std::is_same_v<int, IfFlagsReq::ErrorType>);
static_assert(std::is_same_v<short, decltype(IfReq("").GetFlags())>);
static_assert(IFNAMSIZ == 16);

std::string NameOf(const char* name) {
    return IfReq(name).GetIfName();
}

/// The bytes of the record behind its name.
std::string UnionOf(const IfReq& record) {
    return {reinterpret_cast<const char*>(&record.ifr_ifru), sizeof record.ifr_ifru};
}

std::string NameFieldOf(const IfReq& record) {
    return {record.ifr_name, sizeof record.ifr_name};
}

/// A record whose every byte has been set.
IfReq FullRecord() {
    IfReq record("");
    std::memset(static_cast<void*>(&record), 0xEE, sizeof record);
    return record;
}

template <class Read>
void ExpectNoAddress(Read read) {
    try {
        read();
        ADD_FAILURE() << "an address has been read";
    } catch (const std::logic_error& error) {
        EXPECT_EQ(no_ipv4_address, error.what());
    }
}

// --- names ---

TEST(IfReq, HasTheNameThatItIsMadeWith) {
    EXPECT_EQ("eth0", NameOf("eth0"));
    EXPECT_EQ("eth0:1", NameOf("eth0:1"));
    EXPECT_EQ("a", NameOf("a"));
}

TEST(IfReq, AnEmptyOrMissingNameIsEmpty) {
    EXPECT_EQ("", NameOf(""));
    EXPECT_EQ("", NameOf(nullptr));
    IfReq record("eth0");
    record.SetIfName(nullptr);
    EXPECT_STREQ("", record.GetIfName());
    record.Init("eth1");
    record.Init(nullptr);
    EXPECT_STREQ("", record.GetIfName());
}

TEST(IfReq, ANameOfFifteenCharactersFits) {
    EXPECT_EQ("abcdefghijklm:1", NameOf("abcdefghijklm:1"));
}

TEST(IfReq, ALongerNameIsCutToFifteenCharacters) {
    EXPECT_EQ("abcdefghijklmno", NameOf("abcdefghijklmnop"));
    EXPECT_EQ(std::string(15, 'x'), NameOf(std::string(100, 'x').c_str()));
    IfReq record = FullRecord();
    record.SetIfName("abcdefghijklmnop");
    EXPECT_STREQ("abcdefghijklmno", record.ifr_name);
}

TEST(IfReq, ANameIsTextAndNoFormat) {
    EXPECT_EQ("%s%n%d%100x", NameOf("%s%n%d%100x"));
}

TEST(IfReq, NameIsThatOfTheRecordItself) {
    const IfReq record("eth0");
    EXPECT_EQ(record.ifr_name, record.GetIfName());
}

TEST(IfReq, ANameMayBeTheRecordsOwn) {
    IfReq request("abcdefghijklmno");
    request.SetIfName(request.GetIfName() + 11);
    EXPECT_STREQ("lmno", request.GetIfName());
    request.SetAddress(IPAddress(192, 0, 2, 1));
    request.Init(request.GetIfName());
    EXPECT_STREQ("lmno", request.GetIfName());
    EXPECT_EQ(0, request.GetFlags());
}

TEST(IfReq, TheLastByteOfANameIsZero) {
    for (const char* const name : {"", "a", "abcdefghijklmno", "abcdefghijklmnop"}) {
        IfReq request("");
        request.ifr_name[IFNAMSIZ - 1] = 'x';
        request.SetIfName(name);
        EXPECT_EQ('\0', request.ifr_name[IFNAMSIZ - 1]) << name;
    }
}

TEST(IfReq, ALongNameLeavesTheAddressBehindItAlone) {
    IfReq record = FullRecord();
    record.SetIfName(std::string(100, 'x').c_str());
    EXPECT_EQ(std::string(sizeof record.ifr_ifru, '\xEE'), UnionOf(record));
}

// What comes from the stack or from an earlier use is no business of the kernel's.
TEST(IfReq, IsZeroBehindTheNameThatItIsMadeWith) {
    alignas(IfReq) std::array<unsigned char, sizeof(IfReq)> memory;
    memory.fill(0xEE);
    const IfReq& record = *new (memory.data()) IfReq("eth0");
    EXPECT_EQ(std::string("eth0") + std::string(12, '\0'), NameFieldOf(record));
    EXPECT_EQ(std::string(sizeof record.ifr_ifru, '\0'), UnionOf(record));
}

TEST(IfReq, InitMakesTheNameEmptyAndLeavesTheRestOfIt) {
    IfReq record("abcdefghijklmno");
    record.SetAddress(IPAddress(255, 255, 255, 255));
    record.Init();
    EXPECT_STREQ("", record.GetIfName());
    EXPECT_EQ(std::string(1, '\0') + "bcdefghijklmno" + std::string(1, '\0'), NameFieldOf(record));
    EXPECT_EQ(std::string(sizeof record.ifr_ifru, '\0'), UnionOf(record));
}

TEST(IfReq, InitFillsAddressAndFlagsWithZeros) {
    IfReq record = FullRecord();
    record.Init();
    EXPECT_EQ(std::string(1, '\0') + std::string(15, '\xEE'), NameFieldOf(record));
    EXPECT_EQ(std::string(sizeof record.ifr_ifru, '\0'), UnionOf(record));
    EXPECT_EQ(0, record.GetFlags());
}

TEST(IfReq, InitWithANameFillsAddressAndFlagsWithZerosToo) {
    IfReq record = FullRecord();
    record.Init("eth0:1");
    EXPECT_STREQ("eth0:1", record.GetIfName());
    EXPECT_EQ(std::string(sizeof record.ifr_ifru, '\0'), UnionOf(record));
}

TEST(IfReq, AShorterNameReplacesALongerOne) {
    IfReq record("abcdefghijklmno");
    record.SetIfName("lo");
    EXPECT_STREQ("lo", record.GetIfName());
}

// --- addresses ---

class IfReqSetter : public testing::TestWithParam<void (IfReq::*)(IPAddress)> {};

TEST_P(IfReqSetter, WritesAnAddressThatAllThreeReadersRead) {
    for (const IPAddress address : {IPAddress(10, 1, 2, 3), IPAddress(0, 0, 0, 0), IPAddress(255, 254, 253, 252)}) {
        IfReq record("eth0");
        (record.*GetParam())(address);
        EXPECT_EQ(address, record.GetAddress());
        EXPECT_EQ(address, record.GetBcastAddress());
        EXPECT_EQ(address, record.GetDestinationAddress());
        EXPECT_EQ(2, record.GetFlags());
        EXPECT_STREQ("eth0", record.GetIfName());
    }
}

TEST_P(IfReqSetter, WritesTheWholeAddressRecord) {
    IfReq record = FullRecord();
    (record.*GetParam())(IPAddress(192, 0, 2, 7));
    sockaddr_in written{};
    std::memcpy(&written, &record.ifr_addr, sizeof written);
    EXPECT_EQ(AF_INET, written.sin_family);
    EXPECT_EQ(0, written.sin_port);
    EXPECT_EQ(IPAddress(192, 0, 2, 7), IPAddress(written.sin_addr));
    EXPECT_EQ(std::string(sizeof written.sin_zero, '\0'),
              std::string(std::begin(written.sin_zero), std::end(written.sin_zero)));
}

TEST_P(IfReqSetter, ReplacesFlagsAndAnEarlierAddress) {
    IfReq record = WithFlags("eth0", -1);
    (record.*GetParam())(IPAddress(1, 2, 3, 4));
    (record.*GetParam())(IPAddress(5, 6, 7, 8));
    EXPECT_EQ(IPAddress(5, 6, 7, 8), record.GetAddress());
    EXPECT_TRUE(record.IsBroadcast()) << "as the address family reads";
    EXPECT_FALSE(record.IsUp() || record.IsMultcast() || record.IsLoopback() || record.IsRunning());
}

INSTANTIATE_TEST_SUITE_P(Both, IfReqSetter, testing::Values(&IfReq::SetAddress, &IfReq::SetBcastAddress),
                         [](const auto& setter) { return setter.index == 0 ? "SetAddress" : "SetBcastAddress"; });

TEST(IfReq, AnAddressOfAnotherFamilyIsNotRead) {
    for (const int family : {AF_UNSPEC, AF_UNIX, AF_INET6, IFF_UP | IFF_BROADCAST | IFF_RUNNING, 0xFFFF}) {
        SCOPED_TRACE(family);
        IfReq record = WithAddress("eth0", IPAddress(192, 0, 2, 1));
        record.ifr_addr.sa_family = static_cast<sa_family_t>(family);
        ExpectNoAddress([&] { record.GetAddress(); });
        ExpectNoAddress([&] { record.GetBcastAddress(); });
        ExpectNoAddress([&] { record.GetDestinationAddress(); });
    }
}

TEST(IfReq, FlagsThatLookLikeTheFamilyReadAsNoAddressAtAll) {
    const IfReq record = WithFlags("eth0", 2);
    EXPECT_EQ(IPAddress(), record.GetAddress());
    EXPECT_EQ(IPAddress(), record.GetBcastAddress());
    EXPECT_EQ(IPAddress(), record.GetDestinationAddress());
}

// --- flags ---

TEST(IfReq, FlagsAreTheWordInTheRecord) {
    for (const int flags : {0, 1, 0x1043, 0x7FFF, -1, -32768}) {
        EXPECT_EQ(flags, WithFlags("eth0", flags).GetFlags());
    }
}

TEST(IfReq, EachFlagIsReadFromItsOwnBitAlone) {
    for (unsigned int bit = 0; bit < 16; ++bit) {
        const int flag = 1 << bit;
        SCOPED_TRACE(flag);
        const IfReq alone = WithFlags("eth0", flag);
        EXPECT_EQ(flag == 0x1, alone.IsUp());
        EXPECT_EQ(flag == 0x2, alone.IsBroadcast());
        EXPECT_EQ(flag == 0x1000, alone.IsMultcast());
        EXPECT_EQ(flag == 0x8, alone.IsLoopback());
        EXPECT_EQ(flag == 0x40, alone.IsRunning());

        const IfReq all_but_one = WithFlags("eth0", ~flag);
        EXPECT_EQ(flag != 0x1, all_but_one.IsUp());
        EXPECT_EQ(flag != 0x2, all_but_one.IsBroadcast());
        EXPECT_EQ(flag != 0x1000, all_but_one.IsMultcast());
        EXPECT_EQ(flag != 0x8, all_but_one.IsLoopback());
        EXPECT_EQ(flag != 0x40, all_but_one.IsRunning());
    }
}

TEST(IfReq, HasNothingToCheck) {
    const IfReq record = WithFlags("", -1);
    record.Invariant();
    const IfFlagsReq flags("eth0");
    flags.Invariant();
    std::array<ifreq, 2> records{};
    const IfConf list(records.data(), 2);
    list.invariant();
}

// --- arrays ---

TEST(IfReq, AnArrayOfRecordsIsOneOfTheKernels) {
    std::vector<IfReq> records(3, IfReq("eth0"));
    ifreq* const kernels = records.data();
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(static_cast<const void*>(kernels + i), static_cast<const void*>(&records[i]));
        std::strcpy(kernels[i].ifr_name, ("lo:" + std::to_string(i)).c_str());
    }
    EXPECT_STREQ("lo:0", records[0].GetIfName());
    EXPECT_STREQ("lo:2", records[2].GetIfName());
}

TEST(IfConf, HasTheArrayAndItsLengthInBytes) {
    std::vector<IfReq> records(10, IfReq(""));
    for (const unsigned int count : {1U, 3U, 10U}) {
        const IfConf list(records.data(), count);
        EXPECT_EQ(static_cast<int>(count * sizeof(ifreq)), list.ifc_len);
        EXPECT_EQ(records.data(), list.ifc_req);
    }
}

TEST(IfConf, SetNamesAnotherArray) {
    std::array<ifreq, 10> first{};
    std::array<ifreq, 4> second{};
    IfConf list(first.data(), 10);
    list.Set(second.data(), 4);
    EXPECT_EQ(second.data(), list.ifc_req);
    EXPECT_EQ(static_cast<int>(sizeof second), list.ifc_len);
}

TEST(IfConf, ALengthThatAnIntCannotCountIsTheLargestOneThatItCan) {
    std::array<ifreq, 1> records{};
    constexpr std::size_t most = INT_MAX / sizeof(ifreq);
    EXPECT_EQ(static_cast<int>(most * sizeof(ifreq)), IfConf(records.data(), most).ifc_len);
    EXPECT_EQ(static_cast<int>(most * sizeof(ifreq)), IfConf(records.data(), most + 1).ifc_len);
    EXPECT_EQ(static_cast<int>(most * sizeof(ifreq)), IfConf(records.data(), UINT_MAX).ifc_len);
}

}  // namespace

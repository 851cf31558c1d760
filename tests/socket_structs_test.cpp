#include <TarnSocketIO/socket_structs.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "tests/support/LibcAssertion.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::ARPReq;
using TarnSocketIO::ARPTableIPv4Entry;
using TarnSocketIO::MACAddress;
using TarnTest::SaysThat;
using testing::KilledBySignal;

using Octets = std::array<unsigned char, 6>;

constexpr Octets hardware_octets = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};

constexpr TarnTest::LibcAssertion not_ipv4 = {"libraries/TarnSocketIO/socket_structs.cpp", 365,
                                              "IPv4::IPAddress TarnSocketIO::ARPReq::GetIPv4Address() const",
                                              "arp_pa.sa_family == 2"};

static_assert(sizeof(ARPReq) == sizeof(arpreq), "ioctl takes it as it is");
static_assert(sizeof(ARPTableIPv4Entry) == sizeof(arpreq), "ioctl takes it as it is");
static_assert(std::is_base_of_v<arpreq, ARPReq>);
static_assert(std::is_base_of_v<ARPReq, ARPTableIPv4Entry>);
static_assert(std::is_trivially_copyable_v<ARPReq>);
static_assert(std::is_trivially_copyable_v<ARPTableIPv4Entry>);

template <class Record>
void FillWithOnes(Record& record) {
    std::memset(static_cast<void*>(static_cast<arpreq*>(&record)), 0xff, sizeof(arpreq));
}

std::string BytesOf(const arpreq& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

const std::string zeros(sizeof(arpreq), '\0');

std::string FieldOf(const ARPReq& record) {
    return {record.arp_dev, sizeof record.arp_dev};
}

Octets OctetsOf(const MACAddress& mac) {
    Octets octets;
    std::copy_n(mac.OctetForm(), octets.size(), octets.begin());
    return octets;
}

void SetHardwareAddress(ARPReq& record, unsigned short type) {
    record.arp_ha.sa_family = type;
    std::copy(hardware_octets.begin(), hardware_octets.end(), record.arp_ha.sa_data);
}

void SetMask(ARPReq& record, IPAddress mask) {
    const sockaddr_in address = mask;
    std::memcpy(&record.arp_netmask, &address, sizeof address);
}

/// As the kernel fills it in.
ARPTableIPv4Entry Entry() {
    ARPTableIPv4Entry entry;
    entry.Init(IPAddress(192, 168, 1, 7), "eth0", ARPReq::FLAG_COM, ARPReq::FLAG_NONE);
    SetHardwareAddress(entry, ARPHRD_ETHER);
    SetMask(entry, IPAddress(255, 255, 255, 255));
    return entry;
}

std::string Printed(const ARPTableIPv4Entry& entry) {
    std::ostringstream os;
    os << entry;
    return os.str();
}

TEST(ARPReqFlag, HasTheKernelsValue) {
    EXPECT_EQ(0, ARPReq::FLAG_NONE);
    EXPECT_EQ(ATF_COM, ARPReq::FLAG_COM);
    EXPECT_EQ(ATF_PERM, ARPReq::FLAG_PERM);
    EXPECT_EQ(ATF_PUBL, ARPReq::FLAG_PUBL);
    EXPECT_EQ(8, ARPReq::FLAG_PUBL);
    EXPECT_EQ(ATF_USETRAILERS, ARPReq::FLAG_USETRAILERS);
    EXPECT_EQ(ATF_NETMASK, ARPReq::FLAG_NETMASK);
    EXPECT_EQ(ATF_DONTPUB, ARPReq::FLAG_DONTPUB);
}

template <class Record>
class ArpRecord : public testing::Test {};

using Records = testing::Types<ARPReq, ARPTableIPv4Entry>;
TYPED_TEST_SUITE(ArpRecord, Records, );

TYPED_TEST(ArpRecord, BeginsAsZeros) {
    alignas(TypeParam) std::array<unsigned char, sizeof(TypeParam)> memory;
    memory.fill(0xff);
    const auto* const record = new (memory.data()) TypeParam();
    EXPECT_EQ(zeros, BytesOf(*record));
}

TYPED_TEST(ArpRecord, IsAllZeroAfterInit) {
    TypeParam record;
    FillWithOnes(record);
    record.ARPReq::Init();
    EXPECT_EQ(zeros, BytesOf(record));
}

TYPED_TEST(ArpRecord, IsPublishedWhateverFlagsItIsMadeWith) {
    for (int bits = 0; bits < 128; ++bits) {
        const auto flag = static_cast<ARPReq::OrFlag>(bits);
        EXPECT_EQ(8, TypeParam(IPAddress(10, 0, 0, 1), "eth0", flag, ARPReq::FLAG_NONE).GetFlags());
        EXPECT_EQ(8, TypeParam(IPAddress(10, 0, 0, 1), "eth0", ARPReq::FLAG_PERM, flag).GetFlags());
    }
}

TYPED_TEST(ArpRecord, HasTheFlagsThatInitIsGiven) {
    TypeParam record;
    for (int bits = 0; bits < 128; ++bits) {
        const auto flag = static_cast<ARPReq::OrFlag>(bits);
        record.Init(IPAddress(10, 0, 0, 1), "eth0", flag, ARPReq::FLAG_NONE);
        EXPECT_EQ(bits, record.GetFlags());
        record.Init(IPAddress(10, 0, 0, 1), "eth0", ARPReq::FLAG_NONE, flag);
        EXPECT_EQ(bits, record.GetFlags());
    }
    record.Init(IPAddress(10, 0, 0, 1), "eth0", ARPReq::FLAG_COM, ARPReq::FLAG_PERM);
    EXPECT_EQ(6, record.GetFlags());
}

TYPED_TEST(ArpRecord, HasAddressAndDeviceAndZerosElsewhere) {
    arpreq expected{};
    const sockaddr_in address = IPAddress(192, 168, 1, 7);
    std::memcpy(&expected.arp_pa, &address, sizeof address);
    std::strcpy(expected.arp_dev, "eth0");
    expected.arp_flags = 8;
    const TypeParam made(IPAddress(192, 168, 1, 7), "eth0", ARPReq::FLAG_COM, ARPReq::FLAG_PERM);
    EXPECT_EQ(BytesOf(expected), BytesOf(made));

    TypeParam filled;
    FillWithOnes(filled);
    filled.Init(IPAddress(192, 168, 1, 7), "eth0", ARPReq::FLAG_COM, ARPReq::FLAG_PERM);
    expected.arp_flags = 6;
    EXPECT_EQ(BytesOf(expected), BytesOf(filled));
    EXPECT_EQ(IPAddress(192, 168, 1, 7), filled.GetIPv4Address());
    EXPECT_EQ(filled.arp_dev, filled.GetDeviceName());
    EXPECT_STREQ("eth0", filled.GetDeviceName());
}

TYPED_TEST(ArpRecord, ALongDeviceNameIsCutToFifteenCharacters) {
    const TypeParam made(IPAddress(), "abcdefghijklmnopqrst", ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
    EXPECT_STREQ("abcdefghijklmno", made.GetDeviceName());
    TypeParam record;
    FillWithOnes(record);
    for (const char* const name : {"abcdefghijklmnop", "abcdefghijklmnopqrst", "abcdefghijklmno"}) {
        record.Init(IPAddress(), name, ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
        EXPECT_STREQ("abcdefghijklmno", record.GetDeviceName());
    }
}

TYPED_TEST(ArpRecord, SetIPv4ProtocolAddressWritesFamilyAndAddressOnly) {
    TypeParam record;
    FillWithOnes(record);
    arpreq expected = record;
    record.SetIPv4ProtocolAddress(IPAddress(1, 2, 3, 4));
    EXPECT_EQ(IPAddress(1, 2, 3, 4), record.GetIPv4Address());
    const sa_family_t family = AF_INET;
    std::memcpy(&expected.arp_pa.sa_family, &family, sizeof family);
    const std::array<unsigned char, 4> octets = {1, 2, 3, 4};
    std::copy(octets.begin(), octets.end(), expected.arp_pa.sa_data + 2);  // behind the port
    EXPECT_EQ(BytesOf(expected), BytesOf(record));
}

TYPED_TEST(ArpRecord, SetDeviceNameWritesFifteenBytesAndClearsTheHardwareType) {
    TypeParam record;
    FillWithOnes(record);
    arpreq expected = record;
    record.SetDeviceName("eth0");
    expected.arp_ha.sa_family = 0;
    std::fill_n(expected.arp_dev, 15, '\0');
    std::memcpy(expected.arp_dev, "eth0", 4);
    EXPECT_EQ(BytesOf(expected), BytesOf(record));
    EXPECT_EQ('\xff', record.arp_dev[15]);

    record.SetDeviceName("abcdefghijklmnopqrst");
    EXPECT_EQ("abcdefghijklmno\xff", FieldOf(record));
    record.SetDeviceName("");
    EXPECT_EQ(std::string(15, '\0') + '\xff', FieldOf(record));
}

TYPED_TEST(ArpRecord, HasNoHardwareAddressAnyMoreWhenItIsGivenADevice) {
    TypeParam record;
    SetHardwareAddress(record, ARPHRD_ETHER);
    ASSERT_EQ(hardware_octets, OctetsOf(record.GetMACAddress()));
    record.SetDeviceName("eth0");
    EXPECT_EQ(0, record.GetHardwareType());
    EXPECT_EQ(Octets{}, OctetsOf(record.GetMACAddress()));
}

TYPED_TEST(ArpRecord, ADeviceNameMayBeTheRecordsOwn) {
    TypeParam record;
    record.SetDeviceName("abcdefghijklmno");
    record.SetDeviceName(record.GetDeviceName());
    EXPECT_STREQ("abcdefghijklmno", record.GetDeviceName());
    record.SetDeviceName(record.GetDeviceName() + 11);
    EXPECT_STREQ("lmno", record.GetDeviceName());
    record.Init(IPv4::IPAddress(192, 0, 2, 1), record.GetDeviceName(), ARPReq::FLAG_COM, ARPReq::FLAG_NONE);
    EXPECT_STREQ("lmno", record.GetDeviceName());
}

TYPED_TEST(ArpRecord, SetFlagsReplacesThem) {
    TypeParam record;
    record.SetFlags(ARPReq::FLAG_COM, ARPReq::FLAG_PERM, ARPReq::FLAG_PUBL);
    EXPECT_EQ(14, record.GetFlags());
    record.SetFlags(ARPReq::FLAG_DONTPUB, ARPReq::FLAG_NONE, ARPReq::FLAG_NETMASK);
    EXPECT_EQ(96, record.GetFlags());
    record.SetFlags(ARPReq::FLAG_PUBL, ARPReq::FLAG_PUBL, ARPReq::FLAG_PUBL);
    EXPECT_EQ(8, record.GetFlags());
    record.SetFlags(ARPReq::FLAG_NONE, ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
    EXPECT_EQ(0, record.GetFlags());
}

TYPED_TEST(ArpRecord, HasAHardwareAddressOnEthernetOnly) {
    TypeParam record;
    for (unsigned int type = 0; type <= 65535; ++type) {
        SetHardwareAddress(record, static_cast<unsigned short>(type));
        ASSERT_EQ(type, record.GetHardwareType());
        ASSERT_EQ(type == 1 ? hardware_octets : Octets{}, OctetsOf(record.GetMACAddress())) << type;
    }
}

TYPED_TEST(ArpRecord, HasAMaskOfTheFamilyOfIPv4Only) {
    TypeParam record;
    SetMask(record, IPAddress(255, 255, 240, 0));
    EXPECT_EQ(IPAddress(255, 255, 240, 0), record.GetIPv4NetMask());
    for (const int family : {AF_UNSPEC, AF_UNIX, AF_INET6, AF_PACKET, 512, 65535}) {
        record.arp_netmask.sa_family = static_cast<sa_family_t>(family);
        try {
            record.GetIPv4NetMask();
            ADD_FAILURE() << "family " << family;
        } catch (const std::logic_error& refusal) {
            EXPECT_STREQ("IPAddress(const struct sockaddr& addr) addr is not IPv4\n", refusal.what());
        }
    }
}

TYPED_TEST(ArpRecord, AbortsWhereItsAddressIsNotIPv4) {
    for (const int family : {AF_UNSPEC, AF_UNIX, AF_INET6, 512, 65535}) {
        TypeParam record(IPAddress(10, 0, 0, 1), "eth0", ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
        record.arp_pa.sa_family = static_cast<sa_family_t>(family);
        EXPECT_EXIT(record.GetIPv4Address(), KilledBySignal(SIGABRT), SaysThat(not_ipv4));
    }
}

TEST(ARPTableIPv4Entry, HasItsMaskUnderAnotherNameToo) {
    EXPECT_EQ(IPAddress(255, 255, 255, 255), Entry().GetIPv4Mask());
    EXPECT_THROW(ARPTableIPv4Entry().GetIPv4Mask(), std::logic_error);
}

TEST(ARPTableIPv4Entry, TakesAWholeRecordOver) {
    const ARPReq request(IPAddress(10, 1, 2, 3), "eth1", ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
    ARPTableIPv4Entry entry = Entry();
    static_cast<arpreq&>(entry) = request;
    EXPECT_EQ(BytesOf(request), BytesOf(entry));
    EXPECT_EQ(IPAddress(10, 1, 2, 3), entry.GetIPv4Address());
}

TEST(ARPTableIPv4Entry, IsPrintedOnOneLineWithoutItsEnd) {
    EXPECT_EQ("IP: 192.168.1.7, Hw Type: 1, Flags: 2, MAC: 00:1A:2B:3C:4D:5E, Mask: 255.255.255.255, Device: eth0",
              Printed(Entry()));
}

TEST(ARPTableIPv4Entry, IsPrintedWithoutAnAddressWhereItIsNotOfEthernet) {
    ARPTableIPv4Entry entry;
    entry.SetIPv4ProtocolAddress(IPAddress(10, 0, 0, 99));
    SetHardwareAddress(entry, 772);
    SetMask(entry, IPAddress());
    EXPECT_EQ("IP: 10.0.0.99, Hw Type: 772, Flags: 0, MAC: 00:00:00:00:00:00, Mask: 0.0.0.0, Device: ", Printed(entry));
    entry.arp_flags = -1;
    entry.arp_ha.sa_family = 65535;
    EXPECT_EQ("IP: 10.0.0.99, Hw Type: 65535, Flags: 4294967295, MAC: 00:00:00:00:00:00, Mask: 0.0.0.0, Device: ",
              Printed(entry));
}

TEST(ARPTableIPv4Entry, IsPrintedAlikeInAnyBaseAndLeavesTheStreamDecimal) {
    ARPTableIPv4Entry entry = Entry();
    entry.SetFlags(ARPReq::FLAG_COM, ARPReq::FLAG_PUBL, ARPReq::FLAG_USETRAILERS);
    entry.arp_ha.sa_family = ARPHRD_ETHER;
    for (auto* const base : {std::dec, std::hex, std::oct}) {
        std::ostringstream os;
        std::ostream& same = os << base << entry;
        EXPECT_EQ(&os, &same);
        EXPECT_EQ(std::ios_base::dec, os.flags() & std::ios_base::basefield);
        // What the hardware address leaves behind.
        EXPECT_TRUE(os.flags() & std::ios_base::uppercase);
        EXPECT_EQ('0', os.fill());
        os << ' ' << 26;
        EXPECT_EQ(
            "IP: 192.168.1.7, Hw Type: 1, Flags: 26, MAC: 00:1A:2B:3C:4D:5E, Mask: 255.255.255.255, Device: eth0 26",
            os.str());
    }
}

TEST(ARPTableIPv4Entry, IsPrintedUpToTheMaskThatItDoesNotHave) {
    ARPTableIPv4Entry entry = Entry();
    entry.arp_netmask.sa_family = 0;
    std::ostringstream os;
    try {
        os << entry;
        ADD_FAILURE() << os.str();
    } catch (const std::logic_error& refusal) {
        EXPECT_STREQ("IPAddress(const struct sockaddr& addr) addr is not IPv4\n", refusal.what());
    }
    EXPECT_EQ("IP: 192.168.1.7, Hw Type: 1, Flags: 2, MAC: 00:1A:2B:3C:4D:5E, Mask: ", os.str());
    EXPECT_EQ(std::ios_base::dec, os.flags() & std::ios_base::basefield);
}

TEST(ARPTableIPv4Entry, IsNotPrintedWhereItsAddressIsNotIPv4) {
    ARPTableIPv4Entry entry = Entry();
    entry.arp_pa.sa_family = AF_INET6;
    EXPECT_EXIT(Printed(entry), KilledBySignal(SIGABRT), SaysThat(not_ipv4));
}

TEST(ARPTableIPv4Entry, ADeviceNameThatFillsItsFieldIsPrintedToTheEndOfThat) {
    ARPTableIPv4Entry entry = Entry();
    std::memcpy(entry.arp_dev, "abcdefghijklmnop", sizeof entry.arp_dev);
    EXPECT_THAT(Printed(entry), testing::EndsWith(", Device: abcdefghijklmnop"));
}

}  // namespace

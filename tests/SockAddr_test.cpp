#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/SockAddr.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace {

using IPv4::IPAddress;
using TarnSocketIO::SockAddr;
using Record = std::array<unsigned char, 16>;

static_assert(sizeof(SockAddr) == sizeof(sockaddr_in));
static_assert(sizeof(Record) == sizeof(sockaddr_in));
static_assert(std::is_same_v<decltype(std::declval<SockAddr&>().Init(IPAddress())), sockaddr_in&>);
static_assert(std::is_same_v<decltype(std::declval<SockAddr&>().Init(80, IPAddress())), sockaddr_in&>);

Record BytesOf(const sockaddr_in& record) {
    Record bytes{};
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

Record BytesOf(SockAddr& address) {
    const sockaddr_in& record = address;
    return BytesOf(record);
}

/// As the kernel reads it: the family in the machine's order, then port, address and eight zeros, byte by byte.
Record Golden(unsigned char port_high, unsigned char port_low, std::array<unsigned char, 4> octets) {
    Record bytes{};
    const sa_family_t family = 2;
    std::memcpy(bytes.data(), &family, sizeof family);
    bytes[2] = port_high;
    bytes[3] = port_low;
    std::copy(octets.begin(), octets.end(), bytes.begin() + 4);
    return bytes;
}

/// Makes every byte of the record differ from zero.
void Spoil(SockAddr& address) {
    sockaddr_in& record = address;
    std::memset(&record, 0xEE, sizeof record);
}

TEST(SockAddr, IsAllZeroWhenItIsNew) {
    alignas(SockAddr) std::array<unsigned char, sizeof(SockAddr)> storage{};
    storage.fill(0xEE);
    SockAddr* const address = new (storage.data()) SockAddr;
    EXPECT_EQ(Record{}, BytesOf(*address));
    std::destroy_at(address);
}

TEST(SockAddr, InitMakesAllZero) {
    SockAddr address;
    Spoil(address);
    address.Init();
    EXPECT_EQ(Record{}, BytesOf(address));
}

TEST(SockAddr, InitWithPortAndAddressSetsExactlyThem) {
    SockAddr address;
    Spoil(address);
    address.Init(80, IPAddress(192, 168, 1, 20));
    EXPECT_EQ(Golden(0, 80, {192, 168, 1, 20}), BytesOf(address));
    const sockaddr_in& record = address;
    EXPECT_EQ(AF_INET, record.sin_family);
    EXPECT_EQ(htons(80), record.sin_port);
    EXPECT_EQ(IPAddress(192, 168, 1, 20).NetworkNumericForm(), record.sin_addr.s_addr);
}

TEST(SockAddr, InitWithAnAddressHasPortZero) {
    SockAddr address;
    Spoil(address);
    address.Init(IPAddress(10, 0, 0, 1));
    EXPECT_EQ(Golden(0, 0, {10, 0, 0, 1}), BytesOf(address));
}

TEST(SockAddr, PortIsWrittenMostSignificantByteFirst) {
    struct Case {
        unsigned short port;
        unsigned char high;
        unsigned char low;
    };
    constexpr Case cases[] = {{0, 0, 0},        {1, 0, 1},          {255, 0, 255},       {256, 1, 0},
                              {257, 1, 1},      {5000, 0x13, 0x88}, {32767, 0x7F, 0xFF}, {32768, 0x80, 0},
                              {65280, 0xFF, 0}, {65535, 0xFF, 0xFF}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.port);
        SockAddr address;
        EXPECT_EQ(Golden(c.high, c.low, {1, 2, 3, 4}), BytesOf(address.Init(c.port, IPAddress(1, 2, 3, 4))));
    }
}

TEST(SockAddr, AddressIsWrittenFirstOctetFirst) {
    constexpr std::array<unsigned char, 4> cases[] = {{0, 0, 0, 0}, {255, 255, 255, 255}, {1, 0, 0, 0},
                                                      {0, 0, 0, 1}, {127, 0, 0, 1},       {224, 0, 0, 251}};
    for (const auto& octets : cases) {
        SCOPED_TRACE(testing::PrintToString(octets));
        SockAddr address;
        EXPECT_EQ(Golden(0, 7, octets), BytesOf(address.Init(7, IPAddress(octets.data(), BigEndian))));
        EXPECT_EQ(Golden(0, 0, octets), BytesOf(address.Init(IPAddress(octets.data(), BigEndian))));
    }
}

TEST(SockAddr, ALaterInitLeavesNothingOfAnEarlierOne) {
    SockAddr address;
    address.Init(65535, IPAddress(255, 255, 255, 255));
    address.Init(IPAddress(1, 0, 0, 0));
    EXPECT_EQ(Golden(0, 0, {1, 0, 0, 0}), BytesOf(address));
    address.Init(80, IPAddress(1, 2, 3, 4));
    address.Init();
    EXPECT_EQ(Record{}, BytesOf(address));
}

TEST(SockAddr, EveryFormGivesTheOneRecordInsideTheObject) {
    SockAddr address;
    sockaddr_in& record = address;
    EXPECT_EQ(&record, &address.Init(80, IPAddress(1, 2, 3, 4)));
    EXPECT_EQ(&record, &address.Init(IPAddress(1, 2, 3, 4)));
    const void* const object = &address;
    EXPECT_EQ(object, &record);
}

TEST(SockAddr, RecordMayBeChangedInPlace) {
    SockAddr address;
    address.Init(80, IPAddress(1, 2, 3, 4)).sin_port = htons(443);
    EXPECT_EQ(Golden(443 >> 8, 443 & 0xFF, {1, 2, 3, 4}), BytesOf(address));
}

TEST(SockAddr, CopyIsARecordOfItsOwn) {
    SockAddr first;
    first.Init(80, IPAddress(1, 2, 3, 4));
    SockAddr second = first;
    second.Init(81, IPAddress(5, 6, 7, 8));
    EXPECT_EQ(Golden(0, 80, {1, 2, 3, 4}), BytesOf(first));
    EXPECT_EQ(Golden(0, 81, {5, 6, 7, 8}), BytesOf(second));
}

TEST(SockAddr, IsWhatTheKernelBindsASocketTo) {
    const int sd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(sd, 0);
    SockAddr wanted;
    EXPECT_EQ(0, bind(sd, reinterpret_cast<sockaddr*>(&wanted.Init(IPAddress(127, 0, 0, 1))), sizeof(sockaddr_in)));
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    EXPECT_EQ(0, getsockname(sd, reinterpret_cast<sockaddr*>(&bound), &length));
    EXPECT_EQ(IPAddress(127, 0, 0, 1), IPAddress(bound));
    EXPECT_NE(0, bound.sin_port);
    EXPECT_EQ(0, close(sd));
}

}  // namespace

#include <TarnSocketIO/Endian.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using IPv4::IPAddress;
using Octets = std::array<unsigned char, 4>;

static_assert(LittleEndian == 0);
static_assert(BigEndian == 1);
static_assert(std::is_same_v<std::underlying_type_t<Endian>, unsigned int>);
static_assert(std::is_same_v<decltype(swap_endian(std::declval<unsigned char>())), unsigned char>);
static_assert(std::is_same_v<decltype(swap_endian(0U)), unsigned int>);
static_assert(swap_endian(0x01020304U) == 0x04030201U);

/// The bytes of a word as they lie in memory.
Octets BytesOf(unsigned int word) {
    Octets bytes{};
    static_assert(sizeof word == sizeof bytes);
    std::memcpy(bytes.data(), &word, sizeof word);
    return bytes;
}

unsigned int WordOf(const Octets& bytes) {
    unsigned int word = 0;
    std::memcpy(&word, bytes.data(), sizeof word);
    return word;
}

Octets OctetsOf(IPAddress ip) {
    return BytesOf(ip.NetworkNumericForm());
}

/// 1, 2, 3, ... so that every place differs from its neighbours.
std::vector<unsigned char> Counting(std::size_t length) {
    std::vector<unsigned char> bytes(length);
    for (std::size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<unsigned char>(i % 251 + 1);
    }
    return bytes;
}

TEST(SwapEndian, LeavesEveryByteAsItIs) {
    for (unsigned int value = 0; value < 256; ++value) {
        const auto byte = static_cast<unsigned char>(value);
        EXPECT_EQ(byte, swap_endian(byte));
    }
}

TEST(SwapEndian, MirrorsTheBytesOfAWordInMemory) {
    const std::vector<Octets> cases = {{0, 0, 0, 0},       {255, 255, 255, 255}, {1, 2, 3, 4},      {127, 0, 0, 1},
                                       {1, 0, 0, 0},       {0, 1, 0, 0},         {0, 0, 1, 0},      {0, 0, 0, 1},
                                       {0x80, 0, 0, 0},    {0, 0x80, 0, 0},      {0, 0, 0x80, 0},   {0, 0, 0, 0x80},
                                       {0xFF, 0, 0, 0xFF}, {0, 0xFF, 0xFF, 0},   {192, 168, 1, 254}};
    for (const Octets& bytes : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        EXPECT_EQ((Octets{bytes[3], bytes[2], bytes[1], bytes[0]}), BytesOf(swap_endian(WordOf(bytes))));
        EXPECT_EQ(WordOf(bytes), swap_endian<unsigned int>(swap_endian<unsigned int>(WordOf(bytes))));
    }
}

TEST(SwapEndian, MovesEachBitOfAWordToTheOppositeByte) {
    for (unsigned int bit = 0; bit < 32; ++bit) {
        SCOPED_TRACE(bit);
        const unsigned int moved = (3 - bit / 8) * 8 + bit % 8;
        EXPECT_EQ(1U << moved, swap_endian(1U << bit));
        EXPECT_EQ(~(1U << moved), swap_endian(~(1U << bit)));
    }
}

TEST(SwapEndian, TurnsThreeLettersAround) {
    std::array<unsigned char, 4> text = {'a', 'b', 'c', 'd'};
    swap_endian<unsigned char>(text.data(), 3);
    EXPECT_EQ((std::array<unsigned char, 4>{'c', 'b', 'a', 'd'}), text);
}

TEST(SwapEndian, ReversesExactlyNBytesInPlace) {
    constexpr std::size_t before = 3;  // an odd place: nothing may depend on alignment
    constexpr std::size_t behind = 4;
    for (unsigned int n = 0; n <= 65; ++n) {
        SCOPED_TRACE(n);
        std::vector<unsigned char> bytes = Counting(before + n + behind);
        std::vector<unsigned char> expected = bytes;
        std::reverse(expected.begin() + before, expected.end() - behind);
        swap_endian(bytes.data() + before, n);
        EXPECT_EQ(expected, bytes);
    }
}

TEST(SwapEndian, ReversesMoreThanAnUnsignedShortCounts) {
    std::vector<unsigned char> bytes = Counting(70001);
    std::vector<unsigned char> expected = bytes;
    std::reverse(expected.begin(), expected.end());
    swap_endian(bytes.data(), static_cast<unsigned int>(bytes.size()));
    EXPECT_EQ(expected, bytes);
}

TEST(SwapEndian, LeavesOneByteAndNoByteAlone) {
    for (const unsigned int n : {0U, 1U}) {
        SCOPED_TRACE(n);
        std::array<unsigned char, 3> bytes = {'a', 'b', 'c'};
        swap_endian(bytes.data() + 1, n);
        EXPECT_EQ((std::array<unsigned char, 3>{'a', 'b', 'c'}), bytes);
    }
}

TEST(SwapEndian, TakesANullPointerWithAnyLength) {
    unsigned char* const nothing = nullptr;
    for (const unsigned int n : {0U, 1U, 2U, 3U, 4U, 1000U, std::numeric_limits<unsigned int>::max()}) {
        swap_endian(nothing, n);  // a look at a byte of it would end the process
    }
    EXPECT_EQ(nullptr, nothing);
}

TEST(Endian, BigEndianStoresWordsAndBytesUnchanged) {
    const Octets bytes = {1, 2, 3, 4};
    EXPECT_EQ(bytes, OctetsOf(IPAddress(WordOf(bytes), BigEndian)));
    EXPECT_EQ(bytes, OctetsOf(IPAddress(bytes.data(), BigEndian)));
    IPAddress set;
    set.Set(bytes.data(), BigEndian);
    EXPECT_EQ(bytes, OctetsOf(set));
}

TEST(Endian, EveryOtherValueActsAsLittleEndian) {
    const Octets bytes = {1, 2, 3, 4};
    const Octets reversed = {4, 3, 2, 1};
    for (const unsigned int value : {0U, 2U, 3U, 7U, 0x100U, 0x101U, 0x10001U, 0x01000000U, 0x80000001U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(value);
        const auto order = static_cast<Endian>(value);
        EXPECT_EQ(reversed, OctetsOf(IPAddress(WordOf(bytes), order)));
        EXPECT_EQ(reversed, OctetsOf(IPAddress(bytes.data(), order)));
        IPAddress set;
        set.Set(bytes.data(), order);
        EXPECT_EQ(reversed, OctetsOf(set));
    }
}

}  // namespace

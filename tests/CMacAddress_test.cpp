#include <TarnSocketIO/CMacAddress.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <type_traits>

#include "tests/support/Streams.h"

namespace {

using TarnSocketIO::CMacAddress;

using Octets = std::array<unsigned char, 6>;

constexpr std::size_t text_size = 18;

void SetOctets(CMacAddress& mac, const Octets& octets) {
    std::copy(octets.begin(), octets.end(), mac.m_Octets);
}

/// Every character of the buffer, with no terminator among them.
void FillText(CMacAddress& mac, char first) {
    for (std::size_t i = 0; i < text_size; ++i) {
        mac.m_szMacAddress[i] = static_cast<char>(first + static_cast<char>(i));
    }
}

Octets OctetsOf(const CMacAddress& mac) {
    Octets octets;
    std::copy(std::begin(mac.m_Octets), std::end(mac.m_Octets), octets.begin());
    return octets;
}

std::string BufferOf(const CMacAddress& mac) {
    return std::string(mac.m_szMacAddress, text_size);
}

/// The text as it fills the buffer.
std::string Terminated(std::string text) {
    text.resize(text_size);
    return text;
}

constexpr Octets one = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
constexpr Octets other = {0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA};

static_assert(std::is_standard_layout_v<CMacAddress> && !std::is_polymorphic_v<CMacAddress>);
static_assert(sizeof(CMacAddress::m_Octets) == 6 && sizeof(CMacAddress::m_szMacAddress) == text_size);
static_assert(offsetof(CMacAddress, m_Octets) == 0 && offsetof(CMacAddress, m_szMacAddress) == 6);
static_assert(sizeof(CMacAddress) == 24, "octets and text and nothing else");
static_assert(std::is_same_v<decltype(CMacAddress::m_Octets), unsigned char[6]>, "an ARP request takes them as one");
static_assert(std::is_convertible_v<CMacAddress&, const char*> &&
                  !std::is_convertible_v<const CMacAddress&, const char*>,
              "making the text changes the object");

TEST(CMacAddress, StartsWithOctetsOfZero) {
    CMacAddress mac;
    EXPECT_EQ(Octets{}, OctetsOf(mac));
    EXPECT_STREQ("00:00:00:00:00:00", mac.GetString());
}

TEST(CMacAddress, TextHasTwoLowerCaseDigitsForEachOctet) {
    struct Row {
        Octets octets;
        const char* text;
    };
    static constexpr Row rows[] = {
        {{0, 0, 0, 0, 0, 0}, "00:00:00:00:00:00"},
        {{1, 2, 3, 4, 5, 6}, "01:02:03:04:05:06"},
        {{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}, "00:1a:2b:3c:4d:5e"},
        {{0xAB, 0xCD, 0xEF, 0xFE, 0xDC, 0xBA}, "ab:cd:ef:fe:dc:ba"},
        {{9, 10, 15, 16, 99, 100}, "09:0a:0f:10:63:64"},
        {{0x7F, 0x80, 0x81, 0xFF, 0xF0, 0x0F}, "7f:80:81:ff:f0:0f"},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, "ff:ff:ff:ff:ff:ff"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        CMacAddress mac;
        SetOctets(mac, row.octets);
        FillText(mac, 'A');
        EXPECT_EQ(mac.m_szMacAddress, mac.GetString());
        EXPECT_EQ(Terminated(row.text), BufferOf(mac));
        EXPECT_EQ(row.octets, OctetsOf(mac));
        FillText(mac, 'A');
        const char* const text = mac;
        EXPECT_EQ(mac.m_szMacAddress, text);
        EXPECT_EQ(Terminated(row.text), BufferOf(mac));
        EXPECT_EQ(row.octets, OctetsOf(mac));
    }
}

TEST(CMacAddress, TextOfEveryOctetInEveryPlace) {
    for (std::size_t place = 0; place < 6; ++place) {
        for (int value = 0; value < 256; ++value) {
            CMacAddress mac;
            Octets octets = one;
            octets[place] = static_cast<unsigned char>(value);
            SetOctets(mac, octets);
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned int>(value));
            std::string expected = "00:1a:2b:3c:4d:5e";
            expected.replace(3 * place, 2, digits);
            ASSERT_EQ(expected, mac.GetString());
        }
    }
}

TEST(CMacAddress, TextIsWhatItWasUntilItIsAskedForAgain) {
    CMacAddress mac;
    SetOctets(mac, one);
    const char* const text = mac.GetString();
    SetOctets(mac, other);
    EXPECT_STREQ("00:1a:2b:3c:4d:5e", text);
    EXPECT_EQ(text, mac.GetString());
    EXPECT_STREQ("ff:ee:dd:cc:bb:aa", text);
}

TEST(CMacAddress, TextDoesNotFollowTheGlobalLocale) {
    CMacAddress mac;
    SetOctets(mac, other);
    const TarnTest::GlobalLocale marks(TarnTest::MarkedDigits());
    EXPECT_STREQ("ff:ee:dd:cc:bb:aa", mac.GetString());
}

TEST(CMacAddress, IsCopiedWithTheWholeBufferOfItsText) {
    CMacAddress original;
    SetOctets(original, one);
    FillText(original, 'A');
    const std::string buffer = BufferOf(original);

    const CMacAddress made(original);
    EXPECT_EQ(one, OctetsOf(made));
    EXPECT_EQ(buffer, BufferOf(made));

    CMacAddress assigned;
    SetOctets(assigned, other);
    FillText(assigned, 'a');
    assigned = original;
    EXPECT_EQ(one, OctetsOf(assigned));
    EXPECT_EQ(buffer, BufferOf(assigned));

    CMacAddress copied;
    SetOctets(copied, other);
    FillText(copied, 'a');
    copied.Copy(original);
    EXPECT_EQ(one, OctetsOf(copied));
    EXPECT_EQ(buffer, BufferOf(copied));

    EXPECT_EQ(one, OctetsOf(original));
    EXPECT_EQ(buffer, BufferOf(original));
}

TEST(CMacAddress, CopyKeepsATextThatIsOlderThanItsOctets) {
    CMacAddress original;
    SetOctets(original, one);
    original.GetString();
    SetOctets(original, other);
    CMacAddress copy(original);
    EXPECT_STREQ("00:1a:2b:3c:4d:5e", copy.m_szMacAddress);
    EXPECT_EQ(other, OctetsOf(copy));
    EXPECT_STREQ("ff:ee:dd:cc:bb:aa", copy.GetString());
    EXPECT_STREQ("00:1a:2b:3c:4d:5e", original.m_szMacAddress);
}

TEST(CMacAddress, AssignmentReturnsTheObject) {
    CMacAddress mac;
    CMacAddress second;
    FillText(second, 'A');
    EXPECT_EQ(&mac, &(mac = second));
    const CMacAddress& itself = mac;
    EXPECT_EQ(&mac, &(mac = itself));
}

TEST(CMacAddress, AssigningOrCopyingAnObjectToItselfChangesNothing) {
    CMacAddress mac;
    SetOctets(mac, one);
    FillText(mac, 'A');
    const std::string buffer = BufferOf(mac);
    const CMacAddress& itself = mac;
    mac = itself;
    EXPECT_EQ(one, OctetsOf(mac));
    EXPECT_EQ(buffer, BufferOf(mac));
    mac.Copy(itself);
    EXPECT_EQ(one, OctetsOf(mac));
    EXPECT_EQ(buffer, BufferOf(mac));
}

}  // namespace

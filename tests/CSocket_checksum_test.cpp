#include <TarnSocketIO/CSocket.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "tests/support/Packets.h"
#include "tests/support/Random.h"

using TarnSocketIO::CSocket;
using TarnTest::InternetChecksum;
using TarnTest::Random;
using TarnTest::Word;

namespace {

constexpr std::size_t longest = 2000;

int Calculate(const char* data, std::size_t length) {
    return CSocket::CalculateICMPChecksum(reinterpret_cast<const unsigned short*>(data), static_cast<int>(length));
}

/// The bytes that the checksum of these has in a message.
std::string StoredChecksum(const char* data, std::size_t length) {
    const int checksum = Calculate(data, length);
    EXPECT_GE(checksum, 0);
    EXPECT_LE(checksum, 0xffff);
    return TarnTest::Stored(static_cast<std::uint16_t>(checksum));
}

/// The same at every alignment, with neighbours that would show.
void ExpectReferenceResultAtEveryAlignment(const std::string& data) {
    const std::string expected = Word(InternetChecksum(data));
    for (std::size_t offset = 0; offset < 8; ++offset) {
        alignas(8) static char memory[8 + longest + 8];
        std::memset(memory, 0x5a, sizeof memory);
        std::copy(data.begin(), data.end(), memory + offset);
        ASSERT_EQ(expected, StoredChecksum(memory + offset, data.size()))
            << data.size() << " bytes from alignment " << offset;
    }
}

}  // namespace

TEST(CSocketChecksum, IsThatOfThePublishedExample) {
    const std::string example("\x00\x01\xf2\x03\xf4\xf5\xf6\xf7", 8);
    EXPECT_EQ(std::string("\x22\x0d", 2), StoredChecksum(example.data(), example.size()));
}

TEST(CSocketChecksum, AnOddLastByteIsTheFirstOfAWord) {
    const std::string data("\x01\x02\x03", 3);
    EXPECT_EQ(std::string("\xfb\xfd", 2), StoredChecksum(data.data(), data.size()));
}

TEST(CSocketChecksum, OfNothingIsAllOnes) {
    const char nothing = '\x5a';
    EXPECT_EQ(0xffff, Calculate(&nothing, 0));
}

TEST(CSocketChecksum, ANegativeLengthIsNothing) {
    const unsigned short nothing = 0x5a5a;
    for (const int length : {-1, -2, -1000}) {
        EXPECT_EQ(0xffff, CSocket::CalculateICMPChecksum(&nothing, length));
    }
}

TEST(CSocketChecksum, OfRandomBytesOfEveryLength) {
    Random random(1071);
    for (std::size_t length = 0; length <= longest; ++length) {
        std::string data(length, '\0');
        std::generate(data.begin(), data.end(), [&] { return static_cast<char>(random.Below(256)); });
        ExpectReferenceResultAtEveryAlignment(data);
    }
}

TEST(CSocketChecksum, OfEqualBytesOfEveryLength) {
    for (const char byte : {'\x00', '\xff', '\x80', '\x01'}) {
        for (std::size_t length = 0; length <= longest; ++length) {
            ExpectReferenceResultAtEveryAlignment(std::string(length, byte));
        }
    }
}

// 64 KiB of ones make the largest sum that a message can: more than 16 bits of carries.
TEST(CSocketChecksum, OfTheLongestMessages) {
    Random random(792);
    for (const std::size_t length : {65507u, 65534u, 65535u, 65536u, 131070u}) {
        const std::string ones(length, '\xff');
        EXPECT_EQ(Word(InternetChecksum(ones)), StoredChecksum(ones.data(), length)) << length;
        std::string data(length, '\0');
        std::generate(data.begin(), data.end(), [&] { return static_cast<char>(random.Below(256)); });
        EXPECT_EQ(Word(InternetChecksum(data)), StoredChecksum(data.data(), length)) << length;
    }
}

TEST(CSocketChecksum, AMessageWithItsChecksumSumsUpToNothing) {
    std::string message = "\x08" + std::string(63, '\xa5');
    message.replace(2, 2, 2, '\0');
    message.replace(2, 2, StoredChecksum(message.data(), message.size()));
    EXPECT_EQ(0, Calculate(message.data(), message.size()));
}

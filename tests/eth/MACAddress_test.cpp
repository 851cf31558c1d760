#include <TarnSocketIO/eth/MACAddress.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iomanip>
#include <ios>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace {

using TarnSocketIO::MACAddress;
using TarnSocketIO::Octet;

using Octets = std::array<unsigned char, 6>;

constexpr Octets kept = {0xDE, 0xAD, 0xBE, 0xEF, 0x80, 0x01};

constexpr char bad_length[] = "incorrect length for MAC address string";
constexpr char bad_format[] = "bad formatted MAC address string";
constexpr char bad_number[] = "bad hex number found in MAC address string";

Octets OctetsOf(const MACAddress& mac) {
    Octets octets;
    std::memcpy(octets.data(), mac.OctetForm(), octets.size());
    return octets;
}

MACAddress Address(const Octets& octets) {
    return {octets.data(), BigEndian};
}

/// What the call throws, if it is a std::runtime_error and nothing derived from it; empty if it throws nothing.
template <class Action>
std::string ErrorOf(Action action) {
    try {
        action();
    } catch (const std::exception& error) {
        EXPECT_EQ(typeid(std::runtime_error), typeid(error));
        return error.what();
    }
    return "";
}

/// Sets an address in both ways, from a text on the heap with nothing behind its terminator.
void ExpectRefused(const std::string& text, const char* message) {
    const std::unique_ptr<char[]> block(new char[text.size() + 1]);
    std::memcpy(block.get(), text.c_str(), text.size() + 1);
    MACAddress mac = Address(kept);
    EXPECT_EQ(message, ErrorOf([&] { mac.Set(block.get()); })) << text;
    EXPECT_EQ(kept, OctetsOf(mac)) << text;
    EXPECT_EQ(message, ErrorOf([&] { mac = block.get(); })) << text;
    EXPECT_EQ(kept, OctetsOf(mac)) << text;
}

void ExpectParsed(const std::string& text, const Octets& octets) {
    const std::unique_ptr<char[]> block(new char[text.size() + 1]);
    std::memcpy(block.get(), text.c_str(), text.size() + 1);
    MACAddress mac = Address(kept);
    EXPECT_EQ("", ErrorOf([&] { mac.Set(block.get()); })) << text;
    EXPECT_EQ(octets, OctetsOf(mac)) << text;
    mac = Address(kept);
    const MACAddress* assigned = nullptr;
    EXPECT_EQ("", ErrorOf([&] { assigned = &(mac = block.get()); })) << text;
    EXPECT_EQ(&mac, assigned);
    EXPECT_EQ(octets, OctetsOf(mac)) << text;
}

// The type

static_assert(std::is_same_v<Octet, unsigned char>);
static_assert(sizeof(MACAddress) == 8 && alignof(MACAddress) == 4, "four octets and two, as integers");
static_assert(std::is_standard_layout_v<MACAddress> && std::is_trivially_copyable_v<MACAddress>);
static_assert(std::is_nothrow_constructible_v<MACAddress, const unsigned char*, Endian>);
static_assert(noexcept(std::declval<MACAddress&>().SwapEndian()));
static_assert(!noexcept(std::declval<MACAddress&>().Set("")), "bad text is reported");
static_assert(!noexcept(std::declval<MACAddress&>() = ""), "bad text is reported");
static_assert(!std::is_convertible_v<const char*, MACAddress>, "text is set or assigned");
static_assert(std::is_same_v<decltype(std::declval<MACAddress&>().OctetForm()), Octet*>);
static_assert(std::is_same_v<decltype(std::declval<const MACAddress&>().OctetForm()), const Octet*>);

TEST(MACAddress, ClassInvariantHolds) {
    EXPECT_TRUE(MACAddress::class_invariant());
}

TEST(MACAddress, OctetsAreItsFirstSixBytes) {
    MACAddress mac = Address({1, 2, 3, 4, 5, 6});
    const MACAddress& constant = mac;
    EXPECT_EQ(static_cast<void*>(&mac), mac.OctetForm());
    EXPECT_EQ(static_cast<const void*>(&mac), constant.OctetForm());
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(i + 1, constant.OctetForm()[i]);
    }
    mac.OctetForm()[0] = 0xF1;
    mac.OctetForm()[5] = 0xF6;
    EXPECT_EQ((Octets{0xF1, 2, 3, 4, 5, 0xF6}), OctetsOf(mac));
}

// Octets

TEST(MACAddress, StartsAtZero) {
    EXPECT_EQ(Octets{}, OctetsOf(MACAddress()));
}

TEST(MACAddress, SetToZeroClearsEveryOctet) {
    MACAddress mac = Address({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
    mac.SetToZero();
    EXPECT_EQ(Octets{}, OctetsOf(mac));
}

TEST(MACAddress, TakesOctetsInEitherOrder) {
    const Octets octets = {0x01, 0x80, 0x7F, 0xFF, 0x00, 0x06};
    const Octets reversed = {0x06, 0x00, 0xFF, 0x7F, 0x80, 0x01};
    for (const unsigned int order : {0U, 1U, 2U, 3U, 7U, 0x01000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(order);
        const auto e = static_cast<Endian>(order);
        const Octets& expected = order == 1 ? octets : reversed;
        EXPECT_EQ(expected, OctetsOf(MACAddress(octets.data(), e)));
        MACAddress mac = Address(kept);
        mac.Set(octets.data(), e);
        EXPECT_EQ(expected, OctetsOf(mac));
        EXPECT_EQ((Octets{0x01, 0x80, 0x7F, 0xFF, 0x00, 0x06}), octets);
    }
}

TEST(MACAddress, CopiesTheOctetsItIsGiven) {
    Octets octets = {1, 2, 3, 4, 5, 6};
    const MACAddress mac(octets.data(), BigEndian);
    octets.fill(9);
    EXPECT_EQ((Octets{1, 2, 3, 4, 5, 6}), OctetsOf(mac));
}

TEST(MACAddress, TakesItsOwnOctets) {
    MACAddress mac = Address({1, 2, 3, 4, 5, 6});
    mac.Set(mac.OctetForm(), BigEndian);
    EXPECT_EQ((Octets{1, 2, 3, 4, 5, 6}), OctetsOf(mac));
    mac.Set(mac.OctetForm(), LittleEndian);
    EXPECT_EQ((Octets{6, 5, 4, 3, 2, 1}), OctetsOf(mac));
}

TEST(MACAddress, SwapEndianReversesTheOctets) {
    MACAddress mac = Address({0x01, 0x02, 0x83, 0x04, 0x05, 0xFF});
    mac.SwapEndian();
    EXPECT_EQ((Octets{0xFF, 0x05, 0x04, 0x83, 0x02, 0x01}), OctetsOf(mac));
    mac.SwapEndian();
    EXPECT_EQ((Octets{0x01, 0x02, 0x83, 0x04, 0x05, 0xFF}), OctetsOf(mac));
}

TEST(MACAddress, IsCopiedAsAValue) {
    MACAddress original = Address(kept);
    const MACAddress copy(original);
    MACAddress assigned;
    assigned = original;
    original.SetToZero();
    EXPECT_EQ(kept, OctetsOf(copy));
    EXPECT_EQ(kept, OctetsOf(assigned));
}

// Text

TEST(MACAddress, ParsesSixHexadecimalNumbers) {
    struct Row {
        const char* text;
        Octets octets;
    };
    static constexpr Row rows[] = {
        {"0", {0, 0, 0, 0, 0, 0}},
        {"00:00:00:00:00:00", {0, 0, 0, 0, 0, 0}},
        {"1:2:3:4:5:6", {1, 2, 3, 4, 5, 6}},
        {"1:2:3:4:5:16", {1, 2, 3, 4, 5, 0x16}},
        {"00:11:22:33:44:55", {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}},
        {"aa:bb:cc:dd:ee:ff", {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}},
        {"AA:BB:CC:DD:EE:FF", {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}},
        {"aB:Cd:eF:Ab:cD:Ef", {0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF}},
        {"08:09:10:7f:80:81", {0x08, 0x09, 0x10, 0x7F, 0x80, 0x81}},
        // Of a longer number the low eight bits count.
        {"100:1:2:3:4:5", {0x00, 1, 2, 3, 4, 5}},
        {"1:2:3:4:5:1ff", {1, 2, 3, 4, 5, 0xFF}},
        {"12345:6:7:8:9:abc", {0x45, 6, 7, 8, 9, 0xBC}},
        {"0000001:2:3:4:5:6", {1, 2, 3, 4, 5, 6}},
        {"1234567:2:3:4:5:6", {0x67, 2, 3, 4, 5, 6}},
        {"7fffff80:2:3:4:5:", {0x80, 2, 3, 4, 5, 0}},
        // An empty field is 0.
        {"123456:::::", {0x56, 0, 0, 0, 0, 0}},
        {":::::123456", {0, 0, 0, 0, 0, 0x56}},
        {":ab:cd:ef:1:", {0, 0xAB, 0xCD, 0xEF, 1, 0}},
        {"::12:34::00ff", {0, 0, 0x12, 0x34, 0, 0xFF}},
        // Prefixes, signs and white space before the number.
        {"0x1:0X2:0xa:4:5:6", {1, 2, 0x0A, 4, 5, 6}},
        {"0xff:0XFe:::0xD:", {0xFF, 0xFE, 0, 0, 0x0D, 0}},
        {"+1:-1:+f:-f:+0:-0", {0x01, 0xFF, 0x0F, 0xF1, 0, 0}},
        {"-80:-7f:-100:-f::", {0x80, 0x81, 0, 0xF1, 0, 0}},
        {"-0x1:+0x2:::-0X4:", {0xFF, 0x02, 0, 0, 0xFC, 0}},
        {" 1:  2:\t3:4:5:6", {1, 2, 3, 4, 5, 6}},
        {"\n1:\v2:\f3:\r4:5:6", {1, 2, 3, 4, 5, 6}},
        {" -1: +2: 0x3:4:5:", {0xFF, 2, 3, 4, 5, 0}},
        {" \t\n\v\f\r12:3:4:5:6:", {0x12, 3, 4, 5, 6, 0}},
    };
    for (const Row& row : rows) {
        ExpectParsed(row.text, row.octets);
    }
}

TEST(MACAddress, LongNumbersAreReadAsStrtolReadsThem) {
    for (const char* const number :
         {"7fffffff", "80000000", "ffffffff", "100000000", "123456789ab", "ffffffffffff", "7ffffffffffe", "-80000000",
          "-80000001", "-ffffffff", "-123456789ab", "-fffffffffff", "0x7fffffffff", "-0x800000001", "+00000000000"}) {
        const auto octet = static_cast<unsigned char>(std::strtol(number, nullptr, 16));
        const std::string text(number);
        ExpectParsed(text + ":::::", {octet, 0, 0, 0, 0, 0});
        ExpectParsed(":::::" + text, {0, 0, 0, 0, 0, octet});
        ExpectParsed("::" + text + ":::", {0, 0, octet, 0, 0, 0});
    }
}

TEST(MACAddress, NumbersAreReadWhateverErrorWasLast) {
    MACAddress mac;
    errno = ERANGE;
    mac.Set("1:2:3:4:5:6");
    EXPECT_EQ((Octets{1, 2, 3, 4, 5, 6}), OctetsOf(mac));
}

TEST(MACAddress, RefusesTextOfABadLength) {
    for (const char* const text : {"",
                                   "1",
                                   "00",
                                   "0 ",
                                   " 0",
                                   "-0",
                                   "x",
                                   ":",
                                   ":::::",
                                   "0:0:0:0:0",
                                   "1:2:3:4:5",
                                   "1:2:3:4:5:",
                                   "::1:2:3:4",
                                   "zzzzzzzzzz",
                                   ":::::::::",
                                   "aa:bb:cc:dd:ee:ff:",
                                   "aa:bb:cc:dd:ee:ff ",
                                   "aa:bb:cc:dd:ee:fff",
                                   ":aa:bb:cc:dd:ee:ff",
                                   "0x1:0x2:0x3:4:5:6:",
                                   "zzzzzzzzzzzzzzzzzz",
                                   "::::::::::::::::::",
                                   "aa:bb:cc:dd:ee:ff:00:11"}) {
        ExpectRefused(text, bad_length);
    }
}

TEST(MACAddress, RefusesNull) {
    const char* const null = nullptr;
    MACAddress mac = Address(kept);
    EXPECT_EQ(bad_length, ErrorOf([&] { mac.Set(null); }));
    EXPECT_EQ(kept, OctetsOf(mac));
    EXPECT_EQ(bad_length, ErrorOf([&] { mac = null; }));
    EXPECT_EQ(kept, OctetsOf(mac));
}

// The length is looked at before the number of fields, and that before any number.
TEST(MACAddress, RefusesTextWithoutExactlySixFields) {
    for (const char* const text :
         {"1:2:3:4:5:6:7",     "1:2:3:4:5:6:",      ":1:2:3:4:5:6",      "aa:bb:cc:dd:eeff",  "aabbccddeeff",
          "aa-bb-cc-dd-ee-ff", "aa:bb:cc:dd:ee-ff", "00000000000",       "00000000000000000", ":::::::::::",
          ":::::::::::::::::", "1:2:3:4:5 6 7",     "aa.bb.cc.dd.ee.ff", "aa:bb:cc:dd:ee.ff", "::::::123456",
          "123456::::::",      "           ",       "g:1:2:3:4:5:6",     "1:2:3:4:5:6:g",     "zz:zz:zz:zz:zz",
          "zzzzzzzzzzz",       "1:2:3:4:5:6:7:8:9", "aa:bb:cc:dd:ee;ff", "aa:bb:cc:dd  :ee"}) {
        ExpectRefused(text, bad_format);
    }
}

TEST(MACAddress, RefusesFieldsThatAreNoNumbers) {
    for (const char* const field :
         {"g",    "0g",    "1g",    "x",   "x1",  "0x",  "0X", "0xg",  "-",    "+",    "--1", "+-1",
          "- 1",  "1 ",    " ",     "  ",  "\t",  "1-",  "1.", ".",    "1,2",  "0x-1", "0 1", " 1 ",
          "\x80", "1\xff", "\2401", "1\n", "1_0", "00h", "#1", "\\x1", "0b2g", "l",    "O"}) {
        // Filled up in front, where a blank changes nothing.
        ExpectRefused(std::string(field) + ": 1: 2: 3:4:5", bad_number);
        ExpectRefused(": 1:" + std::string(field) + ": 2: 3:4", bad_number);
        ExpectRefused(": 1: 2: 3:4:" + std::string(field), bad_number);
    }
    ExpectRefused("0g:11:22:33:44:55", bad_number);
    ExpectRefused("00:11:22:33:44:5g", bad_number);
    ExpectRefused("00:11:22:33:44:5 ", bad_number);
    ExpectRefused("00:11:2 :33:44:55", bad_number);
}

TEST(MACAddress, RefusesTextOfEveryOtherLength) {
    for (std::size_t length = 0; length <= 64; ++length) {
        SCOPED_TRACE(length);
        const bool is_accepted = 11 <= length && length <= 17;
        if (is_accepted) {
            ExpectParsed(std::string(length - 10, '2') + ":3:4:5:6:7",
                         {static_cast<unsigned char>(length == 11 ? 2 : 0x22), 3, 4, 5, 6, 7});
        } else if (length > 10) {
            ExpectRefused(std::string(length - 10, '2') + ":3:4:5:6:7", bad_length);
        }
        if (length != 1) {
            ExpectRefused(std::string(length, '0'), is_accepted ? bad_format : bad_length);
        }
        ExpectRefused(std::string(length, ':'), is_accepted ? bad_format : bad_length);
    }
}

TEST(MACAddress, TextEndsAtItsFirstNul) {
    MACAddress mac = Address(kept);
    mac.Set("0\0:1:2:3:4:5:6");
    EXPECT_EQ(Octets{}, OctetsOf(mac));
    mac.Set("1:2:3:4:5:6\0:7:8");
    EXPECT_EQ((Octets{1, 2, 3, 4, 5, 6}), OctetsOf(mac));
    EXPECT_EQ(bad_length, ErrorOf([&] { mac.Set("1:2:3:4:5:\0006"); }));
}

TEST(MACAddress, TextIsLeftAlone) {
    std::string text = "aa:bb:cc:dd:ee:ff";
    MACAddress mac;
    mac.Set(text.data());
    EXPECT_EQ("aa:bb:cc:dd:ee:ff", text);
}

// Streams

TEST(MACAddress, IsWrittenInTwoForms) {
    struct Row {
        Octets octets;
        const char* hex;
        const char* decimal;
    };
    static constexpr Row rows[] = {
        {{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}, "00:1A:2B:3C:4D:5E", "000:26:43:60:77:94"},
        {{0, 0, 0, 0, 0, 0}, "00:00:00:00:00:00", "000:00:00:00:00:00"},
        {{1, 2, 3, 4, 5, 6}, "01:02:03:04:05:06", "001:02:03:04:05:06"},
        {{9, 9, 10, 15, 16, 99}, "09:09:0A:0F:10:63", "009:09:10:15:16:99"},
        {{99, 100, 101, 0, 200, 1}, "63:64:65:00:C8:01", "099:100:101:00:200:01"},
        {{0x7F, 0x80, 0xAB, 0xCD, 0xEF, 0xFF}, "7F:80:AB:CD:EF:FF", "127:128:171:205:239:255"},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, "FF:FF:FF:FF:FF:FF", "255:255:255:255:255:255"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.hex);
        std::ostringstream os;
        os << Address(row.octets) << ' ';
        os << std::hex << Address(row.octets) << ' ';
        os << std::dec << Address(row.octets);
        EXPECT_EQ(row.decimal + std::string(" ") + row.hex + " " + row.decimal, os.str());
    }
}

TEST(MACAddress, WritingReturnsTheStream) {
    std::ostringstream os;
    const MACAddress mac;
    EXPECT_EQ(&os, &(os << mac));
    EXPECT_EQ(&os, &(os << std::hex << mac));
}

TEST(MACAddress, LeavesHexUppercaseAndTheFillOnTheStream) {
    std::ostringstream os;
    os << std::setfill('*') << MACAddress() << std::setw(4) << 10;
    EXPECT_EQ("000:00:00:00:00:000010", os.str());
    EXPECT_EQ(std::ios_base::fmtflags{}, os.flags() & std::ios_base::uppercase);
    os.str("");
    os << std::setfill('*') << std::hex << MACAddress() << std::setw(4) << 10;
    EXPECT_EQ("00:00:00:00:00:00000A", os.str());
}

// The raw members

/// Catches what is written to std::cout, which has its buffer and its format back afterwards.
class CoutCapture {
public:
    CoutCapture() : m_format(nullptr), m_original(std::cout.rdbuf(m_text.rdbuf())) { m_format.copyfmt(std::cout); }
    ~CoutCapture() {
        std::cout.copyfmt(m_format);
        std::cout.rdbuf(m_original);
    }
    CoutCapture(const CoutCapture&) = delete;
    CoutCapture& operator=(const CoutCapture&) = delete;

    std::string Text() const { return m_text.str(); }

private:
    std::ostringstream m_text;
    std::ios m_format;
    std::streambuf* const m_original;
};

TEST(MACAddress, DebugShowsItsMembersInTheByteOrderOfTheMachine) {
    struct Row {
        Octets octets;
        const char* big;
        const char* little;
    };
    static constexpr Row rows[] = {
        {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, "0x112233, m_MACAddress2: 0x4455", "0x33221100, m_MACAddress2: 0x5544"},
        {{0, 0, 0, 0, 0, 0}, "0x0, m_MACAddress2: 0x0", "0x0, m_MACAddress2: 0x0"},
        {{1, 0, 0, 0, 1, 0}, "0x1000000, m_MACAddress2: 0x100", "0x1, m_MACAddress2: 0x1"},
        {{0, 0, 0, 1, 0, 1}, "0x1, m_MACAddress2: 0x1", "0x1000000, m_MACAddress2: 0x100"},
        // As many digits as the member has, though its number is negative.
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
         "0xffffffff, m_MACAddress2: 0xffff",
         "0xffffffff, m_MACAddress2: 0xffff"},
        {{0x80, 0, 0, 0x81, 0x90, 0xA1}, "0x80000081, m_MACAddress2: 0x90a1", "0x81000080, m_MACAddress2: 0xa190"},
        {{0x7F, 0, 0, 0xFE, 0x7F, 0xFE}, "0x7f0000fe, m_MACAddress2: 0x7ffe", "0xfe00007f, m_MACAddress2: 0xfe7f"},
        {{0xFE, 0, 0, 0x7F, 0xFE, 0x7F}, "0xfe00007f, m_MACAddress2: 0xfe7f", "0x7f0000fe, m_MACAddress2: 0x7ffe"},
    };
    for (const Row& row : rows) {
        const CoutCapture capture;
        const MACAddress mac = Address(row.octets);
        std::ostream& os = mac.debug();
        EXPECT_EQ(std::string("m_MACAddress4: ") + (htons(1) == 1 ? row.big : row.little) + "\n", capture.Text());
        EXPECT_EQ(&std::cout, &os);
    }
}

TEST(MACAddress, DebugLeavesTheOutputInHexadecimal) {
    for (std::ios_base& (*const base)(std::ios_base&) : {std::dec, std::oct, std::hex}) {
        const CoutCapture capture;
        std::cout << std::showpoint << std::setfill('*') << base;
        MACAddress().debug() << 254;
        EXPECT_EQ("fe", capture.Text().substr(capture.Text().find('\n') + 1));
        EXPECT_EQ(std::ios_base::hex, std::cout.flags() & std::ios_base::basefield);
        EXPECT_EQ(std::ios_base::showpoint, std::cout.flags() & std::ios_base::showpoint);
        EXPECT_EQ('*', std::cout.fill());
    }
}

TEST(MACAddress, DebugFollowsTheOtherFlagsOfTheOutput) {
    const Octets octets = {0xAB, 0xCD, 0xDC, 0xBA, 0xEF, 0xFE};
    const bool is_big = htons(1) == 1;
    const CoutCapture capture;
    std::cout << std::uppercase << std::setfill('*') << std::setw(20);
    Address(octets).debug();
    EXPECT_EQ(is_big ? "***m_MACAddress4: 0xABCDDCBA, m_MACAddress2: 0xEFFE\n"
                     : "***m_MACAddress4: 0xBADCCDAB, m_MACAddress2: 0xFEEF\n",
              capture.Text());
}

}  // namespace

#include <TarnSocketIO/CIPString.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>

#include "tests/support/Streams.h"

namespace {

using TarnSocketIO::CIPString;
using RawIP = TarnSocketIO::_RAW_IP;

using Octets = std::array<unsigned char, 4>;

constexpr std::size_t text_size = 16;

RawIP Raw(const Octets& octets) {
    return {{octets[0], octets[1], octets[2], octets[3]}};
}

IPv4::IPAddress Address(const Octets& octets) {
    return {octets[0], octets[1], octets[2], octets[3]};
}

std::string Dotted(const Octets& octets) {
    return std::to_string(octets[0]) + "." + std::to_string(octets[1]) + "." + std::to_string(octets[2]) + "." +
           std::to_string(octets[3]);
}

Octets OctetsOf(const CIPString& ip) {
    RawIP raw = {{0xAA, 0xAA, 0xAA, 0xAA}};
    ip.GetRawIP(raw);
    return {raw.m_Octets[0], raw.m_Octets[1], raw.m_Octets[2], raw.m_Octets[3]};
}

/// The dotted form of the octets, without asking the object for its text.
std::string OctetTextOf(const CIPString& ip) {
    return Dotted(OctetsOf(ip));
}

CIPString CopyOf(const CIPString& ip) {
    return ip;
}

/// Whether the object takes its text for current, as the last of its fields says.
bool HasText(const CIPString& ip) {
    return reinterpret_cast<const unsigned char*>(&ip)[sizeof(RawIP) + text_size] != 0;
}

void ExpectDefault(const CIPString& ip) {
    EXPECT_TRUE(HasText(ip));
    EXPECT_STREQ("", ip.c_str());
    EXPECT_EQ("0.0.0.0", OctetTextOf(ip));
    EXPECT_EQ(0, static_cast<int>(ip));
}

/// A text on the heap with nothing behind its terminator, so that the address sanitizer sees who reads on.
class TextBlock {
public:
    explicit TextBlock(const std::string& text) : m_block(std::make_unique<char[]>(text.size() + 1)) {
        std::copy(text.begin(), text.end(), m_block.get());
    }
    const char* Get() const { return m_block.get(); }

private:
    std::unique_ptr<char[]> m_block;
};

/// Every operation that sets the octets of an object that there is already.
struct Setter {
    const char* name;
    void (*set)(CIPString& ip, const Octets& octets);
};

constexpr Setter setters[] = {
    {"Parse", [](CIPString& ip, const Octets& octets) { ip.Parse(Dotted(octets).c_str()); }},
    {"operator=(const char*)", [](CIPString& ip, const Octets& octets) { ip = Dotted(octets).c_str(); }},
    {"operator=(_RAW_IP)", [](CIPString& ip, const Octets& octets) { ip = Raw(octets); }},
    {"operator=(IPAddress)", [](CIPString& ip, const Octets& octets) { ip = Address(octets); }},
    {"operator=(CIPString)", [](CIPString& ip, const Octets& octets) { ip = CIPString(Raw(octets)); }},
    {"Copy", [](CIPString& ip, const Octets& octets) { ip.Copy(CIPString(Raw(octets))); }},
};

// The type

static_assert(sizeof(RawIP) == 4 && std::is_trivial_v<RawIP>, "a plain record of four octets");
static_assert(sizeof(CIPString) == sizeof(RawIP) + text_size + sizeof(bool), "octets, text, flag and nothing else");
static_assert(!std::is_polymorphic_v<CIPString>);
static_assert(std::is_convertible_v<const char*, CIPString> && std::is_convertible_v<std::string, CIPString> &&
              std::is_convertible_v<RawIP, CIPString> && std::is_convertible_v<IPv4::IPAddress, CIPString>);
static_assert(std::is_convertible_v<const CIPString&, const char*> && std::is_convertible_v<const CIPString&, int>);
static_assert(std::is_convertible_v<const CIPString&, IPv4::IPAddress>);

TEST(CIPString, HoldsItsOctetsThenItsTextThenItsFlag) {
    const CIPString ip("1.2.3.4");
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&ip);
    EXPECT_EQ((Octets{1, 2, 3, 4}), (Octets{bytes[0], bytes[1], bytes[2], bytes[3]}));
    EXPECT_EQ(0, bytes[20]) << "current without a text";
    EXPECT_EQ(static_cast<const void*>(bytes + 4), ip.c_str());
    EXPECT_EQ(1, bytes[20]);
}

// Construction

TEST(CIPString, DefaultObjectIsZeroWithAnEmptyText) {
    ExpectDefault(CIPString());
    const CIPString ip;
    EXPECT_STREQ("", static_cast<const char*>(ip));
    EXPECT_STREQ("", ip.c_str_helper());
    const IPv4::IPAddress address = ip;
    EXPECT_EQ(0U, address.NetworkNumericForm());
}

TEST(CIPString, IsMadeFromNullAsTheDefaultObject) {
    const char* const null = nullptr;
    ExpectDefault(CIPString(null));
}

TEST(CIPString, IsMadeFromAStringOfFewerThanSevenCharactersAsTheDefaultObject) {
    using std::string_literals::operator""s;
    for (const std::string& text :
         {""s, "1"s, "1.2.3"s, "1.2.3."s, "......"s, "123456"s, "1.2\0.3"s, "\0\0\0\0\0\0"s}) {
        SCOPED_TRACE(text);
        ExpectDefault(CIPString(text));
    }
}

TEST(CIPString, IsParsedFromAStringOfSevenCharacters) {
    using std::string_literals::operator""s;
    struct Row {
        std::string text;
        const char* expected;
    };
    const Row rows[] = {
        {"1.2.3.4"s, "1.2.3.4"},
        {"1.2.3.."s, "1.2.3.0"},
        {"......."s, "0.0.0.0"},
        {"       "s, "0.0.0.0"},
        {"1234567"s, "123.55.0.0"},
        {"12.3.4 "s, "12.3.4.0"},
        {"255.255.255.255"s, "255.255.255.255"},
        // The length counts what is behind a NUL; the parser ends there.
        {"1.2\0.3."s, "1.2.0.0"},
        {"\0.2.3.4"s, "0.0.0.0"},
        {"1.2.3.4\0"s, "1.2.3.4"},
        {"1.2.3.4\0005"s, "1.2.3.4"},
        {"12.3.4.5\0006"s, "12.3.4.5"},
        {"1.2.3\0.4"s, "1.2.3.0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        const CIPString ip(row.text);
        EXPECT_FALSE(HasText(ip));
        EXPECT_EQ(row.expected, OctetTextOf(ip));
        EXPECT_STREQ(row.expected, ip.c_str());
    }
}

TEST(CIPString, IsParsedFromCharactersOfAnyNumber) {
    EXPECT_STREQ("0.0.0.0", CIPString("").c_str()) << "parsed, unlike an empty string object";
    EXPECT_STREQ("1.0.0.0", CIPString("1").c_str());
    EXPECT_STREQ("1.2.3.0", CIPString("1.2.3").c_str());
    EXPECT_STREQ("192.168.1.20", CIPString("192.168.1.20").c_str());
}

TEST(CIPString, IsMadeFromRawOctets) {
    const CIPString ip(Raw({10, 0, 0, 1}));
    EXPECT_FALSE(HasText(ip));
    EXPECT_STREQ("10.0.0.1", ip.c_str());
    EXPECT_STREQ("0.0.0.0", CIPString(RawIP{}).c_str());
}

TEST(CIPString, IsMadeFromAnAddress) {
    const CIPString ip(IPv4::IPAddress(192, 168, 1, 20));
    EXPECT_FALSE(HasText(ip));
    EXPECT_EQ((Octets{192, 168, 1, 20}), OctetsOf(ip));
    EXPECT_STREQ("192.168.1.20", ip.c_str());
    EXPECT_EQ(-1062731500, static_cast<int>(ip));
    EXPECT_STREQ("0.0.0.0", CIPString(IPv4::IPAddress()).c_str());
}

TEST(CIPString, IsCopiedWithoutItsText) {
    const CIPString original("192.168.1.20");
    const CIPString early = CopyOf(original);
    EXPECT_FALSE(HasText(early));
    EXPECT_FALSE(HasText(original)) << "copying has no use for a text";
    ASSERT_STREQ("192.168.1.20", original.c_str());
    const CIPString late = CopyOf(original);
    EXPECT_FALSE(HasText(late));
    EXPECT_STREQ("192.168.1.20", early.c_str());
    EXPECT_STREQ("192.168.1.20", late.c_str());
    EXPECT_NE(original.c_str(), late.c_str());
}

TEST(CIPString, CopyOfTheDefaultObjectHasATextOfZeros) {
    const CIPString original;
    const CIPString copy = CopyOf(original);
    EXPECT_FALSE(HasText(copy));
    EXPECT_STREQ("0.0.0.0", copy.c_str());
    EXPECT_STREQ("", original.c_str());
    CIPString assigned("1.2.3.4");
    assigned = original;
    EXPECT_STREQ("0.0.0.0", assigned.c_str());
    CIPString copied("1.2.3.4");
    copied.Copy(original);
    EXPECT_STREQ("0.0.0.0", copied.c_str());
}

TEST(CIPString, CopyAndOriginalAreIndependent) {
    CIPString original("1.2.3.4");
    CIPString copy(original);
    copy = "5.6.7.8";
    EXPECT_STREQ("1.2.3.4", original.c_str());
    EXPECT_STREQ("5.6.7.8", copy.c_str());
    original = copy;
    copy = "9.9.9.9";
    EXPECT_STREQ("5.6.7.8", original.c_str());
}

// Assignment, and the text between changes

TEST(CIPString, SettersReplaceEveryOctet) {
    for (const Setter& setter : setters) {
        SCOPED_TRACE(setter.name);
        for (const Octets& octets : {Octets{10, 0, 0, 1}, Octets{0, 0, 0, 0}, Octets{255, 254, 253, 252}}) {
            CIPString from_default;
            setter.set(from_default, octets);
            EXPECT_FALSE(HasText(from_default));
            EXPECT_EQ(octets, OctetsOf(from_default));
            EXPECT_EQ(Dotted(octets), from_default.c_str());
            CIPString from_another("172.16.254.123");
            setter.set(from_another, octets);
            EXPECT_FALSE(HasText(from_another));
            EXPECT_EQ(octets, OctetsOf(from_another));
            EXPECT_EQ(Dotted(octets), from_another.c_str());
        }
    }
}

TEST(CIPString, TextChangesWhenItIsNextAskedFor) {
    for (const Setter& setter : setters) {
        SCOPED_TRACE(setter.name);
        CIPString ip("192.168.100.200");
        const char* const text = ip.c_str();
        EXPECT_STREQ("192.168.100.200", text);
        EXPECT_TRUE(HasText(ip));
        setter.set(ip, {10, 0, 0, 1});
        EXPECT_FALSE(HasText(ip));
        EXPECT_STREQ("192.168.100.200", text);
        EXPECT_EQ(text, ip.c_str());
        EXPECT_STREQ("10.0.0.1", text);
        EXPECT_TRUE(HasText(ip));
    }
}

TEST(CIPString, TextIsMadeAnewAfterItsOwnOctetsWereSet) {
    for (const Setter& setter : setters) {
        SCOPED_TRACE(setter.name);
        CIPString ip("10.0.0.1");
        ASSERT_STREQ("10.0.0.1", ip.c_str());
        setter.set(ip, {10, 0, 0, 1});
        EXPECT_FALSE(HasText(ip));
        EXPECT_STREQ("10.0.0.1", ip.c_str());
    }
}

TEST(CIPString, TextIsMadeByEachOfItsThreeNames) {
    const CIPString first("1.2.3.4");
    EXPECT_STREQ("1.2.3.4", static_cast<const char*>(first));
    EXPECT_TRUE(HasText(first));
    const CIPString second("1.2.3.4");
    EXPECT_STREQ("1.2.3.4", second.c_str());
    EXPECT_TRUE(HasText(second));
    const CIPString third("1.2.3.4");
    EXPECT_STREQ("1.2.3.4", third.c_str_helper());
    EXPECT_TRUE(HasText(third));
    EXPECT_EQ(static_cast<const char*>(third), third.c_str());
    EXPECT_EQ(third.c_str_helper(), third.c_str());
    EXPECT_EQ(7U, std::strlen(third)) << "stands where a string is asked for";
}

TEST(CIPString, TextIsFollowedByNothingOfALongerOne) {
    CIPString ip("255.255.255.255");
    ASSERT_EQ(15U, std::strlen(ip.c_str()));
    ip = "1.2.3.4";
    std::string expected = "1.2.3.4";
    expected.resize(text_size);
    EXPECT_EQ(expected, std::string(ip.c_str(), text_size));
}

TEST(CIPString, AssignmentReturnsTheObject) {
    CIPString ip;
    const CIPString other("1.2.3.4");
    EXPECT_EQ(&ip, &(ip = other));
    EXPECT_EQ(&ip, &(ip = "1.2.3.4"));
    EXPECT_EQ(&ip, &(ip = Raw({1, 2, 3, 4})));
    EXPECT_EQ(&ip, &(ip = IPv4::IPAddress(1, 2, 3, 4)));
    const CIPString& itself = ip;
    EXPECT_EQ(&ip, &(ip = itself));
    const char* const null = nullptr;
    EXPECT_EQ(&ip, &(ip = null));
}

TEST(CIPString, AssigningAnObjectToItselfDoesNothing) {
    CIPString ip;
    const CIPString& itself = ip;
    ip = itself;
    ExpectDefault(ip);
    ip = "1.2.3.4";
    ip = itself;
    EXPECT_FALSE(HasText(ip));
    EXPECT_STREQ("1.2.3.4", ip.c_str());
    ip = itself;
    EXPECT_TRUE(HasText(ip));
    EXPECT_STREQ("1.2.3.4", ip.c_str());
}

TEST(CIPString, CopyingAnObjectToItselfMakesItsTextAnew) {
    CIPString ip;
    ip.Copy(ip);
    EXPECT_FALSE(HasText(ip));
    EXPECT_STREQ("0.0.0.0", ip.c_str());
    ip = "1.2.3.4";
    ip.Copy(ip);
    EXPECT_STREQ("1.2.3.4", ip.c_str());
}

TEST(CIPString, NullChangesNoOctetButMakesTheTextAnew) {
    const char* const null = nullptr;
    CIPString parsed("192.168.5.7");
    ASSERT_STREQ("192.168.5.7", parsed.c_str());
    parsed.Parse(null);
    EXPECT_FALSE(HasText(parsed));
    EXPECT_STREQ("192.168.5.7", parsed.c_str());
    CIPString assigned("192.168.5.7");
    ASSERT_STREQ("192.168.5.7", assigned.c_str());
    assigned = null;
    EXPECT_FALSE(HasText(assigned));
    EXPECT_STREQ("192.168.5.7", assigned.c_str());
    CIPString fresh;
    fresh.Parse(null);
    EXPECT_STREQ("0.0.0.0", fresh.c_str());
}

// Parsing

struct ParseRow {
    const char* text;
    const char* onto;   // what it makes of 192.168.5.7
    const char* fresh;  // what it makes of zeros
};

constexpr ParseRow parse_rows[] = {
    {"1.2.3.4", "1.2.3.4", "1.2.3.4"},
    {"255.255.255.255", "255.255.255.255", "255.255.255.255"},
    {"0.0.0.0", "0.0.0.0", "0.0.0.0"},
    {"001.02.003.04", "1.2.3.4", "1.2.3.4"},
    {"010.08.9.077", "10.8.9.77", "10.8.9.77"},
    // The rest behind four fields is ignored.
    {"1.2.3.4.5", "1.2.3.4", "1.2.3.4"},
    {"1.2.3.4 and more", "1.2.3.4", "1.2.3.4"},
    {"1.2.3.4567", "1.2.3.200", "1.2.3.200"},
    // Fewer than four fields leave octets as they were.
    {"", "0.168.5.7", "0.0.0.0"},
    {"10", "10.168.5.7", "10.0.0.0"},
    {"10.1", "10.1.5.7", "10.1.0.0"},
    {"10.1.2", "10.1.2.7", "10.1.2.0"},
    {"123", "123.168.5.7", "123.0.0.0"},
    {"10.123", "10.123.5.7", "10.123.0.0"},
    {"1.2.123", "1.2.123.7", "1.2.123.0"},
    // Empty fields are 0, the one behind a last dot too.
    {"192.", "192.0.5.7", "192.0.0.0"},
    {"19.16.5.", "19.16.5.0", "19.16.5.0"},
    {".", "0.0.5.7", "0.0.0.0"},
    {"..", "0.0.0.7", "0.0.0.0"},
    {"...", "0.0.0.0", "0.0.0.0"},
    {"....", "0.0.0.0", "0.0.0.0"},
    {".....1", "0.0.0.0", "0.0.0.0"},
    {".1", "0.1.5.7", "0.1.0.0"},
    {"..1", "0.0.1.7", "0.0.1.0"},
    {"1..3.4", "1.0.3.4", "1.0.3.4"},
    // A fourth character is skipped, whatever it is, and the next field begins behind it.
    {"1234.5.6.7", "123.0.5.6", "123.0.5.6"},
    {"1234", "123.0.5.7", "123.0.0.0"},
    {"12345", "123.5.5.7", "123.5.0.0"},
    {"1234567", "123.55.5.7", "123.55.0.0"},
    {"12345678", "123.55.0.7", "123.55.0.0"},
    {"001002003004", "1.20.44.0", "1.20.44.0"},
    {"001x002x003x004", "1.2.3.4", "1.2.3.4"},
    {"001-002-003-004", "1.2.3.4", "1.2.3.4"},
    {"1.2345.6.7", "1.234.0.6", "1.234.0.6"},
    {"1.2.3456.7", "1.2.89.0", "1.2.89.0"},
    {"00000.1.2", "0.0.1.2", "0.0.1.2"},
    // The low eight bits of the number count.
    {"256.257.300.999", "0.1.44.231", "0.1.44.231"},
    {"254.255.256.511", "254.255.0.255", "254.255.0.255"},
    {"512.513.767.768", "0.1.255.0", "0.1.255.0"},
    {"-1", "255.168.5.7", "255.0.0.0"},
    {"-1.-2.-9.-10", "255.254.247.246", "255.254.247.246"},
    {"-99.-0.+0.+99", "157.0.0.99", "157.0.0.99"},
    {"-123.4", "244.0.4.7", "244.0.4.0"},
    {"+1.+12.+123.5", "1.12.12.0", "1.12.12.0"},
    // A number ends where its digits do.
    {"1a", "1.168.5.7", "1.0.0.0"},
    {"1a.2b.3c.4d", "1.2.3.4", "1.2.3.4"},
    {"12a.1a2.a12.a", "12.1.0.0", "12.1.0.0"},
    {"0x1.0xF.0b1.1e2", "0.0.0.1", "0.0.0.1"},
    {"1-2.3+4.-.+", "1.3.0.0", "1.3.0.0"},
    {"--1.+-1.-+1.++1", "0.0.0.0", "0.0.0.0"},
    {"1,2.3/4.5:6.7;8", "1.3.5.7", "1.3.5.7"},
    {"a.b.c.d", "0.0.0.0", "0.0.0.0"},
    {"localhost", "0.0.0.7", "0.0.0.0"},
    // Blanks before a number do not count, and behind it they end it.
    {" 1.  2.3 .4  ", "1.2.3.4", "1.2.3.4"},
    {"\t1.\n2.\v3.\f4", "1.2.3.4", "1.2.3.4"},
    {"\r1. -2. +3.\t\t4", "1.254.3.4", "1.254.3.4"},
    {"1 2.3\t4.- 1.+ 1", "1.3.0.0", "1.3.0.0"},
    {" ", "0.168.5.7", "0.0.0.0"},
    {"   ", "0.168.5.7", "0.0.0.0"},
    {"    ", "0.0.5.7", "0.0.0.0"},
    {"   1", "0.0.5.7", "0.0.0.0"},
    {"   .1", "0.1.5.7", "0.1.0.0"},
    {"\b1.\0012", "0.0.5.7", "0.0.0.0"},
    // Bytes above 127 are neither digits nor blanks.
    {"\377.\200.\240.\262", "0.0.0.0", "0.0.0.0"},
    {"1\377.2\200.\2403.\2054", "1.2.0.0", "1.2.0.0"},
    {"\302\2401.5", "0.5.5.7", "0.5.0.0"},
    {"\331\241\331\242", "0.0.5.7", "0.0.0.0"},
};

TEST(CIPString, ParsesLeniently) {
    for (const ParseRow& row : parse_rows) {
        SCOPED_TRACE(row.text);
        const TextBlock text(row.text);
        CIPString parsed("192.168.5.7");
        parsed.Parse(text.Get());
        EXPECT_EQ(row.onto, OctetTextOf(parsed));
        EXPECT_STREQ(row.onto, parsed.c_str());
        CIPString assigned("192.168.5.7");
        assigned = text.Get();
        EXPECT_EQ(row.onto, OctetTextOf(assigned));
        const CIPString made(text.Get());
        EXPECT_EQ(row.fresh, OctetTextOf(made));
        EXPECT_STREQ(row.fresh, made.c_str());
        const std::string string(row.text);
        EXPECT_EQ(string.size() < 7 ? "0.0.0.0" : row.fresh, OctetTextOf(CIPString(string)));
    }
}

TEST(CIPString, ParsesTheFrontOfAVeryLongText) {
    const std::string text = "1.2.3.4" + std::string(100000, '9');
    EXPECT_STREQ("1.2.3.243", CIPString(text.c_str()).c_str());
    EXPECT_STREQ("0.0.0.0", CIPString(std::string(100000, '.')).c_str());
}

TEST(CIPString, ParsesItsOwnText) {
    CIPString ip("192.168.1.20");
    ip.Parse(ip.c_str());
    EXPECT_FALSE(HasText(ip));
    EXPECT_STREQ("192.168.1.20", ip.c_str());
    ip = ip.c_str();
    EXPECT_STREQ("192.168.1.20", ip.c_str());
    ip.Parse(ip.c_str() + 4);
    EXPECT_STREQ("168.1.20.20", ip.c_str());
    ip = ip.c_str() + std::strlen(ip.c_str());
    EXPECT_STREQ("0.1.20.20", ip.c_str());
    CIPString fresh;
    fresh.Parse(fresh.c_str());
    EXPECT_STREQ("0.0.0.0", fresh.c_str());
}

TEST(CIPString, ParseLeavesItsTextAlone) {
    std::string text = " 1.300.-1.12345";
    const std::string before = text;
    CIPString ip(text.c_str());
    ip.Parse(text.data());
    EXPECT_EQ(before, text);
}

// Conversions

TEST(CIPString, IsANumberWhoseMostSignificantByteIsTheFirstOctet) {
    struct Row {
        const char* text;
        int number;
    };
    static constexpr Row rows[] = {
        {"0.0.0.0", 0},
        {"0.0.0.1", 1},
        {"0.0.1.0", 256},
        {"0.1.0.0", 65536},
        {"1.0.0.0", 16777216},
        {"1.2.3.4", 0x01020304},
        {"0.0.0.255", 255},
        {"0.255.0.0", 0xFF0000},
        {"127.0.0.1", 0x7F000001},
        {"127.255.255.255", std::numeric_limits<int>::max()},
        {"128.0.0.0", std::numeric_limits<int>::min()},
        {"128.0.0.1", -2147483647},
        {"192.168.1.20", -1062731500},
        {"224.0.0.251", -536870661},
        {"255.0.0.0", -16777216},
        {"255.255.255.254", -2},
        {"255.255.255.255", -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        const CIPString ip(row.text);
        const int number = ip;
        EXPECT_EQ(row.number, number);
        EXPECT_FALSE(HasText(ip)) << "a number needs no text";
    }
}

TEST(CIPString, IsTurnedIntoTheSameAddress) {
    for (const Octets& octets : {Octets{0, 0, 0, 0}, Octets{1, 2, 3, 4}, Octets{255, 254, 1, 128}}) {
        SCOPED_TRACE(Dotted(octets));
        const CIPString ip(Raw(octets));
        const IPv4::IPAddress address = ip;
        EXPECT_TRUE(address == Address(octets));
        EXPECT_EQ(0, std::memcmp(address.OctetForm(), octets.data(), octets.size()));
        EXPECT_FALSE(HasText(ip));
        EXPECT_EQ(octets, OctetsOf(CIPString(address)));
    }
}

TEST(CIPString, GivesItsRawOctets) {
    const CIPString ip("9.10.99.100");
    RawIP raw = {{1, 1, 1, 1}};
    ip.GetRawIP(raw);
    EXPECT_EQ((Octets{9, 10, 99, 100}), (Octets{raw.m_Octets[0], raw.m_Octets[1], raw.m_Octets[2], raw.m_Octets[3]}));
    EXPECT_FALSE(HasText(ip));
    raw.m_Octets[0] = 77;
    EXPECT_STREQ("9.10.99.100", ip.c_str());
}

TEST(CIPString, TextHasAsManyDigitsAsItsNumbersNeed) {
    for (const char* const text : {"0.0.0.0", "0.9.10.99", "9.10.99.100", "10.99.100.199", "99.100.199.200",
                                   "100.200.255.0", "1.1.1.1", "11.11.11.11", "111.111.111.111", "255.255.255.255"}) {
        EXPECT_STREQ(text, CIPString(text).c_str());
    }
}

TEST(CIPString, TextDoesNotFollowTheGlobalLocale) {
    const TarnTest::GlobalLocale marks(TarnTest::MarkedDigits());
    EXPECT_STREQ("192.168.100.200", CIPString("192.168.100.200").c_str());
}

}  // namespace

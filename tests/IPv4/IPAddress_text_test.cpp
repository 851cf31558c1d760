#include <TarnSocketIO/IPv4/IPAddress.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <ios>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace {

using namespace std::string_literals;
using IPv4::IPAddress;
using IPv4::StrToAddress;
using Manipulator = std::ios_base& (*)(std::ios_base&);

template <Endian e, class Text, class = void>
struct Parses : std::false_type {};
template <Endian e, class Text>
struct Parses<e, Text, std::void_t<decltype(StrToAddress<e>(std::declval<Text>()))>> : std::true_type {};

static_assert(Parses<BigEndian, const char*>::value);
static_assert(Parses<BigEndian, const std::string&>::value);
static_assert(!Parses<LittleEndian, const char*>::value);
static_assert(!Parses<LittleEndian, const std::string&>::value);
static_assert(std::is_same_v<decltype(StrToAddress<BigEndian>("0")), in_addr_t>);

// What becomes of a text: four decimal octets, or the exception

constexpr char bad_length[] = "runtime_error: bad ip address string length";
constexpr char bad_text[] = "runtime_error: bad ip address string";
constexpr char bad_field[] = "range_error: bad ip address string field";

std::string Dotted(const unsigned char (&octets)[4]) {
    return std::to_string(octets[0]) + '.' + std::to_string(octets[1]) + '.' + std::to_string(octets[2]) + '.' +
           std::to_string(octets[3]);
}

/// Octets of a word in network order, by none of the library's operations.
std::string Dotted(in_addr_t word) {
    unsigned char octets[4];
    static_assert(sizeof octets == sizeof word);
    std::memcpy(octets, &word, sizeof octets);
    return Dotted(octets);
}

std::string NameOf(const std::exception& e) {
    if (typeid(e) == typeid(std::runtime_error)) {
        return "runtime_error";
    }
    return typeid(e) == typeid(std::range_error) ? "range_error" : typeid(e).name();
}

template <class Call>
std::string ResultOf(const Call& call) {
    try {
        return call();
    } catch (const std::exception& e) {
        return NameOf(e) + ": " + e.what();
    }
}

/// By StrToAddress; fails the test if another way from text to an address has another result.
std::string Reading(const std::string& text) {
    std::string reading = ResultOf([&] { return Dotted(StrToAddress<BigEndian>(text.c_str())); });
    EXPECT_EQ(reading, ResultOf([&] { return Dotted(StrToAddress<BigEndian>(text)); }));
    EXPECT_EQ(reading, ResultOf([&] { return Dotted(IPAddress(text.c_str()).NetworkNumericForm()); }));
    EXPECT_EQ(reading, ResultOf([&] { return Dotted(IPAddress(text).NetworkNumericForm()); }));
    IPAddress ip;
    EXPECT_EQ(reading, ResultOf([&] { return Dotted((ip = text.c_str()).NetworkNumericForm()); }));
    EXPECT_EQ(reading, ResultOf([&] { return Dotted((ip = text).NetworkNumericForm()); }));
    return reading;
}

struct Case {
    std::string text;
    std::string reading;
};

void Hold(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.text));
        EXPECT_EQ(c.reading, Reading(c.text));
    }
}

void HoldRefused(const char* reading, const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
        SCOPED_TRACE(testing::PrintToString(text));
        EXPECT_EQ(reading, Reading(text));
    }
}

TEST(StrToAddress, ReadsDecimalFields) {
    Hold({{"0.0.0.0", "0.0.0.0"},
          {"1.2.3.4", "1.2.3.4"},
          {"9.10.99.100", "9.10.99.100"},
          {"127.0.0.1", "127.0.0.1"},
          {"192.168.1.254", "192.168.1.254"},
          {"199.200.249.250", "199.200.249.250"},
          {"255.255.255.255", "255.255.255.255"}});
}

TEST(StrToAddress, ReadsALeadingZeroAsOctal) {
    Hold({{"010.1.1.1", "8.1.1.1"},
          {"1.2.3.00", "1.2.3.0"},
          {"01.002.0003.00004", "1.2.3.4"},
          {"1.1.1.077", "1.1.1.63"},
          {"1.1.1.0100", "1.1.1.64"},
          {"0377.0377.0377.0377", "255.255.255.255"},
          {"1.1.1.0000000000377", "1.1.1.255"},
          {"1.1.1.0400", bad_field},
          {"1.2.3.08", bad_text},
          {"1.2.3.09", bad_text},
          {"1.2.3.018", bad_text},
          {"08.1.1.1", bad_text},
          {"1.2.3.0o7", bad_text}});
}

TEST(StrToAddress, ReadsAnXAfterZeroAsHexadecimal) {
    Hold({{"0x0a.1.1.1", "10.1.1.1"},
          {"0X0A.1.1.1", "10.1.1.1"},
          {"0xff.0xFF.0Xff.0XFF", "255.255.255.255"},
          {"0xaB.0xCd.0xeF.0x9", "171.205.239.9"},
          {"1.1.1.0x0000000000f", "1.1.1.15"},
          {"1.1.1.0x7f", "1.1.1.127"},
          {"1.1.1.0x80", "1.1.1.128"},
          {"1.1.1.0x100", bad_field},
          {"1.1.1.0x", bad_text},
          {"0x.1.1.1", bad_text},
          {"1.1.1.0xg", bad_text},
          {"1.1.1.0x1g", bad_text},
          {"1.1.1.0x 1", bad_text},
          {"1.1.1.0x-1", bad_text},
          {"1.1.1.0x0x1", bad_text},
          {"1.1.1.00x1", bad_text},
          {"1.1.1.x1", bad_text},
          {"1.1.1.a", bad_text},
          {"1.1.1.ff", bad_text}});
}

TEST(StrToAddress, KnowsNoOtherPrefix) {
    HoldRefused(bad_text, {"0b1.1.1.1", "0B1.1.1.1", "1.1.1.0b0", "1.1.1.0b", "1.1.1.0d1", "1.1.1.#1", "1.1.1.$1",
                           "1.1.1.1h", "1.1.1.1u", "1.1.1.1L", "1.1.1.1e1"});
}

TEST(StrToAddress, ReadsAnEmptyFieldAsZero) {
    Hold({{"10.20..3", "10.20.0.3"},
          {"...1234", bad_field},
          {"...0255", "0.0.0.173"},
          {"...  25", "0.0.0.25"},
          {"..255.1", "0.0.255.1"},
          {".0xff..", "0.255.0.0"},
          {"0xff...", "255.0.0.0"},
          {"255.1..", "255.1.0.0"},
          {"1.2.34.", "1.2.34.0"},
          {".1.2.34", "0.1.2.34"}});
}

TEST(StrToAddress, ReadsASign) {
    Hold({{"-0.1.2.3", "0.1.2.3"},     {"+1.+2.+3.+4", "1.2.3.4"}, {"+0x1f.-0x0.+017.-00", "31.0.15.0"},
          {"1.2.3.+255", "1.2.3.255"}, {"1.2.3.+256", bad_field},  {"1.2.3.-1", bad_field},
          {"-1.2.3.4", bad_field},     {"1.-0x1.3.4", bad_field},  {"1.2.-01.4", bad_field},
          {"1.2.3.-255", bad_field},   {"1.2.3.-256", bad_field},  {"1.2.3.+", bad_text},
          {"1.2.3.-", bad_text},       {"+.2.3.44", bad_text},     {"1.2.3.++4", bad_text},
          {"1.2.3.--0", bad_text},     {"1.2.3.+-0", bad_text},    {"1.2.3.-+0", bad_text},
          {"1.2.3.+ 4", bad_text},     {"1.2.3.- 0", bad_text},    {"1.2.3.4+", bad_text},
          {"1.2.3.4-", bad_text}});
}

TEST(StrToAddress, SkipsBlanksBeforeANumberAndRefusesThemBehindIt) {
    for (const char blank : {' ', '\t', '\n', '\v', '\f', '\r'}) {
        SCOPED_TRACE(static_cast<int>(blank));
        Hold({{blank + "1.2.3.4"s, "1.2.3.4"},
              {"1."s + blank + "2.3.4", "1.2.3.4"},
              {"1.2."s + blank + blank + "3.4", "1.2.3.4"},
              {"1.2.3."s + blank + "4", "1.2.3.4"},
              {blank + "-0."s + blank + "+2.3."s + blank + "0x4", "0.2.3.4"},
              {"1.2.3.4"s + blank, bad_text},
              {"1"s + blank + ".2.3.4", bad_text},
              {"1.2.3"s + blank + ".4", bad_text},
              {"1.2.3."s + blank, bad_text},
              {std::string(4, blank) + "...1", bad_text},
              {"1 .2.3.4", bad_text},
              {"1.2.3.1"s + blank + "1", bad_text}});
    }
    EXPECT_EQ("1.2.3.4", Reading("1. \t\n\v\f\r2.3.4"));
    EXPECT_EQ("1.2.3.4", Reading(std::string(12, ' ') + "1.2.3.4"));
}

TEST(StrToAddress, TellsNumbersOutsideAnOctetFromOtherErrors) {
    Hold({{"255.1.1.1", "255.1.1.1"},
          {"256.1.1.1", bad_field},
          {"1.256.1.1", bad_field},
          {"1.1.256.1", bad_field},
          {"1.1.1.256", bad_field},
          {"1.1.1.257", bad_field},
          {"1.1.1.300", bad_field},
          {"1.1.1.511", bad_field},
          {"1.1.1.512", bad_field},
          {"1.1.1.999", bad_field},
          {"1.1.1.1000", bad_field},
          {"1.1.1.32768", bad_field},
          {"1.1.1.65535", bad_field},
          {"1.1.1.65536", bad_field},
          {"1.1.1.65537", bad_field},
          {"1.1.1.-65536", bad_field},
          {"1.1.1.16777216", bad_field},
          {"1.1.1.0x1000000", bad_field}});
}

// A long of four bytes ends at 2147483647, and a number beyond it must not come round to an octet again.
TEST(StrToAddress, RefusesNumbersThatNoLongHolds) {
    HoldRefused(bad_field, {"1.1.1.2147483647",    "1.1.1.2147483648",    "1.1.1.-2147483648",  "1.1.1.-2147483649",
                            "1.1.1.4294967295",    "1.1.1.4294967296",    "1.1.1.4294967297",   "1.1.1.4294967551",
                            "1.1.1.-4294967295",   "1.1.1.-4294967296",   "1.1.1.-4294967297",  "1.1.1.8589934593",
                            "1.1.1.9999999999999", "1.1.1.-999999999999", "1.1.1.0x7fffffff",   "1.1.1.0x80000000",
                            "1.1.1.0xffffffff",    "1.1.1.0x100000000",   "1.1.1.0x100000001",  "1.1.1.-0xffffffff",
                            "1.1.1.-0x100000000",  "1.1.1.0x10000000001", "1.1.1.037777777777", "1.1.1.040000000000",
                            "1.1.1.040000000001",  "1.1.1.0400000000001", "9999999999999.1.1.1"});
    EXPECT_EQ(bad_text, Reading("1.1.1.99999999999x"));
    EXPECT_EQ(bad_text, Reading("1.1.1.4294967296 "));
}

TEST(StrToAddress, CountsTheDots) {
    HoldRefused(bad_text,
                {"100.2.3",  "1234567",   "255.255",   "1.1.1.1.",   ".1.1.1.1", "1.2.3.4.5",  "1.2.3.4.5.6",
                 "1.1..1.1", "1..2.3.4.", ".......",   "....1.1",    "0000000",  "0x1.0x2",    "1,2,3,4",
                 "1:2:3:4",  "1.2.3,4",   "localhost", "0xc0a80101", "16909060", "2130706433", "192.168.1.1.192.168"});
}

TEST(StrToAddress, AcceptsOneShortTextOnly) {
    EXPECT_EQ("0.0.0.0", Reading("0"));
    HoldRefused(bad_length, {"",    " ",     "1",     "-",      ".",      "x",      "\1",     "\xff",  "00",
                             "+0",  "-0",    " 0",    "0 ",     "0.",     ".0",     "0x0",    "...",   "000",
                             "0.0", "0.0.0", "1.2.3", "0.0.0.", "1.2.3.", ".1.2.3", "000000", "1..2.3"});
}

TEST(StrToAddress, TakesSevenToNineteenCharacters) {
    for (std::size_t length = 0; length <= 64; ++length) {
        SCOPED_TRACE(length);
        const bool fits = length >= 7 && length <= 19;
        const std::size_t padding = length < 7 ? 0 : length - 7;
        const auto cut = [length](const std::string& text) { return text.substr(0, length); };
        EXPECT_EQ(fits ? "1.2.3.4" : bad_length, Reading(cut("1.2.3." + std::string(padding, '0') + "4")));
        EXPECT_EQ(fits ? "1.2.3.4" : bad_length, Reading(cut(std::string(padding, '0') + "1.2.3.4")));
        EXPECT_EQ(fits ? "1.2.3.4" : bad_length, Reading(cut("1.2." + std::string(padding, ' ') + "3.4")));
        EXPECT_EQ(fits ? bad_text : bad_length, Reading(std::string(length, '.')));
        EXPECT_EQ(fits ? bad_text : bad_length, Reading(std::string(length, '1')));
        EXPECT_EQ(fits ? bad_text : bad_length, Reading(cut("1.2.3.x" + std::string(padding, '4'))));
        if (length != 1) {
            EXPECT_EQ(fits ? bad_text : bad_length, Reading(std::string(length, '0')));
        }
    }
    for (const std::size_t length : {255U, 256U, 263U, 65536U, 65543U, 1000000U}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(bad_length, Reading("1.2.3." + std::string(length - 7, '0') + "4"));
    }
}

TEST(StrToAddress, ReportsTheFirstErrorOfItsOrder) {
    Hold({{"1.2.3", bad_length},                 // too short, and a dot is missing
          {"256..x", bad_length},                // too short, and everything else
          {"1.2.3.4.256.x.000000", bad_length},  // twenty characters, and everything else
          {"256.256.256.256.256", bad_text},     // a dot too many, before any number is looked at
          {"256.256", bad_text},                 // dots missing, before any number is looked at
          {"256.1.1x", bad_text},                //
          {"256x.1.1.1", bad_text},              // what is left over, before the number's size
          {"256.1x.1.1", bad_field},             // the first field, before the second
          {"1x.256.1.1", bad_text},              //
          {"1.256.1.x", bad_field},              //
          {"1.x.1.256", bad_text},               //
          {"1.2.256.4 ", bad_field},             //
          {"1.2.-1.x", bad_field},               //
          {"1.2.3.256 ", bad_text},              //
          {"-1 .2.3.4", bad_text}});
}

// Every byte in three places of a text. None beyond ASCII is a blank or a digit.
TEST(StrToAddress, KnowsDigitsSignsDotsAndSixBlanksOnly) {
    const std::string digits = "0123456789";
    const std::string blanks = " \t\n\v\f\r";
    for (int value = 1; value < 256; ++value) {
        SCOPED_TRACE(value);
        const char byte = static_cast<char>(value);
        const bool is_digit = digits.find(byte) != std::string::npos;
        const bool is_blank = blanks.find(byte) != std::string::npos;
        const std::string digit = std::to_string(value - '0');
        const std::string first = byte == '0' ? "1" : digit + "1";
        EXPECT_EQ(is_digit                  ? first + ".2.3.4"
                  : is_blank || byte == '+' ? "1.2.3.4"
                  : byte == '-'             ? bad_field
                                            : bad_text,
                  Reading(byte + "1.2.3.4"s));
        EXPECT_EQ(is_digit ? "10.2." + digit + ".4" : bad_text, Reading("10.2."s + byte + ".4"));
        EXPECT_EQ(is_digit ? "1.2.3.4" + digit : bad_text, Reading("1.2.3.4"s + byte));
    }
}

TEST(StrToAddress, EndsAStringAtItsFirstNul) {
    Hold({{"1.2.3.4\0.5"s, "1.2.3.4"},
          {"1.2.3.4\0 and far more than nineteen characters"s, "1.2.3.4"},
          {"0\0.10.1.1.1"s, "0.0.0.0"},
          {"1.2.3\0.4"s, bad_length},
          {std::string(1, '\0'), bad_length},
          {"\0001.2.3.4"s, bad_length},
          {"1.2.3.\0004"s, bad_length},
          {"1.2.333\0.4"s, bad_text}});
}

// GetPresentation

constexpr Manipulator decimal = std::dec;
constexpr Manipulator hexadecimal = std::hex;
constexpr Manipulator octal = std::oct;

std::ios_base& ShoutedHex(std::ios_base& stream) {
    stream.setf(std::ios_base::hex, std::ios_base::basefield);
    stream.setf(std::ios_base::showbase | std::ios_base::uppercase);
    return stream;
}

std::ios_base& OwnDec(std::ios_base& stream) {
    return std::dec(stream);
}

std::ios_base& OwnOct(std::ios_base& stream) {
    return std::oct(stream);
}

/// Adds to the width, so that a second call or a used stream would show.
template <int width>
std::ios_base& Wide(std::ios_base& stream) {
    stream.width(stream.width() + width);
    return stream;
}

std::ios_base& Throwing(std::ios_base&) {
    throw std::domain_error("no such base");
}

struct Form {
    IPAddress ip;
    Manipulator base;
    std::string text;
};

const std::vector<Form>& Forms() {
    static const std::vector<Form> forms = {{{0, 0, 0, 0}, decimal, "0.0.0.0"},
                                            {{0, 0, 0, 0}, hexadecimal, "0.0.0.0"},
                                            {{0, 0, 0, 0}, octal, "0.0.0.0"},
                                            {{1, 2, 3, 4}, decimal, "1.2.3.4"},
                                            {{192, 168, 1, 1}, decimal, "192.168.1.1"},
                                            {{192, 168, 1, 1}, hexadecimal, "c0.a8.1.1"},
                                            {{192, 168, 1, 1}, octal, "300.250.1.1"},
                                            {{9, 10, 100, 8}, hexadecimal, "9.a.64.8"},
                                            {{7, 8, 63, 64}, octal, "7.10.77.100"},
                                            {{255, 255, 255, 255}, decimal, "255.255.255.255"},
                                            {{255, 255, 255, 255}, hexadecimal, "ff.ff.ff.ff"},
                                            {{255, 255, 255, 255}, octal, "377.377.377.377"},
                                            {{192, 168, 1, 1}, nullptr, "192.168.1.1"},
                                            {{192, 168, 0, 1}, ShoutedHex, "0XC0.0XA8.0.0X1"},
                                            {{255, 255, 255, 255}, ShoutedHex, "0XFF.0XFF.0XFF.0XFF"},
                                            {{255, 255, 255, 255}, OwnDec, "255.255.255.255"},
                                            {{255, 255, 255, 255}, OwnOct, "377.377.377.377"},
                                            {{192, 168, 1, 1}, std::showbase, "192.168.1.1"},
                                            {{192, 168, 1, 1}, Wide<6>, "   192.168.1.1"}};
    return forms;
}

std::string TextOf(IPAddress ip, Manipulator base) {
    std::string text;
    ip.GetPresentation(text, base);
    return text;
}

/// The caller's buffer, with a byte pattern that shows what was written.
using Buffer = std::array<char, 64>;

Buffer Untouched() {
    Buffer buffer{};
    buffer.fill('#');
    return buffer;
}

Buffer Holding(const std::string& text) {
    Buffer buffer = Untouched();
    std::copy_n(text.c_str(), text.size() + 1, buffer.begin());
    return buffer;
}

TEST(GetPresentation, AppendsTheDottedForm) {
    for (const Form& form : Forms()) {
        SCOPED_TRACE(form.text);
        EXPECT_EQ(form.text, TextOf(form.ip, form.base));
        std::string text = "was here\0: "s;
        form.ip.GetPresentation(text, form.base);
        form.ip.GetPresentation(text, form.base);
        EXPECT_EQ("was here\0: "s + form.text + form.text, text);
    }
}

TEST(GetPresentation, WritesTextAndTerminatorAndNothingElse) {
    for (const Form& form : Forms()) {
        SCOPED_TRACE(form.text);
        for (const unsigned int size : {20U, 64U, 0xFFFFFFFFU}) {
            Buffer buffer = Untouched();
            form.ip.GetPresentation(buffer.data(), size, form.base);
            EXPECT_EQ(Holding(form.text), buffer);
        }
    }
}

TEST(GetPresentation, AsksForTheRoomThatTheLongestTextNeeds) {
    struct Limit {
        Manipulator base;
        unsigned int size;  ///< the first one accepted
    };
    const Limit limits[] = {{decimal, 16}, {hexadecimal, 20}, {octal, 0},          {nullptr, 20},
                            {OwnDec, 20},  {OwnOct, 20},      {std::showbase, 20}, {ShoutedHex, 20}};
    for (std::size_t i = 0; i < std::size(limits); ++i) {
        for (const IPAddress ip : {IPAddress(), IPAddress(255, 255, 255, 255)}) {
            const std::string text = TextOf(ip, limits[i].base);
            for (unsigned int size = 0; size <= 40; ++size) {
                SCOPED_TRACE(testing::PrintToString(std::make_tuple(i, text, size)));
                Buffer buffer = Untouched();
                EXPECT_EQ(size >= limits[i].size ? "written" : "runtime_error: bad string length", ResultOf([&] {
                              ip.GetPresentation(buffer.data(), size, limits[i].base);
                              return "written"s;
                          }));
                EXPECT_EQ(size >= limits[i].size ? Holding(text) : Untouched(), buffer);
            }
        }
    }
}

TEST(GetPresentation, NeedsSixteenCharactersInOctal) {
    const auto buffer = std::make_unique<std::array<char, 16>>();
    buffer->fill('#');
    IPAddress(255, 255, 255, 255).GetPresentation(buffer->data(), 0, std::oct);
    EXPECT_EQ("377.377.377.377\0"s, std::string(buffer->begin(), buffer->end()));
}

TEST(GetPresentation, RefusesATextThatDoesNotFit) {
    struct Fit {
        Manipulator base;
        unsigned int size;
        bool fits;
    };
    const Fit fits[] = {{Wide<13>, 20, true},  {Wide<14>, 20, false}, {Wide<14>, 21, true},   {Wide<15>, 21, false},
                        {Wide<57>, 63, false}, {Wide<57>, 64, true},  {Wide<100>, 20, false}, {Wide<100>, 64, false}};
    for (const Fit& fit : fits) {
        const IPAddress ip(255, 1, 2, 3);
        const std::string text = TextOf(ip, fit.base);
        SCOPED_TRACE(text + " into " + std::to_string(fit.size));
        Buffer buffer = Untouched();
        EXPECT_EQ(fit.fits ? "written" : "runtime_error: bad string length", ResultOf([&] {
                      ip.GetPresentation(buffer.data(), fit.size, fit.base);
                      return "written"s;
                  }));
        EXPECT_EQ(fit.fits ? Holding(text) : Untouched(), buffer);
    }
}

TEST(GetPresentation, LetsWhatAManipulatorThrowsThroughAndWritesNothing) {
    std::string text = "kept";
    EXPECT_THROW(IPAddress(1, 2, 3, 4).GetPresentation(text, Throwing), std::domain_error);
    EXPECT_EQ("kept", text);
    Buffer buffer = Untouched();
    EXPECT_THROW(IPAddress(1, 2, 3, 4).GetPresentation(buffer.data(), 64, Throwing), std::domain_error);
    EXPECT_EQ(Untouched(), buffer);
}

}  // namespace

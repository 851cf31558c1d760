#include <TarnSocketIO/IPv4/IPAddress.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <iomanip>
#include <ios>
#include <locale>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>

#include "tests/support/Streams.h"

namespace {

using IPv4::IPAddress;
using Octets = std::array<unsigned char, 4>;

IPAddress AddressOf(const Octets& octets) {
    return {octets.data(), BigEndian};
}

// A stream writes an address as it would write the octets one after the other

void WriteOneByOne(std::ostream& stream, const Octets& octets) {
    stream << static_cast<unsigned int>(octets[0]) << "." << static_cast<unsigned int>(octets[1]) << "."
           << static_cast<unsigned int>(octets[2]) << "." << static_cast<unsigned int>(octets[3]);
}

void WriteByTheLibrary(std::ostream& stream, const Octets& octets) {
    EXPECT_EQ(&stream, &(stream << AddressOf(octets)));
}

using Writer = void (*)(std::ostream&, const Octets&);
using State = std::tuple<std::ios_base::fmtflags, std::streamsize, std::streamsize, char, std::ios_base::iostate>;

State StateOf(const std::ostream& stream) {
    return {stream.flags(), stream.width(), stream.precision(), stream.fill(), stream.rdstate()};
}

/// Text and state that `write` leaves in a stream which `prepare` has been applied to.
template <class Prepare>
std::pair<std::string, State> Left(Writer write, const Prepare& prepare, const Octets& octets) {
    std::ostringstream stream;
    stream << '<';
    prepare(stream);
    write(stream, octets);
    const State state = StateOf(stream);
    return {stream.str(), state};
}

constexpr Octets samples[] = {{0, 0, 0, 0}, {192, 168, 1, 10}, {7, 8, 64, 255}, {255, 255, 255, 255}};

template <class Prepare>
void HoldOneByOne(const Prepare& prepare) {
    for (const Octets& octets : samples) {
        ASSERT_EQ(Left(WriteOneByOne, prepare, octets), Left(WriteByTheLibrary, prepare, octets));
    }
}

template <class... Flag>
std::string Inserted(IPAddress ip, const Flag&... flag) {
    std::ostringstream stream;
    (stream << ... << flag) << ip;
    return stream.str();
}

TEST(IPAddressInserter, WritesTheOctetsAsTheStreamIsSet) {
    const IPAddress ip(192, 168, 1, 10);
    EXPECT_EQ("192.168.1.10", Inserted(ip));
    EXPECT_EQ("192.168.1.10", Inserted(ip, std::showpos, std::showbase, std::boolalpha));
    EXPECT_EQ("c0.a8.1.a", Inserted(ip, std::hex));
    EXPECT_EQ("0XC0.0XA8.0X1.0XA", Inserted(ip, std::hex, std::showbase, std::uppercase));
    EXPECT_EQ("300.250.1.12", Inserted(ip, std::oct));
    EXPECT_EQ("0300.0250.01.012", Inserted(ip, std::oct, std::showbase));
    EXPECT_EQ("**192.168.1.10", Inserted(ip, std::setfill('*'), std::setw(5)));
    EXPECT_EQ("192**.168.1.10", Inserted(ip, std::setfill('*'), std::setw(5), std::left));
    EXPECT_EQ("0x**c0.0xa8.0x1.0xa",
              Inserted(ip, std::hex, std::showbase, std::internal, std::setfill('*'), std::setw(6)));
    EXPECT_EQ("from 192.168.1.10", Inserted(ip, "from "));
}

TEST(IPAddressInserter, AddsNothingBehindTheLastOctet) {
    std::ostringstream stream;
    stream << IPAddress(1, 2, 3, 4) << IPAddress(5, 6, 7, 8) << '/' << 24;
    EXPECT_EQ("1.2.3.45.6.7.8/24", stream.str());
}

TEST(IPAddressInserter, HonoursEveryFlagWidthAndFill) {
    using std::ios_base;
    const ios_base::fmtflags radixes[] = {ios_base::fmtflags{}, ios_base::dec, ios_base::hex, ios_base::oct,
                                          ios_base::dec | ios_base::hex};
    const ios_base::fmtflags sides[] = {ios_base::fmtflags{}, ios_base::left, ios_base::right, ios_base::internal};
    const ios_base::fmtflags others[] = {ios_base::showbase, ios_base::uppercase, ios_base::showpos, ios_base::unitbuf};
    for (const auto radix : radixes) {
        for (const auto side : sides) {
            for (unsigned int chosen = 0; chosen < 16; ++chosen) {
                ios_base::fmtflags flags = radix | side;
                for (unsigned int i = 0; i < 4; ++i) {
                    flags |= (chosen >> i & 1) != 0 ? others[i] : ios_base::fmtflags{};
                }
                for (const int width : {0, 1, 3, 4, 6, 40}) {
                    SCOPED_TRACE(testing::PrintToString(std::make_pair(static_cast<int>(flags), width)));
                    HoldOneByOne([&](std::ostream& stream) {
                        stream.flags(flags);
                        stream.width(width);
                        stream.fill(width % 2 == 0 ? '*' : '0');
                    });
                }
            }
        }
    }
}

// Locales

class Spelled : public std::num_put<char> {
protected:
    using std::num_put<char>::do_put;
    iter_type do_put(iter_type out, std::ios_base& stream, char, unsigned long value) const override {
        stream.width(0);
        for (const char letter : "<" + std::to_string(value) + ">") {
            *out++ = letter;
        }
        return out;
    }
};

const std::locale& Exotic(bool spelled) {
    static const std::locale spelling(std::locale::classic(), new Spelled);
    return spelled ? spelling : TarnTest::MarkedDigits();
}

struct Presentation {
    std::ios_base& (*base)(std::ios_base&);
    const char* text;  ///< of 192.168.1.100
};

constexpr Presentation presentations[] = {{std::dec, "192.168.1.100"},
                                          {std::hex, "c0.a8.1.64"},
                                          {std::oct, "300.250.1.144"},
                                          {std::showbase, "192.168.1.100"},
                                          {nullptr, "192.168.1.100"}};

TEST(IPAddressInserter, HonoursTheLocaleOfTheStream) {
    for (const bool spelled : {false, true}) {
        std::ostringstream stream;
        stream.imbue(Exotic(spelled));
        stream << IPAddress(192, 168, 1, 10);
        EXPECT_EQ(spelled ? "<192>.<168>.<1>.<10>" : "1'9'2.1'6'8.1.1'0", stream.str());
        for (const Presentation& form : presentations) {
            HoldOneByOne([&](std::ostream& prepared) {
                prepared.imbue(Exotic(spelled));
                prepared << std::showbase << std::setw(8);
                if (form.base != nullptr) {
                    prepared << form.base;
                }
            });
        }
    }
}

TEST(GetPresentation, IsTheSameInEveryGlobalLocale) {
    for (const bool spelled : {false, true}) {
        const TarnTest::GlobalLocale exotic(Exotic(spelled));
        const IPAddress ip(192, 168, 1, 100);
        ASSERT_EQ(spelled ? "<192>" : "1'9'2", Inserted(ip).substr(0, 5));
        for (const Presentation& form : presentations) {
            std::string text;
            ip.GetPresentation(text, form.base);
            EXPECT_EQ(form.text, text);
            char buffer[32];
            ip.GetPresentation(buffer, sizeof buffer, form.base);
            EXPECT_STREQ(form.text, buffer);
        }
        EXPECT_EQ(ip, IPAddress("192.168.1.0144"));
    }
}

// Streams that fail

TEST(IPAddressInserter, LeavesAStreamThatHasFailedAlone) {
    for (const auto state : {std::ios_base::failbit, std::ios_base::badbit, std::ios_base::eofbit}) {
        SCOPED_TRACE(static_cast<int>(state));
        const auto fail = [state](std::ostream& stream) {
            stream.setstate(state);
            stream.width(5);
        };
        EXPECT_EQ("<", Left(WriteByTheLibrary, fail, samples[1]).first);
        HoldOneByOne(fail);
    }
}

// An address is one insertion: what fits is written, and the stream is bad, as after any value that does not fit.
TEST(IPAddressInserter, StopsWhereTheStreamHasNoMoreRoom) {
    for (const int width : {0, 6}) {
        const std::string text = width == 0 ? "192.168.1.10" : "   192.168.1.10";
        for (std::size_t room = 0; room <= 20; ++room) {
            SCOPED_TRACE(testing::PrintToString(std::make_pair(width, room)));
            TarnTest::ShortBuffer buffer(room);
            std::ostream stream(&buffer);
            stream.width(width);
            WriteByTheLibrary(stream, {192, 168, 1, 10});
            EXPECT_EQ(text.substr(0, room), buffer.Text());
            EXPECT_EQ(room < text.size(), stream.bad());
        }
    }
}

}  // namespace

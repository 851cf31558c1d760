// The assertions of the library, each broken once. Applications look reports from the field up by these texts and
// numbers, so they stay as they are however the sources change.
//
// Some of them nothing can break, as long as the library is right; of those the texts and numbers are looked up in the
// sources.

// This file is compiled with NDEBUG in every build, so that the last test can see what it does not switch off. The
// library's own sources have it in every build type but Debug: there the tables below show that their sites stay.
#undef NDEBUG
#define NDEBUG

#include <TarnSocketIO/Asserter.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/detail/LibcAssert.h>
#include <gmock/gmock.h>
#include <netinet/in.h>

#include <cassert>
#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "tests/support/ErrorCapture.h"

namespace {

using testing::KilledBySignal;

/// What the site must say.
struct Report {
    const char* expression;
    const char* function;
    const char* file;
    int line;
};

/// An assertion that reports values.
struct Site {
    const char* broken_by;
    void (*fail)();
    Report report;
    const char* values;
};

/// A use of the C library's assertion.
struct LibcSite {
    const char* broken_by;
    void (*fail)();
    Report report;
};

constexpr char ip_address[] = "libraries/TarnSocketIO/IPv4/IPAddress.cpp";

sockaddr_in Record(sa_family_t family) {
    sockaddr_in record = IPv4::IPAddress(192, 0, 2, 1);
    record.sin_family = family;
    return record;
}

constexpr Site sites[] = {
    {"an address from a record of no family",
     [] { IPv4::IPAddress address(Record(0)); },
     {"addr.sin_family == AF_INET", "IPv4::IPAddress::IPAddress(const sockaddr_in&)", ip_address, 225},
     "\n addr.sin_family: 0\n 2: 2"},
    {"an address from a record of another family",
     [] { IPv4::IPAddress address(Record(AF_INET6)); },
     {"addr.sin_family == AF_INET", "IPv4::IPAddress::IPAddress(const sockaddr_in&)", ip_address, 225},
     "\n addr.sin_family: 10\n 2: 2"},
    {"an address from a record of the last family",
     [] { IPv4::IPAddress address(Record(65535)); },
     {"addr.sin_family == AF_INET", "IPv4::IPAddress::IPAddress(const sockaddr_in&)", ip_address, 225},
     "\n addr.sin_family: 65535\n 2: 2"},
    {"an address set to a record of no family",
     [] { IPv4::IPAddress().Set(Record(0)); },
     {"addr.sin_family == AF_INET", "void IPv4::IPAddress::Set(const sockaddr_in&)", ip_address, 241},
     "\n addr.sin_family: 0\n 2: 2"},
    {"an address set to a record of another family",
     [] { IPv4::IPAddress().Set(Record(AF_UNIX)); },
     {"addr.sin_family == AF_INET", "void IPv4::IPAddress::Set(const sockaddr_in&)", ip_address, 241},
     "\n addr.sin_family: 1\n 2: 2"},
};

// The parser's signature is the stated one on every compiler.
constexpr char parser[] =
    "in_addr_t IPv4::StrToAddress(const char*) [with Endian <anonymous> = (Endian)1u; in_addr_t = unsigned int]";

constexpr LibcSite libc_sites[] = {
    {"null parsed",
     [] { IPv4::StrToAddress<BigEndian>(static_cast<const char*>(nullptr)); },
     {"str != 0", parser, ip_address, 78}},
    {"an address from null",
     [] { IPv4::IPAddress address(static_cast<const char*>(nullptr)); },
     {"str != 0", parser, ip_address, 78}},
};

/// A signature as this compiler writes it: Clang has a blank before the mark of a reference or a pointer.
std::string Signature(const std::string& as_gcc_writes_it) {
    std::string signature;
    for (const char c : as_gcc_writes_it) {
#ifdef __clang__
        if (c == '&' || c == '*') {
            signature += ' ';
        }
#endif
        signature += c;
    }
    return signature;
}

/// Matches the C library's message for this report. It may begin with the name of the program, but with no path.
MATCHER_P(SaysAsTheCLibrary, report, "") {
    const std::string words = TarnTest::LastWords(arg);
    const std::string expected = std::string(report.file) + ":" + std::to_string(report.line) + ": " + report.function +
                                 ": Assertion `" + report.expression + "' failed.\n";
    return words.size() >= expected.size() && words.substr(words.size() - expected.size()) == expected &&
           words.find('/') == words.size() - expected.size() + expected.find('/');
}

TEST(AssertionSites, ReportAndAbort) {
    for (const Site& site : sites) {
        SCOPED_TRACE(site.broken_by);
        const std::string words = std::string("Assertion Failed\n expression: ") + site.report.expression +
                                  "\n function: " + Signature(site.report.function) + "\n file: " + site.report.file +
                                  "\n line: " + std::to_string(site.report.line) + site.values;
        EXPECT_EXIT(site.fail(), KilledBySignal(SIGABRT), TarnTest::Says(words));
    }
}

TEST(AssertionSites, OfTheCLibraryReportAndAbort) {
    for (const LibcSite& site : libc_sites) {
        SCOPED_TRACE(site.broken_by);
        EXPECT_EXIT(site.fail(), KilledBySignal(SIGABRT), SaysAsTheCLibrary(site.report));
    }
}

/// A site that nothing can break.
struct UnreachableSite {
    const char* file;
    int line;
    const char* expression;
};

constexpr char mac_address[] = "libraries/TarnSocketIO/eth/MACAddress.cpp";

constexpr UnreachableSite unreachable_sites[] = {
    {ip_address, 202, "operator struct in_addr() == ip"},
    {ip_address, 214, "addr_in.sin_family == AF_INET"},
    {mac_address, 74, "reinterpret_cast<const Octet*>(&m_MACAddress4) == OctetForm()"},
    {mac_address, 75, "reinterpret_cast<const Octet*>(&m_MACAddress2) == OctetForm()+sizeof(m_MACAddress4)"},
    {mac_address, 100, "OctetForm()[i] == mac_param[i]"},
    {mac_address, 110, "OctetForm()[i] == mac_param[6-1-i]"},
};

TEST(AssertionSites, ThatNothingCanBreakKeepTheirPlaceAndExpression) {
    for (const UnreachableSite& site : unreachable_sites) {
        std::ifstream file(std::string(TARN_SOURCE_ROOT "/") + site.file);
        const std::string source{std::istreambuf_iterator<char>(file), {}};
        EXPECT_THAT(source, testing::HasSubstr("source_file = \"" + std::string(site.file) + "\""));
        std::ostringstream by_macro;
        by_macro << "ASSERT_IN(source_file, " << site.line << ", " << site.expression << ")";
        std::ostringstream by_hand;
        by_hand << '"' << site.expression << "\", source_file, " << site.line << ",";
        EXPECT_THAT(source, testing::AnyOf(testing::HasSubstr(by_macro.str()), testing::HasSubstr(by_hand.str())));
    }
}

TEST(AssertionSites, AreSilentWhereNothingIsBroken) {
    const TarnTest::ErrorCapture errors;
    IPv4::IPAddress address(Record(AF_INET));
    address.Set(Record(AF_INET));
    EXPECT_EQ(IPv4::IPAddress(IPv4::StrToAddress<BigEndian>("192.0.2.1"), BigEndian), address);
    EXPECT_EQ("", errors.Text());
}

void AssertZero(int number) {
    SOCKETIO_ASSERT_IN("a.cpp", 7, number == 0)(number);
    TARN_LIBC_ASSERT_IN("b.cpp", 8, number == 1);
}

TEST(AssertionSites, StayWhereNdebugSwitchesTheCLibrarysOff) {
    int evaluations = 0;
    assert(++evaluations == 0);
    ASSERT_EQ(0, evaluations) << "NDEBUG is not in force";
    EXPECT_EXIT(AssertZero(5), KilledBySignal(SIGABRT), TarnTest::EndsSaying("\n file: a.cpp\n line: 7\n number: 5"));
    EXPECT_EXIT(AssertZero(0), KilledBySignal(SIGABRT), testing::HasSubstr("b.cpp:8: "));
}

}  // namespace

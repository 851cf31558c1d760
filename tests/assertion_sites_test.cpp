// The assertions of the library, each broken once. Applications look reports from the field up by these texts and
// numbers, so they stay as they are however the sources change.
//
// Some of them nothing can break, as long as the library is right, and some stand behind one that ends the process; of
// those the texts and numbers are looked up in the sources.

// This file is compiled with NDEBUG in every build, so that the last test can see what it does not switch off. The
// library's own sources have it in every build type but Debug: there the tables below show that their sites stay.
#undef NDEBUG
#define NDEBUG

#include <TarnSocketIO/Asserter.h>
#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <TarnSocketIO/IPv4/ARPIO.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/IfConfig.h>
#include <TarnSocketIO/detail/LibcAssert.h>
#include <TarnSocketIO/ioctl_structs.h>
#include <TarnSocketIO/socket_structs.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cassert>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/ErrorCapture.h"
#include "tests/support/TextFile.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::AddAliasIf;
using TarnSocketIO::ChangeAliasIf;
using TarnSocketIO::GetAllIfs;
using TarnSocketIO::IfConf;
using TarnSocketIO::IfFlagsReq;
using TarnSocketIO::IfReq;
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
    const char* said_before = "";
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

constexpr char ioctl_structs[] = "libraries/TarnSocketIO/ioctl_structs.cpp";
constexpr char ioctl_structs_header[] = "libraries/TarnSocketIO/ioctl_structs.h";
constexpr char if_config[] = "libraries/TarnSocketIO/IfConfig.cpp";
constexpr char if_config_header[] = "libraries/TarnSocketIO/IfConfig.h";

constexpr char set_records[] = "void TarnSocketIO::IfConf::Set(ifreq*, unsigned int)";
constexpr char request[] = "TarnSocketIO::IfReq::ErrorType TarnSocketIO::IfReq::DoIoCtl(int, int)";
constexpr char list[] =
    "TarnSocketIO::GetAllIfs::ErrorType TarnSocketIO::GetAllIfs::DoIoCtl(int, std::vector<const char*>&)";
constexpr char make_change[] =
    "TarnSocketIO::ChangeAliasIf::ChangeAliasIf(const char*, const char*, IPv4::IPAddress, IPv4::IPAddress, "
    "IPv4::IPAddress)";
constexpr char change[] = "TarnSocketIO::ChangeAliasIf::ErrorType TarnSocketIO::ChangeAliasIf::DoIoCtl(int)";
constexpr char add[] = "TarnSocketIO::AddAliasIf::ErrorType TarnSocketIO::AddAliasIf::DoIoCtl(int)";

constexpr int no_descriptor = 1'000'000;  // more than any process has

void List(GetAllIfs interfaces, int sd) {
    std::vector<const char*> names;
    interfaces.DoIoCtl(sd, names);
}

/// Runs a change whose names were taken from it after it was made.
void ChangeBetween(const char* main_if_name, const char* alias_if_name) {
    ChangeAliasIf operation("eth0", "eth0:1", IPAddress(), IPAddress(), IPAddress());
    operation.m_main_if_name = main_if_name;
    operation.m_alias_if_name = alias_if_name;
    operation.DoIoCtl(no_descriptor);
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
    {"an array of no records",
     [] {
         ifreq record{};
         IfConf records(&record, 0);
     },
     {"ifs != 0 && arr_size > 0", set_records, ioctl_structs_header, 42},
     "\n arr_size: 0"},
    {"no array of records",
     [] { IfConf records(nullptr, 4); },
     {"ifs != 0 && arr_size > 0", set_records, ioctl_structs_header, 42},
     "\n arr_size: 4"},
    {"a request on a negative descriptor",
     [] { IfReq("lo").DoIoCtl(-1, SIOCGIFADDR); },
     {"sd >= 0", request, ioctl_structs, 62},
     ""},
    {"a refused request",
     [] { IfReq("lo").DoIoCtl(no_descriptor, SIOCGIFADDR); },
     {"!errno", request, ioctl_structs, 69},
     "\n (*__errno_location ()): 9",
     "ioctl : Bad file descriptor\n"},
    {"a request for something else than flags",
     [] { IfFlagsReq("lo").DoIoCtl(no_descriptor, SIOCGIFADDR); },
     {"(request == SIOCGIFFLAGS) || (request == SIOCSIFFLAGS)",
      "TarnSocketIO::IfReq::ErrorType TarnSocketIO::IfFlagsReq::DoIoCtl(int, int)", ioctl_structs, 84},
     "\n request: 35093\n 0x8913: 35091\n 0x8914: 35092"},
    {"interfaces asked for on a negative descriptor",
     [] { List(GetAllIfs(), -1); },
     {"sd >= 0", list, if_config, 77},
     ""},
    {"interfaces asked for with too few records",
     [] { List(GetAllIfs(9), no_descriptor); },
     {"m_IfReqs.size() >= INITIAL_IFREQ_SIZE", list, if_config, 78},
     ""},
    {"interfaces that the kernel does not tell",
     [] { List(GetAllIfs(), no_descriptor); },
     {"!errno", list, if_config, 88},
     "\n (*__errno_location ()): 9",
     "ioctl(Get SIOCGIFCONF): Bad file descriptor\n"},
    {"an alias added on a negative descriptor",
     [] { AddAliasIf("eth0", "eth0:1", IPAddress(192, 0, 2, 1), true).DoIoCtl(-1); },
     {"sd >= 0", add, if_config, 110},
     ""},
    {"an alias added to nothing",
     [] { AddAliasIf("", "eth0:1", IPAddress(192, 0, 2, 1), true).DoIoCtl(no_descriptor); },
     {"!m_main_if_name.empty()", add, if_config, 111},
     ""},
    {"an alias added without a name",
     [] { AddAliasIf("eth0", "", IPAddress(192, 0, 2, 1), true).DoIoCtl(no_descriptor); },
     {"!m_alias_if_name.empty()", add, if_config, 112},
     ""},
    {"a change of an alias of nothing",
     [] { ChangeAliasIf operation("", "eth0:1", IPAddress(), IPAddress(), IPAddress()); },
     {"!m_main_if_name.empty()", make_change, if_config_header, 336},
     ""},
    {"a change of an alias without a name",
     [] { ChangeAliasIf operation("eth0", nullptr, IPAddress(), IPAddress(), IPAddress()); },
     {"!m_alias_if_name.empty()", make_change, if_config_header, 337},
     ""},
    {"a change that has lost the main interface's name",
     [] { ChangeBetween("", "eth0:1"); },
     {"!m_main_if_name.empty()", change, if_config, 153},
     ""},
    {"a change that has lost the alias's name",
     [] { ChangeBetween("eth0", ""); },
     {"!m_alias_if_name.empty()", change, if_config, 154},
     ""},
};

// The parser's signature is the stated one on every compiler.
constexpr char parser[] =
    "in_addr_t IPv4::StrToAddress(const char*) [with Endian <anonymous> = (Endian)1u; in_addr_t = unsigned int]";

constexpr char arp_file_reader[] = "libraries/TarnSocketIO/IPv4/ARPFileReader.cpp";
constexpr char read_arp_file[] = "void ARPFileReader::CacheFileContent()";

/// Has a file read that goes with the process, and not with an object: nothing is destroyed when it aborts.
void ReadArpFile(const std::string& text) {
    const int fd = memfd_create("arp", MFD_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
    ARPFileReader(("/proc/self/fd/" + std::to_string(fd)).c_str()).CacheFileContent();
}

constexpr LibcSite libc_sites[] = {
    {"null parsed",
     [] { IPv4::StrToAddress<BigEndian>(static_cast<const char*>(nullptr)); },
     {"str != 0", parser, ip_address, 78}},
    {"an address from null",
     [] { IPv4::IPAddress address(static_cast<const char*>(nullptr)); },
     {"str != 0", parser, ip_address, 78}},
    {"the address of an entry that has none",
     [] { TarnSocketIO::ARPReq().GetIPv4Address(); },
     {"arp_pa.sa_family == 2", "IPv4::IPAddress TarnSocketIO::ARPReq::GetIPv4Address() const",
      "libraries/TarnSocketIO/socket_structs.cpp", 365}},
    {"a socket for ARP queries opened twice",
     [] { TarnSocketIO::ARPIO().InitSocket(); },
     {"m_SD < 0", "void TarnSocketIO::ARPIO::InitSocket()", "libraries/TarnSocketIO/IPv4/ARPIO.cpp", 47}},
    {"an ARP file that is not there",
     [] { ARPFileReader("no/such/file").CacheFileContent(); },
     {"0", read_arp_file, arp_file_reader, 80}},
    {"an ARP file with one address twice",
     [] { ReadArpFile("header\n192.0.2.1 1 2 00:11:22:33:44:55 * a\n0xC0.0.2.1 1 2 0 * b\n"); },
     {"m_IPARPEntryMap.find(tblentry.m_IPAddress) == m_IPARPEntryMap.end()", read_arp_file, arp_file_reader, 71}},
};

/// A signature as this compiler writes it: Clang has a blank before the mark of a reference or a pointer, and a type
/// that is returned as it stands in the source.
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
#ifdef __clang__
    if (signature.find("::ErrorType ") != std::string::npos) {
        signature.erase(0, sizeof "TarnSocketIO::" - 1);
    }
#endif
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
        const std::string words = std::string(site.said_before) +
                                  "Assertion Failed\n expression: " + site.report.expression +
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

/// A site that cannot be reached here: nothing can break it, or a request that is refused ends the process before it.
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
    {ioctl_structs_header, 135, "ifr_addr.sa_family == AF_INET"},
    {ioctl_structs_header, 148, "ifr_addr.sa_family == AF_INET"},
    {if_config, 93, "ifconf_tmp.ifc_len % sizeof(ifreq) == 0"},
    {if_config, 97, "results.empty()"},
    {if_config, 119, "!err"},
    {if_config, 132, "change_alias_if_op.m_netmask == IPAddress(1,0,0,0)"},
    {if_config, 133, "change_alias_if_op.m_bcast == IPAddress(1,0,0,0)"},
    {if_config, 166, "!err"},
    {if_config, 177, "!m_main_if_name.empty()"},
    {if_config, 183, "!err"},
    {if_config, 189, "!m_alias_if_name.empty()"},
    {if_config, 195, "!err"},
    {if_config, 202, "!m_alias_if_name.empty()"},
    {if_config, 208, "!err"},
    {if_config, 210, "m_netmask == alias_netmask"},
    {if_config, 229, "!m_main_if_name.empty()"},
    {if_config, 235, "!err"},
    {if_config, 242, "!m_alias_if_name.empty()"},
    {if_config, 248, "!err"},
    {if_config, 255, "!m_alias_if_name.empty()"},
    {if_config, 261, "!err"},
    {if_config, 263, "m_bcast == alias_bcast"},
};

TEST(AssertionSites, ThatCannotBeReachedHereKeepTheirPlaceAndExpression) {
    using testing::AllOf;
    using testing::HasSubstr;
    for (const UnreachableSite& site : unreachable_sites) {
        // Those of a header may stand in the source beside it.
        const std::filesystem::path file = site.file;
        const std::string name = file.extension() == ".h" ? "header_file" : "source_file";
        const std::string source =
            TarnTest::ReadFile(TARN_SOURCE_ROOT / std::filesystem::path(file).replace_extension(".cpp"));
        std::ostringstream place;
        place << name << ", " << site.line << ",";
        std::ostringstream by_macro;
        by_macro << "ASSERT_IN(" << place.str() << " " << site.expression << ")";
        std::ostringstream by_hand;
        by_hand << '"' << site.expression << "\", " << place.str();
        std::ostringstream of_operation;
        of_operation << "ASSERT_OF_OPERATION(" << site.line << ", " << site.expression << ")";
        std::ostringstream last_argument;
        last_argument << '"' << site.expression << "\")";
        EXPECT_THAT(source, HasSubstr(name + " = \"" + site.file + "\""));
        EXPECT_THAT(source,
                    testing::AnyOf(HasSubstr(by_macro.str()), HasSubstr(by_hand.str()), HasSubstr(of_operation.str()),
                                   AllOf(HasSubstr(place.str()), HasSubstr(last_argument.str()))));
    }
}

using SetAddress = TarnSocketIO::SetIoCltIf<SIOCSIFADDR, IPAddress, &IfReq::SetAddress, &IfReq::GetAddress>;
using GetNetmask = TarnSocketIO::GetIoCltIf<SIOCGIFNETMASK, IPAddress, &IfReq::GetAddress>;

/// Matches the report of a negative descriptor in a template, whose signature each compiler writes in its own way.
MATCHER_P2(SaysOfTemplate, parts_of_signature, line, "") {
    const std::string words = TarnTest::LastWords(arg);
    const std::string before = "Assertion Failed\n expression: sd >= 0\n function: ";
    const std::string behind = std::string("]\n file: ") + if_config_header + "\n line: " + std::to_string(line);
    std::size_t at = before.size();
    for (const char* const part : parts_of_signature) {
        at = words.find(part, at);
        if (at == std::string::npos) {
            *result_listener << "no \"" << part << "\"";
            return false;
        }
    }
    return words.compare(0, before.size(), before) == 0 && words.find(behind, at) == words.size() - behind.size();
}

TEST(AssertionSites, OfTemplatesTellTheRequestAndTheMembers) {
    EXPECT_EXIT(
        SetAddress("lo", IPAddress(192, 0, 2, 1)).DoIoCtl(-1), KilledBySignal(SIGABRT),
        SaysOfTemplate(std::vector<const char*>{"::DoIoCtl(int)", "IoCtlReq = 35094", "IPv4::IPAddress",
                                                "&TarnSocketIO::IfReq::SetAddress", "&TarnSocketIO::IfReq::GetAddress"},
                       392));
    IPAddress netmask;
    EXPECT_EXIT(GetNetmask("lo").DoIoCtl(-1, netmask), KilledBySignal(SIGABRT),
                SaysOfTemplate(std::vector<const char*>{"::DoIoCtl(int, ", "IoCtlReq = 35099", "IPv4::IPAddress",
                                                        "&TarnSocketIO::IfReq::GetAddress"},
                               377));
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

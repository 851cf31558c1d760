// What the operations on interfaces do when the system refuses them something, with the failure action that ends the
// process.

#include <TarnSocketIO/IfConfig.h>
#include <gmock/gmock.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ios>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/AliasValues.h"
#include "tests/support/AssertionReport.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/PretendedInterfaces.h"
#include "tests/support/Resources.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::AddAliasIf;
using TarnSocketIO::ChangeAliasIf;
using TarnSocketIO::DelAliasIf;
using TarnSocketIO::GetAllIfs;
using TarnSocketIO::IfConfig;
using TarnSocketIO::IfReq;
using TarnTest::alias_address;
using TarnTest::AssertionReport;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::ChildProcess;
using TarnTest::CountOpenDescriptors;
using TarnTest::ExpectAssertion;
using TarnTest::FailingCalls;
using TarnTest::from_main;
using TarnTest::main_broadcast;
using TarnTest::main_netmask;
using TarnTest::none;
using TarnTest::PretendedInterfaces;
using TarnTest::sd;
using testing::ElementsAre;

const std::vector<PretendedInterfaces::Interface> interfaces_of_host = {
    {"lo", IPAddress(127, 0, 0, 1), IPAddress(255, 0, 0, 0), none, IFF_UP | IFF_LOOPBACK},
    {"eth0", IPAddress(192, 0, 2, 1), main_netmask, main_broadcast, IFF_UP | IFF_BROADCAST},
};

const std::vector<std::string> requests_of_a_copy = {
    "SIOCSIFADDR eth0:1 192.0.2.7", "SIOCGIFNETMASK eth0", "SIOCSIFNETMASK eth0:1 255.255.255.0",
    "SIOCGIFNETMASK eth0:1",        "SIOCGIFBRDADDR eth0", "SIOCSIFBRDADDR eth0:1 192.0.2.255",
    "SIOCGIFBRDADDR eth0:1",
};

const std::string config_source = "libraries/TarnSocketIO/IfConfig.cpp";
constexpr const char* change_operation = "TarnSocketIO::ChangeAliasIf::DoIoCtl(int)";
constexpr const char* list_operation = "TarnSocketIO::GetAllIfs::DoIoCtl(int, std::vector<const char";

std::string ValueOfErrno(int error) {
    return "\n (*__errno_location ()): " + std::to_string(error);
}

AssertionReport Refused(int error) {
    return {"IfReq::DoIoCtl error ",
            std::string("ioctl : ") + std::strerror(error) + "\n",
            "!errno",
            "TarnSocketIO::IfReq::DoIoCtl(int, int)",
            "libraries/TarnSocketIO/ioctl_structs.cpp",
            69,
            ValueOfErrno(error)};
}

// --- the socket ---

TEST(IfConfigSocketFault, ThrowsAndSaysWhyThereIsNone) {
    for (const int error : {EMFILE, ENFILE, ENOBUFS, EACCES}) {
        ChildProcess child([error] {
            const FailingCalls refused(Call::Socket, error, 2);
            const CallWatch closings(Call::Close);
            std::string thrown;
            try {
                const IfConfig config;
            } catch (const std::runtime_error& no_socket) {
                thrown = no_socket.what();
            }
            EXPECT_EQ("could open socket for IfConfig", thrown);
            EXPECT_THROW(IfConfig::GetASocketDescriptor(), std::runtime_error);
            EXPECT_EQ(2, refused.Failed());
            EXPECT_EQ(0, closings.Count());
        });
        EXPECT_EQ(0, child.ExitStatus());
        EXPECT_EQ("", child.Failures());
        EXPECT_EQ("", child.Output());
        const std::string line =
            std::string("close - IfConfig::GetASocketDescriptor(): ") + std::strerror(error) + "\n";
        EXPECT_EQ(line + line, child.Errors());
    }
}

TEST(IfConfigSocketFault, OneThatIsClosedInTurnIsClosedOnceAndInSilence) {
    ChildProcess child([] {
        const std::size_t before = CountOpenDescriptors();
        const CallWatch closings(Call::Close);
        int number = -1;
        {
            const IfConfig config;
            number = config.GetSocketDescriptor();
            EXPECT_EQ(0, closings.Count());
        }
        EXPECT_EQ(1, closings.Count());
        EXPECT_EQ(number, closings.LastDescriptor());
        EXPECT_EQ(before, CountOpenDescriptors());
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ("", child.Output());
    EXPECT_EQ("", child.Errors());
}

void DestroyWithCloseFailing(int error) {
    const FailingCalls refused(Call::Close, error);
    const CallWatch closings(Call::Close);
    { const IfConfig config; }
    EXPECT_EQ(1, refused.Failed());
    EXPECT_EQ(1, closings.Count()) << "the number may be somebody else's by now";
}

TEST(IfConfigCloseFault, AnInterruptedCloseIsIgnored) {
    ChildProcess child([] { DestroyWithCloseFailing(EINTR); });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ("", child.Output());
    EXPECT_EQ("", child.Errors());
}

TEST(IfConfigCloseFault, AnyOtherFailureIsTold) {
    for (const int error : {EIO, EBADF, ENOSPC, EDQUOT}) {
        ChildProcess child([error] { DestroyWithCloseFailing(error); });
        EXPECT_EQ(0, child.ExitStatus());
        EXPECT_EQ("", child.Failures());
        EXPECT_EQ("~SocketIPIfIO() failed", child.Output());
        EXPECT_EQ(std::string("close - ~IfConfig(): ") + std::strerror(error) + "\n", child.Errors());
    }
}

/// Takes what is written to std::cout, and counts how often it is flushed.
class FlushCounter : public std::stringbuf {
public:
    int flushes = 0;

protected:
    int sync() override {
        ++flushes;
        return 0;
    }
};

TEST(IfConfigCloseFault, StandardOutputIsNotFlushed) {
    ChildProcess child([] {
        FlushCounter counter;
        std::streambuf* const original = std::cout.rdbuf(&counter);
        DestroyWithCloseFailing(EIO);
        std::cout.rdbuf(original);
        EXPECT_EQ("~SocketIPIfIO() failed", counter.str());
        EXPECT_EQ(0, counter.flushes);
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
}

/// Takes nothing.
class FullBuffer : public std::streambuf {};

TEST(IfConfigCloseFault, NothingIsThrownWhereStandardOutputThrows) {
    ChildProcess child([] {
        FullBuffer full;
        std::streambuf* const original = std::cout.rdbuf(&full);
        std::cout.exceptions(std::ios_base::badbit | std::ios_base::failbit);
        DestroyWithCloseFailing(EIO);
        std::cout.exceptions(std::ios_base::goodbit);
        std::cout.rdbuf(original);
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.EndingSignal();
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ("close - ~IfConfig(): Input/output error\n", child.Errors());
}

// --- the list of interfaces ---

TEST(GetAllIfsFault, ARefusedRequestEndsTheProcess) {
    for (const int error : {EIO, ENOMEM, EFAULT, EINTR}) {
        const AssertionReport report = {"GetAllIfs::DoIoCtl SIOCGIFCONF error ",
                                        std::string("ioctl(Get SIOCGIFCONF): ") + std::strerror(error) + "\n",
                                        "!errno",
                                        list_operation,
                                        config_source,
                                        88,
                                        ValueOfErrno(error)};
        ExpectAssertion(report, [error] {
            const FailingCalls refused(Call::Control, error);
            const IfConfig config;
            GetAllIfs get_all;
            std::vector<const char*> results;
            config.DoIoCtl(get_all, results);
        });
    }
}

TEST(GetAllIfsFault, ALengthThatIsNotOfWholeRecordsEndsTheProcess) {
    const auto length = static_cast<int>(2 * sizeof(ifreq) - 1);
    const AssertionReport report = {
        "",
        "",
        "ifconf_tmp.ifc_len % sizeof(ifreq) == 0",
        list_operation,
        config_source,
        93,
        "\n ifconf_tmp.ifc_len: " + std::to_string(length) + "\n sizeof(ifreq): " + std::to_string(sizeof(ifreq))};
    PretendedInterfaces interfaces(interfaces_of_host);
    interfaces.SetLengthOfList(length);
    ExpectAssertion(report, [] {
        std::vector<const char*> results;
        GetAllIfs().DoIoCtl(sd, results);
    });
    EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCGIFCONF 10 records"));
}

// The library takes no word for it where there is no errno.
TEST(InterfaceRequestFault, WithoutAnErrorTheProcessGoesOn) {
    ChildProcess child([] {
        const IfConfig config;
        {
            const FailingCalls refused(Call::Control, 0);
            EXPECT_EQ(0, IfReq("lo").DoIoCtl(config.GetSocketDescriptor(), SIOCGIFFLAGS));
            EXPECT_EQ(1, refused.Failed());
        }
        const FailingCalls refused(Call::Control, 0);
        std::vector<const char*> results{"eth7"};
        GetAllIfs get_all;
        EXPECT_EQ(0, config.DoIoCtl(get_all, results));
        EXPECT_EQ(1, refused.Failed());
        EXPECT_THAT(results, ElementsAre(testing::StrEq("eth7")));
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ("IfReq::DoIoCtl error GetAllIfs::DoIoCtl SIOCGIFCONF error ", child.Output());
    EXPECT_EQ("ioctl : Success\nioctl(Get SIOCGIFCONF): Success\n", child.Errors());
}

// --- aliases ---

TEST(AliasFault, TheFirstRequestThatIsRefusedEndsTheProcess) {
    for (std::size_t number = 1; number <= requests_of_a_copy.size(); ++number) {
        SCOPED_TRACE(requests_of_a_copy[number - 1]);
        const std::vector<std::string> expected(requests_of_a_copy.begin(),
                                                requests_of_a_copy.begin() + static_cast<std::ptrdiff_t>(number));
        const int error = number % 2 == 0 ? EPERM : EADDRNOTAVAIL;
        {
            PretendedInterfaces interfaces(interfaces_of_host);
            interfaces.Refuse(static_cast<int>(number), error);
            ExpectAssertion(Refused(error),
                            [] { ChangeAliasIf("eth0", "eth0:1", alias_address, from_main, from_main).DoIoCtl(sd); });
            EXPECT_EQ(expected, interfaces.Requests());
        }
        PretendedInterfaces interfaces(interfaces_of_host);
        interfaces.Refuse(static_cast<int>(number), error);
        ExpectAssertion(Refused(error), [] { AddAliasIf("eth0", "eth0:1", alias_address, true).DoIoCtl(sd); });
        EXPECT_EQ(expected, interfaces.Requests());
        EXPECT_EQ(sd, interfaces.Descriptor());
    }
}

TEST(AliasFault, ANetmaskThatReadsBackOtherwiseEndsTheProcess) {
    const AssertionReport report = {"",
                                    "",
                                    "m_netmask == alias_netmask",
                                    change_operation,
                                    config_source,
                                    210,
                                    "\n m_netmask: 255.255.255.0\n alias_netmask: 255.255.0.0"};
    {
        PretendedInterfaces interfaces(interfaces_of_host);
        interfaces.Falsify(4, IPAddress(255, 255, 0, 0));
        ExpectAssertion(report, [] { AddAliasIf("eth0", "eth0:1", alias_address, true).DoIoCtl(sd); });
        EXPECT_EQ(4U, interfaces.Requests().size());
    }
    PretendedInterfaces interfaces(interfaces_of_host);
    interfaces.Falsify(3, IPAddress(255, 255, 0, 0));
    ExpectAssertion(report,
                    [] { ChangeAliasIf("eth0", "eth0:1", alias_address, main_netmask, main_broadcast).DoIoCtl(sd); });
    EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCSIFADDR eth0:1 192.0.2.7",
                                                   "SIOCSIFNETMASK eth0:1 255.255.255.0", "SIOCGIFNETMASK eth0:1"));
}

TEST(AliasFault, ABroadcastAddressThatReadsBackOtherwiseEndsTheProcess) {
    const AssertionReport report = {"",
                                    "",
                                    "m_bcast == alias_bcast",
                                    change_operation,
                                    config_source,
                                    263,
                                    "\n m_bcast: 192.0.2.255\n alias_bcast: 0.0.0.0"};
    PretendedInterfaces interfaces(interfaces_of_host);
    interfaces.Falsify(7, none);
    ExpectAssertion(report, [] { AddAliasIf("eth0", "eth0:1", alias_address, true).DoIoCtl(sd); });
    EXPECT_EQ(requests_of_a_copy, interfaces.Requests());
}

TEST(AliasFault, AnAliasThatIsNotTakenAwayEndsTheProcess) {
    std::vector<PretendedInterfaces::Interface> with_alias = interfaces_of_host;
    with_alias.push_back({"eth0:1", alias_address, main_netmask, main_broadcast, IFF_UP | IFF_BROADCAST});
    const std::vector<std::string> requests = {"SIOCGIFFLAGS eth0:1", "SIOCSIFFLAGS eth0:1 0x2"};
    for (const std::size_t number : {std::size_t{1}, std::size_t{2}}) {
        PretendedInterfaces interfaces(with_alias);
        interfaces.Refuse(static_cast<int>(number), EPERM);
        ExpectAssertion(Refused(EPERM), [] { DelAliasIf("eth0", "eth0:1").DoIoCtl(sd); });
        EXPECT_EQ(std::vector<std::string>(requests.begin(), requests.begin() + static_cast<std::ptrdiff_t>(number)),
                  interfaces.Requests());
    }
}

TEST(AliasFault, ANameThatIsNotOfAnAliasIsNoRequest) {
    const IfConfig config;
    const CallWatch requests(Call::Control);
    for (const auto& [main, alias] : {std::pair("eth0", "eth0"), std::pair("eth0", "eth0:0123456789a"),
                                      std::pair("eth0", "eth1:1"), std::pair("", ":1"), std::pair("", "eth0:1")}) {
        DelAliasIf del(main, alias);
        EXPECT_EQ(EINVAL, config.DoIoCtl(del));
    }
    EXPECT_EQ(0, requests.Count());
}

}  // namespace

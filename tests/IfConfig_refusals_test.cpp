// How operations on interfaces end the process: with what words, and with nothing asked of the kernel where it need not
// be asked. Each in a process of its own.

#include <TarnSocketIO/IfConfig.h>
#include <TarnSocketIO/ioctl_structs.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/AssertionReport.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/InterfaceRequests.h"
#include "tests/support/SocketState.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::AddAliasIf;
using TarnSocketIO::ChangeAliasIf;
using TarnSocketIO::DelAliasIf;
using TarnSocketIO::GetAllIfs;
using TarnSocketIO::IfConf;
using TarnSocketIO::IfConfig;
using TarnSocketIO::IfFlagsReq;
using TarnSocketIO::IfReq;
using TarnTest::AssertionReport;
using TarnTest::ChildProcess;
using TarnTest::ExpectAssertion;
using TarnTest::GetBroadcast;
using TarnTest::GetNetmask;
using TarnTest::OwnedDescriptor;
using TarnTest::SetAddress;
using TarnTest::SetBroadcast;
using TarnTest::SetNetmask;

const std::string structs_source = "libraries/TarnSocketIO/ioctl_structs.cpp";
const std::string structs_header = "libraries/TarnSocketIO/ioctl_structs.h";
const std::string config_source = "libraries/TarnSocketIO/IfConfig.cpp";
const std::string config_header = "libraries/TarnSocketIO/IfConfig.h";

// No interface has it: a name of this kind is too long for any.
constexpr const char* unknown = "nobody:s0";
const IPAddress some_address(192, 0, 2, 7);

/// What a request says that the kernel has refused.
AssertionReport Refused(const std::string& words, int error) {
    return {"IfReq::DoIoCtl error ",
            "ioctl : " + words + "\n",
            "!errno",
            "TarnSocketIO::IfReq::DoIoCtl(int, int)",
            structs_source,
            69,
            "\n (*__errno_location ()): " + std::to_string(error)};
}

/// What a precondition says.
AssertionReport Broken(const std::string& expression, const std::string& operation, const std::string& file, int line,
                       const std::string& values = "") {
    return {"", "", expression, operation, file, line, values};
}

/// A pipe takes no requests about interfaces: whoever makes one is told so.
class Pipe {
public:
    Pipe() { static_cast<void>(!pipe2(m_ends.data(), O_CLOEXEC)); }
    ~Pipe() {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int Number() const { return m_ends[0]; }

private:
    std::array<int, 2> m_ends{-1, -1};
};

// --- records ---

TEST(IfReqRefusal, ANegativeDescriptorIsAFailedAssertion) {
    for (const int sd : {-1, -2147483647}) {
        ExpectAssertion(Broken("sd >= 0", "TarnSocketIO::IfReq::DoIoCtl(int, int)", structs_source, 62),
                        [sd] { IfReq("lo").DoIoCtl(sd, SIOCGIFFLAGS); });
    }
}

TEST(IfReqRefusal, AnInterfaceThatThereIsNotIsTold) {
    const IfConfig config;
    ExpectAssertion(Refused("No such device", ENODEV),
                    [&] { IfReq(unknown).DoIoCtl(config.GetSocketDescriptor(), SIOCGIFFLAGS); });
    ExpectAssertion(Refused("No such device", ENODEV),
                    [&] { IfReq("").DoIoCtl(config.GetSocketDescriptor(), SIOCGIFFLAGS); });
    ExpectAssertion(Refused("No such device", ENODEV), [&] {
        IfFlagsReq flags(unknown);
        flags.DoIoCtl(config.GetSocketDescriptor(), SIOCGIFFLAGS);
    });
}

TEST(IfReqRefusal, ADescriptorThatIsClosedOrNoSocketIsTold) {
    OwnedDescriptor socket(IfConfig::GetASocketDescriptor());
    const int closed = socket.Number();
    socket.Close();
    ExpectAssertion(Refused("Bad file descriptor", EBADF), [closed] {
        close(closed);
        IfReq("lo").DoIoCtl(closed, SIOCGIFFLAGS);
    });
    const Pipe pipe;
    ExpectAssertion(Refused("Inappropriate ioctl for device", ENOTTY),
                    [&] { IfReq("lo").DoIoCtl(pipe.Number(), SIOCGIFFLAGS); });
}

/// Expects both streams of a process, written to one place, to begin like this.
void ExpectFirstWords(const std::string& words, const std::function<void()>& act) {
    ChildProcess child([&] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        act();
    });
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_EQ("", child.Output());
    EXPECT_THAT(child.Errors(), testing::StartsWith(words));
}

TEST(IfReqRefusal, StandardOutputIsToldFirst) {
    ExpectFirstWords("IfReq::DoIoCtl error ioctl : No such device\nAssertion Failed\n",
                     [] { IfReq(unknown).DoIoCtl(IfConfig().GetSocketDescriptor(), SIOCGIFFLAGS); });
}

TEST(GetAllIfsRefusal, StandardOutputIsToldFirst) {
    const Pipe pipe;
    ExpectFirstWords(
        "GetAllIfs::DoIoCtl SIOCGIFCONF error ioctl(Get SIOCGIFCONF): Inappropriate ioctl for device\n"
        "Assertion Failed\n",
        [&] {
            std::vector<const char*> results;
            GetAllIfs().DoIoCtl(pipe.Number(), results);
        });
}

TEST(IfFlagsReqRefusal, ARequestThatIsNotAboutFlagsIsNotMade) {
    const Pipe pipe;
    const std::string rest = "\n 0x8913: 35091\n 0x8914: 35092";
    for (const int request : {35093, 35090, 0, -1}) {
        ExpectAssertion(Broken("(request == SIOCGIFFLAGS) || (request == SIOCSIFFLAGS)",
                               "TarnSocketIO::IfFlagsReq::DoIoCtl(int, int)", structs_source, 84,
                               "\n request: " + std::to_string(request) + rest),
                        [&] { IfFlagsReq("lo").DoIoCtl(pipe.Number(), request); });
    }
}

TEST(IfFlagsReqRefusal, BothRequestsAboutFlagsAreMade) {
    const Pipe pipe;
    for (const int request : {SIOCGIFFLAGS, SIOCSIFFLAGS}) {
        ExpectAssertion(Refused("Inappropriate ioctl for device", ENOTTY),
                        [&] { IfFlagsReq("lo").DoIoCtl(pipe.Number(), request); });
    }
    ExpectAssertion(Broken("sd >= 0", "TarnSocketIO::IfReq::DoIoCtl(int, int)", structs_source, 62),
                    [] { IfFlagsReq("lo").DoIoCtl(-1, SIOCGIFFLAGS); });
}

TEST(IfConfRefusal, AnEmptyOrMissingArrayIsAFailedAssertion) {
    std::array<ifreq, 4> records{};
    const auto report = [](const char* size) {
        return Broken("ifs != 0 && arr_size > 0", "TarnSocketIO::IfConf::Set(ifreq", structs_header, 42,
                      std::string("\n arr_size: ") + size);
    };
    ExpectAssertion(report("0"), [&] { const IfConf list(records.data(), 0); });
    ExpectAssertion(report("4"), [] { const IfConf list(nullptr, 4); });
    ExpectAssertion(report("0"), [] { const IfConf list(nullptr, 0); });
    ExpectAssertion(report("4294967295"), [&] { IfConf(records.data(), 4).Set(nullptr, 4294967295U); });
}

// --- single addresses ---

TEST(SetIoCltIfRefusal, ANegativeDescriptorIsAFailedAssertion) {
    const AssertionReport report = Broken("sd >= 0", "::DoIoCtl(int)", config_header, 392);
    ExpectAssertion(report, [] { SetAddress("lo", some_address).DoIoCtl(-1); });
    ExpectAssertion(report, [] { SetNetmask("lo", some_address).DoIoCtl(-1); });
    ExpectAssertion(report, [] { SetBroadcast("lo", some_address).DoIoCtl(-1); });
}

TEST(SetIoCltIfRefusal, ARefusedRequestIsToldByTheRecordAlone) {
    const Pipe pipe;
    const AssertionReport report = Refused("Inappropriate ioctl for device", ENOTTY);
    ExpectAssertion(report, [&] { SetAddress("lo", some_address).DoIoCtl(pipe.Number()); });
    ExpectAssertion(report, [&] { SetNetmask("lo", some_address).DoIoCtl(pipe.Number()); });
    ExpectAssertion(report, [&] { SetBroadcast("lo", some_address).DoIoCtl(pipe.Number()); });
}

TEST(GetIoCltIfRefusal, ANegativeDescriptorIsAFailedAssertion) {
    const AssertionReport report = Broken("sd >= 0", "::DoIoCtl(int, ", config_header, 377);
    IPAddress out;
    ExpectAssertion(report, [&] { GetNetmask("lo").DoIoCtl(-1, out); });
    ExpectAssertion(report, [&] { GetBroadcast("lo").DoIoCtl(-1, out); });
}

TEST(GetIoCltIfRefusal, AnInterfaceThatThereIsNotIsTold) {
    const IfConfig config;
    IPAddress out;
    GetNetmask netmask(unknown);
    ExpectAssertion(Refused("No such device", ENODEV), [&] { config.DoIoCtl(netmask, out); });
    GetBroadcast broadcast(unknown);
    ExpectAssertion(Refused("No such device", ENODEV), [&] { config.DoIoCtl(broadcast, out); });
}

// --- the list of interfaces ---

constexpr const char* list_operation = "TarnSocketIO::GetAllIfs::DoIoCtl(int, std::vector<const char";

TEST(GetAllIfsRefusal, ANegativeDescriptorIsAFailedAssertion) {
    for (const unsigned int records : {9U, 10U}) {
        ExpectAssertion(Broken("sd >= 0", list_operation, config_source, 77), [records] {
            std::vector<const char*> results;
            GetAllIfs(records).DoIoCtl(-1, results);
        });
    }
}

TEST(GetAllIfsRefusal, TooFewRecordsAreAFailedAssertionBeforeAnyRequest) {
    const Pipe pipe;
    for (const unsigned int records : {0U, 1U, 9U}) {
        ExpectAssertion(Broken("m_IfReqs.size() >= INITIAL_IFREQ_SIZE", list_operation, config_source, 78), [&] {
            std::vector<const char*> results;
            GetAllIfs(records).DoIoCtl(pipe.Number(), results);
        });
    }
}

TEST(GetAllIfsRefusal, ARefusedRequestIsTold) {
    const Pipe pipe;
    const AssertionReport report = {"GetAllIfs::DoIoCtl SIOCGIFCONF error ",
                                    "ioctl(Get SIOCGIFCONF): Inappropriate ioctl for device\n",
                                    "!errno",
                                    list_operation,
                                    config_source,
                                    88,
                                    "\n (*__errno_location ()): " + std::to_string(ENOTTY)};
    ExpectAssertion(report, [&] {
        std::vector<const char*> results;
        GetAllIfs().DoIoCtl(pipe.Number(), results);
    });
}

// --- aliases ---

constexpr const char* change_constructor = "TarnSocketIO::ChangeAliasIf::ChangeAliasIf(const char";
constexpr const char* change_operation = "TarnSocketIO::ChangeAliasIf::DoIoCtl(int)";
constexpr const char* add_operation = "TarnSocketIO::AddAliasIf::DoIoCtl(int)";

TEST(ChangeAliasIfRefusal, AnEmptyOrMissingNameIsAFailedAssertion) {
    const auto make = [](const char* main, const char* alias) {
        return [main, alias] { const ChangeAliasIf change(main, alias, some_address, some_address, some_address); };
    };
    const AssertionReport no_main = Broken("!m_main_if_name.empty()", change_constructor, config_header, 336);
    const AssertionReport no_alias = Broken("!m_alias_if_name.empty()", change_constructor, config_header, 337);
    ExpectAssertion(no_main, make("", "eth0:1"));
    ExpectAssertion(no_main, make(nullptr, "eth0:1"));
    ExpectAssertion(no_main, make("", ""));
    ExpectAssertion(no_alias, make("eth0", ""));
    ExpectAssertion(no_alias, make("eth0", nullptr));
}

TEST(ChangeAliasIfRefusal, ANameThatWasMadeEmptyLaterIsAFailedAssertion) {
    const Pipe pipe;
    ChangeAliasIf change("eth0", "eth0:1", some_address, some_address, some_address);
    ExpectAssertion(Broken("!m_main_if_name.empty()", change_operation, config_source, 153), [&] {
        change.m_main_if_name.clear();
        change.m_alias_if_name.clear();
        change.DoIoCtl(pipe.Number());
    });
    ExpectAssertion(Broken("!m_alias_if_name.empty()", change_operation, config_source, 154), [&] {
        change.m_alias_if_name.clear();
        change.DoIoCtl(pipe.Number());
    });
}

TEST(ChangeAliasIfRefusal, TheFirstRefusedRequestIsTheLast) {
    const Pipe pipe;
    const IPAddress none;
    const IPAddress from_main(1, 0, 0, 0);
    const AssertionReport report = Refused("Inappropriate ioctl for device", ENOTTY);
    for (const IPAddress netmask : {none, from_main, some_address}) {
        for (const IPAddress broadcast : {from_main, some_address}) {
            for (const IPAddress address : {none, some_address}) {
                ExpectAssertion(report, [&] {
                    ChangeAliasIf("eth0", "eth0:1", address, netmask, broadcast).DoIoCtl(pipe.Number());
                });
            }
        }
    }
}

TEST(ChangeAliasIfRefusal, ANegativeDescriptorIsAFailedAssertionOfTheFirstRequest) {
    const IPAddress none;
    ExpectAssertion(Broken("sd >= 0", "::DoIoCtl(int)", config_header, 392),
                    [&] { ChangeAliasIf("eth0", "eth0:1", some_address, none, none).DoIoCtl(-1); });
    ExpectAssertion(Broken("sd >= 0", "::DoIoCtl(int, ", config_header, 377),
                    [&] { ChangeAliasIf("eth0", "eth0:1", none, IPAddress(1, 0, 0, 0), none).DoIoCtl(-1); });
}

TEST(AddAliasIfRefusal, ItsPreconditionsAreAssertedInTheirOrder) {
    const Pipe pipe;
    ExpectAssertion(Broken("sd >= 0", add_operation, config_source, 110),
                    [] { AddAliasIf("", "", some_address, true).DoIoCtl(-1); });
    const AssertionReport no_main = Broken("!m_main_if_name.empty()", add_operation, config_source, 111);
    ExpectAssertion(no_main, [&] { AddAliasIf("", "", some_address, true).DoIoCtl(pipe.Number()); });
    ExpectAssertion(no_main, [&] { AddAliasIf(nullptr, "eth0:1", some_address, false).DoIoCtl(pipe.Number()); });
    const AssertionReport no_alias = Broken("!m_alias_if_name.empty()", add_operation, config_source, 112);
    ExpectAssertion(no_alias, [&] { AddAliasIf("eth0", "", some_address, true).DoIoCtl(pipe.Number()); });
    ExpectAssertion(no_alias, [&] { AddAliasIf("eth0", nullptr, some_address, false).DoIoCtl(pipe.Number()); });
}

TEST(AddAliasIfRefusal, AnAliasThatIsRefusedIsTold) {
    const Pipe pipe;
    for (const bool copies : {true, false}) {
        ExpectAssertion(Refused("Inappropriate ioctl for device", ENOTTY),
                        [&] { AddAliasIf("eth0", "eth0:1", some_address, copies).DoIoCtl(pipe.Number()); });
    }
}

TEST(DelAliasIfRefusal, AnAliasThatThereIsNotIsTold) {
    const IfConfig config;
    ExpectAssertion(Refused("No such device", ENODEV), [&] {
        DelAliasIf del("nobody", unknown);
        config.DoIoCtl(del);
    });
    ExpectAssertion(Broken("sd >= 0", "TarnSocketIO::IfReq::DoIoCtl(int, int)", structs_source, 62),
                    [] { DelAliasIf("eth0", "eth0:1").DoIoCtl(-1); });
}

}  // namespace

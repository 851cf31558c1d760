// Requests that the kernel refuses: each ends the process, and says why.

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/IfConfig.h>
#include <TarnSocketIO/ioctl_structs.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/InterfaceRequests.h"
#include "tests/support/InterfaceState.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"
#include "tests/support/Privileges.h"

using IPv4::IPAddress;
using TarnSocketIO::AddAliasIf;
using TarnSocketIO::ChangeAliasIf;
using TarnSocketIO::DelAliasIf;
using TarnSocketIO::GetAllIfs;
using TarnSocketIO::IfConfig;
using TarnSocketIO::IfFlagsReq;
using TarnSocketIO::IfReq;
using TarnTest::AddressLines;
using TarnTest::ChildProcess;
using TarnTest::GetBroadcast;
using TarnTest::GetNetmask;
using TarnTest::GiveUpPrivileges;
using TarnTest::PrivateNetwork;
using TarnTest::SetAddress;
using TarnTest::SetBroadcast;
using TarnTest::SetNetmask;
using TarnTest::Shared;
using TarnTest::WiredHosts;
using testing::ElementsAre;
using testing::EndsWith;
using testing::UnorderedElementsAre;

namespace {

using RefusedRequest = TarnTest::NetworkTest;
using UnprivilegedProcess = TarnTest::NetworkTest;

const IPAddress leave_alone(0, 0, 0, 0);
const IPAddress from_main(1, 0, 0, 0);
const IPAddress some_address(192, 0, 2, 9);

#ifdef __clang__
constexpr const char* request_function = "IfReq::ErrorType TarnSocketIO::IfReq::DoIoCtl(int, int)";
#else
constexpr const char* request_function = "TarnSocketIO::IfReq::ErrorType TarnSocketIO::IfReq::DoIoCtl(int, int)";
#endif

/// What a refused request leaves on standard error.
std::string Report(int error) {
    return std::string("ioctl : ") + std::strerror(error) +
           "\nAssertion Failed\n expression: !errno\n function: " + request_function +
           "\n file: libraries/TarnSocketIO/ioctl_structs.cpp\n line: 69\n (*__errno_location ()): " +
           std::to_string(error);
}

/// Expects that `act` ends a process, with these words.
void ExpectRefused(int error, const std::function<void(int sd)>& act) {
    ChildProcess child([&] {
        const IfConfig config;
        act(config.GetSocketDescriptor());
    });
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_EQ("IfReq::DoIoCtl error ", child.Output());
    EXPECT_EQ(Report(error), child.Errors());
    EXPECT_EQ("", child.Failures());
}

/// An operation that is run and dropped.
template <class Operation>
std::function<void(int sd)> Do(const Operation& operation) {
    return [operation](int sd) {
        Operation copy = operation;
        copy.DoIoCtl(sd);
    };
}

/// A request for a value that nobody looks at.
template <class Get>
std::function<void(int sd)> Read(const char* name) {
    return [name](int sd) {
        IPAddress value;
        Get(name).DoIoCtl(sd, value);
    };
}

std::function<void(int sd)> Flags(const char* name, int request) {
    return [name, request](int sd) { IfFlagsReq(name).DoIoCtl(sd, request); };
}

}  // namespace

// ---- no such interface

TEST_F(RefusedRequest, EveryOperationOnAnUnknownInterfaceIsOne) {
    const WiredHosts net;
    const std::vector<std::string> before = AddressLines(net);
    const std::function<void(int)> operations[] = {
        Read<GetNetmask>("wire9"),
        Read<GetBroadcast>("wire9"),
        Do(SetAddress("wire9", some_address)),
        Do(SetNetmask("wire9", IPAddress(255, 255, 255, 0))),
        Do(SetBroadcast("wire9", some_address)),
        Flags("wire9", SIOCGIFFLAGS),
        Flags("wire9", SIOCSIFFLAGS),
        Do(AddAliasIf("wire9", "wire9:1", some_address, true)),
        Do(AddAliasIf("wire9", "wire9:1", some_address, false)),
        Do(ChangeAliasIf("wire9", "wire9:1", some_address, leave_alone, leave_alone)),
        Do(ChangeAliasIf("wire9", "wire9:1", leave_alone, from_main, leave_alone)),
        Do(ChangeAliasIf("wire9", "wire9:1", leave_alone, leave_alone, from_main)),
        Do(ChangeAliasIf("wire0", "wire9:1", leave_alone, from_main, leave_alone)),
        Do(ChangeAliasIf("wire0", "wire9:1", leave_alone, leave_alone, from_main)),
        Do(DelAliasIf("wire9", "wire9:1")),
        Read<GetNetmask>(""),
    };
    for (std::size_t i = 0; i < std::size(operations); ++i) {
        SCOPED_TRACE(i);
        ExpectRefused(ENODEV, operations[i]);
    }
    EXPECT_EQ(before, AddressLines(net));
}

TEST_F(RefusedRequest, TheLinesComeInThisOrder) {
    const PrivateNetwork net;
    ChildProcess child([] {
        dup2(STDOUT_FILENO, STDERR_FILENO);
        const IfConfig config;
        AddAliasIf add("wire9", "wire9:1", some_address, true);
        config.DoIoCtl(add);
    });
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_EQ("IfReq::DoIoCtl error " + Report(ENODEV), TarnTest::LastWords(child.Output()));
}

TEST_F(RefusedRequest, WhatIsAskedForIsNotTouched) {
    const PrivateNetwork net;
    const Shared<unsigned int> value;
    *value = 17;
    ExpectRefused(ENODEV, [&](int sd) {
        static_assert(sizeof(IPAddress) == sizeof *value, "an address is its word");
        GetNetmask("wire9").DoIoCtl(sd, reinterpret_cast<IPAddress&>(*value));
    });
    EXPECT_EQ(17U, *value);
}

TEST_F(RefusedRequest, WhatComesBeforeIsPrintedBefore) {
    const PrivateNetwork net;
    ChildProcess child([] {
        std::cout << "one, ";
        std::printf("two, ");
        IfReq request("wire9");
        const IfConfig config;
        request.DoIoCtl(config.GetSocketDescriptor(), SIOCGIFADDR);
    });
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_EQ("one, two, IfReq::DoIoCtl error ", child.Output());
}

// ---- no such alias

TEST_F(RefusedRequest, AnAliasThatDoesNotExistCannotBeDeleted) {
    WiredHosts net;
    net.AddAlias("wire0:1", "192.0.2.7/24");
    const std::vector<std::string> before = AddressLines(net);
    for (const char* const name : {"wire0:2", "wire0:11", "wire0:", "wire0::", "wire0:1:"}) {
        SCOPED_TRACE(name);
        ExpectRefused(EADDRNOTAVAIL, Do(DelAliasIf("wire0", name)));
    }
    EXPECT_EQ(before, AddressLines(net));
    EXPECT_TRUE(net.IsUp("wire0"));
}

TEST_F(RefusedRequest, ADeletedAliasCannotBeDeletedAgain) {
    WiredHosts net;
    net.AddAlias("wire0:1", "192.0.2.7/24");
    const IfConfig config;
    DelAliasIf del("wire0", "wire0:1");
    EXPECT_EQ(0, config.DoIoCtl(del));
    ExpectRefused(EADDRNOTAVAIL, Do(del));
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 192.0.2.1/24"));
    EXPECT_TRUE(net.IsUp("wire0"));
}

TEST_F(RefusedRequest, AnAliasWithoutAnAddressHasNoSettings) {
    const WiredHosts net;
    const std::function<void(int)> operations[] = {
        Read<GetNetmask>("wire0:1"),
        Read<GetBroadcast>("wire0:1"),
        Do(ChangeAliasIf("wire0", "wire0:1", leave_alone, from_main, leave_alone)),
        Do(ChangeAliasIf("wire0", "wire0:1", leave_alone, leave_alone, from_main)),
        Do(ChangeAliasIf("wire0", "wire0:1", leave_alone, IPAddress(255, 255, 0, 0), leave_alone)),
    };
    for (std::size_t i = 0; i < std::size(operations); ++i) {
        SCOPED_TRACE(i);
        ExpectRefused(EADDRNOTAVAIL, operations[i]);
    }
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 192.0.2.1/24"));
}

// ---- steps that were made before stay

TEST_F(RefusedRequest, AnAliasOfAnInterfaceWithoutSettingsStaysWithTheKernels) {
    PrivateNetwork net;
    net.AddInterface("wire0", "");
    ExpectRefused(EADDRNOTAVAIL, Do(AddAliasIf("wire0", "wire0:1", some_address, true)));
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0:1 192.0.2.9/24 brd 192.0.2.255"));
}

TEST_F(RefusedRequest, ANetmaskWithAHoleLeavesTheAddress) {
    WiredHosts net;
    net.AddAlias("wire0:1", "203.0.113.7/28");
    ExpectRefused(EINVAL, Do(ChangeAliasIf("wire0", "wire0:1", IPAddress(172, 16, 2, 9), IPAddress(255, 0, 255, 0),
                                           IPAddress(172, 16, 2, 99))));
    EXPECT_THAT(AddressLines(net, "wire0"),
                UnorderedElementsAre("wire0 192.0.2.1/24", "wire0:1 172.16.2.9/16 brd 172.16.255.255"));
}

TEST_F(RefusedRequest, ABroadcastAddressThatCannotBeReadLeavesAddressAndNetmask) {
    WiredHosts net;
    net.AddAlias("wire0:1", "203.0.113.7/28");
    ExpectRefused(ENODEV, Do(ChangeAliasIf("wire9", "wire0:1", IPAddress(172, 16, 2, 9), IPAddress(255, 255, 255, 0),
                                           from_main)));
    EXPECT_THAT(AddressLines(net, "wire0"),
                UnorderedElementsAre("wire0 192.0.2.1/24", "wire0:1 172.16.2.9/24 brd 172.16.2.255"));
}

TEST_F(RefusedRequest, AGroupIsNoAddress) {
    const WiredHosts net;
    ExpectRefused(EINVAL, Do(SetAddress("wire0", IPAddress(224, 0, 0, 9))));
    ExpectRefused(EINVAL, Do(AddAliasIf("wire0", "wire0:1", IPAddress(239, 1, 2, 3), true)));
    EXPECT_THAT(AddressLines(net, "wire0"), ElementsAre("wire0 192.0.2.1/24"));
}

// ---- without the right to it

TEST_F(UnprivilegedProcess, ChangesNothing) {
    WiredHosts net;
    net.AddAlias("wire0:1", "203.0.113.7/28");
    const std::vector<std::string> before = AddressLines(net);
    const std::function<void(int)> operations[] = {
        Do(SetAddress("wire0", some_address)),
        Do(SetNetmask("wire0", IPAddress(255, 255, 0, 0))),
        Do(SetBroadcast("wire0", IPAddress(192, 0, 2, 99))),
        Flags("wire0", SIOCSIFFLAGS),
        Do(AddAliasIf("wire0", "wire0:2", some_address, false)),
        Do(AddAliasIf("wire0", "wire0:2", some_address, true)),
        Do(ChangeAliasIf("wire0", "wire0:1", some_address, leave_alone, leave_alone)),
        Do(ChangeAliasIf("wire0", "wire0:1", leave_alone, from_main, leave_alone)),
        Do(ChangeAliasIf("wire0", "wire0:1", leave_alone, leave_alone, from_main)),
        Do(DelAliasIf("wire0", "wire0:1")),
    };
    for (std::size_t i = 0; i < std::size(operations); ++i) {
        SCOPED_TRACE(i);
        ExpectRefused(EPERM, [&](int sd) {
            ASSERT_TRUE(GiveUpPrivileges());
            operations[i](sd);
        });
    }
    EXPECT_EQ(before, AddressLines(net));
    EXPECT_TRUE(net.IsUp("wire0"));
}

TEST_F(UnprivilegedProcess, ReadsEverything) {
    WiredHosts net;
    net.AddAlias("wire0:1", "203.0.113.7/28");
    TarnTest::InChild([] {
        ASSERT_TRUE(GiveUpPrivileges());
        const IfConfig config;
        GetAllIfs list;
        std::vector<const char*> names;
        EXPECT_EQ(0, config.DoIoCtl(list, names));
        EXPECT_THAT(std::vector<std::string>(names.begin(), names.end()),
                    UnorderedElementsAre("lo", "wire0", "wire0:1"));
        GetNetmask netmask("wire0:1");
        IPAddress value;
        EXPECT_EQ(0, config.DoIoCtl(netmask, value));
        EXPECT_EQ(IPAddress(255, 255, 255, 240), value);
        IfFlagsReq flags("wire0");
        EXPECT_EQ(0, flags.DoIoCtl(config.GetSocketDescriptor(), SIOCGIFFLAGS));
        EXPECT_TRUE(flags.IsUp());
    });
}

// ---- descriptors that are not sockets

TEST_F(RefusedRequest, AClosedDescriptorIsToldAsSuch) {
    ExpectRefused(EBADF, [](int sd) {
        close(sd);
        GetNetmask netmask("lo");
        IPAddress value;
        netmask.DoIoCtl(sd, value);
    });
}

TEST_F(RefusedRequest, AFileIsNoSocket) {
    ExpectRefused(ENOTTY, [](int /*sd*/) {
        const int file = open("/dev/null", O_RDWR | O_CLOEXEC);
        SetAddress("lo", some_address).DoIoCtl(file);
    });
}

TEST_F(RefusedRequest, AListOfAFileIsToldInItsOwnWords) {
    ChildProcess child([] {
        const int file = open("/dev/null", O_RDWR | O_CLOEXEC);
        GetAllIfs list;
        std::vector<const char*> names;
        list.DoIoCtl(file, names);
    });
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_EQ("GetAllIfs::DoIoCtl SIOCGIFCONF error ", child.Output());
    EXPECT_THAT(child.Errors(), testing::StartsWith("ioctl(Get SIOCGIFCONF): Inappropriate ioctl for device\n"
                                                    "Assertion Failed\n expression: !errno\n"));
    EXPECT_THAT(child.Errors(), EndsWith("\n file: libraries/TarnSocketIO/IfConfig.cpp\n line: 88\n "
                                         "(*__errno_location ()): 25"));
}

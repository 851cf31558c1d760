#include <TarnSocketIO/IPv4/ARPIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <exception>
#include <functional>
#include <ios>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/AllDescriptorsTaken.h"
#include "tests/support/Bytes.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LibcAssertion.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::ARPIO;
using TarnSocketIO::ARPReq;
using TarnSocketIO::ARPTableIPv4Entry;
using TarnSocketIO::MACAddress;
using TarnTest::AllDescriptorsTaken;
using TarnTest::ChildProcess;
using TarnTest::CountOpenDescriptors;
using TarnTest::IsOpen;
using TarnTest::OwnedDescriptor;
using TarnTest::SaysThat;
using TarnTest::SocketKind;
using TarnTest::StandardInputSetAside;
using testing::KilledBySignal;

static_assert(!std::is_copy_constructible_v<ARPIO>, "a copy would close the descriptor twice");
static_assert(!std::is_copy_assignable_v<ARPIO>, "a copy would close the descriptor twice");
static_assert(!std::is_move_constructible_v<ARPIO>);
static_assert(!std::is_convertible_v<const char*, ARPIO>);

/// No host of the loopback interface is in the table.
constexpr const char* device = "lo";
constexpr const char* no_device = "no-such-device";
const IPAddress absent(10, 0, 0, 99);

bool IsZero(const MACAddress& mac) {
    const auto* const octets = reinterpret_cast<const char*>(mac.OctetForm());
    return TarnTest::IsZero(octets, octets + 6);
}

/// The number that the next descriptor gets.
int NextDescriptor() {
    const OwnedDescriptor next(dup(STDERR_FILENO));
    return next.Number();
}

/// What the kernel says to a query for the absent address on a device.
int KernelsErrorOn(const char* name) {
    const OwnedDescriptor fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    arpreq request{};
    const sockaddr_in address = absent;
    std::memcpy(&request.arp_pa, &address, sizeof address);
    std::strcpy(request.arp_dev, name);
    request.arp_flags = ATF_PUBL;
    return ioctl(fd.Number(), SIOCGARP, &request) < 0 ? errno : 0;
}

/// An emulator may hand the record on in a byte order that is not the kernel's: then devices do not matter.
bool DevicesAreTold() {
    return KernelsErrorOn(device) == ENXIO && KernelsErrorOn(no_device) == ENODEV;
}

std::string ErrorLine(int error) {
    return std::string("ioctl(Get ARP entry): ") + std::strerror(error) + "\n";
}

/// Runs a query that finds nothing in a child. Expects the two lines that tell so.
void ExpectNothingFound(int error, const std::function<MACAddress()>& query) {
    ChildProcess child([&] { EXPECT_TRUE(IsZero(query())); });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ("ARPIO::GetEntry error: 10.0.0.99 ", child.Output());
    EXPECT_EQ(ErrorLine(error), child.Errors());
}

// --- the socket ---

TEST(ARPIO, OwnsADatagramSocketWhileItLives) {
    const std::size_t before = CountOpenDescriptors();
    const int fd = NextDescriptor();
    {
        const ARPIO arp;
        EXPECT_EQ(before + 1, CountOpenDescriptors());
        EXPECT_EQ(SocketKind(AF_INET, SOCK_DGRAM, IPPROTO_UDP), SocketKind(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(before, CountOpenDescriptors());
    {
        const ARPIO arp(device);
        EXPECT_EQ(before + 1, CountOpenDescriptors());
        EXPECT_EQ(SocketKind(AF_INET, SOCK_DGRAM, IPPROTO_UDP), SocketKind(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(before, CountOpenDescriptors());
}

TEST(ARPIO, AThousandObjectsLeaveNoDescriptor) {
    const std::size_t before = CountOpenDescriptors();
    for (int i = 0; i < 1000; ++i) {
        const ARPIO one;
        const ARPIO other(device);
    }
    EXPECT_EQ(before, CountOpenDescriptors());
}

TEST(ARPIO, ObjectsHaveSocketsOfTheirOwn) {
    const std::size_t before = CountOpenDescriptors();
    std::optional<ARPIO> first(std::in_place);
    const ARPIO second;
    EXPECT_EQ(before + 2, CountOpenDescriptors());
    first.reset();
    EXPECT_EQ(before + 1, CountOpenDescriptors());
    ARPTableIPv4Entry entry(absent, no_device, ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
    ChildProcess child([&] { EXPECT_EQ(KernelsErrorOn(no_device), second.GetEntry(entry)); });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
}

TEST(ARPIO, DoesNotCloseStandardInputsNumber) {
    const StandardInputSetAside set_aside;
    ASSERT_FALSE(IsOpen(STDIN_FILENO));
    std::optional<ARPIO> arp(std::in_place);
    const OwnedDescriptor in_case_it_is_free(NextDescriptor() == STDIN_FILENO ? dup(STDERR_FILENO) : -1);
    ASSERT_TRUE(IsOpen(STDIN_FILENO));
    arp.reset();
    EXPECT_TRUE(IsOpen(STDIN_FILENO));
}

TEST(ARPIO, InitSocketOnAnOpenSocketAborts) {
    ARPIO arp;
    EXPECT_EXIT(arp.InitSocket(), KilledBySignal(SIGABRT),
                SaysThat(TarnTest::LibcAssertion{"libraries/TarnSocketIO/IPv4/ARPIO.cpp", 47,
                                                 "void TarnSocketIO::ARPIO::InitSocket()", "m_SD < 0"}));
}

TEST(ARPIO, IsNotMadeWithoutADescriptor) {
    // Looked at when there are descriptors again: a sanitizer needs one to look at an exception.
    std::vector<std::exception_ptr> refusals;
    {
        const AllDescriptorsTaken none_left;
        for (const bool has_device : {false, true}) {
            try {
                if (has_device) {
                    const ARPIO arp(device);
                } else {
                    const ARPIO arp;
                }
            } catch (...) {
                refusals.push_back(std::current_exception());
            }
        }
    }
    ASSERT_EQ(2U, refusals.size());
    for (const std::exception_ptr& refusal : refusals) {
        try {
            std::rethrow_exception(refusal);
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ("could open socket for ARPIO", error.what());
        }
    }
    const ARPIO arp;
}

// --- queries ---

TEST(ARPIO, TellsOfAnAddressWithoutAnEntry) {
    ExpectNothingFound(KernelsErrorOn(device), [] { return ARPIO(device).GetMACAddress(absent); });
    ExpectNothingFound(KernelsErrorOn(device), [] { return ARPIO().GetMACAddress(absent, device); });
}

TEST(ARPIO, AsksOnTheDeviceOfTheObjectOrOfTheQuery) {
    if (!DevicesAreTold()) {
        GTEST_SKIP() << "the emulator does not pass the device on";
    }
    ExpectNothingFound(ENXIO, [] { return ARPIO(device).GetMACAddress(absent); });
    ExpectNothingFound(ENODEV, [] { return ARPIO(no_device).GetMACAddress(absent); });
    ExpectNothingFound(KernelsErrorOn(""), [] { return ARPIO().GetMACAddress(absent); });
    ExpectNothingFound(KernelsErrorOn(""), [] { return ARPIO("").GetMACAddress(absent); });
    ExpectNothingFound(ENXIO, [] { return ARPIO(no_device).GetMACAddress(absent, device); });
    ExpectNothingFound(ENODEV, [] { return ARPIO(device).GetMACAddress(absent, no_device); });
    ExpectNothingFound(ENXIO, [] { return ARPIO().GetMACAddress(absent, device); });
}

TEST(ARPIO, AQueryLeavesTheDeviceOfTheObjectAsItIs) {
    if (!DevicesAreTold()) {
        GTEST_SKIP() << "the emulator does not pass the device on";
    }
    ChildProcess child([] {
        const ARPIO arp(device);
        EXPECT_TRUE(IsZero(arp.GetMACAddress(absent, no_device)));
        EXPECT_TRUE(IsZero(arp.GetMACAddress(absent)));
        EXPECT_TRUE(IsZero(arp.GetMACAddress(IPAddress(10, 0, 0, 98))));
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("ARPIO::GetEntry error: 10.0.0.99 ARPIO::GetEntry error: 10.0.0.99 ARPIO::GetEntry error: 10.0.0.98 ",
              child.Output());
    EXPECT_EQ(ErrorLine(ENODEV) + ErrorLine(ENXIO) + ErrorLine(ENXIO), child.Errors());
}

TEST(ARPIO, GetEntryReturnsTheErrorAndLeavesTheQuestion) {
    ChildProcess child([] {
        const ARPIO arp;
        ARPTableIPv4Entry entry;
        entry.Init(absent, device, ARPReq::FLAG_PUBL, ARPReq::FLAG_NONE);
        EXPECT_EQ(KernelsErrorOn(device), arp.GetEntry(entry));
        EXPECT_EQ(absent, entry.GetIPv4Address());
        EXPECT_STREQ(device, entry.GetDeviceName());
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("ARPIO::GetEntry error: 10.0.0.99 ", child.Output());
    EXPECT_EQ(ErrorLine(KernelsErrorOn(device)), child.Errors());
}

TEST(ARPIO, TellsTheAddressInDecimalAndLeavesTheStreamSo) {
    ChildProcess child([] {
        std::cout << std::hex;
        EXPECT_TRUE(IsZero(ARPIO(device).GetMACAddress(absent)));
        EXPECT_EQ(std::ios_base::dec, std::cout.flags() & std::ios_base::basefield);
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("ARPIO::GetEntry error: 10.0.0.99 ", child.Output());
}

TEST(ARPIO, TellsTheAddressBeforeTheError) {
    ChildProcess child([] {
        dup2(STDOUT_FILENO, STDERR_FILENO);
        EXPECT_TRUE(IsZero(ARPIO(device).GetMACAddress(absent)));
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("ARPIO::GetEntry error: 10.0.0.99 " + ErrorLine(KernelsErrorOn(device)), child.Output());
}

TEST(ARPIO, AbortsOnAnEntryThatIsNotIPv4WhenItHasBegunToTell) {
    for (const int family : {AF_UNSPEC, AF_UNIX, AF_INET6}) {
        ChildProcess child([&] {
            ARPTableIPv4Entry entry(absent, device, ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
            entry.arp_pa.sa_family = static_cast<sa_family_t>(family);
            ARPIO().GetEntry(entry);
        });
        EXPECT_EQ(SIGABRT, child.EndingSignal());
        EXPECT_EQ("ARPIO::GetEntry error: ", child.Output());
        EXPECT_THAT(child.Errors(),
                    SaysThat(TarnTest::LibcAssertion{"libraries/TarnSocketIO/socket_structs.cpp", 365,
                                                     "IPv4::IPAddress TarnSocketIO::ARPReq::GetIPv4Address() const",
                                                     "arp_pa.sa_family == 2"}));
    }
}

TEST(ARPIO, OneObjectServesSeveralThreads) {
    constexpr int queries = 50;
    ChildProcess child([&] {
        const ARPIO arp(device);
        const int expected = KernelsErrorOn(device);
        std::atomic<int> right{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                for (int n = 0; n < queries; ++n) {
                    ARPTableIPv4Entry entry(absent, device, ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
                    right += arp.GetEntry(entry) == expected && IsZero(arp.GetMACAddress(absent)) ? 1 : 0;
                }
            });
        }
        std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
        EXPECT_EQ(4 * queries, right);
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures() << child.Errors();
}

}  // namespace

// What queries of the ARP table do when the kernel refuses them something.

#include <TarnSocketIO/IPv4/ARPIO.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Bytes.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/LogTest.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::ARPIO;
using TarnSocketIO::ARPReq;
using TarnSocketIO::ARPTableIPv4Entry;
using TarnTest::BackgroundCall;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::ChildProcess;
using TarnTest::CountOpenDescriptors;
using TarnTest::Eventually;
using TarnTest::FailingCalls;
using TarnTest::HeldCall;
using TarnTest::OutputOf;
using TarnTest::OwnedDescriptor;

const IPAddress asked(10, 0, 0, 99);

constexpr const char* told = "ARPIO::GetEntry error: 10.0.0.99 ";

std::string NameOfError(const testing::TestParamInfo<int>& info) {
    return strerrorname_np(info.param);
}

bool IsZero(const TarnSocketIO::MACAddress& mac) {
    const auto* const octets = reinterpret_cast<const char*>(mac.OctetForm());
    return TarnTest::IsZero(octets, octets + 6);
}

/// What goes to std::cout, by way of a buffer that spoils errno; or refuses everything.
class StrangeOutput : public std::stringbuf {
public:
    explicit StrangeOutput(bool refuses = false) : m_refuses(refuses), m_original(std::cout.rdbuf(this)) {}
    ~StrangeOutput() override { std::cout.rdbuf(m_original); }
    StrangeOutput(const StrangeOutput&) = delete;
    StrangeOutput& operator=(const StrangeOutput&) = delete;

    int Flushes() const { return m_flushes; }

protected:
    std::streamsize xsputn(const char* text, std::streamsize length) override {
        errno = EDOM;
        if (m_refuses) {
            throw std::runtime_error("nothing can be written");
        }
        return std::stringbuf::xsputn(text, length);
    }
    int_type overflow(int_type c) override {
        errno = EDOM;
        if (m_refuses) {
            throw std::runtime_error("nothing can be written");
        }
        return std::stringbuf::overflow(c);
    }
    int sync() override {
        errno = EDOM;
        ++m_flushes;
        return std::stringbuf::sync();
    }

private:
    const bool m_refuses;
    int m_flushes = 0;
    std::streambuf* const m_original;
};

// --- the socket ---

class ARPIOSocketFault : public testing::TestWithParam<int> {};

TEST_P(ARPIOSocketFault, IsARuntimeErrorThatSaysSo) {
    const auto refusal_of = [](auto make) {
        const FailingCalls refused(Call::Socket, GetParam());
        const CallWatch sockets(Call::Socket);
        const CallWatch closings(Call::Close);
        std::string text;
        try {
            make();
        } catch (const std::runtime_error& refusal) {
            text = refusal.what();
        }
        EXPECT_EQ(1, sockets.Count());
        EXPECT_EQ(0, closings.Count());
        return text;
    };
    EXPECT_EQ("", OutputOf([&] {
                  EXPECT_EQ("could open socket for ARPIO", refusal_of([] { const ARPIO arp; }));
                  EXPECT_EQ("could open socket for ARPIO", refusal_of([] { const ARPIO arp("eth0"); }));
              }));
    const std::size_t descriptors = CountOpenDescriptors();
    const ARPIO arp;
    EXPECT_EQ(descriptors + 1, CountOpenDescriptors());
}

INSTANTIATE_TEST_SUITE_P(Errors, ARPIOSocketFault, testing::Values(EMFILE, ENFILE, ENOBUFS, ENOMEM, EINTR, EACCES),
                         NameOfError);

// --- the query ---

class ARPIOQueryFault : public testing::TestWithParam<int> {
protected:
    static std::string ErrorLine() { return std::string("ioctl(Get ARP entry): ") + std::strerror(GetParam()) + "\n"; }
};

TEST_P(ARPIOQueryFault, IsReturnedAndTold) {
    ChildProcess child([] {
        const std::size_t descriptors = CountOpenDescriptors();
        const ARPIO arp;
        ARPTableIPv4Entry entry(asked, "lo", ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
        const FailingCalls refused(Call::Control, GetParam());
        const CallWatch queries(Call::Control);
        EXPECT_EQ(GetParam(), arp.GetEntry(entry));
        EXPECT_EQ(1, refused.Failed());
        EXPECT_EQ(1, queries.Count()) << "it is not tried again";
        EXPECT_EQ(SOCK_DGRAM, TarnTest::OptionOf(queries.LastDescriptor(), SO_TYPE));
        EXPECT_EQ(descriptors + 1, CountOpenDescriptors());
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ(told, child.Output());
    EXPECT_EQ(ErrorLine(), child.Errors());
}

TEST_P(ARPIOQueryFault, IsAnAddressOfZeros) {
    ChildProcess child([] {
        const ARPIO arp("lo");
        const FailingCalls refused(Call::Control, GetParam(), 2);
        EXPECT_TRUE(IsZero(arp.GetMACAddress(asked)));
        EXPECT_TRUE(IsZero(arp.GetMACAddress(asked, "lo")));
        EXPECT_EQ(2, refused.Failed());
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ(std::string(told) + told, child.Output());
    EXPECT_EQ(ErrorLine() + ErrorLine(), child.Errors());
}

TEST_P(ARPIOQueryFault, IsToldEvenIfOutputHasAnErrorOfItsOwn) {
    ChildProcess child([] {
        const ARPIO arp;
        ARPTableIPv4Entry entry(asked, "lo", ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
        const StrangeOutput output;
        const FailingCalls refused(Call::Control, GetParam());
        EXPECT_EQ(GetParam(), arp.GetEntry(entry));
        EXPECT_EQ(told, output.str());
        EXPECT_GE(output.Flushes(), 1);
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ(ErrorLine(), child.Errors());
}

INSTANTIATE_TEST_SUITE_P(Errors, ARPIOQueryFault,
                         testing::Values(ENXIO, ENODEV, ENETDOWN, EINVAL, EPERM, EBADF, EINTR, EFAULT), NameOfError);

// --- the end ---

/// The number that the next descriptor gets.
int FreeNumber() {
    const OwnedDescriptor next(dup(STDERR_FILENO));
    return next.Number();
}

/// Ends an object whose closing fails so often. @return what is written.
std::string OutputOfEnd(int error, int times, int expected_closings) {
    std::optional<ARPIO> arp(std::in_place);
    const FailingCalls refused(Call::Close, error, times);
    int closings = 0;
    std::string output;
    {
        const StrangeOutput caught;
        const CallWatch watch(Call::Close);
        arp.reset();
        closings = watch.Count();
        output = caught.str();
        EXPECT_EQ(0, caught.Flushes());
    }
    EXPECT_EQ(times, refused.Failed());
    EXPECT_EQ(expected_closings, closings);
    return output;
}

TEST(ARPIOCloseFault, AnInterruptedCloseIsRepeated) {
    const std::size_t descriptors = CountOpenDescriptors();
    for (const int times : {1, 2, 3, 10, 1000}) {
        EXPECT_EQ("", OutputOfEnd(EINTR, times, times + 1));
        EXPECT_EQ(descriptors, CountOpenDescriptors());
    }
}

TEST(ARPIOCloseFault, AnyOtherErrorIsToldWithoutALineEnd) {
    for (const int error : {EIO, EBADF, ENOSPC, EDQUOT, EAGAIN}) {
        const OwnedDescriptor left_over(FreeNumber());
        EXPECT_EQ("~ARPIO() failed", OutputOfEnd(error, 1, 1));
        EXPECT_EQ(SOCK_DGRAM, TarnTest::OptionOf(left_over.Number(), SO_TYPE));
    }
}

TEST(ARPIOCloseFault, DoesNotThrow) {
    ChildProcess child([] {
        std::optional<ARPIO> arp(std::in_place);
        const StrangeOutput output(true);
        std::cout.exceptions(std::ios_base::badbit | std::ios_base::failbit);
        const FailingCalls refused(Call::Close, EIO);
        arp.reset();
        EXPECT_EQ(1, refused.Failed());
        std::cout.exceptions(std::ios_base::goodbit);
    });
    EXPECT_EQ(0, child.ExitStatus()) << "ended by signal " << child.EndingSignal();
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ("", child.Output());
}

/// Ends an object as Linux does it: an interrupted close has closed the descriptor all the same.
///
/// @param use  is called with the number when that is free, before the call comes back.
/// @return what is written.
template <class Use>
std::string OutputOfInterruptedEnd(Use use) {
    const int number = FreeNumber();
    std::optional<ARPIO> arp(std::in_place);
    EXPECT_EQ(SOCK_DGRAM, TarnTest::OptionOf(number, SO_TYPE));
    const StrangeOutput output;
    HeldCall held(Call::Close);
    const FailingCalls interrupted(Call::Close, EINTR, 100);
    BackgroundCall end([&] {
        arp.reset();
        return true;
    });
    EXPECT_TRUE(Eventually([&] { return held.IsHeld(); }));
    EXPECT_EQ(0, syscall(SYS_close, number));
    use(number);
    held.Release();
    EXPECT_TRUE(end.Result());
    EXPECT_EQ(1, interrupted.Failed());
    return output.str();
}

TEST(ARPIOInterruptedClose, LeavesTheNumberToWhoeverHasItNow) {
    const auto file = [] { return open("/dev/null", O_RDONLY | O_CLOEXEC); };
    const auto socket_of_the_same_kind = [] { return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); };
    for (int round = 0; round < 2; ++round) {
        const OwnedDescriptor other(round == 0 ? file() : socket_of_the_same_kind());
        OwnedDescriptor somebodys;
        EXPECT_EQ("", OutputOfInterruptedEnd([&](int number) {
                      EXPECT_EQ(number, dup2(other.Number(), number));
                      somebodys = OwnedDescriptor(number);
                  }));
        struct stat expected {};
        struct stat found {};
        ASSERT_EQ(0, fstat(other.Number(), &expected));
        ASSERT_EQ(0, fstat(somebodys.Number(), &found)) << "it has been closed";
        EXPECT_EQ(expected.st_dev, found.st_dev);
        EXPECT_EQ(expected.st_ino, found.st_ino);
    }
}

TEST(ARPIOInterruptedClose, IsTheEndWhereNobodyHasTheNumber) {
    const std::size_t descriptors = CountOpenDescriptors();
    EXPECT_EQ("", OutputOfInterruptedEnd([](int /*number*/) {}));
    EXPECT_EQ(descriptors, CountOpenDescriptors());
}

}  // namespace

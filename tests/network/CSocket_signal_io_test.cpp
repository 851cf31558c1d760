// A receiver that raises SIGIO, and one that is made anew.

#include <TarnSocketIO/CSocket.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "tests/support/ChildProcess.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/Packets.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::CountOpenDescriptors;
using TarnTest::EndpointEvent;
using TarnTest::Eventually;
using TarnTest::InChild;
using TarnTest::IsReadable;
using TarnTest::LinesOf;
using TarnTest::LogCapture;
using TarnTest::OpenSocket;
using TarnTest::OwnedDescriptor;
using TarnTest::PrivateNetwork;
using TarnTest::SendDatagram;
using TarnTest::TestEndpoint;
using testing::ElementsAre;
using testing::IsEmpty;

using Kind = EndpointEvent::Kind;

namespace {

using CSocketSignalIO = TarnTest::NetworkTest;
using CSocketRepair = TarnTest::NetworkTest;

constexpr const char* not_owned_line = "CSocket::EnableSignalIO - could not own SIGIO";

int FlagsOf(int fd) {
    return fcntl(fd, F_GETFL);
}

/// With a receiver on a port of the kernel's, and no threads.
class Receiver : public TestEndpoint {
public:
    Receiver() : TestEndpoint(CONNECTION_UDP) { InitialiseLocalSockets(0, nullptr, nullptr, 0); }
    ~Receiver() override { TerminateAll(); }
};

/// Counts the signals of the process while it lives. One at a time.
class SignalCounter {
public:
    SignalCounter() {
        s_count = 0;
        s_fd = -1;
        struct sigaction action {};
        action.sa_sigaction = [](int, siginfo_t* info, void*) {
            s_fd = info->si_fd;
            s_count = s_count + 1;
        };
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        sigaction(SIGIO, &action, &m_before);
    }
    ~SignalCounter() { sigaction(SIGIO, &m_before, nullptr); }
    SignalCounter(const SignalCounter&) = delete;
    SignalCounter& operator=(const SignalCounter&) = delete;

    static int Count() { return s_count; }
    static int LastDescriptor() { return s_fd; }

private:
    inline static std::atomic<int> s_count{0};
    inline static std::atomic<int> s_fd{-1};
    struct sigaction m_before {};
};

}  // namespace

// ---- signals

TEST_F(CSocketSignalIO, TheReceiverIsSwitchedOnAndOff) {
    const PrivateNetwork net;
    Receiver receiver;
    const int fd = receiver.m_socReceiver;
    ASSERT_EQ(0, FlagsOf(fd) & (O_ASYNC | O_NONBLOCK));
    EXPECT_THAT(LinesOf([&] { EXPECT_TRUE(receiver.EnableSignalIO()); }), IsEmpty());
    EXPECT_EQ(O_ASYNC | O_NONBLOCK, FlagsOf(fd) & (O_ASYNC | O_NONBLOCK));
    EXPECT_EQ(getpid(), fcntl(fd, F_GETOWN));
    EXPECT_EQ(SIGIO, fcntl(fd, F_GETSIG));

    EXPECT_THAT(LinesOf([&] { EXPECT_EQ(0, receiver.DisableSignalIO()); }), IsEmpty());
    EXPECT_EQ(O_NONBLOCK, FlagsOf(fd) & (O_ASYNC | O_NONBLOCK));
    EXPECT_EQ(getpid(), fcntl(fd, F_GETOWN));

    EXPECT_TRUE(receiver.EnableSignalIO());
    EXPECT_EQ(O_ASYNC | O_NONBLOCK, FlagsOf(fd) & (O_ASYNC | O_NONBLOCK));
}

TEST_F(CSocketSignalIO, OtherFlagsStay) {
    const PrivateNetwork net;
    Receiver receiver;
    const int fd = receiver.m_socReceiver;
    ASSERT_EQ(0, fcntl(fd, F_SETFL, FlagsOf(fd) | O_APPEND));
    const int before = FlagsOf(fd);
    ASSERT_TRUE(receiver.EnableSignalIO());
    EXPECT_EQ(before | O_ASYNC | O_NONBLOCK, FlagsOf(fd));
    EXPECT_EQ(0, receiver.DisableSignalIO());
    EXPECT_EQ(before | O_NONBLOCK, FlagsOf(fd));
}

TEST_F(CSocketSignalIO, ADatagramRaisesTheSignalUntilItIsSwitchedOff) {
    const PrivateNetwork net;
    TarnTest::PrepareForSignals();
    const SignalCounter signals;
    Receiver receiver;
    SendDatagram(receiver.ReceiverPort(), "before");
    ASSERT_TRUE(IsReadable(receiver.m_socReceiver));
    receiver.DataReceiver(0);
    EXPECT_EQ(0, SignalCounter::Count());

    ASSERT_TRUE(receiver.EnableSignalIO());
    SendDatagram(receiver.ReceiverPort(), "with a signal");
    EXPECT_TRUE(Eventually([] { return SignalCounter::Count() > 0; }));
    EXPECT_EQ(receiver.m_socReceiver, SignalCounter::LastDescriptor());
    receiver.DataReceiver(0);

    ASSERT_EQ(0, receiver.DisableSignalIO());
    const int before = SignalCounter::Count();
    SendDatagram(receiver.ReceiverPort(), "after");
    ASSERT_TRUE(IsReadable(receiver.m_socReceiver));
    receiver.DataReceiver(0);
    EXPECT_EQ(before, SignalCounter::Count());
    EXPECT_THAT(receiver.Received(), ElementsAre("before", "with a signal", "after"));
}

TEST_F(CSocketSignalIO, AnEndpointWithoutAReceiverSwitchesDescriptor0) {
    InChild([] {
        {
            const OwnedDescriptor fd = OpenSocket(AF_INET, SOCK_DGRAM, 0);
            ASSERT_EQ(STDIN_FILENO, dup2(fd.Number(), STDIN_FILENO));
        }
        TestEndpoint endpoint(CONNECTION_UDP);
        EXPECT_TRUE(endpoint.EnableSignalIO());
        EXPECT_EQ(O_ASYNC | O_NONBLOCK, FlagsOf(STDIN_FILENO) & (O_ASYNC | O_NONBLOCK));
        EXPECT_EQ(getpid(), fcntl(STDIN_FILENO, F_GETOWN));
        EXPECT_EQ(SIGIO, fcntl(STDIN_FILENO, F_GETSIG));
        EXPECT_EQ(0, endpoint.DisableSignalIO());
        EXPECT_EQ(O_NONBLOCK, FlagsOf(STDIN_FILENO) & (O_ASYNC | O_NONBLOCK));
        endpoint.TerminateAll();
        EXPECT_TRUE(TarnTest::IsOpen(STDIN_FILENO));

        TestEndpoint other(CONNECTION_UDP);
        const LogCapture log;
        close(STDIN_FILENO);
        EXPECT_FALSE(other.EnableSignalIO());
        EXPECT_THAT(log.Messages(), ElementsAre(not_owned_line));
        EXPECT_EQ(-1, other.DisableSignalIO());
    });
}

TEST_F(CSocketSignalIO, AReceiverThatCouldNotBeMadeIsNotSwitched) {
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.m_socReceiver = -1;
    EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(endpoint.EnableSignalIO()); }), IsEmpty());
    EXPECT_EQ(-1, endpoint.DisableSignalIO());
}

TEST_F(CSocketSignalIO, AClosedReceiverIsNotSwitchedNorWhoeverHasItsNumber) {
    const PrivateNetwork net;
    Receiver receiver;
    const int number = receiver.m_socReceiver;
    ASSERT_TRUE(receiver.Disconnect());
    ASSERT_FALSE(TarnTest::IsOpen(number));
    EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(receiver.EnableSignalIO()); }), ElementsAre(not_owned_line));
    EXPECT_EQ(-1, receiver.DisableSignalIO());

    const OwnedDescriptor somebody = OpenSocket(AF_INET, SOCK_DGRAM, 0);
    const OwnedDescriptor with_the_number(somebody.Number() == number ? -1 : dup2(somebody.Number(), number));
    EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(receiver.EnableSignalIO()); }), ElementsAre(not_owned_line));
    EXPECT_EQ(0, FlagsOf(number) & (O_ASYNC | O_NONBLOCK));
    EXPECT_EQ(0, fcntl(number, F_GETOWN));
    ASSERT_EQ(0, fcntl(number, F_SETFL, FlagsOf(number) | O_ASYNC));
    EXPECT_EQ(-1, receiver.DisableSignalIO());
    EXPECT_NE(0, FlagsOf(number) & O_ASYNC);
}

// ---- a new receiver

TEST_F(CSocketRepair, TheReceiverIsMadeAnewOnItsPort) {
    const PrivateNetwork net;
    const std::uint16_t port = TarnTest::FindUnusedPort();
    TestEndpoint endpoint(CONNECTION_DATAGRAM);
    ASSERT_TRUE(endpoint.InitialiseLocalSockets(port, nullptr, nullptr, 0));
    SendDatagram(port, "lost with the old one");
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    ASSERT_TRUE(endpoint.EnableSignalIO());
    const std::size_t descriptors = CountOpenDescriptors();

    EXPECT_TRUE(endpoint.RepairReceiverSocket());
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_EQ(port, endpoint.ReceiverPort());
    EXPECT_EQ(0, FlagsOf(endpoint.m_socReceiver) & (O_ASYNC | O_NONBLOCK));
    SendDatagram(port, "for the new one");
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    endpoint.DataReceiver(0);
    EXPECT_THAT(endpoint.Received(), ElementsAre("for the new one"));
}

TEST_F(CSocketRepair, AClosedReceiverIsMadeAnew) {
    const PrivateNetwork net;
    Receiver receiver;
    ASSERT_TRUE(receiver.Disconnect());
    EXPECT_TRUE(receiver.RepairReceiverSocket());
    SendDatagram(receiver.ReceiverPort(), "again");
    ASSERT_TRUE(IsReadable(receiver.m_socReceiver));
    receiver.DataReceiver(0);
    EXPECT_THAT(receiver.Received(), ElementsAre("again"));
}

TEST_F(CSocketRepair, ReceiverThreadsGoOnWithTheNewReceiver) {
    const PrivateNetwork net;
    const std::uint16_t port = TarnTest::FindUnusedPort();
    for (const int timeout : {0, -1}) {
        SCOPED_TRACE(timeout);
        TestEndpoint endpoint(CONNECTION_UDP);
        endpoint.m_iPollTimeout = timeout;
        endpoint.m_iReceivesPerPass = 10;
        ASSERT_TRUE(endpoint.InitialiseLocalSockets(port, nullptr, nullptr, 3));
        std::atomic<bool> is_over(false);
        std::thread pouring([&] {
            while (!is_over) {
                SendDatagram(port, "pouring");
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
        const std::size_t descriptors = CountOpenDescriptors();
        for (int i = 0; i < 20; ++i) {
            EXPECT_TRUE(endpoint.RepairReceiverSocket());
            const std::size_t before = endpoint.Count(Kind::received);
            EXPECT_TRUE(Eventually([&] { return endpoint.Count(Kind::received) > before + 1; }));
        }
        is_over = true;
        pouring.join();
        EXPECT_LE(CountOpenDescriptors(), descriptors + 1);  // the one that pours
        SendDatagram(port, "the last");
        EXPECT_TRUE(Eventually([&] { return endpoint.Received().back() == "the last"; }));
        EXPECT_EQ(0u, endpoint.Count(Kind::terminated));
        EXPECT_TRUE(endpoint.TerminateAll());
    }
}

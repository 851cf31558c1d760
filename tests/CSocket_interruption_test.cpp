// Waits of an endpoint that something cuts short: signals, Disconnect, and numbers that become somebody else's.

#include <TarnSocketIO/CSocket.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/ConnectionServer.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pour.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::BackgroundCall;
using TarnTest::ConnectionServer;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::FindUnusedPort;
using TarnTest::LogCapture;
using TarnTest::Pour;
using TarnTest::SendDatagram;
using TarnTest::TestEndpoint;
using TarnTest::ThisThread;
using Kind = TarnTest::EndpointEvent::Kind;

constexpr const char* loopback = "127.0.0.1";

std::atomic<int> signals_handled{0};

void CountSignal(int) {
    ++signals_handled;
}

/// Has SIGUSR1 interrupt what it meets, for as long as the object lives.
class InterruptingSignals {
public:
    InterruptingSignals() : m_before() {
        struct sigaction action = {};
        action.sa_handler = CountSignal;
        sigaction(SIGUSR1, &action, &m_before);
        signals_handled = 0;
    }
    ~InterruptingSignals() { sigaction(SIGUSR1, &m_before, nullptr); }
    InterruptingSignals(const InterruptingSignals&) = delete;
    InterruptingSignals& operator=(const InterruptingSignals&) = delete;

private:
    struct sigaction m_before;
};

/// Sends a thread of this process SIGUSR1 every millisecond for as long as the object lives.
class SignalsTo {
public:
    explicit SignalsTo(pid_t thread)
        : m_sender([this, thread] {
              while (!m_end) {
                  syscall(SYS_tgkill, getpid(), thread, SIGUSR1);
                  std::this_thread::sleep_for(milliseconds(1));
              }
          }) {}
    ~SignalsTo() {
        m_end = true;
        m_sender.join();
    }
    SignalsTo(const SignalsTo&) = delete;
    SignalsTo& operator=(const SignalsTo&) = delete;

private:
    std::atomic<bool> m_end{false};
    std::thread m_sender;
};

/// A listener whose queue is full, so that who connects has to wait.
class FullListener {
public:
    FullListener() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof m_address;
        EXPECT_EQ(0, bind(m_fd, Address(), sizeof m_address));
        EXPECT_EQ(0, getsockname(m_fd, reinterpret_cast<sockaddr*>(&m_address), &length));
        EXPECT_EQ(0, listen(m_fd, 0));
        for (int& filler : m_fillers) {
            filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            static_cast<void>(connect(filler, Address(), sizeof m_address));  // most of them have to wait
        }
    }
    ~FullListener() {
        CloseFillers();
        Close();
    }
    FullListener(const FullListener&) = delete;
    FullListener& operator=(const FullListener&) = delete;

    std::uint16_t Port() const { return ntohs(m_address.sin_port); }

    /// From now on there is room.
    void TakeAll() {
        CloseFillers();
        for (int fd; (fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC)) != -1;) {
            close(fd);
        }
    }

    /// From now on nobody listens.
    void Close() {
        if (m_fd != -1) {
            close(m_fd);
            m_fd = -1;
        }
    }

private:
    const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&m_address); }

    void CloseFillers() {
        for (int& filler : m_fillers) {
            if (filler != -1) {
                close(filler);
                filler = -1;
            }
        }
    }

    int m_fd;
    sockaddr_in m_address{};
    std::array<int, 4> m_fillers{};
};

/// Opens sockets all the time, for as long as the object lives, and finds out whether somebody else has touched them.
class Stranger {
public:
    Stranger() : m_thread([this] { Run(); }) {}
    ~Stranger() {
        m_end = true;
        m_thread.join();
    }
    Stranger(const Stranger&) = delete;
    Stranger& operator=(const Stranger&) = delete;

    int Rounds() const { return m_rounds; }
    int Touched() const { return m_touched; }

private:
    static constexpr std::size_t pairs = 4;

    void Run() {
        while (!m_end) {
            std::array<std::array<int, 2>, pairs> sockets{};
            for (auto& pair : sockets) {
                m_touched += socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) == 0 ? 0 : 1;
                m_touched += Pass(pair[0], pair[1]) ? 0 : 1;
            }
            std::this_thread::sleep_for(milliseconds(4));
            for (const auto& pair : sockets) {
                m_touched += IsUntouched(pair[0], pair[1]) ? 0 : 1;
            }
            ++m_rounds;
        }
    }

    static bool Pass(int from, int to) {
        return send(from, "mine", 4, MSG_NOSIGNAL) == 4 && send(to, "mine", 4, MSG_NOSIGNAL) == 4;
    }

    /// Whether both still have what they were sent and can be sent to; closes them.
    static bool IsUntouched(int one, int other) {
        bool ok = true;
        for (const int fd : {one, other}) {
            std::array<char, 16> data{};
            ok = recv(fd, data.data(), data.size(), MSG_DONTWAIT) == 4 && std::string(data.data()) == "mine" && ok;
        }
        ok = Pass(one, other) && ok;
        const bool is_first_closed = close(one) == 0;
        return close(other) == 0 && is_first_closed && ok;
    }

    std::atomic<bool> m_end{false};
    std::atomic<int> m_rounds{0};
    std::atomic<int> m_touched{0};
    std::thread m_thread;
};

}  // namespace

// ---- signals

TEST(CSocketSignals, EveryMillisecondCostAReceiverThreadNothing) {
    const InterruptingSignals signals;
    TestEndpoint server(CONNECTION_UDP);
    std::atomic<pid_t> thread{0};
    server.on_received = [&](char*, long) { thread = ThisThread(); };
    server.m_iPollTimeout = 50;
    server.InitialiseLocalSockets(0, nullptr, loopback, 1);
    SendDatagram(server.ReceiverPort(), "first");
    ASSERT_TRUE(Eventually([&] { return thread != 0; }));
    {
        const SignalsTo receiver(thread);
        for (std::size_t i = 0; i < 200; ++i) {
            const std::string data(1 + i * 100, static_cast<char>('a' + i % 26));
            SendDatagram(server.ReceiverPort(), data);
            ASSERT_TRUE(Eventually([&] { return server.Count(Kind::received) == i + 2; }));
            ASSERT_TRUE(server.Received().back() == data) << i;
        }
        EXPECT_TRUE(Eventually([] { return signals_handled >= 20; }));
    }
    EXPECT_EQ(0u, server.Count(Kind::terminated));
    EXPECT_LT(DurationOf([&] { EXPECT_TRUE(server.TerminateAll()); }), seconds(8));
}

/// A connection that the other side does not take yet, and that signals have met.
class CSocketSignalsDuringConnect : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(Eventually([&] { return m_connecting.Waits(); }));
        ASSERT_TRUE(Eventually([&] {
            m_connecting.Interrupt();
            return signals_handled >= 10;
        }));
        ASSERT_FALSE(m_connecting.HasEnded());
    }

    const InterruptingSignals m_signals;
    const LogCapture m_log;
    FullListener m_listener;
    TestEndpoint m_client{CONNECTION_STREAM};
    BackgroundCall m_connecting{[this] { return m_client.Connect(loopback, m_listener.Port()); }};
};

TEST_F(CSocketSignalsDuringConnect, DoNotEndIt) {
    m_listener.TakeAll();
    EXPECT_TRUE(m_connecting.Result());
    EXPECT_EQ(1u, m_client.Count(Kind::connected));
    EXPECT_TRUE(m_client.Send("data", 4));
}

TEST_F(CSocketSignalsDuringConnect, DoNotHideThatItFails) {
    m_listener.Close();
    EXPECT_FALSE(m_connecting.Result());
    EXPECT_EQ(0u, m_client.Count(Kind::connected));
    EXPECT_EQ(1u, m_log.Count("CSocket::Connect - failed to connect with error -1"));
}

// ---- Disconnect

TEST(CSocketDisconnect, EndsAWaitForTheReplyOfAServer) {
    ConnectionServer server;
    TestEndpoint client(CONNECTION_STREAM);
    ASSERT_TRUE(client.Connect(loopback, server.Port()));
    client.m_iPollTimeout = -1;
    std::vector<char> buffer(131070);
    long length = 4711;
    BackgroundCall waiting([&] { return client.ReceiveData(buffer.data(), length, nullptr, true); });
    ASSERT_TRUE(Eventually([&] { return waiting.Waits(); }));
    EXPECT_LT(DurationOf([&] { EXPECT_TRUE(client.Disconnect()); }), seconds(5));
    EXPECT_FALSE(waiting.Result());
    EXPECT_EQ(4711, length);
}

TEST(CSocketDisconnect, EndsAWaitForADatagram) {
    for (const bool of_sender : {true, false}) {
        TestEndpoint endpoint(CONNECTION_UDP);
        endpoint.m_iPollTimeout = -1;
        endpoint.StartClient();
        ASSERT_TRUE(endpoint.InitialiseReceiver());
        std::array<char, 16> buffer{};
        long received = 4711;
        BackgroundCall waiting([&] {
            return endpoint.ReceiveDataSensibly(buffer.data(), static_cast<long>(buffer.size()), nullptr, received,
                                                of_sender);
        });
        ASSERT_TRUE(Eventually([&] { return waiting.Waits(); }));
        EXPECT_LT(DurationOf([&] { EXPECT_TRUE(endpoint.Disconnect()); }), seconds(5));
        EXPECT_FALSE(waiting.Result());
        EXPECT_EQ(0, received);
    }
}

TEST(CSocketDisconnect, EndsThreadsThatWaitWithoutEndInTime) {
    for (const int threads : {1, 5}) {
        TestEndpoint server(CONNECTION_UDP);
        server.m_iPollTimeout = -1;
        server.InitialiseLocalSockets(0, nullptr, loopback, threads);
        EXPECT_LT(DurationOf([&] { EXPECT_TRUE(server.TerminateAll()); }), seconds(8));
    }
}

TEST(CSocketDisconnect, LeavesTheNumbersToTheirNextOwners) {
    const Stranger stranger;
    const std::uint16_t port = FindUnusedPort();
    const Pour data(port);
    for (int i = 0; i < 30; ++i) {
        TestEndpoint server(CONNECTION_UDP);
        server.m_iPollTimeout = i % 3 == 0 ? -1 : 0;
        server.m_iReceivesPerPass = i % 2 == 0 ? 0 : 1;
        server.InitialiseLocalSockets(port, nullptr, loopback, 1 + i % 5);
        ASSERT_TRUE(Eventually([&] { return server.Count(Kind::received) > 0; }));
        ASSERT_TRUE(server.Disconnect());
        const std::size_t received = server.Count(Kind::received);
        const int rounds = stranger.Rounds();
        // The threads go on with their passes meanwhile.
        ASSERT_TRUE(Eventually([&] { return stranger.Rounds() > rounds + 3; }));
        EXPECT_LE(server.Count(Kind::received), received + 1) << "received after the end";
        server.DropAllGroups();
        EXPECT_FALSE(server.Disconnect());
        server.TerminateAll();
    }
    EXPECT_EQ(0, stranger.Touched());
}

TEST(CSocketDisconnect, OfAConnectionLeavesItsNumberToTheNextOwner) {
    ConnectionServer server(1);
    const Stranger stranger;
    for (int i = 0; i < 30; ++i) {
        TestEndpoint client(CONNECTION_STREAM);
        ASSERT_TRUE(client.Connect(loopback, server.Port()));
        client.m_iPollTimeout = -1;
        std::vector<char> buffer(131070);
        long length = 0;
        BackgroundCall waiting([&] { return client.ReceiveData(buffer.data(), length, nullptr, true); });
        EXPECT_TRUE(client.Send("data", 4));
        EXPECT_TRUE(client.Disconnect());
        const int rounds = stranger.Rounds();
        EXPECT_FALSE(waiting.Result());
        EXPECT_FALSE(client.Send("data", 4));
        ASSERT_TRUE(Eventually([&] { return stranger.Rounds() > rounds + 2; }));
    }
    EXPECT_EQ(0, stranger.Touched());
}

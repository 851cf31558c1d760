// What endpoints leave behind: nothing. And what they do where the system gives them no threads or no answers.

#include <TarnSocketIO/CSocket.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/ConnectionServer.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/OutputCapture.h"
#include "tests/support/PrivateNetwork.h"
#include "tests/support/Resources.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestEndpoint.h"

namespace {

using std::chrono::seconds;
using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_ICMP;
using TarnSocketIO::CONNECTION_PACKET;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::ChildProcess;
using TarnTest::ConnectionServer;
using TarnTest::CountOpenDescriptors;
using TarnTest::CountThreads;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::IsOpen;
using TarnTest::OutputCapture;
using TarnTest::PrivateNetwork;
using TarnTest::Shared;
using TarnTest::StandardInputSetAside;
using TarnTest::TcpClient;
using TarnTest::TestEndpoint;
using testing::Each;

constexpr const char* loopback = "127.0.0.1";

std::size_t AllocatedBytes() {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    return 0;  // the sanitizer has an allocator of its own, and looks for leaks itself
#else
    return mallinfo2().uordblks;
#endif
}

/// Has many made and destroyed, after a few that the system may keep something of.
void ExpectNothingIsLeftBehindBy(const std::function<void()>& live, int lives = 500) {
    for (int i = 0; i < 20; ++i) {
        live();
    }
    const std::size_t threads_of_the_test = 1;
    ASSERT_TRUE(Eventually([&] { return CountThreads() <= threads_of_the_test + 1; }));
    const std::size_t descriptors = CountOpenDescriptors();
    const std::size_t threads = CountThreads();
    const std::size_t bytes = AllocatedBytes();
    for (int i = 0; i < lives; ++i) {
        live();
    }
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads; }));
    // A hundred bytes for each would be seen; the arenas of threads may differ by less.
    EXPECT_LT(AllocatedBytes(), bytes + static_cast<std::size_t>(lives) * 100);
}

}  // namespace

// ---- nothing is left behind

class CSocketLifetime : public testing::TestWithParam<CONNECTION_TYPE> {};

TEST_P(CSocketLifetime, EndpointsThatDoNothingLeaveNothing) {
    ExpectNothingIsLeftBehindBy([] { const TestEndpoint endpoint(GetParam()); });
}

TEST_P(CSocketLifetime, EndpointsThatOpenSocketsAgainAndAgainLeaveNothing) {
    const OutputCapture output;
    // The kernel takes its time to close a link-layer socket.
    const int lives = GetParam() == CONNECTION_PACKET ? 100 : 500;
    const auto live = [] {
        TestEndpoint endpoint(GetParam());
        for (int i = 0; i < 3; ++i) {
            endpoint.StartClient();
            endpoint.InitialiseReceiver();
        }
        endpoint.AddToGroup("239.192.1.2");
        endpoint.RepairReceiverSocket();
    };
    ExpectNothingIsLeftBehindBy(live, lives);
}

TEST_P(CSocketLifetime, EndpointsWithThreadsLeaveNothing) {
    const OutputCapture output;
    int next = 0;
    ExpectNothingIsLeftBehindBy([&next] {
        TestEndpoint endpoint(GetParam());
        endpoint.InitialiseLocalSockets(0, nullptr, loopback, 1 + next++ % 2);
        endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4);
    });
}

INSTANTIATE_TEST_SUITE_P(Types, CSocketLifetime,
                         testing::Values(CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_DATAGRAM, CONNECTION_ICMP,
                                         CONNECTION_PACKET));

TEST(CSocketLifetime, StreamServersLeaveNothing) {
    int next = 0;
    ExpectNothingIsLeftBehindBy([&next] {
        ConnectionServer server(next++ % 3);
        if (next % 10 == 0) {
            TcpClient(server.Port()).Send("data");
        }
    });
}

TEST(CSocketLifetime, ClientsLeaveNothing) {
    ConnectionServer server;
    const int listener = server.GetListenerSocket();
    const std::uint16_t port = server.Port();
    server.TerminateAll();
    EXPECT_FALSE(IsOpen(listener));
    ExpectNothingIsLeftBehindBy([port] {
        TestEndpoint client(CONNECTION_STREAM);
        EXPECT_FALSE(client.Connect(loopback, port));
        EXPECT_FALSE(client.Connect(loopback, port));
    });
}

// ---- standard input is nobody's socket

TEST(CSocketStandardInput, IsNotClosedByAnEndpointThatHasNoSocket) {
    const int standard_input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    if (standard_input == -1) {
        GTEST_SKIP() << "there is no standard input";
    }
    close(standard_input);
    for (const CONNECTION_TYPE type : {CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_ICMP, CONNECTION_PACKET}) {
        TestEndpoint endpoint(type);
        EXPECT_FALSE(endpoint.Disconnect());
        EXPECT_FALSE(endpoint.TerminateAll());
        EXPECT_TRUE(IsOpen(STDIN_FILENO));
        TestEndpoint sender(type, true);
        sender.StartClient();
        EXPECT_TRUE(sender.Disconnect());
        EXPECT_TRUE(IsOpen(STDIN_FILENO)) << "the receiver that it does not have has been closed";
    }
}

TEST(CSocketStandardInput, StaysAwayFromEndpointsWhereItIsClosed) {
    const StandardInputSetAside zero_is_free;
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 1);
    EXPECT_GT(endpoint.m_socSender, 0);
    EXPECT_GT(endpoint.m_socReceiver, 0);
    ASSERT_TRUE(endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4));
    EXPECT_TRUE(Eventually([&] { return endpoint.Received().size() == 1; }));
    // By now 0 is somebody else's.
    std::array<int, 2> pair{};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()));
    EXPECT_EQ(0, pair[0]);
    EXPECT_TRUE(endpoint.TerminateAll());
    EXPECT_EQ(4, send(pair[1], "data", 4, MSG_NOSIGNAL));
    EXPECT_TRUE(IsOpen(0));
    close(pair[1]);
}

// ---- no more threads

namespace {

struct Starts {
    std::atomic<bool> is_limited{false};
};

/// Uses up the threads of a user whom no other process has, and needs a process of its own for that.
void StartBeyondTheLimit(Starts& starts) {
    // The limit does not count for the superuser.
    const uid_t user = 61000 + static_cast<uid_t>(getpid()) % 1000;
    if (geteuid() != 0 || setuid(user) != 0) {
        return;
    }
    const std::size_t threads = CountThreads();
    const rlimit two_more = {threads + 2, threads + 2};
    if (setrlimit(RLIMIT_NPROC, &two_more) != 0) {
        return;
    }
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 5);
    const std::size_t running = CountThreads() - threads;
    if (endpoint.m_bReceiversRunning || running == 0) {
        return;
    }
    starts.is_limited = true;
    EXPECT_EQ(5, endpoint.m_nReceiverThreads);
    EXPECT_THAT(endpoint.m_pReceivers, Each(testing::NotNull()));
    EXPECT_TRUE(endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4));
    EXPECT_TRUE(Eventually([&] { return endpoint.Received().size() == 1; }));
    EXPECT_LT(DurationOf([&] { EXPECT_TRUE(endpoint.TerminateAll()); }), seconds(5));
    EXPECT_THAT(endpoint.m_pReceivers, Each(nullptr));
    EXPECT_TRUE(Eventually([&] { return CountThreads() == threads; }));
}

}  // namespace

TEST(CSocketThreadLimit, ThreadsThatDidStartReceiveAndAreStopped) {
    const Shared<Starts> starts;
    ChildProcess child([&] { StartBeyondTheLimit(*starts); });
    EXPECT_EQ(0, child.ExitStatus()) << child.Errors();
    EXPECT_EQ("", child.Failures());
    if (!starts->is_limited) {
        GTEST_SKIP() << "the number of threads cannot be limited here";
    }
}

// ---- a name server that is silent

namespace {

struct Lookups {
    std::atomic<bool> is_possible{false};
    std::atomic<bool> was_asked{false};
};

/// Has this process find another text in a file of the system; with a mount namespace of its own.
bool Replace(const char* file, const std::string& text) {
    std::string name = testing::TempDir() + "tarn_XXXXXX";
    const int fd = mkstemp(name.data());
    if (fd == -1) {
        return false;
    }
    const bool is_written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    fchmod(fd, 0644);
    close(fd);
    const bool is_mounted = is_written && mount(name.c_str(), file, nullptr, MS_BIND, nullptr) == 0;
    unlink(name.c_str());
    return is_mounted;
}

/// A resolver configuration of this process's own, with one name server; needs privileges.
///
/// @return false if there cannot be one.
bool UseNameServerOnLoopback() {
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           Replace("/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n") &&
           Replace("/etc/nsswitch.conf", "hosts: files dns\n");
}

/// A socket where a name server would be; it reads queries and says nothing.
class SilentNameServer {
public:
    SilentNameServer() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(53);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_is_bound = bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~SilentNameServer() { close(m_fd); }
    SilentNameServer(const SilentNameServer&) = delete;
    SilentNameServer& operator=(const SilentNameServer&) = delete;

    bool IsBound() const { return m_is_bound; }
    bool WasAsked() const { return recv(m_fd, nullptr, 0, MSG_DONTWAIT) != -1; }

private:
    const int m_fd;
    bool m_is_bound = false;
};

void LookUpInVain(Lookups& lookups) {
    const PrivateNetwork network;
    if (!UseNameServerOnLoopback()) {
        return;
    }
    const SilentNameServer name_server;
    ASSERT_TRUE(name_server.IsBound());
    lookups.is_possible = true;

    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.InitialiseLocalSockets(0, nullptr, loopback, 1);
    while (name_server.WasAsked()) {
        // For this host's own name.
    }
    EXPECT_LT(DurationOf([&] { EXPECT_FALSE(endpoint.Send("board.example.com", 7, "data", 4)); }), seconds(25));
    lookups.was_asked = name_server.WasAsked();
    EXPECT_TRUE(endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4));
    EXPECT_TRUE(Eventually([&] { return endpoint.Received().size() == 1; }));
}

}  // namespace

TEST(CSocketNameServer, ThatIsSilentFailsASendAndNothingElse) {
    if (const std::string missing = PrivateNetwork::WhatIsMissing(); !missing.empty()) {
        GTEST_SKIP() << "needs " << missing;
    }
    const Shared<Lookups> lookups;
    ChildProcess child([&] { LookUpInVain(*lookups); });
    EXPECT_EQ(0, child.ExitStatus()) << child.Errors();
    EXPECT_EQ("", child.Failures());
    if (!lookups->is_possible) {
        GTEST_SKIP() << "the resolver cannot be given a configuration here";
    }
    EXPECT_TRUE(lookups->was_asked);
}

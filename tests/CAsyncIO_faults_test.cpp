// What the stream server does when the system or the memory fails it, to order and for real.

// What a server does when calls fail: of the kernel, of the allocator, of the name service.

#include <TarnSocketIO/CAsyncIO.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/AllDescriptorsTaken.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Eventually.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/ServerLog.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestServer.h"

using TarnSocketIO::CAsyncIO;
using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::accept_failed_line;
using TarnTest::AllDescriptorsTaken;
using TarnTest::AllocationWatch;
using TarnTest::bind_failed_line;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::CountOpenDescriptors;
using TarnTest::Eventually;
using TarnTest::FailingCalls;
using TarnTest::IsOpen;
using TarnTest::join_failed_line;
using TarnTest::linger_failed_line;
using TarnTest::listen_failed_line;
using TarnTest::LogCapture;
using TarnTest::ReverseLookup;
using TarnTest::SendDatagram;
using TarnTest::ServeUntil;
using TarnTest::StandardInputSetAside;
using TarnTest::TcpClient;
using TarnTest::TestServer;
using TarnTest::uninitialised_line;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using Clock = std::chrono::steady_clock;
using Context = TarnSocketIO::_SOCKET_CONTEXT;
using std::chrono::milliseconds;

constexpr milliseconds one_step{3};

std::string NameOfError(const testing::TestParamInfo<int>& info) {
    return strerrorname_np(info.param);
}

/// Whether the last Initialise has left a listener that works.
bool IsInitialised(TestServer& server) {
    const LogCapture log;
    server.MultiConnectionPoller();
    return log.Count(uninitialised_line) == 0;
}

/// A server whose notifications allocate nothing.
class FrugalServer : public CAsyncIO {
public:
    FrugalServer() : CAsyncIO(CONNECTION_STREAM) {}
    ~FrugalServer() override { StopListener(); }
    FrugalServer(const FrugalServer&) = delete;
    FrugalServer& operator=(const FrugalServer&) = delete;

    std::uint16_t Port() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(GetListenerSocket(), reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    int connected = 0;
    int terminated = 0;
    long received = 0;

private:
    void OnConnected(int) override { ++connected; }
    void OnTerminated(int socket) override {
        ++terminated;
        close(socket);
    }
    void OnReceivedData(int, char*, long length) override { received += length; }
};

std::chrono::nanoseconds ProcessorTime() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

/// How long the shortest of many failing calls takes: the others may have been held up by the machine.
Clock::duration ShortestAccept(TestServer& server) {
    Clock::duration shortest = Clock::duration::max();
    for (int i = 0; i < 50; ++i) {
        const Clock::time_point start = Clock::now();
        server.MultiConnectionAcceptor();
        shortest = std::min(shortest, Clock::now() - start);
    }
    return shortest;
}

}  // namespace

// --- opening the listener ---

TEST(CAsyncIOListenerFault, ARefusedSocketIsReportedByTheResultAlone) {
    const LogCapture log;
    TestServer server;
    const FailingCalls refused(Call::Socket, EMFILE);

    EXPECT_FALSE(server.CreateListenerSocket());

    EXPECT_EQ(1, refused.Failed());
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_EQ(-1, server.GetListenerSocket());
}

TEST(CAsyncIOListenerFault, InitialiseSucceedsAfterARefusedSocket) {
    TestServer server;
    {
        const FailingCalls refused(Call::Socket, ENFILE);
        EXPECT_TRUE(server.Initialise(0, nullptr));
    }
    EXPECT_FALSE(IsInitialised(server));

    EXPECT_TRUE(server.Initialise(0, nullptr));
    EXPECT_TRUE(IsInitialised(server));
}

TEST(CAsyncIOListenerFault, DescriptorZeroIsNoListenerAndStaysOpen) {
    const LogCapture log;
    const StandardInputSetAside zero_is_free;
    {
        TestServer server;
        EXPECT_FALSE(server.CreateListenerSocket());
        ASSERT_TRUE(IsOpen(0)) << "the kernel gives the lowest free number";
        EXPECT_THAT(log.Messages(), IsEmpty());

        server.StopListener();
        EXPECT_TRUE(IsOpen(0));
    }
    EXPECT_TRUE(IsOpen(0));
}

// By then, 0 is somebody else's: a super-server hands a connection over as standard input.
TEST(CAsyncIOListenerFault, StandardInputIsNotShutDownInAListenersPlace) {
    const StandardInputSetAside zero_is_free;
    TestServer server;
    EXPECT_FALSE(server.CreateListenerSocket());
    std::array<int, 2> pair{};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()));
    ASSERT_EQ(0, dup2(pair[0], 0));

    server.StopListener();

    EXPECT_EQ(4, send(pair[1], "data", 4, MSG_NOSIGNAL | MSG_DONTWAIT));
    close(pair[0]);
    close(pair[1]);
}

TEST(CAsyncIOListenerFault, ASocketWithoutLingerIsShutDownAndNotClosed) {
    const LogCapture log;
    TestServer server;
    const FailingCalls no_linger(Call::SetLinger, ENOPROTOOPT);
    const CallWatch shutdowns(Call::Shutdown);
    const CallWatch closings(Call::Close);
    const CallWatch bindings(Call::Bind);

    EXPECT_FALSE(server.CreateListenerSocket());

    EXPECT_THAT(log.Messages(), ElementsAre(linger_failed_line));
    const int listener = server.GetListenerSocket();
    EXPECT_EQ(1, shutdowns.Count());
    EXPECT_EQ(listener, shutdowns.LastDescriptor());
    EXPECT_EQ(0, closings.Count());
    EXPECT_EQ(0, bindings.Count());
    EXPECT_TRUE(IsOpen(listener));
}

TEST(CAsyncIOListenerFault, AFailedBindIsLoggedAndNothingListens) {
    const LogCapture log;
    TestServer server;
    const FailingCalls taken(Call::Bind, EADDRINUSE);
    const CallWatch listening(Call::Listen);

    EXPECT_FALSE(server.CreateListenerSocket());

    EXPECT_THAT(log.Messages(), ElementsAre(bind_failed_line));
    EXPECT_EQ(0, listening.Count());
}

TEST(CAsyncIOListenerFault, AFailedListenIsLogged) {
    const LogCapture log;
    TestServer server;
    const FailingCalls refused(Call::Listen, EADDRINUSE);

    EXPECT_FALSE(server.CreateListenerSocket());

    EXPECT_THAT(log.Messages(), ElementsAre(listen_failed_line));
}

TEST(CAsyncIOListenerFault, DatagramListenersDoNotReportAFailedBind) {
    for (const auto type : {CONNECTION_UDP, CONNECTION_DATAGRAM}) {
        SCOPED_TRACE(type);
        const LogCapture log;
        TestServer server(type);
        const FailingCalls taken(Call::Bind, EADDRINUSE);
        const FailingCalls not_joined(Call::JoinGroup, ENODEV);

        EXPECT_TRUE(server.Initialise(0, "239.192.1.2"));

        EXPECT_EQ(1, taken.Failed());
        EXPECT_EQ(0u, log.Count(bind_failed_line));
        EXPECT_TRUE(IsInitialised(server));
    }
}

TEST(CAsyncIOListenerFault, DatagramsArriveAlthoughTheGroupWasNotJoined) {
    TestServer server(CONNECTION_DATAGRAM);
    {
        const LogCapture log;
        const FailingCalls not_joined(Call::JoinGroup, ENODEV);
        EXPECT_TRUE(server.Initialise(0, "239.192.1.2"));
        EXPECT_THAT(log.Messages(), ElementsAre(join_failed_line));
    }
    SendDatagram(server.Port(), "unicast");
    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), ElementsAre("unicast"));
}

TEST(CAsyncIOListenerFault, FailedAttemptsLeaveNoDescriptorBehind) {
    for (const Call step : {Call::Socket, Call::SetLinger, Call::Bind, Call::Listen}) {
        SCOPED_TRACE(static_cast<int>(step));
        const std::size_t before = CountOpenDescriptors();
        {
            TestServer server;
            {
                const FailingCalls failing(step, ENOBUFS, 50);
                for (int i = 0; i < 50; ++i) {
                    ASSERT_TRUE(server.Initialise(0, nullptr));
                }
                ASSERT_EQ(50, failing.Failed());
            }
            EXPECT_FALSE(IsInitialised(server));
            ASSERT_TRUE(server.Initialise(0, nullptr));
            EXPECT_TRUE(IsInitialised(server));
            EXPECT_EQ(before + 1, CountOpenDescriptors());
        }
        EXPECT_EQ(before, CountOpenDescriptors());
    }
}

// --- accepting ---

class CAsyncIOAcceptFault : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_server.Initialise(0, nullptr));
        ASSERT_GT(m_server.GetListenerSocket(), 0);
    }

    const LogCapture m_log;
    TestServer m_server;
};

using CAsyncIOTransientAcceptFault = CAsyncIOAcceptFault;
using CAsyncIOAcceptForWantOfResources = CAsyncIOAcceptFault;

TEST_P(CAsyncIOTransientAcceptFault, EndsTheCallAndTheNextOneWorks) {
    const TcpClient client(m_server.Port());
    {
        const FailingCalls failing(Call::Accept, GetParam());
        ASSERT_FALSE(m_server.MultiConnectionAcceptor());
        EXPECT_EQ(1, failing.Failed());
    }
    EXPECT_THAT(m_log.Messages(), ElementsAre(accept_failed_line));
    EXPECT_THAT(m_server.Notifications(), IsEmpty());

    EXPECT_TRUE(m_server.MultiConnectionAcceptor());
    EXPECT_THAT(m_server.Connected(), SizeIs(1));
}

TEST_P(CAsyncIOTransientAcceptFault, DoesNotPause) {
    const FailingCalls failing(Call::Accept, GetParam(), std::numeric_limits<int>::max());
    EXPECT_LT(ShortestAccept(m_server), one_step);
    EXPECT_EQ(50, failing.Failed());
}

INSTANTIATE_TEST_SUITE_P(Errors, CAsyncIOTransientAcceptFault,
                         testing::Values(ECONNABORTED, EPROTO, EINTR, EAGAIN, ENETDOWN), NameOfError);

TEST_P(CAsyncIOAcceptForWantOfResources, PausesOneStepAndWorksWhenThereIsRoomAgain) {
    const TcpClient client(m_server.Port());
    {
        const FailingCalls failing(Call::Accept, GetParam(), 50);
        EXPECT_GE(ShortestAccept(m_server), one_step);
        EXPECT_EQ(50, failing.Failed());
    }
    EXPECT_EQ(50u, m_log.Count(accept_failed_line));
    EXPECT_THAT(m_log.Messages(), Each(std::string(accept_failed_line)));
    EXPECT_THAT(m_server.Notifications(), IsEmpty());

    EXPECT_TRUE(m_server.MultiConnectionAcceptor());
    EXPECT_THAT(m_server.Connected(), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(Errors, CAsyncIOAcceptForWantOfResources, testing::Values(EMFILE, ENFILE, ENOBUFS, ENOMEM),
                         NameOfError);

class CAsyncIOWithoutDescriptors : public CAsyncIOAcceptFault {};

TEST_F(CAsyncIOWithoutDescriptors, TakesAWaitingClientAsSoonAsThereIsANumberForIt) {
    TcpClient client(m_server.Port());
    {
        const AllDescriptorsTaken nothing_free;
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(m_server.MultiConnectionAcceptor());
        }
    }
    EXPECT_THAT(m_log.Messages(), ElementsAre(accept_failed_line, accept_failed_line, accept_failed_line));

    const int connection = m_server.Accept();
    ASSERT_GT(connection, 0);
    EXPECT_TRUE(m_server.Send(connection, "welcome", 7));
    EXPECT_EQ("welcome", client.Receive(7));
}

TEST_F(CAsyncIOWithoutDescriptors, SleepsMostOfTheTime) {
    const TcpClient client(m_server.Port());
    const AllDescriptorsTaken nothing_free;
    const Clock::time_point start = Clock::now();
    const std::chrono::nanoseconds processor_start = ProcessorTime();

    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(m_server.MultiConnectionAcceptor());
    }

    const std::chrono::nanoseconds processor = ProcessorTime() - processor_start;
    const Clock::duration elapsed = Clock::now() - start;
    EXPECT_GE(elapsed, 100 * one_step);
    EXPECT_LT(processor * 2, elapsed);
}

TEST_F(CAsyncIOWithoutDescriptors, LosesNothingOfTheConnectionsThatItHas) {
    TcpClient client(m_server.Port());
    const int connection = m_server.Accept();
    ASSERT_GT(connection, 0);
    const TcpClient waiting(m_server.Port());
    std::string sent = "before\n";
    client.Send(sent);
    // The undefined-behaviour sanitizer needs a descriptor for its first look at a type, so the first pass comes
    // before.
    EXPECT_TRUE(ServeUntil(m_server, [&] { return m_server.ReceivedFrom(connection) == sent; }));
    {
        const AllDescriptorsTaken nothing_free;
        for (int i = 0; i < 20; ++i) {
            const std::string part = "part " + std::to_string(i) + "\n";
            client.Send(part);
            sent += part;
            EXPECT_FALSE(m_server.MultiConnectionAcceptor());
            m_server.MultiConnectionPoller();
        }
    }
    EXPECT_TRUE(Eventually([&] {
        if (m_server.ReceivedFrom(connection).size() < sent.size()) {
            m_server.MultiConnectionPoller();
        }
        return m_server.ReceivedFrom(connection) == sent;
    }));
    EXPECT_THAT(m_server.Terminated(), IsEmpty());
}

// --- polling, receiving, sending ---

class CAsyncIOConnectionFault : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_server.Initialise(0, nullptr));
        m_client = std::make_unique<TcpClient>(m_server.Port());
        m_connection = m_server.Accept();
        ASSERT_GT(m_connection, 0);
    }

    const LogCapture m_log;
    TestServer m_server;
    std::unique_ptr<TcpClient> m_client;
    int m_connection = -1;
};

using CAsyncIOPollFault = CAsyncIOConnectionFault;
using CAsyncIOReceiveFault = CAsyncIOConnectionFault;
using CAsyncIOSendFault = CAsyncIOConnectionFault;

TEST_P(CAsyncIOPollFault, DoesNotActOnTheEventsOfAnEarlierPass) {
    m_client->Send("first");
    m_server.MultiConnectionPoller();
    ASSERT_THAT(m_server.Received(), ElementsAre("first"));
    m_client->Send("second");
    const std::vector<std::string> log_before = m_log.Messages();
    {
        const FailingCalls failing(Call::Poll, GetParam());
        const CallWatch reads(Call::Receive);
        EXPECT_FALSE(m_server.MultiConnectionPoller());
        EXPECT_EQ(1, failing.Failed());
        EXPECT_EQ(0, reads.Count());
    }
    EXPECT_EQ(log_before, m_log.Messages());
    EXPECT_THAT(m_server.Received(), ElementsAre("first"));

    m_server.MultiConnectionPoller();
    EXPECT_THAT(m_server.Received(), ElementsAre("first", "second"));
}

TEST_P(CAsyncIOPollFault, EndsADatagramPassHarmlessly) {
    TestServer server(CONNECTION_UDP);
    ASSERT_TRUE(server.Initialise(0, nullptr));
    SendDatagram(server.Port(), "datagram");
    {
        const FailingCalls failing(Call::Poll, GetParam());
        EXPECT_FALSE(server.MultiConnectionPoller());
        EXPECT_EQ(1, failing.Failed());
    }
    EXPECT_THAT(server.Received(), IsEmpty());

    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), ElementsAre("datagram"));
}

INSTANTIATE_TEST_SUITE_P(Errors, CAsyncIOPollFault, testing::Values(EINTR, ENOMEM, EINVAL), NameOfError);

TEST_P(CAsyncIOReceiveFault, NotifiesNothingAndKeepsTheConnection) {
    m_client->Send("data");
    {
        const FailingCalls failing(Call::Receive, GetParam());
        EXPECT_FALSE(m_server.MultiConnectionPoller());
        EXPECT_EQ(1, failing.Failed());
    }
    EXPECT_THAT(m_server.Received(), IsEmpty());
    EXPECT_THAT(m_server.Terminated(), IsEmpty());
    EXPECT_TRUE(m_server.Send(m_connection, "still here", 10));
    EXPECT_EQ("still here", m_client->Receive(10));

    m_server.MultiConnectionPoller();
    EXPECT_THAT(m_server.Received(), ElementsAre("data"));

    m_client->Close();
    m_server.MultiConnectionPoller();
    EXPECT_THAT(m_server.Terminated(), ElementsAre(m_connection));
}

INSTANTIATE_TEST_SUITE_P(Errors, CAsyncIOReceiveFault, testing::Values(EAGAIN, ECONNRESET, EINTR), NameOfError);

TEST_F(CAsyncIOConnectionFault, ABrokenConnectionIsTerminatedOnce) {
    m_client->Reset();
    EXPECT_TRUE(Eventually([&] {
        m_server.MultiConnectionPoller();
        return !m_server.Terminated().empty();
    }));
    m_server.MultiConnectionPoller();
    EXPECT_THAT(m_server.Terminated(), ElementsAre(m_connection));
    EXPECT_THAT(m_server.Received(), IsEmpty());
}

TEST_P(CAsyncIOSendFault, IsTheResultOfTheSendAndNothingElse) {
    const std::vector<std::string> log_before = m_log.Messages();
    {
        const FailingCalls failing(Call::Send, GetParam());
        EXPECT_FALSE(m_server.Send(m_connection, "lost", 4));
        EXPECT_EQ(1, failing.Failed());
    }
    EXPECT_EQ(log_before, m_log.Messages());

    EXPECT_TRUE(m_server.Send(m_connection, "kept", 4));
    EXPECT_EQ("kept", m_client->Receive(4));
}

TEST_P(CAsyncIOSendFault, IsNotTriedAgain) {
    const FailingCalls failing(Call::Send, GetParam(), 10);
    EXPECT_FALSE(m_server.Send(m_connection, "data", 4));
    EXPECT_EQ(1, failing.Failed());
}

INSTANTIATE_TEST_SUITE_P(Errors, CAsyncIOSendFault, testing::Values(EPIPE, EAGAIN, ENOBUFS, EINTR), NameOfError);

// --- memory ---

TEST(CAsyncIOWithoutMemory, AcceptingFailsAndTheConnectionIsClosed) {
    const LogCapture log;
    FrugalServer server;
    ASSERT_TRUE(server.Initialise(0, nullptr));
    const std::size_t before = CountOpenDescriptors();

    // Each round has the next allocation fail, until a call needs no further one.
    int allocations = 0;
    for (bool failed = true; failed; ++allocations) {
        SCOPED_TRACE(allocations);
        ASSERT_LT(allocations, 100);
        TcpClient client(server.Port());
        bool accepted = true;
        bool thrown = false;
        {
            const FailingCalls exhausted(Call::Allocate, ENOMEM, 1, allocations);
            try {
                accepted = server.MultiConnectionAcceptor();
            } catch (...) {
                thrown = true;
            }
            failed = exhausted.Failed() != 0;
        }
        EXPECT_FALSE(thrown);
        if (failed) {
            EXPECT_FALSE(accepted);
            EXPECT_EQ(0, server.connected);
            EXPECT_EQ(before + 1, CountOpenDescriptors()) << "the client's own should be the only one";
            EXPECT_EQ("", client.ReceiveAll());
        } else {
            EXPECT_TRUE(accepted);
            EXPECT_EQ(1, server.connected);
            client.Close();
            server.MultiConnectionPoller();
            EXPECT_EQ(1, server.terminated);
        }
    }
    EXPECT_GE(allocations, 3) << "a context and its place in the map, at least";
    EXPECT_EQ(before, CountOpenDescriptors());
}

TEST(CAsyncIOWithoutMemory, InitialiseIsTrueAndTheObjectUninitialised) {
    const std::size_t before = CountOpenDescriptors();
    TestServer server;
    int allocations = 0;
    for (bool failed = true; failed; ++allocations) {
        SCOPED_TRACE(allocations);
        ASSERT_LT(allocations, 100);
        bool result = false;
        bool thrown = false;
        {
            const FailingCalls exhausted(Call::Allocate, ENOMEM, 1, allocations);
            try {
                result = server.Initialise(0, nullptr);
            } catch (...) {
                thrown = true;
            }
            failed = exhausted.Failed() != 0;
        }
        EXPECT_FALSE(thrown);
        EXPECT_TRUE(result);
        EXPECT_EQ(!failed, IsInitialised(server));
        EXPECT_EQ(before + (failed ? 0u : 1u), CountOpenDescriptors());
    }
    EXPECT_GE(allocations, 2);
}

TEST(CAsyncIOWithoutMemory, APassServesConnectionsWithoutAllocating) {
    const LogCapture log;
    FrugalServer server;
    ASSERT_TRUE(server.Initialise(0, nullptr));
    TcpClient client(server.Port());
    ASSERT_TRUE(server.MultiConnectionAcceptor());
    client.Send("data");
    {
        const FailingCalls exhausted(Call::Allocate, ENOMEM, std::numeric_limits<int>::max());
        server.MultiConnectionPoller();
        EXPECT_EQ(0, exhausted.Failed());
    }
    EXPECT_EQ(4, server.received);
    client.Close();
    {
        const FailingCalls exhausted(Call::Allocate, ENOMEM, std::numeric_limits<int>::max());
        server.MultiConnectionPoller();
        EXPECT_EQ(0, exhausted.Failed());
    }
    EXPECT_EQ(1, server.terminated);
}

// --- the peer's name ---

class CAsyncIOPeerName : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_server.Initialise(0, nullptr)); }

    /// Accepts a connection and copies what the server keeps of it, out of the block that it is kept in.
    ///
    /// @return false if there is no such block.
    bool AcceptAndFind(Context& context) {
        const TcpClient client(m_server.Port());
        const AllocationWatch contexts(sizeof(Context), sizeof(Context) + 64);
        const int connection = m_server.Accept();
        if (contexts.Block() == nullptr) {
            return false;
        }
        for (std::size_t at = 0; at + sizeof context <= contexts.Size(); at += alignof(Context)) {
            std::memcpy(&context, contexts.Block() + at, sizeof context);
            if (context.m_PollFd.fd == connection && context.m_PollFd.events == 0x3B) {
                return true;
            }
        }
        return false;
    }

    static std::string NameIn(const Context& context) {
        return {context.m_szHostName, strnlen(context.m_szHostName, sizeof context.m_szHostName)};
    }

    TestServer m_server;
};

TEST_F(CAsyncIOPeerName, IsKeptWithTheConnection) {
    const ReverseLookup lookup("board-7.example.net", 64);
    Context context{};
    ASSERT_TRUE(AcceptAndFind(context));
    EXPECT_EQ("board-7.example.net", NameIn(context));
    EXPECT_EQ(1, lookup.Asked());
}

TEST_F(CAsyncIOPeerName, IsEmptyWhenThereIsNone) {
    const ReverseLookup lookup("", 0);
    Context context{};
    ASSERT_TRUE(AcceptAndFind(context));
    EXPECT_EQ("", NameIn(context));
    EXPECT_EQ(1, lookup.Asked());
}

TEST_F(CAsyncIOPeerName, IsCutToTheFieldAndTerminated) {
    for (const std::size_t length : {510u, 511u, 512u, 513u, 600u, 4000u}) {
        SCOPED_TRACE(length);
        const std::string name = std::string(length - 1, 'a') + 'z';
        const ReverseLookup lookup(name, length + 1);
        Context context{};
        ASSERT_TRUE(AcceptAndFind(context));
        EXPECT_EQ(name.substr(0, 511), NameIn(context));
    }
}

TEST_F(CAsyncIOPeerName, IsAskedForAgainWithMoreRoom) {
    const ReverseLookup lookup("roomy.example.net", 10000);
    Context context{};
    ASSERT_TRUE(AcceptAndFind(context));
    EXPECT_EQ("roomy.example.net", NameIn(context));
    EXPECT_GT(lookup.Asked(), 1);
}

TEST_F(CAsyncIOPeerName, IsGivenUpWhenNoRoomIsEnough) {
    const ReverseLookup lookup("greedy.example.net", std::numeric_limits<std::size_t>::max());
    Context context{};
    ASSERT_TRUE(AcceptAndFind(context));
    EXPECT_EQ("", NameIn(context));
    EXPECT_LT(lookup.Asked(), 100);
}

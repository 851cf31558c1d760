// What an endpoint does when the kernel refuses it something: a socket, an option, an address, a connection, data.

#include <TarnSocketIO/CSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/AllDescriptorsTaken.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"
#include "tests/support/Worker.h"

using std::chrono::seconds;
using TarnSocketIO::CIPString;
using TarnSocketIO::CMacAddress;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::AllDescriptorsTaken;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::ChildProcess;
using TarnTest::ConsoleMessagesOf;
using TarnTest::CountOpenDescriptors;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::FailingCalls;
using TarnTest::IsReadable;
using TarnTest::LogCapture;
using TarnTest::OutputOf;
using TarnTest::SendDatagram;
using TarnTest::ShellWatch;
using TarnTest::TestEndpoint;
using TarnTest::UseAnEndpointOnce;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char* loopback = "127.0.0.1";
constexpr const char* group = "239.192.1.2";

std::string NameOfError(const testing::TestParamInfo<int>& info) {
    return strerrorname_np(info.param);
}

std::string Line(const char* text, int error) {
    return text + std::to_string(error) + "\n";
}

/// An endpoint with a receiver on loopback that no thread reads.
class WithReceiver : public TestEndpoint {
public:
    explicit WithReceiver(TarnSocketIO::CONNECTION_TYPE type = CONNECTION_UDP) : TestEndpoint(type) {
        std::strcpy(m_szLocalIf, loopback);
        InitialiseReceiver();
    }
    ~WithReceiver() override { TerminateAll(); }

    /// Sends it a datagram and waits until that is there.
    bool HasBeenSent(const std::string& data) {
        SendDatagram(ReceiverPort(), data);
        return IsReadable(m_socReceiver);
    }
};

TEST(CSocketArpingCommand, IsThisTextWithABlankAtItsEnd) {
    TestEndpoint endpoint(CONNECTION_UDP);
    const ShellWatch shell(7 << 8);
    EXPECT_EQ(7 << 8, endpoint.Arping(CIPString("10.0.0.2"), CIPString("10.0.0.1")));
    EXPECT_EQ("arping -q -A -c1 -s 10.0.0.2 10.0.0.1 ", shell.Command());
}

}  // namespace

// --- options ---

TEST(CSocketOptionFault, ASenderThatTakesNoOptionIsASender) {
    for (const Call option : {Call::SetBroadcast, Call::SetLinger, Call::SetSendBuffer}) {
        SCOPED_TRACE(static_cast<int>(option));
        TestEndpoint endpoint(CONNECTION_UDP);
        const FailingCalls refused(option, ENOPROTOOPT);
        EXPECT_EQ("", OutputOf([&] { EXPECT_TRUE(endpoint.StartClient()); }));
        EXPECT_EQ(1, refused.Failed());
        EXPECT_GT(endpoint.m_socSender, 0);
    }
}

TEST(CSocketOptionFault, AReceiverSaysWhichOptionItDoesNotTake) {
    const struct {
        Call option;
        const char* text;
    } cases[] = {
        {Call::SetLinger, "set_sock_opt(SO_LINGER) failed : errno = "},
        {Call::SetReuseAddress, "set_sock_opt(SO_REUSEADDR) failed : errno = "},
        {Call::SetReceiveBuffer, "set_sock_opt(SO_REUSEADDR) failed : errno = "},
    };
    for (const auto& [option, text] : cases) {
        for (const int error : {ENOPROTOOPT, ENOBUFS}) {
            TestEndpoint endpoint(CONNECTION_UDP);
            const FailingCalls refused(option, error);
            EXPECT_EQ(Line(text, error), OutputOf([&] { EXPECT_TRUE(endpoint.InitialiseReceiver()); }));
            EXPECT_EQ(1, refused.Failed());
            EXPECT_NE(0, endpoint.ReceiverPort()) << "it has not been bound";
        }
    }
}

TEST(CSocketOptionFault, AReceiverThatTakesNoOptionAtAllReceives) {
    const FailingCalls no_linger(Call::SetLinger, ENOMEM);
    const FailingCalls no_reuse(Call::SetReuseAddress, ENOBUFS);
    const FailingCalls no_buffer(Call::SetReceiveBuffer, ENOPROTOOPT);
    TestEndpoint endpoint(CONNECTION_UDP);
    const std::string expected = Line("set_sock_opt(SO_LINGER) failed : errno = ", ENOMEM) +
                                 Line("set_sock_opt(SO_REUSEADDR) failed : errno = ", ENOBUFS) +
                                 Line("set_sock_opt(SO_REUSEADDR) failed : errno = ", ENOPROTOOPT);
    EXPECT_EQ(expected, OutputOf([&] { EXPECT_TRUE(endpoint.InitialiseReceiver()); }));

    SendDatagram(endpoint.ReceiverPort(), "data");
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    endpoint.DataReceiver(0);
    EXPECT_THAT(endpoint.Received(), ElementsAre("data"));
}

TEST(CSocketOptionFault, AMulticastSenderWithoutItsInterfaceIsASender) {
    TestEndpoint endpoint(CONNECTION_UDP, true);
    endpoint.m_bMulticastSender = true;
    const FailingCalls refused(Call::SetMulticastInterface, EADDRNOTAVAIL);
    const CallWatch bindings(Call::Bind);
    EXPECT_EQ("", OutputOf([&] { EXPECT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, loopback, 1)); }));
    EXPECT_EQ(1, refused.Failed());
    EXPECT_EQ(0, bindings.Count());
    EXPECT_GT(endpoint.m_socSender, 0);
}

TEST(CSocketOptionFault, ADeviceThatIsRefusedIsToldOnStandardError) {
    ChildProcess child([] {
        TestEndpoint endpoint(CONNECTION_UDP);
        ASSERT_TRUE(endpoint.StartClient());
        char device[] = "lo";
        const FailingCalls refused(Call::SetDevice, EPERM);
        endpoint.SelectInterface(device);
        EXPECT_EQ(1, refused.Failed());
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ("selectinterface: : Operation not permitted\n", child.Errors());
}

TEST(CSocketOptionFault, SetSocketOptionGivesTheResultAndTheErrorOfTheCall) {
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    const int on = 1;
    const FailingCalls refused(Call::SetBroadcast, ENOMEM);
    errno = 0;
    EXPECT_EQ(-1, endpoint.SetSocketOption(endpoint.m_socSender, SOL_SOCKET, SO_BROADCAST, &on, sizeof on));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(0, endpoint.SetSocketOption(endpoint.m_socSender, SOL_SOCKET, SO_BROADCAST, &on, sizeof on));
}

// --- groups ---

TEST(CSocketGroupFault, AStartGroupThatIsNotJoinedIsNotRemembered) {
    TestEndpoint endpoint(CONNECTION_UDP);
    std::strcpy(endpoint.m_szGroup, group);
    std::strcpy(endpoint.m_szLocalIf, loopback);
    const FailingCalls refused(Call::JoinGroup, ENODEV);
    const CallWatch loops(Call::SetMulticastLoop);
    EXPECT_THAT(ConsoleMessagesOf([&] { EXPECT_TRUE(endpoint.InitialiseReceiver()); }),
                Contains("CSocket::InitialiseReceiver - join multicast group - failed"));
    EXPECT_EQ(1, refused.Failed());
    EXPECT_THAT(endpoint.m_Groups, IsEmpty());
    EXPECT_EQ(0, loops.Count());
}

TEST(CSocketGroupFault, AGroupThatIsNotJoinedIsNotRemembered) {
    WithReceiver endpoint;
    const FailingCalls refused(Call::JoinGroup, ENOBUFS);
    const CallWatch loops(Call::SetMulticastLoop);
    bool is_added = true;
    const std::vector<std::string> messages = ConsoleMessagesOf([&] { is_added = endpoint.AddToGroup(group); });
    EXPECT_FALSE(is_added);
    EXPECT_EQ(1, refused.Failed());
    EXPECT_THAT(messages, Contains("CSocket::AddToGroup - join multicast group - failed"));
    EXPECT_THAT(messages, Not(Contains("CSocket::AddToGroup - added group to vector")));
    EXPECT_THAT(endpoint.m_Groups, IsEmpty());
    EXPECT_EQ(0, loops.Count());
}

TEST(CSocketGroupFault, AJoinedGroupStaysJoinedWhereTheLoopCannotBeSwitchedOff) {
    WithReceiver endpoint;
    const FailingCalls refused(Call::SetMulticastLoop, EPERM, 2);
    OutputOf([&] { EXPECT_TRUE(endpoint.AddToGroup(group)); });
    EXPECT_GE(refused.Failed(), 1);
    EXPECT_THAT(endpoint.m_Groups, ElementsAre(group));
}

TEST(CSocketGroupFault, AGroupThatCannotBeLeftIsForgottenAllTheSame) {
    WithReceiver endpoint;
    OutputOf([&] {
        ASSERT_TRUE(endpoint.AddToGroup(group));
        ASSERT_TRUE(endpoint.AddToGroup("239.192.1.3"));
    });
    const FailingCalls refused(Call::LeaveGroup, EADDRNOTAVAIL, 2);
    endpoint.DropGroup(group, true);
    EXPECT_EQ(1, refused.Failed());
    EXPECT_THAT(endpoint.m_Groups, ElementsAre("239.192.1.3"));
    endpoint.DropAllGroups();
    EXPECT_EQ(2, refused.Failed());
    EXPECT_THAT(endpoint.m_Groups, IsEmpty());
}

// --- sockets and addresses ---

TEST(CSocketSocketFault, AClientWithoutASocketSaysSoAndSendsNothing) {
    TestEndpoint endpoint(CONNECTION_UDP);
    {
        const LogCapture log;
        const FailingCalls refused(Call::Socket, EMFILE);
        EXPECT_FALSE(endpoint.StartClient());
        EXPECT_THAT(log.Messages(), ElementsAre("CSocket::StartClient() - creating sender socket -1",
                                                "CSocket::StartClient() - sender error -1"));
    }
    EXPECT_EQ(-1, endpoint.m_socSender);
    EXPECT_FALSE(endpoint.Send("data", 4));
    EXPECT_EQ("sendto (127.0.0.1) failed with errno = 9 (Bad file descriptor)\n",
              OutputOf([&] { EXPECT_FALSE(endpoint.Send(loopback, 9, "data", 4)); }));
    const CallWatch closings(Call::Close);
    EXPECT_TRUE(endpoint.Disconnect());
    EXPECT_EQ(0, closings.Count());
    EXPECT_TRUE(endpoint.StartClient());
}

TEST(CSocketSocketFault, AReceiverWithoutASocketGoesThroughAllItsSteps) {
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.m_uiPort = 4711;
    std::strcpy(endpoint.m_szLocalIf, loopback);
    std::strcpy(endpoint.m_szGroup, group);
    const FailingCalls refused(Call::Socket, ENFILE);
    bool has_socket = true;
    const std::vector<std::string> messages = ConsoleMessagesOf([&] { has_socket = endpoint.InitialiseReceiver(); });
    EXPECT_FALSE(has_socket);
    EXPECT_THAT(messages,
                ElementsAre("CSocket::InitialiseReceiver - creating receiver socket -1, port 4711 if 127.0.0.1",
                            "CSocket::InitialiseReceiver - receiver socket bind failed -1 (port 4711)",
                            "<no stamp> CSocket::InitialiseReceiver - receiver socket bind failed errno = 9",
                            "CSocket::InitialiseReceiver - join multicast group 239.192.1.2, local if 127.0.0.1",
                            "CSocket::InitialiseReceiver - using specified interface? Yes",
                            "CSocket::InitialiseReceiver - join multicast group - failed"));
}

TEST(CSocketSocketFault, AServerWithoutASenderMakesNothingElse) {
    TestEndpoint endpoint(CONNECTION_UDP);
    const FailingCalls refused(Call::Socket, EMFILE);
    const CallWatch sockets(Call::Socket);
    const CallWatch threads(Call::CreateThread);
    EXPECT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, loopback, 3));
    EXPECT_EQ(1, sockets.Count());
    EXPECT_EQ(0, threads.Count());
    EXPECT_FALSE(endpoint.m_bReceiversRunning);
}

TEST(CSocketSocketFault, AServerWithoutAReceiverRunsItsThreadsUntilThereIsOne) {
    TestEndpoint endpoint(CONNECTION_UDP);
    {
        const FailingCalls refused(Call::Socket, EMFILE, 1, 1);
        OutputOf([&] { EXPECT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, loopback, 2)); });
        EXPECT_EQ(1, refused.Failed());
    }
    EXPECT_TRUE(endpoint.m_bReceiversRunning);
    ASSERT_TRUE(endpoint.RepairReceiverSocket());
    SendDatagram(endpoint.ReceiverPort(), "data");
    EXPECT_TRUE(Eventually([&] { return endpoint.Received().size() == 1; }));
    EXPECT_LT(DurationOf([&] { EXPECT_TRUE(endpoint.TerminateAll()); }), seconds(5));
}

TEST(CSocketSocketFault, ASenderThatCannotBeBoundIsLoggedAndSends) {
    WithReceiver receiver;
    TestEndpoint endpoint(CONNECTION_UDP, true);
    const LogCapture log;
    const FailingCalls refused(Call::Bind, EADDRNOTAVAIL);
    EXPECT_EQ("", OutputOf([&] { EXPECT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, loopback, 1)); }));
    EXPECT_EQ(1, refused.Failed());
    EXPECT_EQ(1u, log.Count("CSocket::InitialiseLocalSockets sender socket failed to bind -1"));
    EXPECT_TRUE(endpoint.Send(loopback, receiver.ReceiverPort(), "data", 4));
    ASSERT_TRUE(IsReadable(receiver.m_socReceiver));
}

TEST(CSocketSocketFault, AReceiverThatCannotBeBoundIsToldTwice) {
    for (const int error : {EADDRINUSE, EACCES}) {
        TestEndpoint endpoint(CONNECTION_UDP);
        endpoint.m_uiPort = 5000;
        const LogCapture log;
        const FailingCalls refused(Call::Bind, error);
        EXPECT_EQ(Line("CSocket::InitialiseReceiver - receiver socket bind failed errno = ", error),
                  OutputOf([&] { EXPECT_TRUE(endpoint.InitialiseReceiver()); }));
        EXPECT_EQ(1u, log.Count("CSocket::InitialiseReceiver - receiver socket bind failed -1 (port 5000)"));
    }
}

TEST(CSocketSocketFault, WithoutDescriptorsNothingIsMadeAndAllOfItLater) {
    UseAnEndpointOnce(CONNECTION_UDP);
    const std::size_t before = CountOpenDescriptors();
    {
        TestEndpoint endpoint(CONNECTION_UDP);
        {
            const AllDescriptorsTaken nothing_free;
            EXPECT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, loopback, 2));
            EXPECT_FALSE(endpoint.InitialiseReceiver());
            EXPECT_FALSE(endpoint.StartClient());
        }
        EXPECT_EQ(before, CountOpenDescriptors());
        EXPECT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, loopback, 2));
        EXPECT_EQ(before + 2, CountOpenDescriptors());
        ASSERT_TRUE(endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4));
        EXPECT_TRUE(Eventually([&] { return endpoint.Received().size() == 1; }));
    }
    EXPECT_EQ(before, CountOpenDescriptors());
}

TEST(CSocketSocketFault, AReceiverThatCannotBeShutDownIsClosed) {
    const std::size_t before = CountOpenDescriptors();
    WithReceiver endpoint;
    ASSERT_TRUE(endpoint.StartClient());
    const FailingCalls refused(Call::Shutdown, ENOTCONN, 100);
    EXPECT_TRUE(endpoint.Disconnect());
    EXPECT_EQ(before, CountOpenDescriptors());
}

// --- connecting ---

class CSocketConnectFault : public testing::TestWithParam<int> {};

TEST_P(CSocketConnectFault, IsLoggedAndStartsNothing) {
    TestEndpoint endpoint(CONNECTION_STREAM);
    const LogCapture log;
    const FailingCalls refused(Call::Connect, GetParam());
    const CallWatch threads(Call::CreateThread);
    EXPECT_FALSE(endpoint.Connect(loopback, 9));
    EXPECT_EQ(1, refused.Failed());
    EXPECT_EQ(1u, log.Count("CSocket::Connect - failed to connect with error -1"));
    EXPECT_EQ(0, threads.Count());
    EXPECT_THAT(endpoint.Events(), IsEmpty());
    EXPECT_FALSE(endpoint.m_bReceiversRunning);
}

INSTANTIATE_TEST_SUITE_P(Errors, CSocketConnectFault, testing::Values(ECONNREFUSED, ETIMEDOUT, EAGAIN), NameOfError);

TEST(CSocketConnect, WithoutASocketNothingIsConnected) {
    TestEndpoint endpoint(CONNECTION_STREAM);
    const FailingCalls refused(Call::Socket, EMFILE);
    const CallWatch connections(Call::Connect);
    EXPECT_FALSE(endpoint.Connect(loopback, 9));
    EXPECT_EQ(0, connections.Count());
}

// --- signals and tables ---

TEST(CSocketSignalIOFault, EachStepThatFailsIsLogged) {
    const struct {
        Call call;
        const char* text;
    } cases[] = {
        {Call::SetOwner, "CSocket::EnableSignalIO - could not own SIGIO"},
        {Call::GetFlags, "CSocket::EnableSignalIO - bad fcntl get call"},
        {Call::SetFlags, "CSocket::EnableSignalIO - bad fcntl set call(1)"},
        {Call::SetSignal, "CSocket::EnableSignalIO - bad fcntl set call(2)"},
    };
    WithReceiver endpoint;
    for (const auto& [call, text] : cases) {
        const LogCapture log;
        const FailingCalls refused(call, EINVAL);
        EXPECT_FALSE(endpoint.EnableSignalIO());
        EXPECT_EQ(1, refused.Failed());
        EXPECT_THAT(log.Messages(), ElementsAre(text));
    }
}

TEST(CSocketSignalIOFault, DisablingGivesTheResultOfTheCall) {
    WithReceiver endpoint;
    const LogCapture log;
    const FailingCalls refused(Call::SetFlags, EPERM);
    EXPECT_EQ(-1, endpoint.DisableSignalIO());
    EXPECT_EQ(0, endpoint.DisableSignalIO());
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST(CSocketARPFault, ATableThatTakesNoEntryGivesFalse) {
    WithReceiver endpoint;
    CMacAddress mac;
    const FailingCalls refused(Call::Control, EPERM);
    EXPECT_FALSE(endpoint.UpdateARPTable("lo", CIPString(loopback), mac));
    EXPECT_EQ(1, refused.Failed());
}

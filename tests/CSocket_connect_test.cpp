// Stream clients: connecting, and what comes of it.

#include <TarnSocketIO/ConnectionType.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/AllDescriptorsTaken.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"
#include "tests/support/TestEndpoint.h"

namespace {

using TarnSocketIO::CONNECTION_PACKET;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::AllDescriptorsTaken;
using TarnTest::BackgroundCall;
using TarnTest::Eventually;
using TarnTest::FindUnusedPort;
using TarnTest::HasBytes;
using TarnTest::IsReadable;
using TarnTest::LogCapture;
using TarnTest::LoopbackSocket;
using TarnTest::OwnedDescriptor;
using TarnTest::PortOf;
using TarnTest::TestEndpoint;
using TarnTest::UseAnEndpointOnce;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using Kind = TarnTest::EndpointEvent::Kind;

constexpr const char* failed_line = "CSocket::Connect - failed to connect with error -1";
constexpr const char* thread_started_line = "CSocketThread::ThreadProc - started";

std::string CreatingLine(int fd) {
    return "CSocket::StartClient() - creating sender socket " + std::to_string(fd);
}

class CSocketConnect : public testing::Test {
protected:
    OwnedDescriptor Accept() const {
        return OwnedDescriptor(accept4(listener.Number(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    bool HasNobodyToAccept() const {
        pollfd ready = {listener.Number(), POLLIN, 0};
        return poll(&ready, 1, 0) == 0;
    }

    const LoopbackSocket listener{SOCK_STREAM};
    TestEndpoint client{CONNECTION_STREAM};
};

TEST_F(CSocketConnect, ConnectsTheSenderAndTellsTheCaller) {
    EXPECT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    const OwnedDescriptor accepted = Accept();
    sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    ASSERT_EQ(0, getpeername(accepted.Number(), reinterpret_cast<sockaddr*>(&peer), &length));
    EXPECT_EQ(PortOf(client.m_socSender), ntohs(peer.sin_port));
    ASSERT_EQ(1u, client.Events().size());
    EXPECT_EQ(Kind::connected, client.Events()[0].kind);
    EXPECT_EQ(std::this_thread::get_id(), client.Events()[0].thread);
}

TEST_F(CSocketConnect, StartsOneReceiverThread) {
    const LogCapture log;
    ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    EXPECT_TRUE(client.m_bReceiversRunning);
    EXPECT_EQ(1, client.m_nReceiverThreads);
    EXPECT_NE(nullptr, client.m_pReceivers[0]);
    EXPECT_EQ(nullptr, client.m_pReceivers[1]);
    EXPECT_TRUE(Eventually([&] { return log.Count(thread_started_line) == 1; }));
    client.TerminateAll();
    EXPECT_EQ(1u, log.Count(thread_started_line));
}

TEST_F(CSocketConnect, StartsTheThreadBeforeItNotifies) {
    bool was_running = false;
    client.on_connected = [&] { was_running = client.m_bReceiversRunning && client.m_nReceiverThreads == 1; };
    ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    EXPECT_TRUE(was_running);
}

TEST_F(CSocketConnect, LogsTheSenderOnlyIfAllIsWell) {
    const LogCapture log;
    ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    const std::vector<std::string> messages = log.Messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(CreatingLine(client.m_socSender), messages[0]);
    EXPECT_THAT(messages, Not(Contains(failed_line)));
}

TEST_F(CSocketConnect, ToAHostNameLooksItUp) {
    EXPECT_TRUE(client.Connect("localhost", listener.Port()));
}

TEST_F(CSocketConnect, WhereNobodyListensFails) {
    const std::uint16_t port = FindUnusedPort();
    const LogCapture log;
    EXPECT_FALSE(client.Connect("127.0.0.1", port));
    EXPECT_THAT(log.Messages(), ElementsAre(CreatingLine(client.m_socSender), failed_line));
    EXPECT_THAT(client.Events(), IsEmpty());
    EXPECT_FALSE(client.m_bReceiversRunning);
    EXPECT_EQ(nullptr, client.m_pReceivers[0]);
    EXPECT_EQ(0, client.m_nReceiverThreads);
}

TEST_F(CSocketConnect, AfterAFailureWorksLater) {
    EXPECT_FALSE(client.Connect("127.0.0.1", FindUnusedPort()));
    EXPECT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    EXPECT_EQ(1u, client.Count(Kind::connected));
}

TEST_F(CSocketConnect, ToAnUnknownHostFailsBeforeConnecting) {
    const LogCapture log;
    EXPECT_FALSE(client.Connect(std::string(64, 'x').c_str(), listener.Port()));
    EXPECT_THAT(log.Messages(), ElementsAre(CreatingLine(client.m_socSender)));
    EXPECT_THAT(client.Events(), IsEmpty());
}

TEST_F(CSocketConnect, WithoutASocketFails) {
    UseAnEndpointOnce(CONNECTION_STREAM);
    const LogCapture log;
    {
        const AllDescriptorsTaken none_left;
        EXPECT_FALSE(client.Connect("127.0.0.1", listener.Port()));
    }
    EXPECT_THAT(log.Messages(), ElementsAre(CreatingLine(-1), "CSocket::StartClient() - sender error -1"));
    EXPECT_THAT(client.Events(), IsEmpty());
}

TEST_F(CSocketConnect, ASecondTimeConnectsButIsFalseAndStartsNoThread) {
    const LogCapture log;
    ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    const OwnedDescriptor first = Accept();
    ASSERT_TRUE(Eventually([&] { return log.Count(thread_started_line) == 1; }));
    EXPECT_FALSE(client.Connect("127.0.0.1", listener.Port()));
    ASSERT_TRUE(IsReadable(listener.Number()));
    const OwnedDescriptor second = Accept();
    EXPECT_TRUE(client.Send("standing", 8));
    EXPECT_TRUE(HasBytes(second.Number(), 8));
    EXPECT_EQ(1, client.m_nReceiverThreads);
    EXPECT_EQ(nullptr, client.m_pReceivers[1]);
    EXPECT_EQ(1u, client.Count(Kind::connected));
    client.TerminateAll();
    EXPECT_EQ(1u, log.Count(thread_started_line));
}

TEST_F(CSocketConnect, WithAnOccupiedSlotConnectsButIsFalse) {
    ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    const OwnedDescriptor first = Accept();
    const auto* const receiver = client.m_pReceivers[0];
    client.m_bReceiversRunning = false;
    EXPECT_FALSE(client.Connect("127.0.0.1", listener.Port()));
    EXPECT_TRUE(IsReadable(listener.Number()));
    EXPECT_EQ(receiver, client.m_pReceivers[0]);
    EXPECT_FALSE(client.m_bReceiversRunning);
    client.m_bReceiversRunning = true;
}

TEST_F(CSocketConnect, WithReceiversRunningConnectsButIsFalse) {
    client.m_bReceiversRunning = true;
    EXPECT_FALSE(client.Connect("127.0.0.1", listener.Port()));
    EXPECT_TRUE(IsReadable(listener.Number()));
    EXPECT_EQ(nullptr, client.m_pReceivers[0]);
    EXPECT_EQ(0, client.m_nReceiverThreads);
    EXPECT_THAT(client.Events(), IsEmpty());
    client.m_bReceiversRunning = false;
}

TEST_F(CSocketConnect, WaitsForTheSendersMutex) {
    pthread_mutex_lock(&client.m_SenderMutex);
    BackgroundCall call([&] { return client.Connect("127.0.0.1", listener.Port()); });
    EXPECT_TRUE(Eventually([&] { return client.m_socSender != 0 && call.Waits(); })) << "StartClient takes no lock";
    EXPECT_FALSE(call.HasEnded());
    EXPECT_TRUE(HasNobodyToAccept());
    pthread_mutex_unlock(&client.m_SenderMutex);
    EXPECT_TRUE(call.Result());
}

TEST_F(CSocketConnect, SenderIsFreeForOthersWhenItHasFailed) {
    EXPECT_FALSE(client.Connect("127.0.0.1", FindUnusedPort()));
    ASSERT_EQ(0, pthread_mutex_trylock(&client.m_SenderMutex));
    pthread_mutex_unlock(&client.m_SenderMutex);
}

TEST_F(CSocketConnect, SenderIsFreeForOthersInOnConnected) {
    int result = -1;
    client.on_connected = [&] { result = client.Send("hello", 5) ? 0 : 1; };
    ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    EXPECT_EQ(0, result);
    EXPECT_TRUE(HasBytes(Accept().Number(), 5));
}

TEST_F(CSocketConnect, ThreadDoesNotReadTheConnection) {
    client.m_iReceivesPerPass = 0;
    ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    const OwnedDescriptor accepted = Accept();
    ASSERT_EQ(5, send(accepted.Number(), "reply", 5, MSG_NOSIGNAL));
    ASSERT_TRUE(HasBytes(client.m_socSender, 5));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // a dozen passes
    EXPECT_THAT(client.Received(), IsEmpty());
    std::vector<char> buffer(131070);
    long length = 0;
    EXPECT_TRUE(client.ReceiveData(buffer.data(), length, nullptr, true));
    EXPECT_EQ("reply", std::string(buffer.data(), static_cast<std::size_t>(length)));
}

TEST_F(CSocketConnect, ThreadReadsTheReceiver) {
    // Nothing but the application's own call makes one for a client.
    TestEndpoint datagrams(CONNECTION_UDP);
    ASSERT_TRUE(datagrams.InitialiseReceiver());
    const LoopbackSocket peer(SOCK_DGRAM);
    ASSERT_TRUE(datagrams.Connect("127.0.0.1", peer.Port()));
    const sockaddr_in any = TarnTest::NameOf(datagrams.m_socReceiver);
    sockaddr_in address = peer.Address();
    address.sin_port = any.sin_port;
    ASSERT_EQ(5, sendto(peer.Number(), "hello", 5, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    EXPECT_TRUE(Eventually([&] { return datagrams.Received().size() == 1; }));
    EXPECT_THAT(datagrams.Received(), ElementsAre("hello"));
}

TEST_F(CSocketConnect, FramesTypeConnectsAStreamToo) {
    TestEndpoint frames(CONNECTION_PACKET);
    EXPECT_TRUE(frames.Connect("127.0.0.1", listener.Port()));
    EXPECT_TRUE(frames.Send("hello", 5));
    EXPECT_TRUE(HasBytes(Accept().Number(), 5));
}

TEST_F(CSocketConnect, DisconnectEndsTheConnection) {
    ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
    const OwnedDescriptor accepted = Accept();
    EXPECT_TRUE(client.Disconnect());
    ASSERT_TRUE(IsReadable(accepted.Number()));
    char byte;
    EXPECT_LE(recv(accepted.Number(), &byte, 1, 0), 0);
    EXPECT_FALSE(client.Send("x", 1));
}

}  // namespace

// Descriptor numbers that are not an endpoint's, or not any more: it neither reads nor closes them.

#include <TarnSocketIO/ConnectionType.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Eventually.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"
#include "tests/support/TestEndpoint.h"

namespace {

using std::chrono::milliseconds;
using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::Eventually;
using TarnTest::HasBytes;
using TarnTest::InChild;
using TarnTest::IsOpen;
using TarnTest::LoopbackSocket;
using TarnTest::SendDatagram;
using TarnTest::StandardInputSetAside;
using TarnTest::TestEndpoint;
using testing::IsEmpty;

/// A datagram server on the loopback interface.
class DatagramServer : public TestEndpoint {
public:
    explicit DatagramServer(int threads, CONNECTION_TYPE type = CONNECTION_UDP) : TestEndpoint(type) {
        InitialiseLocalSockets(0, nullptr, "127.0.0.1", threads);
    }
    ~DatagramServer() override { TerminateAll(); }
};

/// A datagram socket of somebody else that has got a number which the endpoint had before, and a datagram waiting.
class Bystander {
public:
    explicit Bystander(int number) : m_number(number) {
        EXPECT_FALSE(IsOpen(number)) << "the number is not free";
        const LoopbackSocket socket(SOCK_DGRAM, number);
        EXPECT_EQ(number, dup2(socket.Number(), number));
        SendDatagram(socket.Port(), "not yours");
        EXPECT_TRUE(HasBytes(number, 9));
    }
    ~Bystander() { close(m_number); }
    Bystander(const Bystander&) = delete;
    Bystander& operator=(const Bystander&) = delete;

    /// Whether it is open, unread, and receives as before.
    bool IsUntouched() const {
        if (!IsOpen(m_number) || !HasBytes(m_number, 9)) {
            return false;
        }
        pollfd state = {m_number, POLLIN, 0};
        return poll(&state, 1, 0) == 1 && state.revents == POLLIN;
    }

private:
    const int m_number;
};

TEST(CSocketNumbers, OfAClosedReceiverAreLeftAlone) {
    for (const CONNECTION_TYPE type : {CONNECTION_UDP, CONNECTION_DATAGRAM}) {
        SCOPED_TRACE(type);
        std::optional<DatagramServer> server(std::in_place, 2, type);
        server->m_iReceivesPerPass = 0;
        const int number = server->m_socReceiver;
        ASSERT_TRUE(server->Disconnect());
        ASSERT_EQ(number, server->m_socReceiver);
        const Bystander bystander(number);
        std::this_thread::sleep_for(milliseconds(50));  // a dozen passes of each thread
        EXPECT_TRUE(bystander.IsUntouched()) << "by a pass";
        server->DataReceiver(0);
        std::vector<char> buffer(131070);
        long length = 0;
        EXPECT_FALSE(server->ReceiveData(buffer.data(), length, nullptr, false));
        EXPECT_FALSE(server->ReceiveDataSensibly(buffer.data(), 9, nullptr, length, false));
        EXPECT_TRUE(bystander.IsUntouched()) << "by a read";
        EXPECT_FALSE(server->AddToGroup("239.1.2.3"));
        EXPECT_FALSE(server->Disconnect());
        EXPECT_TRUE(bystander.IsUntouched()) << "by another Disconnect";
        ASSERT_TRUE(server->StartClient());
        EXPECT_TRUE(server->Disconnect());
        EXPECT_TRUE(bystander.IsUntouched()) << "by a Disconnect that had a sender to close";
        server->TerminateAll();
        EXPECT_TRUE(bystander.IsUntouched()) << "by TerminateAll";
        EXPECT_THAT(server->Events(), IsEmpty());
        server.reset();
        EXPECT_TRUE(bystander.IsUntouched()) << "by the destructor";
    }
}

TEST(CSocketNumbers, OfAClosedReceiverAreLeftAloneByANewOne) {
    DatagramServer server(1);
    const int number = server.m_socReceiver;
    ASSERT_TRUE(server.Disconnect());
    const Bystander bystander(number);
    ASSERT_TRUE(server.InitialiseReceiver());
    EXPECT_NE(number, server.m_socReceiver);
    SendDatagram(server.ReceiverPort(), "to the new one");
    EXPECT_TRUE(Eventually([&] { return server.Received().size() == 1; }));
    EXPECT_TRUE(bystander.IsUntouched());
}

TEST(CSocketNumbers, OfAClosedSenderAreLeftAlone) {
    std::optional<TestEndpoint> endpoint(std::in_place, CONNECTION_UDP);
    ASSERT_TRUE(endpoint->StartClient());
    const int number = endpoint->m_socSender;
    ASSERT_TRUE(endpoint->Disconnect());
    const Bystander bystander(number);
    EXPECT_FALSE(endpoint->Disconnect());
    EXPECT_FALSE(endpoint->Send("x", 1));
    std::vector<char> buffer(131070);
    long length = 0;
    EXPECT_FALSE(endpoint->ReceiveData(buffer.data(), length, nullptr, true));
    endpoint.reset();
    EXPECT_TRUE(bystander.IsUntouched());
}

TEST(CSocketNumbers, ZeroIsNeitherReadNorClosed) {
    const LoopbackSocket listener(SOCK_STREAM);
    const StandardInputSetAside standard_input;
    const Bystander zero(0);
    {
        TestEndpoint client(CONNECTION_STREAM);
        client.m_iReceivesPerPass = 0;
        std::vector<char> buffer(131070);
        long length = 0;
        for (const bool sender : {false, true}) {
            EXPECT_FALSE(client.ReceiveData(buffer.data(), length, nullptr, sender));
            EXPECT_FALSE(client.ReceiveDataSensibly(buffer.data(), 9, nullptr, length, sender));
        }
        client.DataReceiver(0);
        EXPECT_FALSE(client.Disconnect());
        EXPECT_TRUE(zero.IsUntouched());
        ASSERT_TRUE(client.Connect("127.0.0.1", listener.Port()));
        std::this_thread::sleep_for(milliseconds(50));  // a dozen passes
        EXPECT_TRUE(zero.IsUntouched());
        EXPECT_EQ(0u, client.Received().size());
        EXPECT_TRUE(client.Disconnect());
        EXPECT_TRUE(zero.IsUntouched());
        EXPECT_FALSE(client.TerminateAll());
    }
    EXPECT_TRUE(zero.IsUntouched());
}

TEST(CSocketNumbers, ZeroIsNoSocketOfAnEndpoint) {
    const StandardInputSetAside standard_input;  // 0 is what the next descriptor would be
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.InitialiseLocalSockets(0, nullptr, "127.0.0.1", 0);
    EXPECT_GT(endpoint.m_socSender, 0);
    EXPECT_GT(endpoint.m_socReceiver, 0);
    SendDatagram(endpoint.ReceiverPort(), "x");
    EXPECT_TRUE(HasBytes(endpoint.m_socReceiver, 1));
    EXPECT_TRUE(endpoint.Disconnect());
}

// What a process without standard output prints must not go out to the network.
TEST(CSocketNumbers, OfStandardStreamsAreNoSocketsOfAnEndpoint) {
    InChild([] {
        for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
            close(number);
        }
        TestEndpoint endpoint(CONNECTION_UDP);
        endpoint.InitialiseLocalSockets(0, nullptr, "127.0.0.1", 0);
        EXPECT_GT(endpoint.m_socSender, STDERR_FILENO);
        EXPECT_GT(endpoint.m_socReceiver, STDERR_FILENO);
        for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
            EXPECT_FALSE(IsOpen(number));
        }
    });
}

}  // namespace

// The two ways in which an application reads for itself: ReceiveData and ReceiveDataSensibly.

#include <TarnSocketIO/ConnectionType.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Bytes.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"
#include "tests/support/TestEndpoint.h"

namespace {

using std::chrono::milliseconds;
using TarnSocketIO::CONNECTION_PACKET;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::attempts;
using TarnTest::BackgroundCall;
using TarnTest::CanOpen;
using TarnTest::cut_short;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::HasBytes;
using TarnTest::IsReadable;
using TarnTest::LogCapture;
using TarnTest::longest_read;
using TarnTest::LoopbackSocket;
using TarnTest::OwnedDescriptor;
using TarnTest::Pattern;
using TarnTest::SendDatagram;
using TarnTest::TestEndpoint;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* events_line = "CSocket::DataReceiver - received POLLIN or POLLPRI events";
constexpr long untouched = 4711;

/// What one call has given.
struct Read {
    bool ok;
    long length;
    std::string data;
};

class Endpoint : public TestEndpoint {
public:
    explicit Endpoint(CONNECTION_TYPE type = CONNECTION_UDP, bool timestamp = false)
        : TestEndpoint(type, false, timestamp) {
        InitialiseReceiver();
    }
    ~Endpoint() override { TerminateAll(); }

    Read Receive(sockaddr_in* from = nullptr, bool sender = false) {
        std::vector<char> buffer(static_cast<std::size_t>(longest_read), '~');
        long length = untouched;
        const bool ok = ReceiveData(buffer.data(), length, from, sender);
        return {ok, length, ok ? std::string(buffer.data(), static_cast<std::size_t>(length)) : ""};
    }

    Read ReceiveSensibly(long size, sockaddr_in* from = nullptr, bool sender = false) {
        std::vector<char> buffer(static_cast<std::size_t>(size) + 1, '~');
        long length = untouched;
        const bool ok = ReceiveDataSensibly(buffer.data(), size, from, length, sender);
        EXPECT_EQ('~', buffer.back()) << "written behind the size";
        return {ok, length, length > 0 ? std::string(buffer.data(), static_cast<std::size_t>(length)) : ""};
    }

    void Get(const std::string& data) const {
        SendDatagram(ReceiverPort(), data);
        ASSERT_TRUE(IsReadable(m_socReceiver));
    }
};

/// A stream client and its connection's other end.
class ConnectedClient {
public:
    ConnectedClient() : m_is_connected(client.Connect("127.0.0.1", listener.Port())), peer(Accept()) {
        EXPECT_TRUE(m_is_connected);
    }

    void Get(const std::string& data) const {
        ASSERT_EQ(static_cast<ssize_t>(data.size()), send(peer.Number(), data.data(), data.size(), MSG_NOSIGNAL));
        ASSERT_TRUE(HasBytes(client.m_socSender, static_cast<int>(data.size())));
    }

private:
    OwnedDescriptor Accept() const {
        return OwnedDescriptor(accept4(listener.Number(), nullptr, nullptr, SOCK_CLOEXEC));
    }

public:
    const LoopbackSocket listener{SOCK_STREAM};
    Endpoint client{CONNECTION_STREAM};

private:
    const bool m_is_connected;

public:
    OwnedDescriptor peer;
};

// ---- ReceiveData

TEST(CSocketReceiveData, ReadsOneDatagram) {
    Endpoint endpoint;
    endpoint.Get("first");
    endpoint.Get("second");
    const LogCapture log;
    const Read read = endpoint.Receive();
    EXPECT_TRUE(read.ok);
    EXPECT_EQ("first", read.data);
    EXPECT_THAT(log.Messages(), ElementsAre(events_line));
    EXPECT_EQ("second", endpoint.Receive().data);
}

TEST(CSocketReceiveData, WithNothingThereIsFalseAndKeepsTheLength) {
    Endpoint endpoint;
    const LogCapture log;
    const Read read = endpoint.Receive();
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(untouched, read.length);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST(CSocketReceiveData, OfAnEmptyDatagramIsTrueWithLengthZero) {
    Endpoint endpoint;
    endpoint.Get("");
    const Read read = endpoint.Receive();
    EXPECT_TRUE(read.ok);
    EXPECT_EQ(0, read.length);
}

TEST(CSocketReceiveData, TellsTheSender) {
    Endpoint endpoint;
    const LoopbackSocket peer(SOCK_DGRAM);
    sockaddr_in to = peer.Address();
    to.sin_port = htons(endpoint.ReceiverPort());
    ASSERT_EQ(1, sendto(peer.Number(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to));
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    sockaddr_in from = {};
    EXPECT_TRUE(endpoint.Receive(&from).ok);
    EXPECT_EQ(AF_INET, from.sin_family);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), from.sin_addr.s_addr);
    EXPECT_EQ(peer.Port(), ntohs(from.sin_port));
}

TEST(CSocketReceiveData, OfFramesTellsNoSender) {
    if (!CanOpen(PF_PACKET, SOCK_RAW, htons(0x0800))) {
        GTEST_SKIP() << "this process may not open raw sockets";
    }
    Endpoint endpoint(CONNECTION_PACKET);
    SendDatagram(LoopbackSocket(SOCK_DGRAM).Port(), "for a frame");
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    sockaddr_in from;
    std::memset(&from, 0xee, sizeof from);
    const sockaddr_in before = from;
    EXPECT_TRUE(endpoint.Receive(&from).ok);
    EXPECT_EQ(0, std::memcmp(&before, &from, sizeof from));
}

TEST(CSocketReceiveData, StampsTheTimeOnlyIfAskedFor) {
    for (const bool timestamp : {false, true}) {
        Endpoint endpoint(CONNECTION_UDP, timestamp);
        endpoint.m_tvReceived = {};
        timeval before = {};
        gettimeofday(&before, nullptr);
        EXPECT_FALSE(endpoint.Receive().ok);
        EXPECT_EQ(0, endpoint.m_tvReceived.tv_sec) << "nothing has come";
        endpoint.Get("x");
        EXPECT_TRUE(endpoint.Receive().ok);
        EXPECT_EQ(timestamp, endpoint.m_tvReceived.tv_sec >= before.tv_sec);
    }
}

TEST(CSocketReceiveData, WaitsAsLongAsTheTimeoutSays) {
    Endpoint endpoint;
    endpoint.m_iPollTimeout = 300;
    const milliseconds duration = DurationOf([&] { EXPECT_FALSE(endpoint.Receive().ok); });
    EXPECT_GE(duration, milliseconds(295));
    EXPECT_LT(duration, milliseconds(5000));
}

TEST(CSocketReceiveData, DoesNotWaitByItself) {
    Endpoint endpoint;
    milliseconds fastest = milliseconds::max();
    for (int i = 0; i < attempts && fastest >= cut_short; ++i) {
        fastest = std::min(fastest, DurationOf([&] { EXPECT_FALSE(endpoint.Receive().ok); }));
    }
    EXPECT_LT(fastest, cut_short);
}

TEST(CSocketReceiveData, EndsItsWaitWhenDataComes) {
    for (const int timeout : {600000, -1}) {
        Endpoint endpoint;
        endpoint.m_iPollTimeout = timeout;
        Read read = {};
        BackgroundCall call([&] {
            read = endpoint.Receive();
            return read.ok;
        });
        EXPECT_TRUE(Eventually([&] { return call.Waits(); }));
        EXPECT_FALSE(call.HasEnded());
        SendDatagram(endpoint.ReceiverPort(), "at last");
        EXPECT_TRUE(call.Result());
        EXPECT_EQ("at last", read.data);
    }
}

TEST(CSocketReceiveData, FromTheSenderReadsTheConnection) {
    ConnectedClient connection;
    connection.Get("reply");
    EXPECT_FALSE(connection.client.Receive().ok) << "the receiver has nothing";
    const Read read = connection.client.Receive(nullptr, true);
    EXPECT_TRUE(read.ok);
    EXPECT_EQ("reply", read.data);
}

TEST(CSocketReceiveData, FromTheSenderReadsAConnectionsEndAsLengthZero) {
    ConnectedClient connection;
    connection.peer.Close();
    ASSERT_TRUE(IsReadable(connection.client.m_socSender));
    const Read read = connection.client.Receive(nullptr, true);
    EXPECT_TRUE(read.ok);
    EXPECT_EQ(0, read.length);
}

TEST(CSocketReceiveData, OfABrokenConnectionIsFalseAndKeepsTheLength) {
    ConnectedClient connection;
    connection.peer.Reset();
    ASSERT_TRUE(IsReadable(connection.client.m_socSender));
    const LogCapture log;
    const Read read = connection.client.Receive(nullptr, true);
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(untouched, read.length);
    EXPECT_EQ(1u, log.Count(events_line));
}

TEST(CSocketReceiveData, ReadsNoMoreThanItsLimitAtOnce) {
    ConnectedClient connection;
    const int size = 4 << 20;
    if (setsockopt(connection.client.m_socSender, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
        GTEST_SKIP() << "this process may not have a receive buffer that is larger than one read";
    }
    const std::string much = Pattern(200000);
    connection.Get(much);
    const Read read = connection.client.Receive(nullptr, true);
    EXPECT_TRUE(read.ok);
    EXPECT_EQ(longest_read, read.length);
    EXPECT_TRUE(much.compare(0, read.data.size(), read.data) == 0);
    EXPECT_EQ(200000 - longest_read, connection.client.Receive(nullptr, true).length);
}

TEST(CSocketReceiveData, OfAnErrorAloneIsFalseAndLeavesIt) {
    Endpoint endpoint;
    std::uint16_t closed_port;
    {
        const LoopbackSocket closing(SOCK_DGRAM);
        closed_port = closing.Port();
    }
    ASSERT_TRUE(endpoint.Connect("127.0.0.1", closed_port));
    ASSERT_TRUE(endpoint.Send("x", 1));
    pollfd refused = {endpoint.m_socSender, 0, 0};
    ASSERT_EQ(1, poll(&refused, 1, 30000));
    ASSERT_EQ(POLLERR, refused.revents);
    const LogCapture log;
    const Read read = endpoint.Receive(nullptr, true);
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(untouched, read.length);
    EXPECT_EQ(0u, log.Count(events_line));
}

TEST(CSocketReceiveData, WithoutASocketIsFalse) {
    TestEndpoint endpoint(CONNECTION_UDP);
    std::vector<char> buffer(static_cast<std::size_t>(longest_read));
    for (const bool sender : {false, true}) {
        long length = untouched;
        EXPECT_FALSE(endpoint.ReceiveData(buffer.data(), length, nullptr, sender));
        EXPECT_EQ(untouched, length);
        EXPECT_FALSE(endpoint.ReceiveDataSensibly(buffer.data(), 10, nullptr, length, sender));
        EXPECT_EQ(0, length);
    }
}

// ---- ReceiveDataSensibly

TEST(CSocketReceiveDataSensibly, OfAMessageOfItsSizeIsTrue) {
    Endpoint endpoint;
    endpoint.Get("0123456789");
    const LogCapture log;
    const Read read = endpoint.ReceiveSensibly(10);
    EXPECT_TRUE(read.ok);
    EXPECT_EQ("0123456789", read.data);
    EXPECT_THAT(log.Messages(), ElementsAre(events_line));
}

TEST(CSocketReceiveDataSensibly, OfAShorterMessageIsFalseAndDoesNotCompleteIt) {
    ConnectedClient connection;
    connection.Get("0123456789");
    const Read read = connection.client.ReceiveSensibly(20, nullptr, true);
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(10, read.length);
    EXPECT_EQ("0123456789", read.data);
    connection.Get("abc");
    EXPECT_TRUE(connection.client.ReceiveSensibly(3, nullptr, true).ok);
}

TEST(CSocketReceiveDataSensibly, ReadsNoMoreThanItsSize) {
    ConnectedClient connection;
    connection.Get("0123456789");
    const Read first = connection.client.ReceiveSensibly(4, nullptr, true);
    EXPECT_TRUE(first.ok);
    EXPECT_EQ("0123", first.data);
    EXPECT_EQ("456789", connection.client.ReceiveSensibly(6, nullptr, true).data);
}

TEST(CSocketReceiveDataSensibly, CutsADatagramToItsSize) {
    Endpoint endpoint;
    endpoint.Get("0123456789");
    EXPECT_EQ("0123", endpoint.ReceiveSensibly(4).data);
    EXPECT_FALSE(endpoint.ReceiveSensibly(4).ok) << "the rest is gone";
}

TEST(CSocketReceiveDataSensibly, WithNothingThereHasReceivedZero) {
    Endpoint endpoint;
    const LogCapture log;
    const Read read = endpoint.ReceiveSensibly(20);
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(0, read.length);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST(CSocketReceiveDataSensibly, OfABrokenConnectionHasReceivedMinusOne) {
    ConnectedClient connection;
    connection.peer.Reset();
    ASSERT_TRUE(IsReadable(connection.client.m_socSender));
    const Read read = connection.client.ReceiveSensibly(20, nullptr, true);
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(-1, read.length);
}

TEST(CSocketReceiveDataSensibly, TellsTheSenderAndTheTime) {
    Endpoint endpoint(CONNECTION_UDP, true);
    endpoint.m_tvReceived = {};
    endpoint.Get("0123456789");
    sockaddr_in from = {};
    EXPECT_TRUE(endpoint.ReceiveSensibly(10, &from).ok);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), from.sin_addr.s_addr);
    EXPECT_NE(0, endpoint.m_tvReceived.tv_sec);
}

TEST(CSocketReceiveDataSensibly, OfAFrameTellsNoSender) {
    if (!CanOpen(PF_PACKET, SOCK_RAW, htons(0x0800))) {
        GTEST_SKIP() << "this process may not open raw sockets";
    }
    Endpoint endpoint(CONNECTION_PACKET);
    SendDatagram(LoopbackSocket(SOCK_DGRAM).Port(), "for a frame");
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    sockaddr_in from = {};
    EXPECT_TRUE(endpoint.ReceiveSensibly(14, &from).ok) << "the link's header alone is so long";
    EXPECT_EQ(0, from.sin_family);
}

TEST(CSocketReceiveDataSensibly, WaitsAsLongAsTheTimeoutSays) {
    Endpoint endpoint;
    endpoint.m_iPollTimeout = 300;
    const milliseconds duration = DurationOf([&] { EXPECT_FALSE(endpoint.ReceiveSensibly(1).ok); });
    EXPECT_GE(duration, milliseconds(295));
    EXPECT_LT(duration, milliseconds(5000));
}

}  // namespace

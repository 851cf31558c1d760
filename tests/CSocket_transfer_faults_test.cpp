// What an endpoint does when the kernel fails it in sending or receiving, and the resolver with names.

#include <TarnSocketIO/CSocket.h>
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/Datagrams.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LogTest.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"
#include "tests/support/Worker.h"

using TarnSocketIO::CONNECTION_ICMP;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_UDP;
using TarnSocketIO::CSocket;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::ConsoleMessagesOf;
using TarnTest::FailingCalls;
using TarnTest::ForwardLookup;
using TarnTest::IsReadable;
using TarnTest::LogCapture;
using TarnTest::OutputOf;
using TarnTest::SendDatagram;
using TarnTest::TestEndpoint;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = TarnTest::EndpointEvent::Kind;

namespace {

constexpr const char* loopback = "127.0.0.1";
constexpr std::size_t buffer_size = 131070;

std::string NameOfError(const testing::TestParamInfo<int>& info) {
    return strerrorname_np(info.param);
}

/// An endpoint with a sender, and a receiver on loopback that no thread reads.
class Endpoint : public TestEndpoint {
public:
    explicit Endpoint(TarnSocketIO::CONNECTION_TYPE type = CONNECTION_UDP) : TestEndpoint(type), m_buffer(buffer_size) {
        std::strcpy(m_szLocalIf, loopback);
        StartClient();
        InitialiseReceiver();
    }
    ~Endpoint() override { TerminateAll(); }

    bool HasBeenSent(const std::string& data) {
        SendDatagram(ReceiverPort(), data);
        return IsReadable(m_socReceiver);
    }

    bool Receive(long& length, sockaddr_in* from = nullptr) {
        return ReceiveData(m_buffer.data(), length, from, false);
    }

    bool ReceiveSensibly(long size, long& received, sockaddr_in* from = nullptr) {
        return ReceiveDataSensibly(m_buffer.data(), size, from, received, false);
    }

private:
    std::vector<char> m_buffer;
};

}  // namespace

// --- sending ---

class CSocketSendFault : public testing::TestWithParam<int> {};

TEST_P(CSocketSendFault, OfADatagramIsToldWithHostAndReason) {
    Endpoint endpoint;
    const FailingCalls failing(Call::SendTo, GetParam(), 10);
    const std::string line =
        "sendto (127.0.0.1) failed with errno = " + std::to_string(GetParam()) + " (" + std::strerror(GetParam()) + ")";
    const auto send = [&] { EXPECT_FALSE(endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4)); };
    EXPECT_EQ(line + "\n", OutputOf(send));
    EXPECT_EQ(1, failing.Failed()) << "it is not tried again";
    EXPECT_THAT(ConsoleMessagesOf(send),
                ElementsAre("CSocket::Send - to 127.0.0.1", "<no stamp> " + line, "CSocket::Send - send - failed"));
}

TEST_P(CSocketSendFault, IsOverWithTheSend) {
    Endpoint endpoint;
    {
        const FailingCalls failing(Call::SendTo, GetParam());
        OutputOf([&] { EXPECT_FALSE(endpoint.Send(loopback, endpoint.ReceiverPort(), "lost", 4)); });
    }
    EXPECT_EQ("", OutputOf([&] { EXPECT_TRUE(endpoint.Send(loopback, endpoint.ReceiverPort(), "kept", 4)); }));
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    endpoint.DataReceiver(0);
    EXPECT_THAT(endpoint.Received(), ElementsAre("kept"));
}

TEST_P(CSocketSendFault, OnTheSenderIsTheResultAlone) {
    Endpoint endpoint;
    const LogCapture log;
    const FailingCalls failing(Call::Send, GetParam(), 10);
    EXPECT_EQ("", OutputOf([&] { EXPECT_FALSE(endpoint.Send("data", 4)); }));
    EXPECT_EQ(1, failing.Failed());
    EXPECT_THAT(log.Messages(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Errors, CSocketSendFault, testing::Values(EAGAIN, ENOBUFS, EPERM, EINTR, ENETUNREACH),
                         NameOfError);

TEST(CSocketPingFault, ARequestThatIsNotSentIsTheResultAlone) {
    Endpoint endpoint;
    const FailingCalls failing(Call::SendTo, ENETUNREACH, 10);
    EXPECT_EQ("", OutputOf([&] { EXPECT_FALSE(endpoint.SendPingEchoRequest(loopback)); }));
    EXPECT_EQ(1, failing.Failed());
}

TEST(CSocketPingFault, AHostThatCannotBeLookedUpIsToldAndNothingIsSent) {
    for (const int error : {EAI_AGAIN, EAI_MEMORY, EAI_NONAME}) {
        Endpoint endpoint;
        const FailingCalls failing(Call::GetAddressInfo, error);
        const CallWatch sent(Call::SendTo);
        EXPECT_EQ("CSocket::SendPingEchoRequest - failed to get address info\n",
                  OutputOf([&] { EXPECT_FALSE(endpoint.SendPingEchoRequest("board.example")); }));
        EXPECT_EQ(1, failing.Failed());
        EXPECT_EQ(0, sent.Count());
    }
}

// --- polling and receiving ---

class CSocketPollFault : public testing::TestWithParam<int> {};

TEST_P(CSocketPollFault, EndsTheReceiveBeforeAnythingIsRead) {
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.HasBeenSent("data"));
    const LogCapture log;
    const CallWatch reads(Call::Receive);
    long length = 4711;
    {
        const FailingCalls failing(Call::Poll, GetParam());
        EXPECT_FALSE(endpoint.Receive(length));
        EXPECT_EQ(1, failing.Failed());
    }
    EXPECT_EQ(4711, length);
    {
        const FailingCalls failing(Call::Poll, GetParam());
        EXPECT_FALSE(endpoint.ReceiveSensibly(4, length));
    }
    EXPECT_EQ(0, length);
    EXPECT_EQ(0, reads.Count());
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_TRUE(endpoint.ReceiveSensibly(4, length));
}

TEST_P(CSocketPollFault, EndsThePassAndTheNextOneDelivers) {
    for (const int receives : {1, 0, 5}) {
        Endpoint endpoint;
        endpoint.m_iReceivesPerPass = receives;
        ASSERT_TRUE(endpoint.HasBeenSent("data"));
        {
            const FailingCalls failing(Call::Poll, GetParam());
            endpoint.DataReceiver(0);
            EXPECT_EQ(1, failing.Failed());
        }
        EXPECT_THAT(endpoint.Events(), IsEmpty());
        endpoint.DataReceiver(0);
        EXPECT_THAT(endpoint.Received(), ElementsAre("data"));
    }
}

INSTANTIATE_TEST_SUITE_P(Errors, CSocketPollFault, testing::Values(EINTR, ENOMEM, EINVAL), NameOfError);

class CSocketReceiveFault : public testing::TestWithParam<int> {
protected:
    void SetUp() override { ASSERT_TRUE(m_endpoint.HasBeenSent("data")); }

    Endpoint m_endpoint;
};

TEST_P(CSocketReceiveFault, LeavesTheLengthAsItWas) {
    long length = 4711;
    {
        const FailingCalls failing(Call::Receive, GetParam());
        EXPECT_FALSE(m_endpoint.Receive(length));
        EXPECT_EQ(1, failing.Failed());
    }
    EXPECT_EQ(4711, length);
    {
        sockaddr_in from{};
        const FailingCalls failing(Call::ReceiveFrom, GetParam());
        EXPECT_FALSE(m_endpoint.Receive(length, &from));
        EXPECT_EQ(1, failing.Failed());
    }
    EXPECT_EQ(4711, length);
    EXPECT_TRUE(m_endpoint.Receive(length));
    EXPECT_EQ(4, length);
}

TEST_P(CSocketReceiveFault, OfAKnownSizeIsMinusOne) {
    long received = 4711;
    {
        const FailingCalls failing(Call::Receive, GetParam());
        EXPECT_FALSE(m_endpoint.ReceiveSensibly(4, received));
    }
    EXPECT_EQ(-1, received);
    received = 4711;
    {
        sockaddr_in from{};
        const FailingCalls failing(Call::ReceiveFrom, GetParam());
        EXPECT_FALSE(m_endpoint.ReceiveSensibly(4, received, &from));
    }
    EXPECT_EQ(-1, received);
}

TEST_P(CSocketReceiveFault, EndsThePassWithoutANotification) {
    for (const bool report_source : {false, true}) {
        m_endpoint.m_bReportSource = report_source;
        m_endpoint.m_iReceivesPerPass = 0;
        const FailingCalls failing(report_source ? Call::ReceiveFrom : Call::Receive, GetParam());
        m_endpoint.DataReceiver(0);
        EXPECT_EQ(1, failing.Failed());
        EXPECT_THAT(m_endpoint.Events(), IsEmpty());
    }
    m_endpoint.DataReceiver(0);
    EXPECT_EQ(1u, m_endpoint.Count(Kind::received_from));
    EXPECT_THAT(m_endpoint.Received(), ElementsAre("data"));
}

TEST_P(CSocketReceiveFault, OfAMessageCountsAsAReply) {
    std::array<char, 64> data{};
    iovec iov{data.data(), data.size()};
    msghdr message{};
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    int length = 4711;
    timeval arrival{};
    const FailingCalls failing(Call::ReceiveMessage, GetParam());
    EXPECT_TRUE(m_endpoint.ReceiveEchoReply(message, iov, length, arrival));
    EXPECT_EQ(-1, length);
    EXPECT_GT(arrival.tv_sec, 0);
    EXPECT_TRUE(m_endpoint.ReceiveEchoReply(message, iov, length, arrival));
    EXPECT_EQ(4, length);
}

INSTANTIATE_TEST_SUITE_P(Errors, CSocketReceiveFault, testing::Values(EAGAIN, ECONNREFUSED, EINTR, ENOMEM),
                         NameOfError);

TEST(CSocketPingFault, APassWhoseReadFailsIsHarmless) {
    Endpoint endpoint(CONNECTION_ICMP);
    if (endpoint.m_socReceiver == -1) {
        GTEST_SKIP() << "needs CAP_NET_RAW";
    }
    ASSERT_TRUE(endpoint.SendPingEchoRequest(loopback));
    ASSERT_TRUE(IsReadable(endpoint.m_socReceiver));
    {
        const FailingCalls failing(Call::ReceiveMessage, ENOMEM);
        OutputOf([&] { endpoint.DataReceiver(0); });
        EXPECT_EQ(1, failing.Failed());
    }
    EXPECT_THAT(endpoint.Events(), IsEmpty());
    OutputOf([&] {
        for (int i = 0; i < 1000 && endpoint.Count(Kind::echo_reply) == 0 && IsReadable(endpoint.m_socReceiver); ++i) {
            endpoint.DataReceiver(0);
        }
    });
    EXPECT_EQ(1u, endpoint.Count(Kind::echo_reply));
}

// --- names ---

TEST(CSocketResolver, IsNotAskedForAddresses) {
    const ForwardLookup lookup({"192.0.2.99"});
    sockaddr_in address{};
    for (const char* const text : {"127.0.0.1", "10.1", "0x7f000001", "0", "255.255.255.254", ""}) {
        EXPECT_TRUE(CSocket::ConstructDestinationAddr(text, 7, address)) << text;
    }
    EXPECT_TRUE(CSocket::ConstructDestinationAddr(nullptr, 7, address));
    EXPECT_EQ(htonl(INADDR_ANY), address.sin_addr.s_addr);
    EXPECT_EQ(0, lookup.Asked());

    Endpoint endpoint;
    TestEndpoint client(CONNECTION_STREAM);
    EXPECT_EQ(2, lookup.Asked()) << "each constructor asks once, for the name of this host";
    EXPECT_TRUE(endpoint.Send(loopback, endpoint.ReceiverPort(), "data", 4));
    EXPECT_FALSE(client.Connect(loopback, 0));
    EXPECT_EQ(2, lookup.Asked());
}

TEST(CSocketResolver, IsAskedForTheAddressOfAllOnes) {
    const ForwardLookup lookup({"192.0.2.99"});
    sockaddr_in address{};
    EXPECT_TRUE(CSocket::ConstructDestinationAddr("255.255.255.255", 7, address));
    EXPECT_EQ(1, lookup.Asked());
    EXPECT_EQ(inet_addr("192.0.2.99"), address.sin_addr.s_addr);
}

TEST(CSocketResolver, GivesTheFirstAddressOfAName) {
    const ForwardLookup lookup({"192.0.2.7", "192.0.2.8"});
    sockaddr_in address{};
    EXPECT_TRUE(CSocket::ConstructDestinationAddr("board.example", 4711, address));
    EXPECT_EQ(inet_addr("192.0.2.7"), address.sin_addr.s_addr);
    EXPECT_EQ(htons(4711), address.sin_port);
    EXPECT_EQ(AF_INET, address.sin_family);
    EXPECT_EQ(1, lookup.Asked());
}

TEST(CSocketResolver, IsAskedAgainWithMoreRoomUntilTheAnswerFits) {
    const ForwardLookup lookup({"192.0.2.7"}, 10000);
    sockaddr_in address{};
    EXPECT_TRUE(CSocket::ConstructDestinationAddr("board.example", 7, address));
    EXPECT_EQ(inet_addr("192.0.2.7"), address.sin_addr.s_addr);
    EXPECT_GT(lookup.Asked(), 1);
}

TEST(CSocketResolver, IsGivenUpWhenNoRoomIsEnough) {
    const ForwardLookup lookup({"192.0.2.7"}, std::numeric_limits<std::size_t>::max());
    sockaddr_in address{};
    EXPECT_FALSE(CSocket::ConstructDestinationAddr("board.example", 7, address));
    EXPECT_LT(lookup.Asked(), 100);
}

TEST(CSocketResolver, AnUnknownHostIsSentNothing) {
    Endpoint endpoint;
    const ForwardLookup lookup({});
    const CallWatch sent(Call::SendTo);
    bool is_sent = true;
    EXPECT_THAT(ConsoleMessagesOf([&] { is_sent = endpoint.Send("board.example", 7, "data", 4); }),
                ElementsAre("CSocket::Send - send - failed"));
    EXPECT_FALSE(is_sent);
    EXPECT_EQ(0, sent.Count());
}

TEST(CSocketResolver, AnUnknownHostIsNotConnectedTo) {
    TestEndpoint endpoint(CONNECTION_STREAM);
    const ForwardLookup lookup({});
    const CallWatch connections(Call::Connect);
    EXPECT_FALSE(endpoint.Connect("board.example", 7));
    EXPECT_EQ(0, connections.Count());
    EXPECT_THAT(endpoint.Events(), IsEmpty());
}

// --- this host's addresses ---

TEST(CSocketLocalIPs, AreNoneWithoutAHostName) {
    const ForwardLookup lookup({"192.0.2.7"});
    const LogCapture log;
    const FailingCalls failing(Call::GetHostName, ENAMETOOLONG);
    TestEndpoint endpoint(CONNECTION_UDP);
    EXPECT_EQ(0, endpoint.m_nLocalIPs);
    EXPECT_EQ(nullptr, endpoint.m_pLocalIPs);
    EXPECT_EQ(0, lookup.Asked());
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::GetLocalIPs - getting local ip addresses"));
}

TEST(CSocketLocalIPs, AreNoneWhereTheNameHasNoAddress) {
    for (const std::size_t room : {std::size_t{0}, std::numeric_limits<std::size_t>::max()}) {
        const ForwardLookup lookup(room == 0 ? std::vector<std::string>{} : std::vector<std::string>{"192.0.2.7"},
                                   room);
        TestEndpoint endpoint(CONNECTION_UDP);
        EXPECT_GE(lookup.Asked(), 1);
        EXPECT_EQ(0, endpoint.m_nLocalIPs);
        EXPECT_EQ(nullptr, endpoint.m_pLocalIPs);
    }
}

TEST(CSocketLocalIPs, AreAllOfALongAnswerInItsOrder) {
    std::vector<std::string> addresses;
    for (int i = 1; i <= 40; ++i) {
        addresses.push_back("192.0.2." + std::to_string(i));
    }
    const ForwardLookup lookup(addresses, 5000);
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_EQ(40, endpoint.m_nLocalIPs);
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        EXPECT_EQ(addresses[i], endpoint.m_pLocalIPs[i].c_str());
    }
    endpoint.GetLocalIPs();
    EXPECT_EQ(40, endpoint.m_nLocalIPs) << "the list is made anew, not made longer";
}

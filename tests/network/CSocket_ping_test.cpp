// Echo requests as they leave, and the answers of a real host.

#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/Packets.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

using TarnSocketIO::CONNECTION_ICMP;
using TarnTest::ByteAt;
using TarnTest::ChildProcess;
using TarnTest::EndpointEvent;
using TarnTest::Eventually;
using TarnTest::FrameSocket;
using TarnTest::InternetChecksum;
using TarnTest::LinesOf;
using TarnTest::LogCapture;
using TarnTest::OutputOf;
using TarnTest::StoredAt;
using TarnTest::TestEndpoint;
using TarnTest::TextOf;
using TarnTest::WiredHosts;
using TarnTest::WordAt;
using testing::AllOf;
using testing::ElementsAre;
using testing::Ge;
using testing::Lt;
using testing::SizeIs;

using Kind = EndpointEvent::Kind;

namespace {

using CSocketPing = TarnTest::NetworkTest;

constexpr const char* unknown_host_line = "CSocket::SendPingEchoRequest - failed to get address info";

/// The identifier of this process, as it is stored in a message.
std::uint16_t OwnIdentifier() {
    return static_cast<std::uint16_t>(getpid() & 0xffff);
}

std::string IdentifierLine() {
    std::array<char, 80> line{};
    std::snprintf(line.data(), line.size(), "CSocket::SendPingEchoRequest - ping ID %x",
                  static_cast<unsigned int>(OwnIdentifier()));
    return line.data();
}

std::int64_t MicrosecondsNow() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return std::int64_t{now.tv_sec} * 1000000 + now.tv_usec;
}

/// An echo request on the wire.
struct Request {
    std::string to;  ///< hardware address
    std::string source;
    std::string destination;
    std::string message;
};

/// The peer's end of the wire, from when it is made.
class Wire {
public:
    explicit Wire(const WiredHosts& net)
        : m_frames(net.FromPeer([] { return std::make_unique<FrameSocket>("wire0", ETHERTYPE_IP); })) {}

    /// Waits for the next request.
    Request Next() const {
        const std::string frame = m_frames->Await([](const std::string& one) {
            return one.size() >= 42 && ByteAt(one, 14) == 0x45 && ByteAt(one, 23) == IPPROTO_ICMP;
        });
        if (frame.empty()) {
            throw std::runtime_error("no request");
        }
        return {frame.substr(0, 6), TextOf(in_addr{StoredAt<in_addr_t>(frame, 26)}),
                TextOf(in_addr{StoredAt<in_addr_t>(frame, 30)}), frame.substr(34, WordAt(frame, 16) - 20u)};
    }

private:
    const std::unique_ptr<FrameSocket> m_frames;
};

/// With a sender and nothing else.
class Pinger : public TestEndpoint {
public:
    Pinger() : TestEndpoint(CONNECTION_ICMP) { StartClient(); }
    ~Pinger() override { TerminateAll(); }
};

/// With a receiver thread.
class ListeningPinger : public TestEndpoint {
public:
    ListeningPinger() : TestEndpoint(CONNECTION_ICMP) { InitialiseLocalSockets(0, nullptr, nullptr, 1); }
    ~ListeningPinger() override { TerminateAll(); }
};

}  // namespace

// ---- the request

TEST_F(CSocketPing, ARequestIsThese64Bytes) {
    const WiredHosts net;
    const Wire wire(net);
    Pinger pinger;
    pinger.m_usPingSequence = 0x1234;
    const std::int64_t earliest = MicrosecondsNow();
    ASSERT_TRUE(pinger.SendPingEchoRequest("192.0.2.2"));
    const std::int64_t latest = MicrosecondsNow();

    const Request request = wire.Next();
    EXPECT_EQ("192.0.2.2", request.destination);
    const std::string& message = request.message;
    ASSERT_EQ(64u, message.size());
    EXPECT_EQ(8, ByteAt(message, 0));
    EXPECT_EQ(0, ByteAt(message, 1));
    EXPECT_EQ(InternetChecksum(std::string(message).replace(2, 2, 2, '\0')), WordAt(message, 2));
    EXPECT_EQ(OwnIdentifier(), StoredAt<std::uint16_t>(message, 4));
    EXPECT_EQ(0x1234, WordAt(message, 6));
    const std::int64_t sent =
        std::int64_t{StoredAt<std::uint32_t>(message, 8)} * 1000000 + StoredAt<std::uint32_t>(message, 12);
    EXPECT_LT(StoredAt<std::uint32_t>(message, 12), 1000000u);
    EXPECT_LE(earliest, sent);
    EXPECT_LE(sent, latest);
    EXPECT_EQ(std::string(48, '\xa5'), message.substr(16));
}

TEST_F(CSocketPing, SequencesCountFromZeroAndWrap) {
    const WiredHosts net;
    const Wire wire(net);
    Pinger pinger;
    for (const unsigned int first : {0u, 65534u}) {
        if (first != 0) {
            pinger.m_usPingSequence = static_cast<std::uint16_t>(first);
        }
        for (unsigned int i = 0; i < 4; ++i) {
            ASSERT_TRUE(pinger.SendPingEchoRequest("192.0.2.2"));
            EXPECT_EQ((first + i) & 0xffff, WordAt(wire.Next().message, 6));
        }
    }
    EXPECT_EQ(2, pinger.m_usPingSequence);
}

TEST_F(CSocketPing, TheIdentifierIsRememberedAndLogged) {
    const WiredHosts net;
    Pinger pinger;
    EXPECT_EQ(0, pinger.m_iPingId);
    EXPECT_THAT(LinesOf([&] { EXPECT_TRUE(pinger.SendPingEchoRequest("192.0.2.2")); }), ElementsAre(IdentifierLine()));
    EXPECT_EQ(OwnIdentifier(), pinger.m_iPingId);
}

TEST_F(CSocketPing, ARequestThatCannotBeSentIsFalseWithoutALine) {
    const WiredHosts net;
    Pinger pinger;
    EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(pinger.SendPingEchoRequest("203.0.113.1")); }),
                ElementsAre(IdentifierLine()));
    EXPECT_EQ(1, pinger.m_usPingSequence);
    EXPECT_EQ(0, pthread_mutex_trylock(&pinger.m_SenderMutex));
    pthread_mutex_unlock(&pinger.m_SenderMutex);
}

// ---- hosts that do not resolve

TEST_F(CSocketPing, ATextThatEndsIn255IsABroadcastAddress) {
    WiredHosts net;
    net.AddAlias("wire0:1", "44.1.1.1/24");
    net.AddAlias("wire0:2", "10.9.1.1/24");
    const Wire wire(net);
    Pinger pinger;
    // As lenient as the address text: of a number the low eight bits count.
    const std::array<std::array<const char*, 2>, 3> texts = {
        {{"300.1.1.255", "44.1.1.255"}, {"300.1.1.511", "44.1.1.255"}, {"10.265.1.255", "10.9.1.255"}}};
    for (const auto& [text, address] : texts) {
        SCOPED_TRACE(text);
        bool sent = false;
        EXPECT_EQ("", OutputOf([&, host = text] { sent = pinger.SendPingEchoRequest(host); }));
        ASSERT_TRUE(sent);
        const Request request = wire.Next();
        EXPECT_EQ(address, request.destination);
        EXPECT_EQ(std::string(6, '\xff'), request.to);
        EXPECT_EQ(64u, request.message.size());
    }
}

TEST_F(CSocketPing, OtherTextsThatDoNotResolveAreToldOnStandardOutput) {
    const WiredHosts net;
    Pinger pinger;
    for (const char* const text : {"300.1.1.7", "300.1.1.254", "300.1.255.1", "no host", "", "%s%n"}) {
        SCOPED_TRACE(text);
        EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(pinger.SendPingEchoRequest(text)); }), ElementsAre(unknown_host_line));
    }
    EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(pinger.SendPingEchoRequest(nullptr)); }), ElementsAre(unknown_host_line));
    EXPECT_EQ(0, pinger.m_usPingSequence);
    EXPECT_EQ(0, pinger.m_iPingId);
    EXPECT_EQ(0, pthread_mutex_trylock(&pinger.m_SenderMutex));
    pthread_mutex_unlock(&pinger.m_SenderMutex);
    EXPECT_TRUE(pinger.SendPingEchoRequest("192.0.2.2"));
}

// The option has the size of an int: the one byte that a request sets it with changes nothing.
TEST_F(CSocketPing, WhetherEverybodyMayBePingedIsSettledWhenTheSenderIsMade) {
    WiredHosts net;
    net.AddAlias("wire0:1", "44.1.1.1/24");
    Pinger pinger;
    EXPECT_TRUE(pinger.SendPingEchoRequest("192.0.2.2"));
    EXPECT_TRUE(pinger.SendPingEchoRequest("192.0.2.255"));

    TestEndpoint multicast(CONNECTION_ICMP);
    multicast.m_bMulticastSender = true;
    ASSERT_TRUE(multicast.StartClient());
    EXPECT_FALSE(multicast.SendPingEchoRequest("300.1.1.255"));
    EXPECT_FALSE(multicast.SendPingEchoRequest("192.0.2.255"));
}

// ---- the address that requests leave from

TEST_F(CSocketPing, RequestsLeaveFromTheAddressThatTheSenderIsBoundTo) {
    WiredHosts net;
    net.AddAlias("wire0:9", "192.0.2.9/24");
    const Wire wire(net);
    Pinger pinger;
    ASSERT_TRUE(pinger.SendPingEchoRequest("192.0.2.2"));
    EXPECT_EQ("192.0.2.1", wire.Next().source);
    const std::size_t descriptors = TarnTest::CountOpenDescriptors();
    for (const char* const address : {"192.0.2.9", "192.0.2.1", "192.0.2.9"}) {
        SCOPED_TRACE(address);
        EXPECT_TRUE(pinger.BindPingSenderAddress(IPv4::IPAddress(address)));
        EXPECT_EQ(IPv4::IPAddress(address), pinger.m_PingSenderAddress);
        ASSERT_TRUE(pinger.SendPingEchoRequest("192.0.2.2"));
        EXPECT_EQ(address, wire.Next().source);
    }
    EXPECT_EQ(descriptors, TarnTest::CountOpenDescriptors());
}

TEST_F(CSocketPing, AnAddressOfAnotherHostIsToldInTheLogAndOnStandardError) {
    const WiredHosts net;
    ChildProcess child([] {
        Pinger pinger;
        const std::vector<std::string> lines =
            LinesOf([&] { EXPECT_FALSE(pinger.BindPingSenderAddress(IPv4::IPAddress("203.0.113.1"))); });
        EXPECT_THAT(lines,
                    ElementsAre("CSocket::StartClient() - creating sender socket " + std::to_string(pinger.m_socSender),
                                "CSocket::InitialiseLocalSockets sender socket failed to bind -1"));
        EXPECT_EQ(IPv4::IPAddress("203.0.113.1"), pinger.m_PingSenderAddress);
        // There is a sender all the same.
        EXPECT_TRUE(pinger.SendPingEchoRequest("192.0.2.2"));
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("bind: Cannot assign requested address\n", child.Errors());
}

// ---- the answers

TEST_F(CSocketPing, TheReplyOfAHostIsNotified) {
    const WiredHosts net;
    const LogCapture log;
    ListeningPinger pinger;
    pinger.m_usPingSequence = 513;
    ASSERT_TRUE(pinger.SendPingEchoRequest("192.0.2.2"));
    ASSERT_TRUE(Eventually([&] { return pinger.Count(Kind::echo_reply) == 1; }));
    EXPECT_TRUE(pinger.TerminateAll());

    ASSERT_THAT(pinger.Events(), SizeIs(1));
    const EndpointEvent event = pinger.Events().front();
    EXPECT_EQ("192.0.2.2", event.from);
    EXPECT_THAT(event.rtt, AllOf(Ge(0.0), Lt(30000.0)));
    std::vector<std::string> messages = log.Messages();
    const auto other = [](const std::string& message) {
        return message.compare(0, 23, "CSocket::DataReceiver -") != 0;
    };
    messages.erase(std::remove_if(messages.begin(), messages.end(), other), messages.end());
    std::array<char, 80> times{};
    std::snprintf(times.data(), times.size(), "CSocket::DataReceiver - seq = 513, ttl = 64, rtt = %.3f ms", event.rtt);
    EXPECT_THAT(messages, ElementsAre("CSocket::DataReceiver - got echo reply",
                                      "CSocket::DataReceiver - got our ICMP_ECHOREPLY from 192.0.2.2", times.data()));
}

TEST_F(CSocketPing, EveryReplyIsNotified) {
    const WiredHosts net;
    ListeningPinger pinger;
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(pinger.SendPingEchoRequest("192.0.2.2"));
    }
    EXPECT_TRUE(Eventually([&] { return pinger.Count(Kind::echo_reply) == 20; }));
}

TEST_F(CSocketPing, AReplyFollowsANotificationThatThrows) {
    const WiredHosts net;
    TestEndpoint pinger(CONNECTION_ICMP);
    pinger.on_echo_reply = [] { throw std::runtime_error("not this one"); };
    ASSERT_TRUE(pinger.InitialiseLocalSockets(0, nullptr, nullptr, 2));
    for (std::size_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(pinger.SendPingEchoRequest("192.0.2.2"));
        EXPECT_TRUE(Eventually([&] { return pinger.Count(Kind::echo_reply) == i; }));
    }
    EXPECT_TRUE(pinger.TerminateAll());
    EXPECT_EQ(0, pthread_mutex_trylock(&pinger.m_ReceiverMutex));
    pthread_mutex_unlock(&pinger.m_ReceiverMutex);
}

// Messages that come to a pinger, made up byte by byte: what is told of each, exactly.

#include <TarnSocketIO/CSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/NetworkTest.h"
#include "tests/support/Packets.h"
#include "tests/support/Random.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

using TarnSocketIO::CONNECTION_ICMP;
using TarnTest::EchoMessage;
using TarnTest::EndpointEvent;
using TarnTest::Ipv4Address;
using TarnTest::Ipv4Packet;
using TarnTest::IsReadable;
using TarnTest::LinesOf;
using TarnTest::NameOf;
using TarnTest::OpenSocket;
using TarnTest::OwnedDescriptor;
using TarnTest::Random;
using TarnTest::SendTo;
using TarnTest::Stored;
using TarnTest::TestEndpoint;
using TarnTest::WiredHosts;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Kind = EndpointEvent::Kind;

namespace {

using CSocketPingReplies = TarnTest::NetworkTest;

using Bytes = std::initializer_list<std::uint8_t>;

constexpr std::uint16_t own = 0x1234;      // identifiers as they are stored,
constexpr std::uint16_t foreign = 0x3412;  // one the other's reverse

constexpr const char* come_line = "CSocket::DataReceiver - got echo reply";
constexpr const char* not_icmp_line = "CSocket::DataReceiver - got non-IPPROTO_ICMP msg";
constexpr const char* malformed_line = "CSocket::DataReceiver - malformed echo packet?";

std::string ReplyLine(const std::string& from) {
    return "CSocket::DataReceiver - got our ICMP_ECHOREPLY from " + from;
}

std::string TimesLine(int sequence, int ttl, double rtt) {
    std::array<char, 400> line{};
    std::snprintf(line.data(), line.size(), "CSocket::DataReceiver - seq = %d, ttl = %d, rtt = %.3f ms", sequence, ttl,
                  rtt);
    return line.data();
}

std::string TypeLine(int type) {
    return "CSocket::DataReceiver - icmp type = " + std::to_string(type);
}

double MillisecondsNow() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) * 1000.0 + static_cast<double>(now.tv_usec) / 1000.0;
}

/// A time as a request carries it, and the filler behind it.
std::string SentAt(std::uint32_t seconds, std::uint32_t microseconds) {
    return Stored(seconds) + Stored(microseconds) + std::string(48, '\xa5');
}

/// A pinger with a raw receiver, no thread, and an identifier as if it had sent a request.
class Pinger : public TestEndpoint {
public:
    Pinger() : TestEndpoint(CONNECTION_ICMP) {
        InitialiseReceiver();
        m_iPingId = own;
    }
    ~Pinger() override { TerminateAll(); }

    /// What is written during the pass that reads the message which has come.
    std::vector<std::string> LinesOfAPass() {
        EXPECT_TRUE(IsReadable(m_socReceiver));
        return LinesOf([this] { DataReceiver(0); });
    }
};

/// A pinger whose receiver is a datagram socket under the same number: what it is fed is what it reads, even if no
/// kernel would let it come so far.
class FedPinger : public Pinger {
public:
    FedPinger() : m_feeder(OpenSocket(AF_INET, SOCK_DGRAM, 0)) {
        const OwnedDescriptor fed = OpenSocket(AF_INET, SOCK_DGRAM, 0);
        Bind(fed, Ipv4Address("127.0.0.1"));
        m_address = NameOf(fed.Number());
        ReplaceReceiver(fed);
    }
    ~FedPinger() override { TerminateAll(); }

    void ReplaceReceiver(const OwnedDescriptor& other) const {
        if (dup2(other.Number(), m_socReceiver) == -1) {
            throw std::system_error(errno, std::generic_category(), "dup2");
        }
    }

    /// What is written when it reads this packet.
    std::vector<std::string> Read(const std::string& packet) {
        SendTo(m_feeder, m_address, packet);
        return LinesOfAPass();
    }

private:
    const OwnedDescriptor m_feeder;
    sockaddr_in m_address{};
};

std::string ReplyPacket(const std::string& message, std::uint8_t ttl = 64, const std::string& options = "") {
    return Ipv4Packet("192.0.2.2", "192.0.2.1", message, IPPROTO_ICMP, ttl, options);
}

}  // namespace

// ---- over the wire

TEST_F(CSocketPingReplies, TheWireBringsOnlyOurRepliesToANotification) {
    const WiredHosts net;
    const OwnedDescriptor raw = net.FromPeer([] { return OpenSocket(AF_INET, SOCK_RAW, IPPROTO_RAW); });
    Pinger pinger;
    const auto read = [&](const std::string& message, const std::string& options = "") {
        SendTo(raw, Ipv4Address("192.0.2.1"), Ipv4Packet("192.0.2.2", "192.0.2.1", message, IPPROTO_ICMP, 77, options));
        return pinger.LinesOfAPass();
    };
    EXPECT_THAT(read(EchoMessage(ICMP_ECHOREPLY, foreign, 1, SentAt(0, 0))),
                ElementsAre(come_line, "CSocket::DataReceiver - not our echo request (got 13330 is 4660)"));
    for (const std::uint8_t type : Bytes{ICMP_DEST_UNREACH, ICMP_ECHO, ICMP_TIME_EXCEEDED, 255}) {
        EXPECT_THAT(read(EchoMessage(type, own, 1, SentAt(0, 0))), ElementsAre(come_line, TypeLine(type)));
    }
    EXPECT_THAT(pinger.Events(), IsEmpty());

    const std::string no_operation(40, '\x01');
    for (const std::string& options : {std::string(), no_operation.substr(0, 4), no_operation}) {
        SCOPED_TRACE(options.size());
        const std::vector<std::string> lines = read(EchoMessage(ICMP_ECHOREPLY, own, 0xfffe, SentAt(0, 0)), options);
        ASSERT_FALSE(pinger.Events().empty());
        EXPECT_THAT(lines,
                    ElementsAre(come_line, ReplyLine("192.0.2.2"), TimesLine(0xfffe, 77, pinger.Events().back().rtt)));
        EXPECT_EQ("192.0.2.2", pinger.Events().back().from);
    }
    EXPECT_THAT(pinger.Events(), SizeIs(3));
}

TEST_F(CSocketPingReplies, NothingIsNothing) {
    const WiredHosts net;
    Pinger pinger;
    pinger.m_iPollTimeout = -1;  // not this one's
    EXPECT_THAT(LinesOf([&] { pinger.DataReceiver(0); }), IsEmpty());
    EXPECT_THAT(pinger.Events(), IsEmpty());
}

// ---- what a kernel lets come, and what it would not

TEST_F(CSocketPingReplies, SequenceAndTtlAreThoseOfTheReply) {
    const WiredHosts net;
    FedPinger pinger;
    const std::array<std::array<int, 2>, 4> pairs = {{{0, 0}, {1, 255}, {256, 1}, {65535, 128}}};
    for (const auto& [sequence, ttl] : pairs) {
        const std::vector<std::string> lines = pinger.Read(
            ReplyPacket(EchoMessage(ICMP_ECHOREPLY, own, static_cast<std::uint16_t>(sequence), SentAt(1, 2)),
                        static_cast<std::uint8_t>(ttl)));
        ASSERT_FALSE(pinger.Events().empty());
        EXPECT_THAT(lines, ElementsAre(come_line, ReplyLine("127.0.0.1"),
                                       TimesLine(sequence, ttl, pinger.Events().back().rtt)));
    }
    EXPECT_THAT(pinger.Events(), SizeIs(pairs.size()));
}

TEST_F(CSocketPingReplies, TheTimeIsFromTheRequestToTheReading) {
    const WiredHosts net;
    FedPinger pinger;
    const double now = MillisecondsNow();
    const auto second = static_cast<std::uint32_t>(now / 1000.0);
    for (const std::uint32_t seconds_ago : {0u, 1u, 2u, 3600u}) {
        for (const std::uint32_t microseconds : {0u, 1u, 500000u, 999999u}) {
            SCOPED_TRACE(std::to_string(seconds_ago) + " " + std::to_string(microseconds));
            const double sent = (second - seconds_ago) * 1000.0 + microseconds / 1000.0;
            const double earliest = MillisecondsNow();
            pinger.Read(ReplyPacket(EchoMessage(ICMP_ECHOREPLY, own, 1, SentAt(second - seconds_ago, microseconds))));
            const double latest = MillisecondsNow();
            ASSERT_FALSE(pinger.Events().empty());
            // A thousandth of the smallest step is lost in sums of this size.
            EXPECT_GE(pinger.Events().back().rtt, earliest - sent - 0.001);
            EXPECT_LE(pinger.Events().back().rtt, latest - sent + 0.001);
        }
    }
}

TEST_F(CSocketPingReplies, AReplyWithoutATimeWasSentWhenTimeBegan) {
    const WiredHosts net;
    FedPinger pinger;
    // The packet before must have left nothing behind.
    pinger.Read(ReplyPacket(EchoMessage(ICMP_ECHOREPLY, own, 1, SentAt(0x10000000, 400000))));
    for (const std::string& data : {std::string(), Stored(std::uint32_t{1000000000})}) {
        SCOPED_TRACE(data.size());
        const double sent = data.empty() ? 0 : 1000000000 * 1000.0;
        const double earliest = MillisecondsNow();
        const std::vector<std::string> lines = pinger.Read(ReplyPacket(EchoMessage(ICMP_ECHOREPLY, own, 7, data)));
        const double latest = MillisecondsNow();
        const double rtt = pinger.Events().back().rtt;
        EXPECT_THAT(lines, ElementsAre(come_line, ReplyLine("127.0.0.1"), TimesLine(7, 64, rtt)));
        EXPECT_GE(rtt, earliest - sent - 0.001);
        EXPECT_LE(rtt, latest - sent + 0.001);
    }
    EXPECT_THAT(pinger.Events(), SizeIs(3));
}

TEST_F(CSocketPingReplies, AnyTimeIsTakenAsItIs) {
    const WiredHosts net;
    FedPinger pinger;
    for (const std::uint32_t seconds : {0u, 1u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        for (const std::uint32_t microseconds : {0u, 1000000u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
            SCOPED_TRACE(std::to_string(seconds) + " " + std::to_string(microseconds));
            const std::size_t before = pinger.Events().size();
            const std::vector<std::string> lines =
                pinger.Read(ReplyPacket(EchoMessage(ICMP_ECHOREPLY, own, 1, SentAt(seconds, microseconds))));
            ASSERT_EQ(before + 1, pinger.Events().size());
            const double rtt = pinger.Events().back().rtt;
            EXPECT_TRUE(std::isfinite(rtt));
            EXPECT_LT(std::fabs(rtt), 1e13);
            EXPECT_THAT(lines, ElementsAre(come_line, ReplyLine("127.0.0.1"), TimesLine(1, 64, rtt)));
        }
    }
}

TEST_F(CSocketPingReplies, FewerThanEightBytesAreMalformed) {
    const WiredHosts net;
    FedPinger pinger;
    const std::string message = EchoMessage(ICMP_ECHOREPLY, own, 1, SentAt(1, 1));
    for (std::size_t length = 0; length < 8; ++length) {
        SCOPED_TRACE(length);
        EXPECT_THAT(pinger.Read(ReplyPacket(message.substr(0, length))), ElementsAre(come_line, malformed_line));
        EXPECT_THAT(pinger.Read(ReplyPacket(message.substr(0, length), 64, std::string(40, '\x01'))),
                    ElementsAre(come_line, malformed_line));
    }
    EXPECT_THAT(pinger.Events(), IsEmpty());
    EXPECT_THAT(pinger.Read(ReplyPacket(message.substr(0, 8))), SizeIs(3));
    EXPECT_THAT(pinger.Events(), SizeIs(1));
}

TEST_F(CSocketPingReplies, AHeaderThatEndsBehindThePacketIsMalformed) {
    const WiredHosts net;
    FedPinger pinger;
    std::string packet = ReplyPacket(EchoMessage(ICMP_ECHOREPLY, own, 1, "12345678"));
    for (const char header : {'\x4f', '\xff', '\x4c', '\x48'}) {  // 60, 60, 48 and 32 bytes of the 36
        packet[0] = header;
        EXPECT_THAT(pinger.Read(packet), ElementsAre(come_line, malformed_line));
    }
    EXPECT_THAT(pinger.Events(), IsEmpty());
}

TEST_F(CSocketPingReplies, AHeaderMayClaimToBeShorterThanItIs) {
    const WiredHosts net;
    FedPinger pinger;
    std::string packet = ReplyPacket(EchoMessage(ICMP_ECHOREPLY, own, 1, SentAt(1, 1)));
    packet[0] = '\x40';  // the first byte is header and type in one
    EXPECT_THAT(pinger.Read(packet), ElementsAre(come_line, TypeLine(0x40)));
    packet[0] = '\x43';  // the source address begins where the message would
    EXPECT_THAT(pinger.Read(packet), ElementsAre(come_line, TypeLine(192)));
    EXPECT_THAT(pinger.Events(), IsEmpty());
}

TEST_F(CSocketPingReplies, WhatIsNotIcmpIsToldOnStandardOutput) {
    const WiredHosts net;
    FedPinger pinger;
    const std::string message = EchoMessage(ICMP_ECHOREPLY, own, 1, SentAt(1, 1));
    for (const std::uint8_t protocol : Bytes{0, 2, IPPROTO_UDP, 255}) {
        EXPECT_THAT(pinger.Read(Ipv4Packet("192.0.2.2", "192.0.2.1", message, protocol)),
                    ElementsAre(come_line, not_icmp_line));
    }
    // What ends before the protocol has none.
    EXPECT_THAT(pinger.Read("\x45"), ElementsAre(come_line, not_icmp_line));
    EXPECT_THAT(pinger.Read(ReplyPacket(message).substr(0, 9)), ElementsAre(come_line, not_icmp_line));
    EXPECT_THAT(pinger.Read(ReplyPacket(message).substr(0, 10)), ElementsAre(come_line, malformed_line));
    EXPECT_THAT(pinger.Events(), IsEmpty());
}

TEST_F(CSocketPingReplies, EveryOtherTypeIsToldOnStandardOutput) {
    const WiredHosts net;
    FedPinger pinger;
    for (int type = 1; type < 256; ++type) {
        EXPECT_THAT(pinger.Read(ReplyPacket(EchoMessage(static_cast<std::uint8_t>(type), own, 1))),
                    ElementsAre(come_line, TypeLine(type)));
    }
    EXPECT_THAT(pinger.Events(), IsEmpty());
}

TEST_F(CSocketPingReplies, AForeignIdentifierIsToldInTheLog) {
    const WiredHosts net;
    FedPinger pinger;
    const auto line = [](int received, int expected) {
        return "CSocket::DataReceiver - not our echo request (got " + std::to_string(received) + " is " +
               std::to_string(expected) + ")";
    };
    for (const std::uint16_t identifier : std::initializer_list<std::uint16_t>{0, 0xffff, 0x1235, 0x3412}) {
        EXPECT_THAT(pinger.Read(ReplyPacket(EchoMessage(ICMP_ECHOREPLY, identifier, 1, SentAt(1, 1)))),
                    ElementsAre(come_line, line(identifier, own)));
    }
    EXPECT_THAT(pinger.Events(), IsEmpty());
    // The identifiers of some processes have their highest bit set.
    pinger.m_iPingId = 0xfffe;
    EXPECT_THAT(pinger.Read(ReplyPacket(EchoMessage(ICMP_ECHOREPLY, own, 1))),
                ElementsAre(come_line, line(own, 0xfffe)));
    pinger.Read(ReplyPacket(EchoMessage(ICMP_ECHOREPLY, 0xfffe, 1)));
    EXPECT_THAT(pinger.Events(), SizeIs(1));
}

TEST_F(CSocketPingReplies, OnePassReadsOneMessage) {
    const WiredHosts net;
    FedPinger pinger;
    pinger.m_iReceivesPerPass = 0;
    const OwnedDescriptor feeder = OpenSocket(AF_INET, SOCK_DGRAM, 0);
    const std::string packet = ReplyPacket(EchoMessage(ICMP_ECHOREPLY, own, 1));
    SendTo(feeder, NameOf(pinger.m_socReceiver), packet);
    SendTo(feeder, NameOf(pinger.m_socReceiver), packet);
    EXPECT_THAT(pinger.LinesOfAPass(), SizeIs(3));
    EXPECT_THAT(pinger.Events(), SizeIs(1));
    EXPECT_THAT(pinger.LinesOfAPass(), SizeIs(3));
    EXPECT_THAT(pinger.Events(), SizeIs(2));
}

TEST_F(CSocketPingReplies, AnEmptyReadEndsThePassAndAFailedOneIsNoIcmp) {
    const WiredHosts net;
    FedPinger pinger;
    EXPECT_THAT(pinger.Read(""), IsEmpty());

    // A socket with a datagram in it, and the error of one that nobody took: the error is read first.
    const OwnedDescriptor refused = OpenSocket(AF_INET, SOCK_DGRAM, 0);
    Bind(refused, Ipv4Address("127.0.0.1"));
    {
        const OwnedDescriptor closed_soon = OpenSocket(AF_INET, SOCK_DGRAM, 0);
        Bind(closed_soon, Ipv4Address("127.0.0.1"));
        const sockaddr_in nobody = NameOf(closed_soon.Number());
        ASSERT_EQ(0, connect(refused.Number(), reinterpret_cast<const sockaddr*>(&nobody), sizeof nobody));
        SendTo(closed_soon, NameOf(refused.Number()), ReplyPacket(EchoMessage(ICMP_ECHOREPLY, foreign, 1)));
    }
    ASSERT_EQ(1, send(refused.Number(), "?", 1, 0));
    pinger.ReplaceReceiver(refused);
    EXPECT_THAT(pinger.LinesOfAPass(), ElementsAre(come_line, not_icmp_line));
    EXPECT_THAT(pinger.LinesOfAPass(),
                ElementsAre(come_line, "CSocket::DataReceiver - not our echo request (got 13330 is 4660)"));
    EXPECT_THAT(pinger.Events(), IsEmpty());
}

TEST_F(CSocketPingReplies, AnyBytesAreSurvived) {
    const WiredHosts net;
    FedPinger pinger;
    Random random(792);
    for (int i = 0; i < 2000; ++i) {
        std::string packet(1 + random.Below(120), '\0');
        for (char& one : packet) {
            one = static_cast<char>(random.Below(256));
        }
        if (packet.size() > 9 && i % 2 == 0) {
            packet[9] = IPPROTO_ICMP;
        }
        const std::vector<std::string> lines = pinger.Read(packet);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(come_line, lines.front());
    }
}

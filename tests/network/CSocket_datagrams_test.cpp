// Datagrams and connections between two hosts.

#include <TarnSocketIO/CSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>

#include "tests/support/ChildProcess.h"
#include "tests/support/ConnectionServer.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Eventually.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/Packets.h"
#include "tests/support/TestEndpoint.h"

using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::Bind;
using TarnTest::ByteAt;
using TarnTest::ChildProcess;
using TarnTest::ConnectionServer;
using TarnTest::EndpointEvent;
using TarnTest::Eventually;
using TarnTest::FrameSocket;
using TarnTest::Ipv4Address;
using TarnTest::NameOf;
using TarnTest::OpenSocket;
using TarnTest::OutputOf;
using TarnTest::OwnedDescriptor;
using TarnTest::Receive;
using TarnTest::SendDatagram;
using TarnTest::TestEndpoint;
using TarnTest::TextOf;
using TarnTest::WiredHosts;
using testing::ElementsAre;
using testing::IsEmpty;

using Kind = EndpointEvent::Kind;

namespace {

using CSocketDatagrams = TarnTest::NetworkTest;

constexpr const char* group = "239.192.1.2";

bool IsLater(const timeval& time, const timeval& other) {
    return std::tie(time.tv_sec, time.tv_usec) > std::tie(other.tv_sec, other.tv_usec);
}

timeval Now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

/// A datagram socket of the calling thread's network on a port that the kernel chooses.
OwnedDescriptor AnyPort(const char* ip = "0.0.0.0") {
    OwnedDescriptor fd = OpenSocket(AF_INET, SOCK_DGRAM, 0);
    Bind(fd, Ipv4Address(ip));
    return fd;
}

/// The frames with a UDP datagram of this text.
auto Carries(const std::string& text) {
    return [text](const std::string& frame) {
        return frame.size() >= 42 && ByteAt(frame, 23) == IPPROTO_UDP && frame.compare(42, text.size(), text) == 0;
    };
}

/// The sender's address in a frame.
std::string SourceOf(const std::string& frame) {
    return frame.size() < 34 ? "" : TextOf(in_addr{TarnTest::StoredAt<in_addr_t>(frame, 26)});
}

/// A socket of the peer that everything which is sent to a port arrives at, that to everybody included.
struct PeersSocket {
    explicit PeersSocket(const WiredHosts& net)
        : fd(net.FromPeer([] { return AnyPort(); })), port(TarnTest::PortOf(fd.Number())) {}

    OwnedDescriptor fd;
    std::uint16_t port;
};

void SendToEverybody(std::uint16_t port, const std::string& data, const char* to) {
    const OwnedDescriptor fd = OpenSocket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    setsockopt(fd.Number(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    TarnTest::SendTo(fd, Ipv4Address(to, port), data);
}

}  // namespace

// ---- receiving

TEST_F(CSocketDatagrams, ComeWithTheAddressOfTheirSender) {
    const WiredHosts net;
    for (const auto type : {CONNECTION_UDP, CONNECTION_DATAGRAM}) {
        SCOPED_TRACE(type);
        TestEndpoint endpoint(type);
        endpoint.m_bReportSource = true;
        ASSERT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, nullptr, 1));
        net.InPeer([&] { SendDatagram(endpoint.ReceiverPort(), "from afar", "192.0.2.1"); });
        ASSERT_TRUE(Eventually([&] { return !endpoint.Events().empty(); }));
        const EndpointEvent event = endpoint.Events().front();
        EXPECT_EQ(Kind::received_from, event.kind);
        EXPECT_EQ("from afar", event.data);
        EXPECT_EQ("192.0.2.2", event.from);
        endpoint.TerminateAll();
    }
}

TEST_F(CSocketDatagrams, ComeWithTheTimeOfTheirReading) {
    const WiredHosts net;
    TestEndpoint endpoint(CONNECTION_UDP, false, true);
    ASSERT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, nullptr, 1));
    for (const bool with_source : {false, true}) {
        SCOPED_TRACE(with_source);
        endpoint.m_bReportSource = with_source;
        const std::size_t before = endpoint.Events().size();
        const timeval earliest = Now();
        net.InPeer([&] { SendDatagram(endpoint.ReceiverPort(), "in time", "192.0.2.1"); });
        ASSERT_TRUE(Eventually([&] { return endpoint.Events().size() > before; }));
        const timeval latest = Now();
        const EndpointEvent event = endpoint.Events().back();
        EXPECT_EQ(Kind::received_stamped, event.kind);
        EXPECT_EQ("in time", event.data);
        EXPECT_FALSE(IsLater(earliest, event.time));
        EXPECT_FALSE(IsLater(event.time, latest));
    }
}

TEST_F(CSocketDatagrams, AReceiverOnAnyAddressGetsBroadcasts) {
    const WiredHosts net;
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, nullptr, 1));
    net.InPeer([&] { SendToEverybody(endpoint.ReceiverPort(), "to everybody", "192.0.2.255"); });
    EXPECT_TRUE(Eventually([&] { return !endpoint.Events().empty(); }));
    EXPECT_THAT(endpoint.Received(), ElementsAre("to everybody"));
}

TEST_F(CSocketDatagrams, AReceiverOnALocalAddressGetsNeitherBroadcastsNorMulticasts) {
    const WiredHosts net;
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.InitialiseLocalSockets(0, group, "192.0.2.1", 1));
    EXPECT_EQ("192.0.2.1", TextOf(NameOf(endpoint.m_socReceiver).sin_addr));
    // It is on the wire, the host takes it, and this one has not got it.
    const OwnedDescriptor anybody = OpenSocket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    ASSERT_EQ(0, setsockopt(anybody.Number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on));
    Bind(anybody, Ipv4Address("0.0.0.0", endpoint.ReceiverPort()));
    net.InPeer([&] { SendToEverybody(endpoint.ReceiverPort(), "to everybody", "192.0.2.255"); });
    EXPECT_EQ("to everybody", Receive(anybody));
    net.InPeer([&] { SendToEverybody(endpoint.ReceiverPort(), "to the group", group); });
    EXPECT_EQ("to the group", Receive(anybody));
    net.InPeer([&] { SendDatagram(endpoint.ReceiverPort(), "to this address", "192.0.2.1"); });
    EXPECT_TRUE(Eventually([&] { return !endpoint.Events().empty(); }));
    EXPECT_THAT(endpoint.Received(), ElementsAre("to this address"));
}

// ---- sending

TEST_F(CSocketDatagrams, ASenderMaySendToEverybody) {
    const WiredHosts net;
    const PeersSocket peer(net);
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    EXPECT_EQ("", OutputOf([&] { EXPECT_TRUE(endpoint.Send("192.0.2.255", peer.port, "to all", 6)); }));
    EXPECT_EQ("to all", Receive(peer.fd));
}

TEST_F(CSocketDatagrams, AMulticastSenderMayNotSendToEverybody) {
    const WiredHosts net;
    TestEndpoint endpoint(CONNECTION_UDP);
    endpoint.m_bMulticastSender = true;
    ASSERT_TRUE(endpoint.StartClient());
    EXPECT_EQ("sendto (192.0.2.255) failed with errno = 13 (Permission denied)\n",
              OutputOf([&] { EXPECT_FALSE(endpoint.Send("192.0.2.255", 9, "to all", 6)); }));
}

TEST_F(CSocketDatagrams, ASelectedInterfaceCarriesWhatTheRouteWouldNotGiveIt) {
    const WiredHosts net(2);
    const auto wire0 = net.FromPeer([] { return std::make_unique<FrameSocket>("wire0", ETHERTYPE_IP); });
    const auto wire1 = net.FromPeer([] { return std::make_unique<FrameSocket>("wire1", ETHERTYPE_IP); });
    TestEndpoint endpoint(CONNECTION_UDP);
    ASSERT_TRUE(endpoint.StartClient());
    std::string device = "wire1";
    endpoint.SelectInterface(device.data());
    ASSERT_TRUE(endpoint.Send(group, 4000, "selected", 8));
    const std::string any;
    device = any;
    endpoint.SelectInterface(device.data());
    ASSERT_TRUE(endpoint.Send(group, 4000, "not selected", 12));

    EXPECT_NE("", wire1->Await(Carries("selected")));
    std::string first_on_wire0 =
        wire0->Await([](const std::string& frame) { return ByteAt(frame, 23) == IPPROTO_UDP; });
    EXPECT_TRUE(Carries("not selected")(first_on_wire0)) << first_on_wire0;
}

TEST_F(CSocketDatagrams, AnUnknownInterfaceIsToldOnStandardError) {
    const WiredHosts net;
    ChildProcess child([] {
        TestEndpoint endpoint(CONNECTION_UDP);
        ASSERT_TRUE(endpoint.StartClient());
        std::string device = "wire9";
        endpoint.SelectInterface(device.data());
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("selectinterface: : No such device\n", child.Errors());
}

TEST_F(CSocketDatagrams, ASenderIsBoundToTheLocalInterface) {
    WiredHosts net;
    net.AddAlias("wire0:9", "192.0.2.9/24");
    const PeersSocket peer(net);
    for (const char* const local : {"192.0.2.9", "192.0.2.1"}) {
        SCOPED_TRACE(local);
        TestEndpoint endpoint(CONNECTION_UDP);
        ASSERT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, local, 0));
        ASSERT_TRUE(endpoint.Send("192.0.2.2", peer.port, local, 9));
        sockaddr_in from{};
        EXPECT_EQ(local, Receive(peer.fd, &from));
        EXPECT_EQ(local, TextOf(from.sin_addr));
    }
}

TEST_F(CSocketDatagrams, TheLocalInterfaceChoosesTheWireOfAMulticastSender) {
    const WiredHosts net(2);
    const sockaddr_in local = Ipv4Address("198.51.100.1");
    if (setsockopt(AnyPort().Number(), IPPROTO_IP, IP_MULTICAST_IF, &local, sizeof local) != 0) {
        GTEST_SKIP() << "the emulator does not choose the interface of multicasts";
    }
    const auto wire0 = net.FromPeer([] { return std::make_unique<FrameSocket>("wire0", ETHERTYPE_IP); });
    const auto wire1 = net.FromPeer([] { return std::make_unique<FrameSocket>("wire1", ETHERTYPE_IP); });
    TestEndpoint endpoint(CONNECTION_UDP, true);
    endpoint.m_bMulticastSender = true;
    ASSERT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, "198.51.100.1", 0));
    EXPECT_EQ("0.0.0.0", TextOf(NameOf(endpoint.m_socSender).sin_addr)) << "bound";
    ASSERT_TRUE(endpoint.Send(group, 4000, "over wire1", 10));
    EXPECT_EQ("198.51.100.1", SourceOf(wire1->Await(Carries("over wire1"))));

    TestEndpoint other(CONNECTION_UDP, true);
    other.m_bMulticastSender = true;
    ASSERT_TRUE(other.InitialiseLocalSockets(0, nullptr, nullptr, 0));
    ASSERT_TRUE(other.Send(group, 4000, "over wire0", 10));
    const std::string first = wire0->Await([](const std::string& frame) { return ByteAt(frame, 23) == IPPROTO_UDP; });
    EXPECT_TRUE(Carries("over wire0")(first)) << first;
    EXPECT_EQ("192.0.2.1", SourceOf(first));
}

// ---- streams

TEST_F(CSocketDatagrams, AStreamClientAndAServerTalkAcrossTheWire) {
    const WiredHosts net;
    ConnectionServer server;
    ASSERT_TRUE(server.InitialiseLocalSockets(0, nullptr, nullptr, 1));
    server.on_connected = [&](int connection) { EXPECT_TRUE(server.Send(connection, "welcome", 7)); };
    net.InPeer([&] {
        TestEndpoint client(CONNECTION_STREAM);
        client.m_iPollTimeout = 30000;
        ASSERT_TRUE(client.Connect("192.0.2.1", server.Port()));
        EXPECT_EQ(1u, client.Count(Kind::connected));
        std::string reply(7, '\0');
        long received = 0;
        EXPECT_TRUE(client.ReceiveDataSensibly(reply.data(), 7, nullptr, received, true));
        EXPECT_EQ("welcome", reply);
        ASSERT_TRUE(client.Send("hello", 5));
        // Closing throws away what is still on its way.
        EXPECT_TRUE(Eventually([&] { return !server.Open().empty(); }));
        EXPECT_TRUE(Eventually([&] { return server.NotificationCounts().connected == 1; }));
        EXPECT_EQ(0, shutdown(client.m_socSender, SHUT_WR));
        EXPECT_TRUE(Eventually([&] { return server.NotificationCounts().terminated == 1; }));
        EXPECT_TRUE(client.Disconnect());
    });
    EXPECT_THAT(server.Conversations(), ElementsAre("hello"));
}

TEST_F(CSocketDatagrams, NobodyListensAcrossTheWire) {
    const WiredHosts net;
    TestEndpoint client(CONNECTION_STREAM);
    EXPECT_FALSE(client.Connect("192.0.2.2", 9));
    EXPECT_THAT(client.Events(), IsEmpty());
}

// A receiver of link-layer frames.

#include <TarnSocketIO/CSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/Eventually.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/Packets.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

using TarnSocketIO::CONNECTION_PACKET;
using TarnTest::EndpointEvent;
using TarnTest::EthernetFrame;
using TarnTest::Eventually;
using TarnTest::FrameSocket;
using TarnTest::Ipv4Packet;
using TarnTest::IsAsleep;
using TarnTest::IsReadable;
using TarnTest::LinesOf;
using TarnTest::Pattern;
using TarnTest::TestEndpoint;
using TarnTest::ThisThread;
using TarnTest::WiredHosts;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Kind = EndpointEvent::Kind;

namespace {

using CSocketFrames = TarnTest::NetworkTest;

/// A frame with a packet that no host takes, so that nobody answers.
std::string Frame(const std::string& payload) {
    return EthernetFrame(ETHERTYPE_IP, Ipv4Packet("192.0.2.2", "203.0.113.9", payload, 253));
}

/// The peer's end of a wire.
class Wire {
public:
    explicit Wire(const WiredHosts& net, const std::string& name = "wire0")
        : m_frames(net.FromPeer([&] { return std::make_unique<FrameSocket>(name, ETHERTYPE_ARP); })) {}

    void Send(const std::string& frame) const { m_frames->Send(frame); }

private:
    const std::unique_ptr<FrameSocket> m_frames;
};

/// With a receiver and no threads.
class FrameReceiver : public TestEndpoint {
public:
    explicit FrameReceiver(bool timestamp = false) : TestEndpoint(CONNECTION_PACKET, false, timestamp) {
        InitialiseReceiver();
    }
    ~FrameReceiver() override { TerminateAll(); }

    /// The frame that comes next.
    EndpointEvent Next() {
        EXPECT_TRUE(IsReadable(m_socReceiver));
        DataReceiver(0);
        const std::vector<EndpointEvent> events = Events();
        return events.empty() ? EndpointEvent{} : events.back();
    }
};

}  // namespace

TEST_F(CSocketFrames, WholeFramesAreDeliveredWithTheirEthernetHeader) {
    const WiredHosts net;
    const Wire wire(net);
    FrameReceiver receiver;
    const std::string frame = Frame(TarnTest::Pattern(300));
    wire.Send(frame);
    const EndpointEvent event = receiver.Next();
    EXPECT_EQ(Kind::received, event.kind);
    EXPECT_TRUE(frame == event.data) << event.data.size() << " bytes";
    EXPECT_TRUE(event.is_terminated);
    EXPECT_THAT(receiver.Events(), SizeIs(1));
}

TEST_F(CSocketFrames, AreReceivedFromAllInterfaces) {
    const WiredHosts net(2);
    FrameReceiver receiver;
    for (const char* const name : {"wire0", "wire1"}) {
        Wire(net, name).Send(Frame(name));
        EXPECT_EQ(Frame(name), receiver.Next().data);
    }
    const FrameSocket loop("lo", ETHERTYPE_ARP);
    loop.Send(Frame("lo"));
    EXPECT_EQ(Frame("lo"), receiver.Next().data);
}

TEST_F(CSocketFrames, ThoseToOtherHostsAreReceivedToo) {
    const WiredHosts net;
    const Wire wire(net);
    FrameReceiver receiver;
    const std::string frame = Frame("for another").replace(0, 6, "\x02\x00\x5e\x00\x53\x77", 6);
    wire.Send(frame);
    EXPECT_EQ(frame, receiver.Next().data);
}

TEST_F(CSocketFrames, HaveNoSourceAddress) {
    const WiredHosts net;
    const Wire wire(net);
    for (const bool timestamp : {false, true}) {
        FrameReceiver receiver(timestamp);
        receiver.m_bReportSource = true;
        wire.Send(Frame("whose?"));
        const EndpointEvent event = receiver.Next();
        EXPECT_EQ(timestamp ? Kind::received_stamped : Kind::received, event.kind);
        EXPECT_EQ("", event.from);
        EXPECT_EQ(Frame("whose?"), event.data);
    }
}

TEST_F(CSocketFrames, OfOtherProtocolsDoNotCome) {
    const WiredHosts net;
    const Wire wire(net);
    FrameReceiver receiver;
    for (const std::uint16_t protocol : std::initializer_list<std::uint16_t>{ETHERTYPE_ARP, ETHERTYPE_IPV6, 0x88b5}) {
        wire.Send(EthernetFrame(protocol, std::string(46, '\0')));
    }
    wire.Send(Frame("the only one"));
    EXPECT_EQ(Frame("the only one"), receiver.Next().data);
    EXPECT_THAT(receiver.Events(), SizeIs(1));
}

TEST_F(CSocketFrames, UpToTheLargestAreWhole) {
    const WiredHosts net;
    const Wire wire(net);
    FrameReceiver receiver;
    for (const std::size_t mtu : {1500u, 9000u, 65535u}) {
        SCOPED_TRACE(mtu);
        const std::string command = "ip link set wire0 mtu " + std::to_string(mtu);
        net.Run(command);
        net.InPeer([&] { net.Run(command); });
        const std::string frame = Frame(Pattern(mtu - 20));
        ASSERT_EQ(mtu + 14, frame.size());
        wire.Send(frame);
        const EndpointEvent event = receiver.Next();
        EXPECT_TRUE(frame == event.data) << event.data.size() << " bytes";
        EXPECT_TRUE(event.is_terminated);
    }
}

TEST_F(CSocketFrames, ABurstIsDelivered) {
    const WiredHosts net;
    const Wire wire(net);
    FrameReceiver receiver;
    const std::string rest = Pattern(1000);
    std::set<std::string> frames;
    for (int i = 0; i < 40; ++i) {
        const std::string frame = Frame(std::to_string(i) + rest);
        frames.insert(frame);
        wire.Send(frame);
    }
    receiver.m_iReceivesPerPass = 0;
    EXPECT_TRUE(Eventually([&] {
        receiver.DataReceiver(0);
        return receiver.Events().size() >= frames.size();
    }));
    const std::vector<std::string> received = receiver.Received();
    EXPECT_EQ(40u, received.size());
    EXPECT_TRUE(std::set<std::string>(received.begin(), received.end()) == frames);
}

TEST_F(CSocketFrames, TheReceiverIsMadeWithoutAPortOrAGroup) {
    const WiredHosts net;
    TestEndpoint receiver(CONNECTION_PACKET);
    const std::vector<std::string> lines = LinesOf([&] { EXPECT_TRUE(receiver.InitialiseReceiver()); });
    const std::string number = std::to_string(receiver.m_socReceiver);
    EXPECT_THAT(lines,
                ElementsAre("initialised receiver: m_socReceiver " + number,
                            "CSocket::InitialiseReceiver - creating receiver socket " + number + ", port 0 if "));
    int type = 0;
    socklen_t length = sizeof type;
    ASSERT_EQ(0, getsockopt(receiver.m_socReceiver, SOL_SOCKET, SO_TYPE, &type, &length));
    EXPECT_EQ(SOCK_RAW, type);
    sockaddr_ll address{};
    length = sizeof address;
    ASSERT_EQ(0, getsockname(receiver.m_socReceiver, reinterpret_cast<sockaddr*>(&address), &length));
    EXPECT_EQ(AF_PACKET, address.sll_family);
    EXPECT_EQ(htons(ETHERTYPE_IP), address.sll_protocol);
    EXPECT_EQ(0, address.sll_ifindex);
}

// A link-layer socket cannot be shut down: what ends a wait is something else.
TEST_F(CSocketFrames, AWaitWithoutEndEndsWithTheReceiver) {
    const WiredHosts net;
    const Wire wire(net);
    const std::size_t threads = TarnTest::CountThreads();
    for (const int count : {1, 3}) {
        SCOPED_TRACE(count);
        std::atomic<pid_t> receiving(0);
        TestEndpoint receiver(CONNECTION_PACKET);
        receiver.on_received = [&](char*, long) { receiving = ThisThread(); };
        receiver.m_iPollTimeout = -1;
        ASSERT_TRUE(receiver.InitialiseLocalSockets(0, nullptr, nullptr, count));
        wire.Send(Frame("before the wait"));
        ASSERT_TRUE(Eventually([&] { return receiver.Count(Kind::received) == 1; }));
        // In the next pass, which nothing but a frame would end.
        ASSERT_TRUE(Eventually([&] {
            if (pthread_mutex_trylock(&receiver.m_ReceiverMutex) == 0) {
                pthread_mutex_unlock(&receiver.m_ReceiverMutex);
                return false;
            }
            return count > 1 || IsAsleep(receiving);
        }));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(receiver.TerminateAll());
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8));
        EXPECT_TRUE(Eventually([&] { return TarnTest::CountThreads() <= threads; }));
        EXPECT_EQ(1u, receiver.Events().size());
    }
}

TEST_F(CSocketFrames, NothingIsDeliveredWhenNothingComes) {
    const WiredHosts net;
    FrameReceiver receiver;
    EXPECT_THAT(LinesOf([&] { receiver.DataReceiver(0); }), IsEmpty());
    EXPECT_THAT(receiver.Events(), IsEmpty());
}

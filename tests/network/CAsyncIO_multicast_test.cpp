// Multicast groups of a datagram listener, on a network of the test's own.

#include <TarnSocketIO/CAsyncIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/Datagrams.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PrivateNetwork.h"
#include "tests/support/ServerLog.h"
#include "tests/support/TestServer.h"

using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::Eventually;
using TarnTest::join_failed_line;
using TarnTest::LogCapture;
using TarnTest::PrivateNetwork;
using TarnTest::SendDatagram;
using TarnTest::TestServer;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char* group = "239.192.1.2";  // reads differently backwards

class CAsyncIOMulticast : public testing::Test {
protected:
    void SetUp() override {
        const std::string missing = PrivateNetwork::WhatIsMissing();
        if (!missing.empty()) {
            GTEST_SKIP() << "needs " << missing;
        }
    }
};

//     the test                            the peer
//     wire0  192.0.2.1/24  ------------   wire0  192.0.2.2/24
//
// Both sides route 239.192.0.0/14 over the wire.
class WiredNetwork : public PrivateNetwork {
public:
    WiredNetwork() {
        AddInterface("wire0", "192.0.2.1/24", "192.0.2.2/24");
        AddRoute("239.192.0.0/14", "wire0");
        InPeer([this] { AddRoute("239.192.0.0/14", "wire0"); });
    }
};

}  // namespace

TEST_F(CAsyncIOMulticast, ADatagramListenerReceivesWhatIsSentToItsGroup) {
    const WiredNetwork net;
    const LogCapture log;
    TestServer server(CONNECTION_DATAGRAM);
    ASSERT_TRUE(server.Initialise(0, group));
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_THAT(net.GroupsOf("wire0"), Contains(group));

    EXPECT_TRUE(Eventually([&] {
        net.InPeer([&] { SendDatagram(server.Port(), "to the group", group); });
        server.MultiConnectionPoller();
        return !server.Received().empty();
    }));
    EXPECT_THAT(server.Received(), Each(std::string("to the group")));
}

TEST_F(CAsyncIOMulticast, AUdpListenerJoinsNoGroup) {
    const WiredNetwork net;
    TestServer server(CONNECTION_UDP);
    ASSERT_TRUE(server.Initialise(0, group));
    ASSERT_GT(server.Port(), 0);
    EXPECT_THAT(net.GroupsOf("wire0"), ElementsAre("224.0.0.1"));
}

// inet_addr reads any number of leading zeros, so that a group can be written as long as one likes.
TEST_F(CAsyncIOMulticast, AGroupIsCutTo511Characters) {
    const WiredNetwork net;
    const std::string digits = "efc00102";
    const std::string longest = "0x" + std::string(511 - 2 - digits.size(), '0') + digits;
    for (const std::string& text : {longest, longest + "9", longest + std::string(5000, '9')}) {
        SCOPED_TRACE(text.size());
        const LogCapture log;
        TestServer server(CONNECTION_DATAGRAM);
        ASSERT_TRUE(server.Initialise(0, text.c_str()));
        EXPECT_THAT(log.Messages(), IsEmpty());
        EXPECT_THAT(net.GroupsOf("wire0"), Contains(group));
        server.StopListener();
    }
}

TEST_F(CAsyncIOMulticast, WithoutARouteTheJoinFailsAndUnicastWorks) {
    const PrivateNetwork without_routes;
    const LogCapture log;
    TestServer server(CONNECTION_DATAGRAM);
    ASSERT_TRUE(server.Initialise(0, group));
    EXPECT_THAT(log.Messages(), ElementsAre(join_failed_line));

    SendDatagram(server.Port(), "unicast");
    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), ElementsAre("unicast"));
}

TEST_F(CAsyncIOMulticast, StopListenerLeavesTheGroup) {
    const WiredNetwork net;
    TestServer server(CONNECTION_DATAGRAM);
    ASSERT_TRUE(server.Initialise(0, group));
    ASSERT_THAT(net.GroupsOf("wire0"), Contains(group));
    server.StopListener();
    EXPECT_THAT(net.GroupsOf("wire0"), Not(Contains(group)));
}

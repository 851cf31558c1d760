// Raw sockets in a process that may not have them.

#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/Privileges.h"
#include "tests/support/TestEndpoint.h"

using TarnSocketIO::CONNECTION_ICMP;
using TarnSocketIO::CONNECTION_PACKET;
using TarnTest::ChildProcess;
using TarnTest::LinesOf;
using TarnTest::TestEndpoint;
using testing::ElementsAre;

namespace {

/// Runs `act` in a child process. @return what that has written to standard error.
std::string WithoutRawSockets(const std::function<void()>& act) {
    ChildProcess child([&] {
        ASSERT_TRUE(TarnTest::GiveUpPrivileges());
        act();
    });
    EXPECT_EQ(0, child.ExitStatus()) << "ended by signal " << child.EndingSignal() << "\n" << child.Failures();
    return child.Errors();
}

}  // namespace

TEST(CSocketWithoutPrivileges, APingerHasNoSender) {
    const std::string errors = WithoutRawSockets([] {
        TestEndpoint pinger(CONNECTION_ICMP);
        EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(pinger.StartClient()); }),
                    ElementsAre("CSocket::StartClient() - creating sender socket -1",
                                "CSocket::StartClient() - sender error -1"));
        EXPECT_EQ(-1, pinger.m_socSender);
        EXPECT_FALSE(pinger.SendPingEchoRequest("127.0.0.1"));
        EXPECT_FALSE(pinger.BindPingSenderAddress(IPv4::IPAddress("127.0.0.1")));
    });
    EXPECT_EQ("bind: Bad file descriptor\n", errors);
}

TEST(CSocketWithoutPrivileges, AFrameReceiverHasNoReceiver) {
    const std::string errors = WithoutRawSockets([] {
        TestEndpoint receiver(CONNECTION_PACKET);
        EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(receiver.InitialiseReceiver()); }),
                    ElementsAre("CSocket::InitialiseReceiver - creating receiver socket -1, port 0 if ",
                                "CSocket::InitialiseReceiver - PF_PACKET receiver socket bind failed -1"));
        EXPECT_EQ(-1, receiver.m_socReceiver);
        receiver.DataReceiver(0);
        EXPECT_FALSE(receiver.EnableSignalIO());
        EXPECT_FALSE(receiver.RepairReceiverSocket());
    });
    EXPECT_EQ("", errors);
}

TEST(CSocketWithoutPrivileges, EndpointsComeAndGo) {
    for (const auto type : {CONNECTION_ICMP, CONNECTION_PACKET}) {
        SCOPED_TRACE(type);
        const std::string errors = WithoutRawSockets([type] {
            TestEndpoint endpoint(type);
            EXPECT_TRUE(endpoint.InitialiseLocalSockets(0, nullptr, nullptr, 2));
            endpoint.DataReceiver(0);
            endpoint.TerminateAll();
            EXPECT_TRUE(endpoint.Events().empty());
        });
        EXPECT_EQ("", errors);
    }
}

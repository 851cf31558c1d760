// Servers of the kinds that accept no connections: datagram listeners, and the kinds without a use.

#include <TarnSocketIO/CAsyncIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Duration.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/ServerLog.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestServer.h"

namespace {

using std::chrono::milliseconds;
using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnTest::accept_failed_line;
using TarnTest::bind_failed_line;
using TarnTest::DurationOf;
using TarnTest::end_line;
using TarnTest::hang_up_line;
using TarnTest::IsOpen;
using TarnTest::IsReadable;
using TarnTest::IsZero;
using TarnTest::ListeningServer;
using TarnTest::LogCapture;
using TarnTest::longest_read;
using TarnTest::no_context_line;
using TarnTest::Pattern;
using TarnTest::readable_line;
using TarnTest::received_exception_line;
using TarnTest::SendDatagram;
using TarnTest::ServeUntil;
using TarnTest::TcpClient;
using TarnTest::TestServer;
using TarnTest::uninitialised_line;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// ---- datagram listeners

class CAsyncIODatagrams : public testing::TestWithParam<CONNECTION_TYPE> {
protected:
    CAsyncIODatagrams() : server(GetParam()), listener(server.GetListenerSocket()) {}

    void SendToServer(const std::string& data) const { SendDatagram(server.Port(), data); }

    ListeningServer server;
    const int listener;
};

INSTANTIATE_TEST_SUITE_P(Kinds, CAsyncIODatagrams, testing::Values(CONNECTION_UDP, CONNECTION_DATAGRAM),
                         [](const auto& kind) { return kind.param == CONNECTION_UDP ? "Udp" : "Datagram"; });

TEST_P(CAsyncIODatagrams, AreDeliveredOnePerPassWithTheListeningSocket) {
    const LogCapture log;
    SendToServer("first");
    SendToServer("second");
    ASSERT_TRUE(IsReadable(listener));
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_THAT(server.Received(), ElementsAre("first"));
    EXPECT_THAT(log.Messages(), ElementsAre(readable_line));
    ASSERT_TRUE(IsReadable(listener));
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_EQ("firstsecond", server.ReceivedFrom(listener));
    EXPECT_THAT(server.Notifications(), SizeIs(2));
}

TEST_P(CAsyncIODatagrams, AreDeliveredWholeUpToTheLongest) {
    std::vector<bool> is_zero;
    server.on_received = [&](int, char* data, long length) {
        is_zero.push_back(IsZero(data + length, data + longest_read));
    };
    const std::string longest = Pattern(65507);
    SendToServer(longest);
    SendToServer("s");
    ASSERT_TRUE(ServeUntil(server, [&] { return server.Received().size() == 2; }));
    EXPECT_TRUE(longest == server.Received()[0]);
    EXPECT_EQ("s", server.Received()[1]);
    EXPECT_THAT(is_zero, ElementsAre(true, true));
}

TEST_P(CAsyncIODatagrams, AreWaitedForHalfASecond) {
    const LogCapture log;
    const milliseconds duration = DurationOf([&] { EXPECT_FALSE(server.MultiConnectionPoller()); });
    EXPECT_GE(duration, milliseconds(490));
    EXPECT_LT(duration, milliseconds(5000));
    EXPECT_THAT(server.Notifications(), IsEmpty());
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_P(CAsyncIODatagrams, WithoutAByteLeaveTheListenerUntouched) {
    const LogCapture log;
    SendToServer("");
    ASSERT_TRUE(IsReadable(listener));
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_THAT(server.Notifications(), IsEmpty());
    EXPECT_EQ(1u, log.Count(readable_line));
    EXPECT_EQ(1u, log.Count(end_line));

    EXPECT_EQ(listener, server.GetListenerSocket());
    SendToServer("one byte is enough");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(listener) == "one byte is enough"; }));
}

TEST_P(CAsyncIODatagrams, ExceptionOfOnReceivedDataIsLogged) {
    const LogCapture log;
    server.on_received = [](int, char*, long) { throw std::runtime_error("not today"); };
    SendToServer("data");
    ASSERT_TRUE(IsReadable(listener));
    EXPECT_NO_THROW(server.MultiConnectionPoller());
    EXPECT_THAT(log.Messages(), ElementsAre(readable_line, received_exception_line));

    server.on_received = nullptr;
    SendToServer(" again");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(listener) == "data again"; }));
}

TEST_P(CAsyncIODatagrams, CannotBeSent) {
    const LogCapture log;
    EXPECT_FALSE(server.Send(listener, "x", 1));
    EXPECT_THAT(log.Messages(), ElementsAre(no_context_line));
    EXPECT_THAT(server.Notifications(), IsEmpty());
}

TEST_P(CAsyncIODatagrams, CannotBeAccepted) {
    const LogCapture log;
    EXPECT_FALSE(server.MultiConnectionAcceptor());
    EXPECT_THAT(log.Messages(), ElementsAre(accept_failed_line));
    EXPECT_THAT(server.Notifications(), IsEmpty());
}

TEST_P(CAsyncIODatagrams, OnAPortInUseAreNotReportedAsAFailure) {
    const LogCapture log;
    TestServer second(GetParam());
    EXPECT_TRUE(second.Initialise(server.Port(), nullptr));
    EXPECT_FALSE(second.MultiConnectionPoller());
    EXPECT_FALSE(second.Initialise(0, nullptr)) << "not initialised";
    EXPECT_EQ(0u, log.Count(bind_failed_line));
    EXPECT_EQ(0u, log.Count(uninitialised_line));
    SendToServer("data");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(listener) == "data"; }));
}

// ---- any other kind

class CAsyncIOOtherKind : public testing::TestWithParam<int> {
protected:
    CAsyncIOOtherKind() : server(static_cast<CONNECTION_TYPE>(GetParam())) {}

    ListeningServer server;
};

INSTANTIATE_TEST_SUITE_P(Kinds, CAsyncIOOtherKind, testing::Values(-1, 3, 4, 77),
                         [](const auto& kind) { return "Kind" + std::to_string(kind.index); });

TEST_P(CAsyncIOOtherKind, IsBoundButDoesNotListen) {
    EXPECT_NE(0, server.Port());
    EXPECT_THROW(TcpClient client(server.Port()), std::system_error);
}

// A stream socket that neither listens nor is connected hangs up.
TEST_P(CAsyncIOOtherKind, HangUpOfTheListenerCallsNothing) {
    const int listener = server.GetListenerSocket();
    const LogCapture log;
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_EQ(2u, log.Count(hang_up_line));
    EXPECT_THAT(server.Notifications(), IsEmpty());
    EXPECT_EQ(listener, server.GetListenerSocket());
    EXPECT_TRUE(IsOpen(listener));
    EXPECT_NE(0, server.Port());
}

TEST_P(CAsyncIOOtherKind, AcceptsAndSendsNothing) {
    const LogCapture log;
    EXPECT_FALSE(server.MultiConnectionAcceptor());
    EXPECT_FALSE(server.Send(server.GetListenerSocket(), "x", 1));
    EXPECT_THAT(log.Messages(), ElementsAre(accept_failed_line, no_context_line));
}

}  // namespace

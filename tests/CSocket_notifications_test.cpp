// What the notifications do that a derived class has not overridden: they write one line each.

#include <TarnSocketIO/CIPString.h>
#include <TarnSocketIO/CSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdint>
#include <string>

#include "tests/support/LogCapture.h"
#include "tests/support/OutputCapture.h"

namespace {

using TarnSocketIO::CIPString;
using TarnSocketIO::CONNECTION_UDP;
using TarnSocketIO::CSocket;
using TarnTest::LogCapture;
using TarnTest::OutputCapture;
using testing::ElementsAre;
using testing::IsEmpty;

class CSocketNotifications : public testing::Test {
protected:
    CSocket endpoint{CONNECTION_UDP, false, false};
    const LogCapture log;
};

TEST_F(CSocketNotifications, ConnectionIsLogged) {
    endpoint.OnConnected();
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::OnConnected"));
}

TEST_F(CSocketNotifications, EndOfTheConnectionIsLogged) {
    endpoint.OnTerminated();
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::OnTerminated"));
}

TEST_F(CSocketNotifications, DataIsLoggedAsText) {
    char data[] = "up to the terminator";
    endpoint.OnReceivedData(data, 5);
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::OnReceivedData client - up to the terminator"));
}

TEST_F(CSocketNotifications, EmptyDataIsLogged) {
    char data[] = "";
    endpoint.OnReceivedData(data, 0);
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::OnReceivedData client - "));
}

TEST_F(CSocketNotifications, DataIsNoFormat) {
    char data[] = "%s%n%d 100%";
    timeval time{1, 2};
    endpoint.OnReceivedData(data, 11);
    endpoint.OnReceivedData(data, 11, time);
    endpoint.OnReceivedData(data, 11, CIPString("192.0.2.1"));
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::OnReceivedData client - %s%n%d 100%",
                                            "CSocket::OnReceivedData client - (time 1 s 2 us) %s%n%d 100%",
                                            "CSocket::OnReceivedData client - %s%n%d 100%"));
}

TEST_F(CSocketNotifications, StampedDataIsLoggedWithItsTime) {
    char data[] = "stamped";
    timeval time{1234567890, 42};
    endpoint.OnReceivedData(data, 7, time);
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::OnReceivedData client - (time 1234567890 s 42 us) stamped"));
    EXPECT_EQ(1234567890, time.tv_sec);
    EXPECT_EQ(42, time.tv_usec);
}

TEST_F(CSocketNotifications, DataWithItsSourceIsLoggedWithoutTheSource) {
    char data[] = "whose?";
    endpoint.OnReceivedData(data, 6, CIPString("192.0.2.1"));
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::OnReceivedData client - whose?"));
}

TEST_F(CSocketNotifications, EchoReplyIsNotLogged) {
    const OutputCapture output;
    endpoint.OnReceivedEchoReply(CIPString("192.0.2.1"), 1.5);
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_EQ("", output.Text());
}

TEST_F(CSocketNotifications, ConnectionToAServerIsLoggedWithItsSocket) {
    endpoint.OnConnected(17);
    endpoint.OnTerminated(18);
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::OnConnected server - 17", "CSocket::OnTerminated server - 18"));
}

TEST_F(CSocketNotifications, DataForAServerIsLoggedByItsPlaceAndNotItsSocket) {
    char data[] = "where?";
    endpoint.OnReceivedData(17, data, 6);
    endpoint.OnReceivedData(17, nullptr, 0);
    const auto place = static_cast<std::int32_t>(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(data)));
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::OnReceivedData server - " + std::to_string(place),
                                            "CSocket::OnReceivedData server - 0"));
}

TEST_F(CSocketNotifications, AreReachedThroughTheServerBaseToo) {
    struct Base : TarnSocketIO::CAsyncIO {
        static void Notify(TarnSocketIO::CAsyncIO& server) {
            (server.*&Base::OnConnected)(5);
            (server.*&Base::OnTerminated)(6);
            (server.*&Base::OnReceivedData)(7, nullptr, 0);
        }
    };
    Base::Notify(endpoint);
    EXPECT_THAT(log.Messages(), ElementsAre("CSocket::OnConnected server - 5", "CSocket::OnTerminated server - 6",
                                            "CSocket::OnReceivedData server - 0"));
}

}  // namespace

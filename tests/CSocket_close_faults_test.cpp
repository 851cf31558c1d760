// What becomes of a socket that is closed while another thread is on its way into a system call on it: its number stays
// taken until that thread has come back, so that the call cannot meet a descriptor of somebody else's.

#include <TarnSocketIO/CSocket.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Datagrams.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

namespace {

using TarnSocketIO::CONNECTION_UDP;
using TarnTest::BackgroundCall;
using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::CountOpenDescriptors;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::HeldCall;
using TarnTest::IsOpen;
using TarnTest::IsReadable;
using TarnTest::SendDatagram;
using TarnTest::TestEndpoint;

/// A thread that is in a system call on one of the endpoint's sockets.
struct Use {
    const char* name;
    Call call;
    int (*socket)(const TestEndpoint& endpoint);
    bool (*begin)(TestEndpoint& endpoint);
};

void PrintTo(const Use& use, std::ostream* os) {
    *os << use.name;
}

std::string NameOfUse(const testing::TestParamInfo<Use>& info) {
    return info.param.name;
}

int ReceiverOf(const TestEndpoint& endpoint) {
    return endpoint.m_socReceiver;
}

int SenderOf(const TestEndpoint& endpoint) {
    return endpoint.m_socSender;
}

bool MakePass(TestEndpoint& endpoint) {
    endpoint.DataReceiver(0);
    return true;
}

bool ReadSender(TestEndpoint& endpoint) {
    std::vector<char> buffer(131070);
    long length = 0;
    return endpoint.ReceiveData(buffer.data(), length, nullptr, true);
}

bool LeaveGroup(TestEndpoint& endpoint) {
    endpoint.DropGroup("239.192.1.2", false);
    return true;
}

constexpr Use uses[] = {
    {"PassThatLooksForData", Call::Poll, ReceiverOf, MakePass},
    {"PassThatReads", Call::Receive, ReceiverOf, MakePass},
    {"ReadOfTheSender", Call::Poll, SenderOf, ReadSender},
    {"GroupRequest", Call::LeaveGroup, ReceiverOf, LeaveGroup},
    {"SignalRequest", Call::SetSignal, ReceiverOf, [](TestEndpoint& endpoint) { return endpoint.EnableSignalIO(); }},
};

class CSocketClose : public testing::TestWithParam<Use> {
protected:
    void SetUp() override {
        m_endpoint.emplace(CONNECTION_UDP);
        std::strcpy(m_endpoint->m_szLocalIf, "127.0.0.1");
        ASSERT_TRUE(m_endpoint->StartClient());
        ASSERT_TRUE(m_endpoint->InitialiseReceiver());
        SendDatagram(m_endpoint->ReceiverPort(), "data");
        ASSERT_TRUE(IsReadable(m_endpoint->m_socReceiver));
    }

    const std::size_t m_descriptors = CountOpenDescriptors();
    std::optional<TestEndpoint> m_endpoint;
};

TEST_P(CSocketClose, WaitsForTheThreadThatUsesTheSocket) {
    const Use& use = GetParam();
    const int socket = use.socket(*m_endpoint);
    HeldCall held(use.call);
    BackgroundCall user([&] { return use.begin(*m_endpoint); });
    EXPECT_TRUE(Eventually([&] { return held.IsHeld(); }));
    const CallWatch wakes(Call::Shutdown);
    BackgroundCall closing([&] { return m_endpoint->Disconnect(); });
    EXPECT_TRUE(Eventually([&] { return wakes.Count() > 0; }));
    EXPECT_EQ(socket, wakes.LastDescriptor());
    EXPECT_TRUE(IsOpen(socket));
    held.Release();
    EXPECT_TRUE(closing.Result());
    user.Result();
    EXPECT_TRUE(m_endpoint->Received().empty());
    m_endpoint.reset();
    EXPECT_EQ(m_descriptors, CountOpenDescriptors());
}

TEST_P(CSocketClose, LeavesASocketThatIsUsedForLongToTheEnd) {
    const Use& use = GetParam();
    const int socket = use.socket(*m_endpoint);
    HeldCall held(use.call);
    BackgroundCall user([&] { return use.begin(*m_endpoint); });
    EXPECT_TRUE(Eventually([&] { return held.IsHeld(); }));
    const auto taken = DurationOf([&] { EXPECT_TRUE(m_endpoint->Disconnect()); });
    EXPECT_GE(taken, std::chrono::milliseconds(999));
    EXPECT_TRUE(IsOpen(socket));
    held.Release();
    user.Result();
    EXPECT_TRUE(IsOpen(socket));
    EXPECT_TRUE(m_endpoint->Received().empty());
    m_endpoint.reset();
    EXPECT_EQ(m_descriptors, CountOpenDescriptors());
}

INSTANTIATE_TEST_SUITE_P(UsedBy, CSocketClose, testing::ValuesIn(uses), NameOfUse);

}  // namespace

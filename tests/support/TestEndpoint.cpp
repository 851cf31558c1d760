#include "tests/support/TestEndpoint.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "tests/support/OutputCapture.h"

using TarnSocketIO::CIPString;

namespace TarnTest {

using Kind = EndpointEvent::Kind;

TestEndpoint::TestEndpoint(TarnSocketIO::CONNECTION_TYPE type, bool send_only, bool timestamp)
    : CSocket(type, send_only, timestamp) {}

TestEndpoint::~TestEndpoint() {
    TerminateAll();
}

std::uint16_t TestEndpoint::ReceiverPort() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(m_socReceiver, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

std::vector<EndpointEvent> TestEndpoint::Events() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

std::size_t TestEndpoint::Count(Kind kind) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<std::size_t>(std::count_if(m_events.begin(), m_events.end(),
                                                  [kind](const EndpointEvent& event) { return event.kind == kind; }));
}

std::vector<std::string> TestEndpoint::Received() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> received;
    for (const EndpointEvent& event : m_events) {
        if (event.kind == Kind::received || event.kind == Kind::received_stamped || event.kind == Kind::received_from) {
            received.push_back(event.data);
        }
    }
    return received;
}

void TestEndpoint::OnConnected() {
    Remember({Kind::connected, {}, {}, {}, 0, false, {}});
    if (on_connected) {
        on_connected();
    }
}

void TestEndpoint::OnTerminated() {
    Remember({Kind::terminated, {}, {}, {}, 0, false, {}});
    if (on_terminated) {
        on_terminated();
    }
}

void TestEndpoint::OnReceivedData(char* data, long length) {
    RememberData(Kind::received, data, length, {}, {});
    if (on_received) {
        on_received(data, length);
    }
}

void TestEndpoint::OnReceivedData(char* data, long length, timeval& received) {
    RememberData(Kind::received_stamped, data, length, {}, received);
    if (on_received) {
        on_received(data, length);
    }
}

void TestEndpoint::OnReceivedData(char* data, long length, const CIPString& from) {
    RememberData(Kind::received_from, data, length, from.c_str(), {});
    if (on_received) {
        on_received(data, length);
    }
}

void TestEndpoint::OnReceivedEchoReply(const CIPString& from, double rttMs) {
    Remember({Kind::echo_reply, {}, from.c_str(), {}, rttMs, false, {}});
    if (on_echo_reply) {
        on_echo_reply();
    }
}

void TestEndpoint::RememberData(Kind kind, const char* data, long length, const std::string& from, timeval time) {
    Remember({kind, std::string(data, static_cast<std::size_t>(length)), from, time, 0, data[length] == '\0', {}});
}

void TestEndpoint::Remember(EndpointEvent event) {
    event.thread = std::this_thread::get_id();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(std::move(event));
}

void UseAnEndpointOnce(TarnSocketIO::CONNECTION_TYPE type) {
    const OutputCapture output;
    TestEndpoint endpoint(type);
    endpoint.StartClient();
    endpoint.InitialiseReceiver();
    endpoint.AddToGroup("239.192.1.2");
    endpoint.InitialiseLocalSockets(0, nullptr, "127.0.0.1", 1);
    endpoint.Connect("127.0.0.1", endpoint.ReceiverPort());
}

}  // namespace TarnTest

#include "tests/support/TestServer.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace TarnTest {

using Kind = TestServer::Notification::Kind;

namespace {

/// Calls a copy, so that a replacement may replace itself.
template <class Function, class... Arguments>
void Call(Function function, Arguments... arguments) {
    if (function) {
        function(arguments...);
    }
}

}  // namespace

TestServer::TestServer(TarnSocketIO::CONNECTION_TYPE type)
    : CAsyncIO(type), on_terminated([](int socket) { close(socket); }), m_stop(false) {}

TestServer::~TestServer() {
    EndLoops();
    for (const int socket : m_open) {
        close(socket);
    }
}

std::uint16_t TestServer::Port() const {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(GetListenerSocket(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

int TestServer::Accept() {
    return MultiConnectionAcceptor() ? Connected().back() : -1;
}

void TestServer::StartAcceptor() {
    m_loops.emplace_back([this] {
        while (!m_stop) {
            MultiConnectionAcceptor();
        }
    });
}

void TestServer::StartPoller() {
    m_loops.emplace_back([this] {
        while (!m_stop) {
            MultiConnectionPoller();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
}

void TestServer::StartLoops() {
    StartAcceptor();
    StartPoller();
}

void TestServer::EndLoops() {
    m_stop = true;
    StopListener();
    for (std::thread& loop : m_loops) {
        loop.join();
    }
    m_loops.clear();
}

std::vector<TestServer::Notification> TestServer::Notifications() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_notifications;
}

std::vector<int> TestServer::Connected() const {
    return SocketsOf(Kind::connected);
}

std::vector<int> TestServer::Terminated() const {
    return SocketsOf(Kind::terminated);
}

std::vector<std::string> TestServer::Received() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> received;
    for (const Notification& notification : m_notifications) {
        if (notification.kind == Kind::received) {
            received.push_back(notification.data);
        }
    }
    return received;
}

std::string TestServer::ReceivedFrom(int socket) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::string received;
    for (const Notification& notification : m_notifications) {
        if (notification.kind == Kind::received && notification.socket == socket) {
            received += notification.data;
        }
    }
    return received;
}

void TestServer::OnConnected(int socket) {
    Remember(Kind::connected, socket, "");
    Call(on_connected, socket);
}

void TestServer::OnTerminated(int socket) {
    Remember(Kind::terminated, socket, "");
    Call(on_terminated, socket);
}

void TestServer::OnReceivedData(int socket, char* data, long length) {
    Remember(Kind::received, socket, std::string(data, static_cast<std::size_t>(length)));
    Call(on_received, socket, data, length);
}

void TestServer::Remember(Kind kind, int socket, const std::string& data) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_notifications.push_back({kind, socket, data, std::this_thread::get_id()});
    if (kind == Kind::connected) {
        m_open.insert(socket);
    } else if (kind == Kind::terminated) {
        m_open.erase(socket);
    }
}

std::vector<int> TestServer::SocketsOf(Kind kind) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<int> sockets;
    for (const Notification& notification : m_notifications) {
        if (notification.kind == kind) {
            sockets.push_back(notification.socket);
        }
    }
    return sockets;
}

}  // namespace TarnTest

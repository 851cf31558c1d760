#include "tests/support/ConnectionServer.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <utility>

namespace TarnTest {

ConnectionServer::ConnectionServer(int receiver_threads)
    : CSocket(0, TarnSocketIO::CONNECTION_STREAM, nullptr, false, false, nullptr, receiver_threads) {
    if (receiver_threads > 0) {
        InitialiseLocalSockets(0, nullptr, nullptr, receiver_threads);
    }
}

ConnectionServer::~ConnectionServer() {
    TerminateAll();
    for (const int socket : m_open) {
        close(socket);
    }
}

std::uint16_t ConnectionServer::Port() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(GetListenerSocket(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

ConnectionServer::Counts ConnectionServer::NotificationCounts() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_counts;
}

std::vector<std::string> ConnectionServer::Conversations() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_conversations;
}

std::vector<int> ConnectionServer::Open() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return {m_open.begin(), m_open.end()};
}

void ConnectionServer::OnConnected(int socket) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_counts.connected;
        if (m_ended_early.erase(socket) == 0) {
            m_open.insert(socket);
        }
    }
    if (on_connected) {
        on_connected(socket);
    }
}

void ConnectionServer::OnReceivedData(int socket, char* data, long length) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_data[socket].append(data, static_cast<std::size_t>(length));
    }
    if (on_received) {
        on_received(socket, data, length);
    }
}

void ConnectionServer::OnTerminated(int socket) {
    if (on_terminated) {
        on_terminated(socket);
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_counts.terminated;
        m_conversations.push_back(std::move(m_data[socket]));
        m_data.erase(socket);
        if (m_open.erase(socket) == 0) {
            m_ended_early.insert(socket);
        }
    }
    const linger no_wait{0, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &no_wait, sizeof no_wait);
    close(socket);
}

}  // namespace TarnTest

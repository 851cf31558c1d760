#include "tests/support/TcpClient.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

namespace TarnTest {

namespace {

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

TcpClient::TcpClient(std::uint16_t port) : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (m_socket == -1) {
        Fail("TcpClient: socket");
    }
    timeval timeout = {};
    timeout.tv_sec = 30;
    setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);  // holds for connect, too
    setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        close(m_socket);
        errno = error;
        Fail("TcpClient: connect");
    }
}

TcpClient::~TcpClient() {
    Close();
}

TcpClient::TcpClient(TcpClient&& other) noexcept : m_socket(std::exchange(other.m_socket, -1)) {}

void TcpClient::Send(const std::string& data) {
    std::size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t part = send(m_socket, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (part == -1) {
            Fail("TcpClient: send");
        }
        sent += static_cast<std::size_t>(part);
    }
}

void TcpClient::SendUrgent(char byte) {
    if (send(m_socket, &byte, 1, MSG_OOB | MSG_NOSIGNAL) != 1) {
        Fail("TcpClient: send of urgent data");
    }
}

std::string TcpClient::Receive(std::size_t length) {
    std::string data;
    std::array<char, 65536> part;
    while (data.size() < length) {
        const ssize_t received = recv(m_socket, part.data(), std::min(part.size(), length - data.size()), 0);
        if (received == -1) {
            Fail("TcpClient: recv");
        }
        if (received == 0) {
            break;
        }
        data.append(part.data(), static_cast<std::size_t>(received));
    }
    return data;
}

std::string TcpClient::ReceiveAll() {
    return Receive(std::numeric_limits<std::size_t>::max());
}

void TcpClient::EndSending() {
    if (shutdown(m_socket, SHUT_WR) != 0) {
        Fail("TcpClient: shutdown");
    }
}

void TcpClient::Close() {
    if (m_socket != -1) {
        close(std::exchange(m_socket, -1));
    }
}

void TcpClient::Reset() {
    const linger at_once = {1, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    Close();
}

}  // namespace TarnTest

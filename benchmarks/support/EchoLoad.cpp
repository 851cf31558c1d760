#include <benchmarks/support/EchoLoad.h>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include <benchmarks/support/PairedRatio.h>

namespace TarnBenchmark {

namespace {

template <class Value>
bool SetOption(int socket, int level, int option, const Value& value) {
    return ::setsockopt(socket, level, option, &value, sizeof value) == 0;
}

bool SendAtOnce(int socket) {
    return SetOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
}

}  // namespace

OwnSocket::~OwnSocket() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

in_port_t PortOf(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

bool PrepareEchoConnection(int socket) {
    constexpr int send_buffer = 208 * 1024;  // what Linux allows without privileges; it doubles it for its own use
    return SetOption(socket, SOL_SOCKET, SO_SNDBUF, send_buffer) && SendAtOnce(socket);
}

EchoLoad::EchoLoad(std::size_t connections, std::size_t message_size)
    : m_connections(connections), m_message(message_size, 'm'), m_echo(message_size) {}

bool EchoLoad::Connect(in_port_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const timeval limit{5, 0};
    while (m_clients.size() < m_connections) {
        OwnSocket client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (client.Get() == -1 || !SetOption(client.Get(), SOL_SOCKET, SO_RCVTIMEO, limit) ||
            !SetOption(client.Get(), SOL_SOCKET, SO_SNDTIMEO, limit) || !SendAtOnce(client.Get()) ||
            ::connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            return false;
        }
        m_clients.push_back(std::move(client));
    }
    return true;
}

double EchoLoad::Run(int rounds) {
    bool all_echoed = false;
    const double seconds = SecondsOf([&] { all_echoed = RunRounds(rounds); });
    return all_echoed ? seconds : -1;
}

bool EchoLoad::RunRounds(int rounds) {
    const auto send = [&](const OwnSocket& client) { return SendMessage(client); };
    const auto receive = [&](const OwnSocket& client) { return ReceiveEcho(client); };
    const auto exchange = [&](const OwnSocket& client) { return ReceiveEcho(client) && SendMessage(client); };

    bool ok = std::all_of(m_clients.begin(), m_clients.end(), send);
    for (int round = 1; ok && round < rounds; ++round) {
        ok = std::all_of(m_clients.begin(), m_clients.end(), exchange);
    }
    return ok && std::all_of(m_clients.begin(), m_clients.end(), receive);
}

bool EchoLoad::SendMessage(const OwnSocket& client) const {
    const ssize_t sent = ::send(client.Get(), m_message.data(), m_message.size(), MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(m_message.size());
}

bool EchoLoad::ReceiveEcho(const OwnSocket& client) {
    const ssize_t received = ::recv(client.Get(), m_echo.data(), m_echo.size(), MSG_WAITALL);
    return received == static_cast<ssize_t>(m_echo.size());
}

std::size_t EchoLoad::BytesOf(int rounds) const {
    return m_connections * m_message.size() * static_cast<std::size_t>(rounds);
}

}  // namespace TarnBenchmark

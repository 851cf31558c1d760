#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <vector>

namespace TarnBenchmark {

/// The owner of a socket of the benchmark's own.
class OwnSocket {
public:
    explicit OwnSocket(int fd = -1) : m_fd(fd) {}
    ~OwnSocket();
    OwnSocket(OwnSocket&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    OwnSocket& operator=(OwnSocket&&) = delete;

    int Get() const { return m_fd; }

private:
    int m_fd;
};

/// @return the port that the kernel chose for a bound socket, host byte order; 0 on failure.
in_port_t PortOf(int socket);

/// Makes an accepted connection fit to be echoed on without waiting: its send buffer takes a whole message of 64 KiB,
/// so that no send is cut short while the peer has one message under way, and the end of a message is not held back.
bool PrepareEchoConnection(int socket);

/// Clients that keep every connection of an echo server busy from one thread.
///
/// Each connection has one message under way at any moment: the clients take the echo of one connection after the
/// other and send the next message there at once, while the messages of all the others are with the server. They never
/// poll, so they have less to do than the server that is measured.
class EchoLoad {
public:
    EchoLoad(std::size_t connections, std::size_t message_size);

    /// Connects all clients to 127.0.0.1. @return false with errno set.
    bool Connect(in_port_t port);

    /// Has each connection echo `rounds` messages, while another thread serves them.
    ///
    /// @return the seconds from the first message to the last echo; a negative value if a connection failed, or stood
    ///         still for five seconds.
    double Run(int rounds);

    /// @return the bytes that `rounds` rounds bring to the server.
    std::size_t BytesOf(int rounds) const;

private:
    bool RunRounds(int rounds);
    bool SendMessage(const OwnSocket& client) const;
    bool ReceiveEcho(const OwnSocket& client);

    const std::size_t m_connections;
    const std::vector<char> m_message;
    std::vector<char> m_echo;
    std::vector<OwnSocket> m_clients;
};

}  // namespace TarnBenchmark

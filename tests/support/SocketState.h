#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/support/Eventually.h"

namespace TarnTest {

/// An option of a socket that is an int; -1 if it cannot be had.
inline int OptionOf(int fd, int name, int level = SOL_SOCKET) {
    int value = -1;
    socklen_t length = sizeof value;
    return getsockopt(fd, level, name, &value, &length) == 0 ? value : -1;
}

inline linger LingerOf(int fd) {
    linger value{-1, -1};
    socklen_t length = sizeof value;
    getsockopt(fd, SOL_SOCKET, SO_LINGER, &value, &length);
    return value;
}

/// Domain, type and protocol, for comparison with those of another socket.
struct SocketKind {
    explicit SocketKind(int fd)
        : domain(OptionOf(fd, SO_DOMAIN)), type(OptionOf(fd, SO_TYPE)), protocol(OptionOf(fd, SO_PROTOCOL)) {}
    SocketKind(int of_domain, int of_type, int of_protocol) : domain(of_domain), type(of_type), protocol(of_protocol) {}
    bool operator==(const SocketKind& other) const {
        return domain == other.domain && type == other.type && protocol == other.protocol;
    }

    int domain;
    int type;
    int protocol;
};

/// The address that a socket is bound to; all zero if it is none.
inline sockaddr_in NameOf(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return address;
}

inline std::uint16_t PortOf(int fd) {
    return ntohs(NameOf(fd).sin_port);
}

inline std::string AddressOf(int fd) {
    return inet_ntoa(NameOf(fd).sin_addr);
}

/// A socket of the test's own, on a port of the loopback interface that the kernel chose; a stream socket listens.
class LoopbackSocket {
public:
    /// @param above  the socket's number is larger than this one.
    explicit LoopbackSocket(int type, int above = 0) : m_fd(OpenAbove(above, type)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            (type == SOCK_STREAM && listen(m_fd, 8) != 0)) {
            throw std::runtime_error("no socket on the loopback interface");
        }
    }
    ~LoopbackSocket() { close(m_fd); }
    LoopbackSocket(const LoopbackSocket&) = delete;
    LoopbackSocket& operator=(const LoopbackSocket&) = delete;

    int Number() const { return m_fd; }
    std::uint16_t Port() const { return PortOf(m_fd); }
    sockaddr_in Address() const { return NameOf(m_fd); }

private:
    static int OpenAbove(int number, int type) {
        const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
        const int result = fcntl(fd, F_DUPFD_CLOEXEC, number + 1);
        close(fd);
        return result;
    }

    const int m_fd;
};

/// A descriptor to close; -1 is none.
class OwnedDescriptor {
public:
    explicit OwnedDescriptor(int fd = -1) : m_fd(fd) {}
    ~OwnedDescriptor() { Close(); }
    OwnedDescriptor(OwnedDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

    int Number() const { return m_fd; }
    void Close() {
        if (m_fd != -1) {
            close(m_fd);
            m_fd = -1;
        }
    }
    /// Breaks a connection off.
    void Reset() {
        const linger none{1, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
        Close();
    }

private:
    int m_fd;
};

/// Waits until so many bytes can be read.
inline bool HasBytes(int fd, int count) {
    return Eventually([&] {
        int ready = 0;
        return ioctl(fd, FIONREAD, &ready) == 0 && ready >= count;
    });
}

/// Whether this process may open sockets of this kind.
inline bool CanOpen(int domain, int type, int protocol) {
    const OwnedDescriptor probe(socket(domain, type | SOCK_CLOEXEC, protocol));
    return probe.Number() != -1;
}

}  // namespace TarnTest

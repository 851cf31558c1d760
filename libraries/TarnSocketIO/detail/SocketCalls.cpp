#include <TarnSocketIO/detail/SocketCalls.h>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <limits>

namespace TarnSocketIO::detail {

int OpenSocket(int type, int protocol) {
    return ::socket(AF_INET, type | SOCK_CLOEXEC, protocol);
}

bool SetLinger(int fd, int seconds) {
    linger value{};
    value.l_onoff = 1;
    value.l_linger = seconds;
    return ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &value, sizeof value) == 0;
}

bool BindToPort(int fd, unsigned int port) {
    if (port > std::numeric_limits<std::uint16_t>::max()) {
        errno = EINVAL;
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool JoinMulticastGroup(int fd, const char* group) {
    ip_mreq request{};
    request.imr_multiaddr.s_addr = ::inet_addr(group);
    request.imr_interface.s_addr = htonl(INADDR_ANY);
    return ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0;
}

bool Listen(int fd, int backlog) {
    return ::listen(fd, backlog) == 0;
}

void ShutDown(int fd) {
    ::shutdown(fd, SHUT_RDWR);
}

int WaitForEvents(pollfd* records, std::size_t count, int timeout_ms) {
    return ::poll(records, static_cast<nfds_t>(count), timeout_ms);
}

int Accept(int fd, sockaddr_in& peer) {
    peer = sockaddr_in{};
    socklen_t length = sizeof peer;
    return ::accept4(fd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
}

long Receive(int fd, char* buffer, std::size_t size) {
    return ::recv(fd, buffer, size, MSG_DONTWAIT);
}

long SendNow(int fd, const char* data, std::size_t length) {
    return ::send(fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace TarnSocketIO::detail

#include <TarnSocketIO/detail/SocketCalls.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>

namespace TarnSocketIO::detail {

namespace {

/// A connect that a signal has interrupted goes on by itself: waits for its end. @return as connect.
int AwaitConnection(int fd) {
    pollfd record{fd, POLLOUT, 0};
    int ready;
    do {
        ready = ::poll(&record, 1, -1);
    } while (ready == -1 && errno == EINTR);
    int error = 0;
    socklen_t length = sizeof error;
    if (ready == -1 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == -1) {
        return -1;
    }
    errno = error;
    return error == 0 ? 0 : -1;
}

}  // namespace

int OpenSocket(int type, int protocol) {
    return ::socket(AF_INET, type | SOCK_CLOEXEC, protocol);
}

int OpenPacketSocket(std::uint16_t protocol) {
    return ::socket(PF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(protocol));
}

int AwayFromStandardStreams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const int higher = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(fd);
    errno = error;
    return higher;
}

bool Control(int fd, unsigned long request, void* record) {
    return ::ioctl(fd, request, record) >= 0;
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
    return BindTo(fd, address);
}

bool BindTo(int fd, const sockaddr_in& address) {
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool BindToFrames(int fd, std::uint16_t protocol) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(protocol);
    address.sll_ifindex = 0;
    address.sll_pkttype = PACKET_OTHERHOST;
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

void WakeReaders(int fd) {
    ::shutdown(fd, SHUT_RD);
}

bool ConnectTo(int fd, const sockaddr_in& address) {
    int result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (result == -1 && errno == EINTR) {
        result = AwaitConnection(fd);
    }
    return result == 0;
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
    // No further flag: link-layer sockets refuse those that they do not know.
    return ::recv(fd, buffer, size, MSG_DONTWAIT);
}

long ReceiveFrom(int fd, char* buffer, std::size_t size, sockaddr_in& from) {
    from = sockaddr_in{};
    socklen_t length = sizeof from;
    return ::recvfrom(fd, buffer, size, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&from), &length);
}

long ReceiveMessage(int fd, msghdr& message) {
    return ::recvmsg(fd, &message, MSG_DONTWAIT);
}

long SendNow(int fd, const char* data, std::size_t length) {
    return ::send(fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
}

long SendToNow(int fd, const char* data, std::size_t length, const sockaddr_in& to) {
    return ::sendto(fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

long SendTo(int fd, const char* data, std::size_t length, const sockaddr* to, socklen_t to_length) {
    return ::sendto(fd, data, length, MSG_NOSIGNAL, to, to_length);
}

int SetSignalOwner(int fd, pid_t owner) {
    return ::fcntl(fd, F_SETOWN, owner);
}

int SetSignal(int fd, int signal_number) {
    return ::fcntl(fd, F_SETSIG, signal_number);
}

int GetStatusFlags(int fd) {
    return ::fcntl(fd, F_GETFL);
}

int SetStatusFlags(int fd, int flags) {
    return ::fcntl(fd, F_SETFL, flags);
}

}  // namespace TarnSocketIO::detail

#pragma once

#include <arpa/inet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <system_error>

#include "tests/support/SocketState.h"

/// Packets and frames as they are on the wire. Texts hold their bytes.
namespace TarnTest {

/// A socket of the calling thread's network.
inline OwnedDescriptor OpenSocket(int domain, int type, int protocol) {
    OwnedDescriptor fd(socket(domain, type | SOCK_CLOEXEC, protocol));
    if (fd.Number() == -1) {
        throw std::system_error(errno, std::generic_category(), "socket");
    }
    return fd;
}

inline sockaddr_in Ipv4Address(const std::string& ip, std::uint16_t port = 0) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = inet_addr(ip.c_str());
    return address;
}

inline void Bind(const OwnedDescriptor& fd, const sockaddr_in& address) {
    if (bind(fd.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::system_error(errno, std::generic_category(), "bind");
    }
}

inline std::string TextOf(in_addr address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET, &address, text.data(), text.size());
}

/// Waits for what a socket receives next, for half a minute at most. @return it; empty if nothing came.
inline std::string Receive(const OwnedDescriptor& fd, sockaddr_in* from = nullptr) {
    pollfd record = {fd.Number(), POLLIN, 0};
    if (poll(&record, 1, 30000) != 1) {
        return "";
    }
    std::string data(65536, '\0');
    socklen_t length = sizeof *from;
    const ssize_t received = recvfrom(fd.Number(), data.data(), data.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(from), from != nullptr ? &length : nullptr);
    data.resize(received > 0 ? static_cast<std::size_t>(received) : 0);
    return data;
}

inline void SendTo(const OwnedDescriptor& fd, const sockaddr_in& to, const std::string& data) {
    const ssize_t sent =
        sendto(fd.Number(), data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (sent != static_cast<ssize_t>(data.size())) {
        throw std::system_error(errno, std::generic_category(), "sendto");
    }
}

/// One interface of the calling thread's network, frame by frame.
class FrameSocket {
public:
    /// @param protocol  of the frames that are received, such as ETHERTYPE_IP: those that come, not those that go.
    FrameSocket(const std::string& interface, std::uint16_t protocol)
        : m_fd(OpenSocket(AF_PACKET, SOCK_RAW, htons(protocol))), m_interface(if_nametoindex(interface.c_str())) {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(protocol);
        address.sll_ifindex = static_cast<int>(m_interface);
        if (bind(m_fd.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::system_error(errno, std::generic_category(), "bind to " + interface);
        }
    }

    void Send(const std::string& frame) const {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = static_cast<int>(m_interface);
        address.sll_halen = ETH_ALEN;
        std::memcpy(address.sll_addr, frame.data(), ETH_ALEN);
        const ssize_t sent = sendto(m_fd.Number(), frame.data(), frame.size(), 0,
                                    reinterpret_cast<const sockaddr*>(&address), sizeof address);
        if (sent != static_cast<ssize_t>(frame.size())) {
            throw std::system_error(errno, std::generic_category(), "frame");
        }
    }

    /// Waits for the next frame that is wanted. @return it; empty if none has come within half a minute.
    template <class Predicate>
    std::string Await(const Predicate& is_wanted) const {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (std::chrono::steady_clock::now() < end) {
            std::string frame = Receive(m_fd);
            if (!frame.empty() && is_wanted(frame)) {
                return frame;
            }
        }
        return "";
    }

private:
    OwnedDescriptor m_fd;
    unsigned int m_interface;
};

inline std::uint8_t ByteAt(const std::string& bytes, std::size_t at) {
    return static_cast<std::uint8_t>(bytes.at(at));
}

/// A number in network byte order.
inline std::uint16_t WordAt(const std::string& bytes, std::size_t at) {
    return static_cast<std::uint16_t>(ByteAt(bytes, at) << 8 | ByteAt(bytes, at + 1));
}

/// A number as the memory of this machine holds it.
template <class Number>
Number StoredAt(const std::string& bytes, std::size_t at) {
    Number number;
    std::memcpy(&number, bytes.substr(at, sizeof number).data(), sizeof number);
    return number;
}

/// The bytes of a number in network byte order.
inline std::string Word(std::uint16_t number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number & 0xff)};
}

/// The bytes of a number as the memory of this machine holds it.
template <class Number>
std::string Stored(Number number) {
    std::string bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

/// The Internet checksum, word by word in network byte order: the plainest way there is.
inline std::uint16_t InternetChecksum(const std::string& bytes) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        sum += static_cast<std::uint64_t>(ByteAt(bytes, i)) * 256;
        sum += i + 1 < bytes.size() ? ByteAt(bytes, i + 1) : 0u;
    }
    while (sum > 0xffff) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(~sum & 0xffff);
}

/// An ICMP message that has the form of an echo, with its checksum.
///
/// @param identifier  as it is stored.
inline std::string EchoMessage(std::uint8_t type, std::uint16_t identifier, std::uint16_t sequence,
                               const std::string& data = "") {
    std::string message =
        std::string(1, static_cast<char>(type)) + std::string(3, '\0') + Stored(identifier) + Word(sequence) + data;
    return message.replace(2, 2, Word(InternetChecksum(message)));
}

/// An IPv4 packet.
///
/// @param options  a multiple of 4 bytes, up to 40.
inline std::string Ipv4Packet(const std::string& source, const std::string& destination, const std::string& payload,
                              std::uint8_t protocol = IPPROTO_ICMP, std::uint8_t ttl = 64,
                              const std::string& options = "") {
    const std::size_t header = 20 + options.size();
    std::string packet(1, static_cast<char>(0x40 | header / 4));
    packet += '\0';
    packet += Word(static_cast<std::uint16_t>(header + payload.size())) + Word(1) + Word(0);
    packet += static_cast<char>(ttl);
    packet += static_cast<char>(protocol);
    packet += Word(0) + Stored(inet_addr(source.c_str())) + Stored(inet_addr(destination.c_str())) + options;
    packet.replace(10, 2, Word(InternetChecksum(packet)));
    return packet + payload;
}

/// An Ethernet frame to everybody, from an address that nobody has.
inline std::string EthernetFrame(std::uint16_t protocol, const std::string& payload) {
    return std::string(ETH_ALEN, '\xff') + std::string("\x02\x00\x5e\x00\x53\x01", ETH_ALEN) + Word(protocol) + payload;
}

}  // namespace TarnTest

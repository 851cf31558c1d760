// The endpoint as a pinger: ICMP echo (RFC 792).

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/ip_icmp.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <type_traits>

#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/SockAddr.h>
#include <TarnSocketIO/detail/InternetChecksum.h>
#include <TarnSocketIO/detail/PosixLock.h>
#include <TarnSocketIO/detail/SocketCalls.h>
#include <TarnSocketIO/detail/SocketUse.h>

namespace TarnSocketIO {

using detail::PosixLock;
using detail::SocketUse;

namespace {

constexpr std::size_t message_size = 64;
constexpr std::size_t header_size = 8;
constexpr int filler = 0xA5;

// Offsets in a message.
constexpr std::size_t checksum_at = 2;
constexpr std::size_t identifier_at = 4;
constexpr std::size_t sequence_at = 6;
constexpr std::size_t time_at = 8;

// Offsets in the IP header in front of it.
constexpr std::size_t ttl_at = 8;
constexpr std::size_t protocol_at = 9;

constexpr std::size_t packet_size = 16384;
constexpr std::size_t control_size = 65536;

using Message = std::array<char, message_size>;

template <class Number>
void Write(Message& message, std::size_t offset, Number number) {
    static_assert(std::is_trivially_copyable_v<Number>);
    std::memcpy(&message[offset], &number, sizeof number);
}

template <class Number>
Number Read(const char* from) {
    Number number;
    std::memcpy(&number, from, sizeof number);
    return number;
}

int ByteAt(const char* bytes, std::size_t offset) {
    return static_cast<unsigned char>(bytes[offset]);
}

Message MakeRequest(std::uint16_t identifier, std::uint16_t sequence) {
    Message message{};
    message[0] = ICMP_ECHO;
    std::memset(&message[header_size], filler, message_size - header_size);
    Write(message, identifier_at, identifier);
    Write(message, sequence_at, htons(sequence));
    // Two words of 32 bits, however wide the clock's are: so much is the same on every machine.
    timeval now{};
    gettimeofday(&now, nullptr);
    Write(message, time_at, static_cast<std::uint32_t>(now.tv_sec));
    Write(message, time_at + 4, static_cast<std::uint32_t>(now.tv_usec));
    Write(message, checksum_at, detail::InternetChecksum(message.data(), message.size()));
    return message;
}

/// The time that a reply carries back, which may be anything.
timeval SendTimeOf(const char* reply) {
    timeval sent{};
    sent.tv_sec = static_cast<decltype(sent.tv_sec)>(Read<std::uint32_t>(reply + time_at));
    sent.tv_usec = static_cast<decltype(sent.tv_usec)>(Read<std::uint32_t>(reply + time_at + 4));
    return sent;
}

double MillisecondsBetween(const timeval& sent, timeval arrival) {
    CUtility::tvSub(sent, arrival);
    return static_cast<double>(arrival.tv_sec) * 1000.0 + static_cast<double>(arrival.tv_usec) / 1000.0;
}

/// Where requests go: for each host one address, and whether it is a broadcast address.
struct Destination {
    sockaddr_storage address{};
    socklen_t length = 0;
    bool is_broadcast = false;
};

bool Resolve(const char* host, Destination& destination) {
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) != 0) {
        return false;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
    // The sockets are of IPv4; a host that has both kinds of addresses is not to be lost for the order of them.
    const addrinfo* chosen = found;
    while (chosen->ai_family != AF_INET && chosen->ai_next != nullptr) {
        chosen = chosen->ai_next;
    }
    if (chosen->ai_family != AF_INET) {
        chosen = found;
    }
    std::memcpy(&destination.address, chosen->ai_addr, chosen->ai_addrlen);
    destination.length = chosen->ai_addrlen;
    return true;
}

bool ReadAsBroadcast(const char* host, Destination& destination) {
    _RAW_IP octets;
    CIPString(host).GetRawIP(octets);
    if (octets.m_Octets[3] != 255) {
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, octets.m_Octets, sizeof octets.m_Octets);
    std::memcpy(&destination.address, &address, sizeof address);
    destination.length = sizeof address;
    destination.is_broadcast = true;
    return true;
}

}  // namespace

bool CSocket::SendPingEchoRequest(const char* host) {
    const PosixLock lock(m_SenderMutex);
    const int fd = SenderUnderLock();
    Destination destination;
    if (!Resolve(host, destination) && !ReadAsBroadcast(host, destination)) {
        std::puts("CSocket::SendPingEchoRequest - failed to get address info");
        return false;
    }
    // Kept: of one byte, so that the kernel refuses it. The permission is the one that StartClient gave.
    const char permission = destination.is_broadcast ? 1 : 0;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &permission, sizeof permission);

    const auto identifier = static_cast<std::uint16_t>(getpid() & 0xFFFF);
    m_iPingId = identifier;
    CUtility::Debug("CSocket::SendPingEchoRequest - ping ID %x", static_cast<unsigned int>(identifier));
    const Message message = MakeRequest(identifier, m_usPingSequence++);
    return detail::SendTo(fd, message.data(), message.size(), reinterpret_cast<const sockaddr*>(&destination.address),
                          destination.length) > 0;
}

bool CSocket::BindPingSenderAddress(IPv4::IPAddress address) {
    m_PingSenderAddress = address;
    {
        const PosixLock lock(m_SenderMutex);
        CloseSender();
    }
    StartClient();
    const SocketUse sender = UseSender();
    if (!detail::BindTo(sender.Get(), SockAddr().Init(address))) {
        std::perror("bind");
        // Kept: the text is the one of InitialiseLocalSockets.
        CUtility::Debug("CSocket::InitialiseLocalSockets sender socket failed to bind %d", -1);
        return false;
    }
    return true;
}

bool CSocket::ReceiveEchoReply(msghdr& msg, iovec& /*iov*/, int& length, timeval& arrival) {
    const SocketUse receiver = UseReceiver();
    pollfd record{receiver.Get(), detail::READ_EVENTS, 0};
    if (receiver.Get() == -1 || detail::WaitForEvents(&record, 1, 0) == 0 ||
        (record.revents & detail::DATA_EVENTS) == 0) {
        return false;
    }
    const auto result = static_cast<int>(detail::ReceiveMessage(receiver.Get(), msg));
    // Whoever closes a socket ends the reads on it first.
    if (!receiver.IsCurrent()) {
        return false;
    }
    length = result;
    if (length == 0) {
        return false;
    }
    gettimeofday(&arrival, nullptr);
    return true;
}

void CSocket::ReceiveOneEchoReply(char* control) {
    // Zero behind what is read, so that whatever a short packet does not have reads as zero.
    std::array<char, packet_size> packet{};
    iovec iov{packet.data(), packet.size()};
    sockaddr_in source{};
    msghdr msg{};
    msg.msg_name = &source;
    msg.msg_namelen = sizeof source;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = control_size;
    int length = 0;
    timeval arrival{};
    if (!ReceiveEchoReply(msg, iov, length, arrival)) {
        return;
    }
    CUtility::Debug("CSocket::DataReceiver - got echo reply");
    HandleEchoReply(packet.data(), length, source.sin_addr, arrival);
}

void CSocket::HandleEchoReply(const char* packet, int length, in_addr source, const timeval& arrival) {
    const int ip_header_size = 4 * (ByteAt(packet, 0) & 0x0F);
    if (ByteAt(packet, protocol_at) != IPPROTO_ICMP) {
        std::puts("CSocket::DataReceiver - got non-IPPROTO_ICMP msg");
        return;
    }
    if (length - ip_header_size < static_cast<int>(header_size)) {
        std::puts("CSocket::DataReceiver - malformed echo packet?");
        return;
    }
    const char* const reply = packet + ip_header_size;
    if (const int type = ByteAt(reply, 0); type != ICMP_ECHOREPLY) {
        std::printf("CSocket::DataReceiver - icmp type = %d\n", type);
        return;
    }
    const int expected = m_iPingId;
    if (const int identifier = Read<std::uint16_t>(reply + identifier_at); identifier != expected) {
        CUtility::Debug("CSocket::DataReceiver - not our echo request (got %d is %d)", identifier, expected);
        return;
    }
    std::array<char, 128> source_text{};
    inet_ntop(AF_INET, &source, source_text.data(), source_text.size());
    CUtility::Debug("CSocket::DataReceiver - got our ICMP_ECHOREPLY from %s", source_text.data());
    const double rtt = MillisecondsBetween(SendTimeOf(reply), arrival);
    CUtility::Debug("CSocket::DataReceiver - seq = %d, ttl = %d, rtt = %.3f ms",
                    ntohs(Read<std::uint16_t>(reply + sequence_at)), ByteAt(packet, ttl_at), rtt);
    OnReceivedEchoReply(CIPString(source_text.data()), rtt);
}

int CSocket::CalculateICMPChecksum(const unsigned short* data, int length) {
    return detail::InternetChecksum(data, length > 0 ? static_cast<std::size_t>(length) : 0);
}

}  // namespace TarnSocketIO

#include <TarnSocketIO/CSocket.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/Descriptor.h>
#include <TarnSocketIO/detail/HostNames.h>
#include <TarnSocketIO/detail/PosixLock.h>
#include <TarnSocketIO/detail/PrintLine.h>
#include <TarnSocketIO/detail/SocketCalls.h>
#include <TarnSocketIO/detail/SocketUse.h>

namespace TarnSocketIO {

using detail::PosixLock;
using detail::SocketUse;

namespace {

constexpr int send_buffer_size = 0x40000;

/// A negative length is nothing that the kernel should be asked: it would take it for a huge one.
bool IsLength(long length) {
    if (length < 0) {
        errno = EINVAL;
    }
    return length >= 0;
}

}  // namespace

CSocket::CSocket(CONNECTION_TYPE type, bool multi_connection_server, bool send_only, bool timestamp)
    : CAsyncIO(type),
      m_bMultiConnectionServer(multi_connection_server),
      m_SenderMutex(),
      m_ReceiverMutex(),
      m_bSendOnly(send_only),
      m_bTimestamp(timestamp) {
    pthread_mutex_init(&m_SenderMutex, nullptr);
    pthread_mutex_init(&m_ReceiverMutex, nullptr);
}

CSocket::CSocket(CONNECTION_TYPE type, bool bSendOnly, bool bTimestamp) : CSocket(type, false, bSendOnly, bTimestamp) {
    GetLocalIPs();
}

CSocket::CSocket(unsigned int port, CONNECTION_TYPE type, const char* szGroup, bool bSendOnly, bool bTimestamp,
                 const char* szLocalIf, int threads)
    : CSocket(type, type == CONNECTION_STREAM, bSendOnly, bTimestamp) {
    if (szGroup != nullptr) {
        detail::CopyText(m_szGroup, szGroup);
    }
    if (szLocalIf != nullptr) {
        detail::CopyText(m_szLocalIf, szLocalIf);
    }
    CUtility::ConditionalDebug("CSocket::CSocket - StartServer()", StartServer(port, szGroup, szLocalIf, threads));
    GetLocalIPs();
}

CSocket::~CSocket() {
    CUtility::Debug("CSocket::~CSocket - called");
    CUtility::ConditionalDebug("CSocket::~CSocket - TerminateAll", TerminateAll());
    AwaitThreads();
    CloseWhatIsLeft();
    pthread_mutex_destroy(&m_SenderMutex);
    pthread_mutex_destroy(&m_ReceiverMutex);
    delete[] m_pLocalIPs;
}

void CSocket::GetLocalIPs() {
    CUtility::Debug("CSocket::GetLocalIPs - getting local ip addresses");
    std::array<char, 256> host_name{};
    if (gethostname(host_name.data(), host_name.size()) != 0) {
        return;
    }
    CUtility::Debug("CSocket::GetLocalIPs - %s", host_name.data());
    try {
        const std::vector<in_addr> addresses = detail::AddressesOf(host_name.data());
        if (addresses.empty()) {
            return;
        }
        auto local_ips = std::make_unique<CIPString[]>(addresses.size());
        for (std::size_t i = 0; i < addresses.size(); ++i) {
            local_ips[i] = IPv4::IPAddress(addresses[i]);
            CUtility::Debug("CSocket::GetLocalIPs - local ip %s", local_ips[i].c_str());
        }
        delete[] m_pLocalIPs;
        m_pLocalIPs = local_ips.release();
        m_nLocalIPs = static_cast<std::int32_t>(addresses.size());
    } catch (const std::bad_alloc&) {
        // The list stays as it was: empty, where it is the first one.
    }
}

bool CSocket::StartClient() {
    SetAside(m_socSender.exchange(0));
    const int fd = MakeRoomToSetAside() ? detail::AwayFromStandardStreams(OpenSenderSocket()) : -1;
    if (fd >= 0) {
        const int on = 1;
        if (!m_bMulticastSender) {
            SetSocketOption(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
        }
        SwitchLingerOn(fd);
        SetSocketOption(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer_size, sizeof send_buffer_size);
        if (m_bLoopBackOff) {
            SwitchMulticastLoopOff(fd);
        }
    }
    m_socSender = fd;
    CUtility::Debug("CSocket::StartClient() - creating sender socket %d", fd);
    if (fd < 0) {
        CUtility::Debug("CSocket::StartClient() - sender error %d", fd);
    }
    return fd >= 0;
}

int CSocket::SwitchLingerOn(int fd) {
    const linger no_time{1, 0};
    return SetSocketOption(fd, SOL_SOCKET, SO_LINGER, &no_time, sizeof no_time);
}

int CSocket::OpenSenderSocket() const {
    switch (GetConnectionType()) {
        case CONNECTION_UDP:
            return detail::OpenSocket(SOCK_DGRAM, IPPROTO_UDP);
        case CONNECTION_DATAGRAM:
            return detail::OpenSocket(SOCK_DGRAM, 0);
        case CONNECTION_ICMP:
            return detail::OpenSocket(SOCK_RAW, IPPROTO_ICMP);
        default:
            return detail::OpenSocket(SOCK_STREAM, 0);
    }
}

bool CSocket::ConstructDestinationAddr(const char* host, unsigned int port, sockaddr_in& addr) {
    addr = sockaddr_in{};
    addr.sin_family = AF_INET;
    if (port > std::numeric_limits<std::uint16_t>::max()) {
        return false;
    }
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool any = host == nullptr || *host == '\0';
    addr.sin_addr.s_addr = any ? htonl(INADDR_ANY) : inet_addr(host);
    if (addr.sin_addr.s_addr != INADDR_NONE) {
        return true;
    }
    try {
        const std::vector<in_addr> addresses = detail::AddressesOf(host);
        if (!addresses.empty()) {
            addr.sin_addr = addresses.front();
        }
        return !addresses.empty();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool CSocket::Connect(const char* host, unsigned int port) {
    sockaddr_in address;
    if (!StartClient() || !ConstructDestinationAddr(host, port, address)) {
        return false;
    }
    {
        const PosixLock lock(m_SenderMutex);
        if (!detail::ConnectTo(SenderUnderLock(), address)) {
            CUtility::Debug("CSocket::Connect - failed to connect with error %d", -1);
            return false;
        }
    }
    // Kept: the connection stands, but a second receiver is never started.
    if (m_bReceiversRunning || m_pReceivers[0] != nullptr) {
        return false;
    }
    m_bReceiversRunning = MakeReceiverThread(0) && StartReceiverThread(0);
    m_nReceiverThreads = 1;
    OnConnected();
    return true;
}

void CSocket::SelectInterface(char* ifname) {
    const char* const name = ifname != nullptr ? ifname : "";
    const auto length = static_cast<unsigned int>(std::strlen(name));
    const SocketUse sender = UseSender();
    if (SetSocketOption(sender.Get(), SOL_SOCKET, SO_BINDTODEVICE, name, length) != 0) {
        std::perror("selectinterface: ");
    }
}

int CSocket::SetSocketOption(int fd, int level, int name, const void* value, unsigned int length) {
    return setsockopt(fd, level, name, value, length);
}

SocketUse CSocket::UseSender() {
    return {m_socSender, m_nSenderUsers};
}

SocketUse CSocket::UseReceiver() {
    return {m_fdReceiver, m_nReceiverUsers};
}

int CSocket::SenderUnderLock() const {
    const int fd = m_socSender;
    return fd > 0 ? fd : -1;
}

bool CSocket::Send(const char* host, unsigned int port, const char* data, long length) {
    bool ok = false;
    {
        const PosixLock lock(m_SenderMutex);
        sockaddr_in to;
        if (ConstructDestinationAddr(host, port, to)) {
            CUtility::Debug("CSocket::Send - to %s", detail::Printable(host));
            ok = IsLength(length) &&
                 detail::SendToNow(SenderUnderLock(), data, static_cast<std::size_t>(length), to) >= 0;
            if (!ok) {
                const int error = errno;
                detail::PrintLine("sendto (%.400s) failed with errno = %d (%s)\n", detail::Printable(host), error,
                                  std::strerror(error));
            }
        }
    }
    CUtility::ConditionalDebug("CSocket::Send - send", ok);
    return ok;
}

bool CSocket::Send(const char* data, long length) {
    if (m_bMultiConnectionServer) {
        return false;
    }
    const PosixLock lock(m_SenderMutex);
    const int fd = SenderUnderLock();
    return fd != -1 && IsLength(length) && detail::SendNow(fd, data, static_cast<std::size_t>(length)) != -1;
}

bool CSocket::Send(int socket, const char* data, long length) {
    const PosixLock lock(m_SenderMutex);
    return m_bMultiConnectionServer && CAsyncIO::Send(socket, data, length);
}

bool CSocket::Disconnect() {
    if (m_bMultiConnectionServer || m_socSender == 0) {
        return false;
    }
    const PosixLock lock(m_SenderMutex);
    CloseSender();
    CloseReceiver();
    m_bServerStarted = false;
    return true;
}

void CSocket::CloseSender() {
    CloseOrSetAside(m_socSender.exchange(0), m_nSenderUsers);
}

void CSocket::CloseReceiver() {
    CloseOrSetAside(m_fdReceiver.exchange(-1), m_nReceiverUsers);
}

void CSocket::CloseOrSetAside(int fd, const std::atomic<std::int32_t>& users) {
    if (!detail::CloseUnused(fd, users)) {
        SetAside(fd);
    }
}

bool CSocket::MakeRoomToSetAside() {
    try {
        const CScopedLocker<CStaticMutex> lock(m_ListMutex);
        // For the sender and the receiver.
        m_SetAside.reserve(m_SetAside.size() + 2);
        return true;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
}

void CSocket::SetAside(int fd) {
    if (fd > 0) {
        const CScopedLocker<CStaticMutex> lock(m_ListMutex);
        // There is room: it was made before the socket was.
        m_SetAside.push_back(fd);
    }
}

void CSocket::CloseWhatIsLeft() {
    CloseSender();
    CloseReceiver();
    const CScopedLocker<CStaticMutex> lock(m_ListMutex);
    for (const int fd : m_SetAside) {
        detail::CloseDescriptor(fd);
    }
    m_SetAside.clear();
}

void CSocket::OnConnected() {
    CUtility::Debug("CSocket::OnConnected");
}

void CSocket::OnTerminated() {
    CUtility::Debug("CSocket::OnTerminated");
}

void CSocket::OnReceivedData(char* data, long /*length*/) {
    CUtility::Debug("CSocket::OnReceivedData client - %s", data);
}

void CSocket::OnReceivedData(char* data, long /*length*/, timeval& received) {
    CUtility::Debug("CSocket::OnReceivedData client - (time %d s %d us) %s", static_cast<int>(received.tv_sec),
                    static_cast<int>(received.tv_usec), data);
}

void CSocket::OnReceivedData(char* data, long /*length*/, const CIPString& /*from*/) {
    CUtility::Debug("CSocket::OnReceivedData client - %s", data);
}

void CSocket::OnReceivedEchoReply(const CIPString& /*from*/, double /*rttMs*/) {}

void CSocket::OnConnected(int socket) {
    CUtility::Debug("CSocket::OnConnected server - %d", socket);
}

void CSocket::OnTerminated(int socket) {
    CUtility::Debug("CSocket::OnTerminated server - %d", socket);
}

void CSocket::OnReceivedData(int /*socket*/, char* data, long /*length*/) {
    // Kept: the number is the pointer's, not the socket's.
    CUtility::Debug("CSocket::OnReceivedData server - %d", static_cast<int>(reinterpret_cast<std::intptr_t>(data)));
}

}  // namespace TarnSocketIO

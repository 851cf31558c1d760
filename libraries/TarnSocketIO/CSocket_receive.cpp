// The endpoint's server side: its start, its receive passes, its end.

#include <net/ethernet.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <limits>
#include <new>

#include <TarnSocketIO/CDataReceiver.h>
#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/array_auto_ptr.h>
#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/PosixLock.h>
#include <TarnSocketIO/detail/PrintLine.h>
#include <TarnSocketIO/detail/SocketCalls.h>
#include <TarnSocketIO/detail/SocketUse.h>

namespace TarnSocketIO {

using detail::PosixLock;
using detail::SocketUse;

namespace {

constexpr int receive_buffer_size = 0x1FFFE;
constexpr int frame_buffer_size = 0x3FFFC;

// A wait is cut into slices of this length, so that whoever waits looks up now and then: link-layer sockets cannot wake
// their readers when they are closed.
constexpr int longest_slice_ms = 500;

/// @return how long to wait next of a wait that has `rest` milliseconds to go, or no end.
int SliceOf(int rest) {
    return rest < 0 ? longest_slice_ms : std::min(rest, longest_slice_ms);
}

/// Waits `slice` milliseconds at first, and then slice by slice for the rest of the time; ends early when `stopping`.
///
/// Not a member, so that the compiler makes it part of its one caller: a return right behind a system call is always
/// mispredicted, which is felt when datagrams are drained.
bool AwaitData(const SocketUse& socket, int slice, int rest, const std::atomic<bool>& stopping) {
    pollfd record{socket.Get(), detail::READ_EVENTS, 0};
    int ready;
    do {
        if (!socket.IsCurrent() || stopping) {
            return false;
        }
        ready = detail::WaitForEvents(&record, 1, slice);
        rest -= rest > 0 ? slice : 0;
        slice = SliceOf(rest);
    } while (ready == 0 && slice != 0);
    return (record.revents & detail::DATA_EVENTS) != 0;
}

}  // namespace

bool CSocket::StartServer(unsigned int port, const char* szGroup, const char* szLocalIf, int threads) {
    m_bServerStarted = true;
    if (m_bMultiConnectionServer) {
        CAsyncIO::Initialise(port, szGroup);
    }
    const CONNECTION_TYPE type = GetConnectionType();
    if (type == CONNECTION_UDP || type == CONNECTION_DATAGRAM) {
        CUtility::ConditionalDebug("CSocket::StartServer StartClient for connectionless replies",
                                   InitialiseLocalSockets(port, szGroup, szLocalIf, threads));
    }
    if (m_bAcceptorRunning || type != CONNECTION_STREAM) {
        return true;
    }
    m_bAcceptorRunning = !m_bTerminated && RunAcceptor();
    CUtility::ConditionalDebug("CSocket::StartServer - running connection acceptor", m_bAcceptorRunning);
    return m_bAcceptorRunning;
}

bool CSocket::InitialiseLocalSockets(unsigned int port, const char* szGroup, const char* szLocalIf, int threads) {
    CUtility::Debug("CSocket::InitialiseLocalSockets - threads %d", threads);
    m_uiPort = port;
    if (szGroup != nullptr) {
        detail::CopyText(m_szGroup, szGroup);
    }
    if (szLocalIf != nullptr) {
        detail::CopyText(m_szLocalIf, szLocalIf);
    }
    if (StartClient()) {
        BindSender(szLocalIf);
        if (!m_bSendOnly) {
            StartReceiverThreads(threads);
        }
    }
    // Kept: what failed is in the log.
    return true;
}

void CSocket::BindSender(const char* szLocalIf) {
    sockaddr_in address;
    if (!ConstructDestinationAddr(szLocalIf, 0, address)) {
        return;
    }
    const SocketUse sender = UseSender();
    if (m_bMulticastSender) {
        // The kernel looks for the interface's address where it is here, and for an index, which is zero, behind it.
        SetSocketOption(sender.Get(), IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof address);
    } else if (!detail::BindTo(sender.Get(), address)) {
        CUtility::Debug("CSocket::InitialiseLocalSockets sender socket failed to bind %d", -1);
    }
}

void CSocket::StartReceiverThreads(int threads) {
    const int count = std::min(threads, MAX_RECEIVERS);
    m_nReceiverThreads = count;
    InitialiseReceiver();
    m_bReceiversRunning = true;
    for (int slot = 0; slot < count; ++slot) {
        CUtility::Debug("CSocket::InitialiseLocalSockets - starting receiver thread %d of %d", slot + 1, count);
        // Kept: once one could not be started, the later ones are made but not started.
        m_bReceiversRunning = MakeReceiverThread(slot) && m_bReceiversRunning && StartReceiverThread(slot);
        CUtility::ConditionalDebug("CSocket::InitialiseLocalSockets - running receiver thread", m_bReceiversRunning);
    }
}

bool CSocket::MakeReceiverThread(int slot) {
    if (m_pReceivers[slot] == nullptr) {
        m_pReceivers[slot] = new (std::nothrow) CDataReceiver(this);
    }
    return m_pReceivers[slot] != nullptr;
}

bool CSocket::StartReceiverThread(int slot) {
    if (m_bTerminated) {
        return false;
    }
    // One that runs already is as good as a new one: it reads whatever the receiver socket is.
    return m_pReceivers[slot]->IsRunning() || m_pReceivers[slot]->RunReceiver();
}

bool CSocket::InitialiseReceiver() {
    SetAside(m_fdReceiver.exchange(-1));
    const int fd = MakeRoomToSetAside() ? detail::AwayFromStandardStreams(OpenReceiverSocket()) : -1;
    m_socReceiver = fd;
    m_fdReceiver = fd;
    // From here on others may close it.
    const SocketUse receiver = UseReceiver();
    if (fd >= 0) {
        SetReceiverOptions(receiver.Get());
        CUtility::Debug("initialised receiver: m_socReceiver %d\n", fd);
    }
    CUtility::Debug("CSocket::InitialiseReceiver - creating receiver socket %d, port %d if %s", fd,
                    static_cast<int>(m_uiPort), m_szLocalIf);
    if (GetConnectionType() == CONNECTION_PACKET) {
        BindFrameReceiver(receiver.Get());
    } else {
        BindReceiver(receiver.Get());
    }
    if (m_szGroup[0] != '\0') {
        JoinStartGroup(receiver.Get());
    }
    return fd >= 0;
}

int CSocket::OpenReceiverSocket() const {
    return GetConnectionType() == CONNECTION_PACKET ? detail::OpenPacketSocket(ETHERTYPE_IP) : OpenSenderSocket();
}

void CSocket::SetReceiverOptions(int fd) const {
    if (SwitchLingerOn(fd) == -1) {
        detail::PrintLine("set_sock_opt(SO_LINGER) failed : errno = %d\n", errno);
    }
    const int on = 1;
    if (SetSocketOption(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) {
        detail::PrintLine("set_sock_opt(SO_REUSEADDR) failed : errno = %d\n", errno);
    }
    const int size = GetConnectionType() == CONNECTION_PACKET ? frame_buffer_size : receive_buffer_size;
    if (SetSocketOption(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) == -1) {
        // Kept: the text names the option before.
        detail::PrintLine("set_sock_opt(SO_REUSEADDR) failed : errno = %d\n", errno);
    }
}

void CSocket::BindReceiver(int fd) const {
    sockaddr_in address;
    if (!ConstructDestinationAddr(m_szLocalIf, m_uiPort, address)) {
        CUtility::Debug("CSocket::InitialiseReceiver - ConstructDestinationAddr failed");
    } else if (!detail::BindTo(fd, address)) {
        const int error = errno;
        CUtility::Debug("CSocket::InitialiseReceiver - receiver socket bind failed %d (port %d)", -1,
                        static_cast<int>(m_uiPort));
        detail::PrintLine("CSocket::InitialiseReceiver - receiver socket bind failed errno = %d\n", error);
    }
}

void CSocket::BindFrameReceiver(int fd) {
    if (!detail::BindToFrames(fd, ETHERTYPE_IP)) {
        CUtility::Debug("CSocket::InitialiseReceiver - PF_PACKET receiver socket bind failed %d", -1);
    }
}

bool CSocket::RepairReceiverSocket() {
    DropAllGroups();
    CloseReceiver();
    return InitialiseReceiver();
}

void CSocket::ConnectionAcceptor() {
    {
        const PosixLock lock(m_SenderMutex);
        SetAside(m_socSender.exchange(0));
    }
    if (m_bMultiConnectionServer) {
        CAsyncIO::MultiConnectionAcceptor();
    }
}

void CSocket::DataReceiver(unsigned long /*thread*/) {
    if (m_bStopping) {
        return;
    }
    if (m_bMultiConnectionServer) {
        CAsyncIO::MultiConnectionPoller();
        return;
    }
    const PosixLock lock(m_ReceiverMutex);
    // The pass before may have outlasted the end.
    if (m_bStopping) {
        return;
    }
    // One more than a read may fill, for the terminator.
    const array_auto_ptr<char> buffer(new (std::nothrow) char[detail::READ_LENGTH + 1]);
    if (buffer.get() == nullptr) {
        CUtility::Debug("CSocket::DataReceiver - no memory for the receive buffer");
    } else if (GetConnectionType() == CONNECTION_ICMP) {
        ReceiveOneEchoReply(buffer.get());
    } else {
        ReceiveWhatIsThere(buffer.get());
    }
}

void CSocket::ReceiveWhatIsThere(char* buffer) {
    const int limit = m_iReceivesPerPass;
    int countdown = limit > 0 ? limit - 1 : std::numeric_limits<int>::max();
    const bool report_source = m_bReportSource && GetConnectionType() != CONNECTION_PACKET;
    sockaddr_in source{};
    sockaddr_in* const from = report_source ? &source : nullptr;
    long length = 0;
    bool ok = false;
    do {
        // After a receive the next data is often there, and to look is cheaper than to wait.
        const Patience patience = ok ? Patience::LookFirst : Patience::Wait;
        ok = Receive(UseReceiver(), patience, buffer, detail::READ_LENGTH, from, length) && length >= 0;
        if (ok) {
            Deliver(buffer, length, from);
        }
        if (limit > 0) {
            --countdown;
        }
    } while (ok && countdown > 0);
}

void CSocket::Deliver(char* buffer, long length, const sockaddr_in* from) {
    if (length < 1) {
        OnTerminated();
        return;
    }
    buffer[length] = '\0';
    try {
        if (m_bTimestamp) {
            OnReceivedData(buffer, length, m_tvReceived);
        } else if (from != nullptr) {
            OnReceivedData(buffer, length, CIPString(IPv4::IPAddress(from->sin_addr)));
        } else {
            OnReceivedData(buffer, length);
        }
    } catch (...) {
        CUtility::Debug("CSocket::DataReceiver - OnReceivedData threw exception!");
    }
}

bool CSocket::ReceiveData(char* buffer, long& length, sockaddr_in* from, bool bSender) {
    long received = 0;
    const bool ok =
        Receive(bSender ? UseSender() : UseReceiver(), Patience::Wait, buffer, detail::READ_LENGTH, from, received) &&
        received != -1;
    if (ok) {
        length = received;
    }
    return ok;
}

bool CSocket::ReceiveDataSensibly(char* buffer, long size, sockaddr_in* from, long& received, bool bSender) {
    received = 0;
    return Receive(bSender ? UseSender() : UseReceiver(), Patience::Wait, buffer, size, from, received) &&
           received == size;
}

bool CSocket::Receive(const SocketUse& socket, Patience patience, char* buffer, long size, sockaddr_in* from,
                      long& received) {
    const int timeout = m_iPollTimeout;
    const int first_wait = patience == Patience::LookFirst ? 0 : SliceOf(timeout);
    if (size < 0 || !AwaitData(socket, first_wait, timeout, m_bStopping)) {
        return false;
    }
    CUtility::Debug("CSocket::DataReceiver - received POLLIN or POLLPRI events");
    if (m_bTimestamp) {
        gettimeofday(&m_tvReceived, nullptr);
    }
    const auto room = static_cast<std::size_t>(size);
    long result;
    if (from != nullptr && GetConnectionType() != CONNECTION_PACKET) {
        result = detail::ReceiveFrom(socket.Get(), buffer, room, *from);
    } else {
        result = detail::Receive(socket.Get(), buffer, room);
    }
    // Whoever closes a socket ends the reads on it first, which looks as if its peer had.
    if (!socket.IsCurrent()) {
        return false;
    }
    received = result;
    return true;
}

bool CSocket::TerminateAll() {
    if (m_bTerminated) {
        return false;
    }
    m_bStopping = true;
    const bool ok = Disconnect();
    CUtility::ConditionalDebug("CSocket::TerminateAll - Disconnect()", ok);
    DropAllGroups();
    CAsyncIO::StopListener();
    if (m_bAcceptorRunning) {
        CUtility::Debug("CSocket::TerminateAll - stopping acceptor thread");
        StopAcceptor();
    }
    if (m_bReceiversRunning) {
        CUtility::Debug("CSocket::TerminateAll - stopping receiver threads");
    }
    // Also where a later one could not be started, and the flag is down.
    StopReceiverThreads();
    m_bTerminated = true;
    // A thread that is still in a notification finds nothing to receive when it comes back.
    m_bStopping = AreThreadsLeft();
    return ok;
}

void CSocket::StopReceiverThreads() {
    for (CDataReceiver*& receiver : m_pReceivers) {
        // One that is still in a notification uses itself and the endpoint: it stays.
        if (receiver == nullptr || (receiver->IsRunning() && !receiver->StopReceiver())) {
            continue;
        }
        delete receiver;
        receiver = nullptr;
    }
}

bool CSocket::AreThreadsLeft() const {
    // Of the receivers only those that run are left after StopReceiverThreads.
    return IsRunning() || std::any_of(std::begin(m_pReceivers), std::end(m_pReceivers),
                                      [](const CDataReceiver* receiver) { return receiver != nullptr; });
}

void CSocket::AwaitThreads() {
    // What they use goes away now, so there is nothing else to do for as long as a notification takes.
    m_bStopping = true;
    while (AreThreadsLeft()) {
        if (IsRunning()) {
            StopAcceptor();
        }
        StopReceiverThreads();
    }
}

void CDataReceiver::Do() {
    if (m_pSocket != nullptr) {
        m_pSocket->DataReceiver(pthread_self());
    }
}

}  // namespace TarnSocketIO

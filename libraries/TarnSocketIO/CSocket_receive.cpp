// The endpoint's server side: its start, its receive passes, its end.

#include <net/ethernet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <iostream>
#include <limits>
#include <new>

#include <TarnSocketIO/CDataReceiver.h>
#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/array_auto_ptr.h>
#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/PosixLock.h>
#include <TarnSocketIO/detail/SocketCalls.h>
#include <TarnSocketIO/detail/SocketUse.h>

namespace TarnSocketIO {

using detail::PosixLock;
using detail::SocketUse;

namespace {

constexpr int receive_buffer_size = 0x1FFFE;
constexpr int frame_buffer_size = 0x3FFFC;
constexpr long receive_length = 131070;

constexpr short data_events = POLLIN | POLLPRI;

// A wait is cut into slices of this length, so that whoever waits looks up now and then: link-layer sockets cannot wake
// their readers when they are closed.
constexpr int longest_slice_ms = 500;

/// @return how long to wait next of a wait that has `rest` milliseconds to go, or no end.
int SliceOf(int rest) {
    return rest < 0 ? longest_slice_ms : std::min(rest, longest_slice_ms);
}

/// Prints a line that ends with the reason of a failed call.
void PrintErrno(const char* text, int error) {
    std::array<char, 128> line;
    std::snprintf(line.data(), line.size(), "%s%d\n", text, error);
    std::cout << line.data() << std::flush;
}

}  // namespace

bool CSocket::StartServer(unsigned int port, const char* szGroup, const char* szLocalIf, int threads) {
    m_bServerStarted = true;
    if (m_bMultiConnectionServer) {
        CAsyncIO::Initialise(port, szGroup);
    }
    const CONNECTION_TYPE type = GetConnectionType();
    if (type == CONNECTION_UDP || type == CONNECTION_DATAGRAM) {
        LogOutcome("CSocket::StartServer StartClient for connectionless replies",
                   InitialiseLocalSockets(port, szGroup, szLocalIf, threads));
    }
    if (m_bAcceptorRunning || type != CONNECTION_STREAM) {
        return true;
    }
    m_bAcceptorToStop = RunAcceptor();
    m_bAcceptorRunning = m_bAcceptorToStop;
    LogOutcome("CSocket::StartServer - running connection acceptor", m_bAcceptorRunning);
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
            StartReceivers(threads);
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
    if (m_bMulticastSender) {
        // The kernel reads the interface's address at the place of the port's, and an index, which is zero, behind it.
        SetSocketOption(m_socSender, IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof address);
    } else if (!detail::BindTo(m_socSender, address)) {
        CUtility::Debug("CSocket::InitialiseLocalSockets sender socket failed to bind %d", -1);
    }
}

void CSocket::StartReceivers(int threads) {
    const int count = std::min(threads, MAX_RECEIVERS);
    m_nReceiverThreads = count;
    InitialiseReceiver();
    m_bReceiversRunning = true;
    for (int slot = 0; slot < count; ++slot) {
        CUtility::Debug("CSocket::InitialiseLocalSockets - starting receiver thread %d of %d", slot + 1, count);
        // Kept: once one could not be started, the later ones are made but not started.
        m_bReceiversRunning = MakeReceiver(slot) && m_bReceiversRunning && StartReceiver(slot);
        LogOutcome("CSocket::InitialiseLocalSockets - running receiver thread", m_bReceiversRunning);
    }
}

bool CSocket::MakeReceiver(int slot) {
    if (m_pReceivers[slot] == nullptr) {
        m_pReceivers[slot] = new (std::nothrow) CDataReceiver(this);
    }
    return m_pReceivers[slot] != nullptr;
}

bool CSocket::StartReceiver(int slot) {
    // One that runs already is as good as a new one: it reads whatever the receiver socket is.
    if (!m_bReceiverStarted[slot]) {
        m_bReceiverStarted[slot] = m_pReceivers[slot]->RunReceiver();
    }
    return m_bReceiverStarted[slot];
}

bool CSocket::InitialiseReceiver() {
    SetAside(m_fdReceiver.exchange(-1));
    const int fd = OpenReceiverSocket();
    m_socReceiver = fd;
    m_fdReceiver = fd;
    if (fd >= 0) {
        SetReceiverOptions(fd);
        CUtility::Debug("initialised receiver: m_socReceiver %d\n", fd);
    }
    CUtility::Debug("CSocket::InitialiseReceiver - creating receiver socket %d, port %u if %s", fd, m_uiPort,
                    m_szLocalIf);
    if (GetConnectionType() == CONNECTION_PACKET) {
        BindFrameReceiver(fd);
    } else {
        BindReceiver(fd);
    }
    if (m_szGroup[0] != '\0') {
        JoinStartGroup(fd);
    }
    return fd >= 0;
}

int CSocket::OpenReceiverSocket() const {
    return GetConnectionType() == CONNECTION_PACKET ? detail::OpenPacketSocket(ETHERTYPE_IP) : OpenSenderSocket();
}

void CSocket::SetReceiverOptions(int fd) const {
    const linger no_time{1, 0};
    if (SetSocketOption(fd, SOL_SOCKET, SO_LINGER, &no_time, sizeof no_time) == -1) {
        PrintErrno("set_sock_opt(SO_LINGER) failed : errno = ", errno);
    }
    const int on = 1;
    if (SetSocketOption(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) {
        PrintErrno("set_sock_opt(SO_REUSEADDR) failed : errno = ", errno);
    }
    const int size = GetConnectionType() == CONNECTION_PACKET ? frame_buffer_size : receive_buffer_size;
    if (SetSocketOption(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) == -1) {
        // Kept: the text names the option before.
        PrintErrno("set_sock_opt(SO_REUSEADDR) failed : errno = ", errno);
    }
}

void CSocket::BindReceiver(int fd) const {
    sockaddr_in address;
    if (!ConstructDestinationAddr(m_szLocalIf, m_uiPort, address)) {
        CUtility::Debug("CSocket::InitialiseReceiver - ConstructDestinationAddr failed");
    } else if (!detail::BindTo(fd, address)) {
        const int error = errno;
        CUtility::Debug("CSocket::InitialiseReceiver - receiver socket bind failed %d (port %u)", -1, m_uiPort);
        PrintErrno("CSocket::InitialiseReceiver - receiver socket bind failed errno = ", error);
    }
}

void CSocket::BindFrameReceiver(int fd) {
    if (!detail::BindToFrames(fd, ETHERTYPE_IP)) {
        CUtility::Debug("CSocket::InitialiseReceiver - PF_PACKET receiver socket bind failed %d", -1);
    }
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
    if (m_bMultiConnectionServer) {
        CAsyncIO::MultiConnectionPoller();
        return;
    }
    const PosixLock lock(m_ReceiverMutex);
    // One more than a read may fill, for the terminator.
    const array_auto_ptr<char> buffer(new (std::nothrow) char[receive_length + 1]);
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
        const bool look_first = ok;
        ok = Receive(buffer, receive_length, from, length, false, look_first) && length >= 0;
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
    const bool ok = Receive(buffer, receive_length, from, received, bSender, false) && received != -1;
    if (ok) {
        length = received;
    }
    return ok;
}

bool CSocket::ReceiveDataSensibly(char* buffer, long size, sockaddr_in* from, long& received, bool bSender) {
    received = 0;
    return Receive(buffer, size, from, received, bSender, false) && received == size;
}

bool CSocket::Receive(char* buffer, long size, sockaddr_in* from, long& received, bool from_sender, bool look_first) {
    const SocketUse socket(from_sender ? m_socSender : m_fdReceiver, from_sender ? m_nSenderUsers : m_nReceiverUsers);
    if (!AwaitData(socket, look_first)) {
        return false;
    }
    CUtility::Debug("CSocket::DataReceiver - received POLLIN or POLLPRI events");
    if (m_bTimestamp) {
        gettimeofday(&m_tvReceived, nullptr);
    }
    const auto room = static_cast<std::size_t>(std::max(size, 0L));
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

bool CSocket::AwaitData(const SocketUse& socket, bool look_first) const {
    pollfd record{socket.Get(), detail::READ_EVENTS, 0};
    int rest = m_iPollTimeout;
    int slice = look_first ? 0 : SliceOf(rest);
    int ready;
    do {
        if (!socket.IsCurrent() || m_bStopping) {
            return false;
        }
        ready = detail::WaitForEvents(&record, 1, slice);
        rest -= rest > 0 ? slice : 0;
        slice = SliceOf(rest);
    } while (ready == 0 && slice != 0);
    return (record.revents & data_events) != 0;
}

bool CSocket::TerminateAll() {
    if (m_bTerminated) {
        return false;
    }
    m_bStopping = true;
    const bool ok = Disconnect();
    LogOutcome("CSocket::TerminateAll - Disconnect()", ok);
    DropAllGroups();
    CAsyncIO::StopListener();
    if (m_bAcceptorRunning) {
        CUtility::Debug("CSocket::TerminateAll - stopping acceptor thread");
    }
    StopAcceptorThread();
    if (m_bReceiversRunning) {
        CUtility::Debug("CSocket::TerminateAll - stopping receiver threads");
    }
    // Also where a later one could not be started, and the flag is down.
    StopReceivers();
    m_bTerminated = true;
    m_bStopping = false;
    return ok;
}

void CSocket::StopAcceptorThread() {
    if (m_bAcceptorToStop && StopAcceptor()) {
        m_bAcceptorToStop = false;
    }
}

void CSocket::StopReceivers() {
    for (int slot = 0; slot < MAX_RECEIVERS; ++slot) {
        // One that is still in a notification uses itself and the endpoint: it stays.
        if (m_bReceiverStarted[slot] && !m_pReceivers[slot]->StopReceiver()) {
            continue;
        }
        delete m_pReceivers[slot];
        m_pReceivers[slot] = nullptr;
        m_bReceiverStarted[slot] = false;
    }
}

bool CSocket::AreThreadsLeft() const {
    return m_bAcceptorToStop || std::find(m_bReceiverStarted, m_bReceiverStarted + MAX_RECEIVERS, true) !=
                                    m_bReceiverStarted + MAX_RECEIVERS;
}

void CSocket::AwaitThreads() {
    // What they use goes away now, so there is nothing else to do for as long as a notification takes.
    m_bStopping = true;
    while (AreThreadsLeft()) {
        StopAcceptorThread();
        StopReceivers();
    }
}

void CDataReceiver::Do() {
    if (m_pSocket != nullptr) {
        m_pSocket->DataReceiver(pthread_self());
    }
}

}  // namespace TarnSocketIO

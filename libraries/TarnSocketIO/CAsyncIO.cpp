#include <TarnSocketIO/CAsyncIO.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/Descriptor.h>
#include <TarnSocketIO/detail/HostNames.h>
#include <TarnSocketIO/detail/Pause.h>
#include <TarnSocketIO/detail/SocketCalls.h>

namespace TarnSocketIO {

using detail::Descriptor;

namespace {

using Locker = CScopedLocker<CStaticMutex>;

constexpr std::size_t max_connections = 20;
constexpr std::size_t receive_length = detail::READ_LENGTH;
constexpr int poll_timeout_ms = 500;
constexpr int listen_backlog = 128;

// Accepted connections inherit it. With 0, closing one would throw away data on its way to the peer.
constexpr int linger_seconds = 1;

/// Whether accept will fail in the same way if it is called again at once: descriptors or memory have run out, or there
/// is no listener any more.
bool IsLasting(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM || error == EBADF;
}

/// Makes passes exclusive without anybody waiting: the one that finds another running is not entered.
class ExclusivePass {
public:
    explicit ExclusivePass(std::atomic<bool>& busy) : m_busy(busy), m_entered(!busy.exchange(true)) {}
    ~ExclusivePass() {
        if (m_entered) {
            m_busy = false;
        }
    }
    ExclusivePass(const ExclusivePass&) = delete;
    ExclusivePass& operator=(const ExclusivePass&) = delete;

    bool IsEntered() const { return m_entered; }

private:
    std::atomic<bool>& m_busy;
    const bool m_entered;
};

}  // namespace

/// What one pass leaves to the next, so that a pass neither allocates nor needs a large stack.
struct CAsyncIO::PollerState {
    std::atomic<bool> busy{false};

    // The poll set changes only when connections come or go. It shares the contexts, so that none of them is freed, and
    // no new one can get its address, while the set still means it.
    std::array<pollfd, max_connections> set{};
    std::array<Context, max_connections> contexts;
    std::size_t count = 0;

    std::array<char, receive_length + 2> buffer{};  // zero from `used` on
    std::size_t used = 0;
};

enum class CAsyncIO::Outcome { Nothing, Data, Ended };

CAsyncIO::CAsyncIO(CONNECTION_TYPE type)
    : m_ConnectionType(type),
      m_nListenerPort(0),
      m_bInitialised(false),
      m_szMulticastGroup(),
      m_bContextsChanged(false),
      m_EndingThread() {}

CAsyncIO::~CAsyncIO() {
    // Kept: only StopListener closes the listener.
    if (m_pListener != nullptr) {
        m_pListener->Release();
    }
}

bool CAsyncIO::Initialise(unsigned int port, const char* group) {
    if (IsInitialised()) {
        return false;
    }
    m_nListenerPort = port;
    if (m_ConnectionType == CONNECTION_DATAGRAM && group != nullptr) {
        detail::CopyText(m_szMulticastGroup, group);
    }
    m_pPoller.reset(new (std::nothrow) PollerState);
    if (m_pPoller != nullptr && CreateListenerSocket()) {
        const Locker lock(m_StateMutex);
        m_bInitialised = true;
    }
    // Kept: a listener that could not be opened is not a failure of this call. Every pass of the poller reports it.
    return true;
}

bool CAsyncIO::CreateListenerSocket() {
    StopListener();
    const int fd = OpenListener();
    return fd > 0 && PrepareListener(fd);
}

int CAsyncIO::OpenListener() {
    const bool datagrams = m_ConnectionType == CONNECTION_UDP || m_ConnectionType == CONNECTION_DATAGRAM;
    const int type = datagrams ? SOCK_DGRAM : SOCK_STREAM;
    const int protocol = m_ConnectionType == CONNECTION_UDP ? IPPROTO_UDP : 0;
    try {
        auto listener = std::make_shared<Descriptor>();
        listener->Reset(detail::OpenSocket(type, protocol));
        const int fd = listener->Get();
        if (fd > 0) {
            const Locker lock(m_StateMutex);
            m_pListener = std::move(listener);
        }
        return fd;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

bool CAsyncIO::PrepareListener(int fd) const {
    if (!detail::SetLinger(fd, linger_seconds)) {
        CUtility::Debug("CAsyncIO::CreateListenerSocket() - setsockopt failed");
        detail::ShutDown(fd);
        return false;
    }
    const bool bound = detail::BindToPort(fd, m_nListenerPort);
    if (m_ConnectionType == CONNECTION_DATAGRAM && !detail::JoinMulticastGroup(fd, m_szMulticastGroup)) {
        CUtility::Debug("CAsyncIO::CreateListenerSocket - failed to join multicast group");
    }
    if (m_ConnectionType != CONNECTION_STREAM) {
        // Kept: only a stream listener reports that it could not be bound.
        return true;
    }
    if (!bound) {
        CUtility::Debug("CAsyncIO::CreateListenerSocket - failed to bind socket");
        return false;
    }
    if (!detail::Listen(fd, listen_backlog)) {
        CUtility::Debug("CAsyncIO::CreateListenerSocket - listen failed");
        return false;
    }
    return true;
}

bool CAsyncIO::MultiConnectionAcceptor() {
    // Whatever there is no use in trying again at once is followed by a step, so that a loop around this does not spin.
    if (!IsInitialised() || AreAllConnectionsTaken()) {
        detail::PauseOneStep();
        return false;
    }
    sockaddr_in peer{};
    Descriptor connection(AcceptFromListener(peer));
    if (connection.Get() == -1) {
        const int error = errno;
        CUtility::Debug("CAsyncIO::MultiConnectionAcceptor() - accept returned bad socket");
        if (IsLasting(error)) {
            detail::PauseOneStep();
        }
        return false;
    }
    CUtility::Debug("CAsyncIO::MultiConnectionAcceptor - new connection");
    try {
        Register(connection.Get(), detail::HostNameOf(peer.sin_addr));
    } catch (const std::bad_alloc&) {
        detail::PauseOneStep();
        return false;
    }
    const int socket = connection.Release();
    OnConnected(socket);
    return true;
}

bool CAsyncIO::AreAllConnectionsTaken() const {
    const Locker lock(m_MapMutex);
    return m_mapContexts.size() >= max_connections;
}

int CAsyncIO::AcceptFromListener(sockaddr_in& peer) const {
    const std::shared_ptr<Descriptor> listener = ListenerInUse();
    if (listener == nullptr) {
        errno = EBADF;
        return -1;
    }
    return detail::Accept(listener->Get(), peer);
}

void CAsyncIO::Register(int socket, const std::string& host_name) {
    auto context = std::make_shared<_SOCKET_CONTEXT>();
    detail::CopyText(context->m_szHostName, host_name);
    context->m_PollFd.fd = socket;
    context->m_PollFd.events = detail::READ_EVENTS;

    const Locker lock(m_MapMutex);
    m_mapContexts[socket] = std::move(context);
    m_bContextsChanged = true;
}

bool CAsyncIO::MultiConnectionPoller() {
    if (!IsInitialised()) {
        CUtility::Debug("CAsyncIO::MultiConnectionPoller - poller failed, uninitialised async object");
        return false;
    }
    const ExclusivePass pass(m_pPoller->busy);
    if (pass.IsEntered()) {
        if (m_ConnectionType == CONNECTION_STREAM) {
            PollConnections();
        } else {
            PollListener();
        }
    }
    return false;
}

void CAsyncIO::PollConnections() {
    RefreshPollSet();
    PollerState& poller = *m_pPoller;
    if (poller.count == 0) {
        return;
    }
    int ready = detail::WaitForEvents(poller.set.data(), poller.count, poll_timeout_ms);
    for (std::size_t i = 0; ready > 0 && i < poller.count; ++i) {
        if (poller.set[i].revents != 0) {
            --ready;
            ServeConnection(poller.set[i], poller.contexts[i]);
        }
    }
}

void CAsyncIO::RefreshPollSet() {
    PollerState& poller = *m_pPoller;
    const Locker lock(m_MapMutex);
    if (!m_bContextsChanged) {
        return;
    }
    m_bContextsChanged = false;
    poller.contexts = {};
    poller.count = 0;
    for (const auto& entry : m_mapContexts) {
        if (poller.count == max_connections) {
            break;
        }
        poller.set[poller.count] = entry.second->m_PollFd;
        poller.contexts[poller.count] = entry.second;
        ++poller.count;
    }
}

void CAsyncIO::ServeConnection(const pollfd& ready, const Context& context) {
    if (!IsStillRegistered(context)) {
        return;
    }
    long length = 0;
    switch (ReceiveOnce(ready, length)) {
        case Outcome::Data:
            NotifyReceivedData(ready.fd, length);
            break;
        case Outcome::Ended:
            EndConnection(context);
            break;
        case Outcome::Nothing:
            break;
    }
}

bool CAsyncIO::IsStillRegistered(const Context& context) const {
    const Locker lock(m_MapMutex);
    const auto found = m_mapContexts.find(context->m_PollFd.fd);
    return found != m_mapContexts.end() && found->second == context;
}

void CAsyncIO::PollListener() {
    std::shared_ptr<Descriptor> listener = ListenerInUse();
    if (listener == nullptr) {
        return;
    }
    pollfd ready{listener->Get(), detail::READ_EVENTS, 0};
    if (detail::WaitForEvents(&ready, 1, poll_timeout_ms) <= 0) {
        return;
    }
    long length = 0;
    const Outcome outcome = ReceiveOnce(ready, length);
    // Let go before the application is called: it may stop the listener there, which waits for its users.
    listener.reset();
    // An empty datagram or a hang-up ends nothing here: there is no connection, and the listener stays.
    if (outcome == Outcome::Data) {
        NotifyReceivedData(ready.fd, length);
    }
}

CAsyncIO::Outcome CAsyncIO::ReceiveOnce(const pollfd& ready, long& length) {
    if ((ready.revents & detail::DATA_EVENTS) == 0) {
        if ((ready.revents & POLLHUP) == 0) {
            return Outcome::Nothing;
        }
        CUtility::Debug("CAsyncIO::MultiConnectionPoller - received POLLHUP event");
        return Outcome::Ended;
    }
    CUtility::Debug("CAsyncIO::MultiConnectionPoller - received POLLIN or POLLPRI event");
    PollerState& poller = *m_pPoller;
    length = detail::Receive(ready.fd, poller.buffer.data(), receive_length);
    if (length < 0) {
        return Outcome::Nothing;
    }
    if (length == 0) {
        CUtility::Debug("CAsyncIO::MultiConnectionPoller - received 0 data, lost connection");
        return Outcome::Ended;
    }
    // All behind the data is zero, as if the whole buffer had been cleared: only the last read has left anything there.
    const std::size_t received = static_cast<std::size_t>(length);
    const std::size_t end = std::max(poller.used, received + 1);
    std::memset(poller.buffer.data() + received, 0, end - received);
    poller.used = received;
    return Outcome::Data;
}

void CAsyncIO::NotifyReceivedData(int socket, long length) {
    try {
        OnReceivedData(socket, m_pPoller->buffer.data(), length);
    } catch (...) {
        CUtility::Debug("CAsyncIO::MultiConnectionPoller - OnReceivedData exception!");
    }
}

void CAsyncIO::EndConnection(const Context& context) {
    CUtility::Debug("CAsyncIO::MultiConnectionPoller - removing socket context");
    const int socket = context->m_PollFd.fd;
    {
        const Locker lock(m_MapMutex);
        m_pEnding = context;
        m_EndingThread = pthread_self();
    }
    try {
        OnTerminated(socket);
    } catch (...) {
        CUtility::Debug("CAsyncIO::MultiConnectionPoller - OnConnectionTerminated exception!");
    }
    const Locker lock(m_MapMutex);
    m_pEnding.reset();
    m_bContextsChanged = true;
    // The application has closed the descriptor by now, and the acceptor may already have been given its number again.
    const auto found = m_mapContexts.find(socket);
    if (found != m_mapContexts.end() && found->second == context) {
        m_mapContexts.erase(found);
    }
}

bool CAsyncIO::Send(int socket, const char* data, long length) {
    if (!IsInitialised()) {
        return false;
    }
    {
        // Held while sending: a connection cannot end, and its number not go to another peer, in between.
        const Locker lock(m_MapMutex);
        const auto found = m_mapContexts.find(socket);
        // In OnTerminated the descriptor is closed; only the thread that does it knows whether it has been yet.
        const bool usable = found != m_mapContexts.end() &&
                            (found->second != m_pEnding || pthread_equal(m_EndingThread, pthread_self()) != 0);
        if (usable) {
            return length >= 0 && detail::SendNow(socket, data, static_cast<std::size_t>(length)) != -1;
        }
    }
    CUtility::Debug("CAsyncIO::Send - failed to find context for socket");
    return false;
}

void CAsyncIO::StopListener() {
    std::weak_ptr<Descriptor> users;
    {
        const Locker lock(m_StateMutex);
        if (m_pListener == nullptr) {
            return;
        }
        detail::ShutDown(m_pListener->Get());
        users = m_pListener;
        m_pListener.reset();
    }
    // Those who wait on it are awake now and leave; the bound is for one that the scheduler has forgotten. The last one
    // closes.
    for (int step = 0; step < 300 && !users.expired(); ++step) {
        detail::PauseOneStep();
    }
}

int CAsyncIO::GetListenerSocket() const {
    const std::shared_ptr<Descriptor> listener = ListenerInUse();
    return listener != nullptr ? listener->Get() : -1;
}

bool CAsyncIO::IsInitialised() const {
    const Locker lock(m_StateMutex);
    return m_bInitialised;
}

std::shared_ptr<Descriptor> CAsyncIO::ListenerInUse() const {
    const Locker lock(m_StateMutex);
    return m_pListener;
}

}  // namespace TarnSocketIO

#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>

#include <map>
#include <memory>
#include <string>

#include <TarnSocketIO/CStaticMutex.h>
#include <TarnSocketIO/ConnectionType.h>
#include <TarnSocketIO/ThreadAnnotations.h>

namespace TarnSocketIO {

namespace detail {
class Descriptor;
}

/// What a server keeps of one accepted connection.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the name is part of the interface
struct _SOCKET_CONTEXT {
    char m_szHostName[512];  ///< the peer's name from reverse lookup, empty if it has none
    pollfd m_PollFd;         ///< the connection's descriptor and the events it is polled for
};

/// A stream server's core: one listening socket, up to 20 connections, all served by one poll loop.
///
/// Derive from it, implement the three notifications, and run two loops on threads of your own:
///
///     accepting thread:   while (running) server.MultiConnectionAcceptor();   // waits for a connection
///     receiving thread:   while (running) server.MultiConnectionPoller();     // waits up to 500 ms for data
///
/// Without a connection the receiving loop's passes return at once, so it should sleep a little then. To end:
/// StopListener (it wakes the accepting thread), then end the loops, then destroy.
///
/// The same class opens a datagram listener (CONNECTION_UDP, CONNECTION_DATAGRAM); then the poller reads the listening
/// socket itself, and nothing is accepted.
///
/// **Who closes what.** The listening socket belongs to this object and is closed by StopListener, not by the
/// destructor. Accepted descriptors belong to the application. While the loops run it closes each in OnTerminated and
/// nowhere else, because this object uses the number until then; to throw a client out it calls shutdown(2), and
/// OnTerminated follows. What is still open when the loops have ended is the application's to close, too.
///
/// **Closing waits.** Connections inherit SO_LINGER with 1 second, so close(2) waits up to that long for a peer that
/// does not read, on the receiving thread, with all other connections. A server for clients that it does not trust
/// switches SO_LINGER off before it closes; the kernel still delivers what is on its way.
///
/// **The 21st connection** waits in the kernel's backlog until one of the 20 ends. There is no idle timeout: a peer
/// that sends nothing keeps its place.
///
/// **Threads.** One accepting and one receiving thread at a time, which must not be cancelled (pthread_cancel); Send
/// and StopListener from any thread, notifications included. Notifications run with no lock held, OnConnected on the
/// accepting thread, the others on the receiving thread, which needs no more than a small stack (128 KiB is enough).
///
/// **Errors** are a false result and a line in the debug log (CUtility). Nothing is thrown, but what OnConnected
/// throws. A peer that is gone never raises SIGPIPE.
class CAsyncIO {
public:
    /// @param type  CONNECTION_STREAM serves connections; CONNECTION_UDP and CONNECTION_DATAGRAM listen for datagrams;
    ///              any other value opens a stream socket that is bound but does not listen.
    explicit CAsyncIO(CONNECTION_TYPE type);

    /// Closes no socket: call StopListener first, and close connections that are still open yourself.
    virtual ~CAsyncIO();
    CAsyncIO(const CAsyncIO&) = delete;
    CAsyncIO& operator=(const CAsyncIO&) = delete;

    /// Opens the listener, see CreateListenerSocket.
    ///
    /// @param port   host byte order; 0 lets the kernel choose one, see GetListenerSocket. More than 65,535 is a port
    ///               that cannot be bound.
    /// @param group  for CONNECTION_DATAGRAM the multicast group to join, a dotted quad of at most 511 characters; null
    ///               or ignored otherwise. Copied.
    /// @return false if a listener has been opened before, also if StopListener has closed it; nothing is changed then.
    ///         True otherwise, *also if the listener could not be opened*: the log tells, every poller pass reports it,
    ///         and Initialise may be called again.
    bool Initialise(unsigned int port, const char* group);

    /// socket(2), SO_LINGER with 1 second (accepted connections inherit it: closing one waits that long for data on its
    /// way), bind(2) to all interfaces; for CONNECTION_STREAM listen(2) with a backlog of 128, for CONNECTION_DATAGRAM
    /// IP_ADD_MEMBERSHIP on the interface that the routing table names. Called by Initialise; after StopListener it
    /// opens the listener again. A listener of an earlier call is closed.
    ///
    /// @return false if there is no socket, linger cannot be set, or a stream listener cannot be bound (EADDRINUSE: the
    ///         port is taken, or connections of an earlier server on it are still in TIME_WAIT; EACCES: below 1024
    ///         without CAP_NET_BIND_SERVICE) or cannot listen. Datagram listeners do not report a failed bind, and a
    ///         failed join is only logged.
    bool CreateListenerSocket();

    /// Accepts one connection, waiting for it in accept(2): on the accepting thread.
    ///
    /// The peer's name is looked up (a slow name server delays the call), the connection is registered, and OnConnected
    /// is called.
    ///
    /// @return true if a connection was accepted. False at once if the object is not initialised; after a step of 3 ms
    ///         if 20 connections are open, or if descriptors or memory ran out; after a log line if accept failed, as
    ///         it does after StopListener. A later call may work again.
    bool MultiConnectionAcceptor();

    /// One pass over all connections, waiting up to 500 ms for the first to have data: on the receiving thread.
    ///
    /// Reads each ready connection once, at most 131,070 bytes, and calls OnReceivedData; a connection at its end gets
    /// OnTerminated and is forgotten. Returns at once if there are no connections or if another thread's pass runs.
    /// New connections join the next pass. Does not allocate.
    ///
    /// @return always false.
    bool MultiConnectionPoller();

    /// One send(2) that never waits, on an accepted connection.
    ///
    /// @param data  any bytes; may be null when `length` is 0.
    /// @return true if the kernel took the data or a first part of it. How much is not told, and there is no retry:
    ///         right for messages that fit into the socket's buffer; for more, call send(2) yourself. False if nothing
    ///         was taken: the buffer is full, the peer is gone, `length` is negative, or `socket` is not a connection
    ///         of this server (logged). While OnTerminated runs, only the thread it runs on can still send.
    bool Send(int socket, const char* data, long length);

    /// Shuts the listening socket down and closes it; a thread that waits in MultiConnectionAcceptor returns. Accepted
    /// connections stay open, and the poller goes on serving them. Calling it again, or with no listener, does nothing.
    /// A thread that is looking up a new peer's name meanwhile returns when the name server has answered.
    void StopListener();

protected:
    /// A connection was accepted and can be sent to.
    ///
    /// It is polled already: where the receiving thread is quicker, OnReceivedData and even OnTerminated of the
    /// connection come before this one, and then the number is the application's no more. No other connection gets it
    /// before this returns.
    virtual void OnConnected(int socket) = 0;

    /// The peer has ended the connection, or it broke. Called once for each. Close `socket` here. Exceptions are
    /// logged.
    virtual void OnTerminated(int socket) = 0;

    /// Data arrived. Exceptions are logged.
    ///
    /// @param socket  the connection, or the listening socket of a datagram listener.
    /// @param data    valid until this returns; terminated after `length`. These `length` bytes may be changed, and
    ///                nothing behind them.
    /// @param length  1 to 131,070. A stream cuts messages as it likes.
    virtual void OnReceivedData(int socket, char* data, long length) = 0;

    CONNECTION_TYPE GetConnectionType() const { return m_ConnectionType; }

    /// The listening socket, or -1 before it is created and after StopListener. Borrowed: ask it for its address, but
    /// do not close it. getsockname(2) gives the port that the kernel chose, and port 0 if it could not be bound.
    int GetListenerSocket() const;

private:
    using Context = std::shared_ptr<_SOCKET_CONTEXT>;
    struct PollerState;
    enum class Outcome;

    int OpenListener();
    bool PrepareListener(int fd) const;
    bool IsInitialised() const;
    std::shared_ptr<detail::Descriptor> ListenerInUse() const;

    bool AreAllConnectionsTaken() const;
    int AcceptFromListener(sockaddr_in& peer) const;
    void Register(int socket, const std::string& host_name);

    void PollConnections();
    void PollListener();
    void RefreshPollSet();
    void ServeConnection(const pollfd& ready, const Context& context);
    bool IsStillRegistered(const Context& context) const;
    Outcome ReceiveOnce(const pollfd& ready, long& length);
    void NotifyReceivedData(int socket, long length);
    void EndConnection(const Context& context);

    const CONNECTION_TYPE m_ConnectionType;

    /// Shared with whoever is inside a system call on it: it is closed, and its number free, when the last has left.
    std::shared_ptr<detail::Descriptor> m_pListener TARN_GUARDED_BY(m_StateMutex);
    std::map<int, Context> m_mapContexts TARN_GUARDED_BY(m_MapMutex);
    unsigned int m_nListenerPort;
    bool m_bInitialised TARN_GUARDED_BY(m_StateMutex);

    // The two are never held together.
    mutable CStaticMutex m_StateMutex;
    mutable CStaticMutex m_MapMutex;

    char m_szMulticastGroup[512];

    bool m_bContextsChanged TARN_GUARDED_BY(m_MapMutex);
    Context m_pEnding TARN_GUARDED_BY(m_MapMutex);  ///< the connection whose OnTerminated is running
    pthread_t m_EndingThread TARN_GUARDED_BY(m_MapMutex);
    std::unique_ptr<PollerState> m_pPoller;  ///< made by Initialise; used by one pass at a time
};

}  // namespace TarnSocketIO

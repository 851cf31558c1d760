#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <TarnSocketIO/CAsyncIO.h>
#include <TarnSocketIO/CConnectionAcceptor.h>
#include <TarnSocketIO/CIPString.h>
#include <TarnSocketIO/CMacAddress.h>
#include <TarnSocketIO/CStaticMutex.h>
#include <TarnSocketIO/ConnectionType.h>
#include <TarnSocketIO/ThreadAnnotations.h>

namespace TarnSocketIO {

class CDataReceiver;

namespace detail {
class SocketUse;
}

/// A socket endpoint: a stream client or server, a datagram client or server, a multicast member, a pinger, or a
/// receiver of link-layer frames. Which of them it is, its CONNECTION_TYPE says for life.
///
/// It has up to two sockets. The *sender* sends, connects and pings; the *receiver* is read by 1 to 5 threads of the
/// endpoint's own, which hand what they read to the notifications. Derive from it and override those that you need:
///
///     class Sensor : public TarnSocketIO::CSocket {
///     public:
///         Sensor() : CSocket(TarnSocketIO::CONNECTION_UDP, false, false) {
///             InitialiseLocalSockets(5000, nullptr, nullptr, 1);   // the object is whole: the threads may start
///         }
///         ~Sensor() override { TerminateAll(); }                   // while there still are notifications to call
///     private:
///         void OnReceivedData(char* data, long length) override { ... }
///     };
///
/// **Begin in the derived constructor, end in the derived destructor.** The threads call virtual operations. The server
/// constructor starts them before the derived class is there, so that the first notifications may reach the defaults of
/// this class, which only log; the client constructor and InitialiseLocalSockets in the body of the derived constructor
/// avoid that. Likewise call TerminateAll in the destructor of the class that overrides notifications: when the
/// destructor of this class runs, the derived one is gone.
///
/// **What opens what.** A datagram server: the server constructor, or the client constructor and
/// InitialiseLocalSockets. A datagram client: StartClient, then Send. A stream client: Connect. A stream server: the
/// server constructor, which accepts, and then InitialiseLocalSockets, whose receiver threads serve the connections. A
/// pinger (CONNECTION_ICMP) and a frame receiver (CONNECTION_PACKET): InitialiseLocalSockets.
///
/// **Replies to a stream client** come on the sender, which no thread reads: read them with ReceiveData or
/// ReceiveDataSensibly and `bSender` true.
///
/// **Receive passes.** Each receiver thread makes a pass about every 3 ms, one thread at a time. A pass waits up to
/// #m_iPollTimeout for data, and receives as often as #m_iReceivesPerPass says.
///
/// **Descriptors** belong to the endpoint, all that it has ever opened: one that is set aside (StartClient again,
/// InitialiseReceiver again, the acceptor) stays open until the endpoint is destroyed. 0 means "none". Programs that
/// are started do not inherit them. After Disconnect nothing is done any more with the receiver's number, which may be
/// somebody else's.
///
/// **Threads.** Send, SendPingEchoRequest and Disconnect may be called from any thread, notifications included. All
/// other operations are for the one thread that controls the endpoint, or for a notification while that thread does
/// nothing with it, unless they say otherwise. Notifications run on the receiver threads, one at a time, with
/// the receiver mutex held: they may send, join groups, disconnect and throw, but not call DataReceiver, TerminateAll,
/// or the destructor. While one runs, nothing else is received; one that blocks for more than 10 seconds cannot be
/// stopped in time. A stream server's notifications are those of CAsyncIO, with no lock held.
///
/// **Errors** are a false result and a line in the debug log (CUtility), a few also a line on standard output. Nothing
/// is thrown, but what OnConnected() throws out of Connect, and OnTerminated() or OnReceivedEchoReply out of
/// DataReceiver, where the receiver threads catch and log it. A peer that is gone never raises SIGPIPE. Signals that
/// interrupt a wait for data end the pass, and the next one follows; connecting goes on after them.
///
/// **Privileges.** CONNECTION_ICMP, CONNECTION_PACKET and SelectInterface need CAP_NET_RAW, UpdateARPTable
/// CAP_NET_ADMIN, ports below 1024 CAP_NET_BIND_SERVICE. Without them the sockets are not made, and the log tells.
class CSocket : public CConnectionAcceptor, public CAsyncIO {
public:
    /// Client constructor: opens nothing, looks up the addresses of this host (GetLocalIPs), which may take as long as
    /// a name server does.
    ///
    /// @param bSendOnly   InitialiseLocalSockets will make no receiver socket and no threads.
    /// @param bTimestamp  data is delivered with the time when it was read.
    CSocket(CONNECTION_TYPE type, bool bSendOnly, bool bTimestamp);

    /// Server constructor: as above, then StartServer. That it failed is only logged ("CSocket::CSocket -
    /// StartServer()"): the object is made either way.
    ///
    /// @param port        as for InitialiseLocalSockets, and so are szGroup, szLocalIf and threads.
    CSocket(unsigned int port, CONNECTION_TYPE type, const char* szGroup, bool bSendOnly, bool bTimestamp,
            const char* szLocalIf, int threads);

    /// TerminateAll, if it has not been called; frees everything. Waits for threads that are still in a notification,
    /// however long that takes.
    ~CSocket() override;
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    // ---- the client side, sending ----

    /// Makes the sender socket: socket(2) for the type, SO_BROADCAST (not for a multicast sender), SO_LINGER with 0
    /// seconds (closing a connection throws away what has not been sent yet and resets it), SO_SNDBUF 262,144. A sender
    /// that was there before is set aside.
    ///
    /// @return false if there is no socket: the raw type without its privilege (EPERM), no descriptors left (EMFILE).
    bool StartClient();

    /// Fills an address for connect(2), bind(2) or sendto(2). Any thread.
    ///
    /// @param host  a dotted quad or another form that inet_addr(3) knows, which asks no resolver; or a host name,
    ///              which may take as long as a name server does. Null or empty is INADDR_ANY. The text 255.255.255.255
    ///              goes to the resolver.
    /// @param port  host byte order, 0 to 65,535.
    /// @return false if the name has no address or the port is none.
    static bool ConstructDestinationAddr(const char* host, unsigned int port, sockaddr_in& addr);

    /// Connects a new sender socket (StartClient), waiting as long as the kernel tries; then starts one receiver thread
    /// and calls OnConnected(). That thread reads the receiver socket, if there is one, and not the connection.
    ///
    /// While it waits, minutes for a host that is silent, the sender is locked, and Send, Disconnect and TerminateAll
    /// wait, too. A sender that could not be connected stays open: Disconnect before the next try.
    ///
    /// @return false if there is no socket, no address or no connection (ECONNREFUSED, ETIMEDOUT, ...); also, *with the
    ///         connection standing*, if a receiver thread runs already, as it does after a first Connect.
    bool Connect(const char* host, unsigned int port);

    /// Lets the sender use one network device only, with SO_BINDTODEVICE (CAP_NET_RAW). What fails is written to
    /// standard error, as "selectinterface: : ...".
    ///
    /// @param ifname  such as eth0; empty or null for any.
    void SelectInterface(char* ifname);

    /// setsockopt(2). @return its result. Any thread.
    static int SetSocketOption(int fd, int level, int name, const void* value, unsigned int length);

    /// Sends one datagram, without waiting for room in the socket's buffer (MSG_DONTWAIT). A host name is looked up
    /// with the sender locked, so a slow name server keeps other senders waiting: look it up once, and send to the
    /// address.
    ///
    /// @param host    as for ConstructDestinationAddr, and so is port.
    /// @param length  0 to 65,507 bytes.
    /// @return whether the kernel took it. If it did not, a line on standard output says why ("sendto (host) failed
    ///         with errno = ..."); an unknown host or port is only logged.
    bool Send(const char* host, unsigned int port, const char* data, long length);

    /// Sends on the connected sender, without waiting.
    ///
    /// @return true if the kernel took the data or a first part of it; how much is not told. False if there is no
    ///         sender, it is not connected, its buffer is full (EAGAIN), the peer is gone, or this is a stream server.
    bool Send(const char* data, long length);

    /// Sends on one connection of a stream server: CAsyncIO::Send. False for every other endpoint.
    bool Send(int socket, const char* data, long length);

    /// Closes sender and receiver. A thread that waits for data on either returns from there; what has been read
    /// before is still delivered. A connection is reset, as StartClient says. Waits for the sender lock, and until
    /// everybody has left the sockets: moments, with CONNECTION_PACKET half a second.
    ///
    /// @return false, and nothing is closed, if there is no sender or this is a stream server.
    bool Disconnect();

    /// Asks the resolver for all IPv4 addresses of gethostname(2)'s name, for #m_pLocalIPs, which may take as long as a
    /// name server does. Called by both constructors; later changes are not seen until it is called again.
    void GetLocalIPs();

    // ---- the server side, receiving ----

    /// What the server constructor starts: for CONNECTION_STREAM the listener (CAsyncIO::Initialise) and the acceptor
    /// thread, for CONNECTION_UDP and CONNECTION_DATAGRAM InitialiseLocalSockets, for the others nothing.
    ///
    /// @return false if the acceptor thread of CONNECTION_STREAM could not be started, true otherwise. Sockets that
    ///         could not be made are only logged.
    bool StartServer(unsigned int port, const char* szGroup, const char* szLocalIf, int threads);

    /// Makes the sender and binds it to the local interface, makes the receiver (InitialiseReceiver; not for a
    /// send-only endpoint), and starts receiver threads. Called once more it makes new sockets, and threads that run
    /// already stay. After TerminateAll no threads are started any more.
    ///
    /// @param port       of the receiver, host byte order; 0 lets the kernel choose. Of no meaning for CONNECTION_ICMP
    ///                   and CONNECTION_PACKET.
    /// @param szGroup    multicast group to join, a dotted quad; null keeps the one of the constructor.
    /// @param szLocalIf  address of the interface to send and receive on, a dotted quad; null keeps the constructor's
    ///                   for the receiver, and any for the sender. A receiver bound to it gets neither broadcasts nor
    ///                   multicasts. Both texts are cut to 63 characters.
    /// @param threads    0 to 5; more are 5.
    /// @return true, *whatever failed*: see the log.
    bool InitialiseLocalSockets(unsigned int port, const char* szGroup, const char* szLocalIf, int threads);

    /// Makes the receiver socket: socket(2) for the type, SO_LINGER, SO_REUSEADDR, SO_RCVBUF 131,070 (262,140 for
    /// CONNECTION_PACKET), bind(2), and the group of the start with IP_ADD_MEMBERSHIP. A receiver that was there before
    /// is set aside.
    ///
    /// @return whether there is a socket. That it could not be bound (EADDRINUSE, EACCES, EADDRNOTAVAIL) or could not
    ///         join is logged.
    bool InitialiseReceiver();

    /// The acceptor's work: sets the sender aside, and in a stream server accepts one connection.
    void ConnectionAcceptor() override;

    /// One receive pass, as the receiver threads make it. The argument is not looked at.
    ///
    /// A stream server's pass is CAsyncIO::MultiConnectionPoller. A pass of CONNECTION_ICMP reads one message. Any
    /// other receives once if #m_iReceivesPerPass is 1 or 2, one time less than its value if it is larger, until
    /// nothing is ready if it is 0 or negative, and never goes on after a receive that found nothing.
    void DataReceiver(unsigned long thread);

    /// Waits up to #m_iPollTimeout for data and reads once: one datagram, or what a stream has. Not locked; with time
    /// stamps only one thread may receive at a time.
    ///
    /// @param buffer   131,070 bytes or more. Not terminated.
    /// @param length   bytes read; 0 is an empty datagram or the end of a stream. Kept if nothing was read.
    /// @param from     gets the sender of a datagram; null if it is not wanted. Not with CONNECTION_PACKET.
    /// @param bSender  reads the sender socket instead of the receiver.
    /// @return whether something was read.
    bool ReceiveData(char* buffer, long& length, sockaddr_in* from, bool bSender);

    /// Reads a message of known size, which must be there in one piece: one wait, one read, as ReceiveData.
    ///
    /// @param size      of the buffer, and of the message; if negative, nothing is read.
    /// @param received  bytes read; 0 if there was nothing, -1 if the read failed.
    /// @return whether exactly `size` bytes were read. A shorter piece stays in the buffer and is not completed.
    bool ReceiveDataSensibly(char* buffer, long size, sockaddr_in* from, long& received, bool bSender);

    /// Ends the endpoint: Disconnect, DropAllGroups, StopListener, then waits for the threads, up to 10 seconds for
    /// each. Works once; not in a notification.
    ///
    /// @return the result of Disconnect: false if there was no sender, and always for a stream server, which has ended
    ///         all the same. False at once for every further call. A thread that did not end in time stays, and
    ///         the destructor waits for it.
    bool TerminateAll();

    // ---- multicast: from any thread, but not while InitialiseLocalSockets runs ----

    /// Joins a group on the receiver, with IP_ADD_MEMBERSHIP, and remembers it. From then on what this endpoint sends
    /// to any group is not looped back to this host (IP_MULTICAST_LOOP), to no program on it. Prints "AddToGroup
    /// m_socReceiver %d szMTPGroup %s".
    ///
    /// @param szGroup  a dotted quad.
    /// @return false if there is no receiver, the text is null or no group, it has been joined already (EADDRINUSE), no
    ///         interface has a route to it (ENODEV), or the socket has no room for more (ENOBUFS:
    ///         net.ipv4.igmp_max_memberships, 20).
    bool AddToGroup(const char* szGroup);

    /// Leaves a group, with IP_DROP_MEMBERSHIP; that it was not joined is ignored.
    ///
    /// @param bRemove  also forgets it, so that DropAllGroups does not leave it once more.
    void DropGroup(const char* szGroup, bool bRemove);

    /// Leaves every remembered group and forgets them.
    void DropAllGroups();

    // ---- ping, with CONNECTION_ICMP ----

    /// Sends one echo request (RFC 792) of 64 bytes: identifier is the process id, the sequence counts from 0. The
    /// reply comes to OnReceivedEchoReply. A name is looked up with the sender locked; a full send buffer is waited
    /// for.
    ///
    /// @param host  a name, of which the first IPv4 address counts, or an address. Text that has none, but that reads
    ///              as an address with a last octet of 255 (CIPString), is taken for a broadcast address.
    /// @return false if there is no such host ("CSocket::SendPingEchoRequest - failed to get address info" on standard
    ///         output), or it could not be sent.
    bool SendPingEchoRequest(const char* host);

    /// Closes the sender, makes a new one and binds it: requests leave from this address.
    ///
    /// @return false if that is not an address of this host (EADDRNOTAVAIL); the reason is also on standard error.
    bool BindPingSenderAddress(IPv4::IPAddress address);

    /// Reads one message from the receiver with recvmsg(2), if there is one; never waits.
    ///
    /// @param msg      where it is written, prepared by the caller.
    /// @param iov      not looked at.
    /// @param length   bytes read; -1 if the read failed. Kept if there was nothing.
    /// @param arrival  the time of the read.
    /// @return whether there was something; true also where the read failed.
    bool ReceiveEchoReply(msghdr& msg, iovec& iov, int& length, timeval& arrival);

    /// The Internet checksum (RFC 1071). Any thread.
    ///
    /// @param data    of any alignment.
    /// @param length  in bytes; an odd last byte is the first byte of a word whose second is 0.
    /// @return the 16 bits as they are stored in memory: copy them into the message as they are.
    static int CalculateICMPChecksum(const unsigned short* data, int length);

    // ---- signal-driven I/O and ARP ----

    /// Lets the kernel send SIGIO to this process when the receiver has data (fcntl(2): F_SETOWN, O_ASYNC, F_SETSIG),
    /// and makes the receiver non-blocking. The handler is the application's. *Without a receiver socket it is
    /// descriptor 0 that is switched.*
    ///
    /// @return false if the receiver could not be made or has been closed.
    bool EnableSignalIO();

    /// Switches SIGIO off again. The receiver stays non-blocking. @return the result of fcntl(2), -1 if it failed.
    int DisableSignalIO();

    /// Leaves all groups, closes the receiver and makes it anew (InitialiseReceiver), for when it is broken or the
    /// interface has changed. Receiver threads go on with the new one. Of the groups only the start's is joined again.
    ///
    /// @return whether there is a new receiver.
    bool RepairReceiverSocket();

    /// Writes a permanent entry into the kernel's ARP table, with SIOCSARP on the receiver (CAP_NET_ADMIN).
    ///
    /// @param device  such as eth0, up to 15 characters.
    /// @return false if there is no receiver, `device` is empty or unknown (ENODEV), or the privilege is missing
    ///         (EPERM).
    bool UpdateARPTable(const std::string& device, const CIPString& ip, CMacAddress& mac);

    /// Announces an address to the network: runs "arping -q -A -c1 -s SOURCE TARGET " through system(3), and waits for
    /// it. Needs the arping of iputils on the search path. Any thread.
    ///
    /// @return the status of system(3): 0 if the announcement was sent.
    int Arping(const CIPString& source, const CIPString& target);

    // ---- notifications: what they do here is only to write a line to the log ----

    /// Connect has succeeded. On the thread that called Connect, which an exception reaches, too.
    virtual void OnConnected();

    /// An empty datagram came, or the other side of a stream receiver has ended. An exception ends the pass and is
    /// logged.
    virtual void OnTerminated();

    /// Data came. Exceptions out of this and its other forms are logged, and the next data is delivered.
    ///
    /// @param data    valid until this returns, terminated after `length`.
    /// @param length  1 or more.
    virtual void OnReceivedData(char* data, long length);

    /// The form for an endpoint with time stamps, whatever #m_bReportSource says. @param received  the time of the
    /// read.
    virtual void OnReceivedData(char* data, long length, timeval& received);

    /// The form for an endpoint with #m_bReportSource. @param from  the sender of the datagram.
    virtual void OnReceivedData(char* data, long length, const CIPString& from);

    /// A reply to an echo request of this process came. Not even logged here. An exception ends the pass and is logged.
    ///
    /// @param from   the host that replied.
    /// @param rttMs  the time between the request and the read of its reply, in milliseconds. It is computed from what
    ///               the reply carries: a host that makes replies up can make it anything.
    virtual void OnReceivedEchoReply(const CIPString& from, double rttMs);

    // A stream server's, as CAsyncIO describes them. OnTerminated(int) must close the socket.
    void OnConnected(int socket) override;
    void OnTerminated(int socket) override;
    void OnReceivedData(int socket, char* data, long length) override;

protected:
    // For derived classes to look at, on the controlling thread and in notifications; only the library changes them.

    static constexpr int MAX_RECEIVERS = 5;

    CIPString* m_pLocalIPs = nullptr;     ///< addresses of this host, made by GetLocalIPs; null if there are none
    std::int32_t m_nLocalIPs = 0;         ///< how many
    std::uint16_t m_usPingSequence = 0;   ///< of the next echo request
    IPv4::IPAddress m_PingSenderAddress;  ///< as set by BindPingSenderAddress
    CDataReceiver* m_pReceivers[MAX_RECEIVERS] = {};  ///< owned
    std::int32_t m_nReceiverThreads = 0;
    std::atomic<bool> m_bServerStarted{false};
    std::atomic<bool> m_bAcceptorRunning{false};
    std::atomic<bool> m_bReceiversRunning{false};
    const bool m_bMultiConnectionServer;  ///< accepting, receiving and sending are CAsyncIO's business
    std::atomic<bool> m_bTerminated{false};
    std::uint32_t m_uiPort = 0;                  ///< of the receiver
    std::atomic<std::int32_t> m_socSender{0};    ///< 0 if there is none, -1 if it could not be made
    std::atomic<std::int32_t> m_socReceiver{0};  ///< likewise; keeps its number when it is closed
    pthread_mutex_t m_SenderMutex;    ///< held while the sender is used. Taken after #m_ReceiverMutex, if both
    pthread_mutex_t m_ReceiverMutex;  ///< held for a whole receive pass, notifications included
    const bool m_bSendOnly;

public:
    /// Receives with the sender's address, and delivers it; not for CONNECTION_PACKET. May be set at any time.
    std::atomic<bool> m_bReportSource{false};

protected:
    char m_szGroup[64] = {};    ///< the group of the start, empty for none
    char m_szLocalIf[64] = {};  ///< address of the local interface, empty for any
    const bool m_bTimestamp;
    timeval m_tvReceived{};  ///< the time of the last read, for an endpoint with time stamps
    std::vector<std::string> m_Groups TARN_GUARDED_BY(m_ListMutex);  ///< joined, in order; other threads change it, too

public:
    /// How long a receive waits for data: milliseconds, 0 (the default) not at all, negative without end. May be set at
    /// any time; a wait under way goes on.
    std::atomic<std::int32_t> m_iPollTimeout{0};

protected:
    std::atomic<std::int32_t> m_iPingId{0};  ///< identifier of the last echo request

public:
    /// How many receives a pass makes, see DataReceiver. 1 by default, 0 for all that is there. May be set at any time.
    std::atomic<std::int32_t> m_iReceivesPerPass{1};

    /// The sender sends to multicast groups: StartClient sets no SO_BROADCAST, and InitialiseLocalSockets chooses the
    /// interface with IP_MULTICAST_IF instead of bind(2). Set it before.
    std::atomic<bool> m_bMulticastSender{false};

private:
    /// Whether a receive waits at once, or looks first what is there.
    enum class Patience { Wait, LookFirst };

    CSocket(CONNECTION_TYPE type, bool multi_connection_server, bool send_only, bool timestamp);

    // CSocket.cpp
    static int SwitchLingerOn(int fd);
    int OpenSenderSocket() const;
    detail::SocketUse UseSender();
    detail::SocketUse UseReceiver();
    int SenderUnderLock() const;
    void CloseSender();
    void CloseReceiver();
    void CloseOrSetAside(int fd, const std::atomic<std::int32_t>& users);
    bool MakeRoomToSetAside();
    void SetAside(int fd);
    void CloseWhatIsLeft();

    // CSocket_receive.cpp
    void BindSender(const char* szLocalIf);
    void StartReceiverThreads(int threads);
    bool MakeReceiverThread(int slot);
    bool StartReceiverThread(int slot);
    void StopReceiverThreads();
    bool AreThreadsLeft() const;
    void AwaitThreads();
    int OpenReceiverSocket() const;
    void SetReceiverOptions(int fd) const;
    void BindReceiver(int fd) const;
    static void BindFrameReceiver(int fd);
    void ReceiveWhatIsThere(char* buffer);
    void Deliver(char* buffer, long length, const sockaddr_in* from);
    bool Receive(const detail::SocketUse& socket, Patience patience, char* buffer, long size, sockaddr_in* from,
                 long& received);

    // CSocket_multicast.cpp
    void JoinStartGroup(int fd);
    bool JoinAndRemember(int fd, const char* group);
    ip_mreq MembershipOf(const char* group) const;
    void SwitchLoopBackOff(int fd);
    static void SwitchMulticastLoopOff(int fd);
    void LeaveGroup(const char* group);
    bool Forget(const char* group);

    // CSocket_echo.cpp
    void ReceiveOneEchoReply(char* control);
    void HandleEchoReply(const char* packet, int length, in_addr source, const timeval& arrival);

    /// The receiver for those who use it: -1 when it has been closed, while m_socReceiver keeps its number.
    std::atomic<std::int32_t> m_fdReceiver{-1};

    // How many threads are in system calls on the sockets without a lock: see detail::SocketUse.
    std::atomic<std::int32_t> m_nSenderUsers{0};
    std::atomic<std::int32_t> m_nReceiverUsers{0};

    std::atomic<bool> m_bStopping{false};     ///< nobody receives any more
    std::atomic<bool> m_bLoopBackOff{false};  ///< a group has been joined: no sender loops back

    CStaticMutex m_ListMutex;  ///< no other lock is taken while it is held
    std::vector<std::int32_t> m_SetAside TARN_GUARDED_BY(m_ListMutex);
};

}  // namespace TarnSocketIO

#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

/// The home of raw socket calls. Failures are -1 or false with errno set.
namespace TarnSocketIO::detail {

/// Every event that can be asked of poll for reading: 0x3B.
constexpr short READ_EVENTS = POLLIN | POLLPRI | POLLERR | POLLHUP | POLLNVAL;

/// Those after which there is something to read.
constexpr short DATA_EVENTS = POLLIN | POLLPRI;

/// The most that one read takes.
constexpr long READ_LENGTH = 131070;

// Sockets that programs started by this one do not inherit.

/// An IPv4 socket.
int OpenSocket(int type, int protocol);

/// A socket for link-layer frames, headers included. @param protocol  their type, host byte order.
int OpenPacketSocket(std::uint16_t protocol);

/// Gives a new socket another number if it has got that of a standard stream, in a process that has closed these: what
/// the process prints must not go out to the network, and 0 is "none".
///
/// @return its number; -1 if `fd` is negative, or if there is no other number (then it is closed).
int AwayFromStandardStreams(int fd);

/// ioctl(2). @param record  what the request reads or fills.
bool Control(int fd, unsigned long request, void* record);

/// SO_LINGER: closing waits up to `seconds` for data on its way to the peer; 0 throws it away.
bool SetLinger(int fd, int seconds);

/// Binds to all interfaces. @param port  host byte order; more than 65,535 fails with EINVAL.
bool BindToPort(int fd, unsigned int port);

bool BindTo(int fd, const sockaddr_in& address);

/// Binds a link-layer socket to the frames of one type on all interfaces. @param protocol  host byte order.
bool BindToFrames(int fd, std::uint16_t protocol);

/// IP_ADD_MEMBERSHIP on the interface that the routing table names. @param group  dotted quad.
bool JoinMulticastGroup(int fd, const char* group);

bool Listen(int fd, int backlog);

/// Ends both directions. Wakes whoever waits in accept or poll on the socket, which close alone does not.
void ShutDown(int fd);

/// Wakes whoever waits in poll or recv on the socket, without a word to the peer. Not for link-layer sockets.
void WakeReaders(int fd);

/// Waits until connected, also if signals come meanwhile.
bool ConnectTo(int fd, const sockaddr_in& address);

/// Waits until one of the records has an event. @return how many have; 0 when the time is over.
int WaitForEvents(pollfd* records, std::size_t count, int timeout_ms);

/// Waits for a connection. The new descriptor is not inherited by programs started by this one.
int Accept(int fd, sockaddr_in& peer);

/// One read that never waits.
long Receive(int fd, char* buffer, std::size_t size);

/// One read that never waits. @param from  gets the sender of a datagram; zero where there is none.
long ReceiveFrom(int fd, char* buffer, std::size_t size, sockaddr_in& from);

/// One read that never waits, into a prepared message.
long ReceiveMessage(int fd, msghdr& message);

/// One send that never waits and raises no SIGPIPE when the peer is gone.
long SendNow(int fd, const char* data, std::size_t length);

/// One datagram; never waits.
long SendToNow(int fd, const char* data, std::size_t length, const sockaddr_in& to);

/// One datagram; waits for room in the socket's buffer.
long SendTo(int fd, const char* data, std::size_t length, const sockaddr* to, socklen_t to_length);

// Of signal-driven I/O, each with the result of fcntl.

int SetSignalOwner(int fd, pid_t owner);
int SetSignal(int fd, int signal_number);
int GetStatusFlags(int fd);
int SetStatusFlags(int fd, int flags);

}  // namespace TarnSocketIO::detail

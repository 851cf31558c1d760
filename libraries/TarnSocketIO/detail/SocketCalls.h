#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <cstddef>

/// The home of raw socket calls. Each is one system call; failures are -1 or false with errno set.
namespace TarnSocketIO::detail {

/// Every event that can be asked of poll for reading: 0x3B.
constexpr short READ_EVENTS = POLLIN | POLLPRI | POLLERR | POLLHUP | POLLNVAL;

/// An IPv4 socket that programs started by this one do not inherit.
int OpenSocket(int type, int protocol);

/// SO_LINGER: closing waits up to `seconds` for data on its way to the peer; 0 throws it away.
bool SetLinger(int fd, int seconds);

/// Binds to all interfaces. @param port  host byte order; more than 65,535 fails with EINVAL.
bool BindToPort(int fd, unsigned int port);

/// IP_ADD_MEMBERSHIP on the interface that the routing table names. @param group  dotted quad.
bool JoinMulticastGroup(int fd, const char* group);

bool Listen(int fd, int backlog);

/// Ends both directions. Wakes whoever waits in accept or poll on the socket, which close alone does not.
void ShutDown(int fd);

/// Waits until one of the records has an event. @return how many have; 0 when the time is over.
int WaitForEvents(pollfd* records, std::size_t count, int timeout_ms);

/// Waits for a connection. The new descriptor is not inherited by programs started by this one.
int Accept(int fd, sockaddr_in& peer);

/// One read that never waits.
long Receive(int fd, char* buffer, std::size_t size);

/// One send that never waits and raises no SIGPIPE when the peer is gone.
long SendNow(int fd, const char* data, std::size_t length);

}  // namespace TarnSocketIO::detail

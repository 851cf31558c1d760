#pragma once

namespace TarnTest {

// The lines that a server writes to the debug log.

inline constexpr const char* linger_failed_line = "CAsyncIO::CreateListenerSocket() - setsockopt failed";
inline constexpr const char* join_failed_line = "CAsyncIO::CreateListenerSocket - failed to join multicast group";
inline constexpr const char* bind_failed_line = "CAsyncIO::CreateListenerSocket - failed to bind socket";
inline constexpr const char* listen_failed_line = "CAsyncIO::CreateListenerSocket - listen failed";

inline constexpr const char* accepted_line = "CAsyncIO::MultiConnectionAcceptor - new connection";
inline constexpr const char* accept_failed_line = "CAsyncIO::MultiConnectionAcceptor() - accept returned bad socket";

inline constexpr const char* uninitialised_line =
    "CAsyncIO::MultiConnectionPoller - poller failed, uninitialised async object";
inline constexpr const char* readable_line = "CAsyncIO::MultiConnectionPoller - received POLLIN or POLLPRI event";
inline constexpr const char* hang_up_line = "CAsyncIO::MultiConnectionPoller - received POLLHUP event";
inline constexpr const char* end_line = "CAsyncIO::MultiConnectionPoller - received 0 data, lost connection";
inline constexpr const char* removing_line = "CAsyncIO::MultiConnectionPoller - removing socket context";
inline constexpr const char* received_exception_line = "CAsyncIO::MultiConnectionPoller - OnReceivedData exception!";
inline constexpr const char* terminated_exception_line =
    "CAsyncIO::MultiConnectionPoller - OnConnectionTerminated exception!";

inline constexpr const char* no_context_line = "CAsyncIO::Send - failed to find context for socket";

}  // namespace TarnTest

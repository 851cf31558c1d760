#pragma once

#include <TarnSocketIO/CSocket.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace TarnTest {

/// A stream server run by an endpoint itself, made with the server constructor: its acceptor thread runs before the
/// object is whole. The thread sanitizer is told so of this class's constructor, and of no other.
///
/// It closes each connection in its termination notification; what is open at the end, the destructor closes.
class ConnectionServer : public TarnSocketIO::CSocket {
public:
    /// Listens on a port that the kernel chooses. Without receivers: it accepts, and delivers nothing.
    explicit ConnectionServer(int receiver_threads = 0);
    ~ConnectionServer() override;

    using CAsyncIO::GetListenerSocket;
    using CSocket::m_bMultiConnectionServer;
    using CSocket::m_nReceiverThreads;
    using CSocket::m_socReceiver;
    using CSocket::m_socSender;

    /// The port that the listener is bound to.
    std::uint16_t Port() const;

    struct Counts {
        int connected = 0;
        int terminated = 0;
    };

    Counts NotificationCounts() const;

    /// What came on all connections that have ended, one text each, in the order of their ends.
    std::vector<std::string> Conversations() const;

    /// Connections that have been notified and have not ended yet, in the order of their numbers.
    std::vector<int> Open() const;

    // What a notification does beyond being remembered; set before clients come.
    std::function<void(int)> on_connected;
    std::function<void(int)> on_terminated;  ///< before the descriptor is closed
    std::function<void(int, char*, long)> on_received;

protected:
    void OnConnected(int socket) override;
    void OnTerminated(int socket) override;
    void OnReceivedData(int socket, char* data, long length) override;

    using CSocket::OnConnected;
    using CSocket::OnReceivedData;
    using CSocket::OnTerminated;

private:
    mutable std::mutex m_mutex;
    Counts m_counts;
    std::set<int> m_open;
    std::set<int> m_ended_early;  // OnTerminated was quicker than OnConnected
    std::map<int, std::string> m_data;
    std::vector<std::string> m_conversations;
};

}  // namespace TarnTest

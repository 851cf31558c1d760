#pragma once

#include <TarnSocketIO/CAsyncIO.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/TcpClient.h"

namespace TarnTest {

/// A server that remembers its notifications, for a test to drive call by call or to leave to loops on threads.
///
/// It closes a connection in OnTerminated; what is still open at the end, the destructor closes after it has ended the
/// loops and stopped the listener. A class derived from this one calls EndLoops in its destructor.
class TestServer : public TarnSocketIO::CAsyncIO {
public:
    explicit TestServer(TarnSocketIO::CONNECTION_TYPE type = TarnSocketIO::CONNECTION_STREAM);
    ~TestServer() override;

    using CAsyncIO::GetConnectionType;
    using CAsyncIO::GetListenerSocket;

    /// The port that the listener is bound to.
    std::uint16_t Port() const;

    /// Takes the client that has connected already.
    ///
    /// @return its connection, or -1 if there was none to take.
    int Accept();

    void StartAcceptor();
    void StartPoller();
    /// Starts both.
    void StartLoops();
    /// Stops the listener, too, because the acceptor would wait in it.
    void EndLoops();

    struct Notification {
        enum class Kind { connected, terminated, received };
        Kind kind;
        int socket;
        std::string data;
        std::thread::id thread;
    };

    // What has been notified so far, oldest first. A notification is remembered before its replacement below is called.
    std::vector<Notification> Notifications() const;
    std::vector<int> Connected() const;
    std::vector<int> Terminated() const;
    std::vector<std::string> Received() const;
    /// All data of one connection.
    std::string ReceivedFrom(int socket) const;

    // What a notification does beyond being remembered; set before the loops start, or by the notification
    // itself. One that is set instead of the default for `on_terminated` closes the connection itself, or leaves it
    // open.
    std::function<void(int)> on_connected;
    std::function<void(int)> on_terminated;
    std::function<void(int, char*, long)> on_received;

protected:
    void OnConnected(int socket) override;
    void OnTerminated(int socket) override;
    void OnReceivedData(int socket, char* data, long length) override;

private:
    void Remember(Notification::Kind kind, int socket, const std::string& data);
    std::vector<int> SocketsOf(Notification::Kind kind) const;

    mutable std::mutex m_mutex;
    std::vector<Notification> m_notifications;
    std::set<int> m_open;
    std::atomic<bool> m_stop;
    std::vector<std::thread> m_loops;
};

/// A server with a listener on a port that the kernel chose.
class ListeningServer final : public TestServer {
public:
    explicit ListeningServer(TarnSocketIO::CONNECTION_TYPE type = TarnSocketIO::CONNECTION_STREAM) : TestServer(type) {
        Initialise(0, nullptr);
    }
    ~ListeningServer() override { EndLoops(); }
};

/// A client, and the server's end of its connection.
struct Connection {
    explicit Connection(TestServer& server) : client(server.Port()), socket(server.Accept()) {}

    TcpClient client;
    int socket;
};

/// Runs passes until the condition holds.
///
/// @return false if it still does not after half a minute.
template <class Condition>
bool ServeUntil(TestServer& server, Condition condition) {
    return Eventually([&] {
        server.MultiConnectionPoller();
        return condition();
    });
}

}  // namespace TarnTest

// A stream server to copy from: it answers every client with what the client sent, in capitals.
//
//     stream_server [port]      port 0, the default, lets the kernel choose; the number is printed
//
// Ends on SIGINT (Ctrl-C) and SIGTERM.

#include <TarnSocketIO/TarnSocketIO.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

namespace {

using TarnSocketIO::CAsyncIO;
using TarnSocketIO::CUtility;

/// Closes a connection. By default that waits a second for a client that does not read, and on the polling thread all
/// others would wait with it; what is on its way is delivered all the same.
void CloseAtOnce(int socket) {
    const linger no_wait{0, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &no_wait, sizeof no_wait);
    close(socket);
}

class CapitalsServer : public CAsyncIO {
public:
    CapitalsServer() : CAsyncIO(TarnSocketIO::CONNECTION_STREAM) {}

    // The threads are gone by now; what is still connected is ours to close.
    ~CapitalsServer() override {
        for (const int socket : m_open) {
            CloseAtOnce(socket);
        }
    }

    /// The port that the listener has, or 0 if it could not be opened.
    std::uint16_t Port() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        if (getsockname(GetListenerSocket(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return 0;
        }
        return ntohs(address.sin_port);
    }

    bool HasConnections() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return !m_open.empty();
    }

private:
    // On the accepting thread. A client that was quick may have been terminated before this is called: then the number
    // is not ours any more.
    void OnConnected(int socket) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_ended_early.erase(socket) == 0) {
            m_open.insert(socket);
        }
    }

    // On the polling thread. A stream cuts what was sent as it likes, so the answer is made byte by byte.
    void OnReceivedData(int socket, char* data, long length) override {
        std::transform(data, data + length, data, [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        Answer(socket, data, static_cast<std::size_t>(length));
    }

    // On the polling thread. The descriptor is ours, and this is the place to close it.
    void OnTerminated(int socket) override {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_open.erase(socket) == 0) {
                m_ended_early.insert(socket);
            }
        }
        CloseAtOnce(socket);
    }

    // CAsyncIO::Send is for messages that surely fit into the socket's buffer. These may be larger, so it matters how
    // much was taken. Nobody waits for a client that does not read: it is thrown out, and OnTerminated follows.
    static void Answer(int socket, const char* data, std::size_t length) {
        const ssize_t sent = send(socket, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent != static_cast<ssize_t>(length)) {
            CUtility::Debug("stream_server - %d does not read its answers", socket);
            shutdown(socket, SHUT_RDWR);
        }
    }

    mutable std::mutex m_mutex;
    std::set<int> m_open;
    std::set<int> m_ended_early;
};

/// Runs the server's two loops on threads of its own until it goes.
class ServerThreads {
public:
    explicit ServerThreads(CapitalsServer& server)
        : m_server(server), m_acceptor([this] { AcceptLoop(); }), m_poller([this] { PollLoop(); }) {}

    ~ServerThreads() {
        m_running = false;
        m_server.StopListener();  // wakes the acceptor; the poller looks up after half a second at the latest
        m_acceptor.join();
        m_poller.join();
    }

    ServerThreads(const ServerThreads&) = delete;
    ServerThreads& operator=(const ServerThreads&) = delete;

private:
    void AcceptLoop() {
        while (m_running) {
            m_server.MultiConnectionAcceptor();
        }
    }

    void PollLoop() {
        while (m_running) {
            m_server.MultiConnectionPoller();
            // Without a connection a pass returns at once.
            if (!m_server.HasConnections()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(3));
            }
        }
    }

    CapitalsServer& m_server;
    std::atomic<bool> m_running{true};
    std::thread m_acceptor;
    std::thread m_poller;
};

bool ParsePort(const char* text, std::uint16_t& port) {
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, port);
    return error == std::errc() && stop == end && stop != text;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::uint16_t port = 0;
    if (argc > 2) {
        std::fprintf(stderr, "stream_server: \"%s\" is one argument too many; usage: stream_server [port]\n", argv[2]);
        return 2;
    }
    if (argc == 2 && !ParsePort(argv[1], port)) {
        std::fprintf(stderr, "stream_server: \"%s\" is not a port; give a number from 0 to 65535\n", argv[1]);
        return 2;
    }

    // Each line of the log appears at once, also in a pipe.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    CUtility::Initialise(1);

    // Blocked before the threads start, so that the signals come to this thread, in sigwait and nowhere else.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);

    CapitalsServer server;
    server.Initialise(port, nullptr);
    if (server.Port() == 0) {
        server.StopListener();
        std::fprintf(stderr, "stream_server: cannot listen on port %d: in use, or not free again yet\n", port);
        return 1;
    }
    std::printf("stream_server: listening on port %d\n", server.Port());

    int signal_number = 0;
    {
        const ServerThreads threads(server);
        sigwait(&ending, &signal_number);
    }
    std::printf("stream_server: ended by signal %d\n", signal_number);
    return 0;
}

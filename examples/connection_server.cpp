// A stream server that an endpoint runs by itself: it answers every client with what the client sent, in capitals.
//
//     connection_server [port]      port 0, the default, lets the kernel choose; the number is printed
//
// Compare stream_server, which runs the same server on threads of its own. Ends on SIGINT (Ctrl-C) and SIGTERM.

#include <TarnSocketIO/TarnSocketIO.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

using TarnSocketIO::CSocket;

class ConnectionServer : public CSocket {
public:
    // Accepting begins in the constructor of CSocket. A client that is that early is logged by the notification of
    // CSocket: so nothing here relies on OnConnected. Receiving begins when the object is whole; the receiver socket
    // that is made, too, has nothing to do in a stream server, and gets any port.
    explicit ConnectionServer(std::uint16_t port)
        : CSocket(port, TarnSocketIO::CONNECTION_STREAM, nullptr, false, false, nullptr, 0) {
        InitialiseLocalSockets(0, nullptr, nullptr, 1);
    }

    // What is still connected ends with the process.
    ~ConnectionServer() override { TerminateAll(); }

    /// The port that the listener has, or 0 if it could not be opened.
    std::uint16_t Port() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        if (getsockname(GetListenerSocket(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return 0;
        }
        return ntohs(address.sin_port);
    }

private:
    void OnReceivedData(int socket, char* data, long length) override {
        std::transform(data, data + length, data, [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        // A client that does not take its answer is thrown out, and OnTerminated follows.
        if (send(socket, data, static_cast<std::size_t>(length), MSG_DONTWAIT | MSG_NOSIGNAL) != length) {
            shutdown(socket, SHUT_RDWR);
        }
    }

    // The descriptor is ours, and this is the place to close it; without waiting for a client that does not read.
    void OnTerminated(int socket) override {
        const linger no_wait{0, 0};
        setsockopt(socket, SOL_SOCKET, SO_LINGER, &no_wait, sizeof no_wait);
        close(socket);
    }
};

namespace {

bool ParsePort(const char* text, std::uint16_t& port) {
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, port);
    return error == std::errc() && stop == end && stop != text;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::uint16_t port = 0;
    if (argc > 2 || (argc == 2 && !ParsePort(argv[1], port))) {
        std::fprintf(stderr,
                     "connection_server: \"%s\" is not a port, or one too many; usage: connection_server [port]\n",
                     argv[argc - 1]);
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    // Blocked before the threads start, so that the signals come to this thread, in sigwait and nowhere else.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);

    const ConnectionServer server(port);
    if (server.Port() == 0) {
        std::fprintf(stderr, "connection_server: cannot listen on port %d: in use, or not free again yet\n", port);
        return 1;
    }
    std::printf("connection_server: listening on port %d\n", server.Port());
    int signal_number = 0;
    sigwait(&ending, &signal_number);
    return 0;
}

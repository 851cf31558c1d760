// A datagram server: sends back what comes, to a fixed port of the host that it came from.
//
//     udp_echo [port [reply_port]]      5000 and 5001 by default; port 0 lets the kernel choose, the number is printed
//
// Replies leave from the endpoint's sender, whose port is not the receiver's: so a peer waits for them at a port of its
// own. Ends on SIGINT (Ctrl-C) and SIGTERM. Try it:
//
//     socat - UDP4-DATAGRAM:127.0.0.1:5000,bind=:5001

#include <TarnSocketIO/TarnSocketIO.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

using TarnSocketIO::CIPString;
using TarnSocketIO::CSocket;

class EchoServer : public CSocket {
public:
    // Opened in the body: by then the object is whole, and the receiver threads may call it.
    EchoServer(std::uint16_t port, std::uint16_t reply_port)
        : CSocket(TarnSocketIO::CONNECTION_UDP, false, false), m_reply_port(reply_port) {
        m_bReportSource = true;
        m_iPollTimeout = 100;    // a thread that waits in poll notices a datagram at once
        m_iReceivesPerPass = 0;  // and takes all that are there
        InitialiseLocalSockets(port, nullptr, nullptr, 2);
    }

    // While there still is an OnReceivedData to call.
    ~EchoServer() override { TerminateAll(); }

    /// The port that the receiver has, or 0 if it could not be opened.
    std::uint16_t Port() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        if (getsockname(m_socReceiver, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return 0;
        }
        return ntohs(address.sin_port);
    }

private:
    void OnReceivedData(char* data, long length, const CIPString& from) override {
        Send(from.c_str(), m_reply_port, data, length);
        std::printf("%ld bytes from %s\n", length, from.c_str());
    }

    const std::uint16_t m_reply_port;
};

bool ParsePort(const char* text, std::uint16_t& port) {
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, port);
    return error == std::errc() && stop == end && stop != text;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::uint16_t ports[] = {5000, 5001};
    for (int i = 1; i < argc; ++i) {
        if (i > 2 || !ParsePort(argv[i], ports[i - 1])) {
            std::fprintf(stderr,
                         "udp_echo: \"%s\" is not a port, or one too many; usage: udp_echo [port [reply_port]]\n",
                         argv[i]);
            return 2;
        }
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    // Blocked before the threads start, so that the signals come to this thread, in sigwait and nowhere else.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);

    const EchoServer server(ports[0], ports[1]);
    if (server.Port() == 0) {
        std::fprintf(stderr, "udp_echo: cannot receive on port %d: choose another one\n", ports[0]);
        return 1;
    }
    std::printf("udp_echo: receiving on port %d, replying to port %d\n", server.Port(), ports[1]);
    int signal_number = 0;
    sigwait(&ending, &signal_number);
    return 0;
}

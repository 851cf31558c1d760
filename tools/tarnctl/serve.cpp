#include "serve.h"

#include <TarnSocketIO/TarnSocketIO.h>
#include <getopt.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <system_error>
#include <thread>

namespace {

using TarnSocketIO::CAsyncIO;
using TarnSocketIO::CUtility;

constexpr char usage[] =
    "usage: tarnctl serve [--port N] [--quiet]\n"
    "\n"
    "Sends back to every TCP client what it sends, for trying a network out. A client that does not\n"
    "read is thrown out.\n"
    "\n"
    "  -p, --port N   listen on this port, 0 to 65535; 0, the default, takes a free one and prints it\n"
    "  -q, --quiet    no log of connections\n"
    "  -h, --help     this text\n";

struct Options {
    std::uint16_t port = 0;
    bool quiet = false;
};

class EchoServer : public CAsyncIO {
public:
    EchoServer() : CAsyncIO(TarnSocketIO::CONNECTION_STREAM) {}

    /// The port that the kernel gave, or 0 if the listener could not be bound.
    std::uint16_t Port() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        const bool known = getsockname(GetListenerSocket(), reinterpret_cast<sockaddr*>(&address), &length) == 0;
        return known ? ntohs(address.sin_port) : std::uint16_t{0};
    }

private:
    void OnConnected(int) override {}

    // A client that sends without reading is thrown out, rather than given less than it has sent.
    void OnReceivedData(int socket, char* data, long length) override {
        if (send(socket, data, static_cast<std::size_t>(length), MSG_DONTWAIT | MSG_NOSIGNAL) != length) {
            CUtility::Debug("tarnctl - %d does not read what it is sent", socket);
            shutdown(socket, SHUT_RDWR);
        }
    }

    void OnTerminated(int socket) override {
        // By default closing waits a second for a client that does not read, and everybody would wait with it.
        const linger no_wait{0, 0};
        setsockopt(socket, SOL_SOCKET, SO_LINGER, &no_wait, sizeof no_wait);
        close(socket);
    }
};

bool ParsePort(std::string_view text, std::uint16_t& port) {
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && stop == text.data() + text.size();
}

enum class Parsed { Run, Help, Misuse };

Parsed ParseOptions(int count, char* arguments[], Options& options) {
    const option known[] = {{"port", required_argument, nullptr, 'p'},
                            {"quiet", no_argument, nullptr, 'q'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
    for (int choice; (choice = getopt_long(count, arguments, "p:qh", known, nullptr)) != -1;) {
        switch (choice) {
            case 'p':
                if (!ParsePort(optarg, options.port)) {
                    std::fprintf(stderr, "tarnctl serve: \"%s\" is not a port; give a number from 0 to 65535\n",
                                 optarg);
                    return Parsed::Misuse;
                }
                break;
            case 'q':
                options.quiet = true;
                break;
            case 'h':
                return Parsed::Help;
            default:  // getopt_long has said what is wrong
                return Parsed::Misuse;
        }
    }
    if (optind < count) {
        std::fprintf(stderr, "tarnctl serve: unexpected argument \"%s\"; see tarnctl serve --help\n",
                     arguments[optind]);
        return Parsed::Misuse;
    }
    return Parsed::Run;
}

/// Serves until one of `ending`, which every thread has blocked, arrives.
void ServeUntil(EchoServer& server, const sigset_t& ending) {
    std::atomic<bool> running{true};
    std::thread acceptor([&] {
        while (running) {
            server.MultiConnectionAcceptor();
        }
    });
    std::thread poller([&] {
        while (running) {
            server.MultiConnectionPoller();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));  // a pass without connections returns at once
        }
    });
    int signal_number = 0;
    sigwait(&ending, &signal_number);
    running = false;
    server.StopListener();
    acceptor.join();
    poller.join();
}

}  // namespace

int Serve(int count, char* arguments[]) {
    Options options;
    switch (ParseOptions(count, arguments, options)) {
        case Parsed::Help:
            std::fputs(usage, stdout);
            return 0;
        case Parsed::Misuse:
            return 2;
        case Parsed::Run:
            break;
    }

    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!options.quiet) {
        CUtility::Initialise(1);
    }

    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);

    EchoServer server;
    server.Initialise(options.port, nullptr);
    const std::uint16_t port = server.Port();
    if (port == 0) {
        server.StopListener();
        std::fprintf(stderr,
                     "tarnctl serve: cannot listen on port %d: in use or not free again yet, or below 1024 without the "
                     "privilege\n",
                     options.port);
        return 1;
    }
    std::printf("listening on port %d\n", port);
    ServeUntil(server, ending);
    return 0;
}

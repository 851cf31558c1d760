// A stream client: sends each line of standard input, and prints what comes back until the server ends.
//
//     stream_client host port
//
// No thread of the endpoint reads the connection. The client does so itself, from the sender socket.

#include <TarnSocketIO/TarnSocketIO.h>
#include <sys/socket.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

using TarnSocketIO::CSocket;

class Client : public CSocket {
public:
    Client() : CSocket(TarnSocketIO::CONNECTION_STREAM, false, false) { m_iPollTimeout = 100; }
    ~Client() override { TerminateAll(); }

    /// Prints what the server sends, until either side has ended the connection.
    void PrintReplies() {
        std::vector<char> buffer(131070);
        long length = 1;
        while (length > 0 && m_socSender > 0) {
            if (ReceiveData(buffer.data(), length, nullptr, true)) {
                std::fwrite(buffer.data(), 1, static_cast<std::size_t>(length), stdout);
                std::fflush(stdout);
            }
        }
    }

    /// Tells the server that nothing more will come; it can still answer.
    void EndSending() { shutdown(m_socSender, SHUT_WR); }
};

bool ParsePort(const char* text, std::uint16_t& port) {
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, port);
    return error == std::errc() && stop == end && stop != text;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::uint16_t port = 0;
    if (argc != 3 || !ParsePort(argv[2], port)) {
        std::fprintf(stderr, "usage: stream_client host port\n");
        return 2;
    }
    Client client;
    if (!client.Connect(argv[1], port)) {
        std::fprintf(stderr, "stream_client: cannot connect to %s, port %d\n", argv[1], port);
        return 1;
    }
    std::thread reader([&] { client.PrintReplies(); });
    int status = 0;
    for (std::string line; status == 0 && std::getline(std::cin, line);) {
        line += '\n';
        // Right for lines, which surely fit into the socket's buffer: how much of a larger text was taken is not told.
        if (!client.Send(line.data(), static_cast<long>(line.size()))) {
            std::fprintf(stderr, "stream_client: the server does not take any more\n");
            client.Disconnect();
            status = 1;
        }
    }
    client.EndSending();
    reader.join();
    return status;
}

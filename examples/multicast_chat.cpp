// A chat without a server: everybody who has joined a multicast group gets what the others say.
//
//     multicast_chat name [group [port]]      239.192.7.7 and 5007 by default
//
// Says each line of standard input, and ends with it. What a host says is not looped back to it, so this takes two
// hosts on one network.

#include <TarnSocketIO/TarnSocketIO.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

namespace {

using TarnSocketIO::CSocket;

class Chat : public CSocket {
public:
    // Not bound to a local address, with which a receiver gets no multicasts.
    Chat(const char* group, std::uint16_t port) : CSocket(TarnSocketIO::CONNECTION_UDP, false, false) {
        m_iPollTimeout = 100;
        InitialiseLocalSockets(port, group, nullptr, 1);
    }

    ~Chat() override { TerminateAll(); }

    /// Whether the group of the constructor has been joined.
    bool HasJoined() const { return !m_Groups.empty(); }

private:
    void OnReceivedData(char* data, long /*length*/) override { std::printf("%s\n", data); }
};

bool ParsePort(const char* text, std::uint16_t& port) {
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, port);
    return error == std::errc() && stop == end && stop != text;
}

}  // namespace

int main(int argc, char* argv[]) {
    const char* const group = argc > 2 ? argv[2] : "239.192.7.7";
    std::uint16_t port = 5007;
    if (argc < 2 || argc > 4 || (argc == 4 && !ParsePort(argv[3], port))) {
        std::fprintf(stderr, "usage: multicast_chat name [group [port]]\n");
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Chat chat(group, port);
    if (!chat.HasJoined()) {
        std::fprintf(stderr, "multicast_chat: cannot join %s: no multicast address, or no route to it\n", group);
        return 1;
    }
    std::printf("multicast_chat: joined %s, port %d\n", group, port);
    for (std::string line; std::getline(std::cin, line);) {
        const std::string message = std::string(argv[1]) + ": " + line;
        chat.Send(group, port, message.data(), static_cast<long>(message.size()));
    }
    return 0;
}

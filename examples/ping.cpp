// Pings a host, as the system's own tool does.
//
//     ping host [count]      four requests by default, half a second apart
//
// Needs CAP_NET_RAW. The exit status is 0 if every request was answered.

#include <TarnSocketIO/TarnSocketIO.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

namespace {

using TarnSocketIO::CIPString;
using TarnSocketIO::CSocket;

class Pinger : public CSocket {
public:
    Pinger() : CSocket(TarnSocketIO::CONNECTION_ICMP, false, false) { InitialiseLocalSockets(0, nullptr, nullptr, 1); }
    ~Pinger() override { TerminateAll(); }

    bool IsOpen() const { return m_socSender > 0 && m_socReceiver > 0; }
    int Replies() const { return m_replies; }

private:
    void OnReceivedEchoReply(const CIPString& from, double rttMs) override {
        std::printf("reply from %s after %.3f ms\n", from.c_str(), rttMs);
        ++m_replies;
    }

    std::atomic<int> m_replies{0};
};

}  // namespace

int main(int argc, char* argv[]) {
    int count = 4;
    if (argc == 3) {
        const char* const end = argv[2] + std::strlen(argv[2]);
        const auto [stop, error] = std::from_chars(argv[2], end, count);
        if (error != std::errc() || stop != end || count < 1) {
            std::fprintf(stderr, "ping: \"%s\" is not a count; give a number from 1 on\n", argv[2]);
            return 2;
        }
    }
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: ping host [count]\n");
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Pinger pinger;
    if (!pinger.IsOpen()) {
        std::fprintf(stderr, "ping: no raw sockets; run it with CAP_NET_RAW\n");
        return 1;
    }
    for (int i = 0; i < count; ++i) {
        if (!pinger.SendPingEchoRequest(argv[1])) {
            std::fprintf(stderr, "ping: cannot send to %s: no such host, or no route to it\n", argv[1]);
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    // For the last one that is late.
    for (int i = 0; i < 20 && pinger.Replies() < count; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::printf("%d requests, %d replies\n", count, pinger.Replies());
    return pinger.Replies() >= count ? 0 : 1;
}

// Shows the IPv4 frames that reach this host, on every interface.
//
//     frame_watch [count]      ends after so many frames; without a count on SIGINT (Ctrl-C) and SIGTERM
//
// Needs CAP_NET_RAW.

#include <TarnSocketIO/TarnSocketIO.h>
#include <net/ethernet.h>
#include <signal.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

using TarnSocketIO::CIPString;
using TarnSocketIO::CSocket;

class FrameWatch : public CSocket {
public:
    /// @param count  of frames after which SIGTERM is raised; 0 for never.
    explicit FrameWatch(int count) : CSocket(TarnSocketIO::CONNECTION_PACKET, false, false), m_left(count) {
        m_iPollTimeout = 100;
        m_iReceivesPerPass = 0;  // all that are there: frames come in bursts
        InitialiseLocalSockets(0, nullptr, nullptr, 1);
    }

    ~FrameWatch() override { TerminateAll(); }

    bool IsOpen() const { return m_socReceiver > 0; }

private:
    // One frame, from its Ethernet header on.
    void OnReceivedData(char* data, long length) override {
        constexpr long ip_header = 20;
        if (length < ETHER_HDR_LEN + ip_header || m_left < 0) {
            return;
        }
        const auto* const ip = reinterpret_cast<const unsigned char*>(data) + ETHER_HDR_LEN;
        const CIPString from(IPv4::IPAddress(ip + 12, BigEndian));
        const CIPString to(IPv4::IPAddress(ip + 16, BigEndian));
        std::printf("%ld bytes, protocol %d, %s to %s\n", length, ip[9], from.c_str(), to.c_str());
        if (m_left > 0 && --m_left == 0) {
            m_left = -1;
            kill(getpid(), SIGTERM);
        }
    }

    int m_left;  ///< frames to show, 0 for all that come, negative when the last has been shown
};

}  // namespace

int main(int argc, char* argv[]) {
    int count = 0;
    if (argc == 2) {
        const char* const end = argv[1] + std::strlen(argv[1]);
        const auto [stop, error] = std::from_chars(argv[1], end, count);
        if (error != std::errc() || stop != end || count < 1) {
            std::fprintf(stderr, "frame_watch: \"%s\" is not a count; give a number from 1 on\n", argv[1]);
            return 2;
        }
    } else if (argc > 2) {
        std::fprintf(stderr, "usage: frame_watch [count]\n");
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    // Blocked before the threads start, so that the signals come to this thread, in sigwait and nowhere else.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);

    const FrameWatch watch(count);
    if (!watch.IsOpen()) {
        std::fprintf(stderr, "frame_watch: no link-layer sockets; run it with CAP_NET_RAW\n");
        return 1;
    }
    std::printf("frame_watch: watching\n");
    int signal_number = 0;
    sigwait(&ending, &signal_number);
    return 0;
}

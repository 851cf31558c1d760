#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>

namespace TarnTest {

/// Sends datagrams to a port of this machine, a few each millisecond, for as long as the object lives; whether anybody
/// receives them or not.
class Pour {
public:
    static constexpr const char* data = "poured";

    explicit Pour(std::uint16_t port) : m_thread([this, port] { Run(port); }) {}
    ~Pour() {
        m_end = true;
        m_thread.join();
    }
    Pour(const Pour&) = delete;
    Pour& operator=(const Pour&) = delete;

private:
    void Run(std::uint16_t port) const {
        // Not connected: so it hears nothing of a port that nobody has.
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        while (!m_end) {
            for (int i = 0; i < 5; ++i) {
                sendto(fd, data, std::strlen(data), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address),
                       sizeof address);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        close(fd);
    }

    std::atomic<bool> m_end{false};
    std::thread m_thread;
};

}  // namespace TarnTest

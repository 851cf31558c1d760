#include "tests/support/Datagrams.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace TarnTest {

void SendDatagram(std::uint16_t port, const std::string& data, const char* to) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = inet_addr(to);
    const ssize_t sent =
        sendto(fd, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = errno;
    close(fd);
    if (sent != static_cast<ssize_t>(data.size())) {
        throw std::system_error(error, std::generic_category(), "SendDatagram");
    }
}

}  // namespace TarnTest

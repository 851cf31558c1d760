#include "tests/support/Resources.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

namespace TarnTest {

namespace {

std::size_t CountEntries(const char* directory) {
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

bool CanBind(int type, std::uint16_t port) {
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    const bool is_free = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return is_free;
}

}  // namespace

std::size_t CountOpenDescriptors() {
    return CountEntries("/proc/self/fd") - 1;  // not the one that reads the directory
}

std::size_t CountThreads() {
#if defined(__SANITIZE_THREAD__)
    static const bool has_helper = [] {
        std::thread([] {}).join();
        return true;
    }();
    static_cast<void>(has_helper);
#endif
    return CountEntries("/proc/self/task");
}

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

bool IsReadable(int fd) {
    pollfd record = {fd, POLLIN, 0};
    return poll(&record, 1, 30000) == 1;
}

pid_t ThisThread() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool IsAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(file, line);
    const std::size_t end_of_name = line.rfind(')');
    return end_of_name != std::string::npos && line.compare(end_of_name, 3, ") S") == 0;
}

std::uint16_t FindUnusedPort() {
    // Test programs that run side by side begin at different places.
    const unsigned int first = static_cast<unsigned int>(getpid()) * 37;
    for (unsigned int i = 0; i < 20000; ++i) {
        const auto port = static_cast<std::uint16_t>(12000 + (first + i) % 20000);
        if (CanBind(SOCK_STREAM, port) && CanBind(SOCK_DGRAM, port)) {
            return port;
        }
    }
    throw std::runtime_error("every port from 12000 to 31999 is taken");
}

StandardInputSetAside::StandardInputSetAside() : m_saved(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)) {
    close(STDIN_FILENO);
}

StandardInputSetAside::~StandardInputSetAside() {
    close(STDIN_FILENO);
    if (m_saved != -1) {
        dup2(m_saved, STDIN_FILENO);
        close(m_saved);
    }
}

}  // namespace TarnTest

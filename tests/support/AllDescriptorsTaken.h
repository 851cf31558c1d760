#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

namespace TarnTest {

/// Leaves the process without a free descriptor number for as long as the object lives.
class AllDescriptorsTaken {
public:
    AllDescriptorsTaken() {
        getrlimit(RLIMIT_NOFILE, &m_limit);
        rlimit lowered = m_limit;
        lowered.rlim_cur = most;
        setrlimit(RLIMIT_NOFILE, &lowered);
        m_taken.reserve(most);
        for (int fd; (fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) != -1;) {
            m_taken.push_back(fd);
        }
    }
    ~AllDescriptorsTaken() {
        for (const int fd : m_taken) {
            close(fd);
        }
        setrlimit(RLIMIT_NOFILE, &m_limit);
    }
    AllDescriptorsTaken(const AllDescriptorsTaken&) = delete;
    AllDescriptorsTaken& operator=(const AllDescriptorsTaken&) = delete;

private:
    static constexpr rlim_t most = 256;
    rlimit m_limit{};
    std::vector<int> m_taken;
};

}  // namespace TarnTest

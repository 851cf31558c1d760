#include <TarnSocketIO/detail/Descriptor.h>

#include <unistd.h>

#include <cerrno>

namespace TarnSocketIO::detail {

void CloseDescriptor(int fd) {
    if (fd > 0) {
        const int error = errno;
        // Not tried again on EINTR: on Linux the number is free by then, and may be somebody else's.
        ::close(fd);
        errno = error;
    }
}

void Descriptor::Reset(int fd) {
    CloseDescriptor(m_fd);
    m_fd = fd;
}

int Descriptor::Release() {
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

}  // namespace TarnSocketIO::detail

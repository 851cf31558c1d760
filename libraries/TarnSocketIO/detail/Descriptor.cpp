#include <TarnSocketIO/detail/Descriptor.h>

#include <sys/stat.h>
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

bool CloseOnce(int fd) {
    return ::close(fd) == 0;
}

bool CloseRepeatedly(int fd) {
    struct stat before {};
    ::fstat(fd, &before);
    while (::close(fd) != 0) {
        if (errno != EINTR) {
            return false;
        }
        // On Linux it is closed all the same, and the number may be somebody else's by now.
        struct stat now {};
        if (::fstat(fd, &now) != 0 || now.st_dev != before.st_dev || now.st_ino != before.st_ino) {
            return true;
        }
    }
    return true;
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

#pragma once

namespace TarnSocketIO::detail {

/// Closes a descriptor, and leaves errno as it was. -1 and 0 are "none" and never closed: 0 is somebody's standard
/// input.
void CloseDescriptor(int fd);

// These two close any descriptor, 0 too, and return false with errno set if the system says that it could not.

/// close(2).
bool CloseOnce(int fd);

/// The same again and again while it is interrupted, unless it has been closed all the same, as on Linux.
bool CloseRepeatedly(int fd);

/// The one owner of a descriptor: closes it when it goes, with CloseDescriptor.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor() { Reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return m_fd; }

    /// Closes what is owned and owns `fd` from now on.
    void Reset(int fd = -1);

    /// Gives the descriptor up without closing it.
    int Release();

private:
    int m_fd;
};

}  // namespace TarnSocketIO::detail

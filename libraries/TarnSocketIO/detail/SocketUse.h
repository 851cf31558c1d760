#pragma once

#include <atomic>
#include <cstdint>

namespace TarnSocketIO::detail {

/// System calls on a socket that another thread may close meanwhile.
///
/// Who uses a number counts itself first and looks at the number then; who closes takes the number away first and looks
/// at the count then. So a number is closed, and can become somebody else's, only when nobody is in a system call on
/// it. Not to be held while an application is called: it may close the socket there, which would wait for this very
/// use.
class SocketUse {
public:
    /// @param number  the socket; -1 and 0 are none.
    /// @param users   of the socket that `number` tells of.
    SocketUse(const std::atomic<std::int32_t>& number, std::atomic<std::int32_t>& users)
        : m_number(number), m_users(users), m_fd(Enter()) {}
    ~SocketUse() { --m_users; }
    SocketUse(const SocketUse&) = delete;
    SocketUse& operator=(const SocketUse&) = delete;

    /// -1 if there is none.
    int Get() const { return m_fd; }

    /// False from the moment on in which somebody has begun to close it.
    bool IsCurrent() const { return m_fd > 0 && m_number == m_fd; }

private:
    int Enter() const {
        ++m_users;
        const int fd = m_number;
        return fd > 0 ? fd : -1;
    }

    const std::atomic<std::int32_t>& m_number;
    std::atomic<std::int32_t>& m_users;
    const int m_fd;
};

/// Closes a socket whose number has been taken away already: wakes its users, waits for them to leave, for a second at
/// most, and closes it. 0 and negative numbers are none.
///
/// @return false if it is still used, and therefore still open.
bool CloseUnused(int fd, const std::atomic<std::int32_t>& users);

}  // namespace TarnSocketIO::detail

#pragma once

#include <pthread.h>

namespace TarnSocketIO::detail {

/// Holds a plain POSIX mutex for a scope: for the locks that applications can reach, and that therefore stay plain.
class PosixLock {
public:
    explicit PosixLock(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
    ~PosixLock() { pthread_mutex_unlock(&m_mutex); }
    PosixLock(const PosixLock&) = delete;
    PosixLock& operator=(const PosixLock&) = delete;

private:
    pthread_mutex_t& m_mutex;
};

}  // namespace TarnSocketIO::detail

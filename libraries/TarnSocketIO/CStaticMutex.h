#pragma once

#include <pthread.h>

#include <TarnSocketIO/ThreadAnnotations.h>

namespace TarnSocketIO {

/// A bare POSIX mutex with default attributes: one thread must not lock it twice. Threads: any.
class TARN_CAPABILITY("mutex") CStaticMutex {
public:
    CStaticMutex();
    ~CStaticMutex();
    CStaticMutex(const CStaticMutex&) = delete;
    CStaticMutex& operator=(const CStaticMutex&) = delete;

    void Lock() TARN_ACQUIRE();
    void Unlock() TARN_RELEASE();

private:
    pthread_mutex_t m_mutex;
};

}  // namespace TarnSocketIO

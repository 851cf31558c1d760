#pragma once

#include <pthread.h>

#include <TarnSocketIO/ThreadAnnotations.h>

/// A POSIX mutex of a chosen kind that knows whether it could be created.
///
/// Constructor and destructor come from the companion runtime (the target TarnRuntime, or the platform's own), so the
/// two fields and their order are fixed. Threads: any; that is what it is for.
class TARN_CAPABILITY("mutex") CMutex {
public:
    enum enMutexTypes {
        enNormal = 0,     ///< locking it twice from one thread is not allowed
        enRecursive = 1,  ///< one thread may lock it again, and unlocks it as often
        enErrorCheck = 2  ///< locking it twice from one thread, or unlocking another's, fails instead of hanging
    };

    /// Creates the mutex; when that fails, Lock() and Unlock() return false and do nothing.
    explicit CMutex(enMutexTypes type);
    ~CMutex();
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    /// @return true exactly when pthread_mutex_lock returned 0.
    bool Lock() TARN_ACQUIRE() { return m_bValid && pthread_mutex_lock(&m_mutex) == 0; }

    /// @return true exactly when pthread_mutex_unlock returned 0.
    bool Unlock() TARN_RELEASE() { return m_bValid && pthread_mutex_unlock(&m_mutex) == 0; }

private:
    pthread_mutex_t m_mutex;
    bool m_bValid;
};

/// Holds a lock for the lifetime of a scope. The results of Lock() and Unlock() are ignored.
///
/// @tparam Mutex  CMutex, CStaticMutex, or any type with Lock() and Unlock(). The mutex must outlive the locker.
template <class Mutex>
class TARN_SCOPED_CAPABILITY CScopedLocker {
public:
    explicit CScopedLocker(Mutex& mutex) TARN_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~CScopedLocker() TARN_RELEASE() { m_mutex.Unlock(); }
    CScopedLocker(const CScopedLocker&) = delete;
    CScopedLocker& operator=(const CScopedLocker&) = delete;

private:
    Mutex& m_mutex;
};

#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/CStaticMutex.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <cerrno>
#include <new>
#include <string>
#include <thread>
#include <type_traits>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Eventually.h"

namespace {

using TarnSocketIO::CStaticMutex;
using TarnTest::BackgroundCall;
using TarnTest::Eventually;

pthread_mutex_t* PosixMutexOf(CStaticMutex& mutex) {
    return reinterpret_cast<pthread_mutex_t*>(&mutex);
}

std::string BytesOf(const pthread_mutex_t* mutex) {
    return {reinterpret_cast<const char*>(mutex), sizeof(pthread_mutex_t)};
}

/// Whether the calling thread, too, would have to wait.
bool IsLocked(CStaticMutex& mutex) {
    const int result = pthread_mutex_trylock(PosixMutexOf(mutex));
    if (result == 0) {
        pthread_mutex_unlock(PosixMutexOf(mutex));
    }
    return result == EBUSY;
}

/// Expects that another thread waits for a mutex that is held, until `release` has let go of it.
template <class Release>
void ExpectThatAnotherThreadWaits(CStaticMutex& mutex, Release release) {
    bool is_released = false;
    BackgroundCall other([&] {
        const CScopedLocker<CStaticMutex> waiting(mutex);
        return is_released;
    });
    EXPECT_TRUE(Eventually([&] { return other.Waits() || other.HasEnded(); }));
    is_released = true;
    release();
    EXPECT_TRUE(other.Result()) << "entered while the mutex was held";
}

// For clients' statics, which other statics may use: made before main, and before the tests.
CStaticMutex mutex_of_this_file;

TEST(CStaticMutex, KeepsThreadsApart) {
    CStaticMutex mutex;
    int count = 0;
    const auto add = [&] {
        for (int i = 0; i < 10000; ++i) {
            mutex.Lock();
            ++count;
            mutex.Unlock();
        }
    };
    std::thread first(add);
    std::thread second(add);
    first.join();
    second.join();
    EXPECT_EQ(20000, count);
}

TEST(CStaticMutex, IsABarePosixMutex) {
    static_assert(std::is_standard_layout<CStaticMutex>::value, "has virtual operations");
    EXPECT_EQ(sizeof(pthread_mutex_t), sizeof(CStaticMutex));
    EXPECT_FALSE(std::is_copy_constructible<CStaticMutex>::value);
    EXPECT_FALSE(std::is_copy_assignable<CStaticMutex>::value);
}

TEST(CStaticMutex, IsMadeWithDefaultAttributes) {
#if !defined(__GLIBC__)
    GTEST_SKIP() << "only of this C library is it known that equal mutexes have equal bytes";
#endif
    pthread_mutex_t ordinary;
    ASSERT_EQ(0, pthread_mutex_init(&ordinary, nullptr));
    CStaticMutex mutex;
    EXPECT_EQ(BytesOf(&ordinary), BytesOf(PosixMutexOf(mutex)));
    EXPECT_EQ(0, pthread_mutex_destroy(&ordinary));
}

TEST(CStaticMutex, DestructorDestroysThePosixMutex) {
#if !defined(__GLIBC__)
    GTEST_SKIP() << "only of this C library is it known what a destroyed mutex looks like";
#endif
    alignas(CStaticMutex) std::array<unsigned char, sizeof(CStaticMutex)> storage;
    auto* const mutex = new (storage.data()) CStaticMutex;
    const auto before = storage;
    mutex->~CStaticMutex();
    EXPECT_NE(before, storage);
}

TEST(CStaticMutex, IsHeldFromLockToUnlock) {
    CStaticMutex mutex;
    EXPECT_FALSE(IsLocked(mutex));
    for (int i = 0; i < 100; ++i) {
        mutex.Lock();
        EXPECT_TRUE(IsLocked(mutex)) << "free, or taken again by its holder";
        mutex.Unlock();
        EXPECT_FALSE(IsLocked(mutex));
    }
}

TEST(CStaticMutex, WorksAsAStatic) {
    mutex_of_this_file.Lock();
    EXPECT_TRUE(IsLocked(mutex_of_this_file));
    mutex_of_this_file.Unlock();
    EXPECT_FALSE(IsLocked(mutex_of_this_file));
}

TEST(CStaticMutex, AnotherThreadWaitsUntilItIsUnlocked) {
    CStaticMutex mutex;
    mutex.Lock();
    ExpectThatAnotherThreadWaits(mutex, [&] { mutex.Unlock(); });
}

TEST(CStaticMutex, IsHeldByAScopedLocker) {
    CStaticMutex mutex;
    alignas(CScopedLocker<CStaticMutex>) std::array<unsigned char, sizeof(CScopedLocker<CStaticMutex>)> storage;
    auto* const locker = new (storage.data()) CScopedLocker<CStaticMutex>(mutex);
    EXPECT_TRUE(IsLocked(mutex));
    ExpectThatAnotherThreadWaits(mutex, [&] { locker->~CScopedLocker<CStaticMutex>(); });
    EXPECT_FALSE(IsLocked(mutex));
}

}  // namespace

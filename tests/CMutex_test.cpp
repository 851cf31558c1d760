#include <TarnSocketIO/CMutex.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Eventually.h"

namespace {

using TarnTest::BackgroundCall;
using TarnTest::Eventually;

/// What a mutex consists of for the companion runtime.
struct Layout {
    pthread_mutex_t mutex;
    bool is_valid;
};

pthread_mutex_t* PosixMutexOf(CMutex& mutex) {
    return reinterpret_cast<pthread_mutex_t*>(&mutex);
}

/// Whether the calling thread, too, would have to wait. Not for the recursive kind.
bool IsLocked(CMutex& mutex) {
    const int result = pthread_mutex_trylock(PosixMutexOf(mutex));
    if (result == 0) {
        pthread_mutex_unlock(PosixMutexOf(mutex));
    }
    return result == EBUSY;
}

/// Expects that another thread waits for a mutex that is held, until `release` has let go of it.
template <class Release>
void ExpectThatAnotherThreadWaits(CMutex& mutex, Release release) {
    bool is_released = false;
    BackgroundCall other([&] {
        const bool locked = mutex.Lock();
        const bool entered_in_time = is_released;
        return mutex.Unlock() && locked && entered_in_time;
    });
    EXPECT_TRUE(Eventually([&] { return other.Waits() || other.HasEnded(); }));
    is_released = true;
    release();
    EXPECT_TRUE(other.Result()) << "entered while the mutex was held";
}

TEST(CMutex, LocksAndUnlocks) {
    CMutex mutex(CMutex::enNormal);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Unlock());
}

TEST(CMutex, IsFreeAgainAfterEachUnlock) {
    for (const auto kind : {CMutex::enNormal, CMutex::enRecursive, CMutex::enErrorCheck}) {
        SCOPED_TRACE(kind);
        CMutex mutex(kind);
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(mutex.Lock());
            ASSERT_TRUE(mutex.Unlock());
        }
    }
}

TEST(CMutex, KindsHaveTheValuesThatTheCompanionRuntimeExpects) {
    EXPECT_EQ(0, CMutex::enNormal);
    EXPECT_EQ(1, CMutex::enRecursive);
    EXPECT_EQ(2, CMutex::enErrorCheck);
}

TEST(CMutex, IsAPosixMutexFollowedByWhetherItIsValid) {
    static_assert(std::is_standard_layout<CMutex>::value, "the mutex is not the first thing in it");
    static_assert(sizeof(CMutex) == sizeof(Layout), "holds something else too");
    CMutex mutex(CMutex::enNormal);
    Layout layout;
    std::memcpy(&layout, static_cast<const void*>(&mutex), sizeof layout);
    EXPECT_TRUE(layout.is_valid);

    EXPECT_FALSE(IsLocked(mutex));
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(IsLocked(mutex)) << "another mutex than the first field was locked";
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_FALSE(IsLocked(mutex));
}

TEST(CMutex, IsNotCopied) {
    EXPECT_FALSE(std::is_copy_constructible<CMutex>::value);
    EXPECT_FALSE(std::is_copy_assignable<CMutex>::value);
    EXPECT_FALSE(std::is_copy_constructible<CScopedLocker<CMutex>>::value);
    EXPECT_FALSE(std::is_copy_assignable<CScopedLocker<CMutex>>::value);
}

TEST(CMutex, DestructorDestroysThePosixMutex) {
#if !defined(__GLIBC__)
    GTEST_SKIP() << "only of this C library is it known what a destroyed mutex looks like";
#endif
    alignas(CMutex) std::array<unsigned char, sizeof(CMutex)> storage;
    auto* const mutex = new (storage.data()) CMutex(CMutex::enNormal);
    const auto before = storage;
    mutex->~CMutex();
    EXPECT_NE(before, storage);
}

TEST(CMutex, AnotherThreadWaitsUntilItIsUnlocked) {
    for (const auto kind : {CMutex::enNormal, CMutex::enRecursive, CMutex::enErrorCheck}) {
        SCOPED_TRACE(kind);
        CMutex mutex(kind);
        EXPECT_TRUE(mutex.Lock());
        ExpectThatAnotherThreadWaits(mutex, [&] { EXPECT_TRUE(mutex.Unlock()); });
    }
}

TEST(CMutex, NormalKindCannotBeTakenAgainByItsHolder) {
    CMutex mutex(CMutex::enNormal);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(PosixMutexOf(mutex))) << "recursive";
    EXPECT_TRUE(mutex.Unlock());
}

std::string BytesOf(const pthread_mutex_t* mutex) {
    return {reinterpret_cast<const char*>(mutex), sizeof(pthread_mutex_t)};
}

/// Whether the mutex is what pthread_mutex_init makes of one of the types.
bool IsOfAType(CMutex& mutex, std::initializer_list<int> types) {
    bool is_one = false;
    for (const int type : types) {
        pthread_mutexattr_t attributes;
        pthread_mutex_t model;
        EXPECT_EQ(0, pthread_mutexattr_init(&attributes));
        EXPECT_EQ(0, pthread_mutexattr_settype(&attributes, type));
        EXPECT_EQ(0, pthread_mutex_init(&model, &attributes));
        is_one = is_one || BytesOf(&model) == BytesOf(PosixMutexOf(mutex));
        EXPECT_EQ(0, pthread_mutex_destroy(&model));
        EXPECT_EQ(0, pthread_mutexattr_destroy(&attributes));
    }
    return is_one;
}

TEST(CMutex, EachKindIsThePosixMutexOfItsName) {
#if !defined(__GLIBC__)
    GTEST_SKIP() << "only of this C library is it known that equal mutexes have equal bytes";
#endif
    CMutex normal(CMutex::enNormal);
    CMutex recursive(CMutex::enRecursive);
    CMutex error_check(CMutex::enErrorCheck);
    EXPECT_TRUE(IsOfAType(normal, {PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_DEFAULT}));
    EXPECT_TRUE(IsOfAType(recursive, {PTHREAD_MUTEX_RECURSIVE}));
    EXPECT_TRUE(IsOfAType(error_check, {PTHREAD_MUTEX_ERRORCHECK}));
}

TEST(CMutex, RecursiveKindIsLockedTwiceByOneThread) {
    CMutex mutex(CMutex::enRecursive);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_TRUE(mutex.Unlock());
}

TEST(CMutex, RecursiveKindIsHeldUntilTheLastUnlock) {
    CMutex mutex(CMutex::enRecursive);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Unlock());
    ExpectThatAnotherThreadWaits(mutex, [&] { EXPECT_TRUE(mutex.Unlock()); });
}

TEST(CMutex, ErrorCheckKindRefusesASecondLockByOneThread) {
    CMutex mutex(CMutex::enErrorCheck);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_FALSE(mutex.Lock());
    EXPECT_TRUE(mutex.Unlock());
}

TEST(CMutex, ErrorCheckKindRefusesToUnlockWhatIsNotLocked) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer reports the misuse that is refused here";
#endif
    CMutex mutex(CMutex::enErrorCheck);
    EXPECT_FALSE(mutex.Unlock());
}

TEST(CMutex, ErrorCheckKindRefusesToUnlockWhatAnotherThreadHolds) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer reports the misuse that is refused here";
#endif
    CMutex mutex(CMutex::enErrorCheck);
    EXPECT_TRUE(mutex.Lock());
    std::thread([&] { EXPECT_FALSE(mutex.Unlock()); }).join();
    EXPECT_TRUE(IsLocked(mutex));
    EXPECT_TRUE(mutex.Unlock());
}

TEST(CScopedLocker, HoldsTheMutexForItsScopeOnly) {
    CMutex mutex(CMutex::enErrorCheck);
    {
        const CScopedLocker<CMutex> locker(mutex);
        EXPECT_FALSE(mutex.Lock()) << "not held inside the scope";
    }
    EXPECT_TRUE(mutex.Lock()) << "still held after the scope";
    EXPECT_TRUE(mutex.Unlock());
}

TEST(CScopedLocker, HoldsTheMutexFromItsFirstLineToItsLast) {
    CMutex mutex(CMutex::enNormal);
    EXPECT_FALSE(IsLocked(mutex));
    {
        EXPECT_FALSE(IsLocked(mutex));
        const CScopedLocker<CMutex> locker(mutex);
        EXPECT_TRUE(IsLocked(mutex));
    }
    EXPECT_FALSE(IsLocked(mutex));
}

TEST(CScopedLocker, LetsGoWhenItsScopeIsLeftByAnException) {
    CMutex mutex(CMutex::enNormal);
    EXPECT_THROW(
        {
            const CScopedLocker<CMutex> locker(mutex);
            throw std::runtime_error("left early");
        },
        std::runtime_error);
    EXPECT_FALSE(IsLocked(mutex));
}

TEST(CScopedLocker, HoldsTheMutexThatItWasGivenAndNoOther) {
    CMutex first(CMutex::enNormal);
    CMutex second(CMutex::enNormal);
    const CScopedLocker<CMutex> outer(first);
    EXPECT_FALSE(IsLocked(second));
    {
        const CScopedLocker<CMutex> inner(second);
        EXPECT_TRUE(IsLocked(first));
        EXPECT_TRUE(IsLocked(second));
    }
    EXPECT_TRUE(IsLocked(first));
    EXPECT_FALSE(IsLocked(second));
}

TEST(CScopedLocker, MakesAnotherThreadWaitForTheEndOfItsScope) {
    CMutex mutex(CMutex::enNormal);
    alignas(CScopedLocker<CMutex>) std::array<unsigned char, sizeof(CScopedLocker<CMutex>)> storage;
    auto* const locker = new (storage.data()) CScopedLocker<CMutex>(mutex);
    ExpectThatAnotherThreadWaits(mutex, [&] { locker->~CScopedLocker<CMutex>(); });
}

/// Fails whatever it is asked, and remembers what that was.
struct RefusingMutex {
    bool Lock() {
        ++locks;
        return false;
    }
    bool Unlock() {
        ++unlocks;
        return false;
    }

    int locks = 0;
    int unlocks = 0;
};

TEST(CScopedLocker, IgnoresWhatLockAndUnlockReturn) {
    RefusingMutex mutex;
    {
        const CScopedLocker<RefusingMutex> locker(mutex);
        EXPECT_EQ(1, mutex.locks);
        EXPECT_EQ(0, mutex.unlocks);
    }
    EXPECT_EQ(1, mutex.locks);
    EXPECT_EQ(1, mutex.unlocks) << "a lock that failed is unlocked all the same";
}

TEST(CScopedLocker, ConsistsOfItsReferenceToTheMutex) {
    EXPECT_EQ(sizeof(void*), sizeof(CScopedLocker<CMutex>));
}

TEST(CScopedLocker, KeepsThreadsApart) {
    CMutex mutex(CMutex::enNormal);
    int count = 0;
    const auto add = [&] {
        for (int i = 0; i < 10000; ++i) {
            const CScopedLocker<CMutex> locker(mutex);
            ++count;
        }
    };
    std::thread first(add);
    std::thread second(add);
    first.join();
    second.join();
    EXPECT_EQ(20000, count);
}

}  // namespace

#include <TarnSocketIO/CMutex.h>
#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(CMutex, LocksAndUnlocks) {
    CMutex mutex(CMutex::enNormal);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Unlock());
}

TEST(CMutex, KindsHaveTheValuesThatTheCompanionRuntimeExpects) {
    EXPECT_EQ(0, CMutex::enNormal);
    EXPECT_EQ(1, CMutex::enRecursive);
    EXPECT_EQ(2, CMutex::enErrorCheck);
}

TEST(CMutex, RecursiveKindIsLockedTwiceByOneThread) {
    CMutex mutex(CMutex::enRecursive);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_TRUE(mutex.Unlock());
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

TEST(CScopedLocker, HoldsTheMutexForItsScopeOnly) {
    CMutex mutex(CMutex::enErrorCheck);
    {
        const CScopedLocker<CMutex> locker(mutex);
        EXPECT_FALSE(mutex.Lock()) << "not held inside the scope";
    }
    EXPECT_TRUE(mutex.Lock()) << "still held after the scope";
    EXPECT_TRUE(mutex.Unlock());
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

#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/CStaticMutex.h>
#include <gtest/gtest.h>

#include <thread>

namespace {

using TarnSocketIO::CStaticMutex;

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

TEST(CStaticMutex, IsHeldByAScopedLocker) {
    CStaticMutex mutex;
    bool inside = false;
    std::thread other;
    {
        const CScopedLocker<CStaticMutex> locker(mutex);
        other = std::thread([&] {
            const CScopedLocker<CStaticMutex> waiting(mutex);
            EXPECT_TRUE(inside) << "entered while the mutex was held";
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        inside = true;
    }
    other.join();
}

}  // namespace

// An event's state, and what threads that share one can rely on.

#include <TarnSocketIO/CEvent.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Eventually.h"

namespace {

using TarnSocketIO::CEvent;
using TarnTest::BackgroundCall;
using TarnTest::Eventually;

/// Waits, without a pause, for what another thread is about to do.
///
/// @return false if it still has not been done after half a minute.
template <class Condition>
bool Soon(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

/// How far the threads of a test have come. Relaxed, so that it orders nothing but itself: what one thread sees of
/// another's data it sees through the event.
class Stage {
public:
    void Reach(int stage) { m_stage.store(stage, std::memory_order_relaxed); }
    bool WaitFor(int stage) const {
        return Eventually([&] { return m_stage.load(std::memory_order_relaxed) >= stage; });
    }

private:
    std::atomic<int> m_stage{0};
};

// ---- state

TEST(CEvent, IsNotFiredAtFirst) {
    const CEvent event;
    EXPECT_FALSE(event.GetFired());
}

TEST(CEvent, IsNotFiredAtFirstAlsoWhereAFiredOneWas) {
    alignas(CEvent) std::array<unsigned char, sizeof(CEvent)> room;
    for (int i = 0; i < 3; ++i) {
        auto* const event = new (room.data()) CEvent;
        EXPECT_FALSE(event->GetFired());
        event->SetEvent();
        EXPECT_TRUE(event->GetFired());
        event->~CEvent();
    }
}

TEST(CEvent, IsFiredFromSetToReset) {
    CEvent event;
    for (int i = 0; i < 3; ++i) {
        event.SetEvent();
        EXPECT_TRUE(event.GetFired());
        EXPECT_TRUE(event.GetFired()) << "asking has reset it";
        event.ResetEvent();
        EXPECT_FALSE(event.GetFired());
        EXPECT_FALSE(event.GetFired());
    }
}

TEST(CEvent, SetTwiceIsStillFired) {
    CEvent event;
    event.SetEvent();
    event.SetEvent();
    EXPECT_TRUE(event.GetFired());
    EXPECT_TRUE(event.WaitOnEvent(0, 0));
}

TEST(CEvent, SetTwiceIsResetByOneReset) {
    CEvent event;
    event.SetEvent();
    event.SetEvent();
    event.ResetEvent();
    EXPECT_FALSE(event.GetFired());
    EXPECT_FALSE(event.WaitOnEvent(0, 0));
}

TEST(CEvent, ResetOfAnUnfiredOneChangesNothing) {
    CEvent event;
    event.ResetEvent();
    event.ResetEvent();
    EXPECT_FALSE(event.GetFired());
    event.SetEvent();
    EXPECT_TRUE(event.GetFired());
}

TEST(CEvent, HasAStateOfItsOwn) {
    CEvent first;
    CEvent second;
    first.SetEvent();
    EXPECT_FALSE(second.GetFired());
    second.SetEvent();
    first.ResetEvent();
    EXPECT_TRUE(second.GetFired());
    EXPECT_FALSE(first.GetFired());
}

TEST(CEvent, IsNotCopied) {
    EXPECT_FALSE(std::is_copy_constructible<CEvent>::value);
    EXPECT_FALSE(std::is_copy_assignable<CEvent>::value);
}

// ---- what it is made of

class CountedEvent : public CEvent {
public:
    explicit CountedEvent(int& destroyed) : m_destroyed(destroyed) {}
    ~CountedEvent() override { ++m_destroyed; }
    CountedEvent(const CountedEvent&) = delete;
    CountedEvent& operator=(const CountedEvent&) = delete;

private:
    int& m_destroyed;
};

TEST(CEvent, IsDestroyedAsWhatItIsThroughItsBase) {
    int destroyed = 0;
    std::unique_ptr<CEvent> event = std::make_unique<CountedEvent>(destroyed);
    event.reset();
    EXPECT_EQ(1, destroyed);
}

/// Would say the opposite of what the event says, and hang where it does not, if anything but the destructor was
/// virtual.
struct ContraryEvent : CEvent {
    void SetEvent() { ++calls; }
    void ResetEvent() { ++calls; }
    bool GetFired() const { return !CEvent::GetFired(); }
    void Lock() { ++calls; }
    void Unlock() { ++calls; }
    bool WaitOnEvent(long seconds, long microseconds) { return !CEvent::WaitOnEvent(seconds, microseconds); }

    int calls = 0;
};

TEST(CEvent, HasNoOtherVirtualOperationThanItsDestructor) {
    static_assert(std::has_virtual_destructor<CEvent>::value, "cannot be destroyed through its base");
    ContraryEvent contrary;
    CEvent& event = contrary;
    EXPECT_FALSE(event.GetFired());
    EXPECT_FALSE(event.WaitOnEvent(0, 0));
    event.SetEvent();
    EXPECT_TRUE(event.GetFired());
    EXPECT_TRUE(event.WaitOnEvent(0, 0));
    event.Lock();
    event.Unlock();
    event.ResetEvent();
    EXPECT_FALSE(event.GetFired());
    EXPECT_EQ(0, contrary.calls);
}

/// What an event consists of.
struct Layout {
    void* operations;
    pthread_mutex_t mutex;
    bool is_fired;
};

pthread_mutex_t* MutexOf(CEvent& event) {
    return &reinterpret_cast<Layout*>(&event)->mutex;
}

std::string BytesOf(const pthread_mutex_t* mutex) {
    return {reinterpret_cast<const char*>(mutex), sizeof(pthread_mutex_t)};
}

TEST(CEvent, MutexIsADefaultOneAndIsDestroyedWithIt) {
#if !defined(__GLIBC__)
    GTEST_SKIP() << "only of this C library is it known what mutexes look like";
#endif
    pthread_mutex_t ordinary;
    ASSERT_EQ(0, pthread_mutex_init(&ordinary, nullptr));
    ASSERT_EQ(sizeof(Layout), sizeof(CEvent));
    alignas(CEvent) std::array<unsigned char, sizeof(CEvent)> room;
    auto* const event = new (room.data()) CEvent;
    EXPECT_EQ(BytesOf(&ordinary), BytesOf(MutexOf(*event)));
    const auto before = room;
    event->~CEvent();
    EXPECT_NE(before, room) << "not destroyed";
    EXPECT_EQ(0, pthread_mutex_destroy(&ordinary));
}

TEST(CEvent, NoOperationTakesTheMutex) {
    ASSERT_EQ(sizeof(Layout), sizeof(CEvent));
    CEvent event;
    ASSERT_EQ(0, pthread_mutex_lock(MutexOf(event)));
    std::thread([&] {
        EXPECT_FALSE(event.WaitOnEvent(0, 0));
        event.Lock();
        event.SetEvent();
        event.Unlock();
        EXPECT_TRUE(event.GetFired());
        EXPECT_TRUE(event.WaitOnEvent(0, 0));
        event.ResetEvent();
    }).join();
    EXPECT_FALSE(event.GetFired());
    EXPECT_EQ(0, pthread_mutex_unlock(MutexOf(event)));
}

// ---- Lock and Unlock do nothing

TEST(CEvent, IsLockedTwiceByOneThreadWithoutWaiting) {
    CEvent event;
    event.Lock();
    event.Lock();
    event.SetEvent();
    EXPECT_TRUE(event.GetFired());
    EXPECT_TRUE(event.WaitOnEvent(0, 0));
    event.ResetEvent();
    EXPECT_FALSE(event.WaitOnEvent(0, 0));
    event.Unlock();
    event.Unlock();
    EXPECT_FALSE(event.GetFired());
}

TEST(CEvent, IsUnlockedWithoutHavingBeenLocked) {
    CEvent event;
    event.Unlock();
    event.SetEvent();
    event.Unlock();
    EXPECT_TRUE(event.GetFired());
}

TEST(CEvent, IsUsedByAnotherThreadWhileLocked) {
    CEvent event;
    event.Lock();
    std::thread([&] {
        event.Lock();
        EXPECT_FALSE(event.GetFired());
        EXPECT_FALSE(event.WaitOnEvent(0, 0));
        event.SetEvent();
        EXPECT_TRUE(event.GetFired());
        EXPECT_TRUE(event.WaitOnEvent(0, 0));
        event.ResetEvent();
        event.SetEvent();
    }).join();
    EXPECT_TRUE(event.GetFired());
    event.Unlock();
}

TEST(CEvent, WaitsWhileLocked) {
    CEvent event;
    event.Lock();
    BackgroundCall waiter([&] { return event.WaitOnEvent(30, 0); });
    EXPECT_TRUE(Eventually([&] { return waiter.Waits(); }));
    event.Lock();
    event.SetEvent();
    EXPECT_TRUE(waiter.Result());
}

// ---- what was written before SetEvent

TEST(CEvent, WaiterSeesWhatWasWrittenBeforeTheSet) {
    for (int round = 1; round <= 200; ++round) {
        CEvent event;
        int data = 0;
        std::thread setter([&] {
            data = round;
            event.SetEvent();
        });
        EXPECT_TRUE(event.WaitOnEvent(30, 0));
        EXPECT_EQ(round, data);
        setter.join();
    }
}

TEST(CEvent, WhoFindsItFiredSeesWhatWasWrittenBeforeTheSet) {
    for (int round = 1; round <= 200; ++round) {
        CEvent event;
        int data = 0;
        std::thread setter([&] {
            data = round;
            event.SetEvent();
        });
        EXPECT_TRUE(Soon([&] { return event.GetFired(); }));
        EXPECT_EQ(round, data);
        setter.join();
    }
}

TEST(CEvent, WaiterSeesWhatWasWrittenBeforeTheSetOfAFiredEvent) {
    for (int round = 1; round <= 50; ++round) {
        CEvent event;
        Stage stage;
        int first_data = 0;
        int second_data = 0;
        std::thread first([&] {
            first_data = round;
            event.SetEvent();
            stage.Reach(1);
        });
        std::thread second([&] {
            EXPECT_TRUE(stage.WaitFor(1));
            second_data = round;
            event.SetEvent();
            stage.Reach(2);
        });
        EXPECT_TRUE(stage.WaitFor(2));
        EXPECT_TRUE(event.WaitOnEvent(0, 0));
        EXPECT_EQ(round, first_data);
        EXPECT_EQ(round, second_data);
        first.join();
        second.join();
    }
}

TEST(CEvent, EveryWaiterSeesWhatEverySetterWrote) {
    constexpr int setters = 4;
    for (int round = 1; round <= 10; ++round) {
        CEvent event;
        Stage stage;
        std::array<int, setters> data = {};
        std::vector<std::thread> threads;
        for (int i = 0; i < setters; ++i) {
            threads.emplace_back([&, i] {
                EXPECT_TRUE(stage.WaitFor(i));
                data[static_cast<std::size_t>(i)] = round;
                event.SetEvent();
                stage.Reach(i + 1);
            });
            threads.emplace_back([&] {
                EXPECT_TRUE(stage.WaitFor(setters));
                EXPECT_TRUE(event.GetFired());
                for (const int written : data) {
                    EXPECT_EQ(round, written);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

TEST(CEvent, TwoOfThemHandDataToAndFro) {
    CEvent request;
    CEvent answer;
    int data = 0;
    std::thread worker([&] {
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(request.WaitOnEvent(30, 0));
            request.ResetEvent();
            data *= 2;
            answer.SetEvent();
        }
    });
    for (int i = 0; i < 100; ++i) {
        data = i;
        request.SetEvent();
        EXPECT_TRUE(answer.WaitOnEvent(30, 0));
        answer.ResetEvent();
        EXPECT_EQ(2 * i, data);
    }
    worker.join();
}

// ---- destroyed by a waiter, used by many

/// Sets each event that it is given, on a thread of its own, and does nothing else with it.
class Setter {
public:
    Setter() : m_event(nullptr), m_is_over(false), m_thread([this] { Run(); }) {}
    ~Setter() {
        m_is_over = true;
        m_thread.join();
    }
    Setter(const Setter&) = delete;
    Setter& operator=(const Setter&) = delete;

    void Give(CEvent& event) { m_event = &event; }

private:
    void Run() {
        while (!m_is_over) {
            CEvent* const event = m_event.exchange(nullptr);
            if (event != nullptr) {
                event->SetEvent();
            } else {
                std::this_thread::yield();
            }
        }
    }

    std::atomic<CEvent*> m_event;
    std::atomic<bool> m_is_over;
    std::thread m_thread;
};

TEST(CEvent, IsDestroyedByItsWaiterInTheMomentOfTheSet) {
    Setter setter;
    for (int i = 0; i < 5000; ++i) {
        auto event = std::make_unique<CEvent>();
        setter.Give(*event);
        ASSERT_TRUE(Soon([&] { return event->GetFired(); }));
        ASSERT_TRUE(event->WaitOnEvent(30, 0));
        event.reset();
    }
}

TEST(CEvent, IsDestroyedByItsWaiterAsSoonAsTheWaitIsOver) {
    std::vector<std::thread> waiters;
    for (int i = 0; i < 8; ++i) {
        waiters.emplace_back([] {
            Setter setter;
            for (int round = 0; round < 150; ++round) {
                auto event = std::make_unique<CEvent>();
                setter.Give(*event);
                ASSERT_TRUE(event->WaitOnEvent(30, 0));
                event.reset();
            }
        });
    }
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
}

TEST(CEvent, IsUsedByManyThreadsAtOnce) {
    CEvent event;
    std::atomic<int> set{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 5000; ++round) {
                event.SetEvent();
                ++set;
            }
        });
        threads.emplace_back([&] {
            for (int round = 0; round < 5000; ++round) {
                event.ResetEvent();
                event.GetFired();
            }
        });
        threads.emplace_back([&] {
            for (int round = 0; round < 50; ++round) {
                event.Lock();
                event.WaitOnEvent(0, 4000);
                event.Unlock();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(15000, set);
    event.SetEvent();
    EXPECT_TRUE(event.GetFired());
    event.ResetEvent();
    EXPECT_FALSE(event.GetFired());
}

}  // namespace

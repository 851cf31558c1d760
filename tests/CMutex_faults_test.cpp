// Mutexes that could not be created.

#include <TarnSocketIO/CMutex.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "tests/support/FailingCalls.h"

namespace {

using TarnTest::Call;
using TarnTest::CallWatch;
using TarnTest::FailingCalls;

constexpr std::array<CMutex::enMutexTypes, 3> kinds = {CMutex::enNormal, CMutex::enRecursive, CMutex::enErrorCheck};

std::unique_ptr<CMutex> MutexThatFails(CMutex::enMutexTypes kind, int error = EAGAIN) {
    const FailingCalls failing(Call::CreateMutex, error);
    auto mutex = std::make_unique<CMutex>(kind);
    EXPECT_EQ(1, failing.Failed());
    return mutex;
}

/// Room for a mutex, whose bytes can be looked at before and after it exists.
class MutexRoom {
public:
    using Bytes = std::array<unsigned char, sizeof(CMutex)>;

    CMutex* Make(CMutex::enMutexTypes kind) { return new (m_bytes.data()) CMutex(kind); }
    CMutex* MakeFailing(CMutex::enMutexTypes kind) {
        const FailingCalls failing(Call::CreateMutex, ENOMEM);
        return Make(kind);
    }

    const Bytes& Content() const { return m_bytes; }

private:
    alignas(CMutex) Bytes m_bytes = {};
};

TEST(CMutexFaults, ConstructorCreatesOnePosixMutexAndNothingElseCreatesAny) {
    for (const auto kind : kinds) {
        SCOPED_TRACE(kind);
        const CallWatch created(Call::CreateMutex);
        CMutex mutex(kind);
        EXPECT_EQ(1, created.Count());
        EXPECT_TRUE(mutex.Lock());
        EXPECT_TRUE(mutex.Unlock());
        EXPECT_EQ(1, created.Count());
    }
}

TEST(CMutexFaults, LockAndUnlockReturnFalseWhenTheCreationFailed) {
    for (const int error : {EAGAIN, ENOMEM, EPERM}) {
        for (const auto kind : kinds) {
            SCOPED_TRACE(kind);
            const auto mutex = MutexThatFails(kind, error);
            EXPECT_FALSE(mutex->Lock());
            EXPECT_FALSE(mutex->Unlock());
            EXPECT_FALSE(mutex->Unlock());
            EXPECT_FALSE(mutex->Lock());
            EXPECT_FALSE(mutex->Lock()) << "and nobody waits";
        }
    }
}

TEST(CMutexFaults, NothingIsLockedWhenTheCreationFailed) {
    MutexRoom room;
    CMutex* const mutex = room.MakeFailing(CMutex::enNormal);
    const MutexRoom::Bytes before = room.Content();
    mutex->Lock();
    EXPECT_EQ(before, room.Content());
    mutex->Unlock();
    EXPECT_EQ(before, room.Content());
    mutex->~CMutex();
}

TEST(CMutexFaults, LockChangesAMutexThatWasCreated) {
    MutexRoom room;
    CMutex* const mutex = room.Make(CMutex::enNormal);
    const MutexRoom::Bytes before = room.Content();
    mutex->Lock();
    EXPECT_NE(before, room.Content()) << "a locked mutex would not have been noticed";
    mutex->Unlock();
    mutex->~CMutex();
}

TEST(CMutexFaults, IsInvalidAlsoWhereAValidOneWasBefore) {
    MutexRoom room;
    CMutex* mutex = room.Make(CMutex::enNormal);
    EXPECT_TRUE(mutex->Lock());
    EXPECT_TRUE(mutex->Unlock());
    mutex->~CMutex();

    mutex = room.MakeFailing(CMutex::enNormal);
    EXPECT_FALSE(mutex->Lock());
    EXPECT_FALSE(mutex->Unlock());
    mutex->~CMutex();

    mutex = room.Make(CMutex::enNormal);
    EXPECT_TRUE(mutex->Lock());
    EXPECT_TRUE(mutex->Unlock());
    mutex->~CMutex();
}

TEST(CMutexFaults, ScopedLockersOfAMutexWithoutLockLetEverybodyIn) {
    const auto mutex = MutexThatFails(CMutex::enNormal);
    int entered = 0;
    for (int i = 0; i < 3; ++i) {
        const CScopedLocker<CMutex> outer(*mutex);
        const CScopedLocker<CMutex> inner(*mutex);
        ++entered;
    }
    EXPECT_EQ(3, entered);
    EXPECT_FALSE(mutex->Lock());
    EXPECT_FALSE(mutex->Unlock());
}

TEST(CMutexFaults, DestructorLeavesAMutexAloneThatWasNotCreated) {
#if !defined(__GLIBC__)
    GTEST_SKIP() << "only of this C library is it known what a destroyed mutex looks like";
#endif
    MutexRoom room;
    for (const auto kind : kinds) {
        SCOPED_TRACE(kind);
        CMutex* const failing = room.MakeFailing(kind);
        MutexRoom::Bytes before = room.Content();
        failing->~CMutex();
        EXPECT_EQ(before, room.Content());

        CMutex* const mutex = room.Make(kind);
        before = room.Content();
        mutex->~CMutex();
        EXPECT_NE(before, room.Content()) << "a destroyed mutex would not have been noticed";
    }
}

TEST(CMutexFaults, FailureOfOneMutexIsItsOwn) {
    CMutex earlier(CMutex::enNormal);
    const auto failing = MutexThatFails(CMutex::enNormal);
    CMutex later(CMutex::enNormal);
    for (CMutex* const mutex : {&earlier, &later}) {
        EXPECT_TRUE(mutex->Lock());
        EXPECT_FALSE(failing->Lock());
        EXPECT_FALSE(failing->Unlock());
        EXPECT_TRUE(mutex->Unlock());
    }
}

}  // namespace

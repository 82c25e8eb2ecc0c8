#include <VelaHost_Utility/Lockable.h>

#include "support/CapturedStdout.h"
#include "support/FailingAllocation.h"
#include "support/MutexMemory.h"
#include "support/Sanitizers.h"
#include "support/ThrownException.h"
#include "support/VirtualTable.h"
#include "support/interpose/Interposed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <pthread.h>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace velahost_test;
using VelaHost_OS::ThreadRecursiveMutex;
using VelaHost_Utility::Lockable;
using VelaHost_Utility::Locker;
using VelaHost_Utility::SystemException;

/// The objects as memory shows them.
struct LockableImage
{
    void* virtualTable;
    pthread_mutex_t mutex;
    unsigned int magic;
};

struct LockerImage
{
    void* virtualTable;
    Lockable* lockable;
    bool locked;
};

static_assert(sizeof(Lockable) == sizeof(LockableImage));
static_assert(sizeof(Locker) == sizeof(LockerImage));
static_assert(sizeof(bool) == 1);
static_assert(sizeof(void*) != 4 ||
              (sizeof(Lockable) == 32 && sizeof(Locker) == 12 &&
               offsetof(LockerImage, lockable) == 4 && offsetof(LockerImage, locked) == 8));

// Private inheritance: a base, but nobody else's.
static_assert(std::is_base_of_v<ThreadRecursiveMutex, Lockable>);
static_assert(!std::is_convertible_v<Lockable*, ThreadRecursiveMutex*>);
static_assert(!std::is_copy_constructible_v<Locker> && !std::is_copy_assignable_v<Locker>);
static_assert(!std::is_move_constructible_v<Locker> && !std::is_move_assignable_v<Locker>);
static_assert(std::is_constructible_v<Locker, Lockable&>);
static_assert(!noexcept(std::declval<Locker&>().~Locker()));
static_assert(!noexcept(std::declval<Lockable&>().~Lockable()));

pthread_mutex_t* PlatformMutexOf(Lockable& lockable)
{
    return &reinterpret_cast<LockableImage&>(lockable).mutex;
}

const LockerImage& ImageOf(const Locker& locker)
{
    return reinterpret_cast<const LockerImage&>(locker);
}

bool IsFreeForOthers(Lockable& lockable)
{
    bool free = false;
    std::thread([&] {
        pthread_mutex_t* mutex = PlatformMutexOf(lockable);
        free = pthread_mutex_trylock(mutex) == 0;
        if (free) {
            pthread_mutex_unlock(mutex);
        }
    }).join();
    return free;
}

TEST(Lockable, IsARecursiveMutexAndNothingElse)
{
    Lockable lockable;
    EXPECT_EQ(reinterpret_cast<const LockableImage&>(lockable).magic, 0xBEEFU);
    pthread_mutex_t* mutex = PlatformMutexOf(lockable);
    EXPECT_EQ(pthread_mutex_lock(mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
}

TEST(Lockable, HasNoVirtualOperationsButItsDestructor)
{
    const Lockable lockable;
    EXPECT_EQ(CountVirtualSlots(&lockable), 2U);
}

TEST(Lockable, IsNotMadeWithoutItsMutex)
{
    CapturedStdout output;
    const AllocationBalance balance;
    {
        const FailingCall init("pthread_mutex_init", EAGAIN);
        errno = 0;
        EXPECT_TRUE(Throws<SystemException>([] { delete new Lockable; }, SystemFailure(0)));
    }
    EXPECT_EQ(balance.GetLiveCount(), 0);
    EXPECT_EQ(output.Stop(), SystemFailure(0).LogLine());
}

TEST(Lockable, ThrowsFromItsDestructorWhileItIsHeld)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "the sanitizer reports the misuse itself";
    }
    CapturedStdout output;
    alignas(Lockable) unsigned char memory[sizeof(Lockable)];
    auto* lockable = new (memory) Lockable;
    {
        const Locker locker(*lockable);
        errno = 0;
        EXPECT_TRUE(Throws<SystemException>([&] { lockable->~Lockable(); }, SystemFailure(0)));
        EXPECT_EQ(output.Stop(), SystemFailure(0).LogLine());
    }
    EXPECT_EQ(pthread_mutex_destroy(PlatformMutexOf(*lockable)), 0);
}

struct Derived : Lockable
{
    int word = 0;
};

// g++ takes the delete of such an object for one of a pointer into a block, or of a block that came
// from elsewhere; the library finds the block's start.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wfree-nonheap-object"
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
struct LockableAtAnOffset : Leading, Lockable
{};
#pragma GCC diagnostic pop

constexpr auto s_PlatformMutexOf = [](Lockable& lockable) { return PlatformMutexOf(lockable); };

TEST(LockableMemory, IsKeptExactlyWhenTheDestroyFails)
{
    ExpectMemoryToFollowTheDestroy<Lockable, Lockable>(s_PlatformMutexOf);
    ExpectMemoryToFollowTheDestroy<Derived, Derived>(s_PlatformMutexOf);
    ExpectMemoryToFollowTheDestroy<Derived, Lockable>(s_PlatformMutexOf);
}

TEST(LockableMemory, OfAClassThatHasItAtAnOffsetIsFreedOrKeptAsAWhole)
{
    ExpectMemoryToFollowTheDestroy<LockableAtAnOffset, LockableAtAnOffset>(s_PlatformMutexOf);
    ExpectMemoryToFollowTheDestroy<LockableAtAnOffset, Lockable>(s_PlatformMutexOf);
    ExpectMemoryToFollowTheDestroy<LockableAtAnOffset, Leading>(s_PlatformMutexOf);
}

TEST(LockableMemory, GoesThroughTheDeletingSlot)
{
    auto* lockable = new Lockable;
    const WatchedBlock watch(lockable);
    CallVirtualSlot(lockable, 0);
    EXPECT_EQ(watch.GetFreeCount(), 0U);
    new (lockable) Lockable;
    CallVirtualSlot(lockable, 1);
    EXPECT_EQ(watch.GetFreeCount(), 1U);
}

TEST(Locker, HoldsTheMutexForItsBlock)
{
    Lockable lockable;
    {
        const Locker locker(lockable);
        EXPECT_FALSE(IsFreeForOthers(lockable));
    }
    EXPECT_TRUE(IsFreeForOthers(lockable));
}

TEST(Locker, HasItsFieldsInOrder)
{
    Lockable lockable;
    Locker locker(lockable);
    EXPECT_EQ(ImageOf(locker).lockable, &lockable);
    EXPECT_TRUE(ImageOf(locker).locked);
    locker.Unlock();
    EXPECT_EQ(ImageOf(locker).lockable, &lockable);
    EXPECT_FALSE(ImageOf(locker).locked);
}

TEST(Locker, ReleasesThroughSlotZeroAndFreesItselfThroughSlotOne)
{
    Lockable lockable;
    void* memory = ::operator new(sizeof(Locker));
    const WatchedBlock watch(memory);
    new (memory) Locker(lockable);
    CallVirtualSlot(memory, 0);
    EXPECT_TRUE(IsFreeForOthers(lockable));
    EXPECT_EQ(watch.GetFreeCount(), 0U);
    new (memory) Locker(lockable);
    CallVirtualSlot(memory, 1);
    EXPECT_TRUE(IsFreeForOthers(lockable));
    EXPECT_EQ(watch.GetFreeCount(), 1U);
}

TEST(Locker, HasNoVirtualOperationsButItsDestructor)
{
    Lockable lockable;
    const Locker locker(lockable);
    EXPECT_EQ(CountVirtualSlots(&locker), 2U);
}

TEST(Locker, CountsAsHoldingOnlyAfterTheLock)
{
    Lockable lockable;
    alignas(Locker) unsigned char memory[sizeof(Locker)];
    std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xFF));
    const auto& image = reinterpret_cast<const LockerImage&>(memory);
    bool before = true;
    const Hook<int(pthread_mutex_t*)> lock(interposed::pthread_mutex_lock,
                                           [&](pthread_mutex_t* mutex) -> std::optional<int> {
                                               EXPECT_EQ(mutex, PlatformMutexOf(lockable));
                                               EXPECT_EQ(image.lockable, &lockable);
                                               before = image.locked;
                                               return std::nullopt;
                                           });
    auto* locker = new (memory) Locker(lockable);
    EXPECT_FALSE(before);
    EXPECT_TRUE(image.locked);
    locker->~Locker();
}

TEST(Locker, CountsAsHoldingUntilTheUnlock)
{
    Lockable lockable;
    Locker locker(lockable);
    bool before = false;
    const Hook<int(pthread_mutex_t*)> unlock(interposed::pthread_mutex_unlock,
                                             [&](pthread_mutex_t* mutex) -> std::optional<int> {
                                                 EXPECT_EQ(mutex, PlatformMutexOf(lockable));
                                                 before = ImageOf(locker).locked;
                                                 return std::nullopt;
                                             });
    locker.Unlock();
    EXPECT_TRUE(before);
    EXPECT_FALSE(ImageOf(locker).locked);
}

TEST(Locker, LocksAndUnlocksOnce)
{
    Lockable lockable;
    const CallCounter locks("pthread_mutex_lock");
    const CallCounter unlocks("pthread_mutex_unlock");
    {
        Locker locker(lockable);
        EXPECT_EQ(locks.GetCallCount(), 1U);
        EXPECT_EQ(unlocks.GetCallCount(), 0U);
        locker.Unlock();
        EXPECT_EQ(unlocks.GetCallCount(), 1U);
        locker.Unlock();
        locker.Unlock();
        EXPECT_EQ(unlocks.GetCallCount(), 1U);
    }
    EXPECT_EQ(locks.GetCallCount(), 1U);
    EXPECT_EQ(unlocks.GetCallCount(), 1U);
}

TEST(Locker, StaysReleasedWhenAnotherHasTakenTheMutex)
{
    Lockable lockable;
    auto first = std::make_unique<Locker>(lockable);
    first->Unlock();
    {
        const Locker second(lockable);
        first.reset();
        EXPECT_FALSE(IsFreeForOthers(lockable));
    }
    EXPECT_TRUE(IsFreeForOthers(lockable));
}

TEST(Locker, MayBeNestedInOneThread)
{
    Lockable lockable;
    Locker outer(lockable);
    {
        Locker inner(lockable);
        const Locker innermost(lockable);
        inner.Unlock();
        EXPECT_FALSE(IsFreeForOthers(lockable));
    }
    EXPECT_FALSE(IsFreeForOthers(lockable));
    outer.Unlock();
    EXPECT_TRUE(IsFreeForOthers(lockable));
}

TEST(Locker, ExcludesOtherThreads)
{
    constexpr int threadCount = 8;
    constexpr int perThread = 1000;
    Lockable lockable;
    int counter = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < perThread; ++i) {
                const Locker outer(lockable);
                Locker inner(lockable);
                ++counter;
                inner.Unlock();
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 2 * threadCount * perThread);
}

TEST(LockerFailure, OfTheLockLeavesNoGuard)
{
    CapturedStdout output;
    Lockable lockable;
    const CallCounter unlocks("pthread_mutex_unlock");
    {
        const FailingCall lock("pthread_mutex_lock", EAGAIN);
        errno = 0;
        EXPECT_TRUE(
            Throws<SystemException>([&] { const Locker locker(lockable); }, SystemFailure(0)));
    }
    EXPECT_EQ(unlocks.GetCallCount(), 0U);
    EXPECT_EQ(output.Stop(), SystemFailure(0).LogLine());
    EXPECT_TRUE(IsFreeForOthers(lockable));
}

TEST(LockerFailure, OfAnUnlockLeavesItHolding)
{
    CapturedStdout output;
    Lockable lockable;
    {
        Locker locker(lockable);
        {
            const FailingCall unlock("pthread_mutex_unlock", EPERM);
            errno = 1;
            EXPECT_TRUE(Throws<SystemException>([&] { locker.Unlock(); }, SystemFailure(1)));
        }
        EXPECT_TRUE(ImageOf(locker).locked);
        EXPECT_FALSE(IsFreeForOthers(lockable));
    }
    EXPECT_TRUE(IsFreeForOthers(lockable)) << "the destructor tries again";
    EXPECT_EQ(output.Stop(), SystemFailure(1).LogLine());
}

TEST(LockerFailure, OfTheDestructorsUnlockIsThrown)
{
    CapturedStdout output;
    Lockable lockable;
    {
        const FailingCall unlock("pthread_mutex_unlock", EPERM);
        EXPECT_TRUE(Throws<SystemException>(
            [&] {
                const Locker locker(lockable);
                errno = 2;
            },
            SystemFailure(2)));
    }
    EXPECT_EQ(output.Stop(), SystemFailure(2).LogLine());
    EXPECT_EQ(pthread_mutex_unlock(PlatformMutexOf(lockable)), 0) << "it was still held";
}

TEST(LockerFailure, OfADeletedGuardIsThrownAndItsMemoryFreed)
{
    CapturedStdout output;
    Lockable lockable;
    const AllocationBalance balance;
    auto* locker = new Locker(lockable);
    {
        const FailingCall unlock("pthread_mutex_unlock", EPERM);
        errno = 2;
        EXPECT_TRUE(Throws<SystemException>([&] { delete locker; }, SystemFailure(2)));
    }
    EXPECT_EQ(balance.GetLiveCount(), 0);
    EXPECT_EQ(pthread_mutex_unlock(PlatformMutexOf(lockable)), 0);
}

} // namespace

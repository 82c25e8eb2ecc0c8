#include <VelaHost_OS/ThreadMutex.h>

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
#include <latch>
#include <memory>
#include <new>
#include <optional>
#include <pthread.h>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

namespace {

using namespace velahost_test;
using VelaHost_OS::ThreadMutex;
using VelaHost_Utility::SystemException;

/// The object as memory shows it.
struct ThreadMutexImage
{
    void* virtualTable;
    pthread_mutex_t mutex;
    unsigned int lockCount;
    unsigned int unlockCount;
    unsigned int magic;
    unsigned int locked;
    pthread_t owner;
};

static_assert(sizeof(ThreadMutex) == sizeof(ThreadMutexImage));
static_assert(sizeof(void*) != 4 ||
              (offsetof(ThreadMutexImage, mutex) == 4 &&
               offsetof(ThreadMutexImage, lockCount) == 28 &&
               offsetof(ThreadMutexImage, unlockCount) == 32 &&
               offsetof(ThreadMutexImage, magic) == 36 &&
               offsetof(ThreadMutexImage, locked) == 40 &&
               offsetof(ThreadMutexImage, owner) == 44 && sizeof(ThreadMutexImage) == 48));
static_assert(!std::is_copy_constructible_v<ThreadMutex> &&
              !std::is_copy_assignable_v<ThreadMutex>);

ThreadMutexImage& ImageOf(ThreadMutex& mutex)
{
    return reinterpret_cast<ThreadMutexImage&>(mutex);
}

using Diagnosis = std::tuple<unsigned int, unsigned int, bool, pthread_t>;

/// Lock count, unlock count, whether it is locked, owner.
Diagnosis Diagnose(const ThreadMutex& mutex)
{
    return {mutex.GetLockCount(), mutex.GetUnlockCount(), mutex.IsLocked(), mutex.GetOwner()};
}

/// Holds a mutex on a thread of its own until destruction.
class OtherHolder
{
public:
    explicit OtherHolder(ThreadMutex& mutex)
        : m_Thread([this, &mutex] {
              mutex.Lock();
              m_Held.count_down();
              m_Release.wait();
              mutex.Unlock();
          })
    {
        m_Held.wait();
    }
    ~OtherHolder()
    {
        m_Release.count_down();
        m_Thread.join();
    }

private:
    std::latch m_Held{1};
    std::latch m_Release{1};
    std::thread m_Thread;
};

// g++ takes the delete of such an object for one of a pointer into a block, or of a block that came
// from elsewhere; the library finds the block's start.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wfree-nonheap-object"
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
struct MutexAtAnOffset : Leading, ThreadMutex
{
    ~MutexAtAnOffset() noexcept(false) override { ++s_Destroyed; }
    static inline int s_Destroyed = 0;
};
#pragma GCC diagnostic pop

TEST(ThreadMutex, StartsFreeWithMagicAndZeroes)
{
    ThreadMutex mutex;
    EXPECT_EQ(mutex.GetMagic(), 0xDEADU);
    EXPECT_EQ(Diagnose(mutex), Diagnosis(0, 0, false, 0));
    EXPECT_TRUE(mutex.TryLock());
    mutex.Unlock();
}

TEST(ThreadMutex, InitialisesEveryWordOfItsDiagnosis)
{
    alignas(ThreadMutex) unsigned char memory[sizeof(ThreadMutex)];
    std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xFF));
    auto* mutex = new (memory) ThreadMutex;
    EXPECT_EQ(mutex->GetMagic(), 0xDEADU);
    EXPECT_EQ(Diagnose(*mutex), Diagnosis(0, 0, false, 0));
    mutex->~ThreadMutex();
}

TEST(ThreadMutex, HasItsFieldsInOrder)
{
    ThreadMutex mutex;
    const ThreadMutexImage& image = ImageOf(mutex);
    mutex.Lock();
    mutex.Unlock();
    mutex.Lock();
    EXPECT_EQ(image.lockCount, 2U);
    EXPECT_EQ(image.unlockCount, 1U);
    EXPECT_EQ(image.magic, 0xDEADU);
    EXPECT_EQ(image.locked, 1U);
    EXPECT_TRUE(pthread_equal(image.owner, pthread_self()));
    mutex.Unlock();
    EXPECT_EQ(image.locked, 0U);
    EXPECT_EQ(image.unlockCount, 2U);

    const Hook<int(pthread_mutex_t*)> lock(interposed::pthread_mutex_trylock,
                                           [&](pthread_mutex_t* platform) {
                                               EXPECT_EQ(platform, &image.mutex);
                                               return EBUSY;
                                           });
    EXPECT_FALSE(mutex.TryLock());
}

TEST(ThreadMutex, HasNoVirtualOperationsButItsDestructor)
{
    ThreadMutex mutex;
    EXPECT_EQ(CountVirtualSlots(&mutex), 2U);
}

TEST(ThreadMutex, CountsLocksAndUnlocks)
{
    ThreadMutex mutex;
    mutex.Lock();
    EXPECT_EQ(Diagnose(mutex), Diagnosis(1, 0, true, pthread_self()));
    mutex.Unlock();
    EXPECT_EQ(Diagnose(mutex), Diagnosis(1, 1, false, pthread_self()));
    mutex.Lock();
    EXPECT_EQ(Diagnose(mutex), Diagnosis(2, 1, true, pthread_self()));
    mutex.Unlock();
    EXPECT_TRUE(mutex.TryLock());
    EXPECT_EQ(Diagnose(mutex), Diagnosis(3, 2, true, pthread_self()));
    mutex.Unlock();
    EXPECT_EQ(Diagnose(mutex), Diagnosis(3, 3, false, pthread_self()));
}

TEST(ThreadMutex, KeepsTheLastOwnerAndTakesTheNext)
{
    ThreadMutex mutex;
    pthread_t other{};
    std::thread([&] {
        other = pthread_self();
        mutex.Lock();
        mutex.Unlock();
    }).join();
    EXPECT_EQ(Diagnose(mutex), Diagnosis(1, 1, false, other));
    mutex.Lock();
    EXPECT_EQ(Diagnose(mutex), Diagnosis(2, 1, true, pthread_self()));
    mutex.Unlock();
}

TEST(ThreadMutex, ExcludesOtherThreads)
{
    constexpr unsigned int threadCount = 8;
    constexpr unsigned int perThread = 2000;
    ThreadMutex mutex;
    unsigned int counter = 0;
    std::vector<std::thread> threads;
    for (unsigned int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&] {
            for (unsigned int i = 0; i < perThread; ++i) {
                mutex.Lock();
                ++counter;
                mutex.Unlock();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, threadCount * perThread);
    EXPECT_EQ(mutex.GetLockCount(), threadCount * perThread);
    EXPECT_EQ(mutex.GetUnlockCount(), threadCount * perThread);
    EXPECT_FALSE(mutex.IsLocked());
}

TEST(ThreadMutexLock, WaitsForTheHolder)
{
    ThreadMutex mutex;
    mutex.Lock();
    std::latch started(1);
    bool released = false;
    std::thread waiter([&] {
        started.count_down();
        mutex.Lock();
        EXPECT_TRUE(released);
        mutex.Unlock();
    });
    started.wait();
    std::this_thread::yield();
    released = true;
    mutex.Unlock();
    waiter.join();
}

TEST(ThreadMutexTryLock, IsFalseAndChangesNothingWhileAnotherHoldsIt)
{
    ThreadMutex mutex;
    const OtherHolder other(mutex);
    const Diagnosis before = Diagnose(mutex);
    EXPECT_FALSE(mutex.TryLock());
    EXPECT_EQ(Diagnose(mutex), before);
    EXPECT_EQ(mutex.GetLockCount(), 1U);
    EXPECT_TRUE(mutex.IsLocked());
}

TEST(ThreadMutexTryLock, IsFalseForTheHolderItself)
{
    ThreadMutex mutex;
    mutex.Lock();
    EXPECT_FALSE(mutex.TryLock());
    EXPECT_EQ(Diagnose(mutex), Diagnosis(1, 0, true, pthread_self()));
    mutex.Unlock();
}

TEST(ThreadMutex, IsOfTheDefaultTypeAndLeavesTheAttributeBe)
{
    int type = -1;
    const CallCounter attributes("pthread_mutexattr_init");
    const CallCounter types("pthread_mutexattr_settype");
    const CallCounter destroys("pthread_mutexattr_destroy");
    const Hook<int(pthread_mutex_t*, const pthread_mutexattr_t*)> init(
        interposed::pthread_mutex_init,
        [&](pthread_mutex_t*, const pthread_mutexattr_t* attribute) -> std::optional<int> {
            if (attribute != nullptr) {
                pthread_mutexattr_gettype(attribute, &type);
            }
            return std::nullopt;
        });
    ThreadMutex mutex;
    EXPECT_EQ(type, PTHREAD_MUTEX_DEFAULT);
    EXPECT_EQ(attributes.GetCallCount(), 1U);
    EXPECT_EQ(types.GetCallCount(), 0U);
    EXPECT_EQ(destroys.GetCallCount(), 0U);
}

TEST(ThreadMutex, WritesItsDiagnosisInsideTheCriticalSection)
{
    ThreadMutex mutex;
    const auto expectDiagnosis = [&](const Diagnosis& expected) {
        return [&mutex, expected](pthread_mutex_t*) -> std::optional<int> {
            EXPECT_EQ(Diagnose(mutex), expected);
            return std::nullopt;
        };
    };
    {
        const Hook<int(pthread_mutex_t*)> lock(interposed::pthread_mutex_lock,
                                               expectDiagnosis({0, 0, false, 0}));
        mutex.Lock();
    }
    const CallCounter unlocks("pthread_mutex_unlock");
    const Hook<int(pthread_mutex_t*)> unlock(interposed::pthread_mutex_unlock,
                                             expectDiagnosis({1, 1, false, pthread_self()}));
    mutex.Unlock();
    EXPECT_EQ(unlocks.GetCallCount(), 1U);
}

TEST(ThreadMutexFailure, OfTheAttributeLeavesNoObject)
{
    CapturedStdout output;
    const AllocationBalance balance;
    {
        const FailingCall attribute("pthread_mutexattr_init", ENOMEM);
        const CallCounter inits("pthread_mutex_init");
        errno = 0;
        EXPECT_TRUE(Throws<SystemException>([] { delete new ThreadMutex; }, SystemFailure(0)));
        EXPECT_EQ(inits.GetCallCount(), 0U);
    }
    EXPECT_EQ(output.Stop(), SystemFailure(0).LogLine());
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

TEST(ThreadMutexFailure, OfTheInitialisationLeavesNoObject)
{
    CapturedStdout output;
    const AllocationBalance balance;
    {
        const FailingCall init("pthread_mutex_init", EAGAIN);
        errno = 4;
        EXPECT_TRUE(Throws<SystemException>([] { delete new ThreadMutex; }, SystemFailure(4)));
        EXPECT_TRUE(Throws<SystemException>(
            [] {
                const FailingCall attribute("pthread_mutexattr_init", ENOMEM);
                errno = 4;
                delete new MutexAtAnOffset;
            },
            SystemFailure(4)));
    }
    EXPECT_EQ(output.Stop(), SystemFailure(4).LogLine() + SystemFailure(4).LogLine());
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

TEST(ThreadMutexFailure, OfALockChangesNothing)
{
    CapturedStdout output;
    ThreadMutex mutex;
    {
        const FailingCall lock("pthread_mutex_lock", EDEADLK);
        errno = 0;
        EXPECT_TRUE(Throws<SystemException>([&] { mutex.Lock(); }, SystemFailure(0)));
    }
    EXPECT_EQ(Diagnose(mutex), Diagnosis(0, 0, false, 0));
    EXPECT_EQ(output.Stop(), SystemFailure(0).LogLine());
    mutex.Lock();
    mutex.Unlock();
}

TEST(ThreadMutexFailure, OfATryLockOtherThanBusyThrowsAndChangesNothing)
{
    CapturedStdout output;
    ThreadMutex mutex;
    for (const int error : {EINVAL, EAGAIN, -1}) {
        const FailingCall tryLock("pthread_mutex_trylock", error);
        errno = 9;
        EXPECT_TRUE(Throws<SystemException>([&] { mutex.TryLock(); }, SystemFailure(9)));
        EXPECT_EQ(Diagnose(mutex), Diagnosis(0, 0, false, 0));
    }
}

TEST(ThreadMutexFailure, BusyIsNoneForTryLock)
{
    CapturedStdout output;
    ThreadMutex mutex;
    const FailingCall tryLock("pthread_mutex_trylock", 16);
    EXPECT_FALSE(mutex.TryLock());
    EXPECT_EQ(Diagnose(mutex), Diagnosis(0, 0, false, 0));
    EXPECT_EQ(output.Stop(), "");
}

TEST(ThreadMutexFailure, OfAnUnlockComesAfterTheDiagnosis)
{
    CapturedStdout output;
    ThreadMutex mutex;
    mutex.Lock();
    {
        const FailingCall unlock("pthread_mutex_unlock", EPERM);
        errno = 0;
        EXPECT_TRUE(Throws<SystemException>([&] { mutex.Unlock(); }, SystemFailure(0)));
    }
    EXPECT_EQ(Diagnose(mutex), Diagnosis(1, 1, false, pthread_self()));
    EXPECT_EQ(output.Stop(), SystemFailure(0).LogLine());
    EXPECT_FALSE(mutex.TryLock()) << "it is still held";
    mutex.Unlock();
}

TEST(ThreadMutexFailure, ShowsTheErrnoOfTheMomentNotTheResult)
{
    CapturedStdout output;
    ThreadMutex mutex;
    for (const int before : {0, 2, 0x7f}) {
        const FailingCall lock("pthread_mutex_lock", EINVAL);
        errno = before;
        EXPECT_TRUE(Throws<SystemException>([&] { mutex.Lock(); }, SystemFailure(before)));
        EXPECT_EQ(errno, before);
    }
}

TEST(ThreadMutexDestructor, ThrowsWhileTheMutexIsHeld)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "the sanitizer reports the misuse itself";
    }
    CapturedStdout output;
    alignas(ThreadMutex) unsigned char memory[sizeof(ThreadMutex)];
    auto* mutex = new (memory) ThreadMutex;
    mutex->Lock();
    errno = 0;
    EXPECT_TRUE(Throws<SystemException>([&] { mutex->~ThreadMutex(); }, SystemFailure(0)));
    EXPECT_EQ(output.Stop(), SystemFailure(0).LogLine());
    auto& image = reinterpret_cast<ThreadMutexImage&>(memory);
    EXPECT_EQ(pthread_mutex_unlock(&image.mutex), 0);
    EXPECT_EQ(pthread_mutex_destroy(&image.mutex), 0);
}

TEST(ThreadMutexDestructor, ThrowsOutOfAScope)
{
    CapturedStdout output;
    const FailingCall destroy("pthread_mutex_destroy", EBUSY);
    EXPECT_TRUE(Throws<SystemException>(
        [] {
            const ThreadMutex mutex;
            errno = 0;
        },
        SystemFailure(0)));
}

TEST(ThreadMutexMemory, IsFreedAfterASuccessfulDestroy)
{
    auto* mutex = new ThreadMutex;
    const WatchedBlock watch(mutex);
    const Hook<int(pthread_mutex_t*)> destroy(interposed::pthread_mutex_destroy,
                                              [&](pthread_mutex_t*) -> std::optional<int> {
                                                  EXPECT_EQ(watch.GetFreeCount(), 0U);
                                                  return std::nullopt;
                                              });
    const CallCounter destroys("pthread_mutex_destroy");
    delete mutex;
    EXPECT_EQ(destroys.GetCallCount(), 1U);
    EXPECT_EQ(watch.GetFreeCount(), 1U);
}

TEST(ThreadMutexMemory, IsKeptWhenTheDestroyFails)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "the sanitizer reports the misuse itself";
    }
    CapturedStdout output;
    auto* mutex = new ThreadMutex;
    const WatchedBlock watch(mutex);
    const CallCounter destroys("pthread_mutex_destroy");
    ThreadMutexImage& image = ImageOf(*mutex);
    mutex->Lock();
    errno = 0;
    EXPECT_TRUE(Throws<SystemException>([&] { delete mutex; }, SystemFailure(0)));
    EXPECT_EQ(destroys.GetCallCount(), 1U);
    EXPECT_EQ(watch.GetFreeCount(), 0U);
    EXPECT_EQ(image.magic, 0xDEADU);
    EXPECT_EQ(pthread_mutex_unlock(&image.mutex), 0) << "it is still the mutex that it was";
    EXPECT_EQ(pthread_mutex_destroy(&image.mutex), 0);
}

TEST(ThreadMutexMemory, GoesThroughTheDeletingSlot)
{
    CapturedStdout output;
    auto* mutex = new ThreadMutex;
    const WatchedBlock watch(mutex);
    {
        const FailingCall destroy("pthread_mutex_destroy", EBUSY);
        errno = 0;
        EXPECT_TRUE(Throws<SystemException>([&] { CallVirtualSlot(mutex, 0); }, SystemFailure(0)));
        EXPECT_EQ(watch.GetFreeCount(), 0U);
    }
    new (mutex) ThreadMutex;
    {
        const FailingCall destroy("pthread_mutex_destroy", EBUSY);
        errno = 0;
        EXPECT_TRUE(Throws<SystemException>([&] { CallVirtualSlot(mutex, 1); }, SystemFailure(0)));
        EXPECT_EQ(watch.GetFreeCount(), 0U);
    }
    new (mutex) ThreadMutex;
    CallVirtualSlot(mutex, 0);
    EXPECT_EQ(watch.GetFreeCount(), 0U);
    new (mutex) ThreadMutex;
    CallVirtualSlot(mutex, 1);
    EXPECT_EQ(watch.GetFreeCount(), 1U);
}

/// Deletes a `MutexAtAnOffset` as a `Deleted`; its destroy fails when `fails`.
template <typename Deleted>
void ExpectMemoryOfADerivedObject(bool fails)
{
    CapturedStdout output;
    auto* object = new MutexAtAnOffset;
    ASSERT_NE(static_cast<void*>(static_cast<ThreadMutex*>(object)), static_cast<void*>(object));
    const WatchedBlock watch(object);
    MutexAtAnOffset::s_Destroyed = 0;
    Deleted* deleted = object;
    if (fails) {
        pthread_mutex_t& platform = ImageOf(*object).mutex;
        {
            const FailingCall destroy("pthread_mutex_destroy", EBUSY);
            errno = 0;
            EXPECT_TRUE(Throws<SystemException>([&] { delete deleted; }, SystemFailure(0)));
        }
        EXPECT_EQ(watch.GetFreeCount(), 0U);
        pthread_mutex_destroy(&platform);
    } else {
        delete deleted;
        EXPECT_EQ(watch.GetFreeCount(), 1U);
    }
    EXPECT_EQ(MutexAtAnOffset::s_Destroyed, 1);
}

TEST(ThreadMutexMemory, OfAClassThatHasItAtAnOffsetIsFreedOrKeptAsAWhole)
{
    for (const bool fails : {false, true}) {
        ExpectMemoryOfADerivedObject<MutexAtAnOffset>(fails);
        ExpectMemoryOfADerivedObject<ThreadMutex>(fails);
        ExpectMemoryOfADerivedObject<Leading>(fails);
    }
}

TEST(ThreadMutexMemory, DeletingNullDoesNothing)
{
    const CallCounter destroys("pthread_mutex_destroy");
    ThreadMutex* none = nullptr;
    delete none;
    EXPECT_EQ(destroys.GetCallCount(), 0U);
}

} // namespace

#include <VelaHost_OS/ThreadMutex.h>

#include "support/CapturedStdout.h"
#include "support/FailingAllocation.h"
#include "support/MutexMemory.h"
#include "support/Sanitizers.h"
#include "support/ThrownException.h"
#include "support/VirtualTable.h"
#include "support/interpose/Interposed.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <pthread.h>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using namespace velahost_test;
using VelaHost_OS::ThreadRecursiveMutex;
using VelaHost_Utility::SystemException;

/// The object as memory shows it.
struct Image
{
    void* virtualTable;
    pthread_mutex_t mutex;
    unsigned int magic;
};

static_assert(sizeof(ThreadRecursiveMutex) == sizeof(Image));
static_assert(sizeof(void*) != 4 ||
              (offsetof(Image, mutex) == 4 && offsetof(Image, magic) == 28 && sizeof(Image) == 32));
static_assert(!std::is_copy_constructible_v<ThreadRecursiveMutex> &&
              !std::is_copy_assignable_v<ThreadRecursiveMutex>);

/// Built on it as classes of the library are.
class Guarded : public ThreadRecursiveMutex
{
public:
    pthread_mutex_t* GetPlatformMutex() { return &m_Mutex; }
};

/// What `pthread_mutex_trylock` says to another thread.
int TryFromAnotherThread(pthread_mutex_t* mutex)
{
    int result = -1;
    std::thread([&] {
        result = pthread_mutex_trylock(mutex);
        if (result == 0) {
            pthread_mutex_unlock(mutex);
        }
    }).join();
    return result;
}

TEST(ThreadRecursiveMutex, HasItsFieldsInOrder)
{
    Guarded mutex;
    const auto& image = reinterpret_cast<const Image&>(mutex);
    EXPECT_EQ(mutex.GetPlatformMutex(), &image.mutex);
    EXPECT_EQ(image.magic, 0xBEEFU);
    EXPECT_EQ(mutex.GetMagic(), 0xBEEFU);
}

TEST(ThreadRecursiveMutex, HasNoVirtualOperationsButItsDestructor)
{
    const ThreadRecursiveMutex mutex;
    EXPECT_EQ(CountVirtualSlots(&mutex), 2U);
}

TEST(ThreadRecursiveMutex, IsTakenAgainByItsHolderAndFreeAfterAsManyReleases)
{
    Guarded mutex;
    pthread_mutex_t* platform = mutex.GetPlatformMutex();
    ASSERT_EQ(pthread_mutex_lock(platform), 0);
    ASSERT_EQ(pthread_mutex_lock(platform), 0);
    ASSERT_EQ(pthread_mutex_trylock(platform), 0);
    EXPECT_EQ(TryFromAnotherThread(platform), EBUSY);
    EXPECT_EQ(pthread_mutex_unlock(platform), 0);
    EXPECT_EQ(TryFromAnotherThread(platform), EBUSY);
    EXPECT_EQ(pthread_mutex_unlock(platform), 0);
    EXPECT_EQ(TryFromAnotherThread(platform), EBUSY);
    EXPECT_EQ(pthread_mutex_unlock(platform), 0);
    EXPECT_EQ(TryFromAnotherThread(platform), 0);
}

TEST(ThreadRecursiveMutex, IsMadeInFourStepsFromOneAttribute)
{
    std::vector<std::string> steps;
    const pthread_mutexattr_t* attribute = nullptr;
    int type = -1;
    const Hook<int(pthread_mutexattr_t*)> attributeInit(
        interposed::pthread_mutexattr_init, [&](pthread_mutexattr_t* a) -> std::optional<int> {
            steps.emplace_back("pthread_mutexattr_init");
            attribute = a;
            return std::nullopt;
        });
    const Hook<int(pthread_mutexattr_t*, int)> setType(
        interposed::pthread_mutexattr_settype,
        [&](pthread_mutexattr_t* a, int wanted) -> std::optional<int> {
            steps.emplace_back("pthread_mutexattr_settype");
            EXPECT_EQ(a, attribute);
            type = wanted;
            return std::nullopt;
        });
    const Hook<int(pthread_mutex_t*, const pthread_mutexattr_t*)> init(
        interposed::pthread_mutex_init,
        [&](pthread_mutex_t*, const pthread_mutexattr_t* a) -> std::optional<int> {
            steps.emplace_back("pthread_mutex_init");
            EXPECT_EQ(a, attribute);
            return std::nullopt;
        });
    const Hook<int(pthread_mutexattr_t*)> attributeDestroy(
        interposed::pthread_mutexattr_destroy, [&](pthread_mutexattr_t* a) -> std::optional<int> {
            steps.emplace_back("pthread_mutexattr_destroy");
            EXPECT_EQ(a, attribute);
            return std::nullopt;
        });
    const ThreadRecursiveMutex mutex;
    EXPECT_EQ(steps,
              (std::vector<std::string>{"pthread_mutexattr_init", "pthread_mutexattr_settype",
                                        "pthread_mutex_init", "pthread_mutexattr_destroy"}));
    EXPECT_EQ(type, PTHREAD_MUTEX_RECURSIVE);
    EXPECT_EQ(type, 1);
}

class ThreadRecursiveMutexStep : public ::testing::TestWithParam<std::size_t>
{};

TEST_P(ThreadRecursiveMutexStep, ThatFailsThrowsAndIsTheLast)
{
    static const char* const steps[] = {"pthread_mutexattr_init", "pthread_mutexattr_settype",
                                        "pthread_mutex_init", "pthread_mutexattr_destroy"};
    const std::size_t failing = GetParam();
    CapturedStdout output;
    alignas(ThreadRecursiveMutex) unsigned char memory[sizeof(ThreadRecursiveMutex)] = {};
    const AllocationBalance balance;
    {
        std::vector<std::unique_ptr<FailingCall>> calls;
        for (std::size_t step = 0; step < std::size(steps); ++step) {
            calls.push_back(
                std::make_unique<FailingCall>(steps[step], step == failing ? ENOMEM : 0));
        }
        errno = 0;
        EXPECT_TRUE(
            Throws<SystemException>([&] { new (memory) ThreadRecursiveMutex; }, SystemFailure(0)));
        for (std::size_t step = 0; step < std::size(steps); ++step) {
            EXPECT_EQ(calls[step]->GetCallCount(), step <= failing ? 1U : 0U) << steps[step];
        }
    }
    EXPECT_EQ(reinterpret_cast<const Image&>(memory).magic, 0U) << "it was never constructed";
    {
        const FailingCall call(steps[failing], ENOMEM);
        errno = 3;
        EXPECT_TRUE(
            Throws<SystemException>([] { delete new ThreadRecursiveMutex; }, SystemFailure(3)));
    }
    EXPECT_EQ(output.Stop(), SystemFailure(0).LogLine() + SystemFailure(3).LogLine());
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

INSTANTIATE_TEST_SUITE_P(Number, ThreadRecursiveMutexStep, ::testing::Range<std::size_t>(0, 4));

TEST(ThreadRecursiveMutexDestructor, ThrowsWhileTheMutexIsHeld)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "the sanitizer reports the misuse itself";
    }
    CapturedStdout output;
    alignas(Guarded) unsigned char memory[sizeof(Guarded)];
    auto* mutex = new (memory) Guarded;
    pthread_mutex_t* platform = mutex->GetPlatformMutex();
    pthread_mutex_lock(platform);
    errno = 0;
    EXPECT_TRUE(Throws<SystemException>([&] { mutex->~Guarded(); }, SystemFailure(0)));
    EXPECT_EQ(output.Stop(), SystemFailure(0).LogLine());
    EXPECT_EQ(pthread_mutex_unlock(platform), 0);
    EXPECT_EQ(pthread_mutex_destroy(platform), 0);
}

// g++ takes the delete of such an object for one of a pointer into a block, or of a block that came
// from elsewhere; the library finds the block's start.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wfree-nonheap-object"
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
struct GuardedAtAnOffset : Leading, Guarded
{};
#pragma GCC diagnostic pop

constexpr auto s_PlatformMutexOf = [](Guarded& guarded) { return guarded.GetPlatformMutex(); };

TEST(ThreadRecursiveMutexMemory, IsKeptExactlyWhenTheDestroyFails)
{
    ExpectMemoryToFollowTheDestroy<Guarded, Guarded>(s_PlatformMutexOf);
    ExpectMemoryToFollowTheDestroy<Guarded, ThreadRecursiveMutex>(s_PlatformMutexOf);
}

TEST(ThreadRecursiveMutexMemory, OfAClassThatHasItAtAnOffsetIsFreedOrKeptAsAWhole)
{
    ExpectMemoryToFollowTheDestroy<GuardedAtAnOffset, GuardedAtAnOffset>(s_PlatformMutexOf);
    ExpectMemoryToFollowTheDestroy<GuardedAtAnOffset, ThreadRecursiveMutex>(s_PlatformMutexOf);
    ExpectMemoryToFollowTheDestroy<GuardedAtAnOffset, Leading>(s_PlatformMutexOf);
}

TEST(ThreadRecursiveMutexMemory, GoesThroughTheDeletingSlot)
{
    CapturedStdout output;
    auto* mutex = new ThreadRecursiveMutex;
    const WatchedBlock watch(mutex);
    {
        const FailingCall destroy("pthread_mutex_destroy", EBUSY);
        errno = 0;
        EXPECT_TRUE(Throws<SystemException>([&] { CallVirtualSlot(mutex, 1); }, SystemFailure(0)));
        EXPECT_EQ(watch.GetFreeCount(), 0U);
    }
    new (mutex) ThreadRecursiveMutex;
    CallVirtualSlot(mutex, 0);
    EXPECT_EQ(watch.GetFreeCount(), 0U);
    new (mutex) ThreadRecursiveMutex;
    CallVirtualSlot(mutex, 1);
    EXPECT_EQ(watch.GetFreeCount(), 1U);
}

} // namespace

#pragma once

#include "CapturedStdout.h"
#include "FailingAllocation.h"
#include "Interpose.h"
#include "ThrownException.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <pthread.h>

namespace velahost_test {

/// A first base, so that the one behind it lies at an offset.
struct Leading
{
    Leading() = default;
    Leading(const Leading&) = delete;
    Leading& operator=(const Leading&) = delete;
    virtual ~Leading() noexcept(false) = default;
    int words[3] = {};
};

/// Deletes a heap `Object` as a `Deleted` twice. The first time the destroy fails, and the memory
/// is kept; the second time it succeeds, and the memory is freed once. `platformMutexOf(object)`
/// gives the platform's mutex.
template <typename Object, typename Deleted, typename PlatformMutexOf>
void ExpectMemoryToFollowTheDestroy(PlatformMutexOf platformMutexOf)
{
    CapturedStdout output;
    {
        auto* object = new Object;
        const WatchedBlock watch(object);
        pthread_mutex_t* platform = platformMutexOf(*object);
        Deleted* deleted = object;
        {
            const FailingCall destroy("pthread_mutex_destroy", EBUSY);
            errno = 0;
            EXPECT_TRUE(Throws<VelaHost_Utility::SystemException>([&] { delete deleted; },
                                                                  SystemFailure(0)));
            EXPECT_EQ(destroy.GetCallCount(), 1U);
        }
        EXPECT_EQ(watch.GetFreeCount(), 0U);
        pthread_mutex_destroy(platform);
    }
    {
        auto* object = new Object;
        const WatchedBlock watch(object);
        const CallCounter destroys("pthread_mutex_destroy");
        Deleted* deleted = object;
        delete deleted;
        EXPECT_EQ(destroys.GetCallCount(), 1U);
        EXPECT_EQ(watch.GetFreeCount(), 1U);
    }
}

} // namespace velahost_test

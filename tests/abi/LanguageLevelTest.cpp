#include "AbiUser.h"

#include "support/CapturedStdout.h"
#include "support/FailingAllocation.h"
#include "support/Interpose.h"
#include "support/ThrownException.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

// Users of C++17 and of C++20 share objects of the library's classes.

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;

TEST(LanguageLevels, AreTwo)
{
    EXPECT_EQ(AbiUserCxx17().GetLanguageLevel(), 201703L);
    EXPECT_GT(AbiUserCxx20().GetLanguageLevel(), 201703L);
}

TEST(LanguageLevels, AgreeOnTheLayout)
{
    const auto older = AbiUserCxx17().GetLayout();
    EXPECT_GT(older.size(), 150U);
    EXPECT_EQ(older, AbiUserCxx20().GetLayout());
}

class SharedObject : public ::testing::TestWithParam<std::pair<bool, bool>>
{
protected:
    const AbiUser& Maker() const { return GetParam().first ? AbiUserCxx20() : AbiUserCxx17(); }
    const AbiUser& Deleter() const { return GetParam().second ? AbiUserCxx20() : AbiUserCxx17(); }

    /// Deletes `object` when its destroy succeeds, and another when it fails.
    template <typename Make>
    void ExpectMemoryToFollowTheDestroy(Make make) const
    {
        CapturedStdout output;
        {
            auto* object = make();
            const WatchedBlock watch(object);
            const CallCounter destroys("pthread_mutex_destroy");
            Deleter().Delete(object);
            EXPECT_EQ(destroys.GetCallCount(), 1U);
            EXPECT_EQ(watch.GetFreeCount(), 1U);
        }
        auto* object = make();
        const WatchedBlock watch(object);
        const FailingCall destroy("pthread_mutex_destroy", EBUSY);
        errno = 0;
        EXPECT_TRUE(Throws<SystemException>([&] { Deleter().Delete(object); }, SystemFailure(0)));
        EXPECT_EQ(destroy.GetCallCount(), 1U);
        EXPECT_EQ(watch.GetFreeCount(), 0U);
    }
};

TEST_P(SharedObject, IsKeptExactlyWhenItsDestroyFails)
{
    ExpectMemoryToFollowTheDestroy([&] { return Maker().MakeThreadMutex(); });
    ExpectMemoryToFollowTheDestroy([&] { return Maker().MakeThreadRecursiveMutex(); });
    ExpectMemoryToFollowTheDestroy([&] { return Maker().MakeLockable(); });
}

TEST_P(SharedObject, OfAnotherClassIsDestroyedAndFreed)
{
    Lockable lockable;
    const AllocationBalance balance;
    const CallCounter unlocks("pthread_mutex_unlock");
    Deleter().Delete(Maker().MakeLocker(lockable));
    EXPECT_EQ(unlocks.GetCallCount(), 1U);
    static unsigned int s_Logged = 0;
    const Exception::Context context(nullptr, "src/File", 1, [](const Exception&) { ++s_Logged; });
    Deleter().Delete(Maker().MakeException(context));
    EXPECT_EQ(s_Logged, 1U);
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

TEST_P(SharedObject, IsLockedByOneAndReleasedByTheOther)
{
    VelaHost_OS::ThreadMutex* mutex = Maker().MakeThreadMutex();
    mutex->Lock();
    EXPECT_TRUE(mutex->IsLocked());
    mutex->Unlock();
    Deleter().Delete(mutex);
}

TEST(SharedObjects, AreNotLeftWhenTheirConstructorFails)
{
    CapturedStdout output;
    for (const AbiUser* user : {&AbiUserCxx17(), &AbiUserCxx20()}) {
        const AllocationBalance balance;
        const auto expectFailure = [](auto make) {
            const FailingCall init("pthread_mutex_init", ENOMEM);
            errno = 0;
            EXPECT_TRUE(Throws<SystemException>(make, SystemFailure(0)));
        };
        expectFailure([&] { user->MakeThreadMutex(); });
        expectFailure([&] { user->MakeThreadRecursiveMutex(); });
        expectFailure([&] { user->MakeLockable(); });
        EXPECT_EQ(balance.GetLiveCount(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Users, SharedObject,
                         ::testing::Values(std::pair{false, false}, std::pair{false, true},
                                           std::pair{true, false}, std::pair{true, true}),
                         [](const auto& users) {
                             return std::string(users.param.first ? "Cxx20Makes" : "Cxx17Makes") +
                                    (users.param.second ? "Cxx20Deletes" : "Cxx17Deletes");
                         });

} // namespace

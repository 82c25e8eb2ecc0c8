#include <VelaHost_OS/TimerService.h>

#include "support/ChildProcess.h"
#include "support/Interpose.h"
#include "support/ThrownException.h"

#include <VelaHost_OS/TimerQueue.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {

using VelaHost_OS::TimerQueue;
using VelaHost_OS::TimerService;
using VelaHost_Utility::SystemException;
using namespace velahost_test;

TEST(TimerServiceInstance, IsOneQueueForTheProcess)
{
    TimerService* const service = TimerService::GetInstance();
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(TimerService::GetInstance(), service);
    EXPECT_NE(dynamic_cast<TimerQueue*>(service), nullptr);
}

TEST(TimerServiceInstance, StartsNoThread)
{
    const CallCounter threads("pthread_create", Scope::AnyThread);
    TimerService::GetInstance();
    EXPECT_EQ(threads.GetCallCount(), 0U);
}

TEST(TimerServiceInstance, IsTheSameForThreadsThatAskFirstAtTheSameTime)
{
    constexpr int threadCount = 8;
    std::array<TimerService*, threadCount> instances{};
    std::atomic<int> ready{0};
    {
        std::vector<std::jthread> threads;
        for (TimerService*& instance : instances) {
            threads.emplace_back([&] {
                ++ready;
                while (ready < threadCount) {
                }
                instance = TimerService::GetInstance();
            });
        }
    }
    for (const TimerService* instance : instances) {
        EXPECT_EQ(instance, TimerService::GetInstance());
    }
}

TEST(TimerServiceInstance, IsMadeByTheNextCallWhenTheFirstFails)
{
    {
        FailingCall failure("pthread_mutex_init", EAGAIN);
        errno = EPERM;
        EXPECT_TRUE(
            Throws<SystemException>([] { TimerService::GetInstance(); }, SystemFailure(EPERM)));
    }
    TimerService* const service = TimerService::GetInstance();
    ASSERT_NE(service, nullptr);
    VelaHost_Utility::Locker locker(*service);
}

TEST(TimerServiceInstance, IsNeverDestroyed)
{
    ChildProcess child([]() -> int {
        static const CallCounter s_Destroyed("pthread_mutex_destroy", Scope::AnyThread);
        // Registered before the service is made, it runs after whatever that registers.
        std::atexit([] {
            if (s_Destroyed.GetCallCount() != 0) {
                _exit(1);
            }
        });
        TimerService::GetInstance();
        std::exit(0);
    });
    EXPECT_EQ(child.WaitForExitStatus(), 0);
}

TEST(TimerService, IsItsOwnLock)
{
    static_assert(std::is_base_of_v<VelaHost_Utility::Lockable, TimerService>);
    static_assert(std::is_convertible_v<TimerService*, VelaHost_Utility::Lockable*>);
    static_assert(std::is_abstract_v<TimerService>);
    static_assert(std::is_convertible_v<TimerQueue*, TimerService*>);
}

TEST(TimerServiceReqHandler, HasNoVirtualDestructor)
{
    static_assert(std::is_abstract_v<TimerService::ReqHandler>);
    static_assert(!std::has_virtual_destructor_v<TimerService::ReqHandler>);
    static_assert(sizeof(TimerService::ReqHandler) == sizeof(void*));
}

} // namespace

#include "support/Interpose.h"

#include "support/interpose/Interposed.h"

#include <VelaHost_OS/SystemInfo.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <optional>
#include <pthread.h>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/time.h>
#include <thread>

namespace {

using namespace velahost_test;

int ReadClock()
{
    timeval now{};
    return gettimeofday(&now, nullptr);
}

TEST(FailingCall, FailsTheCallsThatItNamesAndNoOthers)
{
    const FailingCall failing("gettimeofday", EPERM, 2, 2);
    EXPECT_EQ(ReadClock(), 0);
    EXPECT_FALSE(failing.WasHit());
    errno = 0;
    EXPECT_EQ(ReadClock(), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_TRUE(failing.WasHit());
    EXPECT_EQ(ReadClock(), -1);
    EXPECT_EQ(ReadClock(), 0);
    EXPECT_EQ(failing.GetCallCount(), 4U);
}

TEST(FailingCall, FailsForGood)
{
    const FailingCall failing("gettimeofday", EPERM, 3, FailingCall::forGood);
    EXPECT_EQ(ReadClock(), 0);
    EXPECT_EQ(ReadClock(), 0);
    for (int call = 0; call < 20; ++call) {
        EXPECT_EQ(ReadClock(), -1);
    }
}

TEST(FailingCall, EndsWithItsScope)
{
    {
        const FailingCall failing("gettimeofday", EPERM, 1, FailingCall::forGood);
        EXPECT_EQ(ReadClock(), -1);
    }
    EXPECT_EQ(ReadClock(), 0);
    const FailingCall again("gettimeofday", EPERM);
    EXPECT_EQ(again.GetCallCount(), 0U);
    EXPECT_EQ(ReadClock(), -1);
}

TEST(FailingCall, LeavesOtherThreadsAloneUnlessAsked)
{
    {
        const FailingCall failing("gettimeofday", EPERM);
        std::thread([] { EXPECT_EQ(ReadClock(), 0); }).join();
        EXPECT_EQ(failing.GetCallCount(), 0U);
        EXPECT_EQ(ReadClock(), -1);
    }
    const FailingCall failing("gettimeofday", EPERM, 1, 1, Scope::AnyThread);
    std::thread([] { EXPECT_EQ(ReadClock(), -1); }).join();
    EXPECT_EQ(ReadClock(), 0);
    EXPECT_EQ(failing.GetCallCount(), 2U);
}

TEST(FailingCall, ReturnsTheErrorNumberWhereThatIsTheStyle)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const FailingCall failing("pthread_mutex_lock", EDEADLK);
    errno = 0;
    EXPECT_EQ(pthread_mutex_lock(&mutex), EDEADLK);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0) << "it was not called";
    pthread_mutex_unlock(&mutex);
}

TEST(FailingCall, ReturnsNullWhereThatIsTheStyle)
{
    const FailingCall failing("dlopen", ENOENT);
    EXPECT_EQ(dlopen(nullptr, RTLD_LAZY), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FailingCall, ReachesInsideTheLibrary)
{
    const FailingCall failing("nanosleep", EINTR);
    EXPECT_EQ(VelaHost_OS::SleepMilliseconds(0), -1);
    EXPECT_TRUE(failing.WasHit());
}

TEST(FailingCallDeath, OfAnUnknownFunctionEndsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(FailingCall("no_such_function", 1), "not interposed in this program");
}

TEST(FailingCallDeath, TwiceOnOneFunctionEndsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            const FailingCall first("nanosleep", 1);
            const FailingCall second("nanosleep", 1);
        },
        "already armed: nanosleep");
}

TEST(CallCounter, CountsAndFailsNothing)
{
    const CallCounter counter("gettimeofday");
    EXPECT_EQ(ReadClock(), 0);
    EXPECT_EQ(ReadClock(), 0);
    EXPECT_EQ(counter.GetCallCount(), 2U);
    EXPECT_FALSE(counter.WasHit());
}

using ClockHook = Hook<int(WideTimeval*, void*)>;

TEST(Hook, AnswersInsteadOfTheRealFunction)
{
    {
        const ClockHook hook(interposed::gettimeofday, [](WideTimeval* time, void*) {
            time->tv_sec = 5;
            return 17;
        });
        timeval now{};
        EXPECT_EQ(gettimeofday(&now, nullptr), 17);
        EXPECT_EQ(now.tv_sec, 5);
    }
    timeval now{};
    EXPECT_EQ(gettimeofday(&now, nullptr), 0);
    EXPECT_GT(now.tv_sec, 5);
}

TEST(Hook, WatchesAndPassesOn)
{
    int seen = 0;
    const ClockHook hook(interposed::gettimeofday, [&](WideTimeval*, void*) -> std::optional<int> {
        ++seen;
        return std::nullopt;
    });
    timeval now{};
    EXPECT_EQ(gettimeofday(&now, nullptr), 0);
    EXPECT_GT(now.tv_sec, 0);
    EXPECT_EQ(seen, 1);
}

TEST(Hook, MayCallTheFunctionItself)
{
    int seen = 0;
    const ClockHook hook(interposed::gettimeofday, [&](WideTimeval* time, void*) {
        ++seen;
        timeval now{};
        const int result = gettimeofday(&now, nullptr);
        time->tv_sec = now.tv_sec;
        return result + 1;
    });
    timeval now{};
    EXPECT_EQ(gettimeofday(&now, nullptr), 1);
    EXPECT_GT(now.tv_sec, 0);
    EXPECT_EQ(seen, 1);
}

TEST(Hook, IsAskedOnEveryThread)
{
    const ClockHook hook(interposed::gettimeofday, [](WideTimeval*, void*) { return 3; });
    std::thread([] { EXPECT_EQ(ReadClock(), 3); }).join();
}

TEST(Hook, ComesAfterAFailure)
{
    int seen = 0;
    const ClockHook hook(interposed::gettimeofday, [&](WideTimeval*, void*) {
        ++seen;
        return 0;
    });
    const FailingCall failing("gettimeofday", EPERM);
    EXPECT_EQ(ReadClock(), -1);
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(ReadClock(), 0);
    EXPECT_EQ(seen, 1);
}

TEST(Hook, ThatThrowsIsAskedAgain)
{
    int seen = 0;
    const Hook<int(const WideTimespec*, WideTimespec*)> hook(
        interposed::nanosleep, [&](const WideTimespec*, WideTimespec*) -> std::optional<int> {
            ++seen;
            throw std::runtime_error("from the hook");
        });
    const timespec none{};
    EXPECT_THROW(nanosleep(&none, nullptr), std::runtime_error);
    EXPECT_THROW(nanosleep(&none, nullptr), std::runtime_error);
    EXPECT_EQ(seen, 2);
}

TEST(Interposed, FunctionsAreFoundByTheirNames)
{
    std::set<std::string> names;
    for (const InterposedBase* function : InterposedBase::All()) {
        EXPECT_TRUE(names.insert(function->GetName()).second) << function->GetName();
        EXPECT_EQ(&InterposedBase::Find(function->GetName()), function);
    }
    EXPECT_TRUE(names.count("gettimeofday"));
    EXPECT_TRUE(names.count("pthread_mutex_destroy"));
}

} // namespace

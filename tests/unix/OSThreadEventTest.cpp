#include <VelaHost_OS/ThreadEvent.h>

#include "support/FakeClock.h"
#include "support/Interpose.h"
#include "support/Sanitizers.h"
#include "support/ThrownException.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_OS/SystemInfo.h>
#include <VelaHost_OS/Thread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <future>
#include <limits>
#include <new>
#include <optional>
#include <ostream>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace velahost_test;
using VelaHost_OS::ThreadEvent;
using VelaHost_Utility::SystemException;

constexpr int s_NoLimit = -1;
/// An hour in whole seconds, which the platform never refuses: longer than any test.
constexpr int s_Long = 3'600'000;
/// How long a test watches that something does not happen.
constexpr std::chrono::milliseconds s_Watch{50};

/// Sees threads go to sleep in one event, and keeps the platform objects that they sleep on.
class SleepWatch
{
public:
    /// `beforeSleep` runs on the sleeping thread, with the mutex held.
    explicit SleepWatch(std::function<void()> beforeSleep = [] {})
        : m_BeforeSleep(std::move(beforeSleep)),
          m_Wait(interposed::pthread_cond_wait,
                 [this](pthread_cond_t*, pthread_mutex_t* mutex) { return Begin(mutex); }),
          m_TimedWait(interposed::pthread_cond_timedwait,
                      [this](pthread_cond_t*, pthread_mutex_t* mutex, const WideTimespec*) {
                          return Begin(mutex);
                      })
    {}

    pthread_mutex_t* GetMutex() const { return m_Mutex; }

    /// Returns when that many more sleeps have begun and every sleeper has let go of the mutex: a
    /// wake-up made from here on reaches them all.
    void AwaitSleepers(int count)
    {
        for (int i = 0; i < count; ++i) {
            m_Begun.acquire();
        }
        pthread_mutex_lock(m_Mutex);
        pthread_mutex_unlock(m_Mutex);
    }

private:
    std::optional<int> Begin(pthread_mutex_t* mutex)
    {
        m_Mutex = mutex;
        m_BeforeSleep();
        m_Begun.release();
        return std::nullopt;
    }

    std::function<void()> m_BeforeSleep;
    std::atomic<pthread_mutex_t*> m_Mutex{nullptr};
    std::counting_semaphore<> m_Begun{0};
    Hook<int(pthread_cond_t*, pthread_mutex_t*)> m_Wait;
    Hook<int(pthread_cond_t*, pthread_mutex_t*, const WideTimespec*)> m_TimedWait;
};

/// A thread in `Wait`.
class Waiter
{
public:
    Waiter(ThreadEvent& event, int milliseconds)
        : m_Thread([this, &event, milliseconds] { m_Result.set_value(event.Wait(milliseconds)); })
    {}
    ~Waiter() { m_Thread.join(); }

    bool IsWaitingStill() { return m_Future.wait_for(s_Watch) == std::future_status::timeout; }
    bool GetResult() { return m_Future.get(); }

private:
    std::promise<bool> m_Result;
    std::future<bool> m_Future = m_Result.get_future();
    std::thread m_Thread;
};

/// Takes the place of the platform's timed wait: keeps the deadlines and returns what it is told.
class ScriptedTimedWait
{
public:
    explicit ScriptedTimedWait(std::function<int(int call)> action)
        : m_Action(std::move(action)),
          m_Hook(interposed::pthread_cond_timedwait,
                 [this](pthread_cond_t*, pthread_mutex_t*, const WideTimespec* deadline) {
                     m_Deadlines.push_back(*deadline);
                     return std::optional<int>(m_Action(static_cast<int>(m_Deadlines.size())));
                 })
    {}

    const std::vector<WideTimespec>& GetDeadlines() const { return m_Deadlines; }

private:
    std::function<int(int)> m_Action;
    std::vector<WideTimespec> m_Deadlines;
    Hook<int(pthread_cond_t*, pthread_mutex_t*, const WideTimespec*)> m_Hook;
};

bool IsHeld(pthread_mutex_t* mutex)
{
    if (pthread_mutex_trylock(mutex) == EBUSY) {
        return true;
    }
    pthread_mutex_unlock(mutex);
    return false;
}

TEST(ThreadEventConstructor, MakesAClearEvent)
{
    const ThreadEvent event;
    EXPECT_FALSE(event.IsSet());
    EXPECT_EQ(event.GetWaitCount(), 0U);
    EXPECT_EQ(event.GetWakeCount(), 0U);
    EXPECT_EQ(event.GetWaitStart(), 0);
    EXPECT_EQ(event.GetWaitEnd(), 0);
}

TEST(ThreadEventConstructor, GivesTheConditionDefaultAttributes)
{
    int calls = 0;
    const Hook hook(interposed::pthread_cond_init,
                    [&](pthread_cond_t*, const pthread_condattr_t* attributes) {
                        ++calls;
                        EXPECT_EQ(attributes, nullptr);
                        return std::optional<int>();
                    });
    const ThreadEvent event;
    EXPECT_EQ(calls, 1);
}

TEST(ThreadEventConstructor, ThrowsWhenTheMutexCannotBeMade)
{
    for (const char* call : {"pthread_mutexattr_init", "pthread_mutex_init"}) {
        const FailingCall failure(call, ENOMEM);
        const CallCounter conditions("pthread_cond_init");
        errno = 21;
        EXPECT_TRUE(Throws<SystemException>([] { const ThreadEvent event; }, SystemFailure(21)))
            << call;
        EXPECT_EQ(conditions.GetCallCount(), 0U);
    }
}

TEST(ThreadEventConstructor, DestroysTheMutexWhenTheConditionCannotBeMade)
{
    const FailingCall failure("pthread_cond_init", EAGAIN);
    const CallCounter destroyed("pthread_mutex_destroy");
    errno = 22;
    EXPECT_TRUE(Throws<SystemException>([] { const ThreadEvent event; }, SystemFailure(22)));
    EXPECT_EQ(destroyed.GetCallCount(), 1U);
}

TEST(ThreadEventDestructor, DestroysTheConditionOnce)
{
    const CallCounter conditions("pthread_cond_destroy");
    const CallCounter mutexes("pthread_mutex_destroy");
    {
        const ThreadEvent event;
    }
    EXPECT_EQ(conditions.GetCallCount(), 1U);
    EXPECT_EQ(mutexes.GetCallCount(), 1U);
}

TEST(ThreadEventDestructor, ThrowsWhenTheConditionCannotBeDestroyed)
{
    const CallCounter mutexes("pthread_mutex_destroy");
    std::optional<FailingCall> failure;
    EXPECT_TRUE(Throws<SystemException>(
        [&] {
            const ThreadEvent event;
            failure.emplace("pthread_cond_destroy", EBUSY);
            errno = 23;
        },
        SystemFailure(23)));
    EXPECT_EQ(mutexes.GetCallCount(), 1U);
}

TEST(ThreadEventSet, StaysUntilReset)
{
    ThreadEvent event;
    event.Set();
    EXPECT_TRUE(event.IsSet());
    event.Set();
    EXPECT_TRUE(event.IsSet());
    event.Reset();
    EXPECT_FALSE(event.IsSet());
    event.Reset();
    EXPECT_FALSE(event.IsSet());
}

TEST(ThreadEventSet, WakesByOneBroadcastAndTakesNoLock)
{
    ThreadEvent event;
    const CallCounter broadcasts("pthread_cond_broadcast");
    const CallCounter locks("pthread_mutex_lock");
    event.Set();
    EXPECT_EQ(broadcasts.GetCallCount(), 1U);
    event.Reset();
    EXPECT_EQ(broadcasts.GetCallCount(), 1U);
    EXPECT_EQ(locks.GetCallCount(), 0U);
}

TEST(ThreadEventSet, IsInForceBeforeItWakesAnybody)
{
    ThreadEvent event;
    bool setWhenWaking = false;
    const Hook hook(interposed::pthread_cond_broadcast, [&](pthread_cond_t*) {
        setWhenWaking = event.IsSet();
        return std::optional<int>();
    });
    event.Set();
    EXPECT_TRUE(setWhenWaking);
}

TEST(ThreadEventSet, ThrowsAndStaysSetWhenWakingFails)
{
    ThreadEvent event;
    const FailingCall failure("pthread_cond_broadcast", EINVAL);
    errno = 24;
    EXPECT_TRUE(Throws<SystemException>([&] { event.Set(); }, SystemFailure(24)));
    EXPECT_TRUE(event.IsSet());
    EXPECT_TRUE(event.Wait(s_NoLimit));
}

/// Two threads that begin each round together.
class StartLine
{
public:
    void Await(int round)
    {
        ++m_Arrived;
        for (int looks = 1; m_Arrived < 2 * round; ++looks) {
            if (looks % 1000 == 0) {
                std::this_thread::yield();
            }
        }
    }

private:
    std::atomic<int> m_Arrived{0};
};

/// A few nanoseconds for each step.
void Delay(int steps)
{
    for (std::atomic<int> step{0}; step.load(std::memory_order_relaxed) < steps;) {
        step.store(step.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
}

TEST(ThreadEventReset, IsDoneBeforeTheCallerLooksForWork)
{
    // Who resets, finds no work and waits must be woken by who then brings some: the reset must not
    // come to pass after the look. Many rounds, since it only might: as many as there are in the
    // time, for where the two threads have to share a processor.
    const auto timeIsUp = [end =
                               std::chrono::steady_clock::now() + std::chrono::milliseconds(300)] {
        return std::chrono::steady_clock::now() > end;
    };
    constexpr int enough = 200'000;
    ThreadEvent event;
    alignas(64) std::atomic<bool> hasWork{false};
    std::atomic<bool> isLast{false};
    StartLine begin;
    StartLine end;
    std::thread producer([&] {
        for (int round = 1; !isLast; ++round) {
            // Whose processor has the event at hand makes the other one's store to it take long.
            event.Set();
            begin.Await(round);
            Delay(round % 61);
            hasWork = true;
            event.Set();
            end.Await(round);
        }
    });
    int lost = 0;
    for (int round = 1; !isLast; ++round) {
        hasWork = false;
        begin.Await(round);
        Delay(round % 67);
        event.Reset();
        const bool foundWork = hasWork;
        isLast = round == enough || timeIsUp();
        end.Await(round);
        lost += !foundWork && !event.IsSet() ? 1 : 0;
    }
    producer.join();
    EXPECT_EQ(lost, 0);
}

TEST(ThreadEventWait, ReturnsAtOnceWhileSet)
{
    ThreadEvent event;
    event.Set();
    const CallCounter waits("pthread_cond_wait");
    const CallCounter timedWaits("pthread_cond_timedwait");
    const CallCounter clock("gettimeofday");
    for (const int milliseconds : {0, s_NoLimit, s_NoLimit, 999, -999, INT_MIN}) {
        EXPECT_TRUE(event.Wait(milliseconds)) << milliseconds;
    }
    EXPECT_EQ(waits.GetCallCount() + timedWaits.GetCallCount() + clock.GetCallCount(), 0U);
    EXPECT_EQ(event.GetWaitCount(), 0U);
    EXPECT_EQ(event.GetWakeCount(), 0U);
    EXPECT_TRUE(event.IsSet());
}

TEST(ThreadEventWait, OfZeroOnAClearEventIsFalseAfterOneTimedWait)
{
    ThreadEvent event;
    const CallCounter timedWaits("pthread_cond_timedwait");
    EXPECT_FALSE(event.Wait(0));
    EXPECT_EQ(timedWaits.GetCallCount(), 1U);
    EXPECT_EQ(event.GetWaitCount(), 1U);
    EXPECT_EQ(event.GetWakeCount(), 1U);
    EXPECT_FALSE(event.Wait(0));
    EXPECT_EQ(event.GetWaitCount(), 2U);
    EXPECT_EQ(event.GetWakeCount(), 2U);
}

TEST(ThreadEventWait, LastsItsTimeByTheClock)
{
    ThreadEvent event;
    const auto start = std::chrono::system_clock::now();
    EXPECT_FALSE(event.Wait(1000));
    const auto waited = std::chrono::system_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(999));
    EXPECT_LT(waited, std::chrono::seconds(30));
    EXPECT_GE(event.GetWaitEnd() - event.GetWaitStart(), 999'000'000);
}

TEST(ThreadEventWait, WithoutLimitHasNoDeadline)
{
    ThreadEvent event;
    FakeClock clock(5000, 999'999);
    const Hook hook(interposed::pthread_cond_wait, [&](pthread_cond_t*, pthread_mutex_t*) {
        EXPECT_EQ(clock.GetReadCount(), 1U);
        clock.Set(5002);
        event.Set();
        return std::optional<int>(0);
    });
    EXPECT_TRUE(event.Wait(s_NoLimit));
    EXPECT_EQ(clock.GetReadCount(), 2U);
    EXPECT_EQ(event.GetWaitStart(), 5'000'999'999'000);
    EXPECT_EQ(event.GetWaitEnd(), 5'002'000'000'000);
}

TEST(ThreadEventWait, BlocksAfterResetUntilTheNextSet)
{
    ThreadEvent event;
    event.Set();
    EXPECT_TRUE(event.Wait(s_NoLimit));
    EXPECT_TRUE(event.Wait(s_NoLimit));
    event.Reset();
    SleepWatch watch;
    Waiter waiter(event, s_NoLimit);
    watch.AwaitSleepers(1);
    EXPECT_TRUE(waiter.IsWaitingStill());
    event.Set();
    EXPECT_TRUE(waiter.GetResult());
}

TEST(ThreadEventWait, WithATimeOutIsEndedBySet)
{
    ThreadEvent event;
    SleepWatch watch;
    Waiter waiter(event, s_Long);
    watch.AwaitSleepers(1);
    event.Set();
    EXPECT_TRUE(waiter.GetResult());
}

TEST(ThreadEventWait, OneSetFreesEveryWaiter)
{
    constexpr int waiterCount = 8;
    ThreadEvent event;
    {
        SleepWatch watch;
        std::deque<Waiter> waiters;
        for (int i = 0; i < waiterCount; ++i) {
            waiters.emplace_back(event, i % 2 == 0 ? s_NoLimit : s_Long);
        }
        watch.AwaitSleepers(waiterCount);
        event.Set();
        for (Waiter& waiter : waiters) {
            EXPECT_TRUE(waiter.GetResult());
        }
    }
    EXPECT_TRUE(event.IsSet());
    EXPECT_EQ(event.GetWaitCount(), 8U);
    EXPECT_EQ(event.GetWakeCount(), 8U);
}

TEST(ThreadEventWait, ShowsWhatWasDoneBeforeSet)
{
    for (const bool asleep : {true, false}) {
        ThreadEvent event;
        int written = 0;
        SleepWatch watch;
        std::thread setter([&] {
            if (asleep) {
                watch.AwaitSleepers(1);
            }
            written = 1;
            event.Set();
        });
        if (asleep) {
            EXPECT_TRUE(event.Wait(s_NoLimit));
        } else {
            while (!event.IsSet()) {
                std::this_thread::yield();
            }
            EXPECT_TRUE(event.Wait(s_NoLimit));
        }
        EXPECT_EQ(written, 1);
        setter.join();
    }
}

TEST(ThreadEventWait, SleepsOnWhenSetIsUndoneBeforeItRan)
{
    ThreadEvent event;
    {
        SleepWatch watch;
        Waiter waiter(event, s_NoLimit);
        watch.AwaitSleepers(1);
        pthread_mutex_lock(watch.GetMutex());
        event.Set();
        event.Reset();
        pthread_mutex_unlock(watch.GetMutex());
        watch.AwaitSleepers(1);
        EXPECT_TRUE(waiter.IsWaitingStill());
        event.Set();
        EXPECT_TRUE(waiter.GetResult());
    }
    EXPECT_EQ(event.GetWaitCount(), 2U);
    EXPECT_EQ(event.GetWakeCount(), 2U);
}

TEST(ThreadEventWait, StartsItsTimeAnewAfterASpuriousWakeUp)
{
    ThreadEvent event;
    FakeClock clock(1000, 250'000);
    const ScriptedTimedWait wait([&](int call) {
        EXPECT_EQ(event.GetWaitCount(), static_cast<unsigned int>(call));
        EXPECT_EQ(event.GetWakeCount(), static_cast<unsigned int>(call - 1));
        EXPECT_EQ(event.GetWaitStart(), clock.GetMicroseconds() * 1000);
        clock.AdvanceMilliseconds(1500);
        if (call == 3) {
            event.Set();
        }
        return 0;
    });
    EXPECT_TRUE(event.Wait(2200));
    ASSERT_EQ(wait.GetDeadlines().size(), 3U);
    EXPECT_EQ(wait.GetDeadlines()[0].tv_sec, 1002);
    EXPECT_EQ(wait.GetDeadlines()[0].tv_nsec, 450'000'000);
    EXPECT_EQ(wait.GetDeadlines()[1].tv_sec, 1003);
    EXPECT_EQ(wait.GetDeadlines()[1].tv_nsec, 950'000'000);
    EXPECT_EQ(wait.GetDeadlines()[2].tv_sec, 1005);
    EXPECT_EQ(wait.GetDeadlines()[2].tv_nsec, 450'000'000);
    EXPECT_EQ(event.GetWaitCount(), 3U);
    EXPECT_EQ(event.GetWakeCount(), 3U);
    EXPECT_EQ(event.GetWaitEnd(), clock.GetMicroseconds() * 1000);
}

TEST(ThreadEventWait, ThatTimesOutDoesNotLookAtTheEvent)
{
    ThreadEvent event;
    pthread_mutex_t* mutex = nullptr;
    {
        const Hook hook(interposed::pthread_cond_timedwait,
                        [&](pthread_cond_t*, pthread_mutex_t* held, const WideTimespec*) {
                            mutex = held;
                            event.Set();
                            return std::optional<int>(ETIMEDOUT);
                        });
        EXPECT_FALSE(event.Wait(1000));
    }
    EXPECT_TRUE(event.IsSet());
    EXPECT_EQ(event.GetWakeCount(), 1U);
    EXPECT_FALSE(IsHeld(mutex));
}

// The gap that the header tells of.
TEST(ThreadEventWait, MissesASetBetweenItsLookAndItsSleep)
{
    ThreadEvent event;
    bool first = true;
    SleepWatch watch([&] {
        if (first) {
            first = false;
            event.Set();
        }
    });
    Waiter waiter(event, s_NoLimit);
    watch.AwaitSleepers(1);
    EXPECT_TRUE(event.IsSet());
    EXPECT_TRUE(waiter.IsWaitingStill());
    event.Set();
    EXPECT_TRUE(waiter.GetResult());
}

TEST(ThreadEventWait, WithATimeOutIsFalseForASetThatItMissed)
{
    ThreadEvent event;
    SleepWatch watch([&] { event.Set(); });
    const std::int64_t start = VelaHost_OS::gethrtime();
    EXPECT_FALSE(event.Wait(1000));
    EXPECT_GE(VelaHost_OS::gethrtime() - start, 999'000'000);
    EXPECT_TRUE(event.IsSet());
}

struct DeadlineCase
{
    int milliseconds;
    std::int64_t clockMicroseconds;
    std::int64_t seconds;
    long nanoseconds;
};

std::ostream& operator<<(std::ostream& out, const DeadlineCase& c)
{
    return out << c.milliseconds << "ms_at_" << c.clockMicroseconds << "us";
}

class ThreadEventDeadline : public ::testing::TestWithParam<DeadlineCase>
{};

TEST_P(ThreadEventDeadline, AddsFieldByFieldWithoutACarry)
{
    ThreadEvent event;
    const FakeClock clock(1'700'000'000, GetParam().clockMicroseconds);
    const ScriptedTimedWait wait([](int) { return ETIMEDOUT; });
    EXPECT_FALSE(event.Wait(GetParam().milliseconds));
    ASSERT_EQ(wait.GetDeadlines().size(), 1U);
    EXPECT_EQ(std::int64_t{wait.GetDeadlines()[0].tv_sec}, GetParam().seconds);
    EXPECT_EQ(wait.GetDeadlines()[0].tv_nsec, GetParam().nanoseconds);
}

INSTANTIATE_TEST_SUITE_P(Arithmetic, ThreadEventDeadline,
                         ::testing::Values(DeadlineCase{0, 0, 1'700'000'000, 0},
                                           DeadlineCase{0, 999'999, 1'700'000'000, 999'999'000},
                                           DeadlineCase{1, 1, 1'700'000'000, 1'001'000},
                                           DeadlineCase{999, 1000, 1'700'000'000, 1'000'000'000},
                                           DeadlineCase{999, 999'999, 1'700'000'000, 1'998'999'000},
                                           DeadlineCase{1000, 999'999, 1'700'000'001, 999'999'000},
                                           DeadlineCase{2500, 250'000, 1'700'000'002, 750'000'000},
                                           DeadlineCase{INT_MAX, 400'000, 1'702'147'483,
                                                        1'047'000'000},
                                           DeadlineCase{-2, 1000, 1'700'000'000, -1'000'000},
                                           DeadlineCase{-999, 0, 1'700'000'000, -999'000'000},
                                           DeadlineCase{-1000, 5, 1'699'999'999, 5000},
                                           DeadlineCase{-2500, 600'000, 1'699'999'998, 100'000'000},
                                           DeadlineCase{INT_MIN, 0, 1'697'852'517, -648'000'000}));

TEST(ThreadEventWait, GoesOnPastJanuary2038)
{
    // The platform's own clock is years behind, so the wait lasts until the event is set. Cut to
    // 32 bits the deadline would be in 1901 and the wait over at once.
    ThreadEvent event;
    SleepWatch watch;
    const FakeClock clock(std::numeric_limits<std::int32_t>::max());
    Waiter waiter(event, 1000);
    watch.AwaitSleepers(1);
    event.Set();
    EXPECT_TRUE(waiter.GetResult());
    EXPECT_EQ(event.GetWaitCount(), 1U);
    EXPECT_EQ(event.GetWaitStart(), 2'147'483'647'000'000'000);
    EXPECT_EQ(event.GetWaitEnd(), 2'147'483'647'000'000'000);
}

TEST(ThreadEventDeadline, CrossesTheEndOf32BitTime)
{
    ThreadEvent event;
    const ScriptedTimedWait wait([](int) { return ETIMEDOUT; });
    FakeClock clock(std::numeric_limits<std::int32_t>::max());
    EXPECT_FALSE(event.Wait(1000));
    clock.Set(4'294'967'296);
    EXPECT_FALSE(event.Wait(INT_MAX));
    EXPECT_EQ(std::int64_t{wait.GetDeadlines()[0].tv_sec}, 2'147'483'648);
    EXPECT_EQ(std::int64_t{wait.GetDeadlines()[1].tv_sec}, 4'297'114'779);
}

TEST(ThreadEventWait, TakesNegativeTimesForThePast)
{
    ThreadEvent event;
    const FakeClock clock(1'700'000'000, 10'000);
    for (const int milliseconds : {-1000, -2000, -5, -10, -1005}) {
        EXPECT_FALSE(event.Wait(milliseconds)) << milliseconds;
    }
}

/// A wait that the platform itself refuses.
class ThreadEventRefusal : public ::testing::TestWithParam<int>
{};

TEST_P(ThreadEventRefusal, ThrowsWithTheMutexHeld)
{
    ThreadEvent event;
    SleepWatch watch;
    // Any further and 999 ms do not fit into the second; the least that does not fit.
    FakeClock clock(1'700'000'000, 1000);
    errno = 25;
    EXPECT_TRUE(Throws<SystemException>([&] { event.Wait(GetParam()); }, SystemFailure(25)));
    EXPECT_TRUE(IsHeld(watch.GetMutex()));
    EXPECT_EQ(event.GetWaitCount(), 1U);
    EXPECT_EQ(event.GetWakeCount(), 0U);
    EXPECT_EQ(event.GetWaitEnd(), 1'700'000'000'001'000'000);
    pthread_mutex_unlock(watch.GetMutex());
    EXPECT_FALSE(event.Wait(0));
}

INSTANTIATE_TEST_SUITE_P(Times, ThreadEventRefusal, ::testing::Values(999, 1999, -2, -999, -1002));

TEST(ThreadEventRefusal, EndsAMicrosecondEarlier)
{
    ThreadEvent event;
    const FakeClock clock(1'700'000'000, 999);
    EXPECT_FALSE(event.Wait(999));
}

TEST(ThreadEventRefusal, LeavesAnEventThatCannotBeDestroyed)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "it reports the destruction of a held mutex";
    }
    EXPECT_TRUE(Throws<SystemException>(
        [] {
            ThreadEvent event;
            {
                const FakeClock clock(1'700'000'000, 1000);
                EXPECT_THROW(event.Wait(999), SystemException);
            }
            errno = 26;
        },
        SystemFailure(26)));
}

TEST(ThreadEventWait, ThrowsWithTheMutexHeldWhenThePlatformFails)
{
    for (const char* call : {"pthread_cond_wait", "pthread_cond_timedwait"}) {
        ThreadEvent event;
        pthread_mutex_t* mutex = nullptr;
        {
            const Hook hook(interposed::pthread_mutex_lock, [&](pthread_mutex_t* locked) {
                mutex = locked;
                return std::optional<int>();
            });
            const FailingCall failure(call, EPERM);
            errno = 27;
            const int milliseconds = call == std::string("pthread_cond_wait") ? s_NoLimit : 0;
            EXPECT_TRUE(
                Throws<SystemException>([&] { event.Wait(milliseconds); }, SystemFailure(27)));
        }
        EXPECT_TRUE(IsHeld(mutex));
        EXPECT_EQ(event.GetWaitCount(), 1U);
        EXPECT_EQ(event.GetWakeCount(), 0U);
        EXPECT_NE(event.GetWaitEnd(), 0);
        pthread_mutex_unlock(mutex);
    }
}

TEST(ThreadEventWait, ThrowsWhenTheMutexFails)
{
    ThreadEvent event;
    {
        const FailingCall failure("pthread_mutex_lock", EAGAIN);
        errno = 28;
        EXPECT_TRUE(Throws<SystemException>([&] { event.Wait(0); }, SystemFailure(28)));
    }
    EXPECT_EQ(event.GetWaitCount(), 0U);
    EXPECT_FALSE(event.Wait(0));
    for (const bool set : {false, true}) {
        if (set) {
            event.Set();
        }
        pthread_mutex_t* mutex = nullptr;
        const Hook hook(interposed::pthread_mutex_lock, [&](pthread_mutex_t* locked) {
            mutex = locked;
            return std::optional<int>();
        });
        {
            const FailingCall failure("pthread_mutex_unlock", EPERM);
            errno = 29;
            EXPECT_TRUE(Throws<SystemException>([&] { event.Wait(0); }, SystemFailure(29)));
        }
        EXPECT_TRUE(IsHeld(mutex));
        pthread_mutex_unlock(mutex);
    }
}

TEST(ThreadEventWait, TakesAnUnreadableClockForTheEpoch)
{
    ThreadEvent event;
    const FailingCall failure("gettimeofday", EFAULT, 1, FailingCall::forGood);
    EXPECT_FALSE(event.Wait(s_Long));
    EXPECT_EQ(failure.GetCallCount(), 3U);
    EXPECT_EQ(event.GetWaitStart(), 0);
    EXPECT_EQ(event.GetWaitEnd(), 0);
}

/// A thread that waits until it is cancelled.
class CancelledWaiter
{
public:
    CancelledWaiter(ThreadEvent& event, int milliseconds)
        : m_Event(event), m_Milliseconds(milliseconds)
    {
        VelaHost_OS::CreateThread(&CancelledWaiter::Run, 0, this, &m_Thread);
    }

    void CancelAndJoin()
    {
        EXPECT_EQ(VelaHost_OS::CancelThread(m_Thread), 0U);
        EXPECT_EQ(VelaHost_OS::JoinThread(m_Thread), 0U);
    }
    bool HasReturned() const { return m_Returned; }

private:
    static void Run(void* self)
    {
        auto* waiter = static_cast<CancelledWaiter*>(self);
        waiter->m_Event.Wait(waiter->m_Milliseconds);
        waiter->m_Returned = true;
    }

    ThreadEvent& m_Event;
    int m_Milliseconds;
    unsigned long m_Thread = 0;
    std::atomic<bool> m_Returned{false};
};

TEST(ThreadEventWait, CancelledLeavesTheEventUsable)
{
    for (const int milliseconds : {s_NoLimit, s_Long}) {
        ThreadEvent event;
        {
            SleepWatch watch;
            CancelledWaiter cancelled(event, milliseconds);
            watch.AwaitSleepers(1);
            cancelled.CancelAndJoin();
            EXPECT_FALSE(cancelled.HasReturned());
            EXPECT_FALSE(IsHeld(watch.GetMutex()));
        }
        EXPECT_EQ(event.GetWaitCount(), 1U);
        EXPECT_EQ(event.GetWakeCount(), 0U);
        EXPECT_FALSE(event.Wait(0));
        event.Set();
        EXPECT_TRUE(event.Wait(s_NoLimit));
    }
}

TEST(ThreadEventWait, CancelledLeavesTheOtherWaitersWaiting)
{
    ThreadEvent event;
    SleepWatch watch;
    Waiter first(event, s_NoLimit);
    CancelledWaiter cancelled(event, s_NoLimit);
    Waiter second(event, s_Long);
    watch.AwaitSleepers(3);
    cancelled.CancelAndJoin();
    event.Set();
    EXPECT_TRUE(first.GetResult());
    EXPECT_TRUE(second.GetResult());
}

TEST(ThreadEventLayout, KeepsItsFieldsInOrder)
{
    // Zeroed storage that the test may look at byte by byte.
    alignas(ThreadEvent) unsigned char memory[sizeof(ThreadEvent)] = {};
    const auto word = [&](std::size_t offset) {
        unsigned int value = 0;
        std::memcpy(&value, memory + offset, sizeof value);
        return value;
    };
    const auto time = [&](std::size_t offset) {
        std::int64_t value = 0;
        std::memcpy(&value, memory + offset, sizeof value);
        return value;
    };
    pthread_cond_t* condition = nullptr;
    pthread_mutex_t* mutex = nullptr;
    FakeClock clock(1'700'000'000);
    const Hook hook(interposed::pthread_cond_timedwait,
                    [&](pthread_cond_t* waitedFor, pthread_mutex_t* held, const WideTimespec*) {
                        condition = waitedFor;
                        mutex = held;
                        clock.AdvanceMilliseconds(1);
                        return std::optional<int>(ETIMEDOUT);
                    });
    auto* const event = new (memory) ThreadEvent;
    const std::size_t afterMutex = sizeof(VelaHost_OS::ThreadMutex);
    const std::size_t afterCondition = afterMutex + sizeof(pthread_cond_t);
    EXPECT_EQ(word(afterCondition), 0U);
    event->Wait(0);
    event->Wait(0);
    event->Set();
    const auto offsetOf = [&](const void* part) {
        return static_cast<std::size_t>(static_cast<const unsigned char*>(part) - memory);
    };
    EXPECT_EQ(offsetOf(mutex), sizeof(void*));
    EXPECT_EQ(offsetOf(condition), afterMutex);
    EXPECT_EQ(word(afterCondition), 1U);
    EXPECT_EQ(word(afterCondition + 4), 2U);
    EXPECT_EQ(word(afterCondition + 8), 2U);
    if (sizeof(void*) == 4) {
        // The mutex's own words, which each wait keeps as every other lock does.
        EXPECT_EQ(word(28), 2U);
        EXPECT_EQ(word(32), 2U);
        EXPECT_EQ(word(36), 0xDEADU);
        EXPECT_EQ(word(40), 0U);
        EXPECT_EQ(word(44), pthread_self());
        EXPECT_EQ(afterMutex, 48U);
        EXPECT_EQ(afterCondition, 96U);
        EXPECT_EQ(time(108), event->GetWaitStart());
        EXPECT_EQ(time(116), event->GetWaitEnd());
        EXPECT_EQ(memory[124], 1);
        EXPECT_EQ(sizeof(ThreadEvent), 128U);
    }
    EXPECT_EQ(event->GetWaitEnd() - event->GetWaitStart(), 1'000'000);
    event->~ThreadEvent();
}

} // namespace

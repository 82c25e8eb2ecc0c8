#include <VelaHost_OS/TimerQueue.h>

#include "support/ChildProcess.h"
#include "support/FailingAllocation.h"
#include "support/Interpose.h"
#include "support/TemporaryDirectory.h"
#include "support/ThrownException.h"
#include "support/TimerThread.h"
#include "support/VirtualTable.h"
#include "support/interpose/Interposed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace VelaHost_OS;
using namespace velahost_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using VelaHost_Utility::Locker;
using VelaHost_Utility::SystemException;
using Request = TimerService::Request;

constexpr std::int64_t s_Millisecond = 1'000'000; // in nanoseconds
constexpr std::int64_t s_Second = 1000 * s_Millisecond;
constexpr std::int64_t s_HourInMilliseconds = 3'600'000;

/// Writes its name into the common list of what was fired, then does what the test wants.
class Recorder final : public TimerService::ReqHandler
{
public:
    Recorder(std::vector<std::string>& fired, std::string name,
             std::function<void(Locker&)> action = {})
        : m_Fired(fired), m_Name(std::move(name)), m_Action(std::move(action))
    {}

    void Fire(Locker& locker) override
    {
        m_Fired.push_back(m_Name);
        if (m_Action) {
            m_Action(locker);
        }
    }

private:
    std::vector<std::string>& m_Fired;
    std::string m_Name;
    std::function<void(Locker&)> m_Action;
};

/// The mutex that is the service's lock; it lies behind the virtual table.
pthread_mutex_t* ServiceMutex()
{
    return reinterpret_cast<pthread_mutex_t*>(
        reinterpret_cast<char*>(static_cast<void*>(TimerService::GetInstance())) + sizeof(void*));
}

class TimerQueueTest : public ::testing::Test
{
protected:
    Request* Make(TimerService::ReqHandler& handler, unsigned int milliseconds)
    {
        Locker locker(*m_Service);
        return m_Service->MakeRequest(&handler, milliseconds);
    }

    void Kill(Request* request)
    {
        Locker locker(*m_Service);
        m_Service->KillRequest(request);
    }

    /// Starts the thread, which is then asleep with an empty queue.
    void StartThread()
    {
        Kill(Make(m_Idle, 60'000));
        m_Thread.WaitUntilAsleep();
        m_Thread.Wake();
    }

    FakeClock& Clock() { return m_Thread.Clock(); }

    /// How many signals the thread was sent while `action` ran.
    static unsigned int SignalsSentBy(const std::function<void()>& action)
    {
        const CallCounter signals("pthread_kill", Scope::AnyThread);
        action();
        return signals.GetCallCount();
    }

    TimerThread m_Thread;
    TimerService* const m_Service = TimerService::GetInstance();
    std::vector<std::string> m_Fired;
    Recorder m_Idle{m_Fired, "idle"};
};

using TimerQueueFiring = TimerQueueTest;

TEST_F(TimerQueueFiring, KeepsTheOrderOfExpiryAndAmongEqualsThatOfMaking)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Recorder b(m_Fired, "b");
    Recorder c(m_Fired, "c");
    Recorder d(m_Fired, "d");
    Make(a, 20);
    Make(b, 20);
    Make(c, 10);
    Make(d, 20);
    Clock().AdvanceMilliseconds(10);
    Make(a, 10);
    m_Thread.WakeAfter(9);
    EXPECT_THAT(m_Fired, ElementsAre("c"));
    m_Thread.WakeAfter(1);
    EXPECT_THAT(m_Fired, ElementsAre("c", "a", "b", "d", "a"));
}

TEST_F(TimerQueueFiring, ComesWithTheNextPassForZeroMilliseconds)
{
    StartThread();
    Recorder a(m_Fired, "a");
    EXPECT_EQ(SignalsSentBy([&] { Make(a, 0); }), 1U);
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerQueueFiring, ComesForTheVeryFirstRequest)
{
    Recorder a(m_Fired, "a");
    EXPECT_EQ(SignalsSentBy([&] { Make(a, 0); }), 1U);
    m_Thread.WaitUntilAsleep();
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerQueueFiring, WaitsALongTimeInStepsOfASecond)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Make(a, 5000);
    m_Thread.Wake();
    for (int second = 0; second < 4; ++second) {
        EXPECT_EQ(m_Thread.GetSleepNanoseconds(), s_Second);
        m_Thread.WakeAfter(1000);
    }
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), s_Second);
    m_Thread.WakeAfter(1);
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), 999 * s_Millisecond);
    m_Thread.WakeAfter(998);
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), s_Millisecond);
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.WakeAfter(1);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), s_Second);
}

TEST_F(TimerQueueFiring, RoundsBothTimesToTheNearestMillisecond)
{
    Recorder a(m_Fired, "a");
    StartThread();
    // 0.499 ms counts as 0, 0.5 ms as 1.
    Clock().Set(1'000'000'000, 499);
    Make(a, 1);
    m_Thread.Wake();
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), s_Millisecond);
    Clock().Set(1'000'000'000, 500);
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, ElementsAre("a"));

    Make(a, 1);
    Clock().Set(1'000'000'000, 1499);
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, ElementsAre("a"));
    Clock().Set(1'000'000'000, 1500);
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, ElementsAre("a", "a"));
}

TEST_F(TimerQueueFiring, TakesOneRequestAPassAndReadsTheClockForEach)
{
    StartThread();
    Recorder a(m_Fired, "a", [this](Locker&) { Clock().AdvanceMilliseconds(100); });
    Recorder b(m_Fired, "b");
    Recorder c(m_Fired, "c");
    Make(a, 10);
    Make(b, 10);
    Make(c, 50);
    m_Thread.Wake();
    const unsigned int readsBefore = Clock().GetReadCount();
    const unsigned int sleepsBefore = m_Thread.GetSleepCount();
    m_Thread.WakeAfter(10);
    // `c` is due only by the reading after `a`.
    EXPECT_THAT(m_Fired, ElementsAre("a", "b", "c"));
    EXPECT_EQ(Clock().GetReadCount() - readsBefore, 4U);
    EXPECT_EQ(m_Thread.GetSleepCount() - sleepsBefore, 1U);
}

TEST_F(TimerQueueFiring, GoesByTheTimeBeforeThePassTookTheLock)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Make(a, 10);
    const pthread_t tester = pthread_self();
    pthread_mutex_t* const mutex = ServiceMutex();
    std::atomic<bool> armed{true};
    const Hook<int(pthread_mutex_t*)> hook(
        interposed::pthread_mutex_lock, [&](pthread_mutex_t* locked) {
            if (locked == mutex && !pthread_equal(pthread_self(), tester) &&
                armed.exchange(false)) {
                Clock().AdvanceMilliseconds(10);
            }
            return std::nullopt;
        });
    m_Thread.Wake();
    EXPECT_FALSE(armed);
    EXPECT_THAT(m_Fired, IsEmpty());
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), 10 * s_Millisecond);
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerQueueFiring, HoldsTheLockAndReleasesWhatTheHandlerLeavesHeld)
{
    StartThread();
    const auto isFree = [] {
        return std::async(std::launch::async,
                          [] {
                              const bool taken = pthread_mutex_trylock(ServiceMutex()) == 0;
                              if (taken) {
                                  pthread_mutex_unlock(ServiceMutex());
                              }
                              return taken;
                          })
            .get();
    };
    bool freeWhenFired = true;
    bool freeAfterUnlock = false;
    Recorder keeps(m_Fired, "keeps", [&](Locker&) { freeWhenFired = isFree(); });
    Recorder releases(m_Fired, "releases", [&](Locker& locker) {
        locker.Unlock();
        freeAfterUnlock = isFree();
    });
    Make(keeps, 0);
    Make(releases, 0);
    m_Thread.Wake();
    EXPECT_FALSE(freeWhenFired);
    EXPECT_TRUE(freeAfterUnlock);
    EXPECT_TRUE(isFree());
}

TEST_F(TimerQueueFiring, LetsAHandlerThatHoldsTheLockUseTheQueue)
{
    StartThread();
    Recorder again(m_Fired, "again");
    Request* pending = nullptr;
    Recorder a(m_Fired, "a", [&](Locker&) {
        m_Service->KillRequest(pending);
        m_Service->MakeRequest(&again, 5);
    });
    Recorder killed(m_Fired, "killed");
    Make(a, 0);
    pending = Make(killed, 0);
    m_Thread.Wake();
    m_Thread.WakeAfter(5);
    EXPECT_THAT(m_Fired, ElementsAre("a", "again"));
}

TEST_F(TimerQueueFiring, LetsAHandlerDestroyItself)
{
    StartThread();
    std::unique_ptr<Recorder> handler;
    handler = std::make_unique<Recorder>(m_Fired, "a", [&handler](Locker& locker) {
        locker.Unlock();
        // The function object goes with the handler.
        std::unique_ptr<Recorder>& owner = handler;
        owner.reset();
    });
    Make(*handler, 0);
    m_Thread.Wake();
    EXPECT_EQ(handler, nullptr);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerQueueFiring, PassesOverANullHandler)
{
    StartThread();
    Recorder a(m_Fired, "a");
    {
        Locker locker(*m_Service);
        m_Service->MakeRequest(nullptr, 0);
    }
    Make(a, 0);
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

using TimerQueueWaking = TimerQueueTest;

TEST_F(TimerQueueWaking, HappensForAnEarlierExpiryOnly)
{
    StartThread();
    Recorder a(m_Fired, "a");
    std::vector<Request*> requests;
    const auto make = [&](unsigned int milliseconds) {
        return SignalsSentBy([&] { requests.push_back(Make(a, milliseconds)); });
    };
    EXPECT_EQ(make(5000), 1U);
    m_Thread.Wake();
    EXPECT_EQ(make(6000), 0U);
    EXPECT_EQ(make(5000), 0U);
    EXPECT_EQ(make(4999), 1U);
    // The thread has not looked yet.
    EXPECT_EQ(make(4999), 1U);
    m_Thread.Wake();
    EXPECT_EQ(make(4999), 0U);
    for (Request* const request : requests) {
        Kill(request);
    }
}

TEST_F(TimerQueueWaking, CountsFromTenSecondsAheadWhenTheQueueIsEmpty)
{
    StartThread();
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), s_Second);
    Recorder a(m_Fired, "a");
    std::vector<Request*> requests;
    const auto make = [&](unsigned int milliseconds) {
        return SignalsSentBy([&] { requests.push_back(Make(a, milliseconds)); });
    };
    EXPECT_EQ(make(10'001), 0U);
    EXPECT_EQ(make(10'000), 0U);
    EXPECT_EQ(make(9'999), 1U);
    for (Request* const request : requests) {
        Kill(request);
    }
}

TEST_F(TimerQueueWaking, IsNotDoneByKilling)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Request* const request = Make(a, 10);
    EXPECT_EQ(SignalsSentBy([&] { Kill(request); }), 0U);
}

TEST_F(TimerQueueWaking, SendsSigusr1ToTheTimerThreadAndIgnoresTheResult)
{
    pthread_t timerThread{};
    Recorder a(m_Fired, "a", [&](Locker&) { timerThread = pthread_self(); });
    Make(a, 0);
    m_Thread.WaitUntilAsleep();

    pthread_t target{};
    int signalNumber = 0;
    const Hook<int(pthread_t, int)> hook(interposed::pthread_kill, [&](pthread_t thread, int sent) {
        target = thread;
        signalNumber = sent;
        return ESRCH;
    });
    Kill(Make(a, 0));
    EXPECT_TRUE(pthread_equal(target, timerThread));
    EXPECT_EQ(signalNumber, SIGUSR1);
}

/// The thread in real time, but for the clock that it reads: what ended each sleep is kept.
class TimerQueueSleeping : public ::testing::Test
{
protected:
    using SigtimedwaitHook = Hook<int(const sigset_t*, siginfo_t*, const timespec*)>;

    struct Sleep
    {
        std::vector<int> signals;
        bool withInformation;
        timespec timeout;
        int result;
    };

    TimerQueueSleeping()
        : m_Hook(interposed::sigtimedwait,
                 [this](const sigset_t* signals, siginfo_t* information, const timespec* timeout) {
                     return SleepUntilSignalled(signals, information, timeout);
                 })
    {}

    ~TimerQueueSleeping() override
    {
        // The thread must not come back into this object.
        m_Stopping = true;
        Disturb();
        std::unique_lock lock(m_Mutex);
        m_Changed.wait(lock, [this] { return m_Stopped; });
    }

    int SleepUntilSignalled(const sigset_t* signals, siginfo_t* information,
                            const timespec* timeout)
    {
        std::unique_lock lock(m_Mutex);
        m_ThreadId = pthread_self();
        if (m_Stopping) {
            m_Stopped = true;
            m_Changed.notify_all();
            lock.unlock();
            for (;;) {
                pause();
            }
        }
        std::vector<int> numbers;
        for (int number = 1; number < NSIG; ++number) {
            if (sigismember(signals, number) == 1) {
                numbers.push_back(number);
            }
        }
        m_Sleeps.push_back({numbers, information != nullptr, *timeout, 0});
        m_Changed.notify_all();
        lock.unlock();
        // Long enough that nothing but a signal ends it.
        constexpr timespec forever{600, 0};
        const int result = interposed::sigtimedwait.Real(signals, information, &forever);
        lock.lock();
        m_Sleeps.back().result = result;
        return result;
    }

    /// Sends the thread a signal of somebody else's.
    void Disturb()
    {
        const std::lock_guard lock(m_Mutex);
        pthread_kill(m_ThreadId, SIGUSR1);
    }

    std::size_t GetSleepCount()
    {
        const std::lock_guard lock(m_Mutex);
        return m_Sleeps.size();
    }

    Sleep GetSleep(std::size_t number)
    {
        const std::lock_guard lock(m_Mutex);
        return m_Sleeps.at(number - 1);
    }

    void WaitForSleep(std::size_t number)
    {
        std::unique_lock lock(m_Mutex);
        ASSERT_TRUE(m_Changed.wait_for(lock, std::chrono::seconds(30),
                                       [&] { return m_Sleeps.size() >= number; }));
    }

    Request* Make(TimerService::ReqHandler& handler, unsigned int milliseconds)
    {
        Locker locker(*m_Service);
        return m_Service->MakeRequest(&handler, milliseconds);
    }

    void Kill(Request* request)
    {
        Locker locker(*m_Service);
        m_Service->KillRequest(request);
    }

    FakeClock m_Clock{1'000'000'000};
    TimerService* const m_Service = TimerService::GetInstance();
    std::vector<std::string> m_Fired;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<Sleep> m_Sleeps;
    pthread_t m_ThreadId{};
    std::atomic<bool> m_Stopping{false};
    bool m_Stopped = false;
    SigtimedwaitHook m_Hook;
};

TEST_F(TimerQueueSleeping, EndsAtOnceForAnEarlierRequest)
{
    Recorder a(m_Fired, "a");
    Recorder late(m_Fired, "late");
    Request* const pending = Make(late, 60'000);
    // The first request's own signal ends the first.
    WaitForSleep(2);
    Make(a, 0);
    WaitForSleep(3);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
    EXPECT_EQ(GetSleep(2).result, SIGUSR1);
    Kill(pending);
}

TEST_F(TimerQueueSleeping, AwaitsNothingButSigusr1)
{
    Recorder late(m_Fired, "late");
    Request* const pending = Make(late, 300);
    WaitForSleep(2);
    const Sleep sleep = GetSleep(2);
    EXPECT_THAT(sleep.signals, ElementsAre(SIGUSR1));
    EXPECT_FALSE(sleep.withInformation);
    EXPECT_EQ(sleep.timeout.tv_sec, 0);
    EXPECT_EQ(sleep.timeout.tv_nsec, 300 * s_Millisecond);
    Kill(pending);
}

TEST_F(TimerQueueSleeping, IsNotMissedBetweenTheLockAndTheWait)
{
    // Every request comes while the thread is on its way to sleep or asleep. The wait has no
    // time-out here, so a request whose signal were lost would never be fired.
    std::atomic<int> fired{0};
    Recorder a(m_Fired, "a", [&](Locker&) { ++fired; });
    for (int round = 1; round <= 2000; ++round) {
        Make(a, 0);
        const auto start = std::chrono::steady_clock::now();
        while (fired < round) {
            ASSERT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
            std::this_thread::yield();
        }
    }
}

TEST_F(TimerQueueSleeping, IsOnlyInterruptedByAStraySignal)
{
    std::atomic<int> fired{0};
    Recorder a(m_Fired, "a", [&](Locker&) { ++fired; });
    Make(a, 700);
    WaitForSleep(2);
    const auto disturb = [this] {
        const std::size_t sleeps = GetSleepCount();
        Disturb();
        WaitForSleep(sleeps + 1);
    };
    for (int stray = 0; stray < 50; ++stray) {
        disturb();
        EXPECT_EQ(fired, 0);
    }
    m_Clock.AdvanceMilliseconds(700);
    disturb();
    EXPECT_EQ(fired, 1);
    disturb();
    EXPECT_EQ(fired, 1);
}

TEST(TimerQueueIdle, WakesOnceASecond)
{
    // Static: the thread outlives the test.
    static std::atomic<unsigned int> s_Sleeps{0};
    static std::vector<std::string> s_Fired;
    static Recorder s_Handler(s_Fired, "idle");
    const Hook<int(const sigset_t*, siginfo_t*, const timespec*)> hook(
        interposed::sigtimedwait,
        [](const sigset_t*, siginfo_t*, const timespec*) -> std::optional<int> {
            ++s_Sleeps;
            return std::nullopt;
        });
    const auto waitForSleep = [](unsigned int number) {
        while (s_Sleeps < number) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    };
    TimerService* const service = TimerService::GetInstance();
    {
        Locker locker(*service);
        service->KillRequest(service->MakeRequest(&s_Handler, 20'000));
    }
    // The request's signal cuts the first sleep short.
    waitForSleep(2);
    const auto start = std::chrono::steady_clock::now();
    waitForSleep(4);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(950));
}

using TimerQueueClock = TimerQueueTest;

TEST_F(TimerQueueClock, SetBackDelaysAsMuch)
{
    StartThread();
    m_Thread.WakeAfter(2 * s_HourInMilliseconds);
    Recorder a(m_Fired, "a");
    Make(a, 5000);
    m_Thread.WakeAfter(4000);
    for (int second = 0; second < 3600; ++second) {
        if (second == 0) {
            Clock().AdvanceMilliseconds(-s_HourInMilliseconds);
        }
        const unsigned int readsBefore = Clock().GetReadCount();
        m_Thread.WakeAfter(1000);
        ASSERT_EQ(Clock().GetReadCount() - readsBefore, 1U);
        ASSERT_THAT(m_Fired, IsEmpty());
    }
    m_Thread.WakeAfter(999);
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.WakeAfter(1);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerQueueClock, SetForwardFiresEarly)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Recorder late(m_Fired, "late");
    Make(a, 5000);
    Request* const pending = Make(late, 2 * s_HourInMilliseconds);
    m_Thread.Wake();
    const unsigned int readsBefore = Clock().GetReadCount();
    m_Thread.WakeAfter(s_HourInMilliseconds);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
    EXPECT_EQ(Clock().GetReadCount() - readsBefore, 2U);
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), s_Second);
    Kill(pending);
}

TEST_F(TimerQueueClock, SetBackToBeforeTheQueueDelaysAsMuch)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Make(a, 5000);
    m_Thread.WakeAfter(4000);
    Clock().AdvanceMilliseconds(-s_HourInMilliseconds);
    const unsigned int readsBefore = Clock().GetReadCount();
    m_Thread.Wake();
    EXPECT_EQ(Clock().GetReadCount() - readsBefore, 1U);
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), s_Second);
    m_Thread.WakeAfter(s_HourInMilliseconds + 999);
    EXPECT_THAT(m_Fired, IsEmpty());
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), s_Millisecond);
    m_Thread.WakeAfter(1);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerQueueClock, BeforeTheQueueServesWhatIsMadeMeanwhile)
{
    StartThread();
    Recorder old(m_Fired, "old");
    Recorder early(m_Fired, "early");
    Recorder late(m_Fired, "late");
    Make(old, 5000);
    m_Thread.WakeAfter(4000);
    Clock().AdvanceMilliseconds(-s_HourInMilliseconds);

    // The thread still sleeps towards the old request.
    EXPECT_EQ(SignalsSentBy([&] { Make(late, 20'000); }), 1U);
    m_Thread.Wake();
    EXPECT_EQ(SignalsSentBy([&] { Make(early, 300); }), 1U);
    m_Thread.Wake();
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), 300 * s_Millisecond);
    m_Thread.WakeAfter(299);
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.WakeAfter(1);
    EXPECT_THAT(m_Fired, ElementsAre("early"));
    m_Thread.WakeAfter(19'700);
    EXPECT_THAT(m_Fired, ElementsAre("early", "late"));
    m_Thread.WakeAfter(s_HourInMilliseconds);
    EXPECT_THAT(m_Fired, ElementsAre("early", "late", "old"));
}

TEST_F(TimerQueueClock, PassingTheQueuesCreationAgainLosesNothing)
{
    StartThread();
    Clock().AdvanceMilliseconds(-s_HourInMilliseconds);
    m_Thread.Wake();
    Recorder before(m_Fired, "before");
    Recorder after(m_Fired, "after");
    Make(after, s_HourInMilliseconds + 10);
    Request* const killed = Make(before, 1000);
    Make(before, 1000);
    Kill(killed);
    m_Thread.WakeAfter(s_HourInMilliseconds + 5);
    EXPECT_THAT(m_Fired, ElementsAre("before"));
    // Rounding goes towards zero: a time before the queue's counts a millisecond late.
    m_Thread.WakeAfter(6);
    EXPECT_THAT(m_Fired, ElementsAre("before", "after"));
}

using TimerQueueKill = TimerQueueTest;

TEST_F(TimerQueueKill, RemovesExactlyThatRequest)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Recorder b(m_Fired, "b");
    Recorder c(m_Fired, "c");
    Recorder d(m_Fired, "d");
    Make(a, 10);
    Request* const second = Make(b, 10);
    Make(c, 10);
    Request* const alone = Make(d, 9);
    Kill(second);
    Kill(alone);
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("a", "c"));
}

TEST_F(TimerQueueKill, PreventsAFiringThatIsDue)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Request* const request = Make(a, 10);
    Clock().AdvanceMilliseconds(20);
    Kill(request);
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, IsEmpty());
}

TEST_F(TimerQueueKill, IgnoresNull)
{
    Kill(nullptr);
    StartThread();
    Kill(nullptr);
}

TEST_F(TimerQueueKill, IgnoresARequestThatWasNeverQueued)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Request* const queued = Make(a, 10);
    Request copy = *queued;
    Kill(&copy);
    Request unlike{&a, 12'345};
    Kill(&unlike);
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerQueueKill, DoesNotReadARequestThatIsNoLongerQueued)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Recorder b(m_Fired, "b");
    Make(b, 10);
    Request* const fired = Make(a, 0);
    m_Thread.Wake();
    Kill(fired);
    Request* const killed = Make(a, 10);
    Kill(killed);
    Kill(killed);

    // Memory that can't be read at all.
    const long pageSize = sysconf(_SC_PAGESIZE);
    void* const page = mmap(nullptr, static_cast<std::size_t>(pageSize), PROT_NONE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    Kill(static_cast<Request*>(page));
    munmap(page, static_cast<std::size_t>(pageSize));

    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("a", "b"));
}

TEST_F(TimerQueueKill, FindsEachOfManyAndNothingBesides)
{
    StartThread();
    constexpr std::size_t count = 1000;
    std::deque<Recorder> handlers;
    std::vector<Request*> requests;
    for (std::size_t i = 0; i < count; ++i) {
        handlers.emplace_back(m_Fired, std::to_string(i));
        // Seven by seven they expire together.
        requests.push_back(Make(handlers.back(), static_cast<unsigned int>(1000 + i / 7)));
    }
    std::vector<std::string> left;
    std::vector<Request*> killed;
    for (std::size_t i = 0; i < count; ++i) {
        if (i % 3 == 0) {
            left.push_back(std::to_string(i));
        } else {
            killed.push_back(requests[i]);
        }
    }
    std::shuffle(killed.begin(), killed.end(), std::mt19937(1));
    for (Request* const request : killed) {
        Kill(request);
    }
    for (Request* const request : killed) {
        Kill(request);
    }
    for (Request* const request : requests) {
        // Not where the request begins.
        Kill(reinterpret_cast<Request*>(reinterpret_cast<char*>(request) + 4));
    }
    m_Thread.WakeAfter(2000);
    EXPECT_EQ(m_Fired, left);
}

TEST_F(TimerQueueKill, FreesTheRequest)
{
    StartThread();
    Recorder a(m_Fired, "a");
    const AllocationBalance balance;
    for (int round = 0; round < 10; ++round) {
        Kill(Make(a, 10));
    }
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

/// A failed call while the first request starts the thread.
struct StartFailure
{
    const char* function;
    int error;
    unsigned int call;
    bool signalIsBlocked;
    bool threadIsStarted;
    /// For functions that set `errno`; the others leave it alone.
    bool setsErrno;
};

void PrintTo(const StartFailure& failure, std::ostream* out)
{
    *out << failure.function << " " << failure.call;
}

bool IsInterposed(std::string_view function)
{
    const std::vector<InterposedBase*> all = InterposedBase::All();
    return std::any_of(all.begin(), all.end(), [function](const InterposedBase* interposed) {
        return function == interposed->GetName();
    });
}

class TimerQueueStart : public TimerQueueTest, public ::testing::WithParamInterface<StartFailure>
{
protected:
    static bool SignalIsBlocked()
    {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        return sigismember(&mask, SIGUSR1) == 1;
    }
};

TEST_P(TimerQueueStart, ThatFailsIsReportedAndTriedAgain)
{
    const StartFailure& parameter = GetParam();
    if (!IsInterposed(parameter.function)) {
        GTEST_SKIP() << "not interposed under the thread sanitizer";
    }
    Recorder lost(m_Fired, "lost");
    Recorder a(m_Fired, "a");
    ASSERT_FALSE(SignalIsBlocked());
    {
        const CallCounter signals("pthread_kill", Scope::AnyThread);
        const AllocationBalance balance;
        Locker locker(*m_Service);
        errno = ENOTTY;
        bool caught = false;
        {
            const FailingCall failure(parameter.function, parameter.error, parameter.call);
            try {
                m_Service->MakeRequest(&lost, 0);
            } catch (const SystemException& e) {
                caught = true;
                EXPECT_EQ(Describe(e),
                          SystemFailure(parameter.setsErrno ? parameter.error
                                                            : static_cast<int>(e.GetSysErr())));
                if (!parameter.setsErrno && !parameter.threadIsStarted) {
                    EXPECT_EQ(e.GetSysErr(), static_cast<unsigned int>(ENOTTY));
                }
            }
        }
        EXPECT_TRUE(caught);
        EXPECT_EQ(signals.GetCallCount(), 0U);
        EXPECT_EQ(balance.GetLiveCount(), 0);
    }
    EXPECT_EQ(SignalIsBlocked(), parameter.signalIsBlocked);

    const CallCounter threads("pthread_create");
    Make(a, 0);
    m_Thread.WaitUntilAsleep();
    m_Thread.Wake();
    EXPECT_EQ(threads.GetCallCount(), parameter.threadIsStarted ? 0U : 1U);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

INSTANTIATE_TEST_SUITE_P(
    EachCall, TimerQueueStart,
    ::testing::Values(StartFailure{"sigemptyset", EINVAL, 1, false, false, true},
                      StartFailure{"sigaddset", EINVAL, 1, false, false, true},
                      StartFailure{"pthread_sigmask", EINVAL, 1, false, false, false},
                      StartFailure{"pthread_attr_init", ENOMEM, 1, true, false, false},
                      StartFailure{"pthread_attr_setscope", ENOTSUP, 1, true, false, false},
                      StartFailure{"pthread_create", EAGAIN, 1, true, false, false},
                      StartFailure{"pthread_sigmask", EINVAL, 2, true, true, false}));

TEST_F(TimerQueueStart, ThatFailsMayLeaveAnythingInTheThreadsId)
{
    Recorder a(m_Fired, "a");
    {
        const Hook<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> hook(
            interposed::pthread_create,
            [](pthread_t* thread, const pthread_attr_t*, void* (*)(void*), void*) {
                *thread = 0xDEAD;
                return EAGAIN;
            });
        EXPECT_THROW(Make(a, 0), SystemException);
    }
    Make(a, 0);
    m_Thread.WaitUntilAsleep();
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerQueueStart, DoesNotDelayTheFirstRequest)
{
    Recorder a(m_Fired, "a");
    Request* request = nullptr;
    {
        const Hook<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> hook(
            interposed::pthread_create,
            [this](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
                Clock().AdvanceMilliseconds(100);
                return std::nullopt;
            });
        request = Make(a, 500);
    }
    m_Thread.WaitUntilAsleep();
    EXPECT_EQ(request->m_Expiry, 500U);
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), 400 * s_Millisecond);
    Kill(request);
}

TEST_F(TimerQueueStart, HappensOnce)
{
    const CallCounter threads("pthread_create");
    const CallCounter masks("pthread_sigmask");
    Recorder a(m_Fired, "a");
    for (int i = 0; i < 5; ++i) {
        Make(a, 0);
    }
    EXPECT_EQ(threads.GetCallCount(), 1U);
    EXPECT_EQ(masks.GetCallCount(), 2U);
    m_Thread.WaitUntilAsleep();
    m_Thread.Wake();
    EXPECT_EQ(m_Fired.size(), 5U);
}

TEST_F(TimerQueueStart, AsksForSystemScope)
{
    int scope = -1;
    const Hook<int(pthread_attr_t*, int)> hook(interposed::pthread_attr_setscope,
                                               [&](pthread_attr_t*, int asked) {
                                                   scope = asked;
                                                   return std::nullopt;
                                               });
    bool withAttributes = false;
    const Hook<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> create(
        interposed::pthread_create,
        [&](pthread_t*, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
            withAttributes = attributes != nullptr && entry == &TimerQueue::RunThread &&
                             argument == dynamic_cast<TimerQueue*>(m_Service);
            return std::nullopt;
        });
    StartThread();
    EXPECT_EQ(scope, PTHREAD_SCOPE_SYSTEM);
    EXPECT_TRUE(withAttributes);
}

TEST_F(TimerQueueStart, GivesTheCallersSignalMaskBack)
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    StartThread();
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int number = 1; number < NSIG; ++number) {
        EXPECT_EQ(sigismember(&after, number), sigismember(&mask, number)) << number;
    }
}

TEST_F(TimerQueueStart, KeepsABlockedSignalBlockedInTheCaller)
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    StartThread();
    EXPECT_TRUE(SignalIsBlocked());
}

TEST_F(TimerQueueStart, BlocksTheSignalInTheThread)
{
    bool blocked = false;
    Recorder a(m_Fired, "a", [&](Locker&) { blocked = SignalIsBlocked(); });
    Make(a, 0);
    m_Thread.WaitUntilAsleep();
    EXPECT_TRUE(blocked);
    EXPECT_FALSE(SignalIsBlocked());
}

std::vector<std::string> ThreadNames()
{
    std::vector<std::string> names;
    DIR* const tasks = opendir("/proc/self/task");
    while (const dirent* const task = readdir(tasks)) {
        std::ifstream comm("/proc/self/task/" + std::string(task->d_name) + "/comm");
        std::string name;
        if (std::getline(comm, name)) {
            names.push_back(name);
        }
    }
    closedir(tasks);
    return names;
}

TEST_F(TimerQueueStart, NamesTheThreadBeforeTheCallerGoesOn)
{
    EXPECT_THAT(ThreadNames(), ::testing::Not(::testing::Contains("vela-timer")));
    Kill(Make(m_Idle, 1000));
    EXPECT_THAT(ThreadNames(), ::testing::Contains("vela-timer").Times(1));
}

TEST_F(TimerQueueStart, MakesTheThreadsSleepsExact)
{
    unsigned long slack = 0;
    Recorder a(m_Fired, "a", [&slack](Locker&) {
        slack = static_cast<unsigned long>(prctl(PR_GET_TIMERSLACK, 0UL, 0UL, 0UL, 0UL));
    });
    Make(a, 0);
    m_Thread.WaitUntilAsleep();
    EXPECT_EQ(slack, 1U);
}

TEST_F(TimerQueueStart, DoesWithoutTheName)
{
    const FailingCall failure("pthread_setname_np", EPERM);
    Recorder a(m_Fired, "a");
    Make(a, 0);
    m_Thread.WaitUntilAsleep();
    EXPECT_TRUE(failure.WasHit());
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

using TimerQueueMemory = TimerQueueTest;

TEST_F(TimerQueueMemory, ThatRunsOutLeavesTheQueueAsItWas)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Recorder lost(m_Fired, "lost");
    Make(a, 20);
    m_Thread.Wake();
    constexpr std::size_t count = 100;
    std::vector<Request*> requests;
    requests.reserve(count);
    unsigned int mostAttempts = 0;
    while (requests.size() < count) {
        const std::size_t made = requests.size();
        unsigned int attempts = 0;
        for (; requests.size() == made; ++attempts) {
            Locker locker(*m_Service);
            const CallCounter signals("pthread_kill");
            const AllocationBalance balance;
            const FailingAllocation failure(attempts + 1);
            try {
                Request* const request = m_Service->MakeRequest(&lost, 10);
                if (failure.WasHit()) {
                    m_Service->KillRequest(request);
                } else {
                    requests.push_back(request);
                }
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(signals.GetCallCount(), 0U);
                // Room that the queue made for requests may stay.
                EXPECT_LE(balance.GetLiveCount(), 1);
            }
        }
        mostAttempts = std::max(mostAttempts, attempts);
    }
    // The room for more requests and one's place among the others are both refused once.
    EXPECT_GE(mostAttempts, 3U);
    for (Request* const request : requests) {
        Kill(request);
    }
    m_Thread.WakeAfter(20);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerQueueMemory, OfRequestsServesLaterOnes)
{
    StartThread();
    Recorder a(m_Fired, "a");
    constexpr unsigned int count = 100;
    const auto makeAll = [&] {
        for (unsigned int i = 0; i < count; ++i) {
            Make(a, i % 2);
        }
    };
    makeAll();
    m_Thread.WakeAfter(1);
    m_Fired.clear();
    {
        const FailingAllocation failure(1, FailingAllocation::forGood);
        makeAll();
    }
    m_Thread.WakeAfter(1);
    EXPECT_EQ(m_Fired.size(), count);
}

TEST_F(TimerQueueMemory, ThatRunsOutForTheFirstRequestLeavesAnIdleThread)
{
    Recorder a(m_Fired, "a");
    {
        const FailingAllocation failure(1, FailingAllocation::forGood);
        EXPECT_THROW(Make(a, 0), std::bad_alloc);
    }
    m_Thread.WaitUntilAsleep();
    EXPECT_THAT(m_Fired, IsEmpty());
    Make(a, 0);
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

/// Frees the memory of requests that their queue has left behind, given the first of them.
struct FreeLeftRequests
{
    void operator()(Request* first) const { ::operator delete(static_cast<void*>(first)); }
};

TEST(TimerQueueDestructor, LeavesThePendingRequestsAndDestroysTheLock)
{
    std::vector<std::string> fired;
    Recorder a(fired, "a");
    // A queue whose thread never runs, so that it can be destroyed.
    const Hook<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> create(
        interposed::pthread_create,
        [](pthread_t* thread, const pthread_attr_t*, void* (*)(void*), void*) {
            *thread = pthread_self();
            return 0;
        });
    const Hook<int(pthread_t, int)> kill(interposed::pthread_kill,
                                         [](pthread_t, int) { return 0; });
    const Hook<int(pthread_t, const char*)> name(interposed::pthread_setname_np,
                                                 [](pthread_t, const char*) { return 0; });
    const AllocationBalance balance;
    std::unique_ptr<TimerService> queue = std::make_unique<TimerQueue>();
    std::unique_ptr<Request, FreeLeftRequests> request;
    {
        Locker locker(*queue);
        request.reset(queue->MakeRequest(&a, 5));
        queue->KillRequest(queue->MakeRequest(&a, 5));
    }
    const CallCounter destroyed("pthread_mutex_destroy");
    queue.reset();
    EXPECT_EQ(destroyed.GetCallCount(), 1U);
    // Both requests' memory is one block; what the killed one had besides is freed.
    EXPECT_EQ(balance.GetLiveCount(), 1);
    EXPECT_EQ(request->m_Handler, &a);
}

TEST(TimerQueueDestructor, ReportsALockThatIsHeld)
{
    auto* const queue = new TimerQueue;
    const WatchedBlock block(queue);
    const FailingCall failure("pthread_mutex_destroy", EBUSY);
    errno = ENOTTY;
    EXPECT_TRUE(Throws<SystemException>([&] { delete queue; }, SystemFailure(ENOTTY)));
    EXPECT_EQ(block.GetFreeCount(), 0U);
}

TEST_F(TimerQueueTest, HasItsOperationsInTheSlotsAfterTheDestructor)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Request* request = nullptr;
    {
        Locker locker(*m_Service);
        request = CallVirtualSlot<Request*>(m_Service, 2, &a, 10U);
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(request->m_Handler, &a);
        CallVirtualSlot<void, Request*>(m_Service, 3, request);
        CallVirtualSlot<Request*>(m_Service, 2, &a, 20U);
    }
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
    EXPECT_EQ(CountVirtualSlots(m_Service), 4U);

    auto* const other = new TimerQueue;
    const CallCounter destroyed("pthread_mutex_destroy");
    CallVirtualSlot(other, 1);
    EXPECT_EQ(destroyed.GetCallCount(), 1U);
}

TEST_F(TimerQueueTest, CallsTheFirstSlotOfTheHandler)
{
    Recorder a(m_Fired, "a");
    TimerService::ReqHandler* const handler = &a;
    Locker locker(*m_Service);
    CallVirtualSlot<void, Locker*>(handler, 0, &locker);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerQueueTest, RequestsHoldHandlerAndExpiry)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Clock().AdvanceMilliseconds(77);
    Request* const request = Make(a, 4'000'000'000U);
    TimerService::ReqHandler* handler = nullptr;
    std::memcpy(&handler, request, sizeof handler);
    EXPECT_EQ(handler, &a);
    EXPECT_EQ(request->m_Expiry, 4'000'000'077U);
    if (sizeof(void*) == 4) {
        EXPECT_EQ(offsetof(Request, m_Expiry), 4U);
        EXPECT_EQ(sizeof(Request), 12U);
    }
    Kill(request);
}

TEST_F(TimerQueueTest, HasItsFieldsBehindTheLock)
{
    if (sizeof(void*) != 4) {
        GTEST_SKIP() << "the offsets are those of 32 bit";
    }
    const auto* const bytes = reinterpret_cast<const char*>(static_cast<const void*>(m_Service));
    const auto read = [bytes]<typename T>(std::size_t offset, T value) {
        std::memcpy(&value, bytes + offset, sizeof value);
        return value;
    };
    EXPECT_EQ(sizeof(VelaHost_Utility::Lockable), 32U);
    EXPECT_EQ(read(160, std::int64_t{}), Clock().GetMicroseconds() * 1000);
    EXPECT_EQ(read(168, std::uint64_t{}), ~std::uint64_t{0});
    EXPECT_EQ(read(176, pthread_t{}), 0U);
    // The tree's size lies behind its header.
    EXPECT_EQ(read(200, std::size_t{}), 0U);

    pthread_t timerThread{};
    Recorder a(m_Fired, "a", [&](Locker&) { timerThread = pthread_self(); });
    Make(a, 0);
    m_Thread.WaitUntilAsleep();
    Request* const pending = Make(a, 500);
    m_Thread.Wake();
    const auto wakeSignals = read(32, sigset_t{});
    for (int number = 1; number < NSIG; ++number) {
        EXPECT_EQ(sigismember(&wakeSignals, number), number == SIGUSR1 ? 1 : 0) << number;
    }
    EXPECT_EQ(read(168, std::uint64_t{}), 500U);
    EXPECT_EQ(read(176, pthread_t{}), timerThread);
    EXPECT_EQ(read(200, std::size_t{}), 1U);
    Kill(pending);
}

/// Runs `body` in a process of its own, which must be aborted; returns its output.
std::string OutputOfAborted(const std::function<void()>& body)
{
    const TemporaryDirectory directory;
    const std::string file = directory.File("output");
    ChildProcess child([&] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        const int output = open(file.c_str(), O_WRONLY | O_CREAT, 0600);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        body();
        // The abort comes from the timer thread.
        sleep(30);
        return 0;
    });
    EXPECT_EQ(child.WaitForExitStatus(), -SIGABRT);
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void MakeFirstRequest(TimerService::ReqHandler& handler)
{
    TimerService* const service = TimerService::GetInstance();
    Locker locker(*service);
    service->MakeRequest(&handler, 0);
}

TEST(TimerQueueThread, EndsTheProcessWhenAHandlerThrows)
{
    const std::string output = OutputOfAborted([] {
        static std::vector<std::string> s_Fired;
        static Recorder s_Handler(s_Fired, "a",
                                  [](Locker&) { throw std::runtime_error("from the handler"); });
        MakeFirstRequest(s_Handler);
    });
    EXPECT_THAT(output, ::testing::HasSubstr("from the handler"));
}

TEST(TimerQueueThread, EndsTheProcessWhenItCantBlockItsSignal)
{
    const std::string output = OutputOfAborted([] {
        static std::vector<std::string> s_Fired;
        static Recorder s_Handler(s_Fired, "a");
        // The thread's own call is the one that doesn't ask for the old mask.
        static const Hook<int(int, const sigset_t*, sigset_t*)> s_Hook(
            interposed::pthread_sigmask,
            [](int how, const sigset_t*, sigset_t* old) -> std::optional<int> {
                return how == SIG_BLOCK && old == nullptr ? std::optional(EINVAL) : std::nullopt;
            });
        MakeFirstRequest(s_Handler);
    });
    EXPECT_THAT(output, ::testing::HasSubstr(" at include/internal/unix/OSSystem:68\n"));
}

TEST(TimerQueueThread, EndsTheProcessWhenItCantTakeOrReleaseTheLock)
{
    for (const bool whenTaking : {true, false}) {
        const std::string output = OutputOfAborted([whenTaking] {
            static std::vector<std::string> s_Fired;
            static Recorder s_Handler(s_Fired, "a");
            static const pthread_t s_Caller = pthread_self();
            static pthread_mutex_t* const s_Mutex = ServiceMutex();
            const auto fail = [](pthread_mutex_t* mutex) -> std::optional<int> {
                return mutex == s_Mutex && !pthread_equal(pthread_self(), s_Caller)
                           ? std::optional(EINVAL)
                           : std::nullopt;
            };
            static const Hook<int(pthread_mutex_t*)> s_Hook(
                whenTaking ? interposed::pthread_mutex_lock : interposed::pthread_mutex_unlock,
                fail);
            MakeFirstRequest(s_Handler);
        });
        EXPECT_THAT(output, ::testing::HasSubstr(" at include/internal/unix/OSSystem:68\n"));
    }
}

} // namespace

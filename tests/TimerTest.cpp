#include <VelaHost_Utility/Timer.h>

#include "support/CapturedStdout.h"
#include "support/ChildProcess.h"
#include "support/FailingAllocation.h"
#include "support/Interpose.h"
#include "support/ThrownException.h"
#include "support/TimerThread.h"
#include "support/VirtualTable.h"
#include "support/interpose/Interposed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsNull;
using ::testing::NotNull;
using VelaHost_OS::TimerService;

constexpr std::int64_t s_Second = 1'000'000'000; // in nanoseconds

const Failure s_AlreadyRunning{0x2004, "TimerException(Sys=0x0)", "Timer", 90};

/// Writes its name into the common list of what was fired, then does what the test wants.
class Recorder : public Timer::Handler
{
public:
    Recorder(std::vector<std::string>& fired, std::string name,
             std::function<void(Timer&)> action = {})
        : m_Fired(fired), m_Name(std::move(name)), m_Action(std::move(action))
    {}

    void OnTimer(Timer* timer) override
    {
        m_Fired.push_back(m_Name);
        if (m_Action) {
            m_Action(*timer);
        }
    }

private:
    std::vector<std::string>& m_Fired;
    std::string m_Name;
    std::function<void(Timer&)> m_Action;
};

/// The mutex that is the service's lock; it lies behind the virtual table.
pthread_mutex_t* ServiceMutex()
{
    return reinterpret_cast<pthread_mutex_t*>(
        reinterpret_cast<char*>(static_cast<void*>(TimerService::GetInstance())) + sizeof(void*));
}

/// True when another thread can take the service's lock at once.
bool ServiceIsFree()
{
    return std::async(std::launch::async,
                      [] {
                          const bool taken = pthread_mutex_trylock(ServiceMutex()) == 0;
                          if (taken) {
                              pthread_mutex_unlock(ServiceMutex());
                          }
                          return taken;
                      })
        .get();
}

/// The field at that offset of the timer.
template <typename T>
T ReadField(const Timer& timer, std::size_t offset)
{
    T value{};
    std::memcpy(&value, reinterpret_cast<const char*>(&timer) + offset, sizeof value);
    return value;
}

/// The timer's request; behind the virtual table, interval, handler and the two flags.
const TimerService::Request* RequestOf(const Timer& timer)
{
    return ReadField<const TimerService::Request*>(timer, 4 * sizeof(void*));
}

class TimerTest : public ::testing::Test
{
protected:
    /// Starts the thread, which is then asleep with an empty queue.
    void StartThread()
    {
        Timer timer(60'000, nullptr, false);
        timer.Start();
        timer.Stop();
        m_Thread.WaitUntilAsleep();
        m_Thread.Wake();
    }

    FakeClock& Clock() { return m_Thread.Clock(); }

    /// True when the thread has nothing to wait for but what is a second away or more. A request
    /// that is due it takes unseen.
    bool QueueIsEmpty()
    {
        m_Thread.Wake();
        return m_Thread.GetSleepNanoseconds() == s_Second;
    }

    TimerThread m_Thread;
    std::vector<std::string> m_Fired;
    Recorder m_Handler{m_Fired, "fired"};
};

TEST(TimerException, TellsCodeAndSystemError)
{
    constexpr Exception::Context site(nullptr, "src/Somewhere", 17, DefaultExceptionLogger);
    CapturedStdout output;
    const TimerException e(site, 0x2004, 0xBEEF);
    EXPECT_EQ(Describe(e), (Failure{0x2004, "TimerException(Sys=0xbeef)", "src/Somewhere", 17}));
    EXPECT_EQ(output.Stop(), "TimerException(Sys=0xbeef) at src/Somewhere:17\n");
    static_assert(std::is_base_of_v<Exception, TimerException>);
    static_assert(sizeof(TimerException) == sizeof(Exception));
}

TEST(TimerException, TakesAnyCode)
{
    constexpr Exception::Context site(nullptr, "src/Somewhere", 17, [](const Exception&) {});
    EXPECT_EQ(TimerException(site, 7, 0).GetErrorCode(), 7U);
    EXPECT_EQ(TimerException(site, 7, 0).GetText(), "TimerException(Sys=0x0)");
    EXPECT_EQ(TimerException(site, 7, ~0U).GetText(), "TimerException(Sys=0xffffffff)");
}

TEST_F(TimerTest, GoesOnPastJanuary2038)
{
    StartThread();
    Clock().Set(2'147'483'647);
    m_Thread.Wake();
    Timer timer(1000, &m_Handler, true);
    timer.Start();
    m_Thread.Wake();
    EXPECT_TRUE(m_Fired.empty());
    for (std::size_t firings = 1; firings <= 3; ++firings) {
        m_Thread.WakeAfter(999);
        EXPECT_EQ(m_Fired.size(), firings - 1);
        m_Thread.WakeAfter(1);
        EXPECT_EQ(m_Fired.size(), firings);
    }
    timer.Stop();
}

using TimerConstruction = TimerTest;

TEST_F(TimerConstruction, MakesAStoppedTimer)
{
    const Timer timer(1234, &m_Handler, true);
    EXPECT_FALSE(timer.IsRunning());
    EXPECT_EQ(timer.GetInterval(), 1234U);
    EXPECT_TRUE(timer.IsPeriodic());
    EXPECT_EQ(timer.GetRefCount(), 0);
    EXPECT_FALSE(Timer(1, &m_Handler, false).IsPeriodic());
}

TEST_F(TimerConstruction, AsksForNothing)
{
    const CallCounter threads("pthread_create", Scope::AnyThread);
    {
        const Timer timer(0, &m_Handler, true);
    }
    EXPECT_EQ(threads.GetCallCount(), 0U);
}

TEST_F(TimerConstruction, MakesATimerThatCantBeCopied)
{
    static_assert(!std::is_copy_constructible_v<Timer>);
    static_assert(!std::is_copy_assignable_v<Timer>);
    static_assert(!std::is_convertible_v<Timer*, TimerService::ReqHandler*>);
    static_assert(std::is_convertible_v<Timer*, RefCount*>);
    static_assert(!std::is_nothrow_destructible_v<Timer>);
}

using TimerOneShot = TimerTest;

TEST_F(TimerOneShot, FiresOnceAndMayBeStartedAgain)
{
    StartThread();
    Timer timer(100, &m_Handler, false);
    timer.Start();
    EXPECT_TRUE(timer.IsRunning());
    m_Thread.WakeAfter(99);
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.WakeAfter(1);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
    EXPECT_FALSE(timer.IsRunning());
    EXPECT_TRUE(QueueIsEmpty());
    timer.Start();
    m_Thread.WakeAfter(100);
    EXPECT_THAT(m_Fired, ElementsAre("fired", "fired"));
}

TEST_F(TimerOneShot, IsGivenToTheHandler)
{
    StartThread();
    Timer* given = nullptr;
    bool wasRunning = true;
    Recorder handler(m_Fired, "a", [&](Timer& timer) {
        given = &timer;
        wasRunning = timer.IsRunning();
    });
    Timer timer(0, &handler, false);
    timer.Start();
    m_Thread.Wake();
    EXPECT_EQ(given, &timer);
    EXPECT_FALSE(wasRunning);
}

TEST_F(TimerOneShot, HasNoRequestAnyMoreWhenItFires)
{
    StartThread();
    const TimerService::Request* seen = nullptr;
    Recorder handler(m_Fired, "a", [&](Timer& timer) { seen = RequestOf(timer); });
    Timer timer(10, &handler, false);
    timer.Start();
    seen = RequestOf(timer);
    ASSERT_NE(seen, nullptr);
    m_Thread.WakeAfter(10);
    EXPECT_EQ(seen, nullptr);
    EXPECT_EQ(RequestOf(timer), nullptr);
}

TEST_F(TimerOneShot, OfIntervalZeroFiresOnTheNextPass)
{
    StartThread();
    Timer timer(0, &m_Handler, false);
    timer.Start();
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

TEST_F(TimerOneShot, OfTheLongestIntervalWaitsThatLong)
{
    StartThread();
    Timer timer(~0U, &m_Handler, false);
    timer.Start();
    m_Thread.WakeAfter(4'294'967'294);
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.WakeAfter(1);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

TEST_F(TimerOneShot, MayStartItselfFromItsHandler)
{
    StartThread();
    Recorder handler(m_Fired, "a", [](Timer& timer) { timer.Start(); });
    Timer timer(10, &handler, false);
    timer.Start();
    m_Thread.WakeAfter(10);
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("a", "a"));
    EXPECT_TRUE(timer.IsRunning());
    timer.Stop();
}

TEST_F(TimerOneShot, MayRestartItselfFromItsHandler)
{
    StartThread();
    Recorder handler(m_Fired, "a", [](Timer& timer) { timer.Restart(); });
    Timer timer(10, &handler, false);
    timer.Start();
    m_Thread.WakeAfter(10);
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("a", "a"));
    timer.Stop();
}

TEST_F(TimerOneShot, WithoutAHandlerFiresUnnoticed)
{
    StartThread();
    Timer timer(10, nullptr, false);
    timer.Start();
    m_Thread.WakeAfter(10);
    EXPECT_FALSE(timer.IsRunning());
}

using TimerPeriodic = TimerTest;

TEST_F(TimerPeriodic, FiresEveryIntervalUntilStopped)
{
    StartThread();
    Timer timer(100, &m_Handler, true);
    timer.Start();
    for (std::size_t firings = 1; firings <= 10; ++firings) {
        m_Thread.WakeAfter(99);
        EXPECT_EQ(m_Fired.size(), firings - 1);
        m_Thread.WakeAfter(1);
        EXPECT_EQ(m_Fired.size(), firings);
        EXPECT_TRUE(timer.IsRunning());
    }
    timer.Stop();
    EXPECT_FALSE(timer.IsRunning());
    EXPECT_TRUE(QueueIsEmpty());
    m_Thread.WakeAfter(100);
    EXPECT_EQ(m_Fired.size(), 10U);
}

TEST_F(TimerPeriodic, MeasuresFromTheFiringAndNotFromTheHandlersEnd)
{
    StartThread();
    Recorder handler(m_Fired, "a", [this](Timer& timer) {
        EXPECT_TRUE(timer.IsRunning());
        Clock().AdvanceMilliseconds(30);
    });
    Timer timer(100, &handler, true);
    timer.Start();
    m_Thread.WakeAfter(100);
    EXPECT_EQ(m_Thread.GetSleepNanoseconds(), 70'000'000);
    m_Thread.WakeAfter(69);
    EXPECT_EQ(m_Fired.size(), 1U);
    m_Thread.WakeAfter(1);
    EXPECT_EQ(m_Fired.size(), 2U);
    timer.Stop();
}

TEST_F(TimerPeriodic, DoesNotCatchUpOnMissedPeriods)
{
    StartThread();
    Timer timer(100, &m_Handler, true);
    timer.Start();
    m_Thread.WakeAfter(1030);
    EXPECT_EQ(m_Fired.size(), 1U);
    m_Thread.WakeAfter(99);
    EXPECT_EQ(m_Fired.size(), 1U);
    m_Thread.WakeAfter(1);
    EXPECT_EQ(m_Fired.size(), 2U);
    timer.Stop();
}

TEST_F(TimerPeriodic, OfIntervalZeroLetsOtherTimersFire)
{
    StartThread();
    std::vector<std::string> fired;
    Recorder other(fired, "other");
    Timer otherTimer(50, &other, true);
    int rounds = 0;
    Recorder busy(m_Fired, "busy", [&](Timer& timer) {
        ++rounds;
        Clock().AdvanceMilliseconds(1);
        if (fired.size() == 3) {
            timer.Stop();
        }
    });
    Timer busyTimer(0, &busy, true);
    otherTimer.Start();
    busyTimer.Start();
    const unsigned int sleepsBefore = m_Thread.GetSleepCount();
    m_Thread.Wake();
    EXPECT_EQ(fired.size(), 3U);
    EXPECT_GE(rounds, 150);
    EXPECT_LE(rounds, 160);
    EXPECT_EQ(m_Thread.GetSleepCount() - sleepsBefore, 1U);
    otherTimer.Stop();
}

TEST_F(TimerPeriodic, MayStopItselfFromItsHandler)
{
    StartThread();
    Recorder handler(m_Fired, "a", [](Timer& timer) { timer.Stop(); });
    Timer timer(10, &handler, true);
    timer.Start();
    m_Thread.WakeAfter(10);
    EXPECT_FALSE(timer.IsRunning());
    EXPECT_TRUE(QueueIsEmpty());
    m_Thread.WakeAfter(100);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerPeriodic, MayRestartItselfFromItsHandler)
{
    StartThread();
    Recorder handler(m_Fired, "a", [this](Timer& timer) {
        Clock().AdvanceMilliseconds(5);
        timer.Restart();
    });
    Timer timer(10, &handler, true);
    timer.Start();
    m_Thread.WakeAfter(10);
    // From the restart on, and only once.
    m_Thread.WakeAfter(9);
    EXPECT_EQ(m_Fired.size(), 1U);
    m_Thread.WakeAfter(1);
    EXPECT_EQ(m_Fired.size(), 2U);
    timer.Stop();
}

TEST_F(TimerPeriodic, GoesOnWhenMemoryHasRunOut)
{
    StartThread();
    std::optional<FailingAllocation> failure;
    Recorder handler(m_Fired, "a", [&](Timer& timer) {
        if (m_Fired.size() == 1) {
            failure.emplace(1, FailingAllocation::forGood);
        } else if (m_Fired.size() == 3) {
            failure.reset();
            timer.Stop();
        }
    });
    m_Fired.reserve(3);
    Timer timer(10, &handler, true);
    timer.Start();
    for (int firing = 0; firing < 3; ++firing) {
        m_Thread.WakeAfter(10);
    }
    EXPECT_EQ(m_Fired.size(), 3U);
    EXPECT_FALSE(timer.IsRunning());
}

using TimerStart = TimerTest;

TEST_F(TimerStart, OfARunningTimerThrowsAndKeepsTheFirstArming)
{
    StartThread();
    Timer timer(100, &m_Handler, false);
    timer.Start();
    m_Thread.WakeAfter(60);
    const TimerService::Request* const request = RequestOf(timer);
    {
        CapturedStdout output;
        EXPECT_TRUE(Throws<TimerException>([&] { timer.Start(); }, s_AlreadyRunning));
        EXPECT_EQ(output.Stop(), s_AlreadyRunning.LogLine());
    }
    EXPECT_TRUE(ServiceIsFree());
    EXPECT_TRUE(timer.IsRunning());
    EXPECT_EQ(RequestOf(timer), request);
    m_Thread.WakeAfter(39);
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.WakeAfter(1);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
    EXPECT_TRUE(QueueIsEmpty());
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

TEST_F(TimerStart, OfARunningPeriodicTimerThrowsFromItsHandlerToo)
{
    StartThread();
    bool thrown = false;
    Recorder handler(m_Fired, "a", [&](Timer& timer) {
        try {
            timer.Start();
        } catch (const TimerException&) {
            thrown = true;
        }
    });
    Timer timer(10, &handler, true);
    timer.Start();
    m_Thread.WakeAfter(10);
    EXPECT_TRUE(thrown);
    timer.Stop();
}

TEST_F(TimerStart, ThatFailsLeavesTheTimerStopped)
{
    Timer timer(0, &m_Handler, false);
    {
        const FailingCall failure("pthread_create", EAGAIN);
        errno = EPERM;
        EXPECT_TRUE(Throws<SystemException>([&] { timer.Start(); }, SystemFailure(EPERM)));
    }
    EXPECT_FALSE(timer.IsRunning());
    EXPECT_TRUE(ServiceIsFree());
    {
        const FailingAllocation failure(1);
        EXPECT_THROW(timer.Start(), std::bad_alloc);
    }
    EXPECT_FALSE(timer.IsRunning());
    EXPECT_TRUE(ServiceIsFree());
    timer.Stop();
    timer.Start();
    m_Thread.WaitUntilAsleep();
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

TEST_F(TimerStart, KeepsTheOrderOfEqualExpiries)
{
    StartThread();
    Recorder a(m_Fired, "a");
    Recorder b(m_Fired, "b");
    Timer first(20, &a, false);
    Timer second(10, &b, false);
    Timer third(20, &b, false);
    first.Start();
    Clock().AdvanceMilliseconds(10);
    second.Start();
    Clock().AdvanceMilliseconds(-10);
    third.Start();
    m_Thread.WakeAfter(20);
    EXPECT_THAT(m_Fired, ElementsAre("a", "b", "b"));
}

using TimerStop = TimerTest;

TEST_F(TimerStop, TakesTheRequestAway)
{
    StartThread();
    Timer timer(100, &m_Handler, false);
    timer.Start();
    timer.Stop();
    EXPECT_TRUE(QueueIsEmpty());
    EXPECT_EQ(RequestOf(timer), nullptr);
}

TEST_F(TimerStop, PreventsAPendingFiring)
{
    StartThread();
    Timer timer(100, &m_Handler, false);
    timer.Start();
    // Due, and not yet taken by the thread.
    Clock().AdvanceMilliseconds(100);
    timer.Stop();
    EXPECT_FALSE(timer.IsRunning());
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, IsEmpty());
    EXPECT_TRUE(QueueIsEmpty());
}

TEST_F(TimerStop, DoesNothingToATimerThatIsNotRunning)
{
    // A timer that was never started holds no request: whatever is there is not looked at.
    alignas(Timer) unsigned char memory[sizeof(Timer)];
    std::memset(memory, 0xA5, sizeof memory);
    auto* const never = new (memory) Timer(10, &m_Handler, false);
    never->Stop();
    never->Stop();
    never->~Timer();

    StartThread();
    Timer fired(10, &m_Handler, false);
    fired.Start();
    m_Thread.WakeAfter(10);
    fired.Stop();
    EXPECT_FALSE(fired.IsRunning());
    fired.Start();
    m_Thread.WakeAfter(10);
    EXPECT_EQ(m_Fired.size(), 2U);
}

TEST_F(TimerStop, OfAFiredTimerSparesTheRequestThatHasItsMemory)
{
    StartThread();
    Recorder handler(m_Fired, "later");
    Timer later(10, &handler, false);
    {
        Timer fired(10, &m_Handler, false);
        fired.Start();
        const TimerService::Request* const gone = RequestOf(fired);
        m_Thread.WakeAfter(10);
        later.Start();
        ASSERT_EQ(RequestOf(later), gone);
        fired.Stop();
    }
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("fired", "later"));
}

TEST_F(TimerStop, FromAnotherTimersHandlerPreventsAFiringThatIsDue)
{
    StartThread();
    std::optional<Timer> due;
    Recorder stops(m_Fired, "stops", [&](Timer&) { due->Stop(); });
    due.emplace(10, &m_Handler, false);
    Timer timer(10, &stops, false);
    timer.Start();
    due->Start();
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("stops"));
}

TEST_F(TimerStop, ReturnsWhileTheHandlerRuns)
{
    StartThread();
    std::promise<void> entered;
    std::promise<void> stopped;
    Recorder handler(m_Fired, "a", [&](Timer&) {
        entered.set_value();
        stopped.get_future().wait();
    });
    Timer timer(10, &handler, true);
    timer.Start();
    std::thread clock([this] { m_Thread.WakeAfter(10); });
    entered.get_future().wait();
    EXPECT_TRUE(timer.IsRunning());
    timer.Stop();
    EXPECT_FALSE(timer.IsRunning());
    stopped.set_value();
    clock.join();
    m_Thread.WakeAfter(100);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerStop, ThatLosesTheRaceLetsTheHandlerRunOnce)
{
    // The thread has given the lock up and is held there, just before the handler.
    StartThread();
    Timer timer(10, &m_Handler, true);
    timer.Start();
    const pthread_t tester = pthread_self();
    pthread_mutex_t* const mutex = ServiceMutex();
    std::promise<void> released;
    std::promise<void> goOn;
    std::atomic<bool> armed{true};
    const Hook<int(pthread_mutex_t*)> hook(
        interposed::pthread_mutex_unlock, [&](pthread_mutex_t* unlocked) -> std::optional<int> {
            if (unlocked != mutex || pthread_equal(pthread_self(), tester) ||
                !armed.exchange(false)) {
                return std::nullopt;
            }
            const int result = interposed::pthread_mutex_unlock.Real(unlocked);
            released.set_value();
            goOn.get_future().wait();
            return result;
        });
    std::thread clock([this] { m_Thread.WakeAfter(10); });
    released.get_future().wait();
    timer.Stop();
    EXPECT_THAT(m_Fired, IsEmpty());
    goOn.set_value();
    clock.join();
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
    m_Thread.WakeAfter(100);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

using TimerRestart = TimerTest;

TEST_F(TimerRestart, PushesTheNextFiringToAFullIntervalFromNow)
{
    StartThread();
    Timer timer(100, &m_Handler, false);
    timer.Start();
    for (int round = 0; round < 5; ++round) {
        m_Thread.WakeAfter(99);
        timer.Restart();
        EXPECT_TRUE(timer.IsRunning());
    }
    m_Thread.WakeAfter(99);
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.WakeAfter(1);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
    EXPECT_TRUE(QueueIsEmpty());
    EXPECT_EQ(m_Fired.size(), 1U);
}

TEST_F(TimerRestart, StartsAStoppedTimer)
{
    StartThread();
    Timer timer(100, &m_Handler, false);
    timer.Restart();
    EXPECT_TRUE(timer.IsRunning());
    m_Thread.WakeAfter(100);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

TEST_F(TimerRestart, ReleasesTheLockBetweenStopAndStart)
{
    StartThread();
    Timer timer(100, &m_Handler, false);
    timer.Start();
    pthread_mutex_t* const mutex = ServiceMutex();
    int depth = 0;
    std::vector<const TimerService::Request*> requests;
    {
        const Hook<int(pthread_mutex_t*)> lock(interposed::pthread_mutex_lock,
                                               [&](pthread_mutex_t* locked) {
                                                   depth += locked == mutex ? 1 : 0;
                                                   return std::nullopt;
                                               });
        const Hook<int(pthread_mutex_t*)> unlock(interposed::pthread_mutex_unlock,
                                                 [&](pthread_mutex_t* unlocked) {
                                                     if (unlocked == mutex && --depth == 0) {
                                                         requests.push_back(RequestOf(timer));
                                                     }
                                                     return std::nullopt;
                                                 });
        timer.Restart();
    }
    EXPECT_EQ(depth, 0);
    EXPECT_THAT(requests, ElementsAre(IsNull(), NotNull()));
    timer.Stop();
}

TEST_F(TimerRestart, MeetsTheStartOfAnotherThread)
{
    StartThread();
    Timer timer(100, &m_Handler, false);
    timer.Start();
    pthread_mutex_t* const mutex = ServiceMutex();
    bool hasStarted = false;
    {
        // The other thread gets the lock first.
        const Hook<int(pthread_mutex_t*)> lock(
            interposed::pthread_mutex_lock, [&](pthread_mutex_t* locked) {
                if (locked == mutex && !hasStarted && RequestOf(timer) == nullptr) {
                    hasStarted = true;
                    std::thread([&] { timer.Start(); }).join();
                }
                return std::nullopt;
            });
        CapturedStdout output;
        EXPECT_THROW(timer.Restart(), TimerException);
    }
    EXPECT_TRUE(hasStarted);
    EXPECT_TRUE(timer.IsRunning());
    m_Thread.WakeAfter(100);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

TEST_F(TimerRestart, ThatFailsLeavesTheTimerStopped)
{
    Timer timer(10, &m_Handler, false);
    {
        const FailingCall failure("pthread_create", EAGAIN);
        EXPECT_THROW(timer.Restart(), SystemException);
    }
    EXPECT_FALSE(timer.IsRunning());
    EXPECT_TRUE(ServiceIsFree());
    timer.Restart();
    m_Thread.WaitUntilAsleep();
    m_Thread.Wake();
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

TEST_F(TimerRestart, OfARunningTimerNeedsNoMemory)
{
    StartThread();
    Timer timer(10, &m_Handler, false);
    timer.Start();
    m_Thread.WakeAfter(9);
    {
        const FailingAllocation failure(1, FailingAllocation::forGood);
        timer.Restart();
    }
    m_Thread.WakeAfter(9);
    EXPECT_THAT(m_Fired, IsEmpty());
    m_Thread.WakeAfter(1);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

using TimerDestruction = TimerTest;

TEST_F(TimerDestruction, KillsThePendingRequest)
{
    StartThread();
    {
        Timer timer(10, &m_Handler, true);
        timer.Start();
    }
    auto heap = std::make_unique<Timer>(10, &m_Handler, false);
    heap->Start();
    heap.reset();
    const SmartPointer<Timer> held(new Timer(10, &m_Handler, false));
    held->Start();
    {
        SmartPointer<Timer> last(new Timer(10, &m_Handler, false));
        last->Start();
        EXPECT_EQ(last->GetRefCount(), 1);
    }
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
    EXPECT_TRUE(QueueIsEmpty());
}

TEST_F(TimerDestruction, MayHappenInTheTimersOwnHandler)
{
    StartThread();
    SmartPointer<Timer> shared;
    std::unique_ptr<Timer> owned;
    Recorder releasesShared(m_Fired, "shared", [&](Timer&) { shared = nullptr; });
    Recorder releasesOwned(m_Fired, "owned", [&](Timer&) { owned.reset(); });
    shared = new Timer(10, &releasesShared, true);
    owned = std::make_unique<Timer>(10, &releasesOwned, false);
    shared->Start();
    owned->Start();
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("shared", "owned"));
    EXPECT_TRUE(QueueIsEmpty());
}

TEST_F(TimerDestruction, InAnotherHandlerPreventsAFiringThatIsDue)
{
    StartThread();
    std::unique_ptr<Timer> due;
    Recorder destroys(m_Fired, "destroys", [&](Timer&) { due.reset(); });
    Timer timer(10, &destroys, false);
    due = std::make_unique<Timer>(10, &m_Handler, true);
    timer.Start();
    due->Start();
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("destroys"));
}

TEST_F(TimerDestruction, DoesNotWaitForTheHandler)
{
    StartThread();
    std::promise<void> entered;
    std::promise<void> destroyed;
    Recorder handler(m_Fired, "a", [&](Timer&) {
        entered.set_value();
        destroyed.get_future().wait();
    });
    auto timer = std::make_unique<Timer>(10, &handler, true);
    timer->Start();
    std::thread clock([this] { m_Thread.WakeAfter(10); });
    entered.get_future().wait();
    timer.reset();
    destroyed.set_value();
    clock.join();
    m_Thread.WakeAfter(100);
    EXPECT_THAT(m_Fired, ElementsAre("a"));
}

TEST_F(TimerDestruction, ThatFailsIsReportedAndPreventsTheFiringAllTheSame)
{
    StartThread();
    const auto fails = [](const std::function<void()>& destroy) {
        const FailingCall failure("pthread_mutex_lock", EINVAL);
        errno = EPERM;
        return Throws<SystemException>(destroy, SystemFailure(EPERM));
    };
    for (const bool periodic : {false, true}) {
        alignas(Timer) unsigned char memory[sizeof(Timer)];
        auto* const member = new (memory) Timer(10, &m_Handler, periodic);
        member->Start();
        EXPECT_TRUE(fails([&] { member->~Timer(); }));
        std::memset(memory, 0xA5, sizeof memory);

        auto* const heap = new Timer(10, &m_Handler, periodic);
        heap->Start();
        EXPECT_TRUE(fails([&] { delete heap; }));

        SmartPointer<Timer> shared(new Timer(10, &m_Handler, periodic));
        shared->Start();
        EXPECT_TRUE(fails([&] { shared = nullptr; }));

        auto* const stopped = new Timer(10, &m_Handler, periodic);
        EXPECT_TRUE(fails([&] { delete stopped; }));
    }
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, IsEmpty());
    EXPECT_TRUE(QueueIsEmpty());
}

TEST_F(TimerDestruction, FreesTheWholeOfADerivedTimer)
{
    StartThread();
    class Derived : public Recorder, public Timer
    {
    public:
        Derived(std::vector<std::string>& fired, bool& destroyed)
            : Recorder(fired, "derived"), Timer(10, this, false), m_Destroyed(destroyed)
        {}
        ~Derived() noexcept override
        {
            Stop();
            m_Destroyed = true;
        }

    private:
        bool& m_Destroyed;
        std::vector<int> m_Data = std::vector<int>(10);
    };
    const AllocationBalance balance;
    bool destroyed = false;
    SmartPointer<Timer> timer(new Derived(m_Fired, destroyed));
    timer->Start();
    timer = nullptr;
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

using TimerHandler = TimerTest;

TEST_F(TimerHandler, RunsWithoutTheLock)
{
    StartThread();
    bool wasFree = false;
    Recorder handler(m_Fired, "a", [&](Timer&) { wasFree = ServiceIsFree(); });
    for (const bool periodic : {false, true}) {
        wasFree = false;
        Timer timer(10, &handler, periodic);
        timer.Start();
        m_Thread.WakeAfter(10);
        EXPECT_TRUE(wasFree);
    }
}

TEST_F(TimerHandler, LetsOtherThreadsStartAndStopTimers)
{
    StartThread();
    Timer other(10, &m_Handler, false);
    Recorder handler(m_Fired, "a", [&](Timer&) {
        std::thread([&] {
            other.Start();
            other.Restart();
            other.Stop();
            other.Start();
        }).join();
    });
    Timer timer(10, &handler, false);
    timer.Start();
    m_Thread.WakeAfter(10);
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("a", "fired"));
}

TEST_F(TimerHandler, MayUseAnyTimer)
{
    StartThread();
    Timer starts(10, &m_Handler, false);
    Timer restarts(20, &m_Handler, false);
    Timer stops(20, &m_Handler, true);
    Recorder handler(m_Fired, "a", [&](Timer&) {
        starts.Start();
        restarts.Restart();
        stops.Stop();
    });
    Timer timer(10, &handler, false);
    timer.Start();
    restarts.Start();
    stops.Start();
    m_Thread.WakeAfter(10);
    m_Thread.WakeAfter(10);
    EXPECT_EQ(m_Fired.size(), 2U);
    m_Thread.WakeAfter(10);
    EXPECT_EQ(m_Fired.size(), 3U);
    EXPECT_TRUE(QueueIsEmpty());
}

TEST_F(TimerHandler, MayHaveItsTimerAsAMember)
{
    StartThread();
    class Heart : public Timer::Handler
    {
    public:
        Heart() { m_Timer.Start(); }
        ~Heart() noexcept override = default;
        void OnTimer(Timer* /*timer*/) override { ++beats; }
        int beats = 0;

    private:
        Timer m_Timer{10, this, true};
    };
    Heart heart;
    m_Thread.WakeAfter(10);
    m_Thread.WakeAfter(10);
    EXPECT_EQ(heart.beats, 2);
}

TEST_F(TimerHandler, EndsTheProcessByThrowing)
{
    ChildProcess child([] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        const int quiet = open("/dev/null", O_WRONLY);
        dup2(quiet, STDERR_FILENO);
        static std::vector<std::string> s_Fired;
        static Recorder s_Handler(s_Fired, "a", [](Timer&) { throw 1; });
        Timer timer(0, &s_Handler, false);
        timer.Start();
        sleep(30);
        return 0;
    });
    EXPECT_EQ(child.WaitForExitStatus(), -SIGABRT);
}

using TimerFire = TimerTest;

TEST_F(TimerFire, OfAStoppedTimerCallsNobodyAndKeepsTheLock)
{
    Timer timer(10, &m_Handler, false);
    {
        Locker locker(*TimerService::GetInstance());
        timer.Fire(locker);
        EXPECT_THAT(m_Fired, IsEmpty());
        EXPECT_FALSE(ServiceIsFree());
    }
    EXPECT_TRUE(ServiceIsFree());
}

TEST_F(TimerFire, ReleasesTheLockThroughTheGuard)
{
    StartThread();
    Timer timer(10, &m_Handler, false);
    timer.Start();
    {
        Locker locker(*TimerService::GetInstance());
        // The thread would have taken the request out before.
        Timer* const running = &timer;
        running->Fire(locker);
        EXPECT_TRUE(ServiceIsFree());
        // The guard knows: nothing is released twice.
        const CallCounter unlocks("pthread_mutex_unlock");
        locker.Unlock();
        EXPECT_EQ(unlocks.GetCallCount(), 0U);
    }
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
    EXPECT_FALSE(timer.IsRunning());
    // The request that is still queued finds a stopped timer.
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

using TimerLock = TimerTest;

TEST_F(TimerLock, FailuresAreReported)
{
    StartThread();
    Timer timer(10, &m_Handler, false);
    timer.Start();
    const auto failsToLock = [](const std::function<void()>& action) {
        const FailingCall failure("pthread_mutex_lock", EINVAL);
        errno = EPERM;
        return Throws<SystemException>(action, SystemFailure(EPERM));
    };
    EXPECT_TRUE(failsToLock([&] { timer.Start(); }));
    EXPECT_TRUE(failsToLock([&] { timer.Stop(); }));
    EXPECT_TRUE(failsToLock([&] { timer.Restart(); }));
    EXPECT_TRUE(failsToLock([&] { timer.IsRunning(); }));
    EXPECT_TRUE(timer.IsRunning());
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

TEST_F(TimerLock, ThatCantBeReleasedIsReported)
{
    StartThread();
    Timer timer(10, &m_Handler, false);
    pthread_mutex_t* const mutex = ServiceMutex();
    const auto failsToUnlock = [mutex](const std::function<void()>& action) {
        testing::AssertionResult result = testing::AssertionFailure();
        {
            const FailingCall failure("pthread_mutex_unlock", EPERM);
            errno = ENOTTY;
            result = Throws<SystemException>(action, SystemFailure(ENOTTY));
        }
        pthread_mutex_unlock(mutex);
        return result;
    };
    EXPECT_TRUE(failsToUnlock([&] { timer.Start(); }));
    EXPECT_TRUE(timer.IsRunning());
    EXPECT_TRUE(failsToUnlock([&] { timer.Stop(); }));
    EXPECT_FALSE(timer.IsRunning());
    EXPECT_TRUE(ServiceIsFree());
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, IsEmpty());
}

TEST_F(TimerTest, HasFireBeforeItsDestructor)
{
    StartThread();
    Timer timer(10, &m_Handler, false);
    timer.Start();
    {
        Locker locker(*TimerService::GetInstance());
        CallVirtualSlot<void, Locker*>(&timer, 0, &locker);
    }
    EXPECT_THAT(m_Fired, ElementsAre("fired"));

    // The deleting one. It leaves nothing but a place in the queue: the first timer's is still
    // taken.
    const AllocationBalance balance;
    auto* const heap = new Timer(10, &m_Handler, false);
    heap->Start();
    CallVirtualSlot(heap, 2);
    EXPECT_EQ(balance.GetLiveCount(), 1);
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));

    alignas(Timer) unsigned char memory[sizeof(Timer)];
    auto* const inPlace = new (memory) Timer(10, &m_Handler, false);
    inPlace->Start();
    CallVirtualSlot(inPlace, 1);
    m_Thread.WakeAfter(10);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
}

TEST_F(TimerTest, CallsTheHandlersSlotAfterTheDestructor)
{
    Timer timer(10, &m_Handler, false);
    Timer::Handler* const handler = &m_Handler;
    CallVirtualSlot<void, Timer*>(handler, 2, &timer);
    EXPECT_THAT(m_Fired, ElementsAre("fired"));
    static_assert(std::has_virtual_destructor_v<Timer::Handler>);
}

TEST_F(TimerTest, HasItsFieldsInOrder)
{
    if (sizeof(void*) != 4) {
        GTEST_SKIP() << "the offsets are those of 32 bit";
    }
    StartThread();
    Timer timer(1234, &m_Handler, true);
    timer.Start();
    EXPECT_EQ(ReadField<unsigned int>(timer, 4), 1234U);
    EXPECT_EQ(ReadField<Timer::Handler*>(timer, 8), &m_Handler);
    EXPECT_TRUE(ReadField<bool>(timer, 12));
    EXPECT_TRUE(ReadField<bool>(timer, 13));
    const auto* const request = ReadField<const TimerService::Request*>(timer, 16);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(static_cast<const void*>(request->m_Handler), &timer);
    EXPECT_EQ(static_cast<const void*>(static_cast<const RefCount*>(&timer)),
              reinterpret_cast<const char*>(&timer) + 20);
    EXPECT_EQ(sizeof(Timer), 28U);
    timer.Stop();
    EXPECT_EQ(ReadField<const TimerService::Request*>(timer, 16), nullptr);
    EXPECT_FALSE(ReadField<bool>(timer, 13));
}

} // namespace

#include <VelaHost_Utility/Timer.h>

#include "support/ChildProcess.h"
#include "support/Interpose.h"
#include "support/Soak.h"
#include "support/interpose/Interposed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <deque>
#include <fcntl.h>
#include <optional>
#include <random>
#include <semaphore>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Threads start and stop timers at random while the wall clock may jump. Every start is a
// generation of its timer, and every generation must come to exactly one end: a stop that found it
// pending, after which its handler is not called, or one call of its handler, not before its time.

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;
using std::chrono::milliseconds;
using VelaHost_OS::TimerService;

struct TimerSoakTargets
{
    unsigned int standing;   ///< Timers that are live from beginning to end.
    unsigned int busy;       ///< Timers that come and go.
    unsigned int operations; ///< Starts and stops together, those that change something.
    unsigned int jumps;      ///< Of the clock, by an hour each.
};

constexpr TimerSoakTargets s_SteadyClock{0, 1000, 100'000, 0};
constexpr TimerSoakTargets s_SmallSteadyClock{0, 100, 3000, 0};
constexpr TimerSoakTargets s_ShortSoak{5000, 1000, 60'000, 8};
constexpr TimerSoakTargets s_FullSoak{100'000, 10'000, 1'000'000, 40};
constexpr TimerSoakTargets s_SmallSoak{200, 100, 2000, 8};
constexpr unsigned int s_ThreadCount = 8;

constexpr std::int64_t s_Microseconds = 1'000'000; // in a second
constexpr std::int64_t s_Hour = 3600 * s_Microseconds;
constexpr std::int64_t s_Rounding = 2000;     // microseconds, of two times to milliseconds
constexpr std::int64_t s_TooLate = 2'000'000; // microseconds

/// The wall clock with an offset that the test moves, and what each thread has read from it last.
class JumpingClock
{
public:
    JumpingClock()
        : m_Hook(interposed::gettimeofday, [](auto* time, auto* zone) {
              const int result = interposed::gettimeofday.Real(time, zone);
              const std::int64_t now = time->tv_sec * s_Microseconds + time->tv_usec + s_Offset;
              time->tv_sec = static_cast<decltype(time->tv_sec)>(now / s_Microseconds);
              time->tv_usec = static_cast<decltype(time->tv_usec)>(now % s_Microseconds);
              s_LastReading = now;
              return result;
          })
    {}

    static void SetOffset(std::int64_t microseconds) { s_Offset = microseconds; }
    static std::int64_t GetLastReading() { return s_LastReading; }

private:
    static inline std::atomic<std::int64_t> s_Offset{0};
    static inline thread_local std::int64_t s_LastReading = 0;

    Hook<int(WideTimeval*, void*)> m_Hook;
};

/// A timer that keeps accounts. All operations but the firing come from one thread, its owner.
class AccountedTimer final : public Timer, private Timer::Handler
{
public:
    AccountedTimer(unsigned int interval, bool periodic) : Timer(interval, this, periodic) {}
    ~AccountedTimer() noexcept override = default;

    /// True from a start until a stop or the firing of a one-shot timer.
    bool IsPending() const { return m_Ended != m_Armed; }

    /// For a timer that isn't pending.
    void StartAlone()
    {
        NoteStart();
        Start();
    }

    /// For a timer that isn't pending; knows when it is due.
    void StartUnderLock()
    {
        Locker locker(*TimerService::GetInstance());
        NoteStart();
        Start();
        NoteDue();
    }

    /// True when the stop prevented a firing.
    bool StopAlone()
    {
        Stop();
        // What was to fire before the stop took the lock has done so.
        return NoteKill();
    }

    /// For any timer; true when it was pending.
    bool RestartUnderLock()
    {
        Locker locker(*TimerService::GetInstance());
        const bool wasPending = NoteKill();
        NoteStart();
        Restart();
        NoteDue();
        return wasPending;
    }

    void Fire(Locker& locker) override
    {
        const std::int64_t now = JumpingClock::GetLastReading();
        m_Expected = IsPending();
        if (m_Expected && m_DueGeneration == m_Armed) {
            m_WasEarly = m_WasEarly || now < m_Due - s_Rounding;
            m_WorstDelay = std::max(m_WorstDelay, now - m_Due);
        }
        ++m_Firings;
        if (!IsPeriodic()) {
            m_Ended = m_Armed.load();
        }
        m_Fired = m_Armed;
        m_Called = 0;
        Timer::Fire(locker);
        m_WasSkipped = m_WasSkipped || (m_Expected && m_Called != 1);
    }

    /// What is wrong with the accounts, "" for nothing. The timer thread must have left it.
    std::string GetProblems() const
    {
        std::string problems;
        if (m_WasUnexpected) {
            problems += "called after a stop, or twice; ";
        }
        if (m_WasSkipped) {
            problems += "fired without a call; ";
        }
        if (m_WasEarly) {
            problems += "fired early; ";
        }
        if (m_Starts != m_Kills + (IsPeriodic() ? 0 : m_Firings)) {
            problems += std::to_string(m_Starts) + " starts, " + std::to_string(m_Kills) +
                        " kills, " + std::to_string(m_Firings) + " firings; ";
        }
        return problems;
    }

    std::int64_t GetFirings() const { return m_Firings; }
    std::int64_t GetWorstDelay() const { return m_WorstDelay; }

private:
    void OnTimer(Timer* /*timer*/) override
    {
        m_WasUnexpected = m_WasUnexpected || !m_Expected;
        ++m_Called;
        if (IsPeriodic()) {
            const std::int64_t due = DueFromLastReading();
            Locker locker(*TimerService::GetInstance());
            if (IsPending() && m_Armed == m_Fired) {
                m_DueGeneration = m_Fired;
                m_Due = due;
            }
        }
    }

    std::int64_t DueFromLastReading() const
    {
        return JumpingClock::GetLastReading() + std::int64_t{GetInterval()} * 1000;
    }

    void NoteStart()
    {
        ++m_Starts;
        ++m_Armed;
    }

    void NoteDue()
    {
        m_DueGeneration = m_Armed;
        m_Due = DueFromLastReading();
    }

    bool NoteKill()
    {
        const bool wasPending = IsPending();
        if (wasPending) {
            ++m_Kills;
            m_Ended = m_Armed.load();
        }
        return wasPending;
    }

    // Generations; the owner's starts and kills, and one-shot firings under the service's lock.
    std::atomic<unsigned int> m_Armed{0};
    std::atomic<unsigned int> m_Ended{0};
    std::int64_t m_Starts = 0;
    std::int64_t m_Kills = 0;

    // Guarded by the service's lock.
    unsigned int m_DueGeneration = 0;
    std::int64_t m_Due = 0;

    // The timer thread's.
    std::int64_t m_Firings = 0;
    std::int64_t m_WorstDelay = 0;
    unsigned int m_Fired = 0;
    int m_Called = 0;
    bool m_Expected = false;
    bool m_WasUnexpected = false;
    bool m_WasSkipped = false;
    bool m_WasEarly = false;
};

/// The timers of one thread.
struct Share
{
    std::deque<AccountedTimer> standing;
    std::deque<AccountedTimer> busy;
};

/// One or two starts and stops; how many.
unsigned int Operate(Share& share, std::minstd_rand& random)
{
    if (!share.standing.empty() && random() % 2 == 0) {
        AccountedTimer& timer = share.standing[random() % share.standing.size()];
        if (random() % 2 == 0) {
            timer.RestartUnderLock();
        } else {
            timer.StopAlone();
            timer.StartAlone();
        }
        return 2;
    }
    AccountedTimer& timer = share.busy[random() % share.busy.size()];
    switch (random() % 4) {
    case 0:
        return timer.RestartUnderLock() ? 2 : 1;
    case 1:
        return timer.StopAlone() ? 1 : 0;
    default:
        if (timer.IsPending()) {
            return timer.StopAlone() ? 1 : 0;
        }
        if (random() % 2 == 0) {
            timer.StartAlone();
        } else {
            timer.StartUnderLock();
        }
        return 1;
    }
}

void Disturb(Share& share, unsigned int seed, unsigned int operations,
             std::atomic<unsigned int>& total)
{
    for (AccountedTimer& timer : share.standing) {
        timer.StartUnderLock();
    }
    std::minstd_rand random(seed);
    for (unsigned int done = 0; done < operations;) {
        unsigned int burst = 0;
        for (int i = 0; i < 20; ++i) {
            burst += Operate(share, random);
        }
        done += burst;
        total += burst;
        // As programs do: nobody starts and stops timers without a pause.
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
}

struct TimerSoakResult
{
    std::string problems; ///< "" for none.
    unsigned int operations = 0;
    unsigned int live = 0; ///< Timers pending when the last operation was done.
    std::int64_t firings = 0;
    std::int64_t worstDelay = 0; ///< microseconds
};

template <typename Action>
void ForEachTimer(std::vector<Share>& shares, const Action& action)
{
    for (Share& share : shares) {
        std::for_each(share.standing.begin(), share.standing.end(), action);
        std::for_each(share.busy.begin(), share.busy.end(), action);
    }
}

/// Returns when the timer thread has left every handler that it had begun before.
void PassTheTimerThread()
{
    struct Handler final : Timer::Handler
    {
        void OnTimer(Timer* /*timer*/) override { m_Called.release(); }
        std::binary_semaphore m_Called{0};
    };
    static Handler s_Handler;
    Timer timer(0, &s_Handler, false);
    timer.Start();
    s_Handler.m_Called.acquire();
}

/// When no more starts will come, waits for what is due and closes the accounts.
void Settle(std::vector<Share>& shares, TimerSoakResult& result)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    ForEachTimer(shares, [&](AccountedTimer& timer) {
        if (timer.IsPeriodic()) {
            timer.StopAlone();
        }
        while (timer.IsPending() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
    PassTheTimerThread();
    ForEachTimer(shares, [&](const AccountedTimer& timer) {
        if (result.problems.size() < 1000) {
            result.problems += timer.GetProblems();
        }
        result.firings += timer.GetFirings();
        result.worstDelay = std::max(result.worstDelay, timer.GetWorstDelay());
    });
}

TimerSoakResult Soak(const TimerSoakTargets& targets)
{
    const JumpingClock clock;
    JumpingClock::SetOffset(0);
    std::vector<Share> shares(s_ThreadCount);
    for (unsigned int i = 0; i < targets.standing; ++i) {
        // Beyond every jump but the last.
        constexpr unsigned int hour = 3'600'000;
        shares[i % s_ThreadCount].standing.emplace_back(3 * hour + i * 100 % (3 * hour), false);
    }
    for (unsigned int i = 0; i < targets.busy; ++i) {
        const unsigned int interval = i % 10 == 0 ? 200 + i % 300 : i % 40;
        shares[i % s_ThreadCount].busy.emplace_back(interval, interval > 5 && i % 5 == 1);
    }

    TimerSoakResult result;
    std::atomic<unsigned int> operations{0};
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < s_ThreadCount; ++i) {
        threads.emplace_back(
            [&, i] { Disturb(shares[i], i + 1, targets.operations / s_ThreadCount, operations); });
    }
    for (unsigned int jump = 0; jump < targets.jumps; ++jump) {
        while (operations < targets.operations / targets.jumps * jump) {
            std::this_thread::sleep_for(milliseconds(1));
        }
        static constexpr std::int64_t s_Pattern[] = {s_Hour, 0, -s_Hour, 0};
        JumpingClock::SetOffset(s_Pattern[jump % std::size(s_Pattern)]);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    result.operations = operations;
    for (const Share& share : shares) {
        for (const std::deque<AccountedTimer>* timers : {&share.standing, &share.busy}) {
            result.live += static_cast<unsigned int>(
                std::count_if(timers->begin(), timers->end(),
                              [](const AccountedTimer& timer) { return timer.IsPending(); }));
        }
    }
    if (targets.jumps > 0) {
        JumpingClock::SetOffset(12 * s_Hour);
    }
    Settle(shares, result);
    return result;
}

void Report(const TimerSoakTargets& targets, const TimerSoakResult& result)
{
    ReportSoak(std::to_string(result.operations) + " starts and stops, " +
               std::to_string(s_ThreadCount) + " threads, " + std::to_string(result.live) +
               " live timers, " + std::to_string(result.firings) + " firings, " +
               std::to_string(targets.jumps) + " clock jumps, " +
               (result.problems.empty() ? "0 lost, 0 doubled, 0 after a stop" : "accounts wrong"));
}

// Before the others: forked from a process with timers, the child would have no timer thread.
TEST(TimerSoak, FailsWithoutTheLock)
{
    ChildProcess child([] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        const int quiet = open("/dev/null", O_WRONLY);
        dup2(quiet, STDOUT_FILENO);
        dup2(quiet, STDERR_FILENO);
        // A queue in disorder may also go round in circles.
        alarm(10);
        static auto* const s_Mutex = reinterpret_cast<pthread_mutex_t*>(
            reinterpret_cast<char*>(static_cast<void*>(TimerService::GetInstance())) +
            sizeof(void*));
        const auto pretend = [](pthread_mutex_t* mutex) {
            return mutex == s_Mutex ? std::optional(0) : std::nullopt;
        };
        static const Hook<int(pthread_mutex_t*)> s_Lock(interposed::pthread_mutex_lock, pretend);
        static const Hook<int(pthread_mutex_t*)> s_Unlock(interposed::pthread_mutex_unlock,
                                                          pretend);
        return Soak(s_SteadyClock).problems.empty() ? 0 : 1;
    });
    EXPECT_NE(child.WaitForExitStatus(), 0);
}

TEST(TimerSoak, LosesDoublesAndDelaysNothing)
{
    const TimerSoakTargets targets = SelectSoak(s_SteadyClock, s_SteadyClock, s_SmallSteadyClock);
    const TimerSoakResult result = Soak(targets);
    EXPECT_EQ(result.problems, "");
    EXPECT_GT(result.firings, std::int64_t{targets.busy});
    EXPECT_LT(result.worstDelay, s_TooLate);
    Report(targets, result);
}

TEST(TimerSoak, LosesAndDoublesNothingWhileTheClockJumps)
{
    const TimerSoakTargets targets = SelectSoak(s_ShortSoak, s_FullSoak, s_SmallSoak);
    const TimerSoakResult result = Soak(targets);
    EXPECT_EQ(result.problems, "");
    EXPECT_GE(result.operations, targets.operations);
    EXPECT_GE(result.live, targets.standing);
    EXPECT_GT(result.firings, std::int64_t{result.live}) << "some before the last jump";
    Report(targets, result);
}

} // namespace

#include <VelaHost_Utility/Timer.h>

#include "support/ChildProcess.h"
#include "support/Interpose.h"
#include "support/interpose/Interposed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <optional>
#include <random>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;
using VelaHost_OS::TimerService;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr unsigned int s_ThreadCount = 8;
constexpr unsigned int s_TimerCount = 1000;
constexpr std::int64_t s_TooLate = 2000; // milliseconds

std::int64_t NowInMilliseconds()
{
    return std::chrono::duration_cast<milliseconds>(Clock::now().time_since_epoch()).count();
}

/// A timer that keeps accounts. All operations but the firing come from one thread.
class AccountedTimer final : private Timer::Handler
{
public:
    AccountedTimer(unsigned int interval, bool periodic) : m_Timer(interval, this, periodic) {}
    ~AccountedTimer() noexcept override = default;

    void Start()
    {
        Locker locker(*TimerService::GetInstance());
        if (!m_Timer.IsRunning()) {
            NoteStart();
            m_Timer.Start();
        }
    }

    void Stop()
    {
        Locker locker(*TimerService::GetInstance());
        NoteKill();
        m_Timer.Stop();
    }

    void Restart()
    {
        Locker locker(*TimerService::GetInstance());
        NoteKill();
        NoteStart();
        m_Timer.Restart();
    }

    bool IsPeriodic() const { return m_Timer.IsPeriodic(); }

    /// True when every start of a one-shot timer has come to its end: one firing, or one kill.
    bool IsSettled() const { return m_Starts == m_Kills + m_Firings; }

    /// What a periodic timer can have fired by now.
    std::int64_t GetMostFirings() const
    {
        return (NowInMilliseconds() - m_Made) / std::max(1U, m_Timer.GetInterval()) + m_Starts;
    }

    std::int64_t GetStarts() const { return m_Starts; }
    std::int64_t GetKills() const { return m_Kills; }
    std::int64_t GetFirings() const { return m_Firings; }
    /// The worst delay of a firing, and of one that has yet to come.
    std::int64_t GetWorstDelay() const
    {
        return std::max<std::int64_t>(m_WorstDelay, m_Timer.IsRunning() ? Delay() : 0);
    }

private:
    void OnTimer(Timer* /*timer*/) override
    {
        ++m_Firings;
        m_WorstDelay = std::max<std::int64_t>(m_WorstDelay, Delay());
        if (m_Timer.IsPeriodic()) {
            m_Due = NowInMilliseconds() + m_Timer.GetInterval();
        }
    }

    std::int64_t Delay() const { return NowInMilliseconds() - m_Due; }

    void NoteStart()
    {
        ++m_Starts;
        m_Due = NowInMilliseconds() + m_Timer.GetInterval();
    }

    void NoteKill()
    {
        if (m_Timer.IsRunning()) {
            ++m_Kills;
        }
    }

    const std::int64_t m_Made = NowInMilliseconds();
    std::int64_t m_Starts = 0;
    std::int64_t m_Kills = 0;
    std::atomic<std::int64_t> m_Firings{0};
    std::atomic<std::int64_t> m_Due{0};
    std::atomic<std::int64_t> m_WorstDelay{0};
    Timer m_Timer;
};

/// Starts, stops and restarts its timers at random until `end`.
void Disturb(std::deque<AccountedTimer>& timers, unsigned int seed, Clock::time_point end,
             std::atomic<std::uint64_t>& operations)
{
    std::minstd_rand random(seed);
    while (Clock::now() < end) {
        for (int burst = 0; burst < 20; ++burst) {
            AccountedTimer& timer = timers[random() % timers.size()];
            switch (random() % 4) {
            case 0:
                timer.Stop();
                break;
            case 1:
                timer.Restart();
                break;
            default:
                timer.Start();
            }
            ++operations;
        }
        // As programs do: nobody starts and stops timers without a pause.
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
}

/// Runs the soak and returns what went wrong, "" for nothing.
std::string Soak(milliseconds duration)
{
    std::vector<std::deque<AccountedTimer>> timers(s_ThreadCount);
    for (unsigned int i = 0; i < s_TimerCount; ++i) {
        const unsigned int interval = i % 10 == 0 ? 200 + i % 300 : i % 40;
        timers[i % s_ThreadCount].emplace_back(interval, interval > 5 && i % 5 == 1);
    }
    std::atomic<std::uint64_t> operations{0};
    const auto end = Clock::now() + duration;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < s_ThreadCount; ++i) {
        threads.emplace_back([&, i] { Disturb(timers[i], i + 1, end, operations); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::string problems;
    std::int64_t firings = 0;
    std::int64_t worst = 0;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (std::deque<AccountedTimer>& own : timers) {
        for (AccountedTimer& timer : own) {
            if (timer.IsPeriodic()) {
                worst = std::max(worst, timer.GetWorstDelay());
                timer.Stop();
                if (timer.GetStarts() != timer.GetKills()) {
                    problems += "a periodic timer stopped by itself; ";
                }
                if (timer.GetFirings() > timer.GetMostFirings()) {
                    problems += "a periodic timer fired too often; ";
                }
            } else {
                while (!timer.IsSettled() && Clock::now() < deadline) {
                    std::this_thread::sleep_for(milliseconds(1));
                }
                if (!timer.IsSettled()) {
                    problems += std::to_string(timer.GetStarts()) + " starts, " +
                                std::to_string(timer.GetKills()) + " kills and " +
                                std::to_string(timer.GetFirings()) + " firings; ";
                }
                worst = std::max(worst, timer.GetWorstDelay());
            }
            firings += timer.GetFirings();
        }
    }
    if (worst > s_TooLate) {
        problems += "late by " + std::to_string(worst) + " ms; ";
    }
    if (firings < static_cast<std::int64_t>(s_TimerCount)) {
        problems += "only " + std::to_string(firings) + " firings; ";
    }
    std::printf("%llu operations, %lld firings, late by %lld ms at most\n",
                static_cast<unsigned long long>(operations.load()), static_cast<long long>(firings),
                static_cast<long long>(worst));
    return problems;
}

TEST(TimerSoak, LosesDoublesAndDelaysNothing)
{
    const char* const seconds = std::getenv("VELAHOST_SOAK_SECONDS");
    EXPECT_EQ(Soak(milliseconds(seconds != nullptr ? 1000 * std::atoi(seconds) : 2000)), "");
}

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
        return Soak(milliseconds(5000)).empty() ? 0 : 1;
    });
    EXPECT_NE(child.WaitForExitStatus(), 0);
}

} // namespace

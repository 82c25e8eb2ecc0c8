#include "Counted.h"
#include "Scenarios.h"
#include "TimerThread.h"

#include <VelaHost_Utility/Timer.h>

#include <memory>
#include <random>
#include <vector>

namespace instructions {

namespace {

using VelaHost_Utility::Timer;
using Timers = std::vector<std::unique_ptr<Timer>>;

constexpr unsigned int s_Hour = 3'600'000; // milliseconds
constexpr int s_Pending = 1000;
constexpr int s_Counted = 256;

/// Numbers that are the same in every run; how the standard library distributes them may change.
class Intervals
{
public:
    unsigned int operator()() { return s_Hour + static_cast<unsigned int>(m_Engine() % s_Hour); }

private:
    std::mt19937 m_Engine{1};
};

template <typename Interval>
Timers MakeTimers(int count, Interval interval)
{
    Timers timers;
    for (int i = 0; i < count; ++i) {
        timers.push_back(std::make_unique<Timer>(interval(), nullptr, false));
    }
    return timers;
}

void StartAll(const Timers& timers)
{
    for (const auto& timer : timers) {
        timer->Start();
    }
}

template <typename Interval>
int StartAndStop(Interval interval)
{
    // Nothing that is counted expires before what the thread sleeps towards.
    Timer first(s_Hour / 2, nullptr, false);
    first.Start();
    const Timers pending = MakeTimers(s_Pending, interval);
    StartAll(pending);
    const Timers counted = MakeTimers(s_Counted, interval);
    TimerThread::RunUntilAsleep();
    return CountEach(s_Counted, [&](int number) {
        Timer& timer = *counted[static_cast<std::size_t>(number)];
        timer.Start();
        timer.Stop();
    });
}

class Firings : public Timer::Handler
{
public:
    void OnTimer(Timer*) override { ++m_Count; }

private:
    unsigned int m_Count = 0;
};

} // namespace

int StartAndStopTimersOfOneExpiry()
{
    return StartAndStop([] { return s_Hour; });
}

int StartAndStopTimersOfManyExpiries()
{
    return StartAndStop(Intervals());
}

int FireTimers()
{
    const Timers pending = MakeTimers(s_Pending, Intervals());
    StartAll(pending);
    Firings firings;
    Timers due;
    for (int i = 0; i < s_Counted; ++i) {
        due.push_back(std::make_unique<Timer>(0, &firings, false));
    }
    for (int round = 0; round < 2; ++round) {
        StartAll(due);
        if (round == 0) {
            TimerThread::RunUntilAsleep();
        } else {
            Count(TimerThread::RunUntilAsleep);
        }
    }
    return s_Counted;
}

} // namespace instructions

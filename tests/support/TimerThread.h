#pragma once

#include "FakeClock.h"
#include "Interpose.h"

#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>

namespace velahost_test {

/// The library's timer thread in the test's hand: the clock stands still unless the test moves it,
/// and the thread, once asleep, stays so until the test wakes it. Signals sent to it don't.
class TimerThread
{
public:
    TimerThread();
    TimerThread(const TimerThread&) = delete;
    TimerThread& operator=(const TimerThread&) = delete;
    /// The thread goes on by itself, in real time.
    ~TimerThread();

    FakeClock& Clock() { return m_Clock; }

    /// Returns when the thread is asleep; throws `std::runtime_error` when that takes too long.
    void WaitUntilAsleep();
    /// Wakes the sleeping thread and waits until it is asleep again: all that is due has fired.
    void Wake();
    /// Moves the clock, then as `Wake`.
    void WakeAfter(std::int64_t milliseconds);

    /// How long the thread means to sleep at present.
    std::int64_t GetSleepNanoseconds() const;
    /// Sleeps that it has begun.
    unsigned int GetSleepCount() const;

private:
    struct State
    {
        std::mutex mutex;
        std::condition_variable changed;
        unsigned int begun = 0;
        unsigned int ended = 0;
        std::int64_t nanoseconds = 0;
        bool released = false;
    };

    // Shared with the hook: the thread may be inside while it is being taken away.
    std::shared_ptr<State> m_State;
    FakeClock m_Clock;
    std::optional<Hook<int(const sigset_t*, siginfo_t*, const timespec*)>> m_Hook;
};

} // namespace velahost_test

#pragma once

#include "Interpose.h"
#include "interpose/WideTime.h"

#include <atomic>
#include <cstdint>
#include <sys/time.h>

namespace velahost_test {

/// A wall clock in the test's hand: while it lives, `gettimeofday` returns what it was set to, on
/// every thread. Other clocks, and time-outs inside the kernel, go on as they are.
class FakeClock
{
public:
    explicit FakeClock(std::int64_t seconds, std::int64_t microseconds = 0);

    void Set(std::int64_t seconds, std::int64_t microseconds = 0);
    /// Moves the clock; negative sets it back.
    void AdvanceMilliseconds(std::int64_t milliseconds);
    std::int64_t GetMicroseconds() const { return m_State->microseconds.load(); }
    /// How often the clock has been read.
    unsigned int GetReadCount() const { return m_State->reads.load(); }

private:
    struct State
    {
        std::atomic<std::int64_t> microseconds{0};
        std::atomic<unsigned int> reads{0};
    };

    // Shared with the hook: a thread may read the clock while it is being taken away.
    std::shared_ptr<State> m_State;
    Hook<int(WideTimeval*, void*)> m_Hook;
};

} // namespace velahost_test

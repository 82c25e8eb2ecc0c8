#pragma once

namespace instructions {

/// In this program the timer service starts no thread: what its thread would do happens when it is
/// asked for, so that it is the same in every run.
class TimerThread
{
public:
    /// Does what the thread does until it has nothing more to do and would sleep. A timer must have
    /// been started before.
    static void RunUntilAsleep();
};

} // namespace instructions

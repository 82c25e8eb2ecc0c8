#pragma once

#include <VelaHost_OS/ThreadMutex.h>
#include <VelaHost_Utility/Export.h>

#include <internal/unix/OSSystem.h>

#include <atomic>
#include <cstdint>
#include <pthread.h>

namespace VelaHost_OS {

/// A manual-reset event for the threads of one process: threads wait until another one sets it, and
/// it stays set, releasing every waiter, until somebody resets it.
///
/// `Set` takes no lock, and that leaves a gap: a waiter that has found the event clear but does not
/// yet sleep misses a `Set` made in between. It then sleeps for its whole time-out, or without
/// limit until the next `Set`. Who can't afford that waits with a time-out, looks at `IsSet()` and
/// waits again.
///
/// A failed platform call throws `VelaHost_Utility::SystemException`, code 0x2002, also out of the
/// destructor. `Set`, `Reset` and `Wait` may be called from any thread. When the event is destroyed
/// nobody may be waiting and every `Set` must have returned: a `Wait` that returned true does not
/// tell that, since the flag comes before the wake-up. What a thread did before `Set` is visible to
/// every thread whose `Wait` returns true on account of it.
class VELAHOST_EXPORT ThreadEvent
{
public:
    ThreadEvent() { CheckResult(pthread_cond_init(&m_Condition, nullptr)); }
    ThreadEvent(const ThreadEvent&) = delete;
    ThreadEvent& operator=(const ThreadEvent&) = delete;

    /// Throws when the platform refuses, for example because a failed `Wait` left the mutex held.
    ~ThreadEvent() noexcept(false) { CheckResult(pthread_cond_destroy(&m_Condition)); }

    /// Sets the event and wakes every waiter. When waking fails it throws, and the event is set.
    void Set();

    /// Clears the event. What the caller looks at afterwards is not looked at before: the `Set` of
    /// who then changes it is not undone.
    void Reset();

    /// Waits until the event is set: true, and at once when it is set already. False when
    /// `milliseconds` ran out first, even if the event was set at the last moment. -1 waits without
    /// limit; every other negative time is over before it begins.
    ///
    /// The time is counted by the wall clock, and anew after each wake-up that found the event
    /// clear (a spurious one, or a `Set` undone by `Reset`). Its part below a second is added to
    /// that of the clock without a carry: where the sum reaches a whole second, or is negative,
    /// the platform refuses the wait. Times of whole seconds are never refused.
    ///
    /// A refused or failed wait throws with the mutex still held: the event can't be waited for or
    /// destroyed any more. A thread cancelled while it waits leaves the event as it was.
    bool Wait(int milliseconds);

    /// Whether the event is set at this moment.
    bool IsSet() const { return m_Signalled; }

    // Diagnosis; exact only while no thread is in `Wait`.

    /// Times that a waiter began to sleep.
    unsigned int GetWaitCount() const { return m_WaitCount; }
    /// Times that a waiter's sleep ended, by a wake-up or because its time ran out.
    unsigned int GetWakeCount() const { return m_WakeCount; }
    /// When the last sleep began, as `gethrtime()`; 0 before the first.
    std::int64_t GetWaitStart() const { return m_WaitStart; }
    /// When the last sleep ended, as `gethrtime()`; 0 before that.
    std::int64_t GetWaitEnd() const { return m_WaitEnd; }

private:
    ThreadMutex m_Mutex;
    pthread_cond_t m_Condition;
    unsigned int m_Waiting = 0; // 1 from the first sleep on, for who looks at memory.
    unsigned int m_WaitCount = 0;
    unsigned int m_WakeCount = 0;
    std::int64_t m_WaitStart = 0;
    std::int64_t m_WaitEnd = 0;
    std::atomic<bool> m_Signalled{false};
};

} // namespace VelaHost_OS

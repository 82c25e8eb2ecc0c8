#pragma once

#include <VelaHost_OS/TimerService.h>
#include <VelaHost_Utility/Export.h>

#include <csignal>
#include <cstdint>
#include <map>
#include <memory>
#include <pthread.h>

namespace VelaHost_OS {

/// The timer service. Programs get it from `TimerService::GetInstance()`.
class VELAHOST_EXPORT TimerQueue : public TimerService
{
public:
    /// An empty queue without a thread; its clock starts at 0.
    TimerQueue();

    /// Destroys the lock but neither stops the thread nor frees pending requests: not to be called
    /// once a request has been made.
    ~TimerQueue() noexcept(false) override;

    Request* MakeRequest(ReqHandler* handler, unsigned int milliseconds) override;
    void KillRequest(Request* request) override;

    /// The thread's body; `queue` is the `TimerQueue`. Never returns.
    static void* RunThread(void* queue);

private:
    /// Order of two times on the queue's clock. They are kept unsigned, but those before the
    /// queue's creation, which a clock set back leads to, count as negative.
    struct Earlier
    {
        bool operator()(std::uint64_t a, std::uint64_t b) const
        {
            return static_cast<std::int64_t>(a) < static_cast<std::int64_t>(b);
        }
    };
    using RequestsByExpiry = std::multimap<std::uint64_t, Request*, Earlier>;
    struct Entry;
    class EntryPool;

    /// Milliseconds on the queue's clock at `now`, which is in nanoseconds.
    std::uint64_t ElapsedMilliseconds(std::int64_t now) const;
    /// With the lock held.
    void StartThread();
    /// With the lock held. True when the thread must not sleep towards its next wake any longer.
    bool MustWakeFor(std::uint64_t expiry) const;
    /// With the lock held.
    void Remove(RequestsByExpiry::iterator place);
    /// Fires the first request if it is due. Returns how long to sleep, in milliseconds; 0 means
    /// not at all.
    std::uint64_t RunPass();
    void Sleep(std::uint64_t milliseconds) const;

    // Guarded by the lock, but for the wake signals, which no longer change when there is a thread.
    sigset_t m_WakeSignals;
    std::int64_t m_StartTime;
    std::uint64_t m_NextWake;
    pthread_t m_Thread;
    RequestsByExpiry m_Requests;
    /// The memory of all requests: tells one that is gone, or never was, without reading it.
    /// Null before the first.
    std::unique_ptr<EntryPool> m_Pool;
};

} // namespace VelaHost_OS

#pragma once

#include <VelaHost_Utility/Export.h>
#include <VelaHost_Utility/Lockable.h>

#include <cstdint>

namespace VelaHost_OS {

/// The process's timers: a queue of expiries and the one thread that fires them.
///
/// The service is its own lock. Whoever makes or kills a request holds it, through a `Locker` on
/// the service; the thread holds it while it looks for what is due. Handlers must not take, while
/// they have it, a lock that other threads hold when they call in here.
///
/// The thread is started by the first request and never ends. `SIGUSR1` wakes it and is reserved
/// for that; it is blocked in that thread. The clock is the system's wall clock in whole
/// milliseconds, rounded to the nearest: set back, it delays all pending requests by as much; set
/// forward, it fires them early.
class VELAHOST_EXPORT TimerService : public VelaHost_Utility::Lockable
{
public:
    /// What a request calls when it expires.
    class VELAHOST_EXPORT ReqHandler
    {
    public:
        /// Runs on the timer thread, which holds the service's lock through `locker` and has
        /// already removed and freed the request; all pointers to it are to be forgotten here. May
        /// release the lock through `locker`, make and kill requests, and destroy the handler.
        /// What it throws ends the process.
        virtual void Fire(VelaHost_Utility::Locker& locker) = 0;

    protected:
        ~ReqHandler() = default;
    };

    /// One pending expiry; made, owned and freed by the service.
    struct Request
    {
        ReqHandler* m_Handler;  ///< Not owned.
        std::uint64_t m_Expiry; ///< On the service's clock, in milliseconds.
    };

    /// The one service of the process, made by the first call and never destroyed. Any thread may
    /// be the first. Throws `SystemException`, code 0x2002, when its lock can't be made; the next
    /// call tries again.
    static TimerService* GetInstance();

    ~TimerService() noexcept(false) override;

    /// Has `handler` fired once, `milliseconds` from now or, by rounding, up to a millisecond
    /// sooner; 0 means as soon as the thread gets to it. Requests that expire at the same
    /// millisecond fire in the order in which they were made. The caller holds the lock, and the
    /// handler lives until it is fired or the request is killed. A null handler expires unnoticed.
    ///
    /// Throws `SystemException`, code 0x2002, when a step of starting the thread fails, and
    /// `std::bad_alloc`; nothing is queued then, and the next call goes on: it starts the thread
    /// unless that already runs. `SIGUSR1` may stay blocked in the calling thread after a
    /// `SystemException`; after a success the signal mask is as before.
    virtual Request* MakeRequest(ReqHandler* handler, unsigned int milliseconds) = 0;

    /// Removes and frees `request` before it is fired; the caller holds the lock. Null and what is
    /// not in the queue, because it has been fired or killed or never was there, is not read and
    /// nothing happens; the memory of a request that is gone may serve a new one, though.
    virtual void KillRequest(Request* request) = 0;
};

} // namespace VelaHost_OS

#pragma once

#include <VelaHost_OS/TimerService.h>
#include <VelaHost_Utility/Exception.h>
#include <VelaHost_Utility/Export.h>
#include <VelaHost_Utility/RefCount.h>

namespace VelaHost_Utility {

/// A timer used the wrong way. Code 0x2004, text "TimerException(Sys=0xHEX)".
class VELAHOST_EXPORT TimerException : public Exception
{
public:
    /// `sys` is shown in the text, not stored.
    TimerException(const Context& context, unsigned int errorCode, unsigned int sys);
    ~TimerException() override;
};

/// Calls a handler after an interval, once or again and again, until it is stopped.
///
/// A timer may be used from any thread. All timers of the process share one lock and one thread,
/// `VelaHost_OS::TimerService`, and handlers run on that thread, one at a time and without the
/// lock: a handler that takes its time delays all other timers. A handler may start, stop, restart
/// and destroy any timer, its own included. What it throws ends the process.
///
/// Stopping, restarting or destroying a timer prevents every firing that has not begun, but waits
/// for none that has: the handler may still be running, or be about to, when `Stop` or the
/// destructor returns on another thread. Who must know holds the handler by other means.
///
/// Every operation but the constructor, `GetInterval` and `IsPeriodic` throws `SystemException`,
/// code 0x2002, when the lock can't be made, taken or released.
class VELAHOST_EXPORT Timer : private VelaHost_OS::TimerService::ReqHandler, public virtual RefCount
{
public:
    /// What a timer calls. A handler with timers or `SmartPointer`s among its members declares its
    /// destructor `noexcept`: theirs may throw, a handler's may not.
    class VELAHOST_EXPORT Handler
    {
    public:
        virtual ~Handler() = default;
        /// `timer` fired. A one-shot timer is already stopped and may be started again; a periodic
        /// one is already waiting for its next firing. Where another thread may destroy the timer
        /// meanwhile, the pointer is only good for telling which one it was.
        virtual void OnTimer(Timer* timer) = 0;
    };

    /// A stopped timer of `interval` milliseconds. The handler is not owned and outlives the
    /// timer's last firing; without one (null) the timer fires unnoticed.
    Timer(unsigned int interval, Handler* handler, bool periodic);
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /// Stops the timer, for which it takes the lock even when the timer is not running. Where that
    /// throws, the handler is not called any more all the same. A derived class whose handler uses
    /// its members stops the timer in its own destructor.
    ~Timer() noexcept(false) override;

    /// Fires one interval from now and, if periodic, every interval from then on, each measured
    /// from the firing before it; firings that came too late are not caught up on. With an interval
    /// of 0 the timer fires as soon as the thread gets to it; periodic, it keeps the thread busy.
    ///
    /// Throws `TimerException`, code 0x2004, when the timer is running, and what
    /// `VelaHost_OS::TimerService::MakeRequest` throws. The timer is then as it was before.
    void Start();

    /// Does nothing when the timer is not running.
    void Stop();

    /// Stops the timer if it is running, then starts it: in between it is stopped, and another
    /// thread may start it first. Throws what `Start` throws; the timer is then stopped, unless
    /// another thread has started it.
    void Restart();

    /// For the timer thread only.
    void Fire(Locker& locker) override;

    /// True from `Start` until `Stop` or the firing of a one-shot timer.
    bool IsRunning() const;

    /// In milliseconds; never changes.
    unsigned int GetInterval() const { return m_Interval; }
    /// True when the timer fires again and again; never changes.
    bool IsPeriodic() const { return m_Periodic; }

private:
    // Both with the service's lock held.
    void Arm(VelaHost_OS::TimerService& service)
    {
        m_Request = service.MakeRequest(this, m_Interval);
        m_Running = true;
    }
    void Disarm(VelaHost_OS::TimerService& service)
    {
        if (m_Running) {
            service.KillRequest(m_Request);
            m_Request = nullptr;
            m_Running = false;
        }
    }

    const unsigned int m_Interval;
    Handler* const m_Handler;
    const bool m_Periodic;

    // Guarded by the service's lock.
    bool m_Running;
    VelaHost_OS::TimerService::Request* m_Request; // undefined before the first `Start`
};

} // namespace VelaHost_Utility

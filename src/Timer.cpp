#include <VelaHost_Utility/Timer.h>

#include "TextFormat.h"

#include <internal/ThrowSite.h>

namespace VelaHost_Utility {

using VelaHost_OS::TimerService;

namespace {

constexpr unsigned int s_TimerMisuseCode = 0x2004;

constexpr Exception::Context s_StartSite = ThrowSite("Timer", 90);

} // namespace

TimerException::TimerException(const Context& context, unsigned int errorCode, unsigned int sys)
    : Exception(context, errorCode)
{
    SetText("TimerException(Sys=0x" + Hexadecimal(sys) + ")");
    LogMe();
}

TimerException::~TimerException() = default;

Timer::Timer(unsigned int interval, Handler* handler, bool periodic)
    : m_Interval(interval), m_Handler(handler), m_Periodic(periodic), m_Running(false)
{}

Timer::~Timer() noexcept(false)
{
    try {
        Stop();
    } catch (...) {
        // Not even the lock could be had: the request stays, but must not find this timer.
        if (m_Running) {
            m_Request->m_Handler = nullptr;
        }
        throw;
    }
}

void Timer::Start()
{
    TimerService* const service = TimerService::GetInstance();
    Locker locker(*service);
    if (m_Running) {
        throw TimerException(s_StartSite, s_TimerMisuseCode, 0);
    }
    Arm(*service);
}

void Timer::Stop()
{
    TimerService* const service = TimerService::GetInstance();
    Locker locker(*service);
    Disarm(*service);
}

void Timer::Restart()
{
    Stop();
    Start();
}

void Timer::Fire(Locker& locker)
{
    m_Request = nullptr;
    if (!m_Running) {
        return;
    }
    if (m_Periodic) {
        Arm(*TimerService::GetInstance());
    } else {
        m_Running = false;
    }
    // Without the lock the timer may be gone at any moment.
    Handler* const handler = m_Handler;
    locker.Unlock();
    if (handler != nullptr) {
        handler->OnTimer(this);
    }
}

bool Timer::IsRunning() const
{
    Locker locker(*TimerService::GetInstance());
    return m_Running;
}

} // namespace VelaHost_Utility

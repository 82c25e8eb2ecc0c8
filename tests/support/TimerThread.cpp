#include "TimerThread.h"

#include "interpose/Interposed.h"

#include <cerrno>
#include <chrono>
#include <stdexcept>

namespace velahost_test {

namespace {

constexpr std::int64_t s_SomeTime = 1'000'000'000; // in 2001
constexpr std::int64_t s_NanosecondsPerSecond = 1'000'000'000;
constexpr std::chrono::seconds s_TooLong(30);

} // namespace

TimerThread::TimerThread() : m_State(std::make_shared<State>()), m_Clock(s_SomeTime)
{
    m_Hook.emplace(interposed::sigtimedwait, [state = m_State](const sigset_t*, siginfo_t*,
                                                               const timespec* timeout) {
        std::unique_lock lock(state->mutex);
        state->nanoseconds = timeout->tv_sec * s_NanosecondsPerSecond + timeout->tv_nsec;
        const unsigned int sleep = ++state->begun;
        state->changed.notify_all();
        state->changed.wait(lock, [&] { return state->released || state->ended >= sleep; });
        errno = EAGAIN;
        return -1;
    });
}

TimerThread::~TimerThread()
{
    m_Hook.reset();
    const std::lock_guard lock(m_State->mutex);
    m_State->released = true;
    m_State->changed.notify_all();
}

void TimerThread::WaitUntilAsleep()
{
    std::unique_lock lock(m_State->mutex);
    if (!m_State->changed.wait_for(lock, s_TooLong,
                                   [this] { return m_State->begun > m_State->ended; })) {
        throw std::runtime_error("the timer thread does not go to sleep");
    }
}

void TimerThread::Wake()
{
    WaitUntilAsleep();
    {
        const std::lock_guard lock(m_State->mutex);
        ++m_State->ended;
        m_State->changed.notify_all();
    }
    WaitUntilAsleep();
}

void TimerThread::WakeAfter(std::int64_t milliseconds)
{
    WaitUntilAsleep();
    m_Clock.AdvanceMilliseconds(milliseconds);
    Wake();
}

std::int64_t TimerThread::GetSleepNanoseconds() const
{
    const std::lock_guard lock(m_State->mutex);
    return m_State->nanoseconds;
}

unsigned int TimerThread::GetSleepCount() const
{
    const std::lock_guard lock(m_State->mutex);
    return m_State->begun;
}

} // namespace velahost_test

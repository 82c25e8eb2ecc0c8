#include <VelaHost_OS/ThreadEvent.h>

#include <VelaHost_OS/SystemInfo.h>

#include <internal/unix/OSSystem.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <sys/time.h>

namespace VelaHost_OS {

static const std::string s_CompName("OS");

namespace {

constexpr int s_NoLimit = -1;
constexpr int s_MillisecondsPerSecond = 1000;
constexpr int s_NanosecondsPerMillisecond = 1'000'000;
constexpr long s_NanosecondsPerMicrosecond = 1000;

/// That long after now, by the wall clock, with no carry from the nanoseconds to the seconds.
timespec DeadlineAfter(int seconds, long nanoseconds)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    timespec deadline{};
    static_assert(sizeof now.tv_sec == 8, "the sum can't overflow, before or after 2038");
    deadline.tv_sec = now.tv_sec + seconds;
    deadline.tv_nsec = static_cast<long>(now.tv_usec) * s_NanosecondsPerMicrosecond + nanoseconds;
    return deadline;
}

} // namespace

void ThreadEvent::Set()
{
    m_Signalled = true;
    CheckResult(pthread_cond_broadcast(&m_Condition));
}

void ThreadEvent::Reset()
{
    // In order with what the caller reads next: a condition that is looked at after `Reset` and
    // found false is made true, and the event set, only after it.
    m_Signalled = false;
}

bool ThreadEvent::Wait(int milliseconds)
{
    m_Mutex.Lock();
    if (m_Signalled) {
        m_Mutex.Unlock();
        return true;
    }
    const int seconds = milliseconds / s_MillisecondsPerSecond;
    const long nanoseconds = milliseconds % s_MillisecondsPerSecond * s_NanosecondsPerMillisecond;
    for (;;) {
        ++m_WaitCount;
        m_Waiting = 1;
        m_WaitStart = gethrtime();
        int result = 0;
        try {
            if (milliseconds == s_NoLimit) {
                result = pthread_cond_wait(&m_Condition, &m_Mutex.m_Mutex);
            } else {
                const timespec deadline = DeadlineAfter(seconds, nanoseconds);
                result = pthread_cond_timedwait(&m_Condition, &m_Mutex.m_Mutex, &deadline);
            }
        } catch (...) {
            // Cancelled in its sleep, the thread holds the mutex again, and nobody else can
            // release it.
            m_Mutex.Unlock();
            throw;
        }
        m_WaitEnd = gethrtime();
        if (result == ETIMEDOUT) {
            ++m_WakeCount;
            m_Mutex.Unlock();
            return false;
        }
        CheckResult(result);
        ++m_WakeCount;
        if (m_Signalled) {
            m_Mutex.Unlock();
            return true;
        }
    }
}

} // namespace VelaHost_OS

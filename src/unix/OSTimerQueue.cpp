#include <VelaHost_OS/TimerQueue.h>

#include <VelaHost_OS/SystemInfo.h>

#include <internal/unix/OSSystem.h>

#include <ctime>
#include <limits>
#include <memory>

namespace VelaHost_OS {

namespace {

constexpr std::int64_t s_NanosecondsPerMillisecond = 1'000'000;

constexpr std::uint64_t s_IdleWait = 10'000;   // milliseconds
constexpr std::uint64_t s_LongestSleep = 1000; // milliseconds

// The thread has not said yet when it will wake.
constexpr std::uint64_t s_NotSleeping = std::numeric_limits<std::uint64_t>::max();

} // namespace

TimerQueue::TimerQueue()
    : m_WakeSignals{}, m_StartTime(gethrtime()), m_NextWake(s_NotSleeping), m_Thread(0)
{}

TimerQueue::~TimerQueue() noexcept(false) = default;

TimerService::Request* TimerQueue::MakeRequest(ReqHandler* handler, unsigned int milliseconds)
{
    const std::int64_t now = gethrtime();
    if (m_Thread == 0) {
        StartThread();
    }
    const std::uint64_t expiry = ElapsedMilliseconds(now) + milliseconds;
    auto request = std::make_unique<Request>(Request{handler, expiry});
    const auto entry = m_Requests.emplace(expiry, request.get());
    try {
        m_Entries.emplace(request.get(), entry);
    } catch (...) {
        m_Requests.erase(entry);
        throw;
    }
    if (MustWakeFor(expiry)) {
        pthread_kill(m_Thread, SIGUSR1);
    }
    return request.release();
}

void TimerQueue::KillRequest(Request* request)
{
    if (const auto found = m_Entries.find(request); found != m_Entries.end()) {
        Remove(found->second);
    }
}

void* TimerQueue::RunThread(void* queue)
{
    auto* const self = static_cast<TimerQueue*>(queue);
    CheckResult(pthread_sigmask(SIG_BLOCK, &self->m_WakeSignals, nullptr));
    for (;;) {
        if (const std::uint64_t wait = self->RunPass(); wait != 0) {
            self->Sleep(wait);
        }
    }
}

std::uint64_t TimerQueue::ElapsedMilliseconds(std::int64_t now) const
{
    const std::int64_t elapsed = now - m_StartTime + s_NanosecondsPerMillisecond / 2;
    return static_cast<std::uint64_t>(elapsed / s_NanosecondsPerMillisecond);
}

void TimerQueue::StartThread()
{
    CheckErrno(sigemptyset(&m_WakeSignals));
    CheckErrno(sigaddset(&m_WakeSignals, SIGUSR1));
    sigset_t callersMask;
    CheckResult(pthread_sigmask(SIG_BLOCK, &m_WakeSignals, &callersMask));
    pthread_attr_t attributes;
    CheckResult(pthread_attr_init(&attributes));
    CheckResult(pthread_attr_setscope(&attributes, PTHREAD_SCOPE_SYSTEM));
    // A failed creation may leave anything in the id.
    pthread_t thread = 0;
    CheckResult(pthread_create(&thread, &attributes, RunThread, this));
    m_Thread = thread;
    // Before the lock is released, and so before anything can fire.
    pthread_setname_np(m_Thread, "vela-timer");
    CheckResult(pthread_sigmask(SIG_SETMASK, &callersMask, nullptr));
}

bool TimerQueue::MustWakeFor(std::uint64_t expiry) const
{
    return m_NextWake == s_NotSleeping || Earlier()(expiry, m_NextWake);
}

void TimerQueue::Remove(RequestsByExpiry::iterator entry)
{
    const std::unique_ptr<const Request> request(entry->second);
    m_Entries.erase(request.get());
    m_Requests.erase(entry);
}

std::uint64_t TimerQueue::RunPass()
{
    const std::int64_t now = gethrtime();
    VelaHost_Utility::Locker locker(*this);
    const std::uint64_t elapsed = ElapsedMilliseconds(now);
    std::uint64_t wait = s_IdleWait;
    if (const auto first = m_Requests.begin(); first != m_Requests.end()) {
        if (!Earlier()(elapsed, first->first)) {
            ReqHandler* const handler = first->second->m_Handler;
            Remove(first);
            if (handler != nullptr) {
                handler->Fire(locker);
            }
            return 0;
        }
        wait = first->first - elapsed;
    }
    m_NextWake = elapsed + wait;
    return wait;
}

void TimerQueue::Sleep(std::uint64_t milliseconds) const
{
    timespec time{};
    if (milliseconds >= s_LongestSleep) {
        time.tv_sec = 1;
    } else {
        time.tv_nsec = static_cast<long>(static_cast<std::int64_t>(milliseconds) *
                                         s_NanosecondsPerMillisecond);
    }
    sigtimedwait(&m_WakeSignals, nullptr, &time);
}

} // namespace VelaHost_OS

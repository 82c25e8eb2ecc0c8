#include "Objects.h"
#include "PlatformMutex.h"

#include "support/FakeClock.h"
#include "support/Interpose.h"
#include "support/TimerThread.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_OS/TimerQueue.h>
#include <VelaHost_Utility/Timer.h>

#include <csignal>
#include <cstddef>
#include <utility>
#include <vector>

namespace velahost_test {

namespace {

using VelaHost_OS::TimerQueue;
using VelaHost_OS::TimerService;
using VelaHost_Utility::Locker;
using VelaHost_Utility::Timer;
using VelaHost_Utility::TimerException;

constexpr std::int64_t s_SomeSeconds = 1'000'000'000;
constexpr unsigned int s_Interval = 250;
constexpr std::int64_t s_LongAfterScenes = 10'000; // milliseconds

const Failure s_Misuse{0x2004, "TimerException(Sys=0x0)", "Timer", 90};

bool IsBlocked(int signalNumber)
{
    sigset_t mask;
    interposed::pthread_sigmask.Real(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, signalNumber) == 1;
}

/// True on the thread of the process's service, which other tests may have started; `owner` is the
/// test's own thread.
bool IsServiceThread(pthread_t owner)
{
    return pthread_equal(pthread_self(), owner) == 0;
}

void UnblockWakeSignal()
{
    sigset_t mask;
    interposed::sigemptyset.Real(&mask);
    interposed::sigaddset.Real(&mask, SIGUSR1);
    interposed::pthread_sigmask.Real(SIG_UNBLOCK, &mask, nullptr);
}

/// A queue whose thread is only pretended: nothing runs but what the test calls.
struct Queue
{
    FakeClock clock{s_SomeSeconds};
    int threads = 0;
    int wakes = 0;
    Hook<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> create{
        interposed::pthread_create,
        [this](pthread_t* thread, const pthread_attr_t*, void* (*)(void*), void*) {
            ++threads;
            *thread = pthread_self();
            return 0;
        }};
    Hook<int(pthread_t, int)> kill{interposed::pthread_kill, [this](pthread_t, int number) {
                                       wakes += number == SIGUSR1;
                                       return 0;
                                   }};
    Hook<int(pthread_t, const char*)> name{interposed::pthread_setname_np,
                                           [](pthread_t, const char*) { return 0; }};
    const pthread_t owner = pthread_self();
    long long slept = 0;
    Hook<int(const sigset_t*, siginfo_t*, const timespec*)> rest{
        interposed::sigtimedwait,
        [this](const sigset_t*, siginfo_t*, const timespec* time) -> std::optional<int> {
            if (IsServiceThread(owner)) {
                return std::nullopt;
            }
            slept = time->tv_sec * 1000LL + time->tv_nsec / 1'000'000;
            throw Interrupted{"asleep"};
        }};
    TimerQueue queue;
    TimerService::Request* requests[4] = {};
    int requestCount = 0;

    ~Queue()
    {
        for (TimerService::Request* request : requests) {
            queue.KillRequest(request);
        }
        UnblockWakeSignal();
        ReleaseIfHeld(PlatformMutex(queue));
    }

    void Request()
    {
        // Each for an earlier time than the one before, so that it wakes the thread.
        requests[requestCount] =
            queue.MakeRequest(nullptr, s_Interval / static_cast<unsigned int>(requestCount + 1));
        ++requestCount;
    }
    /// Milliseconds that the thread would sleep now: until the first request, a second at most.
    long long Sleep()
    {
        try {
            TimerQueue::RunThread(&queue);
        } catch (const Interrupted&) {
            // It sleeps.
        }
        return slept;
    }
    std::string GetState()
    {
        const bool blocked = IsBlocked(SIGUSR1);
        const std::string state = "next " + std::to_string(Sleep()) + ", threads " +
                                  std::to_string(threads) + ", wakes " + std::to_string(wakes) +
                                  (blocked ? ", blocked" : ", unblocked");
        if (!blocked) {
            UnblockWakeSignal();
        }
        return state;
    }
};

struct QueueWithRequest : Queue
{
    QueueWithRequest() { Request(); }
};

template <typename Fixture>
Told MakeRequest(Fixture& f)
{
    f.Request();
    return "made";
}

struct CountingHandler final : TimerService::ReqHandler
{
    int fired = 0;

    void Fire(Locker& locker) override
    {
        ++fired;
        locker.Unlock();
    }
};

/// The body of a queue's thread on the test's own, until it sleeps for the second time.
struct ThreadBody : Queue
{
    CountingHandler handler;
    int sleeps = 0;
    Hook<int(const sigset_t*, siginfo_t*, const timespec*)> sleep{
        interposed::sigtimedwait,
        [this](const sigset_t*, siginfo_t*, const timespec*) -> std::optional<int> {
            if (IsServiceThread(owner)) {
                return std::nullopt;
            }
            if (++sleeps == 2) {
                sleeps = 0;
                throw Interrupted{"asleep again"};
            }
            return 0;
        }};

    ThreadBody() { requests[0] = queue.MakeRequest(&handler, 0); }

    std::string GetState()
    {
        return "fired " + std::to_string(handler.fired) +
               (IsHeld(PlatformMutex(queue)) ? ", held" : ", free");
    }
};

/// The process's one service, its thread asleep and its clock at a stand.
struct Service
{
    TimerThread thread;
    TimerService& service = *TimerService::GetInstance();

    Service()
    {
        // The first request of the process starts the thread; one for this very moment wakes it,
        // whatever it sleeps towards. Several, at first, are more than all scenes together leave
        // pending, so that none of them makes the queue grow.
        static std::size_t s_RequestCount = 16;
        Locker locker(service);
        std::vector<TimerService::Request*> requests;
        while (requests.size() < s_RequestCount) {
            requests.push_back(service.MakeRequest(nullptr, 0));
        }
        for (TimerService::Request* const request : requests) {
            service.KillRequest(request);
        }
        locker.Unlock();
        s_RequestCount = 1;
        // A request that a former scene has left would be the next one in all of this one's time.
        thread.WakeAfter(s_LongAfterScenes);
        thread.WakeAfter(-s_LongAfterScenes);
    }
    ~Service() { ReleaseIfHeld(PlatformMutex(service)); }

    std::string GetLockState() { return IsHeld(PlatformMutex(service)) ? ", held" : ", free"; }
};

struct Counter final : Timer::Handler
{
    int calls = 0;
    void OnTimer(Timer*) override { ++calls; }
};

template <bool periodic>
struct StoppedTimer : Service
{
    Counter counter;
    Timer* timer = new Timer(s_Interval, &counter, periodic);

    ~StoppedTimer()
    {
        ReleaseIfHeld(PlatformMutex(service));
        delete timer;
    }

    std::string GetState()
    {
        const std::string lock = GetLockState();
        ReleaseIfHeld(PlatformMutex(service));
        return std::string(timer == nullptr     ? "gone"
                           : timer->IsRunning() ? "running"
                                                : "stopped") +
               ", calls " + std::to_string(counter.calls) + lock;
    }
};

template <bool periodic>
struct RunningTimer : StoppedTimer<periodic>
{
    RunningTimer() { this->timer->Start(); }
};

using Stopped = StoppedTimer<false>;
using Running = RunningTimer<false>;

/// A timer that is due, and the body of the service's thread on the test's own, until it sleeps.
template <bool periodic>
struct DueTimer : RunningTimer<periodic>
{
    // The real thread stays asleep inside the hook before.
    Hook<int(const sigset_t*, siginfo_t*, const timespec*)> sleep{
        interposed::sigtimedwait,
        [](const sigset_t*, siginfo_t*, const timespec*) -> std::optional<int> {
            throw Interrupted{"asleep"};
        }};

    DueTimer() { this->thread.Clock().AdvanceMilliseconds(s_Interval); }
    ~DueTimer() { UnblockWakeSignal(); }
};

template <bool periodic>
Told RunServiceThread(DueTimer<periodic>& f)
{
    TimerQueue::RunThread(&dynamic_cast<TimerQueue&>(f.service));
    return "ended";
}

} // namespace

std::vector<Operation> TimerOperations()
{
    constexpr unsigned int each = Row::each;
    const Effect throws = ThrowsSystem(0);
    const Effect misuse = Throws<TimerException>(s_Misuse);

    return {
        {"TimerQueue_Construct",
         With<Nothing<TimerQueue>>(Make<TimerQueue>),
         Tells("made").Leaves("made"),
         {{"pthread_mutexattr_init", each, ENOMEM, throws},
          {"pthread_mutexattr_settype", each, EINVAL, throws},
          {"pthread_mutex_init", each, EAGAIN, throws},
          {"pthread_mutexattr_destroy", each, EINVAL, throws},
          // The queue's clock then begins with the epoch.
          {"gettimeofday", each, EINVAL, Ignored()}}},

        {"TimerQueue_Destroy",
         With<Doomed<TimerQueue>>(Delete<TimerQueue>),
         Tells("deleted").Leaves("freed"),
         {{"pthread_mutex_destroy", each, EBUSY, throws.ThenNoMore()}}},

        // After the first pthread_sigmask a failure leaves SIGUSR1 blocked; the next call
        // starts afresh, but not a thread that has been started.
        {"TimerQueue_MakeRequest_First",
         With<Queue>(MakeRequest<Queue>),
         Tells("made").Leaves("next 250, threads 1, wakes 1, unblocked"),
         // Made at a time that could not be read, it has expired.
         {{"gettimeofday", each, EINVAL,
           Tells("made").Leaves("next 1000, threads 1, wakes 1, unblocked")},
          {"sigemptyset", each, EINVAL, ThrowsSystem(EINVAL)},
          {"sigaddset", each, EINVAL, ThrowsSystem(EINVAL)},
          {"pthread_sigmask", 1, EINVAL, throws},
          {"pthread_attr_init", each, ENOMEM,
           throws.Leaves("next 1000, threads 0, wakes 0, blocked")},
          {"pthread_attr_setscope", each, ENOTSUP,
           throws.Leaves("next 1000, threads 0, wakes 0, blocked")},
          {"pthread_create", each, EAGAIN, throws.Leaves("next 1000, threads 0, wakes 0, blocked")},
          {"pthread_setname_np", each, ENOENT, Ignored()},
          {"pthread_sigmask", 2, EINVAL, throws.Leaves("next 1000, threads 1, wakes 0, blocked")},
          {"pthread_kill", each, ESRCH,
           Tells("made").Leaves("next 250, threads 1, wakes 0, unblocked")}},
         {{each, OutOfMemory().Leaves("next 1000, threads 1, wakes 0, unblocked")}}},

        {"TimerQueue_MakeRequest_Later",
         With<QueueWithRequest>(MakeRequest<QueueWithRequest>),
         Tells("made").Leaves("next 125, threads 1, wakes 2, unblocked"),
         {{"gettimeofday", each, EINVAL,
           Tells("made").Leaves("next 250, threads 1, wakes 2, unblocked")},
          {"pthread_kill", each, ESRCH,
           Tells("made").Leaves("next 125, threads 1, wakes 1, unblocked")}}},

        {"TimerQueue_KillRequest", With<QueueWithRequest>([](QueueWithRequest& f) {
             f.queue.KillRequest(f.requests[0]);
             return Told("killed");
         }),
         Tells("killed").Leaves("next 1000, threads 1, wakes 1, unblocked")},

        // What fails in the thread comes out of its body, and so ends the process. A clock that
        // can't be read stands before all expiries; a failed unlock in a handler is followed by
        // the guard's own attempt, which must not fail, too.
        {"TimerQueue_RunThread",
         With<ThreadBody>([](ThreadBody& f) {
             TimerQueue::RunThread(&f.queue);
             return Told("ended");
         }),
         Tells("asleep again").Leaves("fired 1, free"),
         {{"pthread_sigmask", each, EINVAL, throws},
          {"prctl", each, EINVAL, Ignored()},
          {"gettimeofday", 1, EINVAL, Ignored(), Tells("asleep again")},
          {"gettimeofday", each, EINVAL, Ignored()},
          {"pthread_mutex_lock", 1, EINVAL, throws},
          {"pthread_mutex_lock", each, EINVAL, throws.Leaves("fired 1, free")},
          {"pthread_mutex_unlock", 1, EPERM, throws.Leaves("fired 1, free"), EndsProcess()},
          {"pthread_mutex_unlock", each, EPERM, throws.Leaves("fired 1, held")},
          {"sigtimedwait", each, EINTR, Ignored()}}},

        {"TimerService_GetInstance", With<Stopped>([](Stopped& f) {
             return Told::Number(TimerService::GetInstance() == &f.service);
         }),
         Tells("1")},

        {"Timer_Construct",
         With<Stopped>([](Stopped& f) {
             const Timer timer(s_Interval, &f.counter, true);
             return Told::Number(timer.GetInterval());
         }),
         Tells("250"),
         // The destructor stops it.
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"pthread_mutex_unlock", each, EPERM, throws.Leaves("stopped, calls 0, held")}}},

        {"Timer_Start",
         With<Stopped>([](Stopped& f) {
             f.timer->Start();
             return Told("started");
         }),
         Tells("started").Leaves("running, calls 0, free"),
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"gettimeofday", each, EINVAL, Ignored()},
          {"pthread_kill", each, ESRCH, Ignored()},
          {"pthread_mutex_unlock", each, EPERM,
           throws.Leaves("running, calls 0, held").Then(misuse.told)}}},

        // The guard goes while the exception is on its way: a second one ends the process.
        {"Timer_Start_Running",
         With<Running>([](Running& f) {
             f.timer->Start();
             return Told("started");
         }),
         misuse,
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"pthread_mutex_unlock", each, EPERM, EndsProcess()},
          {"puts", each, EIO, Unlogged(misuse)},
          {"fflush", each, EIO, Ignored()}}},

        {"Timer_Stop",
         With<Running>([](Running& f) {
             f.timer->Stop();
             return Told("stopped");
         }),
         Tells("stopped").Leaves("stopped, calls 0, free"),
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"pthread_mutex_unlock", each, EPERM, throws.Leaves("stopped, calls 0, held")}}},

        {"Timer_Stop_Stopped",
         With<Stopped>([](Stopped& f) {
             f.timer->Stop();
             return Told("stopped");
         }),
         Tells("stopped"),
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"pthread_mutex_unlock", each, EPERM, throws.Leaves("stopped, calls 0, held")}}},

        {"Timer_Restart",
         With<Running>([](Running& f) {
             f.timer->Restart();
             return Told("restarted");
         }),
         Tells("restarted"),
         // First the stop's, then the start's.
         {{"pthread_mutex_lock", 1, EINVAL, throws},
          {"pthread_mutex_unlock", 1, EPERM, throws.Leaves("stopped, calls 0, held")},
          {"pthread_mutex_lock", 2, EINVAL, throws.Leaves("stopped, calls 0, free")},
          {"gettimeofday", each, EINVAL, Ignored()},
          {"pthread_kill", each, ESRCH, Ignored()},
          {"pthread_mutex_unlock", 2, EPERM, throws.Leaves("running, calls 0, held")}}},

        {"Timer_IsRunning",
         With<Running>([](Running& f) { return Told::Number(f.timer->IsRunning()); }),
         Tells("1"),
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"pthread_mutex_unlock", each, EPERM, throws.Leaves("running, calls 0, held")}}},

        // The request that can't be killed stays queued without a handler; the thread frees it.
        {"Timer_Destroy",
         With<Running>([](Running& f) {
             delete std::exchange(f.timer, nullptr);
             return Told("deleted");
         }),
         Tells("deleted").Leaves("gone, calls 0, free"),
         {{"pthread_mutex_lock", each, EINVAL,
           throws.Leaves("gone, calls 0, free").ThenNoMore().KeepingMemory()},
          {"pthread_mutex_unlock", each, EPERM,
           throws.Leaves("gone, calls 0, held").ThenNoMore()}}},

        {"Timer_Fire",
         With<DueTimer<false>>(RunServiceThread<false>),
         Tells("asleep").Leaves("stopped, calls 1, free"),
         {{"pthread_sigmask", each, EINVAL, throws},
          {"prctl", each, EINVAL, Ignored()},
          {"gettimeofday", 1, EINVAL, Tells("asleep")},
          {"gettimeofday", 2, EINVAL, Ignored()},
          {"pthread_mutex_lock", 1, EINVAL, throws},
          {"pthread_mutex_unlock", 1, EPERM, throws.Leaves("stopped, calls 0, free"),
           EndsProcess()},
          {"pthread_mutex_lock", 2, EINVAL, throws.Leaves("stopped, calls 1, free")},
          {"pthread_mutex_unlock", 2, EPERM, throws.Leaves("stopped, calls 1, held")},
          {"sigtimedwait", each, EINTR, Ignored()}}},

        // Re-armed at a time that could not be read, it is due again at once, or never.
        {"Timer_Fire_Periodic",
         With<DueTimer<true>>(RunServiceThread<true>),
         Tells("asleep").Leaves("running, calls 1, free"),
         {{"pthread_sigmask", each, EINVAL, throws},
          {"prctl", each, EINVAL, Ignored()},
          {"gettimeofday", 1, EINVAL, Tells("asleep")},
          {"gettimeofday", 2, EINVAL, Tells("asleep").Leaves("running, calls 2, free"), Ignored()},
          {"gettimeofday", 3, EINVAL, Ignored()},
          {"pthread_mutex_lock", 1, EINVAL, throws},
          {"pthread_kill", each, ESRCH, Ignored()},
          {"pthread_mutex_unlock", 1, EPERM, throws.Leaves("running, calls 0, free"),
           EndsProcess()},
          {"pthread_mutex_lock", 2, EINVAL, throws.Leaves("running, calls 1, free")},
          {"pthread_mutex_unlock", 2, EPERM, throws.Leaves("running, calls 1, held")},
          {"sigtimedwait", each, EINTR, Ignored()}}},
    };
}

} // namespace velahost_test

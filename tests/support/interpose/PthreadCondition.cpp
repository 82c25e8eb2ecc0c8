#include "support/Sanitizers.h"
#include "support/interpose/Interposed.h"

#include <ctime>
#include <pthread.h>

namespace velahost_test::interposed {

constinit Interposed<int(pthread_cond_t*, const pthread_condattr_t*)>
    pthread_cond_init("pthread_cond_init", FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_cond_t*)> pthread_cond_destroy("pthread_cond_destroy",
                                                                FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_cond_t*)> pthread_cond_broadcast("pthread_cond_broadcast",
                                                                  FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_cond_t*, pthread_mutex_t*)>
    pthread_cond_wait("pthread_cond_wait", FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_cond_t*, pthread_mutex_t*, const WideTimespec*)>
    pthread_cond_timedwait("pthread_cond_timedwait", FailureStyle::ErrorNumber,
                           WideSymbol("pthread_cond_timedwait", "__pthread_cond_timedwait64"));

/// Valgrind's tools follow a timed wait only by its narrow entry, and with it who holds the mutex.
static int TimedwaitByTheNarrowEntry(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                     const WideTimespec* deadline)
{
    static Interposed<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> s_Narrow(
        "pthread_cond_timedwait", FailureStyle::ErrorNumber);
    timespec narrow{};
    narrow.tv_sec = static_cast<std::time_t>(deadline->tv_sec);
    narrow.tv_nsec = deadline->tv_nsec;
    return s_Narrow.Real(condition, mutex, &narrow);
}

[[gnu::constructor]] static void Start()
{
    if (!wide::isDefault && IsOnValgrind()) {
        pthread_cond_timedwait.ReplaceReal(TimedwaitByTheNarrowEntry);
    }
}

static const Registration s_Registration{&pthread_cond_init, &pthread_cond_destroy,
                                         &pthread_cond_broadcast, &pthread_cond_wait,
                                         &pthread_cond_timedwait};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;
using velahost_test::WideTimespec;

extern "C" {

int WideTimedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                  const WideTimespec* deadline) asm("__pthread_cond_timedwait64");

int pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) noexcept
{
    return interposed::pthread_cond_init.Call(condition, attributes);
}

int pthread_cond_destroy(pthread_cond_t* condition) noexcept
{
    return interposed::pthread_cond_destroy.Call(condition);
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    return interposed::pthread_cond_broadcast.Call(condition);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return interposed::pthread_cond_wait.Call(condition, mutex);
}

int WideTimedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const WideTimespec* deadline)
{
    return interposed::pthread_cond_timedwait.Call(condition, mutex, deadline);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                           const timespec* deadline)
{
    const WideTimespec wide = velahost_test::Widened(*deadline);
    return interposed::pthread_cond_timedwait.Call(condition, mutex, &wide);
}

} // extern "C"

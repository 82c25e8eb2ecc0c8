#include "support/interpose/Interposed.h"

#include <pthread.h>

namespace velahost_test::interposed {

constinit Interposed<int(pthread_mutex_t*, const pthread_mutexattr_t*)>
    pthread_mutex_init("pthread_mutex_init", FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_mutex_t*)> pthread_mutex_destroy("pthread_mutex_destroy",
                                                                  FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_mutex_t*)> pthread_mutex_lock("pthread_mutex_lock",
                                                               FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_mutex_t*)> pthread_mutex_trylock("pthread_mutex_trylock",
                                                                  FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_mutex_t*)> pthread_mutex_unlock("pthread_mutex_unlock",
                                                                 FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_mutexattr_t*)> pthread_mutexattr_init("pthread_mutexattr_init",
                                                                       FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_mutexattr_t*)>
    pthread_mutexattr_destroy("pthread_mutexattr_destroy", FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_mutexattr_t*, int)>
    pthread_mutexattr_settype("pthread_mutexattr_settype", FailureStyle::ErrorNumber);

static const Registration s_Registration{&pthread_mutex_init,        &pthread_mutex_destroy,
                                         &pthread_mutex_lock,        &pthread_mutex_trylock,
                                         &pthread_mutex_unlock,      &pthread_mutexattr_init,
                                         &pthread_mutexattr_destroy, &pthread_mutexattr_settype};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept
{
    return interposed::pthread_mutex_init.Call(mutex, attributes);
}

int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept
{
    return interposed::pthread_mutex_destroy.Call(mutex);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    return interposed::pthread_mutex_lock.Call(mutex);
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept
{
    return interposed::pthread_mutex_trylock.Call(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    return interposed::pthread_mutex_unlock.Call(mutex);
}

int pthread_mutexattr_init(pthread_mutexattr_t* attributes) noexcept
{
    return interposed::pthread_mutexattr_init.Call(attributes);
}

int pthread_mutexattr_destroy(pthread_mutexattr_t* attributes) noexcept
{
    return interposed::pthread_mutexattr_destroy.Call(attributes);
}

int pthread_mutexattr_settype(pthread_mutexattr_t* attributes, int type) noexcept
{
    return interposed::pthread_mutexattr_settype.Call(attributes, type);
}

} // extern "C"

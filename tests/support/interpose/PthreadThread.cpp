#include "support/interpose/Interposed.h"

#include <pthread.h>
#include <signal.h>

namespace velahost_test::interposed {

constinit Interposed<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>
    pthread_create("pthread_create", FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_t, void**)> pthread_join("pthread_join",
                                                          FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_t)> pthread_cancel("pthread_cancel", FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_t, int)> pthread_kill("pthread_kill", FailureStyle::ErrorNumber);
constinit Interposed<int(int, int*)> pthread_setcanceltype("pthread_setcanceltype",
                                                           FailureStyle::ErrorNumber);

static const Registration s_Registration{&pthread_create, &pthread_join, &pthread_cancel,
                                         &pthread_kill, &pthread_setcanceltype};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) noexcept
{
    return interposed::pthread_create.Call(thread, attributes, entry, argument);
}

int pthread_join(pthread_t thread, void** result)
{
    return interposed::pthread_join.Call(thread, result);
}

int pthread_cancel(pthread_t thread)
{
    return interposed::pthread_cancel.Call(thread);
}

int pthread_kill(pthread_t thread, int signalNumber) noexcept
{
    return interposed::pthread_kill.Call(thread, signalNumber);
}

int pthread_setcanceltype(int type, int* oldType)
{
    return interposed::pthread_setcanceltype.Call(type, oldType);
}

} // extern "C"

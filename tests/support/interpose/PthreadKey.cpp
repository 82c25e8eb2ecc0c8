#include "support/interpose/Interposed.h"

#include <cstdint>
#include <pthread.h>

namespace velahost_test::interposed {

constinit Interposed<int(pthread_key_t*, void (*)(void*))>
    pthread_key_create("pthread_key_create", FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_key_t)> pthread_key_delete("pthread_key_delete",
                                                            FailureStyle::ErrorNumber);
constinit Interposed<void*(pthread_key_t)> pthread_getspecific("pthread_getspecific",
                                                               FailureStyle::NullAndErrno);
constinit Interposed<int(pthread_key_t, std::uintptr_t)>
    pthread_setspecific("pthread_setspecific", FailureStyle::ErrorNumber);

static const Registration s_Registration{&pthread_key_create, &pthread_key_delete,
                                         &pthread_getspecific, &pthread_setspecific};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) noexcept
{
    return interposed::pthread_key_create.Call(key, destructor);
}

int pthread_key_delete(pthread_key_t key) noexcept
{
    return interposed::pthread_key_delete.Call(key);
}

void* pthread_getspecific(pthread_key_t key) noexcept
{
    return interposed::pthread_getspecific.Call(key);
}

int pthread_setspecific(pthread_key_t key, const void* value) noexcept
{
    return interposed::pthread_setspecific.Call(key, reinterpret_cast<std::uintptr_t>(value));
}

} // extern "C"

#include "support/interpose/Interposed.h"

#include <pthread.h>

namespace velahost_test::interposed {

constinit Interposed<int(pthread_attr_t*)> pthread_attr_init("pthread_attr_init",
                                                             FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_attr_t*)> pthread_attr_destroy("pthread_attr_destroy",
                                                                FailureStyle::ErrorNumber);

static const Registration s_Registration{&pthread_attr_init, &pthread_attr_destroy};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int pthread_attr_init(pthread_attr_t* attributes) noexcept
{
    return interposed::pthread_attr_init.Call(attributes);
}

int pthread_attr_destroy(pthread_attr_t* attributes) noexcept
{
    return interposed::pthread_attr_destroy.Call(attributes);
}

} // extern "C"

#include "support/interpose/Interposed.h"

#include <dlfcn.h>

namespace velahost_test::interposed {

constinit Interposed<void*(const char*, int)> dlopen("dlopen", FailureStyle::NullAndErrno);

static const Registration s_Registration{&dlopen};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

void* dlopen(const char* file, int flags) noexcept
{
    return interposed::dlopen.Call(file, flags);
}

} // extern "C"

#include "support/interpose/Interposed.h"

#include <dlfcn.h>

// dlsym is left alone: what RTLD_NEXT means depends on who calls it, and a sanitizer's run time
// calls it with just that.

namespace velahost_test::interposed {

constinit Interposed<void*(const char*, int)> dlopen("dlopen", FailureStyle::NullAndErrno);
constinit Interposed<int(void*)> dlclose("dlclose", FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{&dlopen, &dlclose};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

void* dlopen(const char* file, int mode) noexcept
{
    return interposed::dlopen.Call(file, mode);
}

int dlclose(void* library) noexcept
{
    return interposed::dlclose.Call(library);
}

} // extern "C"

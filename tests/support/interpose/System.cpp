#include "support/interpose/Interposed.h"

#include <unistd.h>

namespace velahost_test::interposed {

constinit Interposed<long(int)> sysconf("sysconf", FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{&sysconf};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

// The thread sanitizer calls it before instrumented code may run.
#ifndef __SANITIZE_THREAD__
extern "C" {

long sysconf(int name) noexcept
{
    return interposed::sysconf.Call(name);
}

} // extern "C"
#endif

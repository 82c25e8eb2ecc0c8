#include "support/interpose/Interposed.h"

#include <cstdlib>
#include <unistd.h>

namespace velahost_test::interposed {

constinit Interposed<long(int)> sysconf("sysconf", FailureStyle::MinusOneAndErrno);
// Its only "failure" is a variable that is not set; errno stays as it is, in truth.
constinit Interposed<char*(const char*)> getenv("getenv", FailureStyle::NullAndErrno);

static const Registration s_Registration{&sysconf, &getenv};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

// The thread sanitizer calls them before instrumented code may run.
#ifndef __SANITIZE_THREAD__
extern "C" {

long sysconf(int name) noexcept
{
    return interposed::sysconf.Call(name);
}

char* getenv(const char* name) noexcept
{
    return interposed::getenv.Call(name);
}

} // extern "C"
#endif

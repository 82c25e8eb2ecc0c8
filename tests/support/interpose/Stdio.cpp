#include "support/interpose/Interposed.h"

#include <cstdio>

namespace velahost_test::interposed {

constinit Interposed<int(const char*)> puts("puts", FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{&puts};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int puts(const char* line)
{
    return interposed::puts.Call(line);
}

} // extern "C"

#include "support/interpose/Interposed.h"

#include <ctime>
#include <sys/time.h>

namespace velahost_test::interposed {

constinit Interposed<int(timeval*, void*)> gettimeofday("gettimeofday",
                                                        FailureStyle::MinusOneAndErrno);
constinit Interposed<int(const timespec*, timespec*)> nanosleep("nanosleep",
                                                                FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{&gettimeofday, &nanosleep};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int gettimeofday(timeval* time, void* zone) noexcept
{
    return interposed::gettimeofday.Call(time, zone);
}

int nanosleep(const timespec* time, timespec* rest)
{
    return interposed::nanosleep.Call(time, rest);
}

} // extern "C"

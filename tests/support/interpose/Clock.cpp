#include "support/interpose/Interposed.h"

#include <ctime>
#include <sys/time.h>

namespace velahost_test::interposed {

constinit Interposed<int(timeval*, void*)> gettimeofday("gettimeofday",
                                                        FailureStyle::MinusOneAndErrno);
constinit Interposed<int(const timespec*, timespec*)> nanosleep("nanosleep",
                                                                FailureStyle::MinusOneAndErrno);
constinit Interposed<std::tm*(const std::time_t*, std::tm*)>
    localtime_r("localtime_r", FailureStyle::NullAndErrno);

static const Registration s_Registration{&gettimeofday, &nanosleep, &localtime_r};

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

std::tm* localtime_r(const std::time_t* seconds, std::tm* local) noexcept
{
    return interposed::localtime_r.Call(seconds, local);
}

} // extern "C"

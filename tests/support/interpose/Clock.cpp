#include "support/interpose/Interposed.h"

#include <ctime>
#include <sys/time.h>

namespace velahost_test::interposed {

constinit Interposed<int(WideTimeval*, void*)>
    gettimeofday("gettimeofday", FailureStyle::MinusOneAndErrno,
                 WideSymbol("gettimeofday", "__gettimeofday64"));
constinit Interposed<int(const WideTimespec*, WideTimespec*)>
    nanosleep("nanosleep", FailureStyle::MinusOneAndErrno,
              WideSymbol("nanosleep", "__nanosleep64"));
constinit Interposed<std::tm*(const std::int64_t*, std::tm*)>
    localtime_r("localtime_r", FailureStyle::NullAndErrno,
                WideSymbol("localtime_r", "__localtime64_r"));

static const Registration s_Registration{&gettimeofday, &nanosleep, &localtime_r};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;
using velahost_test::WideTimespec;
using velahost_test::WideTimeval;

extern "C" {

int WideGettimeofday(WideTimeval* time, void* zone) noexcept asm("__gettimeofday64");
int WideNanosleep(const WideTimespec* time, WideTimespec* rest) asm("__nanosleep64");
std::tm* WideLocaltime(const std::int64_t* seconds, std::tm* local) noexcept asm("__localtime64_r");

int WideGettimeofday(WideTimeval* time, void* zone) noexcept
{
    return interposed::gettimeofday.Call(time, zone);
}

int gettimeofday(timeval* time, void* zone) noexcept
{
    WideTimeval wide{};
    const int result = interposed::gettimeofday.Call(&wide, zone);
    if (result != -1) {
        time->tv_sec = static_cast<std::time_t>(wide.tv_sec);
        time->tv_usec = static_cast<suseconds_t>(wide.tv_usec);
    }
    return result;
}

int WideNanosleep(const WideTimespec* time, WideTimespec* rest)
{
    return interposed::nanosleep.Call(time, rest);
}

int nanosleep(const timespec* time, timespec* rest)
{
    const WideTimespec wide = velahost_test::Widened(*time);
    WideTimespec wideRest{};
    const int result = interposed::nanosleep.Call(&wide, &wideRest);
    if (result == -1 && rest != nullptr) {
        rest->tv_sec = static_cast<std::time_t>(wideRest.tv_sec);
        rest->tv_nsec = wideRest.tv_nsec;
    }
    return result;
}

std::tm* WideLocaltime(const std::int64_t* seconds, std::tm* local) noexcept
{
    return interposed::localtime_r.Call(seconds, local);
}

std::tm* localtime_r(const std::time_t* seconds, std::tm* local) noexcept
{
    const std::int64_t wide = *seconds;
    return interposed::localtime_r.Call(&wide, local);
}

} // extern "C"

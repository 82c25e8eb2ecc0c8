#pragma once

#include <cstdint>
#include <ctime>
#include <sys/time.h>
#include <type_traits>

namespace velahost_test {

/// Times as the library exchanges them with the platform: seconds have 64 bits at any word size.
/// At 32 bit the C library keeps functions of their own for these, beside those that most programs
/// call; an interposed function has both entries.
namespace wide {

constexpr bool isDefault = sizeof(std::time_t) == sizeof(std::int64_t);

struct Timeval
{
    std::int64_t tv_sec;
    std::int64_t tv_usec;
};

struct Timespec
{
    std::int64_t tv_sec;
    long tv_nsec;
    int padding;
};

} // namespace wide

using WideTimeval = std::conditional_t<wide::isDefault, timeval, wide::Timeval>;
using WideTimespec = std::conditional_t<wide::isDefault, timespec, wide::Timespec>;

/// The name of the C library's function for such times.
constexpr const char* WideSymbol(const char* narrow, const char* wide)
{
    return wide::isDefault ? narrow : wide;
}

inline WideTimespec Widened(const timespec& time)
{
    WideTimespec wide{};
    wide.tv_sec = time.tv_sec;
    wide.tv_nsec = time.tv_nsec;
    return wide;
}

} // namespace velahost_test

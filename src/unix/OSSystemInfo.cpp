#include <VelaHost_OS/SystemInfo.h>

#include <internal/unix/OSSystem.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <sys/time.h>
#include <unistd.h>

static const std::string s_CompName("OS");

namespace VelaHost_OS {

namespace {

constexpr int s_MillisecondsPerSecond = 1000;
constexpr int s_MicrosecondsPerMillisecond = 1000;
constexpr int s_NanosecondsPerMillisecond = 1'000'000;
constexpr std::int64_t s_NanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t s_NanosecondsPerMicrosecond = 1000;

static_assert(sizeof(std::time_t) == 8, "the clock goes on after January 2038");

timeval ReadClock()
{
    timeval now{};
    CheckErrno(gettimeofday(&now, nullptr));
    return now;
}

} // namespace

void GetLocalTime(_SYSTEMTIME* time)
{
    const timeval now = ReadClock();
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    time->year = local.tm_year + 1900;
    time->month = local.tm_mon + 1;
    time->dayOfWeek = local.tm_wday;
    time->day = local.tm_mday;
    time->hour = local.tm_hour;
    time->minute = local.tm_min;
    time->second = local.tm_sec;
    time->milliseconds = static_cast<std::int32_t>(
        (now.tv_usec + s_MicrosecondsPerMillisecond / 2) / s_MicrosecondsPerMillisecond);
}

void GetLogTime(unsigned int* hour, unsigned int* minute, unsigned int* second,
                unsigned int* milliseconds)
{
    _SYSTEMTIME time{};
    GetLocalTime(&time);
    *hour = static_cast<unsigned int>(time.hour);
    *minute = static_cast<unsigned int>(time.minute);
    *second = static_cast<unsigned int>(time.second);
    *milliseconds = static_cast<unsigned int>(time.milliseconds);
}

int GetElapsedSecs()
{
    return static_cast<int>(ReadClock().tv_sec);
}

std::int64_t gethrtime()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return now.tv_sec * s_NanosecondsPerSecond + now.tv_usec * s_NanosecondsPerMicrosecond;
}

int SleepMilliseconds(unsigned int milliseconds)
{
    timespec time{};
    time.tv_sec = static_cast<std::time_t>(milliseconds / s_MillisecondsPerSecond);
    time.tv_nsec =
        static_cast<long>(milliseconds % s_MillisecondsPerSecond) * s_NanosecondsPerMillisecond;
    return nanosleep(&time, nullptr);
}

int GetNumProcessors()
{
    return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
}

int GetLastError()
{
    return errno;
}

void OutputDebugString(char* /*text*/) {}

} // namespace VelaHost_OS

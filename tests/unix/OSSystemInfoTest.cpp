#include <VelaHost_OS/SystemInfo.h>

#include "support/CapturedStdout.h"
#include "support/FakeClock.h"
#include "support/ThrownException.h"
#include "support/interpose/Interposed.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <sys/time.h>
#include <thread>
#include <tuple>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {

using namespace VelaHost_OS;
using namespace velahost_test;
using VelaHost_Utility::SystemException;

static_assert(std::is_same_v<decltype(&GetLocalTime), void (*)(_SYSTEMTIME*)>);
static_assert(std::is_same_v<decltype(&GetLogTime),
                             void (*)(unsigned int*, unsigned int*, unsigned int*, unsigned int*)>);
static_assert(std::is_same_v<decltype(&GetElapsedSecs), int (*)()>);
static_assert(std::is_same_v<decltype(&gethrtime), std::int64_t (*)()>);
static_assert(std::is_same_v<decltype(&SleepMilliseconds), int (*)(unsigned int)>);
static_assert(std::is_same_v<decltype(&GetNumProcessors), int (*)()>);
static_assert(std::is_same_v<decltype(&GetLastError), int (*)()>);
static_assert(std::is_same_v<decltype(&OutputDebugString), void (*)(char*)>);

// The fields are 32-bit integers and lie in this order.
static_assert(offsetof(_SYSTEMTIME, year) == 0);
static_assert(offsetof(_SYSTEMTIME, month) == 4);
static_assert(offsetof(_SYSTEMTIME, dayOfWeek) == 8);
static_assert(offsetof(_SYSTEMTIME, day) == 12);
static_assert(offsetof(_SYSTEMTIME, hour) == 16);
static_assert(offsetof(_SYSTEMTIME, minute) == 20);
static_assert(offsetof(_SYSTEMTIME, second) == 24);
static_assert(offsetof(_SYSTEMTIME, milliseconds) == 28);
static_assert(sizeof(_SYSTEMTIME) == 32);

/// Sunday, 29 February 2004, 23:59:58 UTC.
constexpr std::int64_t s_LeapSunday = 1078099198;

/// While it lives, local time is that of the zone, in POSIX notation.
class TimeZone
{
public:
    explicit TimeZone(const char* zone)
    {
        if (const char* before = std::getenv("TZ")) {
            m_Before = before;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;
    ~TimeZone()
    {
        if (m_Before) {
            setenv("TZ", m_Before->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

private:
    std::optional<std::string> m_Before;
};

std::vector<int> LocalTime()
{
    _SYSTEMTIME time{-1, -1, -1, -1, -1, -1, -1, -1};
    GetLocalTime(&time);
    return {time.year, time.month,  time.dayOfWeek, time.day,
            time.hour, time.minute, time.second,    time.milliseconds};
}

std::vector<unsigned int> LogTime()
{
    unsigned int hour = 99;
    unsigned int minute = 99;
    unsigned int second = 99;
    unsigned int milliseconds = 9999;
    GetLogTime(&hour, &minute, &second, &milliseconds);
    return {hour, minute, second, milliseconds};
}

TEST(GetLocalTime, FillsEveryField)
{
    const TimeZone zone("UTC0");
    FakeClock clock(s_LeapSunday, 123'000);
    EXPECT_EQ(LocalTime(), (std::vector{2004, 2, 0, 29, 23, 59, 58, 123}));
    clock.AdvanceMilliseconds(2000);
    EXPECT_EQ(LocalTime(), (std::vector{2004, 3, 1, 1, 0, 0, 0, 123}));
    clock.Set(0);
    EXPECT_EQ(LocalTime(), (std::vector{1970, 1, 4, 1, 0, 0, 0, 0}));
    clock.Set(INT_MAX, 999'499);
    EXPECT_EQ(LocalTime(), (std::vector{2038, 1, 2, 19, 3, 14, 7, 999}));
    // The last second of a year, a Saturday.
    clock.Set(1136073599);
    EXPECT_EQ(LocalTime(), (std::vector{2005, 12, 6, 31, 23, 59, 59, 0}));
}

TEST(GetLocalTime, IsLocal)
{
    const FakeClock clock(s_LeapSunday);
    {
        const TimeZone zone("XST-5:30");
        EXPECT_EQ(LocalTime(), (std::vector{2004, 3, 1, 1, 5, 29, 58, 0}));
        EXPECT_EQ(LogTime(), (std::vector{5U, 29U, 58U, 0U}));
    }
    {
        const TimeZone zone("XST8");
        EXPECT_EQ(LocalTime(), (std::vector{2004, 2, 0, 29, 15, 59, 58, 0}));
    }
}

TEST(GetLocalTime, FollowsDaylightSaving)
{
    const TimeZone zone("XST1XDT,M3.5.0,M10.5.0");
    // 1 July 2004, 12:00 UTC.
    const FakeClock clock(1088683200);
    EXPECT_EQ(LocalTime(), (std::vector{2004, 7, 4, 1, 12, 0, 0, 0}));
}

class RoundedMilliseconds : public ::testing::TestWithParam<std::pair<int, int>>
{};

TEST_P(RoundedMilliseconds, AreTheNearestAndLeaveTheSecondAlone)
{
    const auto [microseconds, milliseconds] = GetParam();
    const TimeZone zone("UTC0");
    const FakeClock clock(s_LeapSunday, microseconds);
    EXPECT_EQ(LocalTime(), (std::vector{2004, 2, 0, 29, 23, 59, 58, milliseconds}));
    EXPECT_EQ(LogTime(), (std::vector{23U, 59U, 58U, static_cast<unsigned int>(milliseconds)}));
}

INSTANTIATE_TEST_SUITE_P(Of, RoundedMilliseconds,
                         ::testing::Values(std::pair{0, 0}, std::pair{499, 0}, std::pair{500, 1},
                                           std::pair{1499, 1}, std::pair{1500, 2},
                                           std::pair{999'499, 999}, std::pair{999'500, 1000},
                                           std::pair{999'999, 1000}));

TEST(GetLocalTime, PassesALeapSecondOn)
{
    const FakeClock clock(s_LeapSunday);
    const Hook<std::tm*(const std::int64_t*, std::tm*)> leap(
        interposed::localtime_r, [](const std::int64_t* seconds, std::tm* local) {
            EXPECT_EQ(*seconds, s_LeapSunday);
            *local = {};
            local->tm_sec = 60;
            return local;
        });
    EXPECT_EQ(LocalTime()[6], 60);
    EXPECT_EQ(LogTime()[2], 60U);
}

TEST(GetLocalTime, ReadsTheClockOnce)
{
    const FakeClock clock(s_LeapSunday);
    const CallCounter breakdowns("localtime_r");
    LocalTime();
    EXPECT_EQ(clock.GetReadCount(), 1U);
    EXPECT_EQ(breakdowns.GetCallCount(), 1U);
}

TEST(GetLogTime, ReadsTheClockOnce)
{
    const FakeClock clock(s_LeapSunday);
    const CallCounter breakdowns("localtime_r");
    LogTime();
    EXPECT_EQ(clock.GetReadCount(), 1U);
    EXPECT_EQ(breakdowns.GetCallCount(), 1U);
}

TEST(GetElapsedSecs, IsTheSecondsPartOfTheClock)
{
    FakeClock clock(s_LeapSunday, 999'999);
    EXPECT_EQ(GetElapsedSecs(), s_LeapSunday);
    EXPECT_EQ(clock.GetReadCount(), 1U);
    clock.Set(0);
    EXPECT_EQ(GetElapsedSecs(), 0);
    clock.Set(INT_MAX);
    EXPECT_EQ(GetElapsedSecs(), INT_MAX);
}

TEST(gethrtime, CountsNanosecondsInMicroseconds)
{
    FakeClock clock(s_LeapSunday, 123'456);
    EXPECT_EQ(gethrtime(), 1'078'099'198'123'456'000);
    EXPECT_EQ(clock.GetReadCount(), 1U);
    clock.Set(0);
    EXPECT_EQ(gethrtime(), 0);
    clock.Set(0, 1);
    EXPECT_EQ(gethrtime(), 1000);
    clock.Set(INT_MAX, 999'999);
    EXPECT_EQ(gethrtime(), 2'147'483'647'999'999'000);
}

TEST(WallClock, GoesBackWhenItIsSetBack)
{
    FakeClock clock(s_LeapSunday, 500'000);
    const int seconds = GetElapsedSecs();
    const std::int64_t nanoseconds = gethrtime();
    clock.AdvanceMilliseconds(-3'600'000);
    EXPECT_EQ(GetElapsedSecs(), seconds - 3600);
    EXPECT_EQ(gethrtime(), nanoseconds - 3'600'000'000'000);
}

TEST(WallClock, GoesOnPastJanuary2038)
{
    const TimeZone zone("UTC0");
    FakeClock clock(INT_MAX);
    EXPECT_EQ(LocalTime(), (std::vector{2038, 1, 2, 19, 3, 14, 7, 0}));
    clock.AdvanceMilliseconds(1000);
    EXPECT_EQ(LocalTime(), (std::vector{2038, 1, 2, 19, 3, 14, 8, 0}));
    EXPECT_EQ(LogTime(), (std::vector{3U, 14U, 8U, 0U}));
    EXPECT_EQ(gethrtime(), 2'147'483'648'000'000'000);
    // Its 32-bit result wraps, so that differences stay right.
    EXPECT_EQ(GetElapsedSecs(), INT_MIN);
    // 1 January 2200.
    clock.Set(7'258'118'400);
    EXPECT_EQ(LocalTime(), (std::vector{2200, 1, 3, 1, 0, 0, 0, 0}));
    EXPECT_EQ(gethrtime(), 7'258'118'400'000'000'000);
}

TEST(WallClock, IsTheSystems)
{
    timeval before{};
    timeval after{};
    ASSERT_EQ(gettimeofday(&before, nullptr), 0);
    const int seconds = GetElapsedSecs();
    const std::int64_t nanoseconds = gethrtime();
    ASSERT_EQ(gettimeofday(&after, nullptr), 0);
    const auto inNanoseconds = [](const timeval& time) {
        return (std::int64_t{time.tv_sec} * 1'000'000 + time.tv_usec) * 1000;
    };
    EXPECT_LE(before.tv_sec, seconds);
    EXPECT_LE(inNanoseconds(before), nanoseconds);
    EXPECT_LE(nanoseconds, inNanoseconds(after));
}

TEST(UnreadableClock, IsReportedByGetLocalTimeAndLeavesTheRecordAlone)
{
    CapturedStdout output;
    const FailingCall clock("gettimeofday", EFAULT);
    _SYSTEMTIME time{1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_TRUE(Throws<SystemException>([&] { GetLocalTime(&time); }, SystemFailure(EFAULT)));
    EXPECT_EQ(std::tie(time.year, time.month, time.dayOfWeek, time.day),
              std::make_tuple(1, 2, 3, 4));
    EXPECT_EQ(std::tie(time.hour, time.minute, time.second, time.milliseconds),
              std::make_tuple(5, 6, 7, 8));
    EXPECT_EQ(output.Stop(), SystemFailure(EFAULT).LogLine());
}

TEST(UnreadableClock, IsReportedByGetLogTimeAndLeavesItsArgumentsAlone)
{
    CapturedStdout output;
    const FailingCall clock("gettimeofday", EPERM);
    unsigned int hour = 1;
    unsigned int minute = 2;
    unsigned int second = 3;
    unsigned int milliseconds = 4;
    EXPECT_TRUE(Throws<SystemException>([&] { GetLogTime(&hour, &minute, &second, &milliseconds); },
                                        SystemFailure(EPERM)));
    EXPECT_EQ(std::tie(hour, minute, second, milliseconds), std::make_tuple(1U, 2U, 3U, 4U));
    EXPECT_EQ(output.Stop(), SystemFailure(EPERM).LogLine());
}

TEST(UnreadableClock, IsReportedByGetElapsedSecs)
{
    CapturedStdout output;
    const FailingCall clock("gettimeofday", EINVAL);
    EXPECT_TRUE(Throws<SystemException>([] { GetElapsedSecs(); }, SystemFailure(EINVAL)));
    EXPECT_EQ(output.Stop(), SystemFailure(EINVAL).LogLine());
}

TEST(UnreadableClock, MakesGethrtimeZero)
{
    CapturedStdout output;
    const FailingCall clock("gettimeofday", EINVAL);
    EXPECT_EQ(gethrtime(), 0);
    EXPECT_TRUE(clock.WasHit());
    EXPECT_EQ(output.Stop(), "");
}

using Sleep = Hook<int(const WideTimespec*, WideTimespec*)>;

TEST(SleepMilliseconds, SleepsOnceForSecondsAndNanoseconds)
{
    const std::vector<std::pair<unsigned int, std::pair<std::int64_t, long>>> expected = {
        {0, {0, 0}},    {1, {0, 1'000'000}},      {999, {0, 999'000'000}},
        {1000, {1, 0}}, {1500, {1, 500'000'000}}, {UINT_MAX, {4'294'967, 295'000'000}}};
    for (const auto& [milliseconds, time] : expected) {
        int calls = 0;
        std::pair<std::int64_t, long> asked;
        const Sleep sleep(interposed::nanosleep, [&](const WideTimespec* wanted, WideTimespec*) {
            ++calls;
            asked = {wanted->tv_sec, wanted->tv_nsec};
            return 0;
        });
        EXPECT_EQ(SleepMilliseconds(milliseconds), 0);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(asked, time) << milliseconds;
    }
}

TEST(SleepMilliseconds, ReturnsTheResultOfTheOneSleep)
{
    const FailingCall sleep("nanosleep", EINTR);
    errno = 0;
    EXPECT_EQ(SleepMilliseconds(60'000), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(sleep.GetCallCount(), 1U);
}

TEST(SleepMilliseconds, ReturnsAtOnceForZero)
{
    EXPECT_EQ(SleepMilliseconds(0), 0);
}

TEST(SleepMilliseconds, SleepsAtLeastTheTime)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SleepMilliseconds(30), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

TEST(SleepMilliseconds, EndsAtASignal)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    // Again and again: the first one may come before the sleep.
    const itimerval every10ms{{0, 10'000}, {0, 10'000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every10ms, nullptr), 0);
    errno = 0;
    EXPECT_EQ(SleepMilliseconds(60'000), -1);
    EXPECT_EQ(errno, EINTR);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST(GetNumProcessors, CountsThoseOnline)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "sysconf is not interposed here";
#endif
    const Hook<long(int)> processors(interposed::sysconf, [](int name) -> std::optional<long> {
        return name == _SC_NPROCESSORS_ONLN ? std::optional(12345L) : std::nullopt;
    });
    EXPECT_EQ(GetNumProcessors(), 12345);
}

TEST(GetNumProcessors, IsTheSystems)
{
    EXPECT_EQ(GetNumProcessors(), sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_GE(GetNumProcessors(), 1);
}

TEST(GetNumProcessors, IsMinusOneWhenTheSystemDoesNotTell)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "sysconf is not interposed here";
#endif
    const FailingCall processors("sysconf", EINVAL);
    EXPECT_EQ(GetNumProcessors(), -1);
}

TEST(GetLastError, IsTheCallingThreadsErrno)
{
    errno = 34;
    EXPECT_EQ(GetLastError(), 34);
    std::thread([] {
        errno = 35;
        EXPECT_EQ(GetLastError(), 35);
    }).join();
    errno = 36;
    EXPECT_EQ(GetLastError(), 36);
    EXPECT_EQ(errno, 36) << "reading it changes nothing";
}

TEST(OutputDebugString, DoesNothing)
{
    CapturedStdout output;
    char text[] = "text";
    errno = 5;
    OutputDebugString(text);
    OutputDebugString(nullptr);
    EXPECT_STREQ(text, "text");
    EXPECT_EQ(errno, 5);
    EXPECT_EQ(output.Stop(), "");
}

TEST(SystemInfo, MayBeAskedFromManyThreadsAtOnce)
{
    const TimeZone zone("XST-5:30");
    const FakeClock clock(s_LeapSunday, 7000);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                ASSERT_EQ(LocalTime(), (std::vector{2004, 3, 1, 1, 5, 29, 58, 7}));
                ASSERT_EQ(LogTime(), (std::vector{5U, 29U, 58U, 7U}));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace

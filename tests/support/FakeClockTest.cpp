#include "support/FakeClock.h"

#include <gtest/gtest.h>

#include <memory>
#include <sys/time.h>
#include <thread>
#include <utility>

namespace {

using namespace velahost_test;

std::pair<long, long> Now()
{
    timeval now{};
    EXPECT_EQ(gettimeofday(&now, nullptr), 0);
    return {static_cast<long>(now.tv_sec), static_cast<long>(now.tv_usec)};
}

TEST(FakeClock, StandsWhereItIsSet)
{
    FakeClock clock(1000, 5);
    EXPECT_EQ(Now(), std::pair(1000L, 5L));
    EXPECT_EQ(Now(), std::pair(1000L, 5L));
    clock.Set(7);
    EXPECT_EQ(Now(), std::pair(7L, 0L));
    clock.AdvanceMilliseconds(1500);
    EXPECT_EQ(Now(), std::pair(8L, 500'000L));
    clock.AdvanceMilliseconds(-2000);
    EXPECT_EQ(Now(), std::pair(6L, 500'000L));
    EXPECT_EQ(clock.GetMicroseconds(), 6'500'000);
    EXPECT_EQ(clock.GetReadCount(), 5U);
}

/// The entry that code with 64-bit time is linked with at 32 bit.
extern "C" int ReadWideClock(WideTimeval* time, void* zone) noexcept asm("__gettimeofday64");

TEST(FakeClock, AnswersUnderBothNames)
{
    const FakeClock clock(4'294'967'301, 5);
    WideTimeval now{};
    EXPECT_EQ(ReadWideClock(&now, nullptr), 0);
    EXPECT_EQ(now.tv_sec, 4'294'967'301);
    EXPECT_EQ(now.tv_usec, 5);
    // What doesn't fit is cut off, as by the platform.
    const long cut = sizeof(long) == 4 ? 5 : static_cast<long>(now.tv_sec);
    EXPECT_EQ(Now(), std::pair(cut, 5L));
}

TEST(FakeClock, IsEveryThreadsClock)
{
    const FakeClock clock(1000);
    std::thread([] { EXPECT_EQ(Now(), std::pair(1000L, 0L)); }).join();
    EXPECT_EQ(clock.GetReadCount(), 1U);
}

TEST(FakeClock, GivesTheRealClockBack)
{
    {
        const FakeClock clock(1000);
        EXPECT_EQ(Now().first, 1000);
    }
    // Any date after this was written.
    EXPECT_GT(Now().first, 1'700'000'000L);
}

} // namespace

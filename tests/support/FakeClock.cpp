#include "FakeClock.h"

#include "interpose/Interposed.h"

namespace velahost_test {

namespace {

constexpr std::int64_t s_MicrosecondsPerSecond = 1'000'000;
constexpr std::int64_t s_MicrosecondsPerMillisecond = 1000;

} // namespace

FakeClock::FakeClock(std::int64_t seconds, std::int64_t microseconds)
    : m_State(std::make_shared<State>()),
      m_Hook(interposed::gettimeofday, [state = m_State](WideTimeval* time, void*) {
          ++state->reads;
          const std::int64_t now = state->microseconds;
          time->tv_sec = now / s_MicrosecondsPerSecond;
          time->tv_usec = now % s_MicrosecondsPerSecond;
          return 0;
      })
{
    Set(seconds, microseconds);
}

void FakeClock::Set(std::int64_t seconds, std::int64_t microseconds)
{
    m_State->microseconds = seconds * s_MicrosecondsPerSecond + microseconds;
}

void FakeClock::AdvanceMilliseconds(std::int64_t milliseconds)
{
    m_State->microseconds += milliseconds * s_MicrosecondsPerMillisecond;
}

} // namespace velahost_test

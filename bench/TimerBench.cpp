// Starting and stopping one-shot timers among many pending ones that are far from due.
//
// timer/start-stop: batches of timers are started and then stopped; the time is that of one start
// and its stop. timer/stop: all pending timers are stopped; the time is that of one stop.
//
// With different expiries no two of the pending timers expire in the same millisecond; with the
// same expiries all timers have one interval. Stopping is in the order of starting, in the reverse
// order or in a random one.
#include "support/Processors.h"

#include <VelaHost_OS/SystemInfo.h>
#include <VelaHost_Utility/Timer.h>

#include <Poco/Clock.h>
#include <Poco/Util/Timer.h>
#include <Poco/Util/TimerTask.h>
#include <ace/Event_Handler.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Timer_Heap.h>
#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>
#include <uv.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

enum class Expiries { Different, Same };

constexpr unsigned int s_Hour = 3'600'000; // milliseconds
constexpr std::size_t s_BatchSize = 1000;

// The contestants. Each is a number of timers, all stopped, whose intervals are in milliseconds and
// are not changed while a timer runs.

class VelaHostTimers
{
public:
    VelaHostTimers(std::size_t count, Expiries) : m_Timers(count) {}
    void SetInterval(std::size_t timer, unsigned int interval)
    {
        m_Timers[timer].emplace(interval, nullptr, false);
    }
    void Start(std::size_t timer) { m_Timers[timer]->Start(); }
    void Stop(std::size_t timer) { m_Timers[timer]->Stop(); }
    void FinishBatch() {}

private:
    std::vector<std::optional<VelaHost_Utility::Timer>> m_Timers;
};

/// A tree under a lock, in which each timer knows its place.
class BareTimers
{
public:
    BareTimers(std::size_t count, Expiries) : m_Timers(count) {}
    void SetInterval(std::size_t timer, unsigned int interval)
    {
        m_Timers[timer].interval = interval;
    }
    void Start(std::size_t timer)
    {
        const std::lock_guard lock(m_Mutex);
        const std::int64_t now = VelaHost_OS::gethrtime() / 1'000'000;
        m_Timers[timer].place = m_Queue.emplace(now + m_Timers[timer].interval, nullptr);
    }
    void Stop(std::size_t timer)
    {
        const std::lock_guard lock(m_Mutex);
        m_Queue.erase(m_Timers[timer].place);
    }
    void FinishBatch() {}

private:
    using Queue = std::multimap<std::int64_t, void*>;
    struct Entry
    {
        unsigned int interval = 0;
        Queue::iterator place;
    };

    std::mutex m_Mutex;
    Queue m_Queue;
    std::vector<Entry> m_Timers;
};

/// Not safe for use by several threads, as all of the library's timers.
class LibuvTimers
{
public:
    LibuvTimers(std::size_t count, Expiries) : m_Timers(count), m_Intervals(count)
    {
        uv_loop_init(&m_Loop);
        for (uv_timer_t& timer : m_Timers) {
            uv_timer_init(&m_Loop, &timer);
        }
    }
    ~LibuvTimers()
    {
        for (uv_timer_t& timer : m_Timers) {
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        }
        uv_run(&m_Loop, UV_RUN_DEFAULT);
        uv_loop_close(&m_Loop);
    }
    void SetInterval(std::size_t timer, unsigned int interval) { m_Intervals[timer] = interval; }
    void Start(std::size_t timer)
    {
        uv_timer_start(
            &m_Timers[timer], [](uv_timer_t*) {}, m_Intervals[timer], 0);
    }
    void Stop(std::size_t timer) { uv_timer_stop(&m_Timers[timer]); }
    void FinishBatch() {}

private:
    uv_loop_t m_Loop{};
    std::vector<uv_timer_t> m_Timers;
    std::vector<unsigned int> m_Intervals;
};

/// With the library's locks. Timers of one interval use the queue that it has for that.
class LibeventTimers
{
public:
    LibeventTimers(std::size_t count, Expiries expiries)
        : m_Base(event_base_new()), m_Timers(count), m_Intervals(count)
    {
        if (expiries == Expiries::Same) {
            const timeval interval = ToTime(s_Hour);
            m_CommonInterval = event_base_init_common_timeout(m_Base, &interval);
        }
        for (event& timer : m_Timers) {
            evtimer_assign(
                &timer, m_Base, [](evutil_socket_t, short, void*) {}, nullptr);
        }
    }
    ~LibeventTimers()
    {
        for (event& timer : m_Timers) {
            event_del(&timer);
        }
        event_base_free(m_Base);
    }
    void SetInterval(std::size_t timer, unsigned int interval)
    {
        m_Intervals[timer] = ToTime(interval);
    }
    void Start(std::size_t timer)
    {
        event_add(&m_Timers[timer],
                  m_CommonInterval != nullptr ? m_CommonInterval : &m_Intervals[timer]);
    }
    void Stop(std::size_t timer) { event_del(&m_Timers[timer]); }
    void FinishBatch() {}

private:
    static timeval ToTime(unsigned int milliseconds)
    {
        timeval time{};
        time.tv_sec = static_cast<time_t>(milliseconds / 1000);
        time.tv_usec = static_cast<suseconds_t>(milliseconds % 1000 * 1000);
        return time;
    }

    event_base* m_Base;
    const timeval* m_CommonInterval = nullptr;
    std::vector<event> m_Timers;
    std::vector<timeval> m_Intervals;
};

/// A stopped timer's handler is run, too: the batch is finished when all of them have been.
class BoostTimers
{
public:
    BoostTimers(std::size_t count, Expiries) : m_Intervals(count)
    {
        for (std::size_t timer = 0; timer < count; ++timer) {
            m_Timers.emplace_back(m_Context);
        }
    }
    void SetInterval(std::size_t timer, unsigned int interval)
    {
        m_Intervals[timer] = std::chrono::milliseconds(interval);
    }
    void Start(std::size_t timer)
    {
        m_Timers[timer].expires_after(m_Intervals[timer]);
        m_Timers[timer].async_wait([](const boost::system::error_code&) {});
    }
    void Stop(std::size_t timer) { m_Timers[timer].cancel(); }
    void FinishBatch()
    {
        m_Context.poll();
        m_Context.restart();
    }

private:
    boost::asio::io_context m_Context;
    std::deque<boost::asio::steady_timer> m_Timers;
    std::vector<std::chrono::milliseconds> m_Intervals;
};

/// A cancelled task can't be started again, so each start makes one; it stays queued until it is
/// due.
class PocoTimers
{
public:
    PocoTimers(std::size_t count, Expiries) : m_Tasks(count), m_Intervals(count) {}
    void SetInterval(std::size_t timer, unsigned int interval)
    {
        m_Intervals[timer] = Poco::Clock::ClockDiff(interval) * 1000;
    }
    void Start(std::size_t timer)
    {
        m_Tasks[timer] = new Task;
        m_Timer.schedule(m_Tasks[timer], Poco::Clock() + m_Intervals[timer]);
    }
    void Stop(std::size_t timer) { m_Tasks[timer]->cancel(); }
    void FinishBatch() {}

private:
    class Task : public Poco::Util::TimerTask
    {
        void run() override {}
    };

    Poco::Util::Timer m_Timer;
    std::vector<Poco::Util::TimerTask::Ptr> m_Tasks;
    std::vector<Poco::Clock::ClockDiff> m_Intervals;
};

/// The timer heap with its lock and its room made beforehand.
class AceTimers
{
public:
    AceTimers(std::size_t count, Expiries) : m_Heap(count, true), m_Ids(count), m_Intervals(count)
    {}
    void SetInterval(std::size_t timer, unsigned int interval)
    {
        m_Intervals[timer].set(static_cast<time_t>(interval / 1000),
                               static_cast<suseconds_t>(interval % 1000 * 1000));
    }
    void Start(std::size_t timer)
    {
        m_Ids[timer] =
            m_Heap.schedule(&m_Handler, nullptr, m_Heap.gettimeofday() + m_Intervals[timer]);
    }
    void Stop(std::size_t timer) { m_Heap.cancel(m_Ids[timer]); }
    void FinishBatch() {}

private:
    class Handler : public ACE_Event_Handler
    {};

    Handler m_Handler;
    ACE_Timer_Heap m_Heap;
    std::vector<long> m_Ids;
    std::vector<ACE_Time_Value> m_Intervals;
};

enum class Order { InOrder, Reverse, Random };

std::vector<std::size_t> Shuffled(std::size_t count)
{
    std::vector<std::size_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), std::size_t{0});
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(1));
    return numbers;
}

std::vector<std::size_t> InThatOrder(std::size_t count, Order order)
{
    std::vector<std::size_t> numbers = Shuffled(count);
    if (order != Order::Random) {
        std::sort(numbers.begin(), numbers.end());
    }
    if (order == Order::Reverse) {
        std::reverse(numbers.begin(), numbers.end());
    }
    return numbers;
}

unsigned int LaterThan(unsigned int interval, std::size_t milliseconds)
{
    return interval + static_cast<unsigned int>(milliseconds);
}

/// The pending timers of one contestant, and behind them those of a batch, which are stopped.
template <typename Timers>
std::unique_ptr<Timers> MakeStanding(std::size_t pending, Expiries expiries)
{
    auto timers = std::make_unique<Timers>(pending + s_BatchSize, expiries);
    const bool differ = expiries == Expiries::Different;
    const std::vector<std::size_t> places = Shuffled(pending);
    for (std::size_t timer = 0; timer < pending; ++timer) {
        timers->SetInterval(timer, LaterThan(s_Hour, differ ? 2 * places[timer] : 0));
        timers->Start(timer);
    }
    for (std::size_t timer = 0; timer < s_BatchSize; ++timer) {
        const std::size_t place = timer * 7919 % s_BatchSize * pending / s_BatchSize;
        timers->SetInterval(pending + timer, LaterThan(s_Hour, differ ? 2 * place + 1 : 0));
    }
    return timers;
}

template <typename Timers>
std::unique_ptr<Timers> s_Standing;

template <typename Timers>
Timers& Standing(std::size_t pending, Expiries expiries)
{
    static std::pair<std::size_t, Expiries> s_Made;
    if (s_Standing<Timers> == nullptr || s_Made != std::pair(pending, expiries)) {
        s_Standing<Timers>.reset();
        s_Standing<Timers> = MakeStanding<Timers>(pending, expiries);
        s_Made = {pending, expiries};
    }
    return *s_Standing<Timers>;
}

template <typename Timers>
void StartAndStop(benchmark::State& state, std::size_t pending, Order order, Expiries expiries)
{
    bench::RunOn(bench::Processor::First);
    Timers& timers = Standing<Timers>(pending, expiries);
    const std::vector<std::size_t> stopped = InThatOrder(s_BatchSize, order);
    while (state.KeepRunningBatch(s_BatchSize)) {
        for (std::size_t timer = 0; timer < s_BatchSize; ++timer) {
            timers.Start(pending + timer);
        }
        for (const std::size_t timer : stopped) {
            timers.Stop(pending + timer);
        }
        timers.FinishBatch();
    }
}

/// Of as many timers as there are iterations. All expire in one millisecond, as far as the
/// contestant's clock allows.
template <typename Timers>
void StopAll(benchmark::State& state, std::size_t count)
{
    using std::chrono::milliseconds;
    using Clock = std::chrono::steady_clock;
    bench::RunOn(bench::Processor::First);
    // A process's timers may share one queue.
    s_Standing<Timers>.reset();
    Timers timers(count, Expiries::Same);
    const Clock::time_point expiry = Clock::now() + milliseconds(s_Hour);
    for (std::size_t timer = 0; timer < count; ++timer) {
        const auto interval = std::chrono::round<milliseconds>(expiry - Clock::now());
        timers.SetInterval(timer, static_cast<unsigned int>(interval.count()));
        timers.Start(timer);
    }
    const std::vector<std::size_t> stopped = Shuffled(count);
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(count))) {
        for (const std::size_t timer : stopped) {
            timers.Stop(timer);
        }
        timers.FinishBatch();
    }
}

template <typename Timers>
void Register(const char* contestant)
{
    const std::pair<Order, const char*> orders[] = {
        {Order::InOrder, "in-order"}, {Order::Reverse, "reverse"}, {Order::Random, "random"}};
    const std::pair<Expiries, const char*> expiries[] = {{Expiries::Different, "different"},
                                                         {Expiries::Same, "same"}};
    constexpr std::size_t most = 1'000'000;
    for (const std::size_t pending : {std::size_t{1000}, std::size_t{100'000}, most}) {
        for (const auto& [order, orderName] : orders) {
            // So many take seconds to set up.
            if (pending == most && order != Order::Random) {
                continue;
            }
            for (const auto& [expiry, expiryName] : expiries) {
                const std::string name = "timer/start-stop/pending:" + std::to_string(pending) +
                                         "/order:" + orderName + "/expiries:" + expiryName + "/" +
                                         contestant;
                benchmark::internal::Benchmark* const run = benchmark::RegisterBenchmark(
                    name.c_str(), [=, o = order, e = expiry](benchmark::State& state) {
                        StartAndStop<Timers>(state, pending, o, e);
                    });
                run->UseRealTime();
                if (pending == most) {
                    run->Repetitions(1);
                }
            }
        }
    }
    constexpr std::size_t count = 100'000;
    const std::string name =
        "timer/stop/pending:" + std::to_string(count) + "/order:random/expiries:one/" + contestant;
    benchmark::RegisterBenchmark(name.c_str(),
                                 [](benchmark::State& state) { StopAll<Timers>(state, count); })
        ->Iterations(count)
        ->UseRealTime();
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    evthread_use_pthreads();
    Register<VelaHostTimers>("velahost");
    Register<BareTimers>("floor");
    Register<LibuvTimers>("libuv");
    Register<LibeventTimers>("libevent");
    Register<BoostTimers>("boost");
    Register<PocoTimers>("poco");
    Register<AceTimers>("ace");
    benchmark::RunSpecifiedBenchmarks();
}

// How late timers fire that are started again and again, each by its own handler.
//
// A timer is due an interval after the time that is read just before it is started; its lateness
// is the time that is read first thing in its handler less that, in microseconds, and 0 when it
// fires early, as a service that counts in whole milliseconds may.
#include "support/Processors.h"

#include <VelaHost_Utility/Timer.h>

#include <Poco/Clock.h>
#include <Poco/Util/Timer.h>
#include <Poco/Util/TimerTask.h>
#include <ace/Event_Handler.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Timer_Heap.h>
#include <ace/Timer_Queue_Adapters.h>
#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>
#include <uv.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <deque>
#include <semaphore>
#include <string>
#include <vector>

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds s_Duration(500);

/// One measurement. What fires is noted by one thread.
class Run
{
public:
    Run(milliseconds interval, std::size_t timers)
        : m_Interval(interval), m_End(Clock::now() + s_Duration), m_Running(timers), m_Due(timers)
    {
        m_Latenesses.reserve(1'000'000);
    }

    milliseconds GetInterval() const { return m_Interval; }
    std::size_t GetTimerCount() const { return m_Due.size(); }

    /// To be called just before that timer is started.
    void NoteStart(std::size_t timer) { m_Due[timer] = Clock::now() + m_Interval; }

    /// To be called first thing in its handler. False when it is not to be started again.
    bool NoteFiring(std::size_t timer)
    {
        const Clock::time_point now = Clock::now();
        m_Latenesses.push_back(std::max(now - m_Due[timer], Clock::duration::zero()));
        if (now < m_End) {
            return true;
        }
        if (--m_Running == 0) {
            m_Finished.release();
        }
        return false;
    }

    bool IsFinished() const { return m_Running == 0; }
    void WaitUntilFinished() { m_Finished.acquire(); }

    /// Of all firings, in microseconds.
    double GetPercentile(double share)
    {
        const auto rank =
            static_cast<std::ptrdiff_t>(static_cast<double>(m_Latenesses.size() - 1) * share + 0.5);
        const auto place = m_Latenesses.begin() + rank;
        std::nth_element(m_Latenesses.begin(), place, m_Latenesses.end());
        return std::chrono::duration<double, std::micro>(*place).count();
    }

private:
    milliseconds m_Interval;
    Clock::time_point m_End;
    std::size_t m_Running;
    std::vector<Clock::time_point> m_Due;
    std::vector<Clock::duration> m_Latenesses;
    std::binary_semaphore m_Finished{0};
};

// The contestants. Each starts a run's timers and returns when the run is finished.

void RunVelaHost(Run& run)
{
    class Restarting : public VelaHost_Utility::Timer::Handler
    {
    public:
        Restarting(Run& observer, std::size_t number) : m_Run(observer), m_Number(number) {}
        void OnTimer(VelaHost_Utility::Timer* timer) override
        {
            if (m_Run.NoteFiring(m_Number)) {
                m_Run.NoteStart(m_Number);
                timer->Start();
            }
        }

    private:
        Run& m_Run;
        std::size_t m_Number;
    };

    const auto interval = static_cast<unsigned int>(run.GetInterval().count());
    std::deque<Restarting> handlers;
    std::deque<VelaHost_Utility::Timer> timers;
    for (std::size_t number = 0; number < run.GetTimerCount(); ++number) {
        handlers.emplace_back(run, number);
        timers.emplace_back(interval, &handlers.back(), false);
        run.NoteStart(number);
        timers.back().Start();
    }
    run.WaitUntilFinished();
}

/// Nothing but the waiting: timers of one interval are due in the order of their starts.
void RunBare(Run& run)
{
    sigset_t signals;
    sigset_t mask;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, &mask);
    struct Start
    {
        std::size_t number;
        Clock::time_point due;
    };
    std::deque<Start> pending;
    const auto start = [&](std::size_t number) {
        run.NoteStart(number);
        pending.push_back({number, Clock::now() + run.GetInterval()});
    };
    for (std::size_t number = 0; number < run.GetTimerCount(); ++number) {
        start(number);
    }
    while (!run.IsFinished()) {
        const std::chrono::nanoseconds wait = pending.front().due - Clock::now();
        if (wait.count() > 0) {
            timespec time{};
            time.tv_nsec = static_cast<long>(wait.count());
            sigtimedwait(&signals, nullptr, &time);
        }
        while (!pending.empty() && pending.front().due <= Clock::now()) {
            const std::size_t number = pending.front().number;
            pending.pop_front();
            if (run.NoteFiring(number)) {
                start(number);
            }
        }
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

/// Not safe for use by several threads, as all of the library's timers.
void RunLibuv(Run& run)
{
    struct Restarting
    {
        uv_timer_t timer;
        Run* run;
        std::size_t number;

        static void OnTimer(uv_timer_t* fired)
        {
            auto* const self = static_cast<Restarting*>(fired->data);
            if (self->run->NoteFiring(self->number)) {
                self->Start();
            } else {
                uv_close(reinterpret_cast<uv_handle_t*>(fired), nullptr);
            }
        }
        void Start()
        {
            run->NoteStart(number);
            uv_timer_start(&timer, OnTimer, static_cast<uint64_t>(run->GetInterval().count()), 0);
        }
    };

    uv_loop_t loop;
    uv_loop_init(&loop);
    std::vector<Restarting> timers(run.GetTimerCount());
    for (std::size_t number = 0; number < timers.size(); ++number) {
        Restarting& restarting = timers[number];
        restarting.run = &run;
        restarting.number = number;
        uv_timer_init(&loop, &restarting.timer);
        restarting.timer.data = &restarting;
        restarting.Start();
    }
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
}

/// With the library's locks, and its flag for exact timing.
void RunLibevent(Run& run)
{
    struct Restarting
    {
        event timer;
        Run* run;
        std::size_t number;

        static void OnTimer(evutil_socket_t, short, void* data)
        {
            auto* const self = static_cast<Restarting*>(data);
            if (self->run->NoteFiring(self->number)) {
                self->Start();
            }
        }
        void Start()
        {
            timeval interval{};
            interval.tv_usec = static_cast<suseconds_t>(run->GetInterval().count() * 1000);
            run->NoteStart(number);
            event_add(&timer, &interval);
        }
    };

    event_config* const config = event_config_new();
    event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
    event_base* const base = event_base_new_with_config(config);
    event_config_free(config);
    std::vector<Restarting> timers(run.GetTimerCount());
    for (std::size_t number = 0; number < timers.size(); ++number) {
        Restarting& restarting = timers[number];
        restarting.run = &run;
        restarting.number = number;
        evtimer_assign(&restarting.timer, base, Restarting::OnTimer, &restarting);
        restarting.Start();
    }
    event_base_dispatch(base);
    event_base_free(base);
}

void RunBoost(Run& run)
{
    struct Restarting
    {
        boost::asio::steady_timer timer;
        Run& run;
        std::size_t number;

        void Start()
        {
            run.NoteStart(number);
            timer.expires_after(run.GetInterval());
            timer.async_wait([this](const boost::system::error_code&) {
                if (run.NoteFiring(number)) {
                    Start();
                }
            });
        }
    };

    boost::asio::io_context context;
    std::deque<Restarting> timers;
    for (std::size_t number = 0; number < run.GetTimerCount(); ++number) {
        timers.push_back({boost::asio::steady_timer(context), run, number});
        timers.back().Start();
    }
    context.run();
}

void RunPoco(Run& run)
{
    class Restarting : public Poco::Util::TimerTask
    {
    public:
        Restarting(Poco::Util::Timer& timer, Run& observer, std::size_t number)
            : m_Timer(timer), m_Run(observer), m_Number(number)
        {}
        void Start()
        {
            m_Run.NoteStart(m_Number);
            m_Timer.schedule(Poco::Util::TimerTask::Ptr(this, true),
                             Poco::Clock() + m_Run.GetInterval() / std::chrono::microseconds(1));
        }
        void run() override
        {
            if (m_Run.NoteFiring(m_Number)) {
                Start();
            }
        }

    private:
        Poco::Util::Timer& m_Timer;
        Run& m_Run;
        std::size_t m_Number;
    };

    Poco::Util::Timer timer;
    std::vector<Poco::AutoPtr<Restarting>> tasks;
    for (std::size_t number = 0; number < run.GetTimerCount(); ++number) {
        tasks.push_back(new Restarting(timer, run, number));
        tasks.back()->Start();
    }
    run.WaitUntilFinished();
}

/// The timer heap with a thread of its own.
void RunAce(Run& run)
{
    using Timers = ACE_Thread_Timer_Queue_Adapter<ACE_Timer_Heap>;

    class Restarting : public ACE_Event_Handler
    {
    public:
        Restarting(Timers& timers, Run& observer, std::size_t number)
            : m_Timers(timers), m_Run(observer), m_Number(number)
        {}
        void Start()
        {
            const ACE_Time_Value interval(
                0, static_cast<suseconds_t>(m_Run.GetInterval().count() * 1000));
            m_Run.NoteStart(m_Number);
            m_Timers.schedule(this, nullptr, m_Timers.timer_queue()->gettimeofday() + interval);
        }
        int handle_timeout(const ACE_Time_Value&, const void*) override
        {
            if (m_Run.NoteFiring(m_Number)) {
                Start();
            }
            return 0;
        }

    private:
        Timers& m_Timers;
        Run& m_Run;
        std::size_t m_Number;
    };

    Timers timers;
    timers.activate();
    std::deque<Restarting> handlers;
    for (std::size_t number = 0; number < run.GetTimerCount(); ++number) {
        handlers.emplace_back(timers, run, number).Start();
    }
    run.WaitUntilFinished();
    timers.deactivate();
    timers.wait();
}

void Measure(benchmark::State& state, void (*contestant)(Run&), milliseconds interval,
             std::size_t timers)
{
    bench::RunOn(bench::Processor::First);
    for (auto _ : state) {
        Run run(interval, timers);
        contestant(run);
        state.counters["p50"] = run.GetPercentile(0.5);
        state.counters["p99"] = run.GetPercentile(0.99);
        state.counters["p999"] = run.GetPercentile(0.999);
    }
}

void Register(const char* contestant, void (*run)(Run&))
{
    for (const milliseconds interval : {milliseconds(1), milliseconds(10)}) {
        for (const std::size_t timers : {std::size_t{1}, std::size_t{1000}}) {
            const std::string name = "lateness/interval-ms:" + std::to_string(interval.count()) +
                                     "/timers:" + std::to_string(timers) + "/" + contestant;
            benchmark::RegisterBenchmark(
                name.c_str(),
                [=](benchmark::State& state) { Measure(state, run, interval, timers); })
                ->Iterations(1)
                ->UseRealTime();
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    evthread_use_pthreads();
    Register("velahost", RunVelaHost);
    Register("floor", RunBare);
    Register("libuv", RunLibuv);
    Register("libevent", RunLibevent);
    Register("boost", RunBoost);
    Register("poco", RunPoco);
    Register("ace", RunAce);
    benchmark::RunSpecifiedBenchmarks();
}

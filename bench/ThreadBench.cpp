// Threads: from setting an event to the waiter's waking, an event that nobody waits for, and a
// thread's start and end.
#include "support/Processors.h"

#include <VelaHost_OS/Thread.h>
#include <VelaHost_OS/ThreadEvent.h>

#include <Poco/Event.h>
#include <Poco/Thread.h>
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

class VelaHostEvent
{
public:
    void Set() { m_Event.Set(); }
    void Wait()
    {
        m_Event.Wait(-1);
        m_Event.Reset();
    }

private:
    VelaHost_OS::ThreadEvent m_Event;
};

class BareEvent
{
public:
    void Set()
    {
        pthread_mutex_lock(&m_Mutex);
        m_Set = true;
        pthread_mutex_unlock(&m_Mutex);
        pthread_cond_broadcast(&m_Condition);
    }
    void Wait()
    {
        pthread_mutex_lock(&m_Mutex);
        while (!m_Set) {
            pthread_cond_wait(&m_Condition, &m_Mutex);
        }
        m_Set = false;
        pthread_mutex_unlock(&m_Mutex);
    }

private:
    pthread_mutex_t m_Mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_Condition = PTHREAD_COND_INITIALIZER;
    bool m_Set = false;
};

class StdEvent
{
public:
    void Set()
    {
        {
            const std::lock_guard lock(m_Mutex);
            m_Set = true;
        }
        m_Condition.notify_all();
    }
    void Wait()
    {
        std::unique_lock lock(m_Mutex);
        m_Condition.wait(lock, [this] { return m_Set; });
        m_Set = false;
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Condition;
    bool m_Set = false;
};

class PocoEvent
{
public:
    void Set() { m_Event.set(); }
    void Wait() { m_Event.wait(); }

private:
    Poco::Event m_Event{Poco::Event::EVENT_AUTORESET};
};

/// Waits until a thread sleeps in the kernel: what is measured is a wake-up, never a waiter that
/// was still on its way into its wait.
class Sleeper
{
public:
    explicit Sleeper(pid_t thread)
        : m_Status(open(("/proc/self/task/" + std::to_string(thread) + "/stat").c_str(), O_RDONLY))
    {}
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;
    ~Sleeper() { close(m_Status); }

    void Await() const
    {
        while (State() != 'S') {
            sched_yield();
        }
    }

private:
    char State() const
    {
        char text[128];
        const ssize_t length = pread(m_Status, text, sizeof text, 0);
        const std::string_view status(text, length > 0 ? static_cast<std::size_t>(length) : 0);
        const std::size_t end = status.rfind(')');
        return end == std::string_view::npos ? '?' : status[end + 2];
    }

    int m_Status;
};

template <typename Event>
void SetAndWake(benchmark::State& state, bench::Processor waitersProcessor)
{
    bench::RunOn(bench::Processor::First);
    Event event;
    std::atomic<pid_t> waiterId{0};
    std::atomic<bool> end{false};
    std::atomic<int> woken{0};
    Clock::time_point wokenAt;
    std::thread waiter([&] {
        bench::RunOn(waitersProcessor);
        waiterId = static_cast<pid_t>(syscall(SYS_gettid));
        waiterId.notify_one();
        while (!end) {
            event.Wait();
            wokenAt = Clock::now();
            ++woken;
            woken.notify_one();
        }
    });
    waiterId.wait(0);
    const Sleeper sleeper(waiterId);
    for (auto _ : state) {
        sleeper.Await();
        const int before = woken;
        const Clock::time_point begin = Clock::now();
        event.Set();
        woken.wait(before);
        state.SetIterationTime(std::chrono::duration<double>(wokenAt - begin).count());
    }
    sleeper.Await();
    end = true;
    event.Set();
    waiter.join();
}

template <typename Event>
void SetAndWaitAlone(benchmark::State& state)
{
    bench::RunOn(bench::Processor::First);
    Event event;
    for (auto _ : state) {
        event.Set();
        event.Wait();
    }
}

template <typename Event>
void RegisterEvent(const std::string& contestant)
{
    benchmark::RegisterBenchmark(("event/set-wake/same-cpu/" + contestant).c_str(),
                                 SetAndWake<Event>, bench::Processor::First)
        ->UseManualTime()
        ->Iterations(500);
    benchmark::RegisterBenchmark(("event/set-wake/cross-cpu/" + contestant).c_str(),
                                 SetAndWake<Event>, bench::Processor::Second)
        ->UseManualTime()
        ->Iterations(500);
    benchmark::RegisterBenchmark(("event/nobody-waits/" + contestant).c_str(),
                                 SetAndWaitAlone<Event>)
        ->UseRealTime();
}

void DoNothing(void* /*argument*/) {}

void VelaHostThread()
{
    unsigned long id = 0;
    VelaHost_OS::CreateThread(DoNothing, 0, nullptr, &id);
    VelaHost_OS::JoinThread(id);
}

void BareThread()
{
    pthread_t id;
    pthread_create(
        &id, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
    pthread_join(id, nullptr);
}

void PocoThread()
{
    Poco::Thread thread;
    thread.start(DoNothing, nullptr);
    thread.join();
}

void StdThread()
{
    std::thread thread(DoNothing, nullptr);
    thread.join();
}

void CreateAndJoin(benchmark::State& state, void (*run)())
{
    bench::RunOn(bench::Processor::First);
    for (auto _ : state) {
        run();
    }
}

void RegisterThread(const std::string& contestant, void (*run)())
{
    benchmark::RegisterBenchmark(("thread/create-join/" + contestant).c_str(), CreateAndJoin, run)
        ->UseRealTime();
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RegisterEvent<VelaHostEvent>("velahost");
    RegisterEvent<BareEvent>("floor");
    RegisterEvent<PocoEvent>("poco");
    RegisterEvent<StdEvent>("std");
    RegisterThread("velahost", VelaHostThread);
    RegisterThread("floor", BareThread);
    RegisterThread("poco", PocoThread);
    RegisterThread("std", StdThread);
    benchmark::RunSpecifiedBenchmarks();
}

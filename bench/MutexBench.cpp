// Locks between the threads of one process: uncontended, and with two threads on two processors.
#include "support/Processors.h"

#include <VelaHost_OS/ThreadMutex.h>
#include <VelaHost_Utility/Lockable.h>

#include <Poco/Mutex.h>
#include <benchmark/benchmark.h>

#include <mutex>
#include <pthread.h>
#include <string>

namespace {

/// What all of the others are made of.
class BareMutex
{
public:
    explicit BareMutex(int type)
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, type);
        pthread_mutex_init(&m_Mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~BareMutex() { pthread_mutex_destroy(&m_Mutex); }
    void lock() { pthread_mutex_lock(&m_Mutex); }
    void unlock() { pthread_mutex_unlock(&m_Mutex); }

private:
    pthread_mutex_t m_Mutex;
};

struct BarePlain : BareMutex
{
    BarePlain() : BareMutex(PTHREAD_MUTEX_NORMAL) {}
};

struct BareRecursive : BareMutex
{
    BareRecursive() : BareMutex(PTHREAD_MUTEX_RECURSIVE) {}
};

class HeldThreadMutex
{
public:
    explicit HeldThreadMutex(VelaHost_OS::ThreadMutex& mutex) : m_Mutex(mutex) { m_Mutex.Lock(); }
    ~HeldThreadMutex() noexcept(false) { m_Mutex.Unlock(); }

private:
    VelaHost_OS::ThreadMutex& m_Mutex;
};

template <typename Mutex, typename Section>
void LockAndUnlock(benchmark::State& state)
{
    static Mutex s_Mutex;
    static int s_Guarded;
    bench::RunOn(state.thread_index() == 0 ? bench::Processor::First : bench::Processor::Second);
    for (auto _ : state) {
        Section section(s_Mutex);
        benchmark::DoNotOptimize(++s_Guarded);
    }
}

template <typename Mutex, typename Section>
void Register(const std::string& kind, const char* contestant)
{
    const auto run = LockAndUnlock<Mutex, Section>;
    const std::string name = "mutex/" + kind;
    benchmark::RegisterBenchmark((name + "/alone/" + contestant).c_str(), run)->UseRealTime();
    benchmark::RegisterBenchmark((name + "/two-threads/" + contestant).c_str(), run)
        ->Threads(2)
        ->UseRealTime();
}

} // namespace

int main(int argc, char** argv)
{
    using VelaHost_Utility::Locker;
    benchmark::Initialize(&argc, argv);
    Register<VelaHost_OS::ThreadMutex, HeldThreadMutex>("plain", "velahost");
    Register<BarePlain, std::lock_guard<BarePlain>>("plain", "floor");
    Register<Poco::FastMutex, Poco::FastMutex::ScopedLock>("plain", "poco");
    Register<std::mutex, std::lock_guard<std::mutex>>("plain", "std");
    Register<VelaHost_Utility::Lockable, Locker>("recursive", "velahost");
    Register<BareRecursive, std::lock_guard<BareRecursive>>("recursive", "floor");
    Register<Poco::Mutex, Poco::Mutex::ScopedLock>("recursive", "poco");
    Register<std::recursive_mutex, std::lock_guard<std::recursive_mutex>>("recursive", "std");
    benchmark::RunSpecifiedBenchmarks();
}

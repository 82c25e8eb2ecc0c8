// A mutex between processes: alone, and with a second process that takes it again and again.
#include "support/PeerProcess.h"
#include "support/Processors.h"

#include <VelaHost_OS/ProcessMutex.h>

#include <Poco/NamedMutex.h>
#include <ace/Process_Mutex.h>
#include <benchmark/benchmark.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

namespace {

std::string UniqueName()
{
    return "velahost-bench-" + std::to_string(getpid());
}

class VelaHostMutex
{
public:
    VelaHostMutex() : m_Mutex(UniqueName().c_str()) { m_Mutex.Init(); }
    void Lock() { m_Mutex.Lock(); }
    void Unlock() { m_Mutex.Unlock(); }
    void Remove() { m_Mutex.Delete(); }

private:
    VelaHost_OS::ProcessMutex m_Mutex;
};

/// The same four calls.
class BareMutex
{
public:
    BareMutex() : m_SemaphoreId(semget(IPC_PRIVATE, 1, 0600))
    {
        sigfillset(&m_AllSignals);
        semctl(m_SemaphoreId, 0, SETVAL, 1);
    }
    void Lock()
    {
        sigprocmask(SIG_SETMASK, &m_AllSignals, &m_SavedSignals);
        Change(-1);
    }
    void Unlock()
    {
        Change(1);
        sigprocmask(SIG_SETMASK, &m_SavedSignals, nullptr);
    }
    void Remove() { semctl(m_SemaphoreId, 0, IPC_RMID); }

private:
    void Change(short change) const
    {
        sembuf operation{0, change, SEM_UNDO};
        if (semop(m_SemaphoreId, &operation, 1) != 0) {
            abort();
        }
    }

    int m_SemaphoreId;
    sigset_t m_AllSignals;
    sigset_t m_SavedSignals;
};

class PocoMutex
{
public:
    PocoMutex() : m_Mutex(UniqueName()) {}
    void Lock() { m_Mutex.lock(); }
    void Unlock() { m_Mutex.unlock(); }
    /// It has no way to remove its semaphore itself.
    void Remove()
    {
        const std::string file = "/tmp/" + UniqueName() + ".mutex";
        semctl(semget(ftok(file.c_str(), 0), 1, 0), 0, IPC_RMID);
        unlink(file.c_str());
    }

private:
    Poco::NamedMutex m_Mutex;
};

class AceMutex
{
public:
    AceMutex() : m_Mutex(UniqueName().c_str()) {}
    void Lock() { m_Mutex.acquire(); }
    void Unlock() { m_Mutex.release(); }
    void Remove() { m_Mutex.remove(); }

private:
    ACE_Process_Mutex m_Mutex;
};

template <typename Mutex>
void Alone(benchmark::State& state)
{
    bench::RunOn(bench::Processor::First);
    Mutex mutex;
    for (auto _ : state) {
        mutex.Lock();
        mutex.Unlock();
    }
    mutex.Remove();
}

template <typename Mutex>
void TwoProcesses(benchmark::State& state, bench::Processor peersProcessor)
{
    bench::RunOn(bench::Processor::First);
    Mutex mutex;
    {
        // The peer uses the object that it inherited.
        const bench::PeerProcess peer(peersProcessor, [&](const std::function<void()>& ready) {
            ready();
            for (;;) {
                mutex.Lock();
                mutex.Unlock();
            }
        });
        for (auto _ : state) {
            mutex.Lock();
            mutex.Unlock();
        }
    }
    mutex.Remove();
}

template <typename Mutex>
void Register(const std::string& contestant)
{
    benchmark::RegisterBenchmark(("process-mutex/alone/" + contestant).c_str(), Alone<Mutex>)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("process-mutex/two-processes/same-cpu/" + contestant).c_str(),
                                 TwoProcesses<Mutex>, bench::Processor::First)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("process-mutex/two-processes/cross-cpu/" + contestant).c_str(),
                                 TwoProcesses<Mutex>, bench::Processor::Second)
        ->UseRealTime();
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    Register<VelaHostMutex>("velahost");
    Register<BareMutex>("floor");
    Register<PocoMutex>("poco");
    Register<AceMutex>("ace");
    benchmark::RunSpecifiedBenchmarks();
}

// A failure: an exception with its text is built, thrown and caught. The library's writes a line to
// standard output as well, which is /dev/null here.
#include "support/Processors.h"

#include <internal/ThrowSite.h>

#include <VelaHost_Utility/Exception.h>

#include <Poco/Exception.h>
#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

using VelaHost_Utility::SystemException;

/// While it lives, what is written to standard output is lost.
class SilentOutput
{
public:
    SilentOutput()
    {
        std::fflush(stdout);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (m_Output < 0 || nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0) {
            std::abort();
        }
        close(nowhere);
    }
    SilentOutput(const SilentOutput&) = delete;
    SilentOutput& operator=(const SilentOutput&) = delete;
    ~SilentOutput()
    {
        std::fflush(stdout);
        dup2(m_Output, STDOUT_FILENO);
        close(m_Output);
    }

private:
    const int m_Output = dup(STDOUT_FILENO);
};

struct SameSize
{
    unsigned char content[sizeof(SystemException)] = {};
};

[[noreturn]] void ThrowVelaHost()
{
    throw SystemException(VelaHost_Utility::ThrowSite("bench", __LINE__), 0x2002);
}

[[noreturn]] void ThrowFloor()
{
    throw SameSize();
}

[[noreturn]] void ThrowPoco()
{
    throw Poco::SystemException("SysErr=0xd", EACCES);
}

template <typename Thrown>
void Fail(benchmark::State& state, void (*fail)())
{
    bench::RunOn(bench::Processor::First);
    const SilentOutput silent;
    errno = EACCES;
    for (auto _ : state) {
        try {
            fail();
        } catch (const Thrown& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}

template <typename Thrown>
void Register(const char* name, void (*fail)())
{
    benchmark::RegisterBenchmark(name, [fail](benchmark::State& state) {
        Fail<Thrown>(state, fail);
    })->UseRealTime();
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    Register<SystemException>("exception/throw-catch/velahost", ThrowVelaHost);
    Register<SameSize>("exception/throw-catch/floor", ThrowFloor);
    Register<Poco::SystemException>("exception/throw-catch/poco", ThrowPoco);
    benchmark::RunSpecifiedBenchmarks();
}

// Copying a counted pointer and letting the copy go: one atomic addition and one subtraction.
#include "support/Processors.h"

#include <VelaHost_Utility/RefCount.h>

#include <benchmark/benchmark.h>
#include <boost/smart_ptr/intrusive_ptr.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

namespace {

struct Counted : virtual VelaHost_Utility::RefCount
{
    ~Counted() noexcept(false) override = default;
};

/// For the contestants without a count of their own: that of `VelaHost_Utility::RefCount`.
class AtomicallyCounted
{
public:
    virtual ~AtomicallyCounted() = default;

    void Acquire() { m_Count.fetch_add(1, std::memory_order_relaxed); }
    void Release()
    {
        if (m_Count.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

private:
    std::atomic<std::int32_t> m_Count{0};
};

void intrusive_ptr_add_ref(AtomicallyCounted* object)
{
    object->Acquire();
}

void intrusive_ptr_release(AtomicallyCounted* object)
{
    object->Release();
}

/// The count without a pointer that minds it.
class BareReference
{
public:
    explicit BareReference(AtomicallyCounted* object) : m_Object(object) { m_Object->Acquire(); }
    BareReference(const BareReference& other) : BareReference(other.m_Object) {}
    BareReference& operator=(const BareReference&) = delete;
    ~BareReference() { m_Object->Release(); }

private:
    AtomicallyCounted* m_Object;
};

template <typename Pointer>
void CopyAndRelease(benchmark::State& state, const Pointer& original)
{
    bench::RunOn(bench::Processor::First);
    for (auto _ : state) {
        Pointer copy(original);
        benchmark::DoNotOptimize(copy);
    }
}

/// `original` outlives the measurements.
template <typename Pointer>
void Register(const char* name, const Pointer& original)
{
    benchmark::RegisterBenchmark(name, [&original](benchmark::State& state) {
        CopyAndRelease(state, original);
    })->UseRealTime();
}

} // namespace

int main(int argc, char** argv)
{
    const SmartPointer<Counted> velahost(new Counted);
    const BareReference floor(new AtomicallyCounted);
    const auto standard = std::make_shared<AtomicallyCounted>();
    const boost::intrusive_ptr<AtomicallyCounted> boost(new AtomicallyCounted);

    // std::shared_ptr counts without atomic operations in a process that never had a second thread.
    std::thread([] {}).join();

    benchmark::Initialize(&argc, argv);
    Register("refcount/copy-release/velahost", velahost);
    Register("refcount/copy-release/floor", floor);
    Register("refcount/copy-release/std", standard);
    Register("refcount/copy-release/boost", boost);
    benchmark::RunSpecifiedBenchmarks();
}

#include "FailingAllocation.h"

#include <cstdlib>
#include <new>

namespace velahost_test {

namespace {

struct Plan
{
    bool armed = false;
    unsigned int calls = 0;
    unsigned int first = 0;
    unsigned int count = 0;
    long live = 0;
};

constinit thread_local Plan s_Plan;
constinit std::atomic<void*> s_WatchedBlock{nullptr};
constinit std::atomic<unsigned int> s_WatchedFrees{0};

/// Null when the plan says so or there is no memory.
void* Allocate(std::size_t size)
{
    Plan& plan = s_Plan;
    if (plan.armed) {
        const unsigned int call = ++plan.calls;
        if (call >= plan.first && call - plan.first < plan.count) {
            return nullptr;
        }
    }
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block != nullptr) {
        ++plan.live;
    }
    return block;
}

void* AllocateOrThrow(std::size_t size)
{
    void* block = Allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void Free(void* block)
{
    if (block == nullptr) {
        return;
    }
    --s_Plan.live;
    if (block == s_WatchedBlock.load()) {
        ++s_WatchedFrees;
        return;
    }
    std::free(block);
}

} // namespace

FailingAllocation::FailingAllocation(unsigned int first, unsigned int count) : m_First(first)
{
    s_Plan.calls = 0;
    s_Plan.first = first;
    s_Plan.count = count;
    s_Plan.armed = true;
}

FailingAllocation::~FailingAllocation()
{
    s_Plan.armed = false;
}

unsigned int FailingAllocation::GetCallCount() const
{
    return s_Plan.calls;
}

AllocationBalance::AllocationBalance() : m_Start(s_Plan.live) {}

long AllocationBalance::GetLiveCount() const
{
    return s_Plan.live - m_Start;
}

WatchedBlock::WatchedBlock(void* block) : m_Block(block)
{
    s_WatchedFrees = 0;
    s_WatchedBlock = block;
}

WatchedBlock::~WatchedBlock()
{
    s_WatchedBlock = nullptr;
    std::free(m_Block);
}

unsigned int WatchedBlock::GetFreeCount() const
{
    return s_WatchedFrees;
}

} // namespace velahost_test

void* operator new(std::size_t size)
{
    return velahost_test::AllocateOrThrow(size);
}

void* operator new[](std::size_t size)
{
    return velahost_test::AllocateOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return velahost_test::Allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return velahost_test::Allocate(size);
}

void operator delete(void* block) noexcept
{
    velahost_test::Free(block);
}

void operator delete[](void* block) noexcept
{
    velahost_test::Free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    velahost_test::Free(block);
}

void operator delete[](void* block, std::size_t) noexcept
{
    velahost_test::Free(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept
{
    velahost_test::Free(block);
}

void operator delete[](void* block, const std::nothrow_t&) noexcept
{
    velahost_test::Free(block);
}

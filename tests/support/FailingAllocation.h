#pragma once

#include <atomic>
#include <cstddef>

/// The program's `operator new` and `operator delete` in the test's hand. Only for programs that
/// link FailingAllocation.cpp, because that replaces them. Over-aligned allocations are not
/// replaced.
namespace velahost_test {

/// While it lives, the calling thread's allocations are counted from 1, and those number `first`
/// to `first + count - 1` fail. One at a time in each thread.
class FailingAllocation
{
public:
    static constexpr unsigned int forGood = ~0U;

    explicit FailingAllocation(unsigned int first, unsigned int count = 1);
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
    ~FailingAllocation();

    /// Allocations since construction, the failed ones included.
    unsigned int GetCallCount() const;
    /// True when at least one allocation has failed.
    bool WasHit() const { return GetCallCount() >= m_First; }

private:
    unsigned int m_First;
};

/// What the calling thread has allocated and not freed since construction.
class AllocationBalance
{
public:
    AllocationBalance();
    /// Allocations less deallocations.
    long GetLiveCount() const;

private:
    long m_Start;
};

/// Takes over one block of `operator new`: counts how often it is freed, and keeps it readable
/// until the watch ends, which really frees it. One at a time.
class WatchedBlock
{
public:
    explicit WatchedBlock(void* block);
    WatchedBlock(const WatchedBlock&) = delete;
    WatchedBlock& operator=(const WatchedBlock&) = delete;
    ~WatchedBlock();

    unsigned int GetFreeCount() const;

private:
    void* m_Block;
};

} // namespace velahost_test

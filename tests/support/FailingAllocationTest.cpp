#include "support/FailingAllocation.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <thread>

namespace {

using namespace velahost_test;

/// One allocation that the compiler may not leave out.
void AllocateOnce()
{
    ::operator delete(::operator new(10));
}

TEST(FailingAllocation, FailsTheAllocationsThatItNames)
{
    const FailingAllocation failing(2, 2);
    AllocateOnce();
    EXPECT_FALSE(failing.WasHit());
    EXPECT_THROW(AllocateOnce(), std::bad_alloc);
    EXPECT_TRUE(failing.WasHit());
    EXPECT_EQ(::operator new(10, std::nothrow), nullptr);
    AllocateOnce();
    EXPECT_EQ(failing.GetCallCount(), 4U);
}

TEST(FailingAllocation, FailsForGoodUntilItsEnd)
{
    {
        const FailingAllocation failing(1, FailingAllocation::forGood);
        for (int i = 0; i < 10; ++i) {
            bool threw = false;
            try {
                AllocateOnce();
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            ASSERT_TRUE(threw);
        }
        EXPECT_EQ(::operator new[](10, std::nothrow), nullptr);
    }
    AllocateOnce();
}

TEST(FailingAllocation, LeavesOtherThreadsAlone)
{
    std::thread other;
    bool threw = false;
    {
        std::atomic<bool> armed{false};
        other = std::thread([&] {
            armed.wait(false);
            try {
                AllocateOnce();
            } catch (const std::bad_alloc&) {
                threw = true;
            }
        });
        const FailingAllocation failing(1, FailingAllocation::forGood);
        armed = true;
        armed.notify_one();
        other.join();
        EXPECT_EQ(failing.GetCallCount(), 0U);
    }
    EXPECT_FALSE(threw);
}

TEST(FailingAllocation, ReachesInsideTheStandardLibrary)
{
    const FailingAllocation failing(1);
    bool threw = false;
    try {
        const std::string text(100, 'x');
    } catch (const std::bad_alloc&) {
        threw = true;
    }
    EXPECT_TRUE(threw);
}

TEST(AllocationBalance, CountsWhatIsNotFreed)
{
    const AllocationBalance balance;
    void* first = ::operator new(1);
    void* second = ::operator new[](1);
    EXPECT_EQ(balance.GetLiveCount(), 2);
    ::operator delete(first);
    EXPECT_EQ(balance.GetLiveCount(), 1);
    ::operator delete[](second);
    ::operator delete(nullptr);
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

TEST(WatchedBlock, CountsItsFreesAndStaysReadable)
{
    // Out of the compiler's sight, which would object to the use of a freed block.
    void (*volatile release)(void*) = ::operator delete;
    auto* block = static_cast<unsigned char*>(::operator new(16));
    block[3] = 7;
    const WatchedBlock watch(block);
    AllocateOnce();
    EXPECT_EQ(watch.GetFreeCount(), 0U);
    release(block);
    EXPECT_EQ(watch.GetFreeCount(), 1U);
    EXPECT_EQ(block[3], 7);
    release(block);
    EXPECT_EQ(watch.GetFreeCount(), 2U) << "a block freed twice shows";
}

} // namespace

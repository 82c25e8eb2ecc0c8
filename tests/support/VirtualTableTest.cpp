#include "support/VirtualTable.h"

#include <VelaHost_OS/ThreadMutex.h>

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace velahost_test;

struct Counter
{
    virtual ~Counter() = default;
    virtual int Add(int a, int b) { return total += a * b; }
    virtual void Reset() { total = 0; }
    int total = 1;
};

TEST(VirtualTable, CallsASlotWithTheObject)
{
    Counter counter;
    EXPECT_EQ(CallVirtualSlot<int>(&counter, 2, 3, 4), 13);
    EXPECT_EQ(counter.total, 13);
    CallVirtualSlot(&counter, 3);
    EXPECT_EQ(counter.total, 0);
}

TEST(VirtualTable, CountsTheSlotsOfAnExportedClass)
{
    const VelaHost_OS::ThreadMutex mutex;
    EXPECT_EQ(CountVirtualSlots(&mutex), 2U);
}

TEST(VirtualTable, RefusesAClassThatIsNotExported)
{
    const Counter counter;
    EXPECT_THROW(CountVirtualSlots(&counter), std::runtime_error);
}

} // namespace

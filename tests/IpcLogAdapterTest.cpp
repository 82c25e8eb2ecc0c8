#include <VelaHost_Ipc/IpcLogAdapter.h>

#include "support/RecordingLogAdapter.h"
#include "support/VirtualTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using VelaHost_Ipc::IpcLogAdapter;
using namespace velahost_test;
using ::testing::ElementsAre;

TEST(IpcLogAdapter, HasItsFunctionsBehindTheDestructorInThisSlotOrder)
{
    RecordingLogAdapter recorder;
    IpcLogAdapter& log = recorder;
    GetVirtualSlot<void(IpcLogAdapter*, const char*, ...)>(&log, 2)(&log, "a %d", 1);
    GetVirtualSlot<void(IpcLogAdapter*, const char*, ...)>(&log, 3)(&log, "b %s", "two");
    GetVirtualSlot<void(IpcLogAdapter*, const char*, ...)>(&log, 4)(&log, "c 0x%x", 3U);
    GetVirtualSlot<void(IpcLogAdapter*, int, int, const void*, int)>(&log, 5)(&log, 6, 7, "abc", 2);
    GetVirtualSlot<void(IpcLogAdapter*, int, int, const void*, int)>(&log, 6)(&log, 8, 9, "def", 3);
    EXPECT_THAT(recorder.Take(),
                ElementsAre(LogCall::Info("a 1"), LogCall::Debug("b two"), LogCall::Error("c 0x3"),
                            LogCall::RcvMsg(6, 7, "ab"), LogCall::SendMsg(8, 9, "def")));
}

class CountingAdapter final : public IpcLogAdapter
{
public:
    explicit CountingAdapter(int& destructions) : m_Destructions(destructions) {}
    ~CountingAdapter() override { ++m_Destructions; }
    [[gnu::format(printf, 2, 3)]] void LogInfo(const char*, ...) override {}
    [[gnu::format(printf, 2, 3)]] void LogDebug(const char*, ...) override {}
    [[gnu::format(printf, 2, 3)]] void LogError(const char*, ...) override {}
    void LogRcvMsg(int, int, const void*, int) override {}
    void LogSendMsg(int, int, const void*, int) override {}

private:
    int& m_Destructions;
};

TEST(IpcLogAdapter, IsDestroyedThroughItsFirstTwoSlots)
{
    int destructions = 0;
    alignas(CountingAdapter) unsigned char memory[sizeof(CountingAdapter)];
    IpcLogAdapter* inPlace = new (memory) CountingAdapter(destructions);
    GetVirtualSlot<void(IpcLogAdapter*)>(inPlace, 0)(inPlace);
    EXPECT_EQ(destructions, 1);
    IpcLogAdapter* onHeap = new CountingAdapter(destructions);
    GetVirtualSlot<void(IpcLogAdapter*)>(onHeap, 1)(onHeap);
    EXPECT_EQ(destructions, 2);
    EXPECT_EQ(sizeof(IpcLogAdapter), sizeof(void*));
}

TEST(RecordingLogAdapter, TellsCallsApart)
{
    EXPECT_EQ(LogCall::RcvMsg(1, 2, "ab"), LogCall::RcvMsg(1, 2, "ab"));
    EXPECT_NE(LogCall::RcvMsg(1, 2, "ab"), LogCall::SendMsg(1, 2, "ab"));
    EXPECT_NE(LogCall::RcvMsg(1, 2, "ab"), LogCall::RcvMsg(3, 2, "ab"));
    EXPECT_NE(LogCall::RcvMsg(1, 2, "ab"), LogCall::RcvMsg(1, 3, "ab"));
    EXPECT_NE(LogCall::RcvMsg(1, 2, "ab"), LogCall::RcvMsg(1, 2, "ac"));
    EXPECT_NE(LogCall::Info("x"), LogCall::Debug("x"));
    EXPECT_NE(LogCall::Error("x"), LogCall::Error("y"));
    EXPECT_EQ(::testing::PrintToString(LogCall::SendMsg(1, 2, "ab")), "LogSendMsg(1, 2, 6162, 2)");
    EXPECT_EQ(::testing::PrintToString(LogCall::Error("x")), "LogError(\"x\")");
}

TEST(RecordingLogAdapter, KeepsTheLengthOfANegativePayload)
{
    RecordingLogAdapter recorder;
    recorder.LogRcvMsg(1, 2, "", -8);
    const std::vector<LogCall> calls = recorder.GetCalls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].length, -8);
    EXPECT_EQ(calls[0].payload, "");
    EXPECT_EQ(recorder.Take().size(), 1U);
    EXPECT_TRUE(recorder.Take().empty());
}

} // namespace

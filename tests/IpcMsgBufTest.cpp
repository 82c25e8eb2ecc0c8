#include <VelaHost_Ipc/IpcMsgBuf.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>

namespace {

using VelaHost_Ipc::IpcMsgBuf;

TEST(IpcMsgBuf, HasTheWireLayout)
{
    EXPECT_EQ(offsetof(IpcMsgBuf, mtype), 0U);
    EXPECT_EQ(offsetof(IpcMsgBuf, connection), 4U);
    EXPECT_EQ(offsetof(IpcMsgBuf, category), 6U);
    EXPECT_EQ(offsetof(IpcMsgBuf, data), 8U);
    EXPECT_EQ(sizeof(IpcMsgBuf), 512U);
    EXPECT_EQ(sizeof(IpcMsgBuf::data), 504U);
    EXPECT_EQ(alignof(IpcMsgBuf), 1U);
    EXPECT_TRUE((std::is_same_v<decltype(IpcMsgBuf::mtype), std::int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(IpcMsgBuf::connection), std::uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(IpcMsgBuf::category), std::uint16_t>));
    EXPECT_TRUE(std::is_trivially_copyable_v<IpcMsgBuf>);
    EXPECT_TRUE(std::is_standard_layout_v<IpcMsgBuf>);
}

TEST(IpcMsgBuf, ItsSizesAreNamed)
{
    EXPECT_EQ(VelaHost_Ipc::s_MsgHeaderSize, 8);
    EXPECT_EQ(VelaHost_Ipc::s_MaxQueuePayload, 500);
    EXPECT_EQ(VelaHost_Ipc::s_MaxQueueText, 508);
    EXPECT_EQ(VelaHost_Ipc::s_MsgBufSize, 512);
}

TEST(IpcMsgBuf, IsAllZeroWhenValueInitialised)
{
    alignas(IpcMsgBuf) unsigned char memory[sizeof(IpcMsgBuf)];
    std::memset(memory, 0xA5, sizeof memory);
    new (memory) IpcMsgBuf{};
    EXPECT_EQ(std::count(std::begin(memory), std::end(memory), 0), 512);
}

class IpcMsgBufAlignment : public ::testing::TestWithParam<std::size_t>
{};

TEST_P(IpcMsgBufAlignment, DoesNotChangeTheBytes)
{
    alignas(16) unsigned char memory[sizeof(IpcMsgBuf) + 16];
    std::memset(memory, 0xA5, sizeof memory);
    unsigned char* start = memory + GetParam();
    auto& message = *new (start) IpcMsgBuf{};
    message.mtype = -2;
    message.connection = 0xFFFE;
    message.category = 0x0213;
    message.data[0] = 0x61;
    message.data[503] = 0x7A;

    const unsigned char header[] = {0xFE, 0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0x13, 0x02, 0x61, 0};
    EXPECT_EQ(std::memcmp(start, header, sizeof header), 0);
    EXPECT_EQ(start[511], 0x7A);
    EXPECT_EQ(start[512], 0xA5);
    if (GetParam() > 0) {
        EXPECT_EQ(start[-1], 0xA5);
    }

    const IpcMsgBuf copy = message;
    EXPECT_EQ(std::int32_t{copy.mtype}, -2);
    EXPECT_EQ(std::uint16_t{copy.connection}, 65534);
    EXPECT_EQ(std::uint16_t{copy.category}, 531);
    EXPECT_EQ(std::memcmp(&copy, start, sizeof copy), 0);
}

INSTANTIATE_TEST_SUITE_P(EveryOffset, IpcMsgBufAlignment, ::testing::Range<std::size_t>(0, 9));

} // namespace

#include <VelaHost_Ipc/IpcMsgHandler.h>

#include "support/VirtualTable.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

namespace {

using namespace VelaHost_Ipc;
using velahost_test::GetVirtualSlot;

class Handler : public IpcMsgHandler
{
public:
    explicit Handler(int* destructions = nullptr) : m_Destructions(destructions) {}
    ~Handler() override
    {
        if (m_Destructions != nullptr) {
            ++*m_Destructions;
        }
    }
    void HandleIpcMessage(IpcMsgBuf& msg, int length) override { m_Message = {&msg, length}; }

    std::pair<IpcMsgBuf*, int> m_Message{nullptr, 0};

private:
    int* m_Destructions;
};

class ClosingHandler : public Handler
{
public:
    void HandleIpcClose(int connectionId) override { m_Closed = connectionId; }

    int m_Closed = 0;
};

TEST(IpcMsgHandler, HasDestructorMessageAndCloseInThatSlotOrder)
{
    ClosingHandler handler;
    IpcMsgHandler& base = handler;
    IpcMsgBuf message{};
    GetVirtualSlot<void(IpcMsgHandler*, IpcMsgBuf*, int)>(&base, 2)(&base, &message, 17);
    EXPECT_EQ(handler.m_Message, (std::pair<IpcMsgBuf*, int>{&message, 17}));
    GetVirtualSlot<void(IpcMsgHandler*, int)>(&base, 3)(&base, 4);
    EXPECT_EQ(handler.m_Closed, 4);

    int destructions = 0;
    alignas(Handler) unsigned char memory[sizeof(Handler)];
    IpcMsgHandler* inPlace = new (memory) Handler(&destructions);
    GetVirtualSlot<void(IpcMsgHandler*)>(inPlace, 0)(inPlace);
    EXPECT_EQ(destructions, 1);
    IpcMsgHandler* onHeap = new Handler(&destructions);
    GetVirtualSlot<void(IpcMsgHandler*)>(onHeap, 1)(onHeap);
    EXPECT_EQ(destructions, 2);
}

TEST(IpcMsgHandler, HasNoFields)
{
    EXPECT_EQ(sizeof(IpcMsgHandler), sizeof(void*));
}

TEST(IpcMsgHandler, IgnoresACloseUnlessOverridden)
{
    Handler handler;
    IpcMsgHandler& base = handler;
    base.HandleIpcClose(1);
    EXPECT_EQ(handler.m_Message.first, nullptr);
}

} // namespace

#include <internal/unix/IpcConnectionManager.h>

#include "support/CapturedStdout.h"
#include "support/FailingAllocation.h"
#include "support/RecordingLogAdapter.h"
#include "support/ThrownException.h"
#include "support/VirtualTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace VelaHost_Ipc;
using namespace velahost_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A transport as the manager sees one.
struct Transport
{
    class Connection
    {
    public:
        explicit Connection(int connectionId) : id(connectionId) { ++s_Alive; }
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;
        ~Connection() { --s_Alive; }

        bool IsFree() const { return isFree; }

        int id;
        bool isFree = true;
        static inline int s_Alive = 0;
    };
};

using Manager = IpcConnectionManager<Transport>;

/// Records what it is told, under its name, in a list that several share.
class Handler : public IpcMsgHandler
{
public:
    using Calls = std::vector<std::pair<int, int>>;

    Handler(int name, Calls& calls) : m_Name(name), m_Calls(calls) {}
    void HandleIpcMessage(IpcMsgBuf&, int length) override { m_Calls.emplace_back(m_Name, length); }
    void HandleIpcClose(int connectionId) override { m_Calls.emplace_back(m_Name, connectionId); }

private:
    int m_Name;
    Calls& m_Calls;
};

struct IpcConnectionManagerTest : ::testing::Test
{
    RecordingLogAdapter m_Log;
    Manager m_Manager{&m_Log};
    Handler::Calls m_Calls;
    Handler m_Handler{7, m_Calls};
};

using IpcConnectionManagerHandlers = IpcConnectionManagerTest;
using IpcConnectionManagerDispatch = IpcConnectionManagerTest;
using IpcConnectionManagerConnections = IpcConnectionManagerTest;

TEST_F(IpcConnectionManagerTest, HasItsFieldsInThisOrder)
{
    const auto offset = [&](const auto& field) {
        return static_cast<std::size_t>(reinterpret_cast<const char*>(&field) -
                                        reinterpret_cast<const char*>(&m_Manager));
    };
    EXPECT_EQ(offset(m_Manager.handlers), sizeof(void*));
    EXPECT_EQ(sizeof m_Manager.handlers, 20 * sizeof(void*));
    EXPECT_EQ(offset(m_Manager.log), 21 * sizeof(void*));
    EXPECT_EQ(offset(m_Manager.connections), 22 * sizeof(void*));
    EXPECT_EQ(sizeof m_Manager, 22 * sizeof(void*) + sizeof(std::vector<void*>));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(offset(m_Manager.connections), 88U);
        EXPECT_EQ(sizeof m_Manager, 100U);
    }
}

TEST_F(IpcConnectionManagerTest, BeginsEmpty)
{
    EXPECT_THAT(m_Manager.handlers, ::testing::Each(nullptr));
    EXPECT_EQ(m_Manager.log, &m_Log);
    EXPECT_THAT(m_Manager.connections, IsEmpty());
    EXPECT_EQ(m_Manager.GetConnectionCount(), 0);
}

TEST_F(IpcConnectionManagerHandlers, AreRegisteredThroughTheThirdSlot)
{
    const auto registerHandler = GetVirtualSlot<int(Manager*, IpcMsgHandler*, int)>(&m_Manager, 2);
    EXPECT_EQ(registerHandler(&m_Manager, &m_Handler, 19), 0);
    EXPECT_EQ(m_Manager.handlers[19], &m_Handler);
    EXPECT_EQ(registerHandler(&m_Manager, &m_Handler, 20), -1);
}

TEST(IpcConnectionManagerLifetime, EndsThroughTheFirstTwoSlots)
{
    alignas(Manager) unsigned char memory[sizeof(Manager)];
    Manager* inPlace = new (memory) Manager(nullptr);
    inPlace->FindFreeConnection();
    GetVirtualSlot<void(Manager*)>(inPlace, 0)(inPlace);
    EXPECT_EQ(Transport::Connection::s_Alive, 0);
    Manager* onHeap = new Manager(nullptr);
    onHeap->FindFreeConnection();
    GetVirtualSlot<void(Manager*)>(onHeap, 1)(onHeap);
    EXPECT_EQ(Transport::Connection::s_Alive, 0);
}

TEST_F(IpcConnectionManagerHandlers, AreStoredForCategories0To19Only)
{
    for (const int category : {0, 1, 19}) {
        EXPECT_EQ(m_Manager.RegisterHandler(&m_Handler, category), 0);
        EXPECT_EQ(m_Manager.handlers[category], &m_Handler);
    }
    for (const int category : {-1, 20, 21, INT_MIN, INT_MAX}) {
        EXPECT_EQ(m_Manager.RegisterHandler(&m_Handler, category), -1);
    }
    EXPECT_EQ(std::count(std::begin(m_Manager.handlers), std::end(m_Manager.handlers), &m_Handler),
              3);
    EXPECT_EQ(m_Manager.log, &m_Log);
}

TEST_F(IpcConnectionManagerHandlers, AreReplacedAndClearedByNull)
{
    Handler successor{8, m_Calls};
    EXPECT_EQ(m_Manager.RegisterHandler(&m_Handler, 4), 0);
    EXPECT_EQ(m_Manager.RegisterHandler(&successor, 4), 0);
    EXPECT_EQ(m_Manager.handlers[4], &successor);
    EXPECT_EQ(m_Manager.RegisterHandler(nullptr, 4), 0);
    EXPECT_EQ(m_Manager.handlers[4], nullptr);
    IpcMsgBuf message{};
    message.category = 4;
    m_Manager.Dispatch(message, 0);
    EXPECT_THAT(m_Calls, IsEmpty());
    EXPECT_THAT(m_Log.Take(), ElementsAre(LogCall::Error("No handler for rcvd msg (category 4)")));
}

TEST_F(IpcConnectionManagerDispatch, HandsAMessageToItsCategorysHandler)
{
    Handler others{0, m_Calls};
    for (int category = 0; category < 20; ++category) {
        m_Manager.RegisterHandler(&others, category);
    }
    for (const int category : {0, 19}) {
        m_Manager.RegisterHandler(&m_Handler, category);
        IpcMsgBuf message{};
        message.category = static_cast<std::uint16_t>(category);
        m_Manager.Dispatch(message, 100 + category);
    }
    EXPECT_THAT(m_Calls, ElementsAre(std::pair(7, 100), std::pair(7, 119)));
    EXPECT_THAT(m_Log.Take(), IsEmpty());
}

TEST_F(IpcConnectionManagerDispatch, LogsAMessageWithoutAHandler)
{
    for (const unsigned int category : {0U, 19U, 20U, 25U, 65535U}) {
        IpcMsgBuf message{};
        message.category = static_cast<std::uint16_t>(category);
        m_Manager.Dispatch(message, 0);
        EXPECT_THAT(m_Log.Take(), ElementsAre(LogCall::Error("No handler for rcvd msg (category " +
                                                             std::to_string(category) + ")")));
    }
}

TEST_F(IpcConnectionManagerDispatch, LogsNothingWithoutAnAdapter)
{
    Manager silent(nullptr);
    IpcMsgBuf message{};
    message.category = 25;
    silent.Dispatch(message, 0);
    message.category = 3;
    silent.Dispatch(message, 0);
}

TEST_F(IpcConnectionManagerHandlers, AreToldOfACloseInCategoryOrder)
{
    std::vector<std::unique_ptr<Handler>> handlers;
    for (int category = 19; category >= 0; --category) {
        if (category != 3) {
            handlers.push_back(std::make_unique<Handler>(category, m_Calls));
            m_Manager.RegisterHandler(handlers.back().get(), category);
        }
    }
    m_Manager.NotifyClose(42);
    Handler::Calls expected;
    for (int category = 0; category < 20; ++category) {
        if (category != 3) {
            expected.emplace_back(category, 42);
        }
    }
    EXPECT_EQ(m_Calls, expected);
}

TEST_F(IpcConnectionManagerHandlers, AreToldOfACloseOnceForEachOfTheirCategories)
{
    Handler other{8, m_Calls};
    m_Manager.RegisterHandler(&m_Handler, 2);
    m_Manager.RegisterHandler(&m_Handler, 3);
    m_Manager.RegisterHandler(&other, 9);
    m_Manager.RegisterHandler(&m_Handler, 17);
    m_Manager.NotifyClose(42);
    EXPECT_THAT(m_Calls, ElementsAre(std::pair(7, 42), std::pair(7, 42), std::pair(8, 42),
                                     std::pair(7, 42)));
}

TEST_F(IpcConnectionManagerConnections, GetIdsFrom1AndAreReusedLowestFirst)
{
    for (int id = 1; id <= 4; ++id) {
        Transport::Connection& connection = m_Manager.FindFreeConnection();
        EXPECT_EQ(connection.id, id);
        EXPECT_EQ(m_Manager.connections.at(static_cast<std::size_t>(id) - 1), &connection);
        connection.isFree = false;
    }
    m_Manager.GetConnection(3)->isFree = true;
    m_Manager.GetConnection(2)->isFree = true;
    EXPECT_EQ(m_Manager.FindFreeConnection().id, 2);
    EXPECT_EQ(m_Manager.FindFreeConnection().id, 2) << "it stays free until it is taken";
    m_Manager.GetConnection(2)->isFree = false;
    EXPECT_EQ(m_Manager.FindFreeConnection().id, 3);
    EXPECT_EQ(m_Manager.GetConnectionCount(), 4);
}

TEST_F(IpcConnectionManagerConnections, StayWhereTheyAreWhileTheTableGrows)
{
    std::vector<Transport::Connection*> found;
    for (int id = 1; id <= 1000; ++id) {
        found.push_back(&m_Manager.FindFreeConnection());
        found.back()->isFree = false;
    }
    EXPECT_EQ(m_Manager.connections, found);
    EXPECT_EQ(m_Manager.GetConnectionCount(), 1000);
    EXPECT_EQ(m_Manager.GetConnection(1000)->id, 1000);
}

TEST_F(IpcConnectionManagerConnections, AreFoundByIdOnly)
{
    EXPECT_EQ(m_Manager.GetConnection(1), nullptr);
    m_Manager.FindFreeConnection().isFree = false;
    m_Manager.FindFreeConnection();
    EXPECT_EQ(m_Manager.GetConnection(1), m_Manager.connections[0]);
    EXPECT_EQ(m_Manager.GetConnection(2), m_Manager.connections[1]);
    EXPECT_EQ(&m_Manager.RequireConnection(2), m_Manager.connections[1]);
    for (const int id : {0, -1, 3, INT_MIN, INT_MAX}) {
        EXPECT_EQ(m_Manager.GetConnection(id), nullptr);
        CapturedStdout output;
        errno = EPERM;
        const Failure expected{0x2FFF, "IpcMsgException",
                               "include/internal/unix/IpcConnectionManager", 147, 0};
        const auto result =
            Throws<IpcMsgException>([&] { m_Manager.RequireConnection(id); }, expected);
        const std::string logged = output.Stop();
        EXPECT_TRUE(result);
        EXPECT_EQ(logged, expected.LogLine());
    }
}

TEST(IpcConnectionManagerLifetime, FreesTheConnectionsAndNothingElse)
{
    const AllocationBalance balance;
    Handler::Calls calls;
    Handler handler(1, calls);
    {
        Manager manager(nullptr);
        manager.RegisterHandler(&handler, 1);
        for (int i = 0; i < 10; ++i) {
            manager.FindFreeConnection().isFree = i % 2 == 0;
        }
        EXPECT_GT(Transport::Connection::s_Alive, 0);
    }
    EXPECT_EQ(Transport::Connection::s_Alive, 0);
    EXPECT_EQ(balance.GetLiveCount(), 0);
    EXPECT_TRUE(calls.empty());
}

TEST(IpcConnectionManagerLifetime, AFailedAllocationLeaksNothingAndChangesNothing)
{
    const AllocationBalance balance;
    {
        Manager manager(nullptr);
        int failures = 0;
        for (int id = 1; id <= 5; ++id) {
            // The connection itself, then the table's growth.
            for (unsigned int allocation = 1;; ++allocation) {
                const AllocationBalance attempt;
                try {
                    const FailingAllocation failing(allocation);
                    manager.FindFreeConnection().isFree = false;
                    break;
                } catch (const std::bad_alloc&) {
                    ++failures;
                }
                EXPECT_EQ(attempt.GetLiveCount(), 0);
                EXPECT_EQ(Transport::Connection::s_Alive, id - 1);
                EXPECT_EQ(manager.GetConnectionCount(), id - 1);
            }
            EXPECT_EQ(manager.GetConnection(id)->id, id);
        }
        // The table grew for the ids 1, 2, 3 and 5.
        EXPECT_EQ(failures, 9);
    }
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

} // namespace

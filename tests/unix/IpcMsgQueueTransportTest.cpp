#include <VelaHost_Ipc/IpcMsgQueueTransport.h>

#include "support/BlockedThread.h"
#include "support/CapturedStdout.h"
#include "support/ChildProcess.h"
#include "support/EchoClient.h"
#include "support/Interpose.h"
#include "support/QueueKey.h"
#include "support/RawQueue.h"
#include "support/RecordingLogAdapter.h"
#include "support/ThrownException.h"
#include "support/VirtualTable.h"
#include "support/interpose/Interposed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace VelaHost_Ipc;
using namespace velahost_test;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::Ne;
using ::testing::Pair;

using Manager = IpcConnectionManager<IpcMsgQueueTransport>;
using Connection = IpcMsgQueueTransport::Connection;

constexpr const char* s_SendFailedLine =
    "IpcMsgException at include/internal/unix/IpcMsgQueue:91\n";
constexpr const char* s_ReceiveFailedLine =
    "IpcMsgException at include/internal/unix/IpcMsgQueue:104\n";
constexpr const char* s_NoSuchConnectionLine =
    "IpcMsgException at include/internal/unix/IpcConnectionManager:147\n";

LogCall RunFailed(unsigned int errnoValue)
{
    char text[64];
    std::snprintf(text, sizeof text, "IpcMsgException in Run() errno=0x%x", errnoValue);
    return LogCall::Error(text);
}

/// What `LogRcvMsg` is given for a message whose 4 extra bytes are zero: 8 bytes more than the
/// payload, none of them stray.
LogCall Received(int category, int connection, const std::string& payload)
{
    return LogCall::RcvMsg(category, connection, payload + std::string(8, '\0'));
}

/// Calls a function for every message and every close.
class Handler : public IpcMsgHandler
{
public:
    std::function<void(IpcMsgBuf&, int)> m_OnMessage = [](IpcMsgBuf&, int) {};
    std::function<void(int)> m_OnClose = [](int) {};

    void HandleIpcMessage(IpcMsgBuf& msg, int length) override { m_OnMessage(msg, length); }
    void HandleIpcClose(int connectionId) override { m_OnClose(connectionId); }
};

/// Calls a function with the format of every line of detail.
class ActingLogAdapter final : public IpcLogAdapter
{
public:
    std::function<void(std::string_view)> m_OnDebug = [](std::string_view) {};

    [[gnu::format(printf, 2, 3)]] void LogInfo(const char*, ...) override {}
    [[gnu::format(printf, 2, 3)]] void LogDebug(const char* format, ...) override
    {
        m_OnDebug(format);
    }
    [[gnu::format(printf, 2, 3)]] void LogError(const char*, ...) override {}
    void LogRcvMsg(int, int, const void*, int) override {}
    void LogSendMsg(int, int, const void*, int) override {}
};

/// A transport that is ready to run. Clients are played by the test, under any process id.
struct Server : ::testing::Test
{
    Server() { m_Transport.Init(); }

    /// Runs one pass; what it writes to standard output.
    std::string Run()
    {
        CapturedStdout output;
        m_Transport.Run();
        return output.Stop();
    }

    /// Sends a control message and runs the pass that serves it.
    std::string Request(int code, int pid, int connectionId)
    {
        m_Raw.Send(1, MessageText(0, 1, ControlPayload(code, pid, connectionId)));
        return Run();
    }

    /// The id that a client with this process id is given.
    int Connect(int pid)
    {
        Request(1, pid, 0);
        const std::string reply = m_Raw.TryReceive(pid).value_or("");
        for (int id = 1; id <= m_Manager.GetConnectionCount(); ++id) {
            if (reply == MessageText(0, 1, ControlPayload(2, pid, id))) {
                return id;
            }
        }
        return -1;
    }

    /// True when the client with this process id is told that its connection is released.
    bool Disconnect(int pid, int id)
    {
        Request(3, 0, id);
        return m_Raw.TryReceive(pid) == MessageText(0, 1, ControlPayload(4, pid, id));
    }

    void SendData(unsigned int category, const std::string& payload, unsigned int connection = 1)
    {
        m_Raw.Send(1, MessageText(connection, category, payload));
    }

    QueueKey m_Key;
    RecordingLogAdapter m_Log;
    RecordingLogAdapter m_ManagerLog;
    Manager m_Manager{&m_ManagerLog};
    IpcMsgQueueTransport m_Transport{{m_Key.GetPath(), m_Key.GetId()}, m_Manager, &m_Log};
    RawQueue m_Raw{m_Transport.GetQueue().GetId()};
    Handler m_Handler;
};

using IpcMsgQueueTransportLifetime = Server;
using IpcMsgQueueTransportRun = Server;
using IpcMsgQueueTransportControl = Server;
using IpcMsgQueueTransportConnect = Server;
using IpcMsgQueueTransportDisconnect = Server;

// Layout

template <typename Value>
Value ValueAt(const void* object, std::size_t offset)
{
    Value value{};
    std::memcpy(&value, static_cast<const char*>(object) + offset, sizeof value);
    return value;
}

TEST_F(IpcMsgQueueTransportLifetime, HoldsQueueThenLogThenManager)
{
    EXPECT_EQ(ValueAt<int>(&m_Transport, sizeof(void*)), m_Raw.GetId());
    EXPECT_EQ(ValueAt<IpcLogAdapter*>(&m_Transport, 2 * sizeof(void*)), &m_Log);
    EXPECT_EQ(ValueAt<Manager*>(&m_Transport, 3 * sizeof(void*)), &m_Manager);
    EXPECT_EQ(sizeof m_Transport, 4 * sizeof(void*));
}

TEST(IpcMsgQueueTransportConnection, HoldsIdThenPidAndIsFreeWithoutOne)
{
    EXPECT_FALSE(std::is_polymorphic_v<Connection>);
    EXPECT_EQ(offsetof(Connection, id), 0U);
    EXPECT_EQ(offsetof(Connection, pid), 4U);
    EXPECT_EQ(sizeof(Connection), 8U);
    Connection connection(3);
    EXPECT_EQ(connection.id, 3);
    EXPECT_EQ(connection.pid, 0);
    for (const auto& [pid, isFree] : {std::pair(0, true), {1, false}, {-1, false}}) {
        connection.pid = pid;
        EXPECT_EQ(std::as_const(connection).IsFree(), isFree);
    }
}

TEST(IpcConnectionData, HoldsPidThenConnectionId)
{
    EXPECT_EQ(offsetof(IpcConnectionData, pid), 0U);
    EXPECT_EQ(offsetof(IpcConnectionData, connectionId), 4U);
    EXPECT_EQ(sizeof(IpcConnectionData), 8U);
    EXPECT_TRUE((std::is_same_v<decltype(IpcConnectionData::pid), std::int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(IpcConnectionData::connectionId), std::int32_t>));
}

TEST_F(IpcMsgQueueTransportLifetime, HandlesMessagesInTheThirdSlotAndClosesInTheFourth)
{
    IpcMsgHandler& base = m_Transport;
    IpcMsgBuf message{};
    message.data[0] = 5;
    GetVirtualSlot<void(IpcMsgHandler*, IpcMsgBuf*, int)>(&base, 2)(&base, &message, 12);
    EXPECT_THAT(m_Log.Take(), ElementsAre(LogCall::Error("Unexpected Ctrl message: 5")));
    GetVirtualSlot<void(IpcMsgHandler*, int)>(&base, 3)(&base, 1);
    EXPECT_THAT(m_Log.Take(), IsEmpty());
}

// Lifetime

TEST_F(IpcMsgQueueTransportLifetime, BeginsWithANewQueue)
{
    SendData(1, "of an earlier run");
    Manager manager(nullptr);
    const IpcMsgQueueTransport successor({m_Key.GetPath(), m_Key.GetId()}, manager, nullptr);
    EXPECT_NE(successor.GetQueue().GetId(), m_Raw.GetId());
    EXPECT_EQ(successor.GetQueue().GetId(), m_Key.FindQueue());
    EXPECT_EQ(RawQueue(m_Key.FindQueue()).GetMessageCount(), 0U);
    EXPECT_EQ(manager.handlers[1], nullptr) << "before Init";
}

TEST_F(IpcMsgQueueTransportLifetime, CannotBeginWhenTheQueueCannotBeRemovedOrMade)
{
    CapturedStdout output;
    const auto begin = [&] {
        IpcMsgQueueTransport({m_Key.GetPath(), m_Key.GetId()}, m_Manager, &m_Log);
    };
    Failure failure{0x2FFF, "IpcMsgException", "include/internal/unix/IpcMsgQueue", 72, 0};
    {
        const FailingCall removal("msgctl", EPERM);
        EXPECT_TRUE(Throws<IpcMsgException>(begin, failure));
    }
    failure.line = 79;
    const FailingCall creation("msgget", ENOSPC, 2);
    EXPECT_TRUE(Throws<IpcMsgException>(begin, failure));
    EXPECT_THAT(m_Log.Take(), IsEmpty());
}

TEST_F(IpcMsgQueueTransportLifetime, InitRegistersForCategory1AndPassesTheResultOn)
{
    class RefusingManager : public Manager
    {
    public:
        using Manager::Manager;
        int RegisterHandler(IpcMsgHandler* handler, int category) override
        {
            m_Registered.emplace_back(handler, category);
            return 17;
        }
        std::vector<std::pair<IpcMsgHandler*, int>> m_Registered;
    };
    RefusingManager refusing(nullptr);
    IpcMsgQueueTransport transport({m_Key.GetPath(), m_Key.GetId()}, refusing, nullptr);
    EXPECT_EQ(transport.Init(), 17);
    EXPECT_THAT(refusing.m_Registered,
                ElementsAre(std::pair(static_cast<IpcMsgHandler*>(&transport), 1)));

    EXPECT_EQ(m_Transport.Init(), 0);
    EXPECT_EQ(m_Manager.handlers[1], &m_Transport);
}

TEST_F(IpcMsgQueueTransportLifetime, EndsThroughTheFirstTwoSlotsLeavingQueueAndConnections)
{
    const IpcMsgQueueTransport::Config config{m_Key.GetPath(), m_Key.GetId()};
    Manager manager(nullptr);
    alignas(IpcMsgQueueTransport) unsigned char memory[sizeof(IpcMsgQueueTransport)];
    auto* inPlace = new (memory) IpcMsgQueueTransport(config, manager, nullptr);
    IpcConnectionData data{4001, 0};
    inPlace->ConnectReq(data);
    GetVirtualSlot<void(IpcMsgHandler*)>(inPlace, 0)(inPlace);
    EXPECT_EQ(RawQueue(m_Key.FindQueue()).TryReceive(4001),
              MessageText(0, 1, ControlPayload(2, 4001, 1)));
    ASSERT_EQ(manager.GetConnectionCount(), 1);
    EXPECT_EQ(manager.GetConnection(1)->pid, 4001);

    auto* onHeap = new IpcMsgQueueTransport(config, manager, nullptr);
    const int queue = onHeap->GetQueue().GetId();
    GetVirtualSlot<void(IpcMsgHandler*)>(onHeap, 1)(onHeap);
    EXPECT_EQ(m_Key.FindQueue(), queue);
}

// Receiving and dispatching

TEST_F(IpcMsgQueueTransportRun, LogsTheFullCountAndHandsThePayloadsLengthToTheHandler)
{
    for (const int length : {0, 1, 12, 100, 499, 500}) {
        const std::string payload(static_cast<std::size_t>(length), 'd');
        bool wasLogged = false;
        IpcMsgBuf handed{};
        int handedLength = -1;
        m_Handler.m_OnMessage = [&](IpcMsgBuf& message, int given) {
            wasLogged = !m_Log.GetCalls().empty();
            handed = message;
            handedLength = given;
        };
        m_Manager.RegisterHandler(&m_Handler, 19);
        SendData(19, payload, 0xFFFE);
        EXPECT_EQ(Run(), "");
        EXPECT_TRUE(wasLogged);
        EXPECT_THAT(m_Log.Take(), ElementsAre(Received(19, 0xFFFE, payload)));
        EXPECT_EQ(handedLength, length);
        EXPECT_EQ(std::int32_t{handed.mtype}, 1);
        EXPECT_EQ(std::uint16_t{handed.connection}, 0xFFFE);
        EXPECT_EQ(std::uint16_t{handed.category}, 19);
        EXPECT_EQ(std::memcmp(handed.data, payload.data(), payload.size()), 0);
    }
    EXPECT_THAT(m_ManagerLog.Take(), IsEmpty());
}

TEST_F(IpcMsgQueueTransportRun, NeverCarriesAnythingFromOneMessageToTheNext)
{
    std::string rest;
    m_Handler.m_OnMessage = [&](IpcMsgBuf& message, int length) {
        rest.assign(reinterpret_cast<const char*>(message.data) + length,
                    sizeof message.data - static_cast<std::size_t>(length));
    };
    m_Manager.RegisterHandler(&m_Handler, 2);
    SendData(2, std::string(500, 'x'));
    SendData(2, "abc");
    Run();
    Run();
    EXPECT_EQ(rest, std::string(501, '\0'));
    EXPECT_THAT(m_Log.Take(),
                ElementsAre(Received(2, 1, std::string(500, 'x')), Received(2, 1, "abc")));
}

TEST_F(IpcMsgQueueTransportRun, TakesOneMessageAPassInOrderAndOfType1Only)
{
    std::string seen;
    m_Handler.m_OnMessage = [&](IpcMsgBuf& message, int) {
        seen += static_cast<char>(message.data[0]);
    };
    m_Manager.RegisterHandler(&m_Handler, 0);
    m_Raw.Send(2, MessageText(1, 0, "-"));
    SendData(0, "a");
    m_Raw.Send(3, MessageText(1, 0, "-"));
    SendData(0, "b");
    SendData(0, "c");
    Run();
    EXPECT_EQ(seen, "a");
    Run();
    Run();
    EXPECT_EQ(seen, "abc");
    EXPECT_EQ(m_Raw.GetMessageCount(), 2U);
}

TEST_F(IpcMsgQueueTransportRun, LogsACategoryWithoutHandlerThroughTheManagersAdapter)
{
    for (const int category : {0, 19, 20, 25, 65535}) {
        SendData(static_cast<unsigned int>(category), "p");
        EXPECT_EQ(Run(), "");
        EXPECT_THAT(m_Log.Take(), ElementsAre(Received(category, 1, "p")));
        EXPECT_THAT(m_ManagerLog.Take(),
                    ElementsAre(LogCall::Error("No handler for rcvd msg (category " +
                                               std::to_string(category) + ")")));
    }
}

TEST_F(IpcMsgQueueTransportRun, LogsNoMissingHandlerWithoutTheManagersAdapter)
{
    m_Manager.log = nullptr;
    SendData(25, "p");
    EXPECT_EQ(Run(), "");
    EXPECT_THAT(m_Log.Take(), ElementsAre(Received(25, 1, "p")));
}

TEST_F(IpcMsgQueueTransportRun, LogsThatTheSystemFoundNoMessage)
{
    const FailingCall none("msgrcv", ENOMSG);
    EXPECT_EQ(Run(), "");
    EXPECT_THAT(m_Log.Take(), ElementsAre(LogCall::Error("Receive error: 0x2a")));
}

TEST_F(IpcMsgQueueTransportRun, LogsEveryOtherFailedReceive)
{
    for (const int error : {EINTR, EACCES, EFAULT, EIDRM, EINVAL, ENOMEM}) {
        const FailingCall failing("msgrcv", error);
        EXPECT_EQ(Run(), s_ReceiveFailedLine);
        EXPECT_THAT(m_Log.Take(), ElementsAre(RunFailed(static_cast<unsigned int>(error))));
        EXPECT_EQ(failing.GetCallCount(), 1U) << "nothing is discarded";
    }
}

TEST_F(IpcMsgQueueTransportRun, EndsThePassWhenASignalInterruptsIt)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR2, &action, nullptr), 0);
    CapturedStdout output;
    BlockedThread runner([&] { m_Transport.Run(); });
    runner.WaitUntilReceiving();
    runner.Signal(SIGUSR2);
    runner.Join();
    EXPECT_EQ(output.Stop(), s_ReceiveFailedLine);
    EXPECT_THAT(m_Log.Take(), ElementsAre(RunFailed(EINTR)));
}

TEST_F(IpcMsgQueueTransportRun, EndsEveryPassAtOnceWhenTheQueueHasGone)
{
    CapturedStdout output;
    BlockedThread runner([&] { m_Transport.Run(); });
    runner.WaitUntilReceiving();
    m_Raw.Remove();
    runner.Join();
    m_Transport.Run();
    m_Transport.Run();
    EXPECT_EQ(output.Stop(),
              std::string(s_ReceiveFailedLine) + s_ReceiveFailedLine + s_ReceiveFailedLine);
    EXPECT_THAT(m_Log.Take(), ElementsAre(RunFailed(EIDRM), RunFailed(EINVAL), RunFailed(EINVAL)));
}

TEST_F(IpcMsgQueueTransportRun, LetsItsThreadBeCancelled)
{
    bool wentOn = false;
    CapturedStdout output;
    BlockedThread runner([&] {
        m_Transport.Run();
        wentOn = true;
    });
    runner.WaitUntilReceiving();
    runner.Cancel();
    runner.Join();
    EXPECT_FALSE(wentOn);
    EXPECT_EQ(output.Stop(), "");
    EXPECT_THAT(m_Log.Take(), IsEmpty());
}

TEST_F(IpcMsgQueueTransportRun, ReportsARecordThatIsTooLongAndRemovesIt)
{
    m_Manager.RegisterHandler(&m_Handler, 2);
    int handled = 0;
    m_Handler.m_OnMessage = [&](IpcMsgBuf&, int) { ++handled; };
    for (const std::size_t length : {509U, 8192U}) {
        m_Raw.Send(1, std::string(length, '\2'));
        SendData(2, "next");
        EXPECT_EQ(Run(), s_ReceiveFailedLine);
        EXPECT_THAT(m_Log.Take(), ElementsAre(RunFailed(7)));
        EXPECT_EQ(handled, 0);
        EXPECT_EQ(m_Raw.GetMessageCount(), 1U);
        EXPECT_EQ(Run(), "");
        EXPECT_THAT(m_Log.Take(), ElementsAre(Received(2, 1, "next")));
        EXPECT_EQ(std::exchange(handled, 0), 1);
    }
}

TEST_F(IpcMsgQueueTransportRun, DropsARecordThatIsTooShort)
{
    m_Manager.RegisterHandler(&m_Handler, 0);
    m_Handler.m_OnMessage = [](IpcMsgBuf&, int length) { FAIL() << "length " << length; };
    for (int length = 0; length < 8; ++length) {
        m_Raw.Send(1, std::string(static_cast<std::size_t>(length), '\0'));
        EXPECT_EQ(Run(), "");
        EXPECT_THAT(m_Log.Take(), ElementsAre(LogCall::Error("Record of " + std::to_string(length) +
                                                             " bytes dropped")));
    }
    EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
    EXPECT_THAT(m_ManagerLog.Take(), IsEmpty());
}

TEST_F(IpcMsgQueueTransportRun, AbsorbsAHandlersIpcMsgException)
{
    class Special : public IpcMsgException
    {
    public:
        using IpcMsgException::IpcMsgException;
    };
    m_Manager.RegisterHandler(&m_Handler, 2);
    m_Handler.m_OnMessage = [](IpcMsgBuf&, int length) {
        if (length == 1) {
            throw IpcMsgException(s_QueueSendFailed);
        }
        throw Special(s_QueueSendFailed, 0xABC);
    };
    SendData(2, "1");
    EXPECT_EQ(Run(), s_SendFailedLine);
    EXPECT_THAT(m_Log.Take(), ElementsAre(Received(2, 1, "1"), RunFailed(0)));
    SendData(2, "22");
    EXPECT_EQ(Run(), s_SendFailedLine);
    EXPECT_THAT(m_Log.Take(), ElementsAre(Received(2, 1, "22"), RunFailed(0xABC)));
}

TEST_F(IpcMsgQueueTransportRun, RemovesNothingWhenAHandlerThrowsE2BIG)
{
    m_Manager.RegisterHandler(&m_Handler, 2);
    m_Handler.m_OnMessage = [](IpcMsgBuf&, int) {
        throw IpcMsgException(s_QueueReceiveFailed, E2BIG);
    };
    SendData(2, "1");
    SendData(2, "2");
    EXPECT_EQ(Run(), s_ReceiveFailedLine);
    EXPECT_THAT(m_Log.Take(), ElementsAre(Received(2, 1, "1"), RunFailed(7)));
    EXPECT_EQ(m_Raw.TryReceive(1), MessageText(1, 2, "2"));
}

TEST_F(IpcMsgQueueTransportRun, PassesAHandlersOtherExceptionsOn)
{
    using VelaHost_Utility::BadStateException;
    m_Manager.RegisterHandler(&m_Handler, 2);
    m_Handler.m_OnMessage = [](IpcMsgBuf&, int length) {
        switch (length) {
        case 1:
            throw std::bad_alloc();
        case 2:
            throw BadStateException(s_QueueSendFailed, "of the handler");
        default:
            throw length;
        }
    };
    SendData(2, "1");
    EXPECT_THROW(Run(), std::bad_alloc);
    SendData(2, "22");
    EXPECT_THROW(Run(), BadStateException);
    SendData(2, "333");
    EXPECT_THROW(Run(), int);
    EXPECT_THAT(m_Log.Take(),
                ElementsAre(Received(2, 1, "1"), Received(2, 1, "22"), Received(2, 1, "333")));
    EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
}

TEST_F(IpcMsgQueueTransportRun, WorksInSilenceWithoutAnyAdapter)
{
    Manager manager(nullptr);
    IpcMsgQueueTransport transport({m_Key.GetPath(), m_Key.GetId()}, manager, nullptr);
    transport.Init();
    const RawQueue raw(transport.GetQueue().GetId());
    int closed = 0;
    m_Handler.m_OnClose = [&](int id) { closed = id; };
    manager.RegisterHandler(&m_Handler, 2);
    const auto run = [&](const std::string& text) {
        CapturedStdout output;
        raw.Send(1, text);
        transport.Run();
        return output.Stop();
    };
    EXPECT_EQ(run(MessageText(0, 1, ControlPayload(1, 4001, 0))), "");
    EXPECT_EQ(raw.TryReceive(4001), MessageText(0, 1, ControlPayload(2, 4001, 1)));
    EXPECT_EQ(run(MessageText(1, 2, "data")), "");
    EXPECT_EQ(run(MessageText(1, 25, "data")), "");
    EXPECT_EQ(run(MessageText(0, 1, ControlPayload(5, 0, 0))), "");
    EXPECT_EQ(run(MessageText(0, 1, ControlPayload(3, 0, 2))), s_NoSuchConnectionLine);
    EXPECT_EQ(run(MessageText(0, 1, ControlPayload(3, 0, 1))), "");
    EXPECT_EQ(closed, 1);
    EXPECT_EQ(run("short"), "");
    EXPECT_EQ(run(std::string(509, 'x')), s_ReceiveFailedLine);
    const FailingCall none("msgrcv", ENOMSG);
    transport.Run();
    EXPECT_TRUE(none.WasHit());
}

// Connection control

TEST_F(IpcMsgQueueTransportControl, LogsAnUnexpectedCode)
{
    for (const int code : {0, -1, 2, 4, 5, 7, INT_MIN, INT_MAX}) {
        EXPECT_EQ(Request(code, 4001, 1), "");
        EXPECT_THAT(m_Log.Take(), ElementsAre(Received(1, 0, ControlPayload(code, 4001, 1)),
                                              LogCall::Error("Unexpected Ctrl message: " +
                                                             std::to_string(code))));
    }
    EXPECT_EQ(m_Manager.GetConnectionCount(), 0);
    EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
}

TEST_F(IpcMsgQueueTransportControl, IgnoresCode6WithoutALine)
{
    EXPECT_EQ(Request(6, 4001, 1), "");
    EXPECT_THAT(m_Log.Take(), ElementsAre(Received(1, 0, ControlPayload(6, 4001, 1))));
    EXPECT_EQ(m_Manager.GetConnectionCount(), 0);
    EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
}

TEST_F(IpcMsgQueueTransportControl, CompletesAShortMessageWithWhatTravelsBehindItThenZero)
{
    ASSERT_EQ(Connect(4001), 1);
    m_Log.Take();
    const std::string disconnect = ControlPayload(3, 0, 1);
    // Without its last 4 bytes, and without 8, the message names connection 0.
    for (const std::size_t length : {8U, 4U}) {
        m_Raw.Send(1, MessageText(0, 1, disconnect.substr(0, length)));
        EXPECT_EQ(Run(), s_NoSuchConnectionLine);
        EXPECT_THAT(m_Log.Take(),
                    ElementsAre(Received(1, 0, disconnect.substr(0, length)),
                                LogCall::Debug("DisconnectReq(procId=0)"), RunFailed(0)));
    }
    m_Raw.Send(1, MessageText(0, 1, ""));
    EXPECT_EQ(Run(), "");
    EXPECT_THAT(m_Log.Take(),
                ElementsAre(Received(1, 0, ""), LogCall::Error("Unexpected Ctrl message: 0")));
    EXPECT_FALSE(m_Manager.GetConnection(1)->IsFree());

    m_Raw.Send(1, std::string("\0\0\1\0", 4) + disconnect);
    EXPECT_EQ(Run(), "");
    EXPECT_EQ(m_Log.Take().back(), LogCall::Debug("Connection 1 cleared"));
}

TEST_F(IpcMsgQueueTransportControl, ReadsARecordAtAnyAlignmentWhateverItsLength)
{
    for (std::size_t offset = 0; offset < 4; ++offset) {
        char memory[sizeof(IpcMsgBuf) + 4] = {};
        const std::string payload = ControlPayload(1, 4001 + static_cast<int>(offset), 0);
        auto& message = *reinterpret_cast<IpcMsgBuf*>(memory + offset);
        std::memcpy(message.data, payload.data(), payload.size());
        m_Transport.HandleIpcMessage(message, static_cast<int>(offset) - 2);
    }
    for (int id = 1; id <= 4; ++id) {
        EXPECT_EQ(m_Manager.RequireConnection(id).pid, 4000 + id);
    }
}

TEST_F(IpcMsgQueueTransportConnect, RepliesAndLogsInThisOrder)
{
    EXPECT_EQ(Request(1, 4001, 99), "");
    EXPECT_THAT(m_Log.Take(), ElementsAre(Received(1, 0, ControlPayload(1, 4001, 99)),
                                          LogCall::Debug("ConnectReq(PID=4001)"),
                                          LogCall::SendMsg(1, 1, ControlPayload(2, 4001, 1)),
                                          LogCall::Debug("Etsablished connection 1 to PID 4001")));
    EXPECT_EQ(m_Raw.TryReceive(0), MessageText(0, 1, ControlPayload(2, 4001, 1)));
    EXPECT_THAT(m_ManagerLog.Take(), IsEmpty());
    ASSERT_EQ(m_Manager.GetConnectionCount(), 1);
    EXPECT_EQ(m_Manager.GetConnection(1)->id, 1);
    EXPECT_EQ(m_Manager.GetConnection(1)->pid, 4001);
}

TEST_F(IpcMsgQueueTransportConnect, SendsItsReplyAfterLoggingItOf20BytesAndWithoutWaiting)
{
    std::vector<std::pair<std::size_t, int>> sent;
    std::size_t logged = 0;
    Hook watch(interposed::msgsnd,
               [&](int, const void*, std::size_t size, int flags) -> std::optional<int> {
                   sent.emplace_back(size, flags);
                   logged = m_Log.GetCalls().size();
                   return std::nullopt;
               });
    IpcConnectionData data{4001, 0};
    m_Transport.ConnectReq(data);
    EXPECT_THAT(sent, ElementsAre(std::pair<std::size_t, int>(20, IPC_NOWAIT)));
    EXPECT_EQ(logged, 2U);
}

TEST_F(IpcMsgQueueTransportConnect, GivesTheLowestFreeId)
{
    EXPECT_EQ(Connect(4001), 1);
    EXPECT_EQ(Connect(4002), 2);
    EXPECT_EQ(Connect(4003), 3);
    EXPECT_TRUE(Disconnect(4002, 2));
    EXPECT_EQ(Connect(4004), 2);
    EXPECT_TRUE(Disconnect(4003, 3));
    EXPECT_TRUE(Disconnect(4001, 1));
    EXPECT_EQ(Connect(4005), 1);
    EXPECT_EQ(Connect(4006), 3);
    EXPECT_EQ(Connect(4007), 4);
    EXPECT_EQ(m_Manager.GetConnectionCount(), 4);
}

TEST_F(IpcMsgQueueTransportConnect, GivesAProcessThatConnectsTwiceTwoConnections)
{
    EXPECT_EQ(Connect(4001), 1);
    EXPECT_EQ(Connect(4001), 2);
    EXPECT_TRUE(Disconnect(4001, 1));
    EXPECT_TRUE(m_Manager.GetConnection(1)->IsFree());
    EXPECT_FALSE(m_Manager.GetConnection(2)->IsFree());
}

TEST_F(IpcMsgQueueTransportConnect, KeepsTheConnectionWhenTheReplyCannotBeSent)
{
    {
        const FailingCall full("msgsnd", EAGAIN, 2);
        EXPECT_EQ(Request(1, 4001, 0), s_SendFailedLine);
        EXPECT_TRUE(full.WasHit());
    }
    EXPECT_THAT(m_Log.Take(),
                ElementsAre(Received(1, 0, ControlPayload(1, 4001, 0)),
                            LogCall::Debug("ConnectReq(PID=4001)"),
                            LogCall::SendMsg(1, 1, ControlPayload(2, 4001, 1)), RunFailed(0)));
    ASSERT_EQ(m_Manager.GetConnectionCount(), 1);
    EXPECT_EQ(m_Manager.GetConnection(1)->pid, 4001);
    EXPECT_EQ(Connect(4002), 2);
}

TEST_F(IpcMsgQueueTransportConnect, ThrowsWhenTheQueueIsFull)
{
    Fill(m_Raw);
    CapturedStdout output;
    IpcConnectionData data{4001, 0};
    EXPECT_TRUE(Throws<IpcMsgException>(
        [&] { m_Transport.ConnectReq(data); },
        {0x2FFF, "IpcMsgException", "include/internal/unix/IpcMsgQueue", 91, 0}));
    EXPECT_EQ(m_Manager.RequireConnection(1).pid, 4001);
}

TEST_F(IpcMsgQueueTransportConnect, CannotReplyToAProcessIdBelow1)
{
    EXPECT_EQ(Request(1, 0, 0), s_SendFailedLine);
    EXPECT_EQ(m_Log.Take().back(), RunFailed(0));
    EXPECT_TRUE(m_Manager.RequireConnection(1).IsFree());
    EXPECT_EQ(Request(1, -5, 0), s_SendFailedLine);
    EXPECT_EQ(m_Log.Take().back(), RunFailed(0));
    EXPECT_EQ(m_Manager.RequireConnection(1).pid, -5);
    EXPECT_EQ(Connect(4001), 2);
}

TEST_F(IpcMsgQueueTransportConnect, ReceivesItsOwnReplyToProcessId1)
{
    EXPECT_EQ(Request(1, 1, 0), "");
    EXPECT_EQ(m_Log.Take().back(), LogCall::Debug("Etsablished connection 1 to PID 1"));
    EXPECT_EQ(Run(), "");
    EXPECT_THAT(m_Log.Take(), ElementsAre(Received(1, 0, ControlPayload(2, 1, 1)),
                                          LogCall::Error("Unexpected Ctrl message: 2")));
}

TEST_F(IpcMsgQueueTransportDisconnect, RepliesAndLogsInThisOrder)
{
    ASSERT_EQ(Connect(4001), 1);
    ASSERT_EQ(Connect(4002), 2);
    m_Log.Take();
    EXPECT_EQ(Request(3, 99, 2), "");
    EXPECT_THAT(m_Log.Take(), ElementsAre(Received(1, 0, ControlPayload(3, 99, 2)),
                                          LogCall::Debug("DisconnectReq(procId=2)"),
                                          LogCall::SendMsg(1, 2, ControlPayload(4, 4002, 2)),
                                          LogCall::Debug("Connection 2 cleared")));
    EXPECT_EQ(m_Raw.TryReceive(4002), MessageText(0, 1, ControlPayload(4, 4002, 2)));
    EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
    EXPECT_EQ(m_Manager.GetConnection(2)->pid, 0);
    EXPECT_EQ(m_Manager.GetConnection(2)->id, 2);
    EXPECT_EQ(m_Manager.GetConnection(1)->pid, 4001);
}

TEST_F(IpcMsgQueueTransportDisconnect, TellsEveryHandlerInCategoryOrderAfterTheReply)
{
    ASSERT_EQ(Connect(4001), 1);
    std::vector<std::pair<int, int>> told;
    std::vector<std::unique_ptr<Handler>> handlers;
    for (int category = 19; category >= 0; --category) {
        if (category == 1 || category == 6) {
            continue;
        }
        handlers.push_back(std::make_unique<Handler>());
        handlers.back()->m_OnClose = [&, category](int id) {
            told.emplace_back(category, id);
            EXPECT_EQ(m_Raw.GetMessageCount(), 1U) << "the reply has been sent";
            EXPECT_FALSE(m_Manager.GetConnection(id)->IsFree());
            EXPECT_NE(m_Log.GetCalls().back(), LogCall::Debug("Connection 1 cleared"));
        };
        m_Manager.RegisterHandler(handlers.back().get(), category);
    }
    EXPECT_EQ(Request(3, 0, 1), "");
    std::vector<std::pair<int, int>> expected;
    for (const int category : {0, 2, 3, 4, 5, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19}) {
        expected.emplace_back(category, 1);
    }
    EXPECT_EQ(told, expected);
    EXPECT_TRUE(m_Manager.GetConnection(1)->IsFree());
}

TEST_F(IpcMsgQueueTransportDisconnect, FreesTheConnectionBeforeItsLastLine)
{
    ActingLogAdapter log;
    Manager manager(nullptr);
    IpcMsgQueueTransport transport({m_Key.GetPath(), m_Key.GetId()}, manager, &log);
    IpcConnectionData data{4001, 1};
    transport.ConnectReq(data);
    std::vector<std::pair<std::string, int>> pids; // the connection's, at each line
    log.m_OnDebug = [&](std::string_view format) {
        pids.emplace_back(format, manager.RequireConnection(1).pid);
    };
    transport.DisconnectReq(data);
    EXPECT_THAT(pids, ElementsAre(Pair("DisconnectReq(procId=%d)", 4001),
                                  Pair("Connection %d cleared", 0)));
}

TEST_F(IpcMsgQueueTransportDisconnect, IsDoneWhenTheAdapterThrowsAtItsLastLine)
{
    ActingLogAdapter log;
    Manager manager(nullptr);
    IpcMsgQueueTransport transport({m_Key.GetPath(), m_Key.GetId()}, manager, &log);
    transport.Init();
    std::vector<int> closed;
    m_Handler.m_OnClose = [&](int id) { closed.push_back(id); };
    manager.RegisterHandler(&m_Handler, 2);
    IpcConnectionData data{4001, 0};
    transport.ConnectReq(data);
    log.m_OnDebug = [](std::string_view format) {
        if (format == "Connection %d cleared") {
            throw IpcMsgException(s_QueueSendFailed);
        }
    };
    const RawQueue raw(transport.GetQueue().GetId());
    raw.Send(1, MessageText(0, 1, ControlPayload(3, 0, 1)));
    CapturedStdout output;
    EXPECT_NO_THROW(transport.Run());
    EXPECT_EQ(output.Stop(), s_SendFailedLine);
    EXPECT_TRUE(manager.RequireConnection(1).IsFree());
    EXPECT_THAT(closed, ElementsAre(1));
}

TEST_F(IpcMsgQueueTransportDisconnect, RefusesAnIdThatWasNeverGiven)
{
    ASSERT_EQ(Connect(4001), 1);
    m_Log.Take();
    m_Manager.RegisterHandler(&m_Handler, 0);
    m_Handler.m_OnClose = [](int id) { FAIL() << id; };
    for (const int id : {0, 2, -1, INT_MIN, INT_MAX}) {
        EXPECT_EQ(Request(3, 4001, id), s_NoSuchConnectionLine);
        EXPECT_THAT(m_Log.Take(),
                    ElementsAre(Received(1, 0, ControlPayload(3, 4001, id)),
                                LogCall::Debug("DisconnectReq(procId=" + std::to_string(id) + ")"),
                                RunFailed(0)));
        CapturedStdout output;
        IpcConnectionData data{4001, id};
        EXPECT_TRUE(Throws<IpcMsgException>(
            [&] { m_Transport.DisconnectReq(data); },
            {0x2FFF, "IpcMsgException", "include/internal/unix/IpcConnectionManager", 147, 0}));
        m_Log.Take();
    }
    EXPECT_FALSE(m_Manager.GetConnection(1)->IsFree());
    EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
}

TEST_F(IpcMsgQueueTransportDisconnect, RefusesAFreeConnectionWithoutTellingAnyone)
{
    ASSERT_EQ(Connect(4001), 1);
    ASSERT_TRUE(Disconnect(4001, 1));
    m_Log.Take();
    m_Manager.RegisterHandler(&m_Handler, 0);
    m_Handler.m_OnClose = [](int id) { FAIL() << id; };
    EXPECT_EQ(Request(3, 0, 1), s_SendFailedLine);
    EXPECT_THAT(m_Log.Take(),
                ElementsAre(Received(1, 0, ControlPayload(3, 0, 1)),
                            LogCall::Debug("DisconnectReq(procId=1)"),
                            LogCall::SendMsg(1, 1, ControlPayload(4, 0, 1)), RunFailed(0)));
    EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
}

TEST_F(IpcMsgQueueTransportDisconnect, KeepsTheConnectionWhenTheReplyCannotBeSent)
{
    ASSERT_EQ(Connect(4001), 1);
    m_Log.Take();
    m_Manager.RegisterHandler(&m_Handler, 0);
    m_Handler.m_OnClose = [](int id) { FAIL() << id; };
    const FailingCall full("msgsnd", EAGAIN, 2);
    EXPECT_EQ(Request(3, 0, 1), s_SendFailedLine);
    EXPECT_TRUE(full.WasHit());
    EXPECT_THAT(m_Log.Take(),
                ElementsAre(Received(1, 0, ControlPayload(3, 0, 1)),
                            LogCall::Debug("DisconnectReq(procId=1)"),
                            LogCall::SendMsg(1, 1, ControlPayload(4, 4001, 1)), RunFailed(0)));
    EXPECT_EQ(m_Manager.GetConnection(1)->pid, 4001);
}

TEST_F(IpcMsgQueueTransportDisconnect, KeepsTheConnectionWhenAHandlerThrows)
{
    ASSERT_EQ(Connect(4001), 1);
    m_Manager.RegisterHandler(&m_Handler, 0);
    m_Handler.m_OnClose = [](int) { throw IpcMsgException(s_QueueSendFailed); };
    Handler second;
    second.m_OnClose = [](int id) { FAIL() << id; };
    m_Manager.RegisterHandler(&second, 2);
    EXPECT_EQ(Request(3, 0, 1), s_SendFailedLine);
    EXPECT_EQ(m_Log.Take().back(), RunFailed(0));
    EXPECT_EQ(m_Manager.GetConnection(1)->pid, 4001);
}

// Processes

/// Sends every message back to its client, and keeps the numbers that each client sent.
class EchoHandler : public IpcMsgHandler
{
public:
    EchoHandler(const IpcMsgQueue& queue, const Manager& manager)
        : m_Queue(queue), m_Manager(manager)
    {}

    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        const int pid = m_Manager.RequireConnection(msg.connection).pid;
        m_Sequences[pid].push_back(EchoSequence(
            {reinterpret_cast<const char*>(msg.data), static_cast<std::size_t>(length)}));
        msg.mtype = pid;
        m_Queue.Send(msg, length);
    }

    void HandleIpcClose(int connectionId) override { m_Closed.push_back(connectionId); }

    std::map<int, std::vector<int>> m_Sequences;
    std::vector<int> m_Closed;

private:
    const IpcMsgQueue& m_Queue;
    const Manager& m_Manager;
};

struct IpcMsgQueueTransportProcesses : Server
{
    IpcMsgQueueTransportProcesses() { m_Manager.RegisterHandler(&m_Echo, s_EchoCategory); }

    /// Throws when a client has failed and so removed the queue.
    void Serve()
    {
        m_Transport.Run();
        m_Raw.GetState();
    }

    void ServeUntilClosed(std::size_t connections)
    {
        while (m_Echo.m_Closed.size() < connections) {
            Serve();
        }
    }

    /// That the client's messages came once each and in order.
    void ExpectAll(int pid, int messageCount)
    {
        std::vector<int> numbers(static_cast<std::size_t>(messageCount));
        std::iota(numbers.begin(), numbers.end(), 0);
        EXPECT_EQ(m_Echo.m_Sequences[pid], numbers);
    }

    void ExpectNoFaults()
    {
        EXPECT_THAT(m_Log.Take(), Each(Field(&LogCall::function, Ne(LogCall::Function::Error))));
        EXPECT_THAT(m_ManagerLog.Take(), IsEmpty());
        EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
    }

    EchoHandler m_Echo{m_Transport.GetQueue(), m_Manager};
};

TEST_F(IpcMsgQueueTransportProcesses, AClientsMessagesOfEveryLengthComeOnceAndInOrder)
{
    constexpr int messageCount = 1000;
    ChildProcess client([&] { return RunEchoClient(m_Raw.GetId(), messageCount); });
    ServeUntilClosed(1);
    EXPECT_EQ(client.WaitForExitStatus(), 0);
    ExpectAll(client.GetPid(), messageCount);
    ExpectNoFaults();
}

TEST_F(IpcMsgQueueTransportProcesses, TwentyClientsAtOnceAreServed)
{
    constexpr int clientCount = 20;
    constexpr int messageCount = 200;
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    std::vector<std::unique_ptr<ChildProcess>> clients;
    for (int i = 0; i < clientCount; ++i) {
        clients.push_back(std::make_unique<ChildProcess>([&] {
            close(gate[1]);
            // Nobody sends, let alone leaves, before the gate's other end is closed everywhere.
            return RunEchoClient(m_Raw.GetId(), messageCount, [&](int) {
                char nothing = 0;
                EXPECT_EQ(read(gate[0], &nothing, 1), 0);
            });
        }));
    }
    for (int i = 0; i < clientCount; ++i) {
        Serve();
    }
    std::vector<int> pids;
    for (const Connection* connection : m_Manager.connections) {
        pids.push_back(connection->pid);
    }
    std::vector<int> expectedPids;
    for (const auto& client : clients) {
        expectedPids.push_back(client->GetPid());
    }
    EXPECT_THAT(pids, ::testing::UnorderedElementsAreArray(expectedPids));

    close(gate[1]);
    close(gate[0]);
    ServeUntilClosed(clientCount);
    for (const auto& client : clients) {
        EXPECT_EQ(client->WaitForExitStatus(), 0);
        ExpectAll(client->GetPid(), messageCount);
    }
    std::vector<int> ids(clientCount);
    std::iota(ids.begin(), ids.end(), 1);
    EXPECT_THAT(m_Echo.m_Closed, ::testing::UnorderedElementsAreArray(ids));
    ExpectNoFaults();
}

TEST_F(IpcMsgQueueTransportProcesses, ADeadClientKeepsItsConnection)
{
    ChildProcess client([&] {
        return RunEchoClient(m_Raw.GetId(), 0, [](int) {
            for (;;) {
                pause();
            }
        });
    });
    m_Transport.Run();
    client.Kill(SIGKILL);
    client.Wait();
    EXPECT_EQ(m_Manager.RequireConnection(1).pid, client.GetPid());
    m_Raw.TryReceive(client.GetPid());
    EXPECT_EQ(Connect(4001), 2);
    EXPECT_TRUE(Disconnect(client.GetPid(), 1)) << "anybody may release it";
    EXPECT_EQ(Connect(4002), 1);
}

TEST_F(IpcMsgQueueTransportProcesses, AClientOfTheOtherWordSizeIsServed)
{
#ifdef OTHER_WORD_SIZE_CLIENT
    // Every length from 4 to 500.
    constexpr int messageCount = 497;
    ChildProcess client({OTHER_WORD_SIZE_CLIENT, m_Key.GetPath(), std::string(1, m_Key.GetId()),
                         std::to_string(messageCount)});
    ServeUntilClosed(1);
    EXPECT_EQ(client.WaitForExitStatus(), 0);
    ExpectAll(client.GetPid(), messageCount);
    ExpectNoFaults();
#else
    GTEST_SKIP() << "programs of the other word size can't be made or run here";
#endif
}

} // namespace

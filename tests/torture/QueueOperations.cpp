#include "Operation.h"

#include "Transcript.h"

#include "support/Interpose.h"
#include "support/QueueKey.h"
#include "support/RawQueue.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_Ipc/IpcMsgException.h>
#include <VelaHost_Ipc/IpcMsgQueueTransport.h>

#include <utility>

namespace velahost_test {

namespace {

using VelaHost_Ipc::IpcConnectionData;
using VelaHost_Ipc::IpcConnectionManager;
using VelaHost_Ipc::IpcMsgBuf;
using VelaHost_Ipc::IpcMsgException;
using VelaHost_Ipc::IpcMsgHandler;
using VelaHost_Ipc::IpcMsgQueue;
using VelaHost_Ipc::IpcMsgQueueTransport;

constexpr int s_Pid = 4711;
constexpr unsigned int s_DataCategory = 5;

std::string DescribeQueue(int id)
{
    if (id == -1) {
        return "none";
    }
    const msqid_ds state = RawQueue(id).GetState();
    char mode[8];
    std::snprintf(mode, sizeof mode, "%o", state.msg_perm.mode & 0777U);
    return std::string(mode) + " of " + std::to_string(state.msg_qnum);
}

/// A key without a queue. The queue of the key -1, which is everybody's, is one of the test's own.
struct Key
{
    QueueKey key;
    QueueKey noKey;
    Hook<int(key_t, int)> get{interposed::msgget, [this](key_t wanted, int flags) {
                                  return msgget(wanted == -1 ? noKey.GetKey() : wanted, flags);
                              }};

    std::string GetState() const
    {
        return "queue " + DescribeQueue(key.FindQueue()) + ", without key " +
               DescribeQueue(noKey.FindQueue());
    }
};

/// A queue with one message for the server, which carries data.
struct OldQueue : Key
{
    IpcMsgQueue queue{key.GetPath(), key.GetId(), false};

    OldQueue() { RawQueue(queue.GetId()).Send(1, MessageText(1, s_DataCategory, "data")); }
};

template <bool recreate>
Told Open(Key& f)
{
    const IpcMsgQueue made(f.key.GetPath(), f.key.GetId(), recreate);
    return "open";
}

struct CountingHandler final : IpcMsgHandler
{
    int messages = 0;
    int closes = 0;
    void HandleIpcMessage(IpcMsgBuf&, int) override { ++messages; }
    void HandleIpcClose(int) override { ++closes; }
};

/// A transport whose queue is empty.
struct Server : Key
{
    Transcript log;
    IpcConnectionManager<IpcMsgQueueTransport> manager{&log};
    CountingHandler handler;
    IpcMsgQueueTransport transport{{key.GetPath(), key.GetId()}, manager, &log};

    Server()
    {
        transport.Init();
        manager.RegisterHandler(&handler, s_DataCategory);
    }

    void Send(unsigned int category, const std::string& payload)
    {
        RawQueue(transport.GetQueue().GetId()).Send(1, MessageText(0, category, payload));
    }
    void Connect()
    {
        auto& connection = manager.FindFreeConnection();
        connection.pid = s_Pid;
    }
    std::string GetState() const
    {
        std::string state = "pids";
        for (const auto* connection : manager.connections) {
            state += " " + std::to_string(connection->pid);
        }
        return state + ", handled " + std::to_string(handler.messages) + "-" +
               std::to_string(handler.closes) + ", queue " +
               std::to_string(RawQueue(transport.GetQueue().GetId()).GetMessageCount()) + "; " +
               log.GetText();
    }
};

struct ConnectWaiting : Server
{
    ConnectWaiting() { Send(1, ControlPayload(1, s_Pid, 0)); }
};

struct Connected : Server
{
    Connected() { Connect(); }
};

struct DisconnectWaiting : Connected
{
    DisconnectWaiting() { Send(1, ControlPayload(3, 0, 1)); }
};

struct BadDisconnectWaiting : Connected
{
    BadDisconnectWaiting() { Send(1, ControlPayload(3, 0, 9)); }
};

struct DataWaiting : Connected
{
    DataWaiting() { Send(s_DataCategory, "data"); }
};

template <typename Fixture>
Told Run(Fixture& f)
{
    f.transport.Run();
    return "ran";
}

Failure QueueFailure(unsigned int line, int errnoValue)
{
    return {0x2FFF, "IpcMsgException", "include/internal/unix/IpcMsgQueue", line, errnoValue};
}

Effect ThrowsAt(unsigned int line, int errnoValue)
{
    return Throws<IpcMsgException>(QueueFailure(line, errnoValue));
}

/// `Run` takes an exception in, and logs it.
Effect Absorbs(const Failure& failure)
{
    return Tells("ran").Prints(failure.LogLine());
}

const Failure s_NoConnection{0x2FFF, "IpcMsgException",
                             "include/internal/unix/IpcConnectionManager", 147, 0};

std::vector<Operation> HandleOperations()
{
    constexpr unsigned int each = Row::each;

    return {
        // A path that can't be examined gives the key -1. m_Errno is told of receives only.
        {"IpcMsgQueue_Construct_Creates",
         With<Key>(Open<false>),
         Tells("open").Leaves("queue 766 of 0, without key none"),
         {{"ftok", each, EACCES, Tells("open").Leaves("queue none, without key 766 of 0")},
          {"msgget", 1, EACCES, Ignored(), ThrowsAt(79, 0)},
          {"msgget", 2, ENOSPC, ThrowsAt(79, 0)}}},

        {"IpcMsgQueue_Construct_Opens",
         With<OldQueue>([](OldQueue& f) { return Open<false>(f); }),
         Tells("open"),
         {{"ftok", each, EACCES, Tells("open").Leaves("queue 766 of 1, without key 766 of 0")},
          // One that can't be opened is created, which opens it after all.
          {"msgget", each, ENOENT, Ignored(), ThrowsAt(79, 0)}}},

        {"IpcMsgQueue_Construct_Recreates",
         With<OldQueue>([](OldQueue& f) { return Open<true>(f); }),
         Tells("open").Leaves("queue 766 of 0, without key none"),
         {{"ftok", each, EACCES, Tells("open").Leaves("queue 766 of 1, without key 766 of 0")},
          {"msgget", 1, ENOENT, Tells("open"), ThrowsAt(79, 0)},
          {"msgctl", each, EPERM, ThrowsAt(72, 0)},
          {"msgget", 2, ENOSPC, ThrowsAt(79, 0).Leaves("queue none, without key none")}}},

        {"IpcMsgQueue_Send",
         With<OldQueue>([](OldQueue& f) {
             IpcMsgBuf message{};
             message.mtype = 1;
             f.queue.Send(message, 12);
             return Told("sent");
         }),
         Tells("sent").Leaves("queue 766 of 2, without key none"),
         {{"msgsnd", each, EAGAIN, ThrowsAt(91, 0)}}},

        {"IpcMsgQueue_Receive",
         With<OldQueue>([](OldQueue& f) {
             IpcMsgBuf message{};
             return Told::Number(f.queue.Receive(message, 1));
         }),
         Tells("12").Leaves("queue 766 of 0, without key none"),
         {{"msgrcv", each, EINTR, ThrowsAt(104, EINTR)}, {"msgrcv", each, ENOMSG, Tells("-1")}}},

        {"IpcMsgQueue_Discard",
         With<OldQueue>([](OldQueue& f) {
             f.queue.Discard(1);
             return Told("done");
         }),
         Tells("done").Leaves("queue 766 of 0, without key none"),
         {{"msgrcv", each, EIDRM, Tells("done")}}},
    };
}

std::vector<Operation> ManagerOperations()
{
    return {
        {"IpcConnectionManager_FindFreeConnection",
         With<Server>([](Server& f) { return Told::Number(f.manager.FindFreeConnection().id); }),
         Tells("1").Leaves("pids 0, handled 0-0, queue 0; ")},

        {"IpcConnectionManager_RequireConnection",
         With<Connected>(
             [](Connected& f) { return Told::Number(f.manager.RequireConnection(2).id); }),
         Throws<IpcMsgException>(s_NoConnection),
         {{"puts", Row::each, EIO, Unlogged(Throws<IpcMsgException>(s_NoConnection))},
          {"fflush", Row::each, EIO, Ignored()}}},

        {"IpcConnectionManager_RegisterHandler", With<Server>([](Server& f) {
             return Told::Number(f.manager.RegisterHandler(nullptr, 3));
         }),
         Tells("0")},

        {"IpcConnectionManager_Dispatch", With<Server>([](Server& f) {
             IpcMsgBuf message{};
             message.category = 19;
             f.manager.Dispatch(message, 0);
             return Told("done");
         }),
         Tells("done").Leaves(
             "pids, handled 0-0, queue 0; error No handler for rcvd msg (category 19); ")},

        {"IpcConnectionManager_NotifyClose", With<Server>([](Server& f) {
             f.manager.NotifyClose(1);
             return Told("done");
         }),
         Tells("done").Leaves("pids, handled 0-1, queue 0; ")},
    };
}

std::vector<Operation> ServerOperations()
{
    constexpr unsigned int each = Row::each;
    const Effect lostReply = Absorbs(QueueFailure(91, 0)).ThenNoMore();
    const auto receiveRows = [](const std::string& before) {
        // A message that is too long is taken away, if that succeeds.
        const std::string tooLong = "; error IpcMsgException in Run() errno=0x7; ";
        return std::vector<Row>{
            {"msgrcv", Row::each, EINTR,
             Absorbs(QueueFailure(104, EINTR))
                 .Leaves(before + "1; error IpcMsgException in Run() errno=0x4; ")},
            {"msgrcv", Row::each, ENOMSG,
             Tells("ran").Leaves(before + "1; error Receive error: 0x2a; ")},
            {"msgrcv", Row::each, E2BIG,
             Absorbs(QueueFailure(104, E2BIG)).Leaves(before + "0" + tooLong).ThenNoMore(),
             Absorbs(QueueFailure(104, E2BIG)).Leaves(before + "1" + tooLong)}};
    };
    const auto with = [](std::vector<Row> rows, std::vector<Row> more) {
        rows.insert(rows.end(), more.begin(), more.end());
        return rows;
    };
    const std::string connecting = "received 1 0 20; debug ConnectReq(PID=4711); ";
    const std::string disconnecting = "received 1 0 20; debug DisconnectReq(procId=1); ";
    const std::string badDisconnect =
        "pids 4711, handled 0-0, queue 0; received 1 0 20; debug DisconnectReq(procId=9); ";
    const Effect badId = Absorbs(s_NoConnection)
                             .Leaves(badDisconnect + "error IpcMsgException in Run() errno=0x0; ")
                             .ThenNoMore();

    return {
        {"IpcMsgQueueTransport_Construct",
         With<OldQueue>([](OldQueue& f) {
             IpcConnectionManager<IpcMsgQueueTransport> manager(nullptr);
             const IpcMsgQueueTransport made({f.key.GetPath(), f.key.GetId()}, manager, nullptr);
             return Told("made");
         }),
         Tells("made").Leaves("queue 766 of 0, without key none"),
         {{"ftok", each, EACCES, Tells("made").Leaves("queue 766 of 1, without key 766 of 0")},
          {"msgget", 1, ENOENT, Tells("made"), ThrowsAt(79, 0)},
          {"msgctl", each, EPERM, ThrowsAt(72, 0)},
          {"msgget", 2, ENOSPC, ThrowsAt(79, 0).Leaves("queue none, without key none")}}},

        {"IpcMsgQueueTransport_Init",
         With<Server>([](Server& f) { return Told::Number(f.transport.Init()); }), Tells("0")},

        // A reply that can't be sent leaves the connection given.
        {"IpcMsgQueueTransport_Run_Connect",
         With<ConnectWaiting>(Run<ConnectWaiting>),
         Tells("ran").Leaves("pids 4711, handled 0-0, queue 1; " + connecting +
                             "sends 1 1 12; debug Etsablished connection 1 to PID 4711; "),
         with(receiveRows("pids, handled 0-0, queue "),
              {{"msgsnd", each, EAGAIN,
                lostReply.Leaves("pids 4711, handled 0-0, queue 0; " + connecting +
                                 "sends 1 1 12; error IpcMsgException in Run() errno=0x0; ")}}),
         // Not of the library's family: it goes to the caller.
         {{each, OutOfMemory().Leaves("pids, handled 0-0, queue 0; " + connecting).ThenNoMore()}}},

        // Or not freed, and nobody told.
        {"IpcMsgQueueTransport_Run_Disconnect", With<DisconnectWaiting>(Run<DisconnectWaiting>),
         Tells("ran").Leaves("pids 0, handled 0-1, queue 1; " + disconnecting +
                             "sends 1 1 12; debug Connection 1 cleared; "),
         with(receiveRows("pids 4711, handled 0-0, queue "),
              {{"msgsnd", each, EIDRM,
                lostReply.Leaves("pids 4711, handled 0-0, queue 0; " + disconnecting +
                                 "sends 1 1 12; error IpcMsgException in Run() errno=0x0; ")}})},

        {"IpcMsgQueueTransport_Run_BadDisconnect",
         With<BadDisconnectWaiting>(Run<BadDisconnectWaiting>),
         badId,
         with(receiveRows("pids 4711, handled 0-0, queue "),
              {{"puts", each, EIO, Unlogged(badId)}, {"fflush", each, EIO, Ignored()}}),
         {{each, OutOfMemory().Leaves(badDisconnect).ThenNoMore()}}},

        {"IpcMsgQueueTransport_Run_Data", With<DataWaiting>(Run<DataWaiting>),
         Tells("ran").Leaves("pids 4711, handled 1-0, queue 0; received 5 0 12; "),
         receiveRows("pids 4711, handled 0-0, queue ")},

        {"IpcMsgQueueTransport_HandleIpcMessage", With<Server>([](Server& f) {
             IpcMsgBuf message{};
             message.data[0] = 5;
             f.transport.HandleIpcMessage(message, 12);
             return Told("done");
         }),
         Tells("done").Leaves("pids, handled 0-0, queue 0; error Unexpected Ctrl message: 5; ")},

        {"IpcMsgQueueTransport_ConnectReq",
         With<Server>([](Server& f) {
             IpcConnectionData data{s_Pid, 0};
             f.transport.ConnectReq(data);
             return Told("done");
         }),
         Tells("done").Leaves(
             "pids 4711, handled 0-0, queue 1; debug ConnectReq(PID=4711); sends 1 "
             "1 12; debug Etsablished connection 1 to PID 4711; "),
         {{"msgsnd", each, EAGAIN,
           ThrowsAt(91, 0).Leaves("pids 4711, handled 0-0, queue 0; debug ConnectReq(PID=4711); "
                                  "sends 1 1 12; ")}},
         {{each,
           OutOfMemory().Leaves("pids, handled 0-0, queue 0; debug ConnectReq(PID=4711); ")}}},

        {"IpcMsgQueueTransport_DisconnectReq",
         With<Connected>([](Connected& f) {
             IpcConnectionData data{0, 1};
             f.transport.DisconnectReq(data);
             return Told("done");
         }),
         Tells("done").Leaves(
             "pids 0, handled 0-1, queue 1; debug DisconnectReq(procId=1); sends 1 "
             "1 12; debug Connection 1 cleared; "),
         {{"msgsnd", each, EAGAIN,
           ThrowsAt(91, 0).Leaves("pids 4711, handled 0-0, queue 0; debug DisconnectReq(procId=1); "
                                  "sends 1 1 12; ")}}},
    };
}

} // namespace

std::vector<Operation> QueueOperations()
{
    std::vector<Operation> all;
    for (const auto table : {HandleOperations, ManagerOperations, ServerOperations}) {
        for (Operation& operation : table()) {
            all.push_back(std::move(operation));
        }
    }
    return all;
}

} // namespace velahost_test

// What both transports hand to their handlers, and what connection control makes of it: records of
// any length and content, and failing system calls, against a table of connections kept by hand.

#include "FakeSockets.h"
#include "Fuzz.h"
#include "Message.h"
#include "support/RawQueue.h"
#include "support/RecordingLogAdapter.h"

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

namespace velahost_fuzz {

namespace {

using namespace VelaHost_Ipc;
using velahost_test::Hook;
using velahost_test::LogCall;
namespace interposed = velahost_test::interposed;

constexpr std::size_t s_Header = 8;
constexpr int s_Queue = 42;

/// A message queue without the system's help: gives one record, takes replies.
class FakeQueue
{
public:
    FakeQueue();

    /// The next receive fails with that error; with `E2BIG` the record stays until it is discarded.
    void FailNext(int error) { m_Error = error; }
    /// The next receive gives this text.
    void Put(std::string text) { m_Text = std::move(text); }
    void SetFull(bool isFull) { m_IsFull = isFull; }

    /// What was sent since the last time, as type and text.
    std::vector<std::pair<long, std::string>> TakeReplies() { return std::exchange(m_Replies, {}); }
    bool HasDiscarded() { return std::exchange(m_HasDiscarded, false); }

private:
    ssize_t Receive(void* record, std::size_t size, long type, int flags);
    int Send(const void* record, std::size_t size, int flags);

    int m_Error = 0;
    bool m_IsFull = false;
    bool m_HasDiscarded = false;
    std::string m_Text;
    std::vector<std::pair<long, std::string>> m_Replies;

    Hook<key_t(const char*, int)> m_Ftok;
    Hook<int(key_t, int)> m_Get;
    Hook<int(int, int, msqid_ds*)> m_Control;
    Hook<ssize_t(int, void*, std::size_t, long, int)> m_Receive;
    Hook<int(int, const void*, std::size_t, int)> m_Send;
};

FakeQueue::FakeQueue()
    : m_Ftok(interposed::ftok, [](const char*, int) -> std::optional<key_t> { return 1; }),
      m_Get(interposed::msgget, [](key_t, int) -> std::optional<int> { return s_Queue; }),
      m_Control(interposed::msgctl, [](int, int, msqid_ds*) -> std::optional<int> { return 0; }),
      m_Receive(interposed::msgrcv,
                [this](int queue, void* record, std::size_t size, long type,
                       int flags) -> std::optional<ssize_t> {
                    Require(queue == s_Queue, "the receive asks the queue");
                    return Receive(record, size, type, flags);
                }),
      m_Send(
          interposed::msgsnd,
          [this](int queue, const void* record, std::size_t size, int flags) -> std::optional<int> {
              Require(queue == s_Queue, "the reply goes to the queue");
              return Send(record, size, flags);
          })
{}

ssize_t FakeQueue::Receive(void* record, std::size_t size, long type, int flags)
{
    Require(type == 1 && size == 508, "the server receives type 1, at most 508 bytes");
    if ((flags & MSG_NOERROR) != 0) {
        Require((flags & IPC_NOWAIT) != 0, "discarding does not wait");
        m_HasDiscarded = true;
        return 0;
    }
    if (m_Error != 0) {
        errno = std::exchange(m_Error, 0);
        return -1;
    }
    std::memcpy(record, &type, sizeof type);
    std::memcpy(static_cast<char*>(record) + sizeof type, m_Text.data(), m_Text.size());
    return static_cast<ssize_t>(m_Text.size());
}

int FakeQueue::Send(const void* record, std::size_t size, int flags)
{
    Require((flags & IPC_NOWAIT) != 0, "a reply does not wait");
    long type = 0;
    std::memcpy(&type, record, sizeof type);
    if (type < 1 || m_IsFull) {
        errno = m_IsFull ? EAGAIN : EINVAL;
        return -1;
    }
    m_Replies.emplace_back(type, std::string(static_cast<const char*>(record) + sizeof type, size));
    return 0;
}

/// What a handler was told.
struct Event
{
    int handler;
    int connection; ///< Of a close; 0 for a message.
    std::string payload = {};

    bool operator==(const Event&) const = default;
};

using Events = std::vector<Event>;

/// The first byte of a payload that makes the handler throw.
constexpr char s_Throwing = '!';
constexpr int s_ThrownErrno = 0x1234;

class Handler final : public IpcMsgHandler
{
public:
    Handler(int number, Events& events) : m_Number(number), m_Events(events) {}

    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        std::string payload = PayloadOf(msg, length);
        const bool throws = payload.starts_with(s_Throwing);
        m_Events.push_back({m_Number, 0, std::move(payload)});
        if (throws) {
            throw IpcMsgException(VelaHost_Utility::ThrowSite("fuzz", 1), s_ThrownErrno);
        }
    }
    void HandleIpcClose(int connectionId) override { m_Events.push_back({m_Number, connectionId}); }

private:
    int m_Number;
    Events& m_Events;
};

std::string DecimalText(const char* before, int number, const char* after = "")
{
    return before + std::to_string(number) + after;
}

/// What connection control does, by the table in docs/wire-format.md.
class ControlModel
{
public:
    /// Handles a payload of at least 12 bytes. False: it ended in an `IpcMsgException`.
    bool Handle(const std::string& payload, bool isFull)
    {
        std::int32_t code = 0;
        std::int32_t pid = 0;
        std::int32_t connection = 0;
        std::memcpy(&code, payload.data(), 4);
        std::memcpy(&pid, payload.data() + 4, 4);
        std::memcpy(&connection, payload.data() + 8, 4);
        switch (code) {
        case 1:
            return Connect(pid, isFull);
        case 3:
            return Disconnect(connection, isFull);
        case 6:
            return true;
        default:
            m_Log.push_back(LogCall::Error(DecimalText("Unexpected Ctrl message: ", code)));
            return true;
        }
    }

    std::vector<LogCall> m_Log;
    std::vector<std::pair<long, std::string>> m_Replies;
    Events m_Events;
    /// Of the handlers that hear of closed connections.
    std::vector<int> m_Handlers;

private:
    bool Connect(std::int32_t pid, bool isFull)
    {
        m_Log.push_back(LogCall::Debug(DecimalText("ConnectReq(PID=", pid, ")")));
        auto place = std::find(m_Pids.begin(), m_Pids.end(), 0);
        if (place == m_Pids.end()) {
            place = m_Pids.insert(place, 0);
        }
        *place = pid;
        const int id = static_cast<int>(place - m_Pids.begin()) + 1;
        if (!Reply(2, pid, id, isFull)) {
            return false;
        }
        m_Log.push_back(LogCall::Debug(
            DecimalText("Etsablished connection ", id, DecimalText(" to PID ", pid).c_str())));
        return true;
    }

    bool Disconnect(std::int32_t connection, bool isFull)
    {
        m_Log.push_back(LogCall::Debug(DecimalText("DisconnectReq(procId=", connection, ")")));
        if (connection < 1 || connection > static_cast<int>(m_Pids.size())) {
            return false;
        }
        std::int32_t& pid = m_Pids[static_cast<std::size_t>(connection) - 1];
        if (!Reply(4, pid, connection, isFull)) {
            return false;
        }
        for (const int handler : m_Handlers) {
            m_Events.push_back({handler, connection});
        }
        pid = 0;
        m_Log.push_back(LogCall::Debug(DecimalText("Connection ", connection, " cleared")));
        return true;
    }

    bool Reply(int code, std::int32_t pid, int id, bool isFull)
    {
        const std::string payload = velahost_test::ControlPayload(code, pid, id);
        m_Log.push_back(LogCall::SendMsg(1, id, payload));
        if (pid < 1 || isFull) {
            return false;
        }
        m_Replies.emplace_back(pid, velahost_test::MessageText(0, 1, payload));
        return true;
    }

    std::vector<std::int32_t> m_Pids;
};

/// A queue server and a socket server, new for each input, whose control messages both go to the
/// queue server's connections.
class Servers
{
public:
    Servers(FakeQueue& queue, FakeSockets& sockets)
        : m_FakeQueue(queue),
          m_Sockets(sockets),
          m_QueueManager(&m_Log),
          m_SocketManager(&m_Log),
          m_Queue({"path", 'F'}, m_QueueManager, &m_Log),
          m_Socket({0}, m_SocketManager, nullptr)
    {
        m_Queue.Init();
        m_SocketManager.RegisterHandler(&m_Queue, 1);
        m_Socket.Init();
        for (const int category : {0, 2, 7, 19}) {
            m_Handlers.push_back(std::make_unique<Handler>(category, m_Events));
            m_QueueManager.RegisterHandler(m_Handlers.back().get(), category);
            m_SocketManager.RegisterHandler(m_Handlers.back().get(), category);
            m_Model.m_Handlers.push_back(category);
        }
        Connect();
    }
    Servers(const Servers&) = delete;
    Servers& operator=(const Servers&) = delete;
    ~Servers() { Disconnect(); }

    /// From now on replies find no room.
    void SetFull(bool isFull)
    {
        m_IsFull = isFull;
        m_FakeQueue.SetFull(isFull);
    }

    void FailReceive(int error)
    {
        m_FakeQueue.FailNext(error);
        m_Queue.Run();
        ExpectError(error == ENOMSG ? "Receive error: 0x%x" : s_Caught, error);
        Require(m_FakeQueue.HasDiscarded() == (error == E2BIG),
                "only what is too long is discarded");
        Compare();
    }

    /// A record with this text, at most 508 bytes, arrives on the queue.
    void Receive(const std::string& text)
    {
        m_FakeQueue.Put(text);
        m_Queue.Run();
        const int count = static_cast<int>(text.size());
        if (text.size() < s_Header) {
            m_Model.m_Log.push_back(
                LogCall::Error(DecimalText("Record of ", count, " bytes dropped")));
        } else {
            std::uint16_t connection = 0;
            std::uint16_t category = 0;
            std::memcpy(&connection, text.data(), 2);
            std::memcpy(&category, text.data() + 2, 2);
            // What is read from behind the text is zeros.
            std::string data = text.substr(4);
            data.resize(text.size(), '\0');
            m_Model.m_Log.push_back(LogCall::RcvMsg(category, connection, data));
            if (const auto error = Dispatch(category, data, text.size() - s_Header)) {
                ExpectError(s_Caught, *error);
            }
        }
        Compare();
    }

    /// A frame with this payload, 1 to 2040 bytes, arrives on the socket.
    void ReceiveFrame(std::uint16_t category, const std::string& payload)
    {
        std::string frame(s_Header, '\xEE');
        const auto length = static_cast<std::uint32_t>(payload.size() + s_Header);
        std::memcpy(frame.data(), &length, sizeof length);
        std::memcpy(frame.data() + 6, &category, sizeof category);
        frame += payload;
        m_Sockets.Send(frame);
        m_Socket.Run();
        // Behind a short payload is what earlier frames have left in the buffer.
        m_Buffer.replace(0, frame.size(), frame);
        const bool isHandled =
            !Dispatch(category, m_Buffer.substr(s_Header), payload.size()).has_value();
        if (!isHandled) {
            // The frame stays in the buffer, to be dispatched again; a new connection drops it.
            Disconnect();
            Connect();
            for (const int handler : m_Model.m_Handlers) {
                m_Model.m_Events.push_back({handler, 1});
            }
        }
        Compare();
    }

private:
    static constexpr const char* s_Caught = "IpcMsgException in Run() errno=0x%x";

    void Connect()
    {
        m_Sockets.Connect();
        m_Socket.Run();
    }

    void Disconnect()
    {
        m_Sockets.End(0);
        m_Socket.Run();
    }

    void ExpectError(const char* format, int error)
    {
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), format, static_cast<unsigned int>(error));
        m_Model.m_Log.push_back(LogCall::Error(text.data()));
    }

    /// What a received message does. The `errno` of the exception that its handler ends in.
    std::optional<int> Dispatch(int category, const std::string& data, std::size_t payloadLength)
    {
        if (category == 1) {
            std::string control = data;
            control.resize(std::max<std::size_t>(control.size(), 12), '\0');
            return m_Model.Handle(control, m_IsFull) ? std::nullopt : std::optional<int>(0);
        }
        const std::vector<int>& handlers = m_Model.m_Handlers;
        if (std::find(handlers.begin(), handlers.end(), category) == handlers.end()) {
            m_Model.m_Log.push_back(
                LogCall::Error(DecimalText("No handler for rcvd msg (category ", category, ")")));
            return std::nullopt;
        }
        const std::string payload = data.substr(0, payloadLength);
        m_Model.m_Events.push_back({category, 0, payload});
        return payload.starts_with(s_Throwing) ? std::optional<int>(s_ThrownErrno) : std::nullopt;
    }

    void Compare()
    {
        const std::vector<LogCall> log = m_Log.Take();
        if (log != m_Model.m_Log) {
            std::ostringstream shown;
            shown << "the log differs; logged:";
            std::copy(log.begin(), log.end(), std::ostream_iterator<LogCall>(shown, "\n"));
            shown << "expected:";
            std::copy(m_Model.m_Log.begin(), m_Model.m_Log.end(),
                      std::ostream_iterator<LogCall>(shown, "\n"));
            Fail(shown.str());
        }
        Require(m_Events == m_Model.m_Events, "handlers are told what happened, in order");
        Require(m_FakeQueue.TakeReplies() == m_Model.m_Replies, "clients get the replies");
        m_Model.m_Log.clear();
        m_Model.m_Replies.clear();
        m_Model.m_Events.clear();
        m_Events.clear();
    }

    FakeQueue& m_FakeQueue;
    FakeSockets& m_Sockets;
    velahost_test::RecordingLogAdapter m_Log;
    Events m_Events;
    std::vector<std::unique_ptr<Handler>> m_Handlers;
    IpcConnectionManager<IpcMsgQueueTransport> m_QueueManager;
    IpcConnectionManager<IpcSocketTransport> m_SocketManager;
    IpcMsgQueueTransport m_Queue;
    IpcSocketTransport m_Socket;

    bool m_IsFull = false;
    ControlModel m_Model;
    /// The socket connection's, which survives a reconnection.
    std::string m_Buffer = std::string(2048 + sizeof(IpcMsgBuf), '\0');
};

/// A payload, most often of connection control.
std::string Payload(Input& input, unsigned int kind)
{
    if ((kind & 0x10U) != 0) {
        return input.Bytes(kind & 0x0FU);
    }
    if ((kind & 0x20U) != 0) {
        std::string payload(input.Take<std::uint16_t>() % 2041, '.');
        const std::string head = input.Bytes(4);
        payload.replace(0, std::min(head.size(), payload.size()), head, 0, payload.size());
        return payload;
    }
    const auto code = static_cast<std::int8_t>(input.Byte());
    const auto pid = static_cast<std::int8_t>(input.Byte());
    const auto connection = static_cast<std::int8_t>(input.Byte());
    return velahost_test::ControlPayload(code, pid, connection);
}

void Try(Input& input, Servers& servers)
{
    // Longer inputs tell nothing new, they only take their time.
    for (int messages = 0; messages < 50 && !input.IsEmpty(); ++messages) {
        const unsigned int kind = input.Byte();
        if (kind >= 0xF0) {
            static constexpr int s_Errors[] = {EINTR, E2BIG, ENOMSG, EIDRM};
            servers.FailReceive(s_Errors[kind & 3U]);
        } else if (kind >= 0xE0) {
            servers.SetFull((kind & 1U) != 0);
        } else {
            // The upper half of these goes through the socket.
            const auto category = (kind & 0x40U) != 0
                                      ? std::uint16_t{1}
                                      : static_cast<std::uint16_t>(input.Byte() % 24);
            std::string payload = Payload(input, kind);
            if (kind >= 0x80) {
                if (payload.empty()) {
                    payload = "."; // A frame without payload would wait for more.
                }
                servers.ReceiveFrame(category, payload);
            } else if ((kind & 0x0FU) == 0x0F) {
                servers.Receive(payload.substr(0, 508)); // Not even a message.
            } else {
                servers.Receive(
                    velahost_test::MessageText(input.Byte(), category, payload.substr(0, 500)));
            }
        }
    }
}

} // namespace

} // namespace velahost_fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace velahost_fuzz;
    static const Hook<int(const char*)> s_Silence(
        interposed::puts, [](const char*) -> std::optional<int> { return 1; });
    static FakeQueue s_Queue;
    static FakeSockets s_Sockets;
    Input input(data, size);
    Servers servers(s_Queue, s_Sockets);
    servers.SetFull(false);
    Try(input, servers);
    return 0;
}

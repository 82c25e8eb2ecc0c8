#pragma once

#include <VelaHost_Ipc/IpcLogAdapter.h>
#include <VelaHost_Ipc/IpcMsgBuf.h>
#include <VelaHost_Ipc/IpcMsgHandler.h>
#include <VelaHost_Utility/Export.h>

#include <internal/unix/IpcConnectionManager.h>
#include <internal/unix/IpcMsgQueue.h>

#include <cstdint>

namespace VelaHost_Ipc {

/// What a connection-control message carries behind its code; a wire format.
struct IpcConnectionData
{
    std::int32_t pid;          ///< The client's process id.
    std::int32_t connectionId; ///< From 1; its meaning depends on the code.
};

/// Codes of connection control: the first 4 bytes of a message of category 1. The payload of each
/// is 12 bytes, the code and an `IpcConnectionData`.
enum class IpcControlCode : std::int32_t {
    ConnectReq = 1,    ///< Client, type 1: `pid` is its process id.
    ConnectRsp = 2,    ///< Server, type `pid`: `connectionId` is the one given.
    DisconnectReq = 3, ///< Client, type 1: `connectionId` is the one to release.
    DisconnectRsp = 4, ///< Server, type `pid`: `connectionId` is the one released.
    Ignored = 6,       ///< Client, type 1: accepted without effect.
};

/// The category of connection control.
inline constexpr int s_ControlCategory = 1;
/// Payload length of every connection-control message.
inline constexpr int s_ControlPayload = 12;
/// Message type of everything that clients send to a server.
inline constexpr int s_ServerMsgType = 1;

/// The server end of a message service over one System V queue. Clients connect and disconnect by
/// control messages of category 1; what they send in other categories goes to the handlers
/// registered with the connection manager.
///
/// Starts no thread and takes no lock: one thread calls `Run` in a loop, and handlers run on it.
/// Destruction leaves queue and connections as they are; the queue is removed with `msgctl`
/// (`IPC_RMID`) on `GetQueue().GetId()` or by the next transport built on its key.
class VELAHOST_EXPORT IpcMsgQueueTransport : public IpcMsgHandler
{
public:
    /// What the queue's key is made from, by `ftok`.
    struct Config
    {
        /// A file that exists and is never replaced by another one; borrowed during construction.
        const char* path;
        /// Tells queues with one path apart; not 0.
        char id;
    };

    /// A client's connection. Free while `pid` is 0.
    class Connection
    {
    public:
        /// A free one.
        explicit Connection(int connectionId) : id(connectionId), pid(0) {}

        /// True while no client has it.
        bool IsFree() const { return pid == 0; }

        std::int32_t id;  ///< From 1, fixed for life.
        std::int32_t pid; ///< The client's process id.
    };

    /// Makes the queue anew: one of an earlier run is removed with its messages.
    /// `connectionManager` and `adapter` are borrowed; a null `adapter` logs nothing. Throws
    /// `IpcMsgException`, code 0x2FFF.
    IpcMsgQueueTransport(Config config,
                         IpcConnectionManager<IpcMsgQueueTransport>& connectionManager,
                         IpcLogAdapter* adapter);
    /// The manager still points to this object, once `Init` has been called: it dispatches nothing
    /// any more, unless another transport's `Init` takes the category.
    ~IpcMsgQueueTransport() override;

    /// Takes category 1 for connection control; returns what `RegisterHandler` returns, 0.
    int Init();

    /// Waits for one message and dispatches it. An `IpcMsgException`, from the receive (a signal
    /// among others) or from a handler, is logged and ends the pass normally; every other exception
    /// goes to the caller. A message that is too short or too long for the format is logged and
    /// removed. Nobody checks that a message's sender has the connection that it names.
    void Run();

    /// Handles a connection-control message.
    void HandleIpcMessage(IpcMsgBuf& msg, int length) override;

    /// Gives a connection to the process `data.pid` and tells it the id. When the reply can't be
    /// sent, `IpcMsgException` is thrown and the connection stays given.
    void ConnectReq(IpcConnectionData& data);

    /// Releases the connection `data.connectionId`, whoever asks: replies, then tells every
    /// handler. Throws `IpcMsgException` for an id that was never given and when the reply can't be
    /// sent; nothing is released then.
    void DisconnectReq(IpcConnectionData& data);

    /// The queue, for sending to clients; its `Send` may be called from any thread.
    const IpcMsgQueue& GetQueue() const { return queue; }

private:
    int Receive(IpcMsgBuf& message);
    void SendReply(IpcControlCode code, const Connection& connection);

    IpcMsgQueue queue;
    IpcLogAdapter* log;
    IpcConnectionManager<IpcMsgQueueTransport>& manager;
};

} // namespace VelaHost_Ipc

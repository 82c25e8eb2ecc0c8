#pragma once

#include <VelaHost_Ipc/IpcLogAdapter.h>
#include <VelaHost_Ipc/IpcMsgBuf.h>
#include <VelaHost_Ipc/ServerSocket.h>
#include <VelaHost_Utility/Export.h>

#include <internal/unix/IpcConnectionManager.h>

#include <cstdint>

namespace VelaHost_Ipc {

/// Capacity of a connection's receive buffer, and so the longest frame.
inline constexpr int s_MaxFrameSize = 2048;
/// Largest payload of a frame.
inline constexpr int s_MaxStreamPayload = s_MaxFrameSize - s_MsgHeaderSize;

/// The server end of a message service over TCP. A client's connection lasts from being accepted
/// until the client closes it; its byte stream is cut into `IpcMsgBuf` frames, which go to the
/// handlers registered with the connection manager.
///
/// A frame is 8 to 2,048 bytes long; one of 8, without payload, is dispatched only when bytes
/// follow it. A shorter one ends the connection, a longer one does once the buffer is full.
///
/// Starts no thread and takes no lock: one thread calls `Run` in a loop, and handlers run on it;
/// they don't call `Run` themselves. Destruction closes no descriptor. A client is dropped with
/// `shutdown(connection.GetSock(), SHUT_RDWR)`: the next pass takes it for closed.
class VELAHOST_EXPORT IpcSocketTransport
{
public:
    /// Where to listen.
    struct Config
    {
        int port; ///< Of every local interface; 0 means a free one.
    };

    /// A client's connection. Free while it has no descriptor.
    class VELAHOST_EXPORT Connection : public ServerSocket
    {
    public:
        /// A free one, without a buffer.
        explicit Connection(int connectionId);
        /// Releases the buffer; leaves the descriptor open.
        ~Connection() override;

        /// True while no client has it.
        bool IsFree() const { return GetSock() == -1; }

        /// Receives once into the rest of the buffer. Returns the count, 0 when the client has
        /// closed, when the receive failed and when the buffer is full.
        int read();

        /// Drops the first `consumed` bytes, all when there are fewer, and moves the others to the
        /// front.
        void flipBuffer(int consumed);

        /// Provides an empty buffer of `size` bytes; one of that size is kept. Throws
        /// `std::bad_alloc`, and keeps what there was, when `size` can't be had.
        void AllocBuffer(int size);

        std::int32_t id;         ///< From 1, fixed for life.
        unsigned char* buffer;   ///< Null until the first `AllocBuffer`.
        std::int32_t bufferSize; ///< Capacity of `buffer`.
        std::int32_t fill;       ///< Bytes received and not yet consumed.
    };

    /// Listens on the configured port. `connectionManager` and `adapter` are borrowed; a null
    /// `adapter` logs nothing. Throws `IpcSocketException` as `ServerSocket` does, and code 0x2101
    /// with `EMFILE` when the process has so many descriptors open that `Run` couldn't wait for
    /// this one (1,024, the size of the system's descriptor sets).
    IpcSocketTransport(Config config, IpcConnectionManager<IpcSocketTransport>& connectionManager,
                       IpcLogAdapter* adapter);
    ~IpcSocketTransport();

    /// Prepares `Run`; returns one more than the listening descriptor.
    int Init();

    /// Waits until at least one client sends, closes or connects, and serves all that do: receives
    /// once from each, dispatches its complete frames, and accepts one newcomer. Handlers hear of
    /// a close by `HandleIpcClose`, of a connection by its first message.
    ///
    /// An exception of the library's family, from a handler or from accepting, is logged and ends
    /// the pass normally; every other goes to the caller. The frames received together with the one
    /// whose handler threw, those before it included, are dispatched (again) after the next receive
    /// on that connection. A signal ends the pass, too.
    void Run();

    /// Sends one frame of `length` payload bytes, 0 to 2040, in one call, which waits while the
    /// client's receive window is full. `category` (its low 16 bits) and the frame's length are
    /// written into `msg`, whose `connection` stays as it is. Beyond the payload that an
    /// `IpcMsgBuf` has room for, `msg` is the head of a buffer of at least 8 + `length` bytes.
    /// False when the send failed (`errno` tells why) or `length` is out of range (`EMSGSIZE`,
    /// nothing sent); the connection stays open. That only a part could be sent is not noticed.
    ///
    /// May be called from any thread, by one at a time per connection, between the connection's
    /// first message and the end of its `HandleIpcClose`, which therefore waits for that thread;
    /// see there for a send that waits itself. Another thread takes the `Connection` from the
    /// thread that calls `Run`: looking it up in the manager is that thread's.
    bool SendMsg(Connection& connection, unsigned int category, IpcMsgBuf& msg, int length);

    /// The listening socket, for its descriptor and so its port.
    const ServerSocket& GetServer() const { return server; }

private:
    void NoteDescriptor(int descriptor);
    void Receive(Connection& connection);
    bool DispatchFrames(Connection& connection);
    void Close(Connection& connection);
    void AcceptClient();

    ServerSocket server;
    std::int32_t maxFd;
    IpcLogAdapter* log;
    IpcConnectionManager<IpcSocketTransport>& manager;
};

} // namespace VelaHost_Ipc

#pragma once

#include <VelaHost_Ipc/IpcMsgBuf.h>
#include <VelaHost_Utility/Export.h>

namespace VelaHost_Ipc {

/// What an application registers for a category of messages. Called on the thread that runs the
/// transport. The slot order is part of the interface.
class VELAHOST_EXPORT IpcMsgHandler
{
public:
    virtual ~IpcMsgHandler();

    /// Handles one message; `length` is the payload's in bytes: up to 500 on a queue, up to 2,040
    /// on a stream, where it lies behind the end of `msg.data` from byte 504 on. A copy of `msg`
    /// holds only what `data` has room for. `msg` is valid only during the call and may lie at any
    /// alignment. An answer may be made in its place if its payload is no longer: on a stream, the
    /// next message begins behind it.
    virtual void HandleIpcMessage(IpcMsgBuf& msg, int length) = 0;

    /// The connection with this id has gone; its id may be given to a newcomer. Called once for
    /// each category that the handler is registered for. Does nothing unless overridden.
    ///
    /// On a stream the descriptor is still open. Who waits here for a thread that may be in
    /// `SendMsg` calls `shutdown(connection.GetSock(), SHUT_RDWR)` first: a client that doesn't
    /// read would hold it up for ever.
    virtual void HandleIpcClose(int connectionId);
};

} // namespace VelaHost_Ipc

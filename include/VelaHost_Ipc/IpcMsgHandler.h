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

    /// Handles one message; `length` is the payload's in bytes. `msg` is valid only during the
    /// call and may lie at any alignment. An answer may be made in its place if its payload is no
    /// longer: on a stream, the next message begins behind it.
    virtual void HandleIpcMessage(IpcMsgBuf& msg, int length) = 0;

    /// The connection with this id has gone; its id may be given to a newcomer. Does nothing
    /// unless overridden.
    virtual void HandleIpcClose(int connectionId);
};

} // namespace VelaHost_Ipc

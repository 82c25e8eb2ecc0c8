#pragma once

#include <VelaHost_Utility/Export.h>

namespace VelaHost_Ipc {

/// Where the transports log to; implemented by the application. Formats are printf's. Called on
/// the thread that runs the transport, `LogSendMsg` on the thread that sends. The slot order is
/// part of the interface.
class VELAHOST_EXPORT IpcLogAdapter
{
public:
    virtual ~IpcLogAdapter();

    /// Life cycle of a socket transport's connections.
    [[gnu::format(printf, 2, 3)]] virtual void LogInfo(const char* format, ...) = 0;
    /// Detail, and the life cycle of a queue transport's connections.
    [[gnu::format(printf, 2, 3)]] virtual void LogDebug(const char* format, ...) = 0;
    /// Faults.
    [[gnu::format(printf, 2, 3)]] virtual void LogError(const char* format, ...) = 0;
    /// A received message. A queue transport passes the whole received count as `length`, 8 more
    /// than the payload's; `payload` has that many readable bytes.
    virtual void LogRcvMsg(int category, int connectionId, const void* payload, int length) = 0;
    /// A message about to be sent; `length` is the payload's.
    virtual void LogSendMsg(int category, int connectionId, const void* payload, int length) = 0;
};

} // namespace VelaHost_Ipc

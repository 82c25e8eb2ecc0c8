#pragma once

// Reached through the headers of the transports: the name of this file is no promise.

#include <VelaHost_Ipc/IpcLogAdapter.h>
#include <VelaHost_Ipc/IpcMsgBuf.h>
#include <VelaHost_Ipc/IpcMsgException.h>
#include <VelaHost_Ipc/IpcMsgHandler.h>

#include <internal/ThrowSite.h>

#include <memory>
#include <vector>

namespace VelaHost_Ipc {

/// Categories that can have handlers: 0 to 19.
inline constexpr int s_CategoryCount = 20;

/// @cond throw sites
inline constexpr auto s_NoSuchConnection =
    VelaHost_Utility::ThrowSite("include/internal/unix/IpcConnectionManager", 147);
/// @endcond

/// The handlers and the connections of one transport of class `T`. Takes no lock: it belongs to
/// the thread that runs the transport.
///
/// `T::Connection` is made from its id and tells by `IsFree()` whether it may be given out. The
/// connection at index i has the id i + 1; connections are reused, never removed.
template <typename T>
class IpcConnectionManager
{
public:
    /// What the transport keeps of a client.
    using Connection = typename T::Connection;

    /// `adapter` is borrowed; null logs nothing.
    explicit IpcConnectionManager(IpcLogAdapter* adapter) : handlers(), log(adapter) {}
    IpcConnectionManager(const IpcConnectionManager&) = delete;
    IpcConnectionManager& operator=(const IpcConnectionManager&) = delete;

    /// Frees the connections; the transport must be gone or idle.
    virtual ~IpcConnectionManager()
    {
        for (Connection* connection : connections) {
            delete connection;
        }
    }

    /// Messages of `category` go to `handler` from now on, which is borrowed; null clears the
    /// category. Returns 0, or -1 with nothing stored when `category` is not 0 to 19.
    virtual int RegisterHandler(IpcMsgHandler* handler, int category)
    {
        if (category < 0 || category >= s_CategoryCount) {
            return -1;
        }
        handlers[category] = handler;
        return 0;
    }

    /// The connection with this id, null when there is none.
    Connection* GetConnection(int id) const
    {
        return id >= 1 && id <= GetConnectionCount() ? connections[static_cast<std::size_t>(id) - 1]
                                                     : nullptr;
    }

    /// Connections ever needed at once, free ones included.
    int GetConnectionCount() const { return static_cast<int>(connections.size()); }

    /// The connection with this id. Throws `IpcMsgException` when there is none.
    Connection& RequireConnection(int id) const
    {
        Connection* connection = GetConnection(id);
        if (connection == nullptr) {
            throw IpcMsgException(s_NoSuchConnection);
        }
        return *connection;
    }

    /// The free connection with the lowest id, a new one when none is free. It stays free until
    /// the transport takes it.
    Connection& FindFreeConnection()
    {
        for (Connection* connection : connections) {
            if (connection->IsFree()) {
                return *connection;
            }
        }
        auto connection = std::make_unique<Connection>(GetConnectionCount() + 1);
        connections.push_back(connection.get());
        return *connection.release();
    }

    /// Hands the message to its category's handler, or logs that there is none.
    void Dispatch(IpcMsgBuf& message, int payloadLength)
    {
        const int category = message.category;
        if (category < s_CategoryCount && handlers[category] != nullptr) {
            handlers[category]->HandleIpcMessage(message, payloadLength);
        } else if (log != nullptr) {
            log->LogError("No handler for rcvd msg (category %d)", category);
        }
    }

    /// Tells every handler, in category order, that a connection has gone: once for each of its
    /// categories.
    void NotifyClose(int connectionId)
    {
        for (IpcMsgHandler* handler : handlers) {
            if (handler != nullptr) {
                handler->HandleIpcClose(connectionId);
            }
        }
    }

    IpcMsgHandler* handlers[s_CategoryCount]; ///< By category, null where there is none; borrowed.
    IpcLogAdapter* log;                       ///< Borrowed, may be null.
    std::vector<Connection*> connections;     ///< By id, from 1; owned.
};

} // namespace VelaHost_Ipc

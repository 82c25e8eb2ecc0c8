#pragma once

#include "support/RecordingLogAdapter.h"
#include "support/Sockets.h"

#include <VelaHost_Ipc/IpcMsgHandler.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

/// What the tests of the TCP transport share: frames as clients send them, a handler that keeps
/// what it is given, and a service that releases its descriptors.
namespace velahost_test {

/// What a client puts into the connection field; the receiver overwrites it.
inline constexpr std::uint16_t s_ClientsOwnMark = 0xbeef;

inline void Append(std::string& bytes, const void* value, std::size_t size)
{
    bytes.append(static_cast<const char*>(value), size);
}

/// The first 8 bytes of a frame, with any length word.
inline std::string FrameHeader(std::uint32_t length, std::uint16_t category)
{
    std::string bytes;
    Append(bytes, &length, sizeof length);
    Append(bytes, &s_ClientsOwnMark, sizeof s_ClientsOwnMark);
    Append(bytes, &category, sizeof category);
    return bytes;
}

inline std::string Frame(std::uint16_t category, std::string_view payload)
{
    const auto length = static_cast<std::uint32_t>(VelaHost_Ipc::s_MsgHeaderSize + payload.size());
    return FrameHeader(length, category).append(payload);
}

/// A message as its handler saw it.
struct Received
{
    int connection;
    int category;
    std::string payload;

    bool operator==(const Received&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Received& received)
{
    return out << "cx " << received.connection << " category " << received.category << " \""
               << received.payload << '"';
}

/// Keeps what it is given, then does what the test asks for.
class RecordingHandler final : public VelaHost_Ipc::IpcMsgHandler
{
public:
    void HandleIpcMessage(VelaHost_Ipc::IpcMsgBuf& msg, int length) override
    {
        messages.push_back({msg.connection, msg.category,
                            std::string(reinterpret_cast<const char*>(msg.data),
                                        static_cast<std::size_t>(length))});
        if (onMessage) {
            onMessage(msg, length);
        }
    }

    void HandleIpcClose(int connectionId) override
    {
        closed.push_back(connectionId);
        if (onClose) {
            onClose(connectionId);
        }
    }

    std::vector<Received> TakeMessages() { return std::exchange(messages, {}); }

    std::vector<Received> messages;
    std::vector<int> closed;
    std::function<void(VelaHost_Ipc::IpcMsgBuf& msg, int length)> onMessage;
    std::function<void(int connectionId)> onClose;
};

/// A transport on a free port with its table; at its end the descriptors are closed.
class SocketService
{
public:
    using Connection = VelaHost_Ipc::IpcSocketTransport::Connection;

    explicit SocketService(VelaHost_Ipc::IpcLogAdapter* adapter,
                           VelaHost_Ipc::IpcLogAdapter* managerAdapter)
        : manager(managerAdapter),
          transport({0}, manager, adapter),
          m_Owner(transport.GetServer().GetSock())
    {
        transport.Init();
    }
    SocketService(const SocketService&) = delete;
    SocketService& operator=(const SocketService&) = delete;
    ~SocketService()
    {
        for (const Connection* connection : manager.connections) {
            if (!connection->IsFree()) {
                close(connection->GetSock());
            }
        }
    }

    int GetPort() const { return LocalPort(transport.GetServer().GetSock()); }

    int CountOpen() const
    {
        int count = 0;
        for (const Connection* connection : manager.connections) {
            count += connection->IsFree() ? 0 : 1;
        }
        return count;
    }

    /// Connects and runs until the newcomer is served.
    Descriptor Connect()
    {
        const int before = CountOpen();
        Descriptor client = ConnectTo(GetPort());
        while (CountOpen() == before) {
            transport.Run();
        }
        return client;
    }

    /// Sends from `client`, which is connection `id`, and runs one pass when all has come.
    void Deliver(const Descriptor& client, int id, std::string_view bytes)
    {
        WriteAll(client.Get(), bytes);
        WaitForBytes(GetSock(id), bytes.size());
        transport.Run();
    }

    /// Runs until nothing is left to be read from connection `id`.
    void RunUntilRead(int id)
    {
        while (GetSock(id) != -1 && BytesWaiting(GetSock(id)) > 0) {
            transport.Run();
        }
    }

    Connection& Get(int id) { return manager.RequireConnection(id); }
    int GetSock(int id) { return Get(id).GetSock(); }

    VelaHost_Ipc::IpcConnectionManager<VelaHost_Ipc::IpcSocketTransport> manager;
    VelaHost_Ipc::IpcSocketTransport transport;

private:
    Descriptor m_Owner;
};

} // namespace velahost_test

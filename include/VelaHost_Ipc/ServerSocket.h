#pragma once

#include <VelaHost_Ipc/Socket.h>
#include <VelaHost_Utility/Export.h>

#include <string>

namespace VelaHost_Ipc {

/// The listening end of a service, or the server's end of one text connection. Failures throw
/// `IpcSocketException`.
///
/// Destruction leaves the descriptor open, and so does a constructor that throws after it was made.
/// One thread uses it at a time, save that sending and receiving may run on two.
class VELAHOST_EXPORT ServerSocket : private Socket
{
public:
    /// No descriptor yet: an object for `Accept` to fill. Does not throw.
    ServerSocket();
    /// Listens on a Unix-domain path, which must not exist. Throws code 0x2101 when the socket
    /// can't be made, 0x2102 when it can't be bound and 0x2103 when it can't listen.
    explicit ServerSocket(const std::string& path);
    /// Listens on a TCP port of every local interface; 0 means a free one. Throws as above.
    explicit ServerSocket(int port);
    ~ServerSocket() override;

    /// Waits for a client and makes `peer` its connection; a descriptor that `peer` held is
    /// forgotten, not closed. Throws code 0x2104.
    void Accept(ServerSocket& peer);

    /// Sends `s` as by `Socket::send`, without an end mark. Throws code 0x2107.
    const ServerSocket& operator<<(const std::string& s) const;
    /// Waits for text and receives it as by `Socket::recv`, 500 bytes at most. Throws code 0x2106
    /// when the receive fails and when the client has closed.
    const ServerSocket& operator>>(std::string& s) const;

    using Socket::GetSock;

private:
    /// Moves frames instead of texts, and closes.
    friend class IpcSocketTransport;
};

} // namespace VelaHost_Ipc

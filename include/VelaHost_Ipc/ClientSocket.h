#pragma once

#include <VelaHost_Ipc/Socket.h>
#include <VelaHost_Utility/Export.h>

#include <string>

namespace VelaHost_Ipc {

/// A text connection to a server, made at construction. Failures throw `IpcSocketException`.
///
/// There is no way to close the connection: destruction leaves the descriptor open, and so does a
/// constructor that throws after it was made. One thread uses it at a time, save that sending and
/// receiving may run on two.
class VELAHOST_EXPORT ClientSocket : private Socket
{
public:
    /// Connects to a numeric IPv4 address, read as by `Socket::connect`. Throws code 0x2101 when
    /// the socket can't be made and 0x2105 when it can't be connected.
    ClientSocket(const std::string& host, int port);
    /// Connects to a Unix-domain path. Throws as above.
    explicit ClientSocket(const std::string& path);
    ~ClientSocket() override;

    /// Sends `s` as by `Socket::send`, without an end mark. Throws code 0x2107.
    const ClientSocket& operator<<(const std::string& s) const;
    /// Waits for text and receives it as by `Socket::recv`, 500 bytes at most. Throws code 0x2106
    /// when the receive fails and when the server has closed.
    const ClientSocket& operator>>(std::string& s) const;

    using Socket::GetSock;
};

} // namespace VelaHost_Ipc

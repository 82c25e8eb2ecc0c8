#pragma once

#include "support/Interpose.h"
#include "support/interpose/Interposed.h"

#include <deque>
#include <string>

namespace velahost_fuzz {

/// A listening socket and one client at a time, without the system's help: what the client sends
/// is what `recv` gives. `recv` on nothing and `select` without anything to tell end the program:
/// they would wait for ever. One object per program.
class FakeSockets
{
public:
    FakeSockets();

    /// The next `select` tells of a client that waits to be accepted. No client may be connected.
    void Connect();
    /// The client sends; one `recv` gives at most one piece.
    void Send(std::string piece);
    /// Behind what it has sent, the client closes (0) or its connection fails with that error.
    void End(int error);

    /// Pieces, or parts of them, that nobody has received yet.
    bool IsAllReceived() const { return m_Pieces.empty(); }
    /// From accepted until the server closes.
    bool IsConnected() const { return m_IsConnected; }

private:
    int Select(int count, fd_set* readable);
    ssize_t Receive(void* buffer, std::size_t size);

    static constexpr int s_Listener = 700;
    static constexpr int s_Client = 701;

    bool m_IsWaiting = false;
    bool m_IsConnected = false;
    bool m_HasEnded = false;
    int m_EndError = 0;
    std::deque<std::string> m_Pieces;

    velahost_test::Hook<int(int, int, int)> m_Socket;
    velahost_test::Hook<int(int, int, int, const void*, socklen_t)> m_SetOption;
    velahost_test::Hook<int(int, const sockaddr*, socklen_t)> m_Bind;
    velahost_test::Hook<int(int, int)> m_Listen;
    velahost_test::Hook<int(int, sockaddr*, socklen_t*)> m_Accept;
    velahost_test::Hook<int(int, fd_set*, fd_set*, fd_set*, timeval*)> m_Select;
    velahost_test::Hook<ssize_t(int, void*, std::size_t, int)> m_Receive;
    velahost_test::Hook<int(int)> m_Close;
};

} // namespace velahost_fuzz

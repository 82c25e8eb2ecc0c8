#include <VelaHost_Ipc/ServerSocket.h>

#include "SocketCheck.h"

#include <internal/ThrowSite.h>

namespace VelaHost_Ipc {

namespace {

constexpr VelaHost_Utility::Exception::Context Site(unsigned int line)
{
    return VelaHost_Utility::ThrowSite("src/unix/ServerSocket", line);
}

constexpr auto s_PortCreate = Site(49);
constexpr auto s_PortBind = Site(52);
constexpr auto s_PortListen = Site(55);
constexpr auto s_PathCreate = Site(62);
constexpr auto s_PathBind = Site(65);
constexpr auto s_PathListen = Site(68);
constexpr auto s_Send = Site(80);
constexpr auto s_Receive = Site(89);
constexpr auto s_Accept = Site(98);

} // namespace

ServerSocket::ServerSocket() = default;

ServerSocket::ServerSocket(int port)
{
    CheckSocket(create(AF_INET), s_PortCreate, s_SocketCreateFailed);
    CheckSocket(bind(port), s_PortBind, s_SocketBindFailed);
    CheckSocket(listen(), s_PortListen, s_SocketListenFailed);
}

ServerSocket::ServerSocket(const std::string& path)
{
    CheckSocket(create(AF_UNIX), s_PathCreate, s_SocketCreateFailed);
    CheckSocket(bind(path), s_PathBind, s_SocketBindFailed);
    CheckSocket(listen(), s_PathListen, s_SocketListenFailed);
}

ServerSocket::~ServerSocket() = default;

void ServerSocket::Accept(ServerSocket& peer)
{
    CheckSocket(accept(peer), s_Accept, s_SocketAcceptFailed);
}

const ServerSocket& ServerSocket::operator<<(const std::string& s) const
{
    CheckSocket(send(s), s_Send, s_SocketSendFailed);
    return *this;
}

const ServerSocket& ServerSocket::operator>>(std::string& s) const
{
    CheckSocket(recv(s) != 0, s_Receive, s_SocketReceiveFailed);
    return *this;
}

} // namespace VelaHost_Ipc

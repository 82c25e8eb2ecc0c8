#include <VelaHost_Ipc/ClientSocket.h>

#include "SocketCheck.h"

#include <internal/ThrowSite.h>

namespace VelaHost_Ipc {

namespace {

constexpr VelaHost_Utility::Exception::Context Site(unsigned int line)
{
    return VelaHost_Utility::ThrowSite("src/unix/ClientSocket", line);
}

constexpr auto s_HostCreate = Site(49);
constexpr auto s_HostConnect = Site(52);
constexpr auto s_PathCreate = Site(59);
constexpr auto s_PathConnect = Site(62);
constexpr auto s_Send = Site(69);
constexpr auto s_Receive = Site(78);

} // namespace

ClientSocket::ClientSocket(const std::string& host, int port)
{
    CheckSocket(create(AF_INET), s_HostCreate, s_SocketCreateFailed);
    CheckSocket(connect(host, port), s_HostConnect, s_SocketConnectFailed);
}

ClientSocket::ClientSocket(const std::string& path)
{
    CheckSocket(create(AF_UNIX), s_PathCreate, s_SocketCreateFailed);
    CheckSocket(connect(path), s_PathConnect, s_SocketConnectFailed);
}

ClientSocket::~ClientSocket() = default;

const ClientSocket& ClientSocket::operator<<(const std::string& s) const
{
    CheckSocket(send(s), s_Send, s_SocketSendFailed);
    return *this;
}

const ClientSocket& ClientSocket::operator>>(std::string& s) const
{
    CheckSocket(recv(s) != 0, s_Receive, s_SocketReceiveFailed);
    return *this;
}

} // namespace VelaHost_Ipc

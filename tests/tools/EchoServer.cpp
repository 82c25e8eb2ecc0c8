#include "EchoServer.h"

#include <csignal>

namespace velahost_test {

using namespace VelaHost_Ipc;

QueueEchoServer::QueueEchoServer()
    : m_Manager(nullptr),
      m_Transport({m_Key.GetPath(), m_Key.GetId()}, m_Manager, nullptr),
      m_Process([this]() -> int {
          m_Transport.Init();
          m_Manager.RegisterHandler(this, s_EchoedCategory);
          for (;;) {
              m_Transport.Run();
          }
      })
{}

std::string QueueEchoServer::GetAddress() const
{
    return std::string(m_Key.GetPath()) + ':' + m_Key.GetId();
}

void QueueEchoServer::Kill()
{
    m_Process.Kill(SIGKILL);
    m_Process.Wait();
}

void QueueEchoServer::HandleIpcMessage(IpcMsgBuf& msg, int length)
{
    msg.mtype = m_Manager.RequireConnection(msg.connection).pid;
    m_Transport.GetQueue().Send(msg, length);
}

TcpEchoServer::TcpEchoServer()
    : m_Service(&m_Log, &m_Log), m_Process([this]() -> int {
          m_Service.manager.RegisterHandler(this, s_EchoedCategory);
          for (;;) {
              m_Service.transport.Run();
          }
      })
{}

std::string TcpEchoServer::GetAddress() const
{
    return "127.0.0.1:" + std::to_string(m_Service.GetPort());
}

void TcpEchoServer::HandleIpcMessage(IpcMsgBuf& msg, int length)
{
    m_Service.transport.SendMsg(m_Service.Get(msg.connection), msg.category, msg, length);
}

} // namespace velahost_test

#pragma once

#include "support/ChildProcess.h"
#include "support/QueueKey.h"
#include "support/RecordingLogAdapter.h"
#include "unix/SocketService.h"

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>

#include <string>

namespace velahost_test {

/// The category that servers send back; they have no handler for any other.
inline constexpr int s_EchoedCategory = 2;

/// A process that serves clients of a queue.
class QueueEchoServer : private VelaHost_Ipc::IpcMsgHandler
{
public:
    QueueEchoServer();

    pid_t GetPid() const { return m_Process.GetPid(); }
    /// For the tools: PATH:ID.
    std::string GetAddress() const;
    int GetQueue() const { return m_Key.FindQueue(); }
    void Kill();

private:
    void HandleIpcMessage(VelaHost_Ipc::IpcMsgBuf& msg, int length) override;

    QueueKey m_Key;
    VelaHost_Ipc::IpcConnectionManager<VelaHost_Ipc::IpcMsgQueueTransport> m_Manager;
    VelaHost_Ipc::IpcMsgQueueTransport m_Transport;
    ChildProcess m_Process;
};

/// A process that serves clients over TCP.
class TcpEchoServer : private VelaHost_Ipc::IpcMsgHandler
{
public:
    TcpEchoServer();

    /// For the tools: HOST:PORT.
    std::string GetAddress() const;

private:
    void HandleIpcMessage(VelaHost_Ipc::IpcMsgBuf& msg, int length) override;

    RecordingLogAdapter m_Log;
    SocketService m_Service;
    ChildProcess m_Process;
};

} // namespace velahost_test

#pragma once

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <unistd.h>

/// A client of a queue transport. What fails throws `IpcMsgException`.
class QueueClient
{
public:
    /// The server must have made its queue by now: a client that came first would make one that
    /// the server throws away.
    QueueClient(const char* path, char id) : m_Queue(path, id, false) {}

    int Connect()
    {
        m_Connection = AskControl(IpcControlCode::ConnectReq).connectionId;
        return m_Connection;
    }

    void Disconnect() { AskControl(IpcControlCode::DisconnectReq); }

    /// Sends a payload of 500 bytes at most and waits for the answer.
    std::string Ask(int category, const std::string& payload)
    {
        IpcMsgBuf message{};
        message.mtype = VelaHost_Ipc::s_ServerMsgType;
        message.connection = static_cast<std::uint16_t>(m_Connection);
        message.category = static_cast<std::uint16_t>(category);
        payload.copy(reinterpret_cast<char*>(message.data), sizeof message.data);
        m_Queue.Send(message, static_cast<int>(payload.size()));
        const int count = m_Queue.Receive(message, getpid()); // answers bear our process id
        const int length = std::max(count - VelaHost_Ipc::s_MsgHeaderSize, 0);
        return {reinterpret_cast<const char*>(message.data), static_cast<std::size_t>(length)};
    }

private:
    using IpcMsgBuf = VelaHost_Ipc::IpcMsgBuf;
    using IpcControlCode = VelaHost_Ipc::IpcControlCode;
    using IpcConnectionData = VelaHost_Ipc::IpcConnectionData;

    IpcConnectionData AskControl(IpcControlCode code)
    {
        IpcConnectionData data{getpid(), m_Connection};
        std::string payload(reinterpret_cast<const char*>(&code), sizeof code);
        payload.append(reinterpret_cast<const char*>(&data), sizeof data);
        std::string answer = Ask(VelaHost_Ipc::s_ControlCategory, payload);
        answer.resize(payload.size()); // whoever may write to the queue can send less
        std::memcpy(&data, answer.data() + sizeof code, sizeof data);
        return data;
    }

    VelaHost_Ipc::IpcMsgQueue m_Queue;
    int m_Connection = 0;
};

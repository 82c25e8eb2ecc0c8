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
        // An earlier process may have had our id and died before it took its answers.
        long type = 0;
        while (msgrcv(m_Queue.GetId(), &type, 0, getpid(), IPC_NOWAIT | MSG_NOERROR) != -1) {
        }
        m_Connection =
            AskControl(IpcControlCode::ConnectReq, IpcControlCode::ConnectRsp).connectionId;
        return m_Connection;
    }

    void Disconnect() { AskControl(IpcControlCode::DisconnectReq, IpcControlCode::DisconnectRsp); }

    /// Sends a payload of 500 bytes at most and waits for the answer, of the same category.
    std::string Ask(int category, const std::string& payload)
    {
        IpcMsgBuf message{};
        message.mtype = VelaHost_Ipc::s_ServerMsgType;
        message.connection = static_cast<std::uint16_t>(m_Connection);
        message.category = static_cast<std::uint16_t>(category);
        payload.copy(reinterpret_cast<char*>(message.data), sizeof message.data);
        m_Queue.Send(message, static_cast<int>(payload.size()));
        return Receive(category);
    }

private:
    using IpcMsgBuf = VelaHost_Ipc::IpcMsgBuf;
    using IpcControlCode = VelaHost_Ipc::IpcControlCode;
    using IpcConnectionData = VelaHost_Ipc::IpcConnectionData;

    /// Waits for a message of that category and drops others.
    std::string Receive(int category)
    {
        IpcMsgBuf message{};
        int count = 0;
        do {
            count = m_Queue.Receive(message, getpid()); // answers bear our process id
        } while (message.category != category);
        const int length = std::max(count - VelaHost_Ipc::s_MsgHeaderSize, 0);
        return {reinterpret_cast<const char*>(message.data), static_cast<std::size_t>(length)};
    }

    IpcConnectionData AskControl(IpcControlCode request, IpcControlCode response)
    {
        IpcConnectionData data{getpid(), m_Connection};
        std::string payload(reinterpret_cast<const char*>(&request), sizeof request);
        payload.append(reinterpret_cast<const char*>(&data), sizeof data);
        std::string answer = Ask(VelaHost_Ipc::s_ControlCategory, payload);
        // Whoever may write to the queue can send less, or something else.
        while (answer.size() != payload.size() ||
               std::memcmp(answer.data(), &response, sizeof response) != 0) {
            answer = Receive(VelaHost_Ipc::s_ControlCategory);
        }
        std::memcpy(&data, answer.data() + sizeof response, sizeof data);
        return data;
    }

    VelaHost_Ipc::IpcMsgQueue m_Queue;
    int m_Connection = 0;
};

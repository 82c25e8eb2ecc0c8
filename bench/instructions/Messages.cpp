#include "Counted.h"
#include "Scenarios.h"
#include "ScratchDirectory.h"

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>

#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace instructions {

namespace {

using namespace VelaHost_Ipc;

constexpr int s_Category = 5;
constexpr int s_Payload = 64;
constexpr int s_Operations = 500;
constexpr int s_FramesOfAPass = 16;

class Ignoring : public IpcMsgHandler
{
public:
    void HandleIpcMessage(IpcMsgBuf&, int) override {}
};

class Queue
{
public:
    Queue() : m_Transport({m_Directory.GetPath().c_str(), 'I'}, m_Manager, nullptr)
    {
        m_Manager.RegisterHandler(&m_Handler, s_Category);
        m_Transport.Init();
        m_Message.mtype = s_ServerMsgType;
        m_Message.category = s_Category;
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;
    ~Queue() { msgctl(m_Transport.GetQueue().GetId(), IPC_RMID, nullptr); }

    void Send() { m_Transport.GetQueue().Send(m_Message, s_Payload); }
    void Receive() { m_Transport.Run(); }

private:
    ScratchDirectory m_Directory;
    Ignoring m_Handler;
    IpcConnectionManager<IpcMsgQueueTransport> m_Manager{nullptr};
    IpcMsgQueueTransport m_Transport;
    IpcMsgBuf m_Message{};
};

class Stream
{
public:
    Stream() : m_Transport({0}, m_Manager, nullptr), m_Client(socket(AF_INET, SOCK_STREAM, 0))
    {
        m_Manager.RegisterHandler(&m_Handler, s_Category);
        m_Transport.Init();
        sockaddr_in address{};
        socklen_t size = sizeof address;
        if (getsockname(m_Transport.GetServer().GetSock(), reinterpret_cast<sockaddr*>(&address),
                        &size) != 0 ||
            connect(m_Client, reinterpret_cast<sockaddr*>(&address), size) != 0) {
            std::abort();
        }
        m_Transport.Run();
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream()
    {
        close(m_Manager.RequireConnection(1).GetSock());
        close(m_Client);
        close(m_Transport.GetServer().GetSock());
    }

    /// To the client.
    void Send()
    {
        m_Transport.SendMsg(m_Manager.RequireConnection(1), s_Category, m_Message, s_Payload);
    }
    void Take() const
    {
        unsigned char frame[s_MsgHeaderSize + s_Payload];
        if (recv(m_Client, frame, sizeof frame, MSG_WAITALL) != sizeof frame) {
            std::abort();
        }
    }

    /// From the client, so many frames at once.
    void Give(int frames) const
    {
        IpcMsgBuf message{};
        message.mtype = s_MsgHeaderSize + s_Payload;
        message.category = s_Category;
        std::vector<unsigned char> bytes;
        for (int i = 0; i < frames; ++i) {
            const auto* const first = reinterpret_cast<const unsigned char*>(&message);
            bytes.insert(bytes.end(), first, first + message.mtype);
        }
        send(m_Client, bytes.data(), bytes.size(), 0);
    }
    void Receive() { m_Transport.Run(); }

private:
    Ignoring m_Handler;
    IpcConnectionManager<IpcSocketTransport> m_Manager{nullptr};
    IpcSocketTransport m_Transport;
    IpcMsgBuf m_Message{};
    int m_Client;
};

} // namespace

int DispatchQueueMessage()
{
    Queue queue;
    for (int i = 0; i < s_Operations; ++i) {
        queue.Send();
        Count([&] { queue.Receive(); });
    }
    return s_Operations;
}

int SendQueueMessage()
{
    Queue queue;
    for (int i = 0; i < s_Operations; ++i) {
        Count([&] { queue.Send(); });
        queue.Receive();
    }
    return s_Operations;
}

int DispatchSocketFrame()
{
    Stream stream;
    for (int i = 0; i < s_Operations; ++i) {
        stream.Give(s_FramesOfAPass);
        Count([&] { stream.Receive(); });
    }
    return s_Operations * s_FramesOfAPass;
}

int SendSocketFrame()
{
    Stream stream;
    for (int i = 0; i < s_Operations; ++i) {
        Count([&] { stream.Send(); });
        stream.Take();
    }
    return s_Operations;
}

} // namespace instructions

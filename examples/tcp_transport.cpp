// A message service over TCP: the server echoes; its client is a child process.

#include <VelaHost_Ipc/ClientSocket.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>

#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

using namespace VelaHost_Ipc;
constexpr int s_EchoCategory = 5;

struct EchoServer : IpcMsgHandler
{
    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        auto& connection = manager.RequireConnection(msg.connection);
        transport.SendMsg(connection, s_EchoCategory, msg, length);
    }
    void HandleIpcClose(int connectionId) override { closed = connectionId; }

    IpcConnectionManager<IpcSocketTransport> manager{nullptr};
    IpcSocketTransport transport{{0}, manager, nullptr}; // a free port
    int closed = 0;
};

static void RunClient(int port)
{
    const ClientSocket client("127.0.0.1", port);
    IpcMsgBuf message{s_MsgHeaderSize + 5, 0, s_EchoCategory, "hello"}; // its whole length first
    client << std::string(reinterpret_cast<const char*>(&message), s_MsgHeaderSize + 5);
    message = {};
    recv(client.GetSock(), &message, s_MsgHeaderSize + 5, MSG_WAITALL); // may come in pieces
    std::printf("answer: %.5s\n", reinterpret_cast<const char*>(message.data));
}

int main()
{
    EchoServer server;
    server.manager.RegisterHandler(&server, s_EchoCategory);
    server.transport.Init();
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(server.transport.GetServer().GetSock(), reinterpret_cast<sockaddr*>(&address),
                &size);
    if (fork() == 0) {
        RunClient(ntohs(address.sin_port));
        return 0; // which closes the connection
    }
    while (server.closed == 0) {
        server.transport.Run();
    }
    wait(nullptr);
    std::printf("connection %d has gone\n", server.closed);
}

// Output:
//   answer: hello
//   connection 1 has gone

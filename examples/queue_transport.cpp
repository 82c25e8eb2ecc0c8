// A message service over a System V queue: the server echoes; its client is a child process.

#include "guide/QueueClient.h"

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>

#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>

using namespace VelaHost_Ipc;
constexpr int s_EchoCategory = 5;

struct EchoServer : IpcMsgHandler
{
    explicit EchoServer(const char* path) : transport({path, 'E'}, manager, nullptr) {}
    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        msg.mtype = manager.RequireConnection(msg.connection).pid; // for that client only
        transport.GetQueue().Send(msg, length);
    }
    void HandleIpcClose(int connectionId) override { closed = connectionId; }

    IpcConnectionManager<IpcMsgQueueTransport> manager{nullptr};
    IpcMsgQueueTransport transport;
    int closed = 0;
};

int main()
{
    char path[] = "/tmp/vela-example-XXXXXX"; // the key is made from a file that exists
    close(mkstemp(path));
    EchoServer server(path);
    server.manager.RegisterHandler(&server, s_EchoCategory);
    server.transport.Init(); // takes category 1, connection control
    if (fork() == 0) {
        QueueClient client(path, 'E');
        std::printf("client has connection %d\n", client.Connect());
        std::printf("answer: %s\n", client.Ask(s_EchoCategory, "hello").c_str());
        client.Disconnect();
        return 0;
    }
    while (server.closed == 0) {
        server.transport.Run();
    }
    wait(nullptr);
    std::printf("connection %d has gone\n", server.closed);
    msgctl(server.transport.GetQueue().GetId(), IPC_RMID, nullptr); // nobody else removes it
    unlink(path);
}

// Output:
//   client has connection 1
//   answer: hello
//   connection 1 has gone

// Text over a socket: a server and its client, over a Unix-domain path and over TCP.

#include <VelaHost_Ipc/ClientSocket.h>
#include <VelaHost_Ipc/IpcSocketException.h>
#include <VelaHost_Ipc/ServerSocket.h>
#include <VelaHost_Ipc/Socket.h>
#include <VelaHost_OS/Thread.h>

#include <cstdio>
#include <string>
#include <unistd.h>

using namespace VelaHost_Ipc;

static void AnswerOne(void* listener)
{
    ServerSocket connection;
    static_cast<ServerSocket*>(listener)->Accept(connection);
    std::string question;
    connection >> question; // what came in one receive, 500 bytes at most
    connection << "you said " + question;
    close(connection.GetSock()); // the library never closes these by itself
}

int main()
{
    const std::string path = "/tmp/vela-example-" + std::to_string(getpid());
    ServerSocket listener(path);
    unsigned long thread = 0;
    VelaHost_OS::CreateThread(AnswerOne, 0, &listener, &thread);

    ClientSocket client(path);
    std::string answer;
    client << "hello";
    client >> answer;
    std::printf("%s\n", answer.c_str());
    try {
        client >> answer; // the server has closed
    } catch (const IpcSocketException& e) {
        std::printf("code 0x%x\n", e.GetErrorCode());
    }
    VelaHost_OS::JoinThread(thread);
    close(client.GetSock());
    close(listener.GetSock());
    unlink(path.c_str());

    Socket plain; // the same without exceptions
    const bool bound = plain.create(AF_INET) && plain.bind(0) && plain.listen();
    std::printf("listening on a free TCP port: %s\n", bound ? "yes" : "no");
    plain.close();
}

// Output:
//   you said hello
//   IpcSocketException at src/unix/ClientSocket:78
//   code 0x2106
//   listening on a free TCP port: yes

#include <VelaHost_Ipc/ServerSocket.h>

#include "support/CapturedStdout.h"
#include "support/ChildProcess.h"
#include "support/Interpose.h"
#include "support/Sockets.h"
#include "support/TemporaryDirectory.h"
#include "support/ThrownException.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_Ipc/IpcSocketException.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {

using namespace velahost_test;
using testing::ElementsAre;
using VelaHost_Ipc::IpcSocketException;
using VelaHost_Ipc::ServerSocket;
using VelaHost_Ipc::Socket;

Failure ServerFailure(unsigned int code, unsigned int line, int errnoValue)
{
    return {code, "IpcSocketException", "src/unix/ServerSocket", line, errnoValue};
}

/// Each step of building a server, made to fail for a port and for a path.
struct Step
{
    const char* call;
    unsigned int code;
    unsigned int portLine;
    unsigned int pathLine;
};

constexpr Step s_Steps[] = {
    {"socket", 0x2101, 49, 62},
    {"setsockopt", 0x2101, 49, 62},
    {"bind", 0x2102, 52, 65},
    {"listen", 0x2103, 55, 68},
};

// --- Building -------------------------------------------------------------------------------

TEST(ServerSocketObject, IsASocketInSecretAndNoMore)
{
    static_assert(std::is_base_of_v<Socket, ServerSocket>);
    static_assert(!std::is_convertible_v<ServerSocket*, Socket*>);
    static_assert(sizeof(ServerSocket) == sizeof(Socket));
    static_assert(std::has_virtual_destructor_v<ServerSocket>);
}

TEST(ServerSocketObject, BeginsWithoutADescriptor)
{
    CallCounter calls("socket");
    const ServerSocket socket;
    EXPECT_EQ(socket.GetSock(), -1);
    EXPECT_EQ(calls.GetCallCount(), 0U);
}

TEST(ServerSocketObject, LeavesItsDescriptorOpenWhenDestroyed)
{
    Descriptor left;
    {
        const ServerSocket socket(0);
        left = Descriptor(socket.GetSock());
    }
    EXPECT_TRUE(IsOpen(left.Get()));
    // Clients still get through to it.
    EXPECT_NO_THROW(ConnectTo(LocalPort(left.Get())));
}

TEST(ServerSocketConstructor, FailsAtEachStepAndLeavesTheDescriptorOpen)
{
    const TemporaryDirectory directory;
    for (const Step& step : s_Steps) {
        SCOPED_TRACE(step.call);
        const OpenedSockets opened;
        {
            FailingCall failing(step.call, ENOSR);
            EXPECT_TRUE(Throws<IpcSocketException>([] { ServerSocket server(0); },
                                                   ServerFailure(step.code, step.portLine, ENOSR)));
            EXPECT_TRUE(opened.AreOpen());
        }
        {
            FailingCall failing(step.call, ENOLINK);
            const std::string path = directory.File(step.call);
            EXPECT_TRUE(
                Throws<IpcSocketException>([&] { ServerSocket server(path); },
                                           ServerFailure(step.code, step.pathLine, ENOLINK)));
        }
        EXPECT_TRUE(opened.AreOpen());
        EXPECT_EQ(opened.GetCount(), step.call == std::string("socket") ? 0U : 2U);
    }
}

TEST(ServerSocketConstructor, LetsFiveWait)
{
    std::vector<int> backlogs;
    Hook hook(interposed::listen, [&](int, int backlog) -> std::optional<int> {
        backlogs.push_back(backlog);
        return std::nullopt;
    });
    const TemporaryDirectory directory;
    const Descriptor port(ServerSocket(0).GetSock());
    const Descriptor path(ServerSocket(directory.File("socket")).GetSock());
    EXPECT_THAT(backlogs, ElementsAre(5, 5));
}

TEST(ServerSocketConstructor, FailsOnAPathThatIsThere)
{
    const TemporaryDirectory directory;
    const std::string path = directory.File("socket");
    Descriptor(ServerSocket(path).GetSock()).Close();
    // Nobody listens any more; the file is still there.
    const OpenedSockets opened;
    CapturedStdout output;
    EXPECT_TRUE(Throws<IpcSocketException>([&] { ServerSocket second(path); },
                                           ServerFailure(0x2102, 65, EADDRINUSE)));
    EXPECT_EQ(output.Stop(), "IpcSocketException at src/unix/ServerSocket:65\n");
}

TEST(ServerSocketConstructor, FailsOnAPathThatIsTooLong)
{
    const OpenedSockets opened;
    EXPECT_TRUE(Throws<IpcSocketException>([] { ServerSocket server(std::string(108, 'x')); },
                                           ServerFailure(0x2102, 65, ENAMETOOLONG)));
}

TEST(ServerSocketConstructor, FailsOnAPortThatIsListenedOn)
{
    const Descriptor first(ServerSocket(0).GetSock());
    const OpenedSockets opened;
    EXPECT_TRUE(Throws<IpcSocketException>([&] { ServerSocket second(LocalPort(first.Get())); },
                                           ServerFailure(0x2102, 52, EADDRINUSE)));
}

TEST(ServerSocketConstructor, TakesAPortAgainRightAfterItsConnectionsHaveClosed)
{
    ServerSocket listener(0);
    const int port = LocalPort(listener.GetSock());
    {
        const Descriptor owner(listener.GetSock());
        Descriptor client = ConnectTo(port);
        ServerSocket server;
        listener.Accept(server);
        // The server's end closes first and keeps the port for a while.
        Descriptor(server.GetSock()).Close();
        ReadExactly(client.Get(), 1);
    }
    const ServerSocket again(port);
    const Descriptor owner(again.GetSock());
    EXPECT_EQ(LocalPort(owner.Get()), port);
}

// --- Accept ---------------------------------------------------------------------------------

TEST(ServerSocketAccept, OverwritesADescriptorWithoutClosingIt)
{
    ServerSocket listener(0);
    const Descriptor listenerOwner(listener.GetSock());
    const int port = LocalPort(listener.GetSock());
    const Descriptor firstClient = ConnectTo(port);
    const Descriptor secondClient = ConnectTo(port);
    ServerSocket server;
    listener.Accept(server);
    const Descriptor first(server.GetSock());
    listener.Accept(server);
    const Descriptor second(server.GetSock());
    EXPECT_NE(first.Get(), second.Get());
    EXPECT_TRUE(IsOpen(first.Get()));
    server << "second";
    EXPECT_EQ(ReadExactly(secondClient.Get(), 6), "second");
}

TEST(ServerSocketAccept, ThrowsWhenTheSystemRefuses)
{
    ServerSocket listener(0);
    const Descriptor listenerOwner(listener.GetSock());
    FailingCall failing("accept", ECONNABORTED);
    ServerSocket server;
    EXPECT_TRUE(Throws<IpcSocketException>([&] { listener.Accept(server); },
                                           ServerFailure(0x2104, 98, ECONNABORTED)));
    EXPECT_EQ(server.GetSock(), -1);
}

TEST(ServerSocketAccept, ThrowsOnDescriptorZero)
{
    ServerSocket listener(0);
    const Descriptor listenerOwner(listener.GetSock());
    Hook hook(interposed::accept, [](int, sockaddr*, socklen_t*) { return 0; });
    ServerSocket server;
    errno = 99;
    EXPECT_TRUE(Throws<IpcSocketException>([&] { listener.Accept(server); },
                                           ServerFailure(0x2104, 98, 99)));
    EXPECT_EQ(server.GetSock(), 0);
}

TEST(ServerSocketAccept, ThrowsWithoutADescriptor)
{
    ServerSocket none;
    ServerSocket server;
    EXPECT_TRUE(
        Throws<IpcSocketException>([&] { none.Accept(server); }, ServerFailure(0x2104, 98, EBADF)));
}

// --- Text -----------------------------------------------------------------------------------

class AcceptedSocket : public testing::Test
{
protected:
    AcceptedSocket() : m_Listener(0), m_ListenerOwner(m_Listener.GetSock())
    {
        m_Client = ConnectTo(LocalPort(m_Listener.GetSock()));
        m_Listener.Accept(m_Server);
        m_ServerOwner = Descriptor(m_Server.GetSock());
    }

    void SetUp() override { errno = 0; }

    ServerSocket m_Listener;
    Descriptor m_ListenerOwner;
    Descriptor m_Client;
    ServerSocket m_Server;
    Descriptor m_ServerOwner;
};

TEST_F(AcceptedSocket, CarriesChainedTexts)
{
    m_Server << "one "
             << "two";
    EXPECT_EQ(ReadExactly(m_Client.Get(), 7), "one two");
    WriteAll(m_Client.Get(), std::string(501, 'x'));
    WaitForBytes(m_Server.GetSock(), 501);
    std::string first;
    std::string rest;
    m_Server >> first >> rest;
    EXPECT_EQ(first, std::string(500, 'x'));
    EXPECT_EQ(rest, "x");
}

TEST_F(AcceptedSocket, ThrowsOnReceivingFromAClientThatHasClosed)
{
    m_Client.Close();
    CapturedStdout output;
    std::string text;
    errno = 1234;
    EXPECT_TRUE(
        Throws<IpcSocketException>([&] { m_Server >> text; }, ServerFailure(0x2106, 89, 1234)));
    EXPECT_EQ(output.Stop(), "IpcSocketException at src/unix/ServerSocket:89\n");
}

TEST_F(AcceptedSocket, PrintsAFailedReceiveBeforeItThrows)
{
    FailingCall failing("recv", EBADMSG);
    CapturedStdout output;
    std::string text;
    EXPECT_TRUE(
        Throws<IpcSocketException>([&] { m_Server >> text; }, ServerFailure(0x2106, 89, EBADMSG)));
    EXPECT_EQ(output.Stop(), "status == -1   errno == " + std::to_string(EBADMSG) +
                                 "  in Socket::recv\n"
                                 "IpcSocketException at src/unix/ServerSocket:89\n");
}

TEST_F(AcceptedSocket, ThrowsWhenASendFails)
{
    FailingCall failing("send", EPIPE);
    EXPECT_TRUE(
        Throws<IpcSocketException>([&] { m_Server << "text"; }, ServerFailure(0x2107, 80, EPIPE)));
}

TEST(ServerSocketText, ThrowsWithoutADescriptor)
{
    const ServerSocket none;
    std::string text;
    EXPECT_TRUE(
        Throws<IpcSocketException>([&] { none << "text"; }, ServerFailure(0x2107, 80, EBADF)));
    EXPECT_TRUE(
        Throws<IpcSocketException>([&] { none >> text; }, ServerFailure(0x2106, 89, EBADF)));
}

} // namespace

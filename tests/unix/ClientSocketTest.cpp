#include <VelaHost_Ipc/ClientSocket.h>

#include "support/CapturedStdout.h"
#include "support/Interpose.h"
#include "support/Sockets.h"
#include "support/TemporaryDirectory.h"
#include "support/ThrownException.h"

#include <VelaHost_Ipc/IpcSocketException.h>
#include <VelaHost_Ipc/ServerSocket.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

namespace {

using namespace velahost_test;
using VelaHost_Ipc::ClientSocket;
using VelaHost_Ipc::IpcSocketException;
using VelaHost_Ipc::ServerSocket;
using VelaHost_Ipc::Socket;
using VelaHost_Utility::Exception;

Failure ClientFailure(unsigned int code, unsigned int line, int errnoValue)
{
    return {code, "IpcSocketException", "src/unix/ClientSocket", line, errnoValue};
}

/// A listener, a client and the server's end of its connection.
class Connection : public testing::Test
{
protected:
    Connection()
        : m_Listener(0),
          m_ListenerOwner(m_Listener.GetSock()),
          m_Client("127.0.0.1", LocalPort(m_Listener.GetSock())),
          m_ClientOwner(m_Client.GetSock())
    {
        m_Listener.Accept(m_Server);
        m_ServerOwner = Descriptor(m_Server.GetSock());
    }

    void SetUp() override { errno = 0; }

    ServerSocket m_Listener;
    Descriptor m_ListenerOwner;
    ClientSocket m_Client;
    Descriptor m_ClientOwner;
    ServerSocket m_Server;
    Descriptor m_ServerOwner;
};

// --- The exception --------------------------------------------------------------------------

TEST(IpcSocketException, ShowsCodeTextAndErrnoAndLogsItself)
{
    constexpr Exception::Context site(nullptr, "src/Somewhere", 5,
                                      VelaHost_Utility::DefaultExceptionLogger);
    CapturedStdout output;
    errno = ENOTCONN;
    const IpcSocketException e(site, 0x2107);
    EXPECT_EQ(e.GetErrorCode(), 0x2107U);
    EXPECT_EQ(e.GetText(), "IpcSocketException");
    EXPECT_EQ(e.GetErrno(), ENOTCONN);
    EXPECT_EQ(output.Stop(), "IpcSocketException at src/Somewhere:5\n");
}

TEST(IpcSocketException, SavesErrnoBeforeAnythingIsLogged)
{
    constexpr Exception::Context site(nullptr, "src/Somewhere", 5,
                                      [](const Exception&) { errno = EIO; });
    errno = ENOTCONN;
    const IpcSocketException e(site, 0x2107);
    EXPECT_EQ(e.GetErrno(), ENOTCONN);
    EXPECT_EQ(errno, EIO);
}

TEST(IpcSocketException, KeepsErrnoBehindTheBasesFields)
{
    constexpr Exception::Context site(nullptr, "", 0, [](const Exception&) {});
    errno = 4321;
    const IpcSocketException e(site, 0x2101);
    std::int32_t errnoValue = 0;
    std::memcpy(&errnoValue, reinterpret_cast<const unsigned char*>(&e) + sizeof(Exception),
                sizeof errnoValue);
    EXPECT_EQ(errnoValue, 4321);
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(IpcSocketException), sizeof(Exception) + 4);
    }
    static_assert(std::is_base_of_v<Exception, IpcSocketException> &&
                  std::is_convertible_v<IpcSocketException*, Exception*>);
}

TEST(IpcSocketException, NamesItsCodes)
{
    using namespace VelaHost_Ipc;
    static_assert(s_SocketCreateFailed == 0x2101 && s_SocketBindFailed == 0x2102 &&
                  s_SocketListenFailed == 0x2103 && s_SocketAcceptFailed == 0x2104 &&
                  s_SocketConnectFailed == 0x2105 && s_SocketReceiveFailed == 0x2106 &&
                  s_SocketSendFailed == 0x2107);
}

// --- The object -----------------------------------------------------------------------------

TEST(ClientSocketObject, IsASocketInSecretAndNoMore)
{
    static_assert(std::is_base_of_v<Socket, ClientSocket>);
    static_assert(!std::is_convertible_v<ClientSocket*, Socket*>);
    static_assert(sizeof(ClientSocket) == sizeof(Socket));
    static_assert(std::has_virtual_destructor_v<ClientSocket>);
}

TEST_F(Connection, OutlivesTheClientObject)
{
    auto client = std::make_unique<ClientSocket>("127.0.0.1", LocalPort(m_Listener.GetSock()));
    const Descriptor owner(client->GetSock());
    client.reset();
    EXPECT_TRUE(IsOpen(owner.Get()));
}

// --- Connecting -----------------------------------------------------------------------------

TEST(ClientSocketConstructor, ReachesAPath)
{
    const TemporaryDirectory directory;
    ServerSocket listener(directory.File("socket"));
    const Descriptor listenerOwner(listener.GetSock());
    const ClientSocket client(directory.File("socket"));
    const Descriptor clientOwner(client.GetSock());
    ServerSocket server;
    listener.Accept(server);
    const Descriptor serverOwner(server.GetSock());
    client << "over the path";
    std::string text;
    server >> text;
    EXPECT_EQ(text, "over the path");
}

TEST(ClientSocketConstructor, TakesTextThatIsNoAddressForThisMachine)
{
    ServerSocket listener(0);
    const Descriptor listenerOwner(listener.GetSock());
    errno = 0;
    const ClientSocket client("no address", LocalPort(listener.GetSock()));
    const Descriptor clientOwner(client.GetSock());
    client << "reached";
    ServerSocket server;
    listener.Accept(server);
    const Descriptor serverOwner(server.GetSock());
    std::string text;
    server >> text;
    EXPECT_EQ(text, "reached");
}

TEST(ClientSocketConstructor, FailsWithoutADescriptor)
{
    FailingCall failing("socket", EMFILE, 1, 2);
    EXPECT_TRUE(Throws<IpcSocketException>([] { ClientSocket client("127.0.0.1", 1); },
                                           ClientFailure(0x2101, 49, EMFILE)));
    errno = 0;
    EXPECT_TRUE(Throws<IpcSocketException>([] { ClientSocket client("path"); },
                                           ClientFailure(0x2101, 59, EMFILE)));
}

TEST(ClientSocketConstructor, FailsWithoutAddressReuseAndLeavesTheDescriptorOpen)
{
    const OpenedSockets opened;
    FailingCall failing("setsockopt", ENOBUFS, 1, 2);
    EXPECT_TRUE(Throws<IpcSocketException>([] { ClientSocket client("127.0.0.1", 1); },
                                           ClientFailure(0x2101, 49, ENOBUFS)));
    EXPECT_TRUE(opened.AreOpen());
    errno = 0;
    EXPECT_TRUE(Throws<IpcSocketException>([] { ClientSocket client("path"); },
                                           ClientFailure(0x2101, 59, ENOBUFS)));
    EXPECT_TRUE(opened.AreOpen());
    EXPECT_EQ(opened.GetCount(), 2U);
}

TEST(ClientSocketConstructor, FailsWhereNobodyListensAndLeavesTheDescriptorOpen)
{
    const auto [held, port] = UnusedPort();
    const TemporaryDirectory directory;
    const OpenedSockets opened;
    errno = 0;
    EXPECT_TRUE(
        Throws<IpcSocketException>([port = port] { ClientSocket client("127.0.0.1", port); },
                                   ClientFailure(0x2105, 52, ECONNREFUSED)));
    EXPECT_TRUE(opened.AreOpen());
    errno = 0;
    EXPECT_TRUE(Throws<IpcSocketException>([port = port] { ClientSocket client("nowhere", port); },
                                           ClientFailure(0x2105, 52, ECONNREFUSED)));
    EXPECT_TRUE(Throws<IpcSocketException>([&] { ClientSocket client(directory.File("nobody")); },
                                           ClientFailure(0x2105, 62, ENOENT)));
    EXPECT_TRUE(opened.AreOpen());
    EXPECT_EQ(opened.GetCount(), 3U);
}

TEST(ClientSocketConstructor, FailsOnArgumentsThatNoCallCouldTake)
{
    const OpenedSockets opened;
    EXPECT_TRUE(Throws<IpcSocketException>([] { ClientSocket client("127.0.0.1", 70000); },
                                           ClientFailure(0x2105, 52, EINVAL)));
    EXPECT_TRUE(Throws<IpcSocketException>([] { ClientSocket client(std::string(108, 'x')); },
                                           ClientFailure(0x2105, 62, ENAMETOOLONG)));
}

TEST(ClientSocketConstructor, LogsItsFailureOnce)
{
    const OpenedSockets opened;
    const TemporaryDirectory directory;
    CapturedStdout output;
    EXPECT_THROW(ClientSocket client(directory.File("nobody")), IpcSocketException);
    EXPECT_EQ(output.Stop(), "IpcSocketException at src/unix/ClientSocket:62\n");
}

// --- Text -----------------------------------------------------------------------------------

TEST_F(Connection, CarriesChainedTextsBothWays)
{
    m_Client << "one "
             << "two";
    WaitForBytes(m_Server.GetSock(), 7);
    std::string text;
    EXPECT_EQ(&(m_Server >> text), &m_Server);
    EXPECT_EQ(text, "one two");
    m_Server << "three";
    EXPECT_EQ(&(m_Client >> text), &m_Client);
    EXPECT_EQ(text, "three");
    EXPECT_EQ(&(m_Client << text), &m_Client);
}

TEST_F(Connection, ReceivesAtMostFiveHundredBytes)
{
    m_Server << std::string(800, 'x');
    WaitForBytes(m_Client.GetSock(), 800);
    std::string first;
    std::string rest;
    m_Client >> first >> rest;
    EXPECT_EQ(first, std::string(500, 'x'));
    EXPECT_EQ(rest, std::string(300, 'x'));
}

TEST_F(Connection, ThrowsOnReceivingFromAServerThatHasClosed)
{
    m_ServerOwner.Close();
    std::string text = "before";
    CapturedStdout output;
    // No call has failed: errno is what was there.
    errno = 1234;
    EXPECT_TRUE(
        Throws<IpcSocketException>([&] { m_Client >> text; }, ClientFailure(0x2106, 78, 1234)));
    EXPECT_EQ(text, "");
    EXPECT_EQ(output.Stop(), "IpcSocketException at src/unix/ClientSocket:78\n");
}

TEST_F(Connection, PrintsAFailedReceiveBeforeItThrows)
{
    FailingCall failing("recv", ETIMEDOUT);
    CapturedStdout output;
    std::string text;
    EXPECT_TRUE(Throws<IpcSocketException>([&] { m_Client >> text; },
                                           ClientFailure(0x2106, 78, ETIMEDOUT)));
    EXPECT_EQ(output.Stop(), "status == -1   errno == 110  in Socket::recv\n"
                             "IpcSocketException at src/unix/ClientSocket:78\n");
}

TEST_F(Connection, ThrowsWhenASendFails)
{
    FailingCall failing("send", ECONNRESET);
    EXPECT_TRUE(Throws<IpcSocketException>([&] { m_Client << "text"; },
                                           ClientFailure(0x2107, 69, ECONNRESET)));
}

TEST_F(Connection, ThrowsOnSendingToAServerThatIsGone)
{
    Reset(m_ServerOwner);
    WaitForBytes(m_Client.GetSock(), 1);
    EXPECT_TRUE(Throws<IpcSocketException>([&] { m_Client << "text"; },
                                           ClientFailure(0x2107, 69, ECONNRESET)));
    EXPECT_TRUE(
        Throws<IpcSocketException>([&] { m_Client << "text"; }, ClientFailure(0x2107, 69, EPIPE)));
}

} // namespace

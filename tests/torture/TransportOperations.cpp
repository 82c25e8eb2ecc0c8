#include "Operation.h"

#include "OpenedByLibrary.h"
#include "Transcript.h"

#include "support/Sockets.h"

#include <VelaHost_Ipc/IpcSocketException.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>

#include <utility>

namespace velahost_test {

namespace {

using VelaHost_Ipc::IpcConnectionManager;
using VelaHost_Ipc::IpcMsgBuf;
using VelaHost_Ipc::IpcMsgHandler;
using VelaHost_Ipc::IpcSocketException;
using VelaHost_Ipc::IpcSocketTransport;

constexpr int s_Category = 5;

struct CountingHandler final : IpcMsgHandler
{
    int messages = 0;
    int closes = 0;
    void HandleIpcMessage(IpcMsgBuf&, int) override { ++messages; }
    void HandleIpcClose(int) override { ++closes; }
};

/// A manager without a transport.
struct Manager
{
    OpenedByLibrary opened;
    Transcript log;
    IpcConnectionManager<IpcSocketTransport> manager{&log};

    std::string GetState() const { return opened.GetState(); }
};

/// A transport without clients.
struct Server : Manager
{
    CountingHandler handler;
    IpcSocketTransport transport{{0}, manager, &log};
    Descriptor client;

    Server()
    {
        transport.Init();
        manager.RegisterHandler(&handler, s_Category);
    }
    ~Server()
    {
        for (const auto* connection : manager.connections) {
            if (!connection->IsFree()) {
                close(connection->GetSock());
            }
        }
    }

    void Connect() { client = ConnectTo(LocalPort(transport.GetServer().GetSock())); }
    std::string GetState() const
    {
        std::string state = "connections";
        for (const auto* connection : manager.connections) {
            state += connection->IsFree() ? " free" : " used";
        }
        return state + ", handled " + std::to_string(handler.messages) + "-" +
               std::to_string(handler.closes) + "; " + log.GetText();
    }
};

struct ClientWaiting : Server
{
    ClientWaiting() { Connect(); }
};

/// A served client, by a pass of its own whose log is not the test's.
struct Served : ClientWaiting
{
    Served()
    {
        transport.Run();
        log.Clear();
    }

    auto& GetConnection() { return *manager.connections.front(); }
};

struct FrameWaiting : Served
{
    FrameWaiting()
    {
        IpcMsgBuf frame{};
        frame.mtype = 12;
        frame.category = s_Category;
        WriteAll(client.Get(), {reinterpret_cast<const char*>(&frame), 12});
        WaitForBytes(GetConnection().GetSock(), 12);
    }
};

struct ClientGone : Served
{
    ClientGone()
    {
        client.Close();
        WaitForBytes(GetConnection().GetSock(), 1);
    }
};

/// A connection by itself.
struct Connection
{
    IpcSocketTransport::Connection connection{1};

    std::string GetState() const
    {
        return (connection.buffer != nullptr ? "buffer of " : "no buffer of ") +
               std::to_string(connection.bufferSize) + ", filled " +
               std::to_string(connection.fill);
    }
};

struct BufferedConnection : Connection
{
    BufferedConnection() { connection.AllocBuffer(64); }
};

template <typename Fixture>
Told Run(Fixture& f)
{
    f.transport.Run();
    return "ran";
}

Failure SocketFailure(unsigned int line, unsigned int code, int errnoValue)
{
    return {code, "IpcSocketException", "src/unix/ServerSocket", line, errnoValue};
}

std::string ReceiveLine(int errnoValue)
{
    return "status == -1   errno == " + std::to_string(errnoValue) + "  in Socket::recv\n";
}

} // namespace

std::vector<Operation> TransportOperations()
{
    constexpr unsigned int each = Row::each;
    const auto throws = [](unsigned int line, unsigned int code, int errnoValue) {
        return Throws<IpcSocketException>(SocketFailure(line, code, errnoValue));
    };
    const std::string selecting = "debug select with max=#; ";
    const std::string selectingOne = "debug Adding Cx 1 (socket #) to select set; " + selecting;
    const std::string noConnections = "connections, handled 0-0; " + selecting;
    const std::string freeConnection = "connections free, handled 0-0; " + selecting;
    const std::string gone =
        "connections free, handled 0-1; " + selectingOne + "info Connection 1 cleared; ";

    return {
        {"IpcSocketTransport_Construct",
         With<Manager>([](Manager& f) {
             const IpcSocketTransport made({0}, f.manager, &f.log);
             return Told("made");
         }),
         Tells("made").Leaves("sockets 1, open"),
         {{"socket", each, EMFILE, throws(49, 0x2101, EMFILE)},
          {"setsockopt", each, ENOMEM, throws(49, 0x2101, ENOMEM).Leaves("sockets 1, open")},
          {"bind", each, EADDRINUSE, throws(52, 0x2102, EADDRINUSE).Leaves("sockets 1, open")},
          {"listen", each, EADDRINUSE, throws(55, 0x2103, EADDRINUSE).Leaves("sockets 1, open")}}},

        {"IpcSocketTransport_Init",
         With<Server>([](Server& f) { return Told::Number(f.transport.Init() > 0); }), Tells("1")},

        // The connection that was made for the client is free for the next attempt.
        {"IpcSocketTransport_Run_Accept",
         With<ClientWaiting>(Run<ClientWaiting>),
         Tells("ran").Leaves("connections used, handled 0-0; " + selecting +
                             "info Established connection 1 on socket #; "),
         {{"select", each, EINTR, Tells("ran").Leaves(noConnections)},
          {"accept", each, EMFILE,
           Tells("ran")
               .Prints(SocketFailure(98, 0x2104, EMFILE).LogLine())
               .Leaves(freeConnection + "error Exception caught in Run(): IpcSocketException; ")}},
         // The connection, its place in the table, its buffer.
         {{1, OutOfMemory().Leaves(noConnections)},
          {2, OutOfMemory().Leaves(noConnections)},
          {3, OutOfMemory().Leaves(freeConnection)}}},

        // A failed receive is the end of the connection.
        {"IpcSocketTransport_Run_Receive",
         With<FrameWaiting>(Run<FrameWaiting>),
         Tells("ran").Leaves("connections used, handled 1-0; " + selectingOne +
                             "debug Read 12 bytes on cx 1 [idx=12]; received 5 1 4; "),
         {{"select", each, EINTR,
           Tells("ran").Leaves("connections used, handled 0-0; " + selectingOne)},
          {"recv", each, ECONNRESET,
           Tells("ran").Prints(ReceiveLine(ECONNRESET)).Leaves(gone).ThenNoMore()}}},

        {"IpcSocketTransport_Run_Close",
         With<ClientGone>(Run<ClientGone>),
         Tells("ran").Leaves(gone),
         {{"select", each, EINTR,
           Tells("ran").Leaves("connections used, handled 0-0; " + selectingOne)},
          {"recv", each, ECONNRESET,
           Tells("ran").Prints(ReceiveLine(ECONNRESET)).Leaves(gone).ThenNoMore()},
          {"close", each, EIO, Ignored()}}},

        // The connection stays open.
        {"IpcSocketTransport_SendMsg",
         With<Served>([](Served& f) {
             IpcMsgBuf message{};
             return Told::Success(f.transport.SendMsg(f.GetConnection(), s_Category, message, 4));
         }),
         Tells("true").Leaves("connections used, handled 0-0; sends 5 1 4; "),
         {{"send", each, EPIPE,
           Tells("false, errno 32").Leaves("connections used, handled 0-0; sends 5 1 4; ")}}},

        {"IpcSocketTransport_Connection_read",
         With<FrameWaiting>([](FrameWaiting& f) { return Told::Number(f.GetConnection().read()); }),
         Tells("12"),
         {{"recv", each, EINTR, Tells("0").Prints(ReceiveLine(EINTR))}}},

        {"IpcSocketTransport_Connection_flipBuffer",
         With<BufferedConnection>([](BufferedConnection& f) {
             f.connection.flipBuffer(3);
             return Told("done");
         }),
         Tells("done")},

        {"IpcSocketTransport_Connection_AllocBuffer", With<Connection>([](Connection& f) {
             f.connection.AllocBuffer(2048);
             return Told("done");
         }),
         Tells("done").Leaves("buffer of 2048, filled 0")},

        // What there was is kept.
        {"IpcSocketTransport_Connection_AllocBuffer_Again",
         With<BufferedConnection>([](BufferedConnection& f) {
             f.connection.AllocBuffer(2048);
             return Told("done");
         }),
         Tells("done").Leaves("buffer of 2048, filled 0")},
    };
}

} // namespace velahost_test

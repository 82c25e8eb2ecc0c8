#include "Objects.h"
#include "OpenedByLibrary.h"

#include "support/Sockets.h"
#include "support/TemporaryDirectory.h"

#include <VelaHost_Ipc/ClientSocket.h>
#include <VelaHost_Ipc/IpcSocketException.h>
#include <VelaHost_Ipc/ServerSocket.h>
#include <VelaHost_Ipc/Socket.h>

#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <utility>

namespace velahost_test {

namespace {

using VelaHost_Ipc::ClientSocket;
using VelaHost_Ipc::IpcSocketException;
using VelaHost_Ipc::ServerSocket;
using VelaHost_Ipc::Socket;

struct Sockets
{
    TemporaryDirectory directory;
    std::string path = directory.File("socket");
    OpenedByLibrary opened;

    std::string GetState() const
    {
        return opened.GetState() + (std::filesystem::exists(path) ? ", a path" : "");
    }
};

struct DoomedSocket : Sockets
{
    Socket* socket = new Socket;

    DoomedSocket() { socket->create(AF_INET); }
    ~DoomedSocket() { delete socket; }
};

/// A plain socket without a descriptor.
struct NewSocket : Sockets
{
    Socket socket;

    std::string GetState() const
    {
        return Sockets::GetState() + ", family " + std::to_string(socket.GetDomain()) +
               (socket.GetSock() != -1 ? ", valid" : ", none");
    }
};

template <int family>
struct CreatedSocket : NewSocket
{
    CreatedSocket() { socket.create(family); }
};

/// A port and a path that servers listen on.
struct Served : Sockets
{
    Socket portServer;
    Socket pathServer;
    int port;

    Served()
    {
        portServer.create(AF_INET);
        portServer.bind(0);
        portServer.listen();
        port = LocalPort(portServer.GetSock());
        pathServer.create(AF_UNIX);
        pathServer.bind(path);
        pathServer.listen();
    }
};

template <int family>
struct Unconnected : Served
{
    Socket socket;

    Unconnected() { socket.create(family); }
    std::string GetState() const
    {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        const bool connected =
            getpeername(socket.GetSock(), reinterpret_cast<sockaddr*>(&peer), &length) == 0;
        return Served::GetState() + (connected ? ", connected" : ", unconnected");
    }
};

/// A client in the queue of a listening socket.
struct Waiting : Served
{
    Descriptor client = ConnectTo(port);
    Socket peer;
    Descriptor owner;

    std::string GetState()
    {
        if (peer.GetSock() > 0 && owner.Get() == -1) {
            owner = Descriptor(peer.GetSock());
        }
        return peer.GetSock() != -1 ? "accepted" : "waiting";
    }
};

void WaitForSent(int receiver, std::size_t count)
{
    if (count != 0) {
        WaitForBytes(receiver, count);
    }
}

/// Both ends of a connection; the far one has sent a text.
struct Connected : Sockets
{
    Descriptor far;
    Socket socket;
    std::size_t sent = 0;

    Connected()
    {
        Socket listener;
        listener.create(AF_INET);
        listener.bind(0);
        listener.listen();
        far = ConnectTo(LocalPort(listener.GetSock()));
        WriteAll(far.Get(), "hello");
        listener.accept(socket);
        listener.close();
        WaitForBytes(socket.GetSock(), 5);
    }
    ~Connected() { socket.close(); }

    Told Note(bool succeeded, std::size_t length)
    {
        sent += succeeded ? length : 0;
        return Told::Success(succeeded);
    }
    std::string GetState() const
    {
        if (socket.GetSock() == -1) {
            return "closed";
        }
        WaitForSent(far.Get(), sent);
        return std::to_string(BytesWaiting(socket.GetSock())) + " here, " +
               std::to_string(BytesWaiting(far.Get())) + " there" +
               ((fcntl(socket.GetSock(), F_GETFL) & O_NONBLOCK) != 0 ? ", non-blocking" : "");
    }
};

/// A text that a string has no room for by itself.
struct LongText : Connected
{
    LongText()
    {
        WriteAll(far.Get(), std::string(95, 'x'));
        WaitForBytes(socket.GetSock(), 100);
    }
};

/// The same of the classes that throw.
struct TextClient : Served
{
    ClientSocket client{"127.0.0.1", port};
    Socket peer;
    std::string text = "untouched";
    std::size_t sent = 0;

    TextClient()
    {
        portServer.accept(peer);
        peer.send(std::string("hello"));
        WaitForBytes(client.GetSock(), 5);
    }
    ~TextClient() { peer.close(); }

    std::string GetState() const
    {
        WaitForSent(peer.GetSock(), sent);
        return text + ", " + std::to_string(BytesWaiting(client.GetSock())) + " here, " +
               std::to_string(BytesWaiting(peer.GetSock())) + " there";
    }
};

struct TextServer : Sockets
{
    ServerSocket server{0};
    Descriptor client = ConnectTo(LocalPort(server.GetSock()));
    ServerSocket peer;
    Descriptor owner;
    std::string text = "untouched";
    std::size_t sent = 0;

    TextServer()
    {
        server.Accept(peer);
        owner = Descriptor(peer.GetSock());
        WriteAll(client.Get(), "hello");
        WaitForBytes(peer.GetSock(), 5);
    }

    std::string GetState() const
    {
        WaitForSent(client.Get(), sent);
        return text + ", " + std::to_string(BytesWaiting(peer.GetSock())) + " here, " +
               std::to_string(BytesWaiting(client.Get())) + " there";
    }
};

/// A string that needs no memory to receive into.
template <typename Fixture>
struct WithRoom : Fixture
{
    WithRoom() { this->text.reserve(500); }
};

struct AcceptingServer : Sockets
{
    ServerSocket server{0};
    Descriptor client = ConnectTo(LocalPort(server.GetSock()));
    ServerSocket peer;
    Descriptor owner;

    std::string GetState()
    {
        if (peer.GetSock() > 0 && owner.Get() == -1) {
            owner = Descriptor(peer.GetSock());
        }
        return Sockets::GetState() + (peer.GetSock() != -1 ? ", accepted" : ", waiting");
    }
};

Effect ThrowsAt(const char* file, unsigned int line, unsigned int code, int errnoValue)
{
    return Throws<IpcSocketException>({code, "IpcSocketException", file, line, errnoValue});
}

std::string ReceiveLine(int errnoValue)
{
    return "status == -1   errno == " + std::to_string(errnoValue) + "  in Socket::recv\n";
}

template <typename Fixture>
Told ClientReceives(Fixture& f)
{
    f.client >> f.text;
    return "received";
}

template <typename Fixture>
Told ServerReceives(Fixture& f)
{
    f.peer >> f.text;
    return "received";
}

/// Out of memory, a text stays in the socket. There may be none for the exception either.
MemoryRow TextStays(const char* file, unsigned int line)
{
    const std::string printed = ReceiveLine(ENOMEM);
    const std::string state = ", 5 here, 0 there";
    return {1, ThrowsAt(file, line, 0x2106, ENOMEM).Prints(printed).Leaves(state),
            OutOfMemory().Prints(printed).Leaves(state)};
}

std::vector<Operation> PlainOperations()
{
    constexpr unsigned int each = Row::each;
    const auto failed = [](int error) { return Tells("false, errno " + std::to_string(error)); };

    return {
        {"Socket_Construct",
         With<NewSocket>([](NewSocket&) { return Told::Number(Socket().GetSock()); }), Tells("-1")},

        // The descriptor stays open.
        {"Socket_Destroy", With<DoomedSocket>([](DoomedSocket& f) {
             delete std::exchange(f.socket, nullptr);
             return Told("deleted");
         }),
         Tells("deleted")},

        // The family is stored in any case; a socket without SO_REUSEADDR is kept.
        {"Socket_create",
         With<NewSocket>([](NewSocket& f) { return Told::Success(f.socket.create(AF_UNIX)); }),
         Tells("true").Leaves("sockets 1, open, family 1, valid"),
         {{"socket", each, EMFILE, failed(EMFILE).Leaves("sockets 0, open, family 1, none")},
          {"setsockopt", each, ENOMEM, failed(ENOMEM).Leaves("sockets 1, open, family 1, valid")}}},

        {"Socket_bind_Port",
         With<CreatedSocket<AF_INET>>(
             [](CreatedSocket<AF_INET>& f) { return Told::Success(f.socket.bind(0)); }),
         Tells("true"),
         {{"bind", each, EADDRINUSE, failed(EADDRINUSE)}}},

        {"Socket_bind_Path",
         With<CreatedSocket<AF_UNIX>>(
             [](CreatedSocket<AF_UNIX>& f) { return Told::Success(f.socket.bind(f.path)); }),
         Tells("true").Leaves("sockets 1, open, a path, family 1, valid"),
         {{"bind", each, EADDRINUSE, failed(EADDRINUSE)}}},

        {"Socket_listen",
         With<CreatedSocket<AF_INET>>(
             [](CreatedSocket<AF_INET>& f) { return Told::Success(f.socket.listen()); }),
         Tells("true"),
         {{"listen", each, EADDRINUSE, failed(EADDRINUSE)}}},

        {"Socket_accept",
         With<Waiting>([](Waiting& f) { return Told::Success(f.portServer.accept(f.peer)); }),
         Tells("true").Leaves("accepted"),
         {{"accept", each, EMFILE, failed(EMFILE)}}},

        // Only EAFNOSUPPORT counts as a failed conversion; otherwise the address is what it was,
        // on a fresh object 0.0.0.0, this machine.
        {"Socket_connect_Port",
         With<Unconnected<AF_INET>>([](Unconnected<AF_INET>& f) {
             return Told::Success(f.socket.connect("127.0.0.1", f.port));
         }),
         Tells("true").Leaves("sockets 3, open, a path, connected"),
         {{"inet_pton", each, EAFNOSUPPORT, failed(EAFNOSUPPORT)},
          {"inet_pton", each, EINVAL, Ignored()},
          {"connect", each, ECONNREFUSED, failed(ECONNREFUSED)}}},

        {"Socket_connect_Path",
         With<Unconnected<AF_UNIX>>(
             [](Unconnected<AF_UNIX>& f) { return Told::Success(f.socket.connect(f.path)); }),
         Tells("true").Leaves("sockets 3, open, a path, connected"),
         {{"connect", each, ECONNREFUSED, failed(ECONNREFUSED)}}},

        {"Socket_send_Bytes",
         With<Connected>([](Connected& f) {
             unsigned char bytes[] = {1, 2, 3};
             return f.Note(f.socket.send(bytes, sizeof bytes), sizeof bytes);
         }),
         Tells("true").Leaves("5 here, 3 there"),
         {{"send", each, EPIPE, failed(EPIPE)}}},

        {"Socket_send_Text",
         With<Connected>([](Connected& f) { return f.Note(f.socket.send("text"), 4); }),
         Tells("true").Leaves("5 here, 4 there"),
         {{"send", each, ECONNRESET, failed(ECONNRESET)}}},

        {"Socket_recv_Bytes",
         With<Connected>([](Connected& f) {
             unsigned char bytes[8] = {};
             return Told::Number(f.socket.recv(bytes, sizeof bytes));
         }),
         Tells("5").Leaves("0 here, 0 there"),
         {{"recv", each, EINTR, Tells("0").Prints(ReceiveLine(EINTR))}}},

        {"Socket_recv_Text",
         With<LongText>([](LongText& f) {
             std::string text;
             return Told::Number(f.socket.recv(text));
         }),
         Tells("100").Leaves("0 here, 0 there"),
         {{"recv", each, ECONNRESET, Tells("0").Prints(ReceiveLine(ECONNRESET))}},
         {{1, Tells("0").Prints(ReceiveLine(ENOMEM))}}},

        {"Socket_set_non_blocking",
         With<Connected>([](Connected& f) {
             f.socket.set_non_blocking(true);
             return Told("done");
         }),
         Tells("done").Leaves("5 here, 0 there, non-blocking"),
         {{"fcntl", each, EBADF, Tells("done")}}},

        {"Socket_close",
         With<Connected>([](Connected& f) {
             f.socket.close();
             return Told("done");
         }),
         Tells("done").Leaves("closed"),
         {{"close", each, EIO, Ignored()}}},
    };
}

std::vector<Operation> ClientOperations()
{
    constexpr unsigned int each = Row::each;
    constexpr const char* file = "src/unix/ClientSocket";
    const Row receiveFails{
        "recv", each, EINTR,
        ThrowsAt(file, 78, 0x2106, EINTR).Prints(ReceiveLine(EINTR)).Leaves(", 5 here, 0 there")};

    return {
        // What a constructor that throws has opened stays open.
        {"ClientSocket_Construct_Port",
         With<Served>([](Served& f) {
             const ClientSocket made("127.0.0.1", f.port);
             return Told("connected");
         }),
         Tells("connected").Leaves("sockets 3, open, a path"),
         {{"socket", each, EMFILE, ThrowsAt(file, 49, 0x2101, EMFILE)},
          {"setsockopt", each, ENOMEM,
           ThrowsAt(file, 49, 0x2101, ENOMEM).Leaves("sockets 3, open, a path")},
          {"inet_pton", each, EAFNOSUPPORT,
           ThrowsAt(file, 52, 0x2105, EAFNOSUPPORT).Leaves("sockets 3, open, a path")},
          {"inet_pton", each, EINVAL, Ignored()},
          {"connect", each, ETIMEDOUT,
           ThrowsAt(file, 52, 0x2105, ETIMEDOUT).Leaves("sockets 3, open, a path")}}},

        {"ClientSocket_Construct_Path",
         With<Served>([](Served& f) {
             const ClientSocket made(f.path);
             return Told("connected");
         }),
         Tells("connected").Leaves("sockets 3, open, a path"),
         {{"socket", each, EMFILE, ThrowsAt(file, 59, 0x2101, EMFILE)},
          {"setsockopt", each, ENOMEM,
           ThrowsAt(file, 59, 0x2101, ENOMEM).Leaves("sockets 3, open, a path")},
          {"connect", each, ECONNREFUSED,
           ThrowsAt(file, 62, 0x2105, ECONNREFUSED).Leaves("sockets 3, open, a path")}}},

        {"ClientSocket_Send",
         With<TextClient>([](TextClient& f) {
             f.client << "a text";
             f.sent += 6;
             return Told("sent");
         }),
         Tells("sent").Leaves("untouched, 5 here, 6 there"),
         {{"send", each, EPIPE, ThrowsAt(file, 69, 0x2107, EPIPE)}}},

        {"ClientSocket_Receive",
         With<TextClient>(ClientReceives<TextClient>),
         Tells("received").Leaves("hello, 0 here, 0 there"),
         {receiveFails},
         {TextStays(file, 78)}},

        {"ClientSocket_Receive_WithRoom",
         With<WithRoom<TextClient>>(ClientReceives<WithRoom<TextClient>>),
         Tells("received").Leaves("hello, 0 here, 0 there"),
         {receiveFails}},
    };
}

std::vector<Operation> ServerOperations()
{
    constexpr unsigned int each = Row::each;
    constexpr const char* file = "src/unix/ServerSocket";
    const Row receiveFails{"recv", each, ECONNRESET,
                           ThrowsAt(file, 89, 0x2106, ECONNRESET)
                               .Prints(ReceiveLine(ECONNRESET))
                               .Leaves(", 5 here, 0 there")};

    return {
        {"ServerSocket_Construct",
         With<Sockets>([](Sockets&) { return Told::Number(ServerSocket().GetSock()); }),
         Tells("-1")},

        {"ServerSocket_Construct_Port",
         With<Sockets>([](Sockets&) {
             const ServerSocket made(0);
             return Told("listens");
         }),
         Tells("listens").Leaves("sockets 1, open"),
         {{"socket", each, EMFILE, ThrowsAt(file, 49, 0x2101, EMFILE)},
          {"setsockopt", each, ENOMEM,
           ThrowsAt(file, 49, 0x2101, ENOMEM).Leaves("sockets 1, open")},
          {"bind", each, EADDRINUSE,
           ThrowsAt(file, 52, 0x2102, EADDRINUSE).Leaves("sockets 1, open")},
          {"listen", each, EADDRINUSE,
           ThrowsAt(file, 55, 0x2103, EADDRINUSE).Leaves("sockets 1, open")}}},

        // What was bound stays where it is, and is in the way of the next one.
        {"ServerSocket_Construct_Path",
         With<Sockets>([](Sockets& f) {
             const ServerSocket made(f.path);
             return Told("listens");
         }),
         Tells("listens").Leaves("sockets 1, open, a path"),
         {{"socket", each, EMFILE, ThrowsAt(file, 62, 0x2101, EMFILE)},
          {"setsockopt", each, ENOMEM,
           ThrowsAt(file, 62, 0x2101, ENOMEM).Leaves("sockets 1, open")},
          {"bind", each, EACCES, ThrowsAt(file, 65, 0x2102, EACCES).Leaves("sockets 1, open")},
          {"listen", each, EADDRINUSE,
           ThrowsAt(file, 68, 0x2103, EADDRINUSE)
               .Leaves("sockets 1, open, a path")
               .Then(ThrowsAt(file, 65, 0x2102, EADDRINUSE).told)}}},

        {"ServerSocket_Accept",
         With<AcceptingServer>([](AcceptingServer& f) {
             f.server.Accept(f.peer);
             return Told("accepted");
         }),
         Tells("accepted").Leaves("sockets 1, open, accepted"),
         {{"accept", each, EMFILE, ThrowsAt(file, 98, 0x2104, EMFILE)}}},

        {"ServerSocket_Send",
         With<TextServer>([](TextServer& f) {
             f.peer << "a text";
             f.sent += 6;
             return Told("sent");
         }),
         Tells("sent").Leaves("untouched, 5 here, 6 there"),
         {{"send", each, EPIPE, ThrowsAt(file, 80, 0x2107, EPIPE)}}},

        {"ServerSocket_Receive",
         With<TextServer>(ServerReceives<TextServer>),
         Tells("received").Leaves("hello, 0 here, 0 there"),
         {receiveFails},
         {TextStays(file, 89)}},

        {"ServerSocket_Receive_WithRoom",
         With<WithRoom<TextServer>>(ServerReceives<WithRoom<TextServer>>),
         Tells("received").Leaves("hello, 0 here, 0 there"),
         {receiveFails}},
    };
}

} // namespace

std::vector<Operation> SocketOperations()
{
    std::vector<Operation> all;
    for (const auto table : {PlainOperations, ClientOperations, ServerOperations}) {
        for (Operation& operation : table()) {
            all.push_back(std::move(operation));
        }
    }
    return all;
}

} // namespace velahost_test

// Framed messages over TCP between two processes of one machine: a request and its reply, on one
// of several connections or on each in turn, and messages that go one way.
//
// Every server but ZeroMQ's, which has a protocol of its own, serves the same client. No server
// turns Nagle's algorithm off (ZeroMQ does so by itself): a reply is the only data on its way. The
// client turns it off, so that messages of a batch are sent one by one and not several at once.
#include "support/Exchange.h"
#include "support/PeerProcess.h"

#include <VelaHost_Ipc/IpcSocketTransport.h>

#include <Poco/NObserver.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAcceptor.h>
#include <Poco/Net/SocketNotification.h>
#include <Poco/Net/SocketReactor.h>
#include <Poco/Net/StreamSocket.h>
#include <benchmark/benchmark.h>
#include <boost/asio.hpp>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <zmq.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using bench::BatchCounter;
using bench::Notice;
using bench::Payload;
using bench::Require;
using bench::Task;
/// Called with the port when a server can be connected to.
using Listening = std::function<void(unsigned int port)>;

constexpr std::size_t s_BufferSize = VelaHost_Ipc::s_MaxFrameSize;

struct Frame
{
    std::uint32_t length;
    std::uint16_t connection;
    std::uint16_t category;
    Payload payload;
};
constexpr std::size_t s_HeaderSize = offsetof(Frame, payload);
static_assert(sizeof(Frame) == s_HeaderSize + sizeof(Payload));

sockaddr_in Loopback(unsigned int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

unsigned int PortOf(int socket)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    Require(getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0, "getsockname");
    return ntohs(address.sin_port);
}

/// The client of all servers that cut a stream into frames.
class TcpClient
{
public:
    TcpClient(Task /*task*/, unsigned int port) : m_Socket(socket(AF_INET, SOCK_STREAM, 0))
    {
        const sockaddr_in address = Loopback(port);
        Require(connect(m_Socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
                "connect");
        const int on = 1;
        setsockopt(m_Socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        // Or thousands of used ports would have to be waited for.
        const linger reset{1, 0};
        setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;
    ~TcpClient() { close(m_Socket); }

    void Send(const Payload& payload)
    {
        const Frame frame{sizeof(Frame), 0, bench::s_Category, payload};
        Require(send(m_Socket, &frame, sizeof frame, MSG_NOSIGNAL) == sizeof frame, "send");
    }
    void Receive(Payload& payload)
    {
        Frame frame;
        Require(recv(m_Socket, &frame, sizeof frame, MSG_WAITALL) == sizeof frame, "recv");
        payload = frame.payload;
    }

private:
    int m_Socket;
};

struct VelaHostServer
{
    using Client = TcpClient;

    static void Serve(Task task, const Listening& listening, Notice& counted)
    {
        struct Handler : VelaHost_Ipc::IpcMsgHandler
        {
            Handler(Task ofServer, Notice& notice) : task(ofServer), counter(notice)
            {
                manager.RegisterHandler(this, bench::s_Category);
                transport.Init();
            }
            void HandleIpcMessage(VelaHost_Ipc::IpcMsgBuf& msg, int length) override
            {
                if (task == Task::Count) {
                    counter.Count();
                    return;
                }
                auto& connection = manager.RequireConnection(msg.connection);
                transport.SendMsg(connection, bench::s_Category, msg, length);
            }

            VelaHost_Ipc::IpcConnectionManager<VelaHost_Ipc::IpcSocketTransport> manager{nullptr};
            VelaHost_Ipc::IpcSocketTransport transport{{0}, manager, nullptr};
            Task task;
            BatchCounter counter;
        };
        Handler handler(task, counted);
        listening(PortOf(handler.transport.GetServer().GetSock()));
        for (;;) {
            handler.transport.Run();
        }
    }
};

/// What a server does with a stream that it has received into a buffer.
class FrameCutter
{
public:
    explicit FrameCutter(Notice& counted) : m_Counter(counted) {}

    /// Counts every whole frame, or hands it to `answer`; false of `answer` ends the work. Returns
    /// how many bytes are done with.
    template <typename Answer>
    std::size_t Cut(Task task, unsigned char* bytes, std::size_t size, const Answer& answer)
    {
        std::size_t offset = 0;
        while (size - offset >= s_HeaderSize) {
            std::uint32_t length = 0;
            std::memcpy(&length, bytes + offset, sizeof length);
            Require(length >= s_HeaderSize && length <= s_BufferSize, "frame");
            if (length > size - offset) {
                break;
            }
            unsigned char* frame = bytes + offset;
            offset += length;
            if (task == Task::Count) {
                m_Counter.Count();
            } else if (!answer(frame, length)) {
                break;
            }
        }
        return offset;
    }

private:
    BatchCounter m_Counter;
};

/// A connection's receive buffer.
struct Buffer
{
    unsigned char* GetRoom() { return bytes.data() + fill; }
    std::size_t GetRoomSize() const { return bytes.size() - fill; }
    void Consume(std::size_t count)
    {
        fill -= count;
        std::memmove(bytes.data(), bytes.data() + count, fill);
    }

    std::array<unsigned char, s_BufferSize> bytes;
    std::size_t fill = 0;
};

/// The system calls alone.
struct FloorServer
{
    using Client = TcpClient;

    static void Serve(Task task, const Listening& listening, Notice& counted)
    {
        struct Connection
        {
            int socket = -1;
            Buffer buffer;
        };
        FrameCutter cutter(counted);
        std::vector<std::unique_ptr<Connection>> connections;
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in address = Loopback(0);
        Require(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                    listen(listener, SOMAXCONN) == 0,
                "listen");
        listening(PortOf(listener));
        fd_set all;
        FD_ZERO(&all);
        FD_SET(listener, &all);
        int last = listener;
        for (;;) {
            fd_set ready = all;
            int left = select(last + 1, &ready, nullptr, nullptr, nullptr);
            for (auto i = connections.begin(); left > 0 && i != connections.end(); ++i) {
                Connection& connection = **i;
                if (!FD_ISSET(connection.socket, &ready)) {
                    continue;
                }
                --left;
                Buffer& buffer = connection.buffer;
                const ssize_t count =
                    recv(connection.socket, buffer.GetRoom(), buffer.GetRoomSize(), 0);
                Require(count > 0, "recv");
                buffer.fill += static_cast<std::size_t>(count);
                buffer.Consume(cutter.Cut(
                    task, buffer.bytes.data(), buffer.fill,
                    [&connection](const unsigned char* frame, std::size_t length) {
                        return send(connection.socket, frame, length, MSG_NOSIGNAL) != -1;
                    }));
            }
            if (left > 0) {
                auto connection = std::make_unique<Connection>();
                connection->socket = accept(listener, nullptr, nullptr);
                Require(connection->socket != -1 && connection->socket < FD_SETSIZE, "accept");
                FD_SET(connection->socket, &all);
                last = std::max(last, connection->socket);
                connections.push_back(std::move(connection));
            }
        }
    }
};

struct PocoServer
{
    using Client = TcpClient;

    static void Serve(Task task, const Listening& listening, Notice& counted)
    {
        using namespace ::Poco::Net;
        class Handler
        {
        public:
            Handler(const StreamSocket& socket, SocketReactor& reactor)
                : m_Socket(socket), m_Reactor(reactor)
            {
                m_Reactor.addEventHandler(m_Socket, m_Readable);
            }
            Handler(const Handler&) = delete;
            Handler& operator=(const Handler&) = delete;
            ~Handler() { m_Reactor.removeEventHandler(m_Socket, m_Readable); }

        private:
            void OnReadable(const ::Poco::AutoPtr<ReadableNotification>& /*notification*/)
            {
                const int count = m_Socket.receiveBytes(m_Buffer.GetRoom(),
                                                        static_cast<int>(m_Buffer.GetRoomSize()));
                if (count <= 0) {
                    delete this;
                    return;
                }
                m_Buffer.fill += static_cast<std::size_t>(count);
                m_Buffer.Consume(s_Cutter->Cut(
                    s_Task, m_Buffer.bytes.data(), m_Buffer.fill,
                    [this](const unsigned char* frame, std::size_t length) {
                        return m_Socket.sendBytes(frame, static_cast<int>(length)) > 0;
                    }));
            }

            StreamSocket m_Socket;
            SocketReactor& m_Reactor;
            ::Poco::NObserver<Handler, ReadableNotification> m_Readable{*this,
                                                                        &Handler::OnReadable};
            Buffer m_Buffer;
        };
        FrameCutter cutter(counted);
        s_Task = task;
        s_Cutter = &cutter;
        ::Poco::Net::ServerSocket server(SocketAddress("127.0.0.1", 0), SOMAXCONN);
        SocketReactor reactor;
        const SocketAcceptor<Handler> acceptor(server, reactor);
        listening(server.address().port());
        reactor.run();
    }

    // The acceptor makes the handlers, with nothing but their sockets.
    static inline Task s_Task;
    static inline FrameCutter* s_Cutter;
};

/// Without the locks that `evthread_use_pthreads` would bring, which is its fastest way.
struct LibEventServer
{
    using Client = TcpClient;

    static void Serve(Task task, const Listening& listening, Notice& counted)
    {
        struct Service
        {
            Task task;
            BatchCounter counter;

            void Read(bufferevent* connection)
            {
                evbuffer* input = bufferevent_get_input(connection);
                std::uint32_t length = 0;
                while (evbuffer_get_length(input) >= s_HeaderSize &&
                       evbuffer_copyout(input, &length, sizeof length) == sizeof length &&
                       evbuffer_get_length(input) >= length) {
                    if (task == Task::Count) {
                        evbuffer_drain(input, length);
                        counter.Count();
                    } else {
                        evbuffer_remove_buffer(input, bufferevent_get_output(connection), length);
                    }
                }
            }
            void Accept(event_base* base, int socket)
            {
                bufferevent* connection =
                    bufferevent_socket_new(base, socket, BEV_OPT_CLOSE_ON_FREE);
                bufferevent_setcb(
                    connection,
                    [](bufferevent* readable, void* service) {
                        static_cast<Service*>(service)->Read(readable);
                    },
                    nullptr,
                    [](bufferevent* ended, short /*what*/, void* /*service*/) {
                        bufferevent_free(ended);
                    },
                    this);
                bufferevent_enable(connection, EV_READ | EV_WRITE);
            }
        };
        Service service{task, BatchCounter(counted)};
        event_base* base = event_base_new();
        sockaddr_in address = Loopback(0);
        evconnlistener* listener = evconnlistener_new_bind(
            base,
            [](evconnlistener* from, evutil_socket_t socket, sockaddr* /*address*/, int /*size*/,
               void* accepting) {
                static_cast<Service*>(accepting)->Accept(evconnlistener_get_base(from), socket);
            },
            &service, 0, SOMAXCONN, reinterpret_cast<sockaddr*>(&address), sizeof address);
        Require(listener != nullptr, "evconnlistener_new_bind");
        listening(PortOf(evconnlistener_get_fd(listener)));
        event_base_dispatch(base);
    }
};

struct BoostServer
{
    using Client = TcpClient;

    static void Serve(Task task, const Listening& listening, Notice& counted)
    {
        using boost::asio::ip::tcp;
        using boost::system::error_code;
        struct Service
        {
            Task task;
            FrameCutter cutter;
        };
        class Session : public std::enable_shared_from_this<Session>
        {
        public:
            Session(tcp::socket socket, Service& service)
                : m_Socket(std::move(socket)), m_Service(service)
            {}

            void Read()
            {
                m_Socket.async_read_some(
                    boost::asio::buffer(m_Buffer.GetRoom(), m_Buffer.GetRoomSize()),
                    [self = shared_from_this()](const error_code& error, std::size_t count) {
                        if (!error) {
                            self->m_Buffer.fill += count;
                            self->CutFrames();
                        }
                    });
            }

        private:
            void CutFrames()
            {
                bool answered = false;
                m_Done += m_Service.cutter.Cut(
                    m_Service.task, m_Buffer.bytes.data() + m_Done, m_Buffer.fill - m_Done,
                    [this, &answered](const unsigned char* frame, std::size_t length) {
                        answered = true;
                        boost::asio::async_write(
                            m_Socket, boost::asio::buffer(frame, length),
                            [self = shared_from_this()](const error_code& error, std::size_t) {
                                if (!error) {
                                    self->CutFrames();
                                }
                            });
                        return false;
                    });
                if (!answered) {
                    m_Buffer.Consume(std::exchange(m_Done, 0));
                    Read();
                }
            }

            tcp::socket m_Socket;
            Service& m_Service;
            Buffer m_Buffer;
            std::size_t m_Done = 0;
        };
        class Acceptor
        {
        public:
            Acceptor(boost::asio::io_context& context, Service& service)
                : m_Acceptor(context, {boost::asio::ip::address_v4::loopback(), 0}),
                  m_Service(service)
            {
                Accept();
            }
            unsigned int GetPort() const { return m_Acceptor.local_endpoint().port(); }

        private:
            void Accept()
            {
                m_Acceptor.async_accept([this](const error_code& error, tcp::socket socket) {
                    if (!error) {
                        std::make_shared<Session>(std::move(socket), m_Service)->Read();
                    }
                    Accept();
                });
            }

            tcp::acceptor m_Acceptor;
            Service& m_Service;
        };
        Service service{task, FrameCutter(counted)};
        boost::asio::io_context context(1); // one thread runs it
        const Acceptor acceptor(context, service);
        listening(acceptor.GetPort());
        context.run();
    }
};

struct ZeroMqServer
{
    class Client
    {
    public:
        Client(Task task, unsigned int port) : m_Context(s_Context.lock())
        {
            if (m_Context == nullptr) {
                m_Context = std::make_shared<Context>();
                s_Context = m_Context;
            }
            m_Socket = zmq_socket(m_Context->context, task == Task::Count ? ZMQ_PUSH : ZMQ_REQ);
            const std::string address = "tcp://127.0.0.1:" + std::to_string(port);
            Require(m_Socket != nullptr && zmq_connect(m_Socket, address.c_str()) == 0,
                    "zmq_connect");
        }
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;
        ~Client()
        {
            const int lingerMilliseconds = 0;
            zmq_setsockopt(m_Socket, ZMQ_LINGER, &lingerMilliseconds, sizeof lingerMilliseconds);
            zmq_close(m_Socket);
        }

        void Send(const Payload& payload)
        {
            Require(zmq_send(m_Socket, payload.data(), payload.size(), 0) != -1, "zmq_send");
        }
        void Receive(Payload& payload)
        {
            Require(zmq_recv(m_Socket, payload.data(), payload.size(), 0) != -1, "zmq_recv");
        }

    private:
        struct Context
        {
            Context() = default;
            Context(const Context&) = delete;
            Context& operator=(const Context&) = delete;
            ~Context() { zmq_ctx_term(context); }

            void* context = zmq_ctx_new();
        };
        /// Of all clients at a time; one doesn't outlast the clients, since the next server is made
        /// in a child.
        static inline std::weak_ptr<Context> s_Context;

        std::shared_ptr<Context> m_Context;
        void* m_Socket;
    };

    static void Serve(Task task, const Listening& listening, Notice& counted)
    {
        BatchCounter counter(counted);
        void* socket = zmq_socket(zmq_ctx_new(), task == Task::Count ? ZMQ_PULL : ZMQ_REP);
        Require(zmq_bind(socket, "tcp://127.0.0.1:*") == 0, "zmq_bind");
        char address[64];
        std::size_t size = sizeof address;
        Require(zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, address, &size) == 0, "zmq_getsockopt");
        const std::string endpoint(address);
        listening(static_cast<unsigned int>(std::stoul(endpoint.substr(endpoint.rfind(':') + 1))));
        for (;;) {
            char text[s_BufferSize];
            const int count = zmq_recv(socket, text, sizeof text, 0);
            if (task == Task::Count) {
                counter.Count();
            } else {
                zmq_send(socket, text, static_cast<std::size_t>(count), 0);
            }
        }
    }
};

/// A contestant's server, with clients that are all connected.
template <typename Contestant>
class Service
{
public:
    Service(Task task, bench::Processor processor)
        : m_Task(task),
          m_Peer(std::in_place, processor,
                 [this](const std::function<void()>& ready) {
                     Contestant::Serve(
                         m_Task,
                         [this, &ready](unsigned int port) {
                             m_Notice.Tell(port);
                             ready();
                         },
                         m_Notice);
                 }),
          m_Port(m_Notice.Await())
    {}
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() { m_Peer.reset(); }

    using Client = typename Contestant::Client;

    /// Up to that many clients, each of which has had an answer: the server knows them all.
    void Connect(std::size_t connections)
    {
        while (m_Clients.size() < connections) {
            const std::size_t first = m_Clients.size();
            const std::size_t end = std::min(first + s_Backlog, connections);
            Payload payload{};
            for (std::size_t i = first; i < end; ++i) {
                m_Clients.push_back(std::make_unique<Client>(m_Task, m_Port));
                m_Clients[i]->Send(payload);
            }
            for (std::size_t i = first; i < end; ++i) {
                m_Clients[i]->Receive(payload);
            }
        }
    }

    /// One client, of a server that doesn't answer.
    Client& ConnectOne()
    {
        return *m_Clients.emplace_back(std::make_unique<Client>(m_Task, m_Port));
    }

    Client& GetClient(std::size_t index) { return *m_Clients[index]; }
    void AwaitBatch() { m_Notice.Await(); }

    /// Kibibytes of memory that the server has written to. What it has inherited doesn't count.
    long GetMemory() const
    {
        std::ifstream mappings("/proc/" + std::to_string(m_Peer->GetId()) + "/smaps_rollup");
        std::string word;
        long kibibytes = 0;
        while (mappings >> word && word != "Private_Dirty:") {
        }
        mappings >> kibibytes;
        return kibibytes;
    }

private:
    /// Clients that every server lets wait to be accepted.
    static constexpr std::size_t s_Backlog = 5;

    Task m_Task;
    Notice m_Notice;
    std::optional<bench::PeerProcess> m_Peer;
    unsigned int m_Port;
    std::vector<std::unique_ptr<Client>> m_Clients;
};

/// Which connection a request goes on.
enum class Turn {
    Last, ///< The others are idle.
    Each
};

template <typename Contestant>
void RequestReply(benchmark::State& state, std::size_t connections, Turn turn,
                  bench::Processor processor)
{
    bench::RunOn(bench::Processor::First);
    Service<Contestant> service(Task::Answer, processor);
    service.Connect(connections);
    const std::size_t last = connections - 1;
    std::size_t next = last;
    Payload payload{};
    for (auto _ : state) {
        auto& client = service.GetClient(next);
        client.Send(payload);
        client.Receive(payload);
        if (turn == Turn::Each) {
            next = next == 0 ? last : next - 1;
        }
    }
}

template <typename Contestant>
void OneWay(benchmark::State& state, bench::Processor processor)
{
    bench::RunOn(bench::Processor::First);
    Service<Contestant> service(Task::Count, processor);
    auto& client = service.ConnectOne();
    const Payload payload{};
    while (state.KeepRunningBatch(bench::s_BatchSize)) {
        for (int i = 0; i < bench::s_BatchSize; ++i) {
            client.Send(payload);
        }
        service.AwaitBatch();
    }
}

/// Memory that the server has for each connection, in bytes; each has had one request.
template <typename Contestant>
void Memory(benchmark::State& state, std::size_t connections)
{
    bench::RunOn(bench::Processor::First);
    Service<Contestant> service(Task::Answer, bench::Processor::Second);
    service.Connect(1);
    const long before = service.GetMemory();
    for (auto _ : state) {
        service.Connect(connections);
    }
    constexpr double kibibyte = 1024;
    state.counters["bytes-per-connection"] =
        kibibyte * static_cast<double>(service.GetMemory() - before) / (connections - 1);
}

template <typename Contestant>
void Register(const std::string& name)
{
    constexpr std::size_t some = 64;
    constexpr std::size_t many = 500;
    const auto add = [&name](const std::string& variant, const auto& run) {
        benchmark::RegisterBenchmark(("socket/" + variant + "/" + name).c_str(), run)
            ->UseRealTime();
    };
    for (const bench::Placement& placement : bench::s_Placements) {
        const bench::Processor peer = placement.peer;
        const auto addRequestReply = [&](const std::string& variant, std::size_t connections,
                                         Turn turn) {
            add(variant + "/connections:" + std::to_string(connections) + "/" + placement.name,
                [=](benchmark::State& state) {
                    RequestReply<Contestant>(state, connections, turn, peer);
                });
        };
        for (const std::size_t connections : {std::size_t{1}, some, many}) {
            addRequestReply("request-reply", connections, Turn::Last);
        }
        addRequestReply("round-robin", some, Turn::Each);
        add(std::string("one-way/") + placement.name,
            [peer](benchmark::State& state) { OneWay<Contestant>(state, peer); });
    }
    benchmark::RegisterBenchmark(
        ("socket-memory/connections:" + std::to_string(many) + "/" + name).c_str(),
        [](benchmark::State& state) { Memory<Contestant>(state, many); })
        ->UseRealTime()
        ->Iterations(1);
}

/// Both ends of all connections, with their libraries' own descriptors.
void AllowDescriptors()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    AllowDescriptors();
    Register<VelaHostServer>("velahost");
    Register<FloorServer>("floor");
    Register<PocoServer>("poco");
    Register<LibEventServer>("libevent");
    Register<BoostServer>("boost");
    Register<ZeroMqServer>("zeromq");
    benchmark::RunSpecifiedBenchmarks();
}

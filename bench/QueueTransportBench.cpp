// Messages between two processes of one machine, through queues: a request and its reply, and
// messages that go one way.
#include "support/Exchange.h"
#include "support/PeerProcess.h"

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>

#include <benchmark/benchmark.h>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <zmq.h>

#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <sys/msg.h>
#include <unistd.h>

namespace {

using bench::BatchCounter;
using bench::Notice;
using bench::Payload;
using bench::Require;
using bench::Task;
using Ready = std::function<void()>;

// Each contestant is made by the measuring process, which then starts the server in another and
// makes the client.

class VelaHost
{
public:
    explicit VelaHost(Task task) : m_Task(task) {}
    ~VelaHost() { msgctl(msgget(ftok(m_Path.GetDirectory(), s_Id), 0), IPC_RMID, nullptr); }

    void Serve(const Ready& ready, Notice& counted)
    {
        Server server(*this, counted);
        ready();
        for (;;) {
            server.transport.Run();
        }
    }

    class Client
    {
    public:
        explicit Client(const VelaHost& contestant)
            : m_Queue(contestant.m_Path.GetDirectory(), s_Id, false)
        {
            using namespace VelaHost_Ipc;
            IpcConnectionData data{m_Process, 0};
            const IpcControlCode request = IpcControlCode::ConnectReq;
            m_Message.mtype = s_ServerMsgType;
            m_Message.category = s_ControlCategory;
            std::memcpy(m_Message.data, &request, sizeof request);
            std::memcpy(m_Message.data + sizeof request, &data, sizeof data);
            m_Queue.Send(m_Message, s_ControlPayload);
            m_Queue.Receive(m_Message, m_Process);
            std::memcpy(&data, m_Message.data + sizeof request, sizeof data);
            m_Connection = static_cast<std::uint16_t>(data.connectionId);
        }

        void Send(const Payload& payload)
        {
            m_Message.mtype = VelaHost_Ipc::s_ServerMsgType;
            m_Message.connection = m_Connection;
            m_Message.category = bench::s_Category;
            std::memcpy(m_Message.data, payload.data(), payload.size());
            m_Queue.Send(m_Message, static_cast<int>(payload.size()));
        }
        void Receive(Payload& payload)
        {
            m_Queue.Receive(m_Message, m_Process);
            std::memcpy(payload.data(), m_Message.data, payload.size());
        }

    private:
        VelaHost_Ipc::IpcMsgQueue m_Queue;
        const pid_t m_Process = getpid();
        std::uint16_t m_Connection = 0;
        VelaHost_Ipc::IpcMsgBuf m_Message{};
    };

private:
    static constexpr char s_Id = 'b';

    struct Server : VelaHost_Ipc::IpcMsgHandler
    {
        Server(const VelaHost& contestant, Notice& counted)
            : transport({contestant.m_Path.GetDirectory(), s_Id}, manager, nullptr),
              task(contestant.m_Task),
              counter(counted)
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
            msg.mtype = manager.RequireConnection(msg.connection).pid;
            transport.GetQueue().Send(msg, length);
        }

        VelaHost_Ipc::IpcConnectionManager<VelaHost_Ipc::IpcMsgQueueTransport> manager{nullptr};
        VelaHost_Ipc::IpcMsgQueueTransport transport;
        Task task;
        BatchCounter counter;
    };

    Task m_Task;
    bench::TemporaryPath m_Path;
};

/// The system calls alone, with records of the same size.
class Floor
{
    struct Record
    {
        long type;
        unsigned char text[VelaHost_Ipc::s_MaxQueueText];
    };

public:
    explicit Floor(Task task) : m_Task(task), m_Queue(msgget(IPC_PRIVATE, 0600))
    {
        Require(m_Queue != -1, "msgget");
    }
    ~Floor() { msgctl(m_Queue, IPC_RMID, nullptr); }

    void Serve(const Ready& ready, Notice& counted) const
    {
        BatchCounter counter(counted);
        const pid_t client = getppid();
        ready();
        for (;;) {
            Record record;
            const ssize_t count =
                msgrcv(m_Queue, &record, sizeof record - sizeof record.type, s_ToServer, 0);
            Require(count != -1, "msgrcv");
            if (m_Task == Task::Count) {
                counter.Count();
                continue;
            }
            record.type = client;
            Require(msgsnd(m_Queue, &record, static_cast<std::size_t>(count), IPC_NOWAIT) == 0,
                    "msgsnd");
        }
    }

    class Client
    {
    public:
        explicit Client(const Floor& contestant) : m_Queue(contestant.m_Queue) {}

        void Send(const Payload& payload)
        {
            m_Record.type = s_ToServer;
            std::memcpy(m_Record.text + s_Header, payload.data(), payload.size());
            const std::size_t size = VelaHost_Ipc::s_MsgHeaderSize + payload.size();
            Require(msgsnd(m_Queue, &m_Record, size, IPC_NOWAIT) == 0, "msgsnd");
        }
        void Receive(Payload& payload)
        {
            Require(msgrcv(m_Queue, &m_Record, sizeof m_Record - sizeof m_Record.type, m_Process,
                           0) != -1,
                    "msgrcv");
            std::memcpy(payload.data(), m_Record.text + s_Header, payload.size());
        }

    private:
        int m_Queue;
        const pid_t m_Process = getpid();
        Record m_Record{};
    };

private:
    static constexpr long s_ToServer = 1;
    static constexpr std::size_t s_Header = 4;

    Task m_Task;
    int m_Queue;
};

class ZeroMq
{
public:
    explicit ZeroMq(Task task) : m_Task(task), m_Address(std::string("ipc://") + m_Path.Get()) {}

    void Serve(const Ready& ready, Notice& counted) const
    {
        BatchCounter counter(counted);
        void* context = zmq_ctx_new();
        void* socket = zmq_socket(context, m_Task == Task::Count ? ZMQ_PULL : ZMQ_REP);
        Require(zmq_bind(socket, m_Address.c_str()) == 0, "zmq_bind");
        ready();
        for (;;) {
            char text[VelaHost_Ipc::s_MaxQueuePayload];
            const int count = zmq_recv(socket, text, sizeof text, 0);
            if (m_Task == Task::Count) {
                counter.Count();
            } else {
                zmq_send(socket, text, static_cast<std::size_t>(count), 0);
            }
        }
    }

    class Client
    {
    public:
        explicit Client(const ZeroMq& contestant)
            : m_Socket(zmq_socket(m_Context, contestant.m_Task == Task::Count ? ZMQ_PUSH : ZMQ_REQ))
        {
            Require(zmq_connect(m_Socket, contestant.m_Address.c_str()) == 0, "zmq_connect");
        }
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;
        ~Client()
        {
            zmq_close(m_Socket);
            zmq_ctx_term(m_Context);
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
        void* m_Context = zmq_ctx_new();
        void* m_Socket;
    };

private:
    Task m_Task;
    bench::TemporaryPath m_Path;
    std::string m_Address;
};

class Boost
{
public:
    explicit Boost(Task task)
        : m_Task(task),
          m_ToServer("vela-bench-server-" + std::to_string(getpid())),
          m_ToClient("vela-bench-client-" + std::to_string(getpid()))
    {
        for (const std::string* name : {&m_ToServer, &m_ToClient}) {
            Queue::remove(name->c_str());
            const Queue made(boost::interprocess::create_only, name->c_str(), s_Capacity,
                             s_MaxSize);
        }
    }
    Boost(const Boost&) = delete;
    Boost& operator=(const Boost&) = delete;
    ~Boost()
    {
        Queue::remove(m_ToServer.c_str());
        Queue::remove(m_ToClient.c_str());
    }

    void Serve(const Ready& ready, Notice& counted) const
    {
        BatchCounter counter(counted);
        Queue requests(boost::interprocess::open_only, m_ToServer.c_str());
        Queue replies(boost::interprocess::open_only, m_ToClient.c_str());
        ready();
        for (;;) {
            char text[s_MaxSize];
            Queue::size_type count = 0;
            unsigned int priority = 0;
            requests.receive(text, sizeof text, count, priority);
            if (m_Task == Task::Count) {
                counter.Count();
            } else {
                replies.send(text, count, 0);
            }
        }
    }

    class Client
    {
    public:
        explicit Client(const Boost& contestant)
            : m_Requests(boost::interprocess::open_only, contestant.m_ToServer.c_str()),
              m_Replies(boost::interprocess::open_only, contestant.m_ToClient.c_str())
        {}

        void Send(const Payload& payload) { m_Requests.send(payload.data(), payload.size(), 0); }
        void Receive(Payload& payload)
        {
            char text[s_MaxSize];
            Queue::size_type count = 0;
            unsigned int priority = 0;
            m_Replies.receive(text, sizeof text, count, priority);
            std::memcpy(payload.data(), text, payload.size());
        }

    private:
        boost::interprocess::message_queue m_Requests;
        boost::interprocess::message_queue m_Replies;
    };

private:
    using Queue = boost::interprocess::message_queue;
    static constexpr std::size_t s_Capacity = 2 * bench::s_BatchSize;
    static constexpr std::size_t s_MaxSize = VelaHost_Ipc::s_MaxQueuePayload;

    Task m_Task;
    std::string m_ToServer;
    std::string m_ToClient;
};

class Nng
{
public:
    explicit Nng(Task task) : m_Task(task), m_Address(std::string("ipc://") + m_Path.Get()) {}

    void Serve(const Ready& ready, Notice& counted) const
    {
        BatchCounter counter(counted);
        nng_socket socket;
        Require((m_Task == Task::Count ? nng_pull0_open : nng_rep0_open)(&socket) == 0, "nng open");
        Require(nng_listen(socket, m_Address.c_str(), nullptr, 0) == 0, "nng_listen");
        ready();
        for (;;) {
            nng_msg* message = nullptr;
            Require(nng_recvmsg(socket, &message, 0) == 0, "nng_recvmsg");
            if (m_Task == Task::Count) {
                nng_msg_free(message);
                counter.Count();
            } else {
                Require(nng_sendmsg(socket, message, 0) == 0, "nng_sendmsg");
            }
        }
    }

    class Client
    {
    public:
        explicit Client(const Nng& contestant)
        {
            Require(
                (contestant.m_Task == Task::Count ? nng_push0_open : nng_req0_open)(&m_Socket) == 0,
                "nng open");
            Require(nng_dial(m_Socket, contestant.m_Address.c_str(), nullptr, 0) == 0, "nng_dial");
        }
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;
        ~Client() { nng_close(m_Socket); }

        void Send(const Payload& payload)
        {
            nng_msg* message = nullptr;
            Require(nng_msg_alloc(&message, payload.size()) == 0, "nng_msg_alloc");
            std::memcpy(nng_msg_body(message), payload.data(), payload.size());
            Require(nng_sendmsg(m_Socket, message, 0) == 0, "nng_sendmsg");
        }
        void Receive(Payload& payload)
        {
            nng_msg* message = nullptr;
            Require(nng_recvmsg(m_Socket, &message, 0) == 0, "nng_recvmsg");
            std::memcpy(payload.data(), nng_msg_body(message), payload.size());
            nng_msg_free(message);
        }

    private:
        nng_socket m_Socket{};
    };

private:
    Task m_Task;
    bench::TemporaryPath m_Path;
    std::string m_Address;
};

/// A contestant with its server running.
template <typename Contestant>
struct Service
{
    Service(Task task, bench::Processor processor)
        : contestant(task),
          peer(processor, [this](const Ready& ready) { contestant.Serve(ready, counted); })
    {}

    Notice counted;
    Contestant contestant;
    bench::PeerProcess peer;
};

template <typename Contestant>
void Exchange(benchmark::State& state, Task task, Service<Contestant>& service)
{
    typename Contestant::Client client(service.contestant);
    Payload payload{};
    if (task == Task::Answer) {
        for (auto _ : state) {
            client.Send(payload);
            client.Receive(payload);
        }
        return;
    }
    while (state.KeepRunningBatch(bench::s_BatchSize)) {
        for (int i = 0; i < bench::s_BatchSize; ++i) {
            client.Send(payload);
        }
        service.counted.Await();
    }
}

/// Calls `add` with the beginning of a name, the task and the server's place, for each variant.
void ForEachVariant(const std::function<void(const std::string&, Task, bench::Processor)>& add)
{
    for (const bench::Placement& placement : bench::s_Placements) {
        add(std::string("queue/request-reply/") + placement.name, Task::Answer, placement.peer);
        add(std::string("queue/one-way/") + placement.name, Task::Count, placement.peer);
    }
}

template <typename Contestant>
void Register(const char* name)
{
    ForEachVariant([name](const std::string& variant, Task task, bench::Processor processor) {
        benchmark::RegisterBenchmark((variant + "/" + name).c_str(), [task, processor](
                                                                         benchmark::State& state) {
            bench::RunOn(bench::Processor::First);
            Service<Contestant> service(task, processor);
            Exchange(state, task, service);
        })->UseRealTime();
    });
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    Register<VelaHost>("velahost");
    Register<Floor>("floor");
    Register<ZeroMq>("zeromq");
    Register<Boost>("boost");
    // This library can't be used in a child of a process that has used it, so its servers are
    // started before anything runs.
    std::list<Service<Nng>> services;
    ForEachVariant([&services](const std::string& variant, Task task, bench::Processor processor) {
        Service<Nng>& service = services.emplace_back(task, processor);
        benchmark::RegisterBenchmark((variant + "/nng").c_str(), [&service,
                                                                  task](benchmark::State& state) {
            bench::RunOn(bench::Processor::First);
            Exchange(state, task, service);
        })->UseRealTime();
    });
    benchmark::RunSpecifiedBenchmarks();
}

#include "support/ChildProcess.h"
#include "support/FileState.h"
#include "support/Pipe.h"
#include "support/QueueKey.h"
#include "support/RawQueue.h"
#include "support/Soak.h"
#include "support/Sockets.h"
#include "unix/SocketService.h"

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <malloc.h>
#include <memory>
#include <new>
#include <poll.h>
#include <random>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

// One server process with both transports echoes what its clients send, each a process of its own.
// Clients are killed at random and replaced, and strangers disturb both transports. Every frame's
// content follows from its session and its number, so either end can tell lost, reordered, doubled
// and corrupted ones. At the end the server must hold no more than before.

namespace {

using namespace VelaHost_Ipc;
using namespace velahost_test;

struct TransportSoakTargets
{
    unsigned int frames; ///< That the server has received intact, over both transports.
    unsigned int kills;
    unsigned int boundSeconds; ///< Whatever hangs ends here, with the test.
};

constexpr TransportSoakTargets s_ShortSoak{300'000, 30, 110};
constexpr TransportSoakTargets s_FullSoak{10'000'000, 1000, 590};
constexpr TransportSoakTargets s_SmallSoak{20'000, 10, 110};

constexpr std::size_t s_TcpClients = 48;
constexpr std::size_t s_QueueClients = 16;
// What the clients have under way leaves room for a stranger's message: no reply finds a full
// queue.
constexpr std::size_t s_QueueWindow = 640;
constexpr std::size_t s_LongestStranger = 4096;
constexpr std::size_t s_LongestWrite = 4096;
// Connections at once, newcomers and strangers included, for which memory is set aside beforehand.
constexpr int s_MostConnections = 80;
constexpr std::int64_t s_MemoryTolerance = 8 * 1024;

constexpr std::uint16_t s_EchoCategory = 5;
constexpr std::uint16_t s_QueryCategory = 7;
constexpr std::uint16_t s_NobodysCategory = 9;
constexpr long s_Server = 1;
constexpr pid_t s_Nobody = -1;

/// What the processes share.
struct Page
{
    std::atomic<bool> stop{false};
    int connectTurns = -1; ///< A file to lock.
    std::atomic<unsigned int> sessions{0};
    std::atomic<unsigned int> tcpFrames{0};
    std::atomic<unsigned int> queueFrames{0};
    std::atomic<unsigned int> echoes{0};
    std::atomic<unsigned int> strangers{0}; ///< Frames in the echo category that are no client's.
    std::atomic<unsigned int> queueErrors{0};
    std::atomic<int> tcpOpen{0};
    std::atomic<int> faults{0};
    char fault[200] = {};

    // What the server tells when asked.
    int port = 0;
    int queueId = 0;
    unsigned int descriptors = 0;
    std::int64_t memory = 0; ///< In use on the heap; 0 where a sanitizer has replaced it.
    std::atomic<int> queueConnections{0};
    std::atomic<int> tcpConnections{0};

    unsigned int GetFrames() const { return tcpFrames + queueFrames; }
};

void Fault(Page& page, const char* what, unsigned int session, unsigned int sequence)
{
    if (page.faults++ == 0) {
        std::snprintf(page.fault, sizeof page.fault, "%s: session %u, frame %u", what, session,
                      sequence);
    }
}

/// A payload that follows from session, number and the transport's largest size.
class Payload
{
public:
    static constexpr std::size_t s_Head = 2 * sizeof(std::uint32_t);

    Payload(std::uint32_t session, std::uint32_t sequence, std::size_t most)
    {
        std::uint32_t state = session * 2654435761U ^ sequence * 2246822519U;
        state = (state ^ state >> 15) * 739982445U;
        // Mostly short, now and then of any length.
        const std::size_t range = sequence % 64 == 0 ? most - s_Head + 1 : 24;
        m_Size = s_Head + (state >> 8) % range;
        std::memcpy(m_Bytes, &session, sizeof session);
        std::memcpy(m_Bytes + sizeof session, &sequence, sizeof sequence);
        for (std::size_t i = s_Head; i < m_Size; i += sizeof state) {
            state = state * 1664525U + 1013904223U;
            std::memcpy(m_Bytes + i, &state, sizeof state);
        }
    }

    std::string_view Get() const { return {m_Bytes, m_Size}; }

private:
    std::size_t m_Size = 0;
    char m_Bytes[2048];
};

constexpr std::size_t s_MostTcpPayload = 2040;

std::uint32_t WordAt(std::string_view bytes, std::size_t offset)
{
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

void Require(bool condition, const char* what)
{
    if (!condition) {
        throw std::runtime_error(what);
    }
}

/// Follows the sessions on the connections of one transport and echoes their frames.
class EchoHandler : public IpcMsgHandler
{
public:
    EchoHandler(Page& page, std::atomic<unsigned int>& frames, std::size_t mostPayload)
        : m_Page(page), m_Frames(frames), m_MostPayload(mostPayload)
    {}

    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        Stream& stream = m_Streams[msg.connection];
        const std::string_view payload(reinterpret_cast<const char*>(msg.data),
                                       static_cast<std::size_t>(length));
        if (!IsGenuine(payload)) {
            if (stream.session != 0) {
                Fault(m_Page, "corrupt request", stream.session, stream.next);
            }
            ++m_Page.strangers;
            return;
        }
        const std::uint32_t session = WordAt(payload, 0);
        if (stream.session == 0) {
            stream.session = session;
        }
        if (session != stream.session || WordAt(payload, 4) != stream.next) {
            Fault(m_Page, "lost, doubled or reordered request", stream.session, stream.next);
        }
        ++stream.next;
        ++m_Frames;
        Echo(msg, length);
    }

    void HandleIpcClose(int connectionId) override
    {
        m_Streams[static_cast<std::size_t>(connectionId)] = {};
    }

protected:
    ~EchoHandler() override = default;
    Page& m_Page;

private:
    struct Stream
    {
        std::uint32_t session = 0;
        std::uint32_t next = 0;
    };

    virtual void Echo(IpcMsgBuf& msg, int length) = 0;

    bool IsGenuine(std::string_view payload) const
    {
        return payload.size() >= Payload::s_Head && WordAt(payload, 0) != 0 &&
               Payload(WordAt(payload, 0), WordAt(payload, 4), m_MostPayload).Get() == payload;
    }

    std::atomic<unsigned int>& m_Frames;
    const std::size_t m_MostPayload;
    std::vector<Stream> m_Streams = std::vector<Stream>(0x10000);
};

class TcpEcho final : public EchoHandler
{
public:
    TcpEcho(Page& page, SocketService& service)
        : EchoHandler(page, page.tcpFrames, s_MostTcpPayload), m_Service(service)
    {}

private:
    void Echo(IpcMsgBuf& msg, int length) override
    {
        // Fails when the client has been killed; a live one misses its echo.
        m_Service.transport.SendMsg(m_Service.Get(msg.connection), s_EchoCategory, msg, length);
    }

    SocketService& m_Service;
};

using QueueManager = IpcConnectionManager<IpcMsgQueueTransport>;

class QueueEcho final : public EchoHandler
{
public:
    QueueEcho(Page& page, const IpcMsgQueue& queue, const QueueManager& manager)
        : EchoHandler(page, page.queueFrames, s_MaxQueuePayload), m_Queue(queue), m_Manager(manager)
    {}

private:
    void Echo(IpcMsgBuf& msg, int length) override
    {
        msg.mtype = m_Manager.RequireConnection(msg.connection).pid;
        try {
            m_Queue.Send(msg, length);
        } catch (const IpcMsgException&) {
            Fault(m_Page, "no room for an echo", 0, 0);
        }
    }

    const IpcMsgQueue& m_Queue;
    const QueueManager& m_Manager;
};

/// Answers which connections a process has; on the queue, when all that it sent has been served.
class QueryHandler final : public IpcMsgHandler
{
public:
    QueryHandler(const IpcMsgQueue& queue, const QueueManager& manager)
        : m_Queue(queue), m_Manager(manager)
    {}

    void HandleIpcMessage(IpcMsgBuf& msg, int /*length*/) override
    {
        std::int32_t pids[2]; // the one asked about, the one that asks
        std::memcpy(pids, msg.data, sizeof pids);
        IpcMsgBuf answer{};
        answer.mtype = pids[1];
        int length = 0;
        for (const auto* connection : m_Manager.connections) {
            if (connection->pid == pids[0]) {
                std::memcpy(answer.data + length, &connection->id, sizeof connection->id);
                length += static_cast<int>(sizeof connection->id);
            }
        }
        m_Queue.Send(answer, length);
    }

private:
    const IpcMsgQueue& m_Queue;
    const QueueManager& m_Manager;
};

/// Counts what the soak wants to know.
class CountingAdapter final : public IpcLogAdapter
{
public:
    explicit CountingAdapter(Page& page, std::atomic<unsigned int>* errors = nullptr)
        : m_Page(page), m_Errors(errors)
    {}

    void LogInfo(const char* format, ...) override
    {
        m_Page.tcpOpen += std::string_view(format).starts_with("Established") ? 1 : -1;
    }
    void LogDebug(const char* /*format*/, ...) override {}
    void LogError(const char* /*format*/, ...) override
    {
        if (m_Errors != nullptr) {
            ++*m_Errors;
        }
    }
    void LogRcvMsg(int, int, const void*, int) override {}
    void LogSendMsg(int, int, const void*, int) override {}

private:
    Page& m_Page;
    std::atomic<unsigned int>* m_Errors;
};

/// The server's side of the conversation with the test: 'm' measures, 'e' ends.
struct ServerControl
{
    Pipe commands;
    Pipe answers;

    bool Ask(char command) const
    {
        commands.Send(command);
        return answers.Receive().has_value();
    }
};

int Serve(Page& page, const QueueKey& key, const ServerControl& control)
{
    // Failed receives from killed clients are told there.
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    CountingAdapter tcpLog(page);
    CountingAdapter queueLog(page, &page.queueErrors);
    SocketService tcp(&tcpLog, &tcpLog);
    TcpEcho tcpEcho(page, tcp);
    tcp.manager.RegisterHandler(&tcpEcho, s_EchoCategory);

    QueueManager manager(&queueLog);
    IpcMsgQueueTransport queue({key.GetPath(), key.GetId()}, manager, &queueLog);
    queue.Init();
    QueueEcho queueEcho(page, queue.GetQueue(), manager);
    QueryHandler query(queue.GetQueue(), manager);
    manager.RegisterHandler(&queueEcho, s_EchoCategory);
    manager.RegisterHandler(&query, s_QueryCategory);

    page.port = tcp.GetPort();
    page.queueId = queue.GetQueue().GetId();
    std::atomic<bool> end{false};
    std::thread tcpThread([&] {
        while (!end) {
            tcp.transport.Run();
            page.tcpConnections = tcp.manager.GetConnectionCount();
        }
    });
    std::thread queueThread([&] {
        while (!end) {
            queue.Run();
            page.queueConnections = manager.GetConnectionCount();
        }
    });
    control.answers.Send();
    const RawQueue raw(page.queueId);
    while (control.commands.Receive(std::chrono::hours(1)) == 'm') {
        page.memory = static_cast<std::int64_t>(mallinfo2().uordblks);
        page.descriptors = CountDescriptors();
        control.answers.Send();
    }
    end = true;
    const Descriptor wake = ConnectTo(page.port);
    raw.Send(s_Server, MessageText(0, s_ControlCategory, ControlPayload(6, 0, 0)));
    tcpThread.join();
    queueThread.join();
    raw.Remove();
    return 0;
}

// Clients

/// The echoes of one TCP session, cut from the stream and compared with what was sent.
class TcpEchoes
{
public:
    TcpEchoes(Page& page, int sock, std::uint32_t session)
        : m_Page(page), m_Sock(sock), m_Session(session)
    {}

    std::uint32_t GetCount() const { return m_Next; }

    void Receive()
    {
        const ssize_t count =
            recv(m_Sock, m_Buffer.data() + m_Fill, m_Buffer.size() - m_Fill, MSG_DONTWAIT);
        if (count <= 0) {
            throw std::runtime_error("the server has closed a session");
        }
        m_Fill += static_cast<std::size_t>(count);
        const std::string_view bytes(m_Buffer.data(), m_Fill);
        const std::uint32_t before = m_Next;
        std::size_t offset = 0;
        while (m_Fill - offset >= s_MsgHeaderSize) {
            const Payload expected(m_Session, m_Next, s_MostTcpPayload);
            const std::size_t size = s_MsgHeaderSize + expected.Get().size();
            if (WordAt(bytes, offset) != size) {
                throw std::runtime_error("an echo of another length");
            }
            if (m_Fill - offset < size) {
                break;
            }
            if (bytes.substr(offset, size).substr(s_MsgHeaderSize) != expected.Get()) {
                throw std::runtime_error("another echo than the next");
            }
            ++m_Next;
            offset += size;
        }
        std::memmove(m_Buffer.data(), m_Buffer.data() + offset, m_Fill - offset);
        m_Fill -= offset;
        m_Page.echoes += m_Next - before;
    }

private:
    Page& m_Page;
    const int m_Sock;
    const std::uint32_t m_Session;
    std::uint32_t m_Next = 0;
    std::size_t m_Fill = 0;
    std::array<char, 0x10000> m_Buffer;
};

/// Lets one process at a time connect, until it ends its turn: a listening socket holds few that
/// wait, and may reset a client whose turn has not come. A killed process loses its turn.
class ConnectTurn
{
public:
    explicit ConnectTurn(int file) : m_File(file) { Set(F_WRLCK); }
    ConnectTurn(const ConnectTurn&) = delete;
    ConnectTurn& operator=(const ConnectTurn&) = delete;
    ~ConnectTurn() { End(); }

    void End() { Set(F_UNLCK); }

private:
    void Set(int type) const
    {
        struct flock whole = {};
        whole.l_type = static_cast<short>(type);
        Require(fcntl(m_File, F_SETLKW, &whole) == 0, "no turn to connect");
    }

    int m_File;
};

/// Sends so many frames, fewer when the soak stops, in writes of random size, and takes the echoes.
void RunTcpSession(Page& page, std::minstd_rand& random, std::uint32_t frames)
{
    ConnectTurn turn(page.connectTurns);
    const Descriptor sock = ConnectTo(page.port);
    const std::uint32_t session = ++page.sessions;
    TcpEchoes echoes(page, sock.Get(), session);
    std::string out;
    std::uint32_t sent = 0;
    while (echoes.GetCount() < frames) {
        if (page.stop) {
            frames = std::min(frames, std::max(sent, 1U));
        }
        while (sent < frames && out.size() < 4 * s_LongestWrite) {
            out += Frame(s_EchoCategory, Payload(session, sent++, s_MostTcpPayload).Get());
        }
        pollfd ready{sock.Get(), static_cast<short>(out.empty() ? POLLIN : POLLIN | POLLOUT), 0};
        poll(&ready, 1, -1);
        if ((ready.revents & ~POLLOUT) != 0) {
            echoes.Receive();
            if (echoes.GetCount() > 0) {
                turn.End();
            }
        }
        if ((ready.revents & POLLOUT) != 0) {
            const std::size_t part =
                std::min<std::size_t>(out.size(), 1 + random() % s_LongestWrite);
            const ssize_t count = send(sock.Get(), out.data(), part, MSG_NOSIGNAL | MSG_DONTWAIT);
            out.erase(0, count > 0 ? static_cast<std::size_t>(count) : 0);
        }
    }
}

std::string ControlText(int code, int pid, int id)
{
    return MessageText(0, s_ControlCategory, ControlPayload(code, pid, id));
}

void RunQueueSession(Page& page, std::minstd_rand& /*random*/, std::uint32_t frames)
{
    const RawQueue queue(page.queueId);
    const int pid = getpid();
    queue.Send(s_Server, ControlText(1, pid, 0));
    const std::string accepted = queue.Receive(pid);
    Require(accepted.size() == 20, "a connect reply of another length");
    const std::uint32_t id = WordAt(accepted, 12);
    Require(accepted == ControlText(2, pid, static_cast<int>(id)), "another reply to a connect");

    const std::uint32_t session = ++page.sessions;
    const auto request = [&](std::uint32_t number) {
        return MessageText(id, s_EchoCategory, Payload(session, number, s_MaxQueuePayload).Get());
    };
    std::uint32_t sent = 0;
    std::uint32_t received = 0;
    std::size_t underWay = 0;
    std::string next = request(0);
    while (received < frames) {
        if (page.stop) {
            frames = std::min(frames, std::max(sent, 1U));
        }
        while (sent < frames && underWay + next.size() <= s_QueueWindow) {
            queue.Send(s_Server, next);
            underWay += next.size();
            next = request(++sent);
        }
        const std::string echo = queue.Receive(pid);
        Require(echo == request(received), "another echo than the next");
        underWay -= echo.size();
        ++received;
        ++page.echoes;
    }

    queue.Send(s_Server, ControlText(3, 0, static_cast<int>(id)));
    Require(queue.Receive(pid) == ControlText(4, pid, static_cast<int>(id)),
            "another reply to a disconnect");
}

using Session = void (*)(Page&, std::minstd_rand&, std::uint32_t);

/// What a client process does: one session after the other. A session that hangs ends it.
int RunClient(Page& page, Session session)
{
    constexpr unsigned int patienceSeconds = 60;
    const std::uint32_t longestSession = SelectSoak(20'000U, 20'000U, 1000U);
    std::minstd_rand random(static_cast<unsigned int>(getpid()));
    try {
        while (!page.stop) {
            alarm(patienceSeconds);
            session(page, random, 1 + static_cast<std::uint32_t>(random()) % longestSession);
        }
        return 0;
    } catch (const std::exception& e) {
        Fault(page, e.what(), static_cast<unsigned int>(getpid()), 0);
        return 1;
    }
}

// Strangers

/// A peer of the TCP service that misbehaves and goes.
void DisturbTcp(int port, std::minstd_rand& random)
{
    const auto noise = [&](std::size_t size) {
        std::string bytes(size, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() >> 8); });
        return bytes;
    };
    Descriptor sock = ConnectTo(port);
    std::string bytes = Frame(s_NobodysCategory, noise(1 + random() % 500));
    switch (random() % 6) {
    case 0: // Nothing at all.
        return;
    case 1:
        Reset(sock);
        return;
    case 2: // Shorter than a header.
        bytes += FrameHeader(static_cast<std::uint32_t>(random() % 8), s_EchoCategory) + noise(20);
        break;
    case 3: // Longer than a buffer.
        bytes += FrameHeader(2049 + static_cast<std::uint32_t>(random()), s_EchoCategory);
        bytes += noise(4000);
        break;
    case 4: // Torn off.
        bytes.pop_back();
        break;
    default:
        bytes = noise(1 + random() % 4096);
    }
    // The server may close before it has all.
    send(sock.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

/// A message on the queue that follows no rule; how many lines in the error log it is worth.
unsigned int DisturbQueue(const RawQueue& queue, std::minstd_rand& random)
{
    const auto foreignCode = static_cast<int>(7 + random() % 100'000);
    switch (random() % 7) {
    case 0: // Too long.
        queue.Send(s_Server, std::string(509 + random() % (s_LongestStranger - 508), '\5'));
        return 1;
    case 1: // Too short.
        queue.Send(s_Server, std::string(random() % 8, '\5'));
        return 1;
    case 2:
        queue.Send(s_Server,
                   MessageText(1, 20 + static_cast<unsigned int>(random() % 65'516), "x"));
        return 1;
    case 3:
        queue.Send(s_Server, ControlText(foreignCode, 1, 1));
        return 1;
    case 4: // Nobody's connection.
        queue.Send(s_Server, ControlText(3, 0, random() % 2 == 0 ? 0 : foreignCode + 1000));
        return 1;
    case 5: // Ignored without a word.
        queue.Send(s_Server, ControlText(6, 1, 1));
        return 0;
    default: // For the echo, but of no session.
        queue.Send(s_Server, MessageText(0xFFFF, s_EchoCategory, std::string(random() % 500, 'x')));
        return 0;
    }
}

/// The ids of the connections of a process, when the queue has served all that was sent before.
std::vector<int> FindConnections(const RawQueue& queue, pid_t pid)
{
    const std::int32_t pids[] = {pid, getpid()};
    queue.Send(s_Server,
               MessageText(0, s_QueryCategory, {reinterpret_cast<const char*>(pids), sizeof pids}));
    const std::string answer = queue.Receive(getpid());
    std::vector<int> ids;
    for (std::size_t offset = 4; offset + 4 < answer.size(); offset += 4) {
        ids.push_back(static_cast<int>(WordAt(answer, offset)));
    }
    return ids;
}

/// What an operator does for a client of the queue that died: takes its replies away and releases
/// its connections.
void BuryQueueClient(const RawQueue& queue, pid_t pid)
{
    const std::vector<int> ids = FindConnections(queue, pid);
    while (queue.TryReceive(pid)) {
    }
    for (const int id : ids) {
        queue.Send(s_Server, ControlText(3, 0, id));
        Require(queue.Receive(pid) == ControlText(4, pid, id), "another reply to a release");
    }
}

/// System V queues and semaphores that this process can see.
std::size_t CountIpcObjects()
{
    std::size_t lines = 0;
    for (const char* path : {"/proc/sysvipc/msg", "/proc/sysvipc/sem"}) {
        std::ifstream file(path);
        lines +=
            static_cast<std::size_t>(std::count(std::istreambuf_iterator<char>(file), {}, '\n'));
    }
    return lines;
}

template <typename Condition>
bool WaitUntil(const Condition& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class TransportSoak : public testing::Test
{
protected:
    TransportSoak()
        : m_Page(*new (mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Page)
    {}
    ~TransportSoak() override { munmap(&m_Page, sizeof m_Page); }

    struct Figures
    {
        unsigned int descriptors;
        std::int64_t memory;
        int tcpConnections;
        int queueConnections;
        std::size_t messages;
    };

    /// When the server has noticed that everybody has gone.
    Figures Measure(const ServerControl& control)
    {
        // Behind everybody who has connected before.
        RunTcpSession(m_Page, m_Random, 1);
        EXPECT_TRUE(WaitUntil([this] { return m_Page.tcpOpen == 0; }));
        const RawQueue queue(m_Page.queueId);
        FindConnections(queue, s_Nobody);
        EXPECT_TRUE(control.Ask('m'));
        return {m_Page.descriptors, m_Page.memory, m_Page.tcpConnections, m_Page.queueConnections,
                queue.GetMessageCount()};
    }

    void WarmUp()
    {
        {
            std::vector<Descriptor> connections;
            while (connections.size() < s_MostConnections) {
                connections.push_back(ConnectTo(m_Page.port));
                EXPECT_TRUE(WaitUntil(
                    [&] { return m_Page.tcpOpen == static_cast<int>(connections.size()); }));
            }
        }
        const RawQueue queue(m_Page.queueId);
        for (int pid = 1; pid <= s_MostConnections; ++pid) {
            queue.Send(s_Server, ControlText(1, 1'000'000'000 + pid, 0));
            queue.Receive(1'000'000'000 + pid);
        }
        for (int pid = 1; pid <= s_MostConnections; ++pid) {
            BuryQueueClient(queue, 1'000'000'000 + pid);
        }
        for (int i = 0; i < 20; ++i) {
            Disturb();
            RunTcpSession(m_Page, m_Random, 100);
            RunQueueSession(m_Page, m_Random, 100);
        }
    }

    void Disturb()
    {
        DisturbTcp(m_Page.port, m_Random);
        const RawQueue queue(m_Page.queueId);
        m_ExpectedQueueErrors += DisturbQueue(queue, m_Random);
        FindConnections(queue, s_Nobody);
    }

    struct Client
    {
        Session session;
        std::unique_ptr<ChildProcess> process;
    };

    void Start(Client& client)
    {
        client.process = std::make_unique<ChildProcess>(
            [this, session = client.session] { return RunClient(m_Page, session); });
    }

    void KillAndReplace(Client& client)
    {
        client.process->Kill(SIGKILL);
        EXPECT_EQ(client.process->WaitForExitStatus(), -SIGKILL) << "ended by itself";
        if (client.session == RunQueueSession) {
            BuryQueueClient(RawQueue(m_Page.queueId), client.process->GetPid());
        }
        Start(client);
    }

    /// False when nothing arrives any more.
    bool WaitForFrames(unsigned int frames)
    {
        constexpr std::chrono::seconds patience(60);
        auto last = std::chrono::steady_clock::now();
        unsigned int before = 0;
        while (m_Page.GetFrames() < frames && m_Page.faults == 0) {
            if (const unsigned int now = m_Page.GetFrames(); now != before) {
                before = now;
                last = std::chrono::steady_clock::now();
            }
            if (std::chrono::steady_clock::now() - last > patience) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return m_Page.faults == 0;
    }

    Page& m_Page;
    std::minstd_rand m_Random{19700101};
    unsigned int m_ExpectedQueueErrors = 0;
};

TEST_F(TransportSoak, LosesReordersAndCorruptsNothingAndKeepsNothing)
{
    const TransportSoakTargets targets = SelectSoak(s_ShortSoak, s_FullSoak, s_SmallSoak);
    alarm(targets.boundSeconds);
    // Where allowed, so that only this test's queues are counted.
    const bool isAlone = unshare(CLONE_NEWIPC) == 0;
    const std::size_t objectsBefore = CountIpcObjects();
    const QueueKey key;
    const ServerControl control;
    const Descriptor connectTurns(memfd_create("turns", MFD_CLOEXEC));
    m_Page.connectTurns = connectTurns.Get();
    ChildProcess server([&] { return Serve(m_Page, key, control); });
    ASSERT_TRUE(control.answers.Receive());
    WarmUp();
    const Figures before = Measure(control);

    std::vector<Client> clients(s_TcpClients + s_QueueClients);
    for (std::size_t i = 0; i < clients.size(); ++i) {
        clients[i].session = i < s_TcpClients ? RunTcpSession : RunQueueSession;
        Start(clients[i]);
    }
    unsigned int kills = 0;
    while (kills < targets.kills &&
           WaitForFrames(static_cast<unsigned int>(std::uint64_t{targets.frames} * (kills + 1) /
                                                   (targets.kills + 1)))) {
        KillAndReplace(clients[m_Random() % clients.size()]);
        ++kills;
        Disturb();
    }
    EXPECT_TRUE(WaitForFrames(targets.frames)) << (m_Page.faults > 0 ? m_Page.fault : "stalled");
    m_Page.stop = true;
    for (Client& client : clients) {
        EXPECT_EQ(client.process->WaitForExitStatus(), 0);
    }
    clients.clear();
    EXPECT_EQ(m_Page.faults, 0);
    EXPECT_EQ(kills, targets.kills);
    EXPECT_GE(m_Page.queueFrames, targets.frames / 100);
    EXPECT_GT(m_Page.strangers, 0U);

    const Figures after = Measure(control);
    EXPECT_EQ(m_Page.queueErrors, m_ExpectedQueueErrors);
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_LE(after.memory, before.memory + s_MemoryTolerance);
    EXPECT_EQ(after.tcpConnections, before.tcpConnections);
    EXPECT_EQ(after.queueConnections, before.queueConnections);
    EXPECT_EQ(after.messages, 0U);
    EXPECT_EQ(key.FindQueue(), m_Page.queueId);
    control.commands.Send('e');
    EXPECT_EQ(server.WaitForExitStatus(), 0);
    EXPECT_EQ(key.FindQueue(), -1);
    if (isAlone) {
        EXPECT_EQ(CountIpcObjects(), objectsBefore);
    }
    alarm(0);
    ReportSoak(std::to_string(m_Page.GetFrames()) + " frames (" + std::to_string(m_Page.tcpFrames) +
               " by TCP, " + std::to_string(m_Page.queueFrames) + " by queue), " +
               std::to_string(m_Page.echoes) + " echoes, " +
               std::to_string(s_TcpClients + s_QueueClients) + " clients, " +
               std::to_string(m_Page.sessions) + " sessions, " + std::to_string(kills) +
               " kills, " + std::to_string(m_Page.faults) + " lost or corrupt, descriptors " +
               std::to_string(before.descriptors) + " -> " + std::to_string(after.descriptors) +
               (before.memory == 0 ? ", memory not known"
                                   : ", memory " + std::to_string(before.memory) + " -> " +
                                         std::to_string(after.memory)));
}

} // namespace

#include <VelaHost_Ipc/IpcSocketTransport.h>

#include "unix/SocketService.h"

#include "support/BlockedThread.h"
#include "support/CapturedStdout.h"
#include "support/ChildProcess.h"
#include "support/Interpose.h"
#include "support/RecordingLogAdapter.h"
#include "support/Sanitizers.h"
#include "support/Sockets.h"
#include "support/ThrownException.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_Ipc/IpcMsgException.h>
#include <VelaHost_Ipc/IpcSocketException.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <initializer_list>
#include <malloc.h>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace VelaHost_Ipc;
using namespace velahost_test;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr std::uint16_t s_Category = 5;
constexpr int s_BufferSize = 2048;
constexpr int s_LongestPayload = s_BufferSize - s_MsgHeaderSize;

constexpr VelaHost_Utility::Exception::Context
    s_HandlersSite(nullptr, "handler", 1, VelaHost_Utility::DefaultExceptionLogger);

std::string Text(const char* format, auto... values)
{
    char text[200];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

LogCall Adding(int id, int descriptor)
{
    return LogCall::Debug(Text("Adding Cx %d (socket %d) to select set", id, descriptor));
}

LogCall Selecting(int maxFd)
{
    return LogCall::Debug(Text("select with max=%d", maxFd));
}

LogCall Read(std::size_t count, int id, std::size_t fill)
{
    return LogCall::Debug(Text("Read %zu bytes on cx %d [idx=%zu]", count, id, fill));
}

LogCall Established(int id, int descriptor)
{
    return LogCall::Info(Text("Established connection %d on socket %d", id, descriptor));
}

LogCall Cleared(int id)
{
    return LogCall::Info(Text("Connection %d cleared", id));
}

/// Does what the test asks for when a step is logged, and keeps the errors.
class ActingLogAdapter final : public IpcLogAdapter
{
public:
    [[gnu::format(printf, 2, 3)]] void LogInfo(const char* format, ...) override { Act(format); }
    [[gnu::format(printf, 2, 3)]] void LogDebug(const char* format, ...) override { Act(format); }
    [[gnu::format(printf, 2, 3)]] void LogError(const char* format, ...) override
    {
        char text[200];
        std::va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        errors.emplace_back(text);
    }
    void LogRcvMsg(int, int, const void*, int) override {}
    void LogSendMsg(int, int, const void*, int) override {}

    std::function<void(std::string_view format)> onStep;
    std::vector<std::string> errors;

private:
    void Act(std::string_view format) const
    {
        if (onStep) {
            onStep(format);
        }
    }
};

/// Returns as soon as a thread of this process sleeps, by what the system says.
void WaitUntilAsleep(pid_t thread)
{
    const std::string file = "/proc/self/task/" + std::to_string(thread) + "/stat";
    for (std::string state; std::getline(std::ifstream(file), state);) {
        // Behind the thread's name, which stands in brackets.
        if (state.compare(state.rfind(')'), 3, ") S") == 0) {
            return;
        }
    }
    throw std::runtime_error("the thread has ended, or the system doesn't tell");
}

constexpr std::initializer_list<long> s_SendCalls{
    SYS_sendto,
#ifdef SYS_socketcall
    SYS_socketcall, // i386 has one call for all that sockets do
#endif
};

class Transport : public testing::Test
{
protected:
    Transport()
        : m_DescriptorsBefore(CountDescriptors()),
          m_Service(std::make_unique<SocketService>(&m_Log, &m_ManagerLog)),
          m_Transport(m_Service->transport)
    {
        m_Service->manager.RegisterHandler(&m_Handler, s_Category);
    }

    ~Transport() override
    {
        m_Service.reset();
        EXPECT_EQ(CountDescriptors(), m_DescriptorsBefore);
    }

    int Listener() const { return m_Transport.GetServer().GetSock(); }

    Descriptor Connect() { return m_Service->Connect(); }
    void Deliver(const Descriptor& client, int id, std::string_view bytes)
    {
        m_Service->Deliver(client, id, bytes);
    }

    /// Runs one pass in which connection `id` hears that its client has gone.
    void RunClose(int id)
    {
        WaitForBytes(m_Service->GetSock(id), 1);
        m_Transport.Run();
    }

    const std::size_t m_DescriptorsBefore;
    RecordingLogAdapter m_Log;
    RecordingLogAdapter m_ManagerLog;
    RecordingHandler m_Handler;
    std::unique_ptr<SocketService> m_Service;
    IpcSocketTransport& m_Transport;
};

Received Message(int connection, std::string payload)
{
    return {connection, s_Category, std::move(payload)};
}

// --- The objects ----------------------------------------------------------------------------

TEST(IpcSocketTransportObject, HasItsFieldsInOrder)
{
    RecordingLogAdapter log;
    SocketService service(&log, nullptr);
    static_assert(!std::is_polymorphic_v<IpcSocketTransport>);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&service.transport);
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(&service.transport.GetServer()), bytes);
    struct Behind
    {
        std::int32_t maxFd;
        const void* log;
        const void* manager;
    } behind{};
    if (sizeof(void*) == 4) {
        std::memcpy(&behind, bytes + sizeof(ServerSocket), sizeof behind);
        EXPECT_EQ(behind.maxFd, service.transport.GetServer().GetSock() + 1);
        EXPECT_EQ(behind.log, static_cast<IpcLogAdapter*>(&log));
        EXPECT_EQ(behind.manager, &service.manager);
        EXPECT_EQ(sizeof(IpcSocketTransport), 136U);
        // One more than the highest descriptor, the newcomer's from the moment it is accepted.
        const Descriptor client = service.Connect();
        std::memcpy(&behind, bytes + sizeof(ServerSocket), sizeof behind);
        EXPECT_EQ(behind.maxFd, service.GetSock(1) + 1);
    }
}

TEST(IpcSocketTransportConnection, HasItsFieldsInOrder)
{
    const IpcSocketTransport::Connection connection(7);
    static_assert(std::is_convertible_v<IpcSocketTransport::Connection*, ServerSocket*>);
    static_assert(std::has_virtual_destructor_v<IpcSocketTransport::Connection>);
    const auto offset = [&](const auto& field) {
        return reinterpret_cast<const unsigned char*>(&field) -
               reinterpret_cast<const unsigned char*>(&connection);
    };
    if (sizeof(void*) == 4) {
        EXPECT_EQ(offset(connection.id), 124);
        EXPECT_EQ(offset(connection.buffer), 128);
        EXPECT_EQ(offset(connection.bufferSize), 132);
        EXPECT_EQ(offset(connection.fill), 136);
        EXPECT_EQ(sizeof connection, 140U);
    }
    EXPECT_LT(offset(connection.id), offset(connection.buffer));
    EXPECT_LT(offset(connection.buffer), offset(connection.bufferSize));
    EXPECT_LT(offset(connection.bufferSize), offset(connection.fill));
}

TEST(IpcSocketTransportConnection, BeginsFreeAndWithoutBuffer)
{
    const IpcSocketTransport::Connection connection(7);
    EXPECT_EQ(connection.id, 7);
    EXPECT_EQ(connection.buffer, nullptr);
    EXPECT_EQ(connection.bufferSize, 0);
    EXPECT_EQ(connection.fill, 0);
    EXPECT_TRUE(connection.IsFree());
}

TEST(IpcSocketTransportConnection, KeepsABufferOfTheSameSizeAndEmptiesIt)
{
    IpcSocketTransport::Connection connection(1);
    connection.AllocBuffer(100);
    EXPECT_EQ(connection.bufferSize, 100);
    unsigned char* first = connection.buffer;
    ASSERT_NE(first, nullptr);
    connection.fill = 50;
    connection.buffer[99] = 'k';
    connection.AllocBuffer(100);
    EXPECT_EQ(connection.buffer, first);
    EXPECT_EQ(connection.buffer[99], 'k');
    EXPECT_EQ(connection.fill, 0);
    connection.fill = 50;
    connection.AllocBuffer(101);
    EXPECT_EQ(connection.bufferSize, 101);
    EXPECT_EQ(connection.fill, 0);
    connection.buffer[100] = 'x';
    connection.AllocBuffer(0);
    EXPECT_EQ(connection.bufferSize, 0);
    EXPECT_NE(connection.buffer, nullptr);
}

TEST(IpcSocketTransportConnection, HasRoomForAWholeRecordBehindItsBuffer)
{
    IpcSocketTransport::Connection connection(7);
    connection.AllocBuffer(s_MaxFrameSize);
    EXPECT_GE(malloc_usable_size(connection.buffer), s_MaxFrameSize + sizeof(IpcMsgBuf));
}

TEST(IpcSocketTransportConnection, KeepsItsBufferWhenTheNewOneCannotBeHad)
{
    IpcSocketTransport::Connection connection(1);
    connection.AllocBuffer(100);
    unsigned char* first = connection.buffer;
    connection.fill = 50;
    EXPECT_THROW(connection.AllocBuffer(-1), std::bad_alloc);
    EXPECT_EQ(connection.buffer, first);
    EXPECT_EQ(connection.bufferSize, 100);
    EXPECT_EQ(connection.fill, 50);
}

TEST(IpcSocketTransportConnection, MovesWhatIsNotConsumedToTheFront)
{
    IpcSocketTransport::Connection connection(1);
    connection.AllocBuffer(10);
    std::memcpy(connection.buffer, "0123456789", 10);
    connection.fill = 10;
    connection.flipBuffer(3);
    EXPECT_EQ(connection.fill, 7);
    EXPECT_EQ(std::memcmp(connection.buffer, "3456789", 7), 0);
    connection.flipBuffer(0);
    EXPECT_EQ(connection.fill, 7);
    connection.flipBuffer(7);
    EXPECT_EQ(connection.fill, 0);
    // Nothing remained, so nothing was moved.
    EXPECT_EQ(std::memcmp(connection.buffer, "3456789", 7), 0);
}

TEST(IpcSocketTransportConnection, ConsumesNoMoreThanThereIs)
{
    IpcSocketTransport::Connection connection(1);
    connection.AllocBuffer(10);
    connection.fill = 4;
    connection.flipBuffer(-1);
    EXPECT_EQ(connection.fill, 4);
    connection.flipBuffer(5);
    EXPECT_EQ(connection.fill, 0);
}

TEST(IpcSocketTransportConnection, LeavesItsDescriptorOpenWhenDestroyed)
{
    ServerSocket server(0);
    const Descriptor listener(server.GetSock());
    const Descriptor client = ConnectTo(LocalPort(listener.Get()));
    auto connection = std::make_unique<IpcSocketTransport::Connection>(1);
    server.Accept(*connection);
    const Descriptor left(connection->GetSock());
    connection.reset();
    EXPECT_TRUE(IsOpen(left.Get()));
}

TEST_F(Transport, ReadsOnceBehindWhatIsThere)
{
    const Descriptor client = Connect();
    auto& connection = m_Service->Get(1);
    WriteAll(client.Get(), "abcdef");
    WaitForBytes(connection.GetSock(), 6);
    std::memcpy(connection.buffer, "xy", 2);
    connection.fill = 2;
    std::vector<std::size_t> asked;
    Hook hook(interposed::recv, [&](int, void*, std::size_t size, int) -> std::optional<ssize_t> {
        asked.push_back(size);
        return std::nullopt;
    });
    EXPECT_EQ(connection.read(), 6);
    EXPECT_EQ(connection.fill, 8);
    EXPECT_EQ(std::memcmp(connection.buffer, "xyabcdef", 8), 0);
    WriteAll(client.Get(), "rest");
    WaitForBytes(connection.GetSock(), 4);
    connection.fill = s_BufferSize - 1;
    EXPECT_EQ(connection.read(), 1);
    EXPECT_EQ(connection.fill, s_BufferSize);
    EXPECT_EQ(connection.read(), 0);
    EXPECT_EQ(connection.fill, s_BufferSize);
    EXPECT_THAT(asked, ElementsAre(s_BufferSize - 2, 1, 0));
}

TEST_F(Transport, ReadsNothingOnAFailure)
{
    const Descriptor client = Connect();
    auto& connection = m_Service->Get(1);
    connection.fill = 3;
    FailingCall failing("recv", ETIMEDOUT);
    CapturedStdout output;
    EXPECT_EQ(connection.read(), 0);
    EXPECT_EQ(connection.fill, 3);
    EXPECT_EQ(output.Stop(), "status == -1   errno == 110  in Socket::recv\n");
}

// --- Building -------------------------------------------------------------------------------

TEST_F(Transport, ListensOnItsPortAndTellsItsDescriptor)
{
    EXPECT_EQ(m_Transport.Init(), Listener() + 1);
    int listening = 0;
    socklen_t length = sizeof listening;
    getsockopt(Listener(), SOL_SOCKET, SO_ACCEPTCONN, &listening, &length);
    EXPECT_EQ(listening, 1);
}

TEST_F(Transport, ThrowsAsItsServerDoes)
{
    const OpenedSockets opened;
    IpcConnectionManager<IpcSocketTransport> manager(nullptr);
    EXPECT_TRUE(Throws<IpcSocketException>(
        [&] { IpcSocketTransport second({m_Service->GetPort()}, manager, nullptr); },
        {0x2102, "IpcSocketException", "src/unix/ServerSocket", 52, EADDRINUSE}));
    FailingCall failing("socket", EMFILE);
    EXPECT_TRUE(Throws<IpcSocketException>(
        [&] { IpcSocketTransport second({0}, manager, nullptr); },
        {0x2101, "IpcSocketException", "src/unix/ServerSocket", 49, EMFILE}));
}

TEST(IpcSocketTransportLimits, RefusesAListeningDescriptorThatSelectCannotHold)
{
    const DescriptorLimit limit(FD_SETSIZE + 100);
    const OccupiedDescriptors occupied(FD_SETSIZE);
    const std::size_t before = CountDescriptors();
    IpcConnectionManager<IpcSocketTransport> manager(nullptr);
    EXPECT_TRUE(Throws<IpcSocketException>(
        [&] { IpcSocketTransport transport({0}, manager, nullptr); },
        {0x2101, "IpcSocketException", "src/unix/IpcSocketTransport", 67, EMFILE}));
    EXPECT_EQ(CountDescriptors(), before);
}

TEST(IpcSocketTransportLimits, TakesTheHighestListeningDescriptorThatFits)
{
    const DescriptorLimit limit(FD_SETSIZE + 100);
    const OccupiedDescriptors occupied(FD_SETSIZE - 1);
    // The client's end goes where select does not reach.
    SocketService service(nullptr, nullptr);
    ASSERT_EQ(service.transport.GetServer().GetSock(), FD_SETSIZE - 1);
    const Descriptor client = ConnectTo(service.GetPort());
    service.transport.Run();
    EXPECT_EQ(service.CountOpen(), 0);
    EXPECT_EQ(ReadExactly(client.Get(), 1), "");
}

// --- The pass -------------------------------------------------------------------------------

TEST_F(Transport, LogsEachStepOfAPass)
{
    const int listener = Listener();
    const Descriptor first = ConnectTo(m_Service->GetPort());
    m_Transport.Run();
    const int firstSock = m_Service->GetSock(1);
    EXPECT_THAT(m_Log.Take(), ElementsAre(Selecting(listener + 1), Established(1, firstSock)));

    const Descriptor second = ConnectTo(m_Service->GetPort());
    m_Transport.Run();
    const int secondSock = m_Service->GetSock(2);
    EXPECT_THAT(m_Log.Take(), ElementsAre(Adding(1, firstSock), Selecting(firstSock + 1),
                                          Established(2, secondSock)));

    Deliver(second, 2, Frame(s_Category, "hello"));
    EXPECT_THAT(m_Log.Take(),
                ElementsAre(Adding(1, firstSock), Adding(2, secondSock), Selecting(secondSock + 1),
                            Read(13, 2, 13), LogCall::RcvMsg(s_Category, 2, "hello")));
    EXPECT_THAT(m_ManagerLog.Take(), IsEmpty());
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(2, "hello")));
}

TEST_F(Transport, LooksForReadersOnlyAndWithoutTimeLimit)
{
    bool called = false;
    Hook hook(interposed::select,
              [&](int count, fd_set* readable, fd_set* writable, fd_set* exceptional,
                  timeval* timeout) -> std::optional<int> {
                  called = true;
                  EXPECT_EQ(count, Listener() + 1);
                  for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
                      EXPECT_EQ(FD_ISSET(descriptor, readable) != 0, descriptor == Listener());
                  }
                  EXPECT_EQ(writable, nullptr);
                  EXPECT_EQ(exceptional, nullptr);
                  EXPECT_EQ(timeout, nullptr);
                  return 0;
              });
    m_Transport.Run();
    EXPECT_TRUE(called);
}

TEST_F(Transport, EndsThePassSilentlyWhenSelectGivesNothing)
{
    const Descriptor client = Connect();
    m_Log.Take();
    const int sock = m_Service->GetSock(1);
    WriteAll(client.Get(), Frame(s_Category, "waiting"));
    WaitForBytes(sock, 15);
    {
        FailingCall failing("select", EINTR);
        m_Transport.Run();
        EXPECT_TRUE(failing.WasHit());
    }
    {
        Hook hook(interposed::select, [](int, fd_set*, fd_set*, fd_set*, timeval*) { return 0; });
        m_Transport.Run();
    }
    EXPECT_THAT(m_Log.Take(), ElementsAre(Adding(1, sock), Selecting(sock + 1), Adding(1, sock),
                                          Selecting(sock + 1)));
    EXPECT_THAT(m_Handler.messages, IsEmpty());
    m_Transport.Run();
    EXPECT_THAT(m_Handler.messages, SizeIs(1));
}

TEST_F(Transport, EndsThePassOnASignal)
{
    struct sigaction action
    {};
    struct sigaction original
    {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR2, &action, &original);
    const pthread_t runner = pthread_self();
    std::atomic<bool> returned{false};
    {
        // Again and again: nobody can tell from outside when the call has begun to wait.
        std::jthread signaller([&] {
            while (!returned) {
                pthread_kill(runner, SIGUSR2);
                std::this_thread::yield();
            }
        });
        m_Transport.Run();
        returned = true;
    }
    sigaction(SIGUSR2, &original, nullptr);
    EXPECT_THAT(m_Log.Take(), ElementsAre(Selecting(Listener() + 1)));
}

TEST_F(Transport, LetsItsThreadBeCancelledWhileItWaits)
{
    if (isAddressSanitized) {
        GTEST_SKIP() << "the sanitizer takes the stack that cancellation has left for one in use";
    }
    struct Undoing
    {
        bool& undone;
        ~Undoing() { undone = true; }
    };
    bool undone = false;
    bool wentOn = false;
    {
        std::atomic<pid_t> waiting{0};
        const Hook hook(interposed::select,
                        [&](int, fd_set*, fd_set*, fd_set*, timeval*) -> std::optional<int> {
                            waiting = gettid();
                            waiting.notify_one();
                            return std::nullopt;
                        });
        BlockedThread runner([&] {
            const Undoing undoing{undone};
            m_Transport.Run();
            wentOn = true;
        });
        waiting.wait(0);
        WaitUntilAsleep(waiting);
        runner.Cancel();
        runner.Join();
    }
    EXPECT_TRUE(undone);
    EXPECT_FALSE(wentOn);
    EXPECT_THAT(m_Log.Take(), ElementsAre(Selecting(Listener() + 1)));
    const Descriptor client = Connect();
    Deliver(client, 1, Frame(s_Category, "served"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "served")));
}

TEST_F(Transport, GoesOnWhenItsAdapterLengthensTheTable)
{
    ActingLogAdapter log;
    SocketService service(&log, nullptr);
    service.manager.RegisterHandler(&m_Handler, s_Category);
    const Descriptor first = service.Connect();
    const Descriptor second = service.Connect();
    // The next connection moves the table.
    service.manager.connections.shrink_to_fit();
    log.onStep = [&](std::string_view format) {
        if (format.starts_with("Adding Cx")) {
            service.manager.FindFreeConnection();
        }
    };
    WriteAll(first.Get(), Frame(s_Category, "one"));
    WaitForBytes(service.GetSock(1), 11);
    service.Deliver(second, 2, Frame(s_Category, "two"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "one"), Message(2, "two")));
    EXPECT_EQ(service.manager.GetConnectionCount(), 3);
    const Descriptor third = service.Connect();
    service.Deliver(third, 3, Frame(s_Category, "three"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(3, "three")));
}

TEST_F(Transport, WatchesAlsoWithoutInit)
{
    RecordingHandler handler;
    IpcConnectionManager<IpcSocketTransport> manager(nullptr);
    IpcSocketTransport transport({0}, manager, nullptr);
    const Descriptor owner(transport.GetServer().GetSock());
    const Descriptor client = ConnectTo(LocalPort(owner.Get()));
    transport.Run();
    ASSERT_EQ(manager.GetConnectionCount(), 1);
    const Descriptor serverEnd(manager.GetConnection(1)->GetSock());
    EXPECT_GE(serverEnd.Get(), 0);
}

TEST_F(Transport, WatchesItsConnectionsAlsoAfterASecondInit)
{
    const Descriptor client = Connect();
    m_Transport.Init();
    Deliver(client, 1, Frame(s_Category, "still here"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "still here")));
}

TEST_F(Transport, WorksWithoutAnyLogAdapter)
{
    SocketService silent(nullptr, nullptr);
    silent.manager.RegisterHandler(&m_Handler, s_Category);
    m_Handler.onMessage = [](const IpcMsgBuf&, int length) {
        if (length == 5) {
            throw IpcMsgException(s_HandlersSite);
        }
    };
    const Descriptor client = silent.Connect();
    silent.Deliver(client, 1, Frame(s_Category, "one") + Frame(19, "nobody's"));
    silent.Deliver(client, 1, Frame(s_Category, "throw"));
    m_Handler.onMessage = nullptr;
    IpcMsgBuf message{};
    EXPECT_TRUE(silent.transport.SendMsg(silent.Get(1), 3, message, 4));
    silent.Deliver(client, 1, FrameHeader(3, s_Category) + "x");
    EXPECT_TRUE(silent.Get(1).IsFree());
    {
        FailingCall failing("accept", EMFILE);
        const Descriptor newcomer = ConnectTo(silent.GetPort());
        silent.transport.Run();
        EXPECT_TRUE(failing.WasHit());
    }
    silent.transport.Run();
    EXPECT_FALSE(silent.Get(1).IsFree());
}

// --- Cutting frames -------------------------------------------------------------------------

TEST_F(Transport, DispatchesTwoFramesOfOneReadInOrder)
{
    const Descriptor client = Connect();
    m_Log.Take();
    Deliver(client, 1, Frame(s_Category, "first") + Frame(s_Category, "second"));
    EXPECT_THAT(m_Handler.messages, ElementsAre(Message(1, "first"), Message(1, "second")));
    const int sock = m_Service->GetSock(1);
    EXPECT_THAT(m_Log.Take(), ElementsAre(Adding(1, sock), Selecting(sock + 1), Read(27, 1, 27),
                                          LogCall::RcvMsg(s_Category, 1, "first"),
                                          LogCall::RcvMsg(s_Category, 1, "second")));
}

TEST_F(Transport, KeepsTheFirstPartOfAFrameAtTheFront)
{
    const Descriptor client = Connect();
    const std::string frame = Frame(s_Category, "split");
    Deliver(client, 1, Frame(s_Category, "whole") + frame.substr(0, 10));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "whole")));
    const auto& connection = m_Service->Get(1);
    EXPECT_EQ(connection.fill, 10);
    EXPECT_EQ(std::memcmp(connection.buffer, frame.data(), 10), 0);
    m_Log.Take();
    Deliver(client, 1, frame.substr(10));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "split")));
    EXPECT_THAT(m_Log.Take(), Contains(Read(3, 1, 13)));
    EXPECT_EQ(connection.fill, 0);
}

/// Frames of many shapes: empty ones, odd lengths, so that they lie at every alignment.
struct Stream
{
    Stream()
    {
        for (const std::size_t size : {3U, 0U, 1U, 0U, 0U, 17U, 500U, 6U, 0U, 25U}) {
            Add(size);
        }
    }

    void Add(std::size_t size)
    {
        const std::string payload(size, static_cast<char>('a' + messages.size() % 26));
        bytes += Frame(s_Category, payload);
        messages.push_back(Message(1, payload));
        ends.push_back(bytes.size());
    }

    /// What is dispatched when the first `count` bytes have come: the whole frames, except an
    /// empty one that is the last of them.
    std::vector<Received> Within(std::size_t count) const
    {
        std::vector<Received> within;
        for (std::size_t i = 0; i < ends.size() && ends[i] <= count; ++i) {
            if (!messages[i].payload.empty() || ends[i] < count) {
                within.push_back(messages[i]);
            }
        }
        return within;
    }

    std::string bytes;
    std::vector<Received> messages;
    std::vector<std::size_t> ends;
};

TEST_F(Transport, PutsAStreamTogetherThatIsCutAnywhere)
{
    const Stream stream;
    const Descriptor client = Connect();
    for (std::size_t cut = 1; cut < stream.bytes.size(); ++cut) {
        Deliver(client, 1, std::string_view(stream.bytes).substr(0, cut));
        ASSERT_EQ(m_Handler.messages, stream.Within(cut)) << "cut at " << cut;
        Deliver(client, 1, std::string_view(stream.bytes).substr(cut));
        ASSERT_EQ(m_Handler.TakeMessages(), stream.messages) << "cut at " << cut;
    }
}

TEST_F(Transport, PutsAStreamTogetherThatComesByteByByte)
{
    const Stream stream;
    const Descriptor client = Connect();
    for (std::size_t count = 1; count <= stream.bytes.size(); ++count) {
        Deliver(client, 1, std::string_view(stream.bytes).substr(count - 1, 1));
        ASSERT_EQ(m_Handler.messages, stream.Within(count)) << "after byte " << count;
    }
}

TEST_F(Transport, PutsAStreamTogetherThatIsCutAroundTheBuffersSize)
{
    Stream stream;
    for (const std::size_t size : {2040U, 1U, 2039U, 2038U, 1000U, 1023U, 0U, 2040U, 5U}) {
        stream.Add(size);
    }
    const Descriptor client = Connect();
    for (const std::size_t part : {8U, 9U, 2047U, 2048U, 2049U, 4096U}) {
        for (std::size_t sent = 0; sent < stream.bytes.size(); sent += part) {
            const std::string_view bytes = std::string_view(stream.bytes).substr(sent, part);
            Deliver(client, 1, bytes);
            m_Service->RunUntilRead(1);
            ASSERT_EQ(m_Handler.messages, stream.Within(sent + bytes.size()))
                << "parts of " << part << " after " << sent + bytes.size();
        }
        ASSERT_EQ(m_Handler.TakeMessages(), stream.messages) << "parts of " << part;
    }
}

TEST_F(Transport, HandsOverTheRecordInItsBufferWithTheConnectionsId)
{
    const Descriptor other = Connect();
    const Descriptor client = Connect();
    const auto& connection = m_Service->Get(2);
    int seen = 0;
    m_Handler.onMessage = [&](IpcMsgBuf& msg, int length) {
        ++seen;
        EXPECT_EQ(reinterpret_cast<unsigned char*>(&msg), connection.buffer + 9);
        EXPECT_EQ(msg.mtype, 8 + 7);
        EXPECT_EQ(msg.connection, 2);
        EXPECT_EQ(msg.category, s_Category);
        EXPECT_EQ(length, 7);
    };
    Deliver(client, 2, Frame(19, "x") + Frame(s_Category, "payload"));
    EXPECT_EQ(seen, 1);
}

TEST_F(Transport, GoesByTheLengthThatCameWhateverAHandlerWritesOverIt)
{
    const Descriptor client = Connect();
    m_Handler.onMessage = [](IpcMsgBuf& msg, int) { msg.mtype = 0; };
    Deliver(client, 1, Frame(s_Category, "first") + Frame(s_Category, "second"));
    EXPECT_THAT(m_Handler.messages, ElementsAre(Message(1, "first"), Message(1, "second")));
}

TEST_F(Transport, LetsHandlersCopyAWholeRecordAlsoFromTheBuffersEnd)
{
    const Descriptor client = Connect();
    IpcMsgBuf last{};
    m_Handler.onMessage = [&](const IpcMsgBuf& msg, int) { last = msg; };
    Deliver(client, 1, Frame(s_Category, std::string(2030, 'x')) + Frame(s_Category, "zz"));
    EXPECT_EQ(m_Handler.messages.size(), 2U);
    EXPECT_EQ(std::memcmp(last.data, "zz", 2), 0);
}

TEST_F(Transport, KeepsAnEmptyFrameUntilBytesFollowIt)
{
    const Descriptor client = Connect();
    Deliver(client, 1, Frame(s_Category, ""));
    EXPECT_THAT(m_Handler.messages, IsEmpty());
    Deliver(client, 1, Frame(s_Category, "").substr(0, 1));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "")));
    Deliver(client, 1, Frame(s_Category, "").substr(1));
    EXPECT_THAT(m_Handler.messages, IsEmpty());
    Deliver(client, 1, Frame(s_Category, "next"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, ""), Message(1, "next")));
}

TEST_F(Transport, TakesAFrameThatFillsTheBufferExactly)
{
    const Descriptor client = Connect();
    const std::string payload(s_LongestPayload, 'x');
    Deliver(client, 1, Frame(s_Category, payload));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, payload)));
    EXPECT_EQ(m_Service->Get(1).fill, 0);
}

TEST_F(Transport, ClosesOnceTheBufferIsFullOfAFrameThatIsTooLong)
{
    for (const std::uint32_t length : {2049U, 5000U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        SCOPED_TRACE(length);
        const Descriptor client = Connect();
        m_Handler.closed.clear();
        Deliver(client, 1, Frame(s_Category, "good") + FrameHeader(length, s_Category) + "x");
        EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "good")));
        Deliver(client, 1, std::string(s_BufferSize - 9, 'x'));
        EXPECT_EQ(m_Service->Get(1).fill, s_BufferSize);
        EXPECT_THAT(m_Handler.closed, IsEmpty());
        m_Log.Take();
        const int sock = m_Service->GetSock(1);
        Deliver(client, 1, "y");
        EXPECT_THAT(m_Log.Take(), ElementsAre(Adding(1, sock), Selecting(sock + 1), Cleared(1)));
        EXPECT_THAT(m_Handler.closed, ElementsAre(1));
        EXPECT_THAT(m_Handler.messages, IsEmpty());
        EXPECT_TRUE(m_Service->Get(1).IsFree());
    }
}

TEST_F(Transport, ClosesOnAFrameShorterThanItsHeaderAndGoesOnWithTheOthers)
{
    const Descriptor bystander = Connect();
    const int bystanderSock = m_Service->GetSock(1);
    for (std::uint32_t length = 0; length < 8; ++length) {
        SCOPED_TRACE(length);
        Descriptor client = Connect();
        const Descriptor later = Connect();
        m_Handler.closed.clear();
        WriteAll(later.Get(), Frame(s_Category, "later"));
        WaitForBytes(m_Service->GetSock(3), 13);
        WriteAll(bystander.Get(), Frame(s_Category, "before"));
        WaitForBytes(bystanderSock, 14);
        m_Log.Take();
        const int sock = m_Service->GetSock(2);
        const int laterSock = m_Service->GetSock(3);
        Deliver(client, 2,
                Frame(s_Category, "good") + FrameHeader(length, s_Category) +
                    Frame(s_Category, "lost"));
        EXPECT_THAT(m_Handler.TakeMessages(),
                    ElementsAre(Message(1, "before"), Message(2, "good"), Message(3, "later")));
        EXPECT_THAT(m_Log.Take(),
                    ElementsAre(Adding(1, bystanderSock), Adding(2, sock), Adding(3, laterSock),
                                Selecting(laterSock + 1), Read(14, 1, 14),
                                LogCall::RcvMsg(s_Category, 1, "before"), Read(32, 2, 32),
                                LogCall::RcvMsg(s_Category, 2, "good"),
                                LogCall::Error(Text("Frame of %u bytes on cx 2", length)),
                                Cleared(2), Read(13, 3, 13),
                                LogCall::RcvMsg(s_Category, 3, "later")));
        EXPECT_THAT(m_Handler.closed, ElementsAre(2));
        EXPECT_FALSE(IsOpen(sock));
        EXPECT_EQ(ReadExactly(client.Get(), 1), "");
        client.Close();
        // The third goes, too, so that the next round finds the same ids.
        shutdown(later.Get(), SHUT_WR);
        RunClose(3);
    }
}

TEST_F(Transport, LeavesAShortFrameAloneWhileNothingFollowsItsHeader)
{
    const Descriptor client = Connect();
    Deliver(client, 1, FrameHeader(0, s_Category));
    EXPECT_FALSE(m_Service->Get(1).IsFree());
    Deliver(client, 1, "x");
    EXPECT_TRUE(m_Service->Get(1).IsFree());
}

// --- Dispatching ----------------------------------------------------------------------------

TEST_F(Transport, DispatchesByCategory)
{
    RecordingHandler first;
    RecordingHandler last;
    m_Service->manager.RegisterHandler(&first, 0);
    m_Service->manager.RegisterHandler(&last, 19);
    const Descriptor client = Connect();
    Deliver(client, 1, Frame(19, "c") + Frame(0, "a") + Frame(s_Category, "b"));
    EXPECT_THAT(first.messages, ElementsAre(Received{1, 0, "a"}));
    EXPECT_THAT(m_Handler.messages, ElementsAre(Message(1, "b")));
    EXPECT_THAT(last.messages, ElementsAre(Received{1, 19, "c"}));
}

TEST_F(Transport, LogsEachMessageBeforeItsHandlerHasIt)
{
    const Descriptor client = Connect();
    std::vector<LogCall> lastLogged;
    m_Handler.onMessage = [&](const IpcMsgBuf&, int) {
        lastLogged.push_back(m_Log.GetCalls().back());
    };
    Deliver(client, 1, Frame(s_Category, "first") + Frame(s_Category, "second"));
    EXPECT_THAT(lastLogged, ElementsAre(LogCall::RcvMsg(s_Category, 1, "first"),
                                        LogCall::RcvMsg(s_Category, 1, "second")));
}

TEST_F(Transport, LogsToTheManagersAdapterWhenThereIsNoHandler)
{
    const Descriptor client = Connect();
    m_Log.Take();
    Deliver(client, 1, Frame(4, "x") + Frame(20, "y") + Frame(25, "z") + Frame(65535, "w"));
    EXPECT_THAT(m_ManagerLog.Take(),
                ElementsAre(LogCall::Error("No handler for rcvd msg (category 4)"),
                            LogCall::Error("No handler for rcvd msg (category 20)"),
                            LogCall::Error("No handler for rcvd msg (category 25)"),
                            LogCall::Error("No handler for rcvd msg (category 65535)")));
    const int sock = m_Service->GetSock(1);
    EXPECT_THAT(m_Log.Take(),
                ElementsAre(Adding(1, sock), Selecting(sock + 1), Read(36, 1, 36),
                            LogCall::RcvMsg(4, 1, "x"), LogCall::RcvMsg(20, 1, "y"),
                            LogCall::RcvMsg(25, 1, "z"), LogCall::RcvMsg(65535, 1, "w")));
}

// --- Exceptions -----------------------------------------------------------------------------

TEST_F(Transport, DispatchesTheFramesOfAReadAgainWhenAHandlerThrew)
{
    const Descriptor client = Connect();
    m_Log.Take();
    int count = 0;
    m_Handler.onMessage = [&](const IpcMsgBuf&, int) {
        if (++count == 2) {
            throw IpcMsgException(s_HandlersSite);
        }
    };
    Deliver(client, 1, Frame(s_Category, "a") + Frame(s_Category, "b") + Frame(s_Category, "c"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "a"), Message(1, "b")));
    EXPECT_EQ(m_Log.Take().back(), LogCall::Error("Exception caught in Run(): IpcMsgException"));
    EXPECT_EQ(m_Service->Get(1).fill, 27);
    Deliver(client, 1, Frame(s_Category, "d"));
    EXPECT_THAT(m_Handler.TakeMessages(),
                ElementsAre(Message(1, "a"), Message(1, "b"), Message(1, "c"), Message(1, "d")));
    EXPECT_THAT(m_Log.Take(), Contains(Read(9, 1, 36)));
}

TEST_F(Transport, DispatchesAgainWhatCameAlsoWhereHandlersAnsweredInItsPlace)
{
    const Descriptor client = Connect();
    int count = 0;
    m_Handler.onMessage = [&](IpcMsgBuf& msg, int length) {
        msg.data[0] = '*';
        EXPECT_TRUE(m_Transport.SendMsg(m_Service->Get(1), 7, msg, length - 2));
        if (++count == 2) {
            throw IpcMsgException(s_HandlersSite);
        }
    };
    Deliver(client, 1,
            Frame(s_Category, "first") + Frame(s_Category, "second") + Frame(s_Category, "third"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "first"), Message(1, "second")));
    EXPECT_EQ(ReadExactly(client.Get(), 11).substr(8), "*ir");
    Deliver(client, 1, Frame(s_Category, "last"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "*irst"), Message(1, "*econd"),
                                                      Message(1, "third"), Message(1, "last")));
    EXPECT_THAT(m_ManagerLog.Take(), IsEmpty());
    EXPECT_EQ(m_Service->Get(1).fill, 0);
}

TEST_F(Transport, WritesNothingIntoABufferThatAHandlerHasProvided)
{
    const Descriptor client = Connect();
    auto& connection = m_Service->Get(1);
    m_Handler.onMessage = [&](const IpcMsgBuf&, int) { connection.AllocBuffer(2 * s_BufferSize); };
    const std::string frame = Frame(s_Category, "first");
    Deliver(client, 1, frame);
    EXPECT_THAT(std::vector(connection.buffer, connection.buffer + frame.size()), Each(0));
    m_Handler.onMessage = nullptr;
    Deliver(client, 1, Frame(s_Category, "second"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "first"), Message(1, "second")));
}

TEST_F(Transport, LeavesTheOthersAndTheNewcomerForTheNextPassWhenAHandlerThrew)
{
    const Descriptor first = Connect();
    const Descriptor second = Connect();
    const Descriptor newcomer = ConnectTo(m_Service->GetPort());
    WriteAll(second.Get(), Frame(s_Category, "second"));
    WaitForBytes(m_Service->GetSock(2), 14);
    m_Handler.onMessage = [](const IpcMsgBuf& msg, int) {
        if (msg.connection == 1) {
            throw IpcSocketException(s_HandlersSite, 0x2107);
        }
    };
    m_Log.Take();
    Deliver(first, 1, Frame(s_Category, "first"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "first")));
    EXPECT_EQ(m_Service->CountOpen(), 2);
    EXPECT_EQ(m_Log.Take().back(), LogCall::Error("Exception caught in Run(): IpcSocketException"));
    m_Transport.Run();
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(2, "second")));
    EXPECT_EQ(m_Service->CountOpen(), 3);
}

TEST_F(Transport, AbsorbsWhatItsAdapterThrowsBeforeTheDispatching)
{
    for (const std::string_view step :
         {"Adding Cx", "select with max", "Read", "Established connection"}) {
        SCOPED_TRACE(step);
        ActingLogAdapter log;
        SocketService service(&log, nullptr);
        service.manager.RegisterHandler(&m_Handler, s_Category);
        const Descriptor client = service.Connect();
        const Descriptor newcomer = ConnectTo(service.GetPort());
        WaitForBytes(service.transport.GetServer().GetSock(), 1);
        bool hasThrown = false;
        log.onStep = [&](std::string_view format) {
            if (format.starts_with(step) && !std::exchange(hasThrown, true)) {
                throw IpcMsgException(s_HandlersSite);
            }
        };
        EXPECT_NO_THROW(service.Deliver(client, 1, Frame(s_Category, "first")));
        EXPECT_THAT(log.errors, ElementsAre("Exception caught in Run(): IpcMsgException"));
        service.Deliver(client, 1, Frame(s_Category, "second"));
        EXPECT_THAT(m_Handler.TakeMessages(),
                    ElementsAre(Message(1, "first"), Message(1, "second")));
        ASSERT_EQ(service.CountOpen(), 2);
        service.Deliver(newcomer, 2, Frame(s_Category, "third"));
        EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(2, "third")));
        EXPECT_THAT(log.errors, SizeIs(1));
    }
}

TEST_F(Transport, AbsorbsWhatItsAdapterThrowsAfterAClose)
{
    ActingLogAdapter log;
    SocketService service(&log, nullptr);
    service.manager.RegisterHandler(&m_Handler, s_Category);
    Descriptor client = service.Connect();
    const int sock = service.GetSock(1);
    log.onStep = [](std::string_view format) {
        if (format == "Connection %d cleared") {
            throw IpcMsgException(s_HandlersSite);
        }
    };
    client.Close();
    WaitForBytes(sock, 1);
    EXPECT_NO_THROW(service.transport.Run());
    EXPECT_THAT(log.errors, ElementsAre("Exception caught in Run(): IpcMsgException"));
    EXPECT_FALSE(IsOpen(sock));
    ASSERT_TRUE(service.Get(1).IsFree());
    const Descriptor newcomer = service.Connect();
    service.Deliver(newcomer, 1, Frame(s_Category, "fresh"));
    EXPECT_THAT(m_Handler.messages, ElementsAre(Message(1, "fresh")));
    EXPECT_THAT(m_Handler.closed, ElementsAre(1));
    EXPECT_THAT(log.errors, SizeIs(1));
}

TEST_F(Transport, LogsTheTextOfAnyExceptionOfTheFamily)
{
    const Descriptor client = Connect();
    m_Handler.onMessage = [](const IpcMsgBuf&, int) {
        throw VelaHost_Utility::BadStateException(s_HandlersSite, "100%% %s", "odd");
    };
    Deliver(client, 1, Frame(s_Category, "x"));
    EXPECT_EQ(m_Log.Take().back(),
              LogCall::Error("Exception caught in Run(): BadStateException(100% odd)"));
}

TEST_F(Transport, PassesOtherExceptionsToTheCaller)
{
    const Descriptor client = Connect();
    m_Handler.onMessage = [](const IpcMsgBuf&, int) { throw std::runtime_error("other"); };
    EXPECT_THROW(Deliver(client, 1, Frame(s_Category, "x")), std::runtime_error);
    m_Handler.onMessage = [](const IpcMsgBuf&, int) { throw 42; };
    EXPECT_THROW(Deliver(client, 1, Frame(s_Category, "y")), int);
    m_Handler.TakeMessages();
    m_Handler.onMessage = nullptr;
    Deliver(client, 1, Frame(s_Category, "z"));
    EXPECT_THAT(m_Handler.TakeMessages(),
                ElementsAre(Message(1, "x"), Message(1, "y"), Message(1, "z")));
}

TEST_F(Transport, ClosesAConnectionWhoseHandlerThrewOnAFullBuffer)
{
    const Descriptor client = Connect();
    m_Handler.onMessage = [](const IpcMsgBuf&, int) { throw IpcMsgException(s_HandlersSite); };
    Deliver(client, 1, Frame(s_Category, std::string(s_LongestPayload, 'x')));
    EXPECT_EQ(m_Service->Get(1).fill, s_BufferSize);
    Deliver(client, 1, "y");
    EXPECT_THAT(m_Handler.messages, SizeIs(1));
    EXPECT_THAT(m_Handler.closed, ElementsAre(1));
    EXPECT_TRUE(m_Service->Get(1).IsFree());
}

TEST_F(Transport, TellsOfACloseAgainWhenAHandlerThrewAtIt)
{
    Descriptor client = Connect();
    client.Close();
    m_Handler.onClose = [](int) { throw IpcMsgException(s_HandlersSite); };
    RunClose(1);
    EXPECT_FALSE(m_Service->Get(1).IsFree());
    m_Handler.onClose = nullptr;
    RunClose(1);
    EXPECT_TRUE(m_Service->Get(1).IsFree());
    EXPECT_THAT(m_Handler.closed, ElementsAre(1, 1));
}

TEST_F(Transport, DispatchesNothingAgainWhenAHandlerThrewAtTheCloseForAShortFrame)
{
    const Descriptor client = Connect();
    m_Handler.onClose = [](int) { throw IpcMsgException(s_HandlersSite); };
    Deliver(client, 1, Frame(s_Category, "good") + FrameHeader(3, s_Category) + "x");
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "good")));
    EXPECT_FALSE(m_Service->Get(1).IsFree());
    m_Handler.onClose = nullptr;
    m_Log.Take();
    Deliver(client, 1, "y");
    EXPECT_THAT(m_Handler.messages, IsEmpty());
    EXPECT_THAT(m_Handler.closed, ElementsAre(1, 1));
    EXPECT_THAT(m_Log.Take(), Contains(LogCall::Error("Frame of 3 bytes on cx 1")));
    EXPECT_TRUE(m_Service->Get(1).IsFree());
}

// --- Closing --------------------------------------------------------------------------------

TEST_F(Transport, TellsEveryHandlerInCategoryOrderThenClosesThenLogs)
{
    constexpr const char* cleared = "Connection %d cleared";
    ActingLogAdapter log;
    SocketService service(&log, nullptr);
    Descriptor client = service.Connect();
    const int sock = service.GetSock(1);
    std::vector<int> told;
    std::vector<std::string> steps;
    std::vector<std::unique_ptr<RecordingHandler>> handlers;
    for (const int category : {19, 5, 3, 0}) {
        handlers.push_back(std::make_unique<RecordingHandler>());
        handlers.back()->onClose = [&, category](int id) {
            EXPECT_EQ(id, 1);
            EXPECT_TRUE(IsOpen(sock));
            EXPECT_EQ(service.GetSock(1), sock);
            EXPECT_THAT(steps, Not(Contains(cleared)));
            told.push_back(category);
        };
        service.manager.RegisterHandler(handlers.back().get(), category);
    }
    log.onStep = [&](std::string_view format) {
        steps.emplace_back(format);
        if (format == cleared) {
            EXPECT_THAT(told, SizeIs(4));
            EXPECT_FALSE(IsOpen(sock));
            EXPECT_TRUE(service.Get(1).IsFree());
        }
    };
    client.Close();
    WaitForBytes(sock, 1);
    service.transport.Run();
    EXPECT_THAT(told, ElementsAre(0, 3, 5, 19));
    EXPECT_THAT(steps, ElementsAre("Adding Cx %d (socket %d) to select set", "select with max=%d",
                                   cleared));
    EXPECT_FALSE(IsOpen(sock));
    EXPECT_TRUE(service.Get(1).IsFree());
}

TEST_F(Transport, TellsOnceOfACloseThatAHandlerBroughtAbout)
{
    const Descriptor client = Connect();
    m_Handler.onMessage = [&](const IpcMsgBuf& msg, int) {
        shutdown(m_Service->GetSock(msg.connection), SHUT_RDWR);
    };
    Deliver(client, 1, Frame(s_Category, "first") + Frame(s_Category, "second"));
    EXPECT_THAT(m_Handler.messages, ElementsAre(Message(1, "first"), Message(1, "second")));
    EXPECT_THAT(m_Handler.closed, IsEmpty());
    RunClose(1);
    EXPECT_THAT(m_Handler.closed, ElementsAre(1));
    EXPECT_TRUE(m_Service->Get(1).IsFree());
    EXPECT_EQ(ReadExactly(client.Get(), 1), "");
    const Descriptor newcomer = Connect();
    EXPECT_FALSE(m_Service->Get(1).IsFree());
    EXPECT_THAT(m_Handler.closed, ElementsAre(1));
}

TEST_F(Transport, ClosesAConnectionThatIsResetAfterPrintingTheError)
{
    Descriptor client = Connect();
    Reset(client);
    CapturedStdout output;
    RunClose(1);
    EXPECT_EQ(output.Stop(), "status == -1   errno == 104  in Socket::recv\n");
    EXPECT_TRUE(m_Service->Get(1).IsFree());
    EXPECT_THAT(m_Handler.closed, ElementsAre(1));
}

TEST_F(Transport, ClosesAConnectionWhoseClientHasOnlyStoppedSending)
{
    const Descriptor client = Connect();
    Deliver(client, 1, Frame(s_Category, "last words"));
    shutdown(client.Get(), SHUT_WR);
    RunClose(1);
    EXPECT_THAT(m_Handler.closed, ElementsAre(1));
    EXPECT_EQ(ReadExactly(client.Get(), 1), "");
}

TEST_F(Transport, DispatchesWhatCameBeforeTheClose)
{
    Descriptor client = Connect();
    WriteAll(client.Get(), Frame(s_Category, "last words"));
    client.Close();
    m_Transport.Run();
    m_Transport.Run();
    EXPECT_THAT(m_Handler.messages, ElementsAre(Message(1, "last words")));
    EXPECT_THAT(m_Handler.closed, ElementsAre(1));
}

TEST_F(Transport, GivesFreedIdsAgainLowestFirstWithAnEmptyBuffer)
{
    Descriptor first = Connect();
    Descriptor second = Connect();
    const Descriptor third = Connect();
    auto& connection = m_Service->Get(1);
    const unsigned char* buffer = connection.buffer;
    EXPECT_EQ(connection.bufferSize, s_BufferSize);
    Deliver(first, 1, Frame(s_Category, "half").substr(0, 10));
    second.Close();
    RunClose(2);
    first.Close();
    RunClose(1);
    // Left as they were until the connection is given again.
    EXPECT_EQ(connection.fill, 10);
    EXPECT_EQ(connection.buffer, buffer);
    const Descriptor newFirst = Connect();
    EXPECT_EQ(&m_Service->Get(1), &connection);
    EXPECT_FALSE(connection.IsFree());
    EXPECT_EQ(connection.buffer, buffer);
    EXPECT_EQ(connection.fill, 0);
    Deliver(newFirst, 1, Frame(s_Category, "fresh"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "fresh")));
    const Descriptor newSecond = Connect();
    EXPECT_FALSE(m_Service->Get(2).IsFree());
    const Descriptor fourth = Connect();
    EXPECT_EQ(m_Service->manager.GetConnectionCount(), 4);
}

TEST_F(Transport, NeverLowersTheHighestDescriptor)
{
    const Descriptor first = Connect();
    Descriptor second = Connect();
    const int highest = m_Service->GetSock(2);
    second.Close();
    RunClose(2);
    m_Log.Take();
    Deliver(first, 1, Frame(s_Category, "x"));
    EXPECT_THAT(m_Log.Take(), Contains(Selecting(highest + 1)));
}

// --- Accepting ------------------------------------------------------------------------------

TEST_F(Transport, AcceptsAfterServingItsConnections)
{
    const Descriptor client = Connect();
    WriteAll(client.Get(), Frame(s_Category, "x"));
    WaitForBytes(m_Service->GetSock(1), 9);
    const Descriptor newcomer = ConnectTo(m_Service->GetPort());
    WaitForBytes(Listener(), 1);
    m_Handler.onMessage = [&](const IpcMsgBuf&, int) { EXPECT_EQ(m_Service->CountOpen(), 1); };
    m_Transport.Run();
    EXPECT_THAT(m_Handler.messages, SizeIs(1));
    EXPECT_EQ(m_Service->CountOpen(), 2);
}

TEST_F(Transport, GivesTheNewcomerTheIdThatWasFreedInTheSamePass)
{
    Descriptor client = Connect();
    client.Close();
    WaitForBytes(m_Service->GetSock(1), 1);
    const Descriptor newcomer = ConnectTo(m_Service->GetPort());
    WaitForBytes(Listener(), 1);
    m_Transport.Run();
    EXPECT_THAT(m_Handler.closed, ElementsAre(1));
    EXPECT_FALSE(m_Service->Get(1).IsFree());
    EXPECT_EQ(m_Service->manager.GetConnectionCount(), 1);
}

TEST_F(Transport, ServesItsConnectionsWhileTheProcessIsOutOfDescriptors)
{
    if (IsOnValgrind()) {
        GTEST_SKIP() << "valgrind keeps account of the limit itself";
    }
    const Descriptor client = Connect();
    const Descriptor newcomer = ConnectTo(m_Service->GetPort());
    m_Log.Take();
    const int sock = m_Service->GetSock(1);
    {
        // Only while accepting: the sanitizers need descriptors of their own in between.
        Hook hook(interposed::accept, [&](int listener, sockaddr* address, socklen_t* length) {
            // None is free, and none above the newcomer's own end is allowed.
            const OccupiedDescriptors occupied(newcomer.Get());
            const DescriptorLimit limit(static_cast<std::size_t>(newcomer.Get()) + 1);
            return accept(listener, address, length);
        });
        for (const char* payload : {"one", "two"}) {
            Deliver(client, 1, Frame(s_Category, payload));
            EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, payload)));
            EXPECT_THAT(m_Log.Take(),
                        ElementsAre(Adding(1, sock), Selecting(sock + 1), Read(11, 1, 11),
                                    LogCall::RcvMsg(s_Category, 1, payload),
                                    LogCall::Error("Exception caught in Run(): "
                                                   "IpcSocketException")));
            EXPECT_EQ(m_Service->CountOpen(), 1);
        }
    }
    m_Transport.Run();
    EXPECT_EQ(m_Service->CountOpen(), 2);
    EXPECT_EQ(m_Service->manager.GetConnectionCount(), 2);
    Deliver(newcomer, 2, Frame(s_Category, "in at last"));
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(2, "in at last")));
}

TEST_F(Transport, LogsAFailedAcceptOnceItself)
{
    const Descriptor newcomer = ConnectTo(m_Service->GetPort());
    CapturedStdout output;
    FailingCall failing("accept", EMFILE);
    m_Transport.Run();
    EXPECT_EQ(output.Stop(), "IpcSocketException at src/unix/ServerSocket:98\n");
    EXPECT_EQ(m_Service->CountOpen(), 0);
}

TEST_F(Transport, TurnsAwayAClientWhoseDescriptorSelectCannotHold)
{
    const DescriptorLimit limit(FD_SETSIZE + 100);
    const Descriptor client = Connect();
    const Descriptor newcomer = ConnectTo(m_Service->GetPort());
    m_Log.Take();
    const int sock = m_Service->GetSock(1);
    {
        const OccupiedDescriptors occupied(FD_SETSIZE);
        Deliver(client, 1, Frame(s_Category, "before"));
        EXPECT_THAT(m_Log.Take(),
                    ElementsAre(Adding(1, sock), Selecting(sock + 1), Read(14, 1, 14),
                                LogCall::RcvMsg(s_Category, 1, "before"),
                                LogCall::Error("Socket 1024 is too high to be waited for")));
        EXPECT_EQ(m_Service->CountOpen(), 1);
        EXPECT_FALSE(IsOpen(FD_SETSIZE));
        EXPECT_EQ(ReadExactly(newcomer.Get(), 1), "");
        Deliver(client, 1, Frame(s_Category, "after"));
    }
    EXPECT_THAT(m_Handler.TakeMessages(), ElementsAre(Message(1, "before"), Message(1, "after")));
    EXPECT_THAT(m_Handler.closed, IsEmpty());
    const Descriptor next = Connect();
    EXPECT_FALSE(m_Service->Get(2).IsFree());
}

TEST_F(Transport, ServesTheHighestDescriptorThatSelectCanHold)
{
    const DescriptorLimit limit(FD_SETSIZE + 100);
    const Descriptor client = ConnectTo(m_Service->GetPort());
    {
        const OccupiedDescriptors occupied(FD_SETSIZE - 1);
        m_Transport.Run();
    }
    ASSERT_EQ(m_Service->GetSock(1), FD_SETSIZE - 1);
    Deliver(client, 1, Frame(s_Category, "x"));
    EXPECT_THAT(m_Handler.messages, SizeIs(1));
}

TEST(IpcSocketTransportAccept, CountsDescriptorZeroAsAFailureButServesIt)
{
    // In a process of its own, which can do without its standard input.
    ChildProcess child([] {
        RecordingLogAdapter log;
        RecordingHandler handler;
        SocketService service(&log, nullptr);
        service.manager.RegisterHandler(&handler, s_Category);
        const Descriptor client = ConnectTo(service.GetPort());
        close(STDIN_FILENO);
        service.transport.Run();
        if (log.GetCalls().back() !=
            LogCall::Error("Exception caught in Run(): IpcSocketException")) {
            return 1;
        }
        service.Deliver(client, 1, Frame(s_Category, "x"));
        return service.GetSock(1) == 0 && handler.messages.size() == 1 ? 0 : 2;
    });
    EXPECT_EQ(child.WaitForExitStatus(), 0);
}

// --- Sending --------------------------------------------------------------------------------

/// A record with room for the largest payload of a stream.
struct LargeMessage
{
    IpcMsgBuf head;
    unsigned char more[s_BufferSize - sizeof(IpcMsgBuf)];
};

TEST_F(Transport, SendsAFrameAndLogsItBefore)
{
    const Descriptor client = Connect();
    m_Log.Take();
    IpcMsgBuf message{};
    message.mtype = 99;
    message.connection = 0xabcd;
    std::memcpy(message.data, "reply!", 6);
    std::vector<std::vector<LogCall>> loggedBefore;
    const Hook hook(interposed::send,
                    [&](int, const void*, std::size_t, int) -> std::optional<ssize_t> {
                        loggedBefore.push_back(m_Log.GetCalls());
                        return std::nullopt;
                    });
    EXPECT_TRUE(m_Transport.SendMsg(m_Service->Get(1), 7, message, 6));
    EXPECT_THAT(loggedBefore, ElementsAre(ElementsAre(LogCall::SendMsg(7, 1, "reply!"))));
    // Written out byte by byte: this is what clients in other languages read.
    EXPECT_EQ(ReadExactly(client.Get(), 14), std::string("\x0e\0\0\0"
                                                         "\xcd\xab"
                                                         "\x07\0"
                                                         "reply!",
                                                         14));
    EXPECT_EQ(message.mtype, 14);
    EXPECT_EQ(message.category, 7);
    EXPECT_THAT(m_Log.Take(), ElementsAre(LogCall::SendMsg(7, 1, "reply!")));
}

TEST_F(Transport, SendsTheLowHalfOfACategoryThatItLogsWhole)
{
    const Descriptor client = Connect();
    m_Log.Take();
    IpcMsgBuf message{};
    EXPECT_TRUE(m_Transport.SendMsg(m_Service->Get(1), 0x12345, message, 1));
    EXPECT_EQ(ReadExactly(client.Get(), 9).substr(6, 2), "\x45\x23");
    EXPECT_THAT(m_Log.Take(), ElementsAre(LogCall::SendMsg(0x12345, 1, std::string(1, '\0'))));
}

TEST_F(Transport, SendsFromNothingToTheLongestPayload)
{
    const Descriptor client = Connect();
    m_Log.Take();
    LargeMessage message{};
    unsigned char* payload = reinterpret_cast<unsigned char*>(&message) + s_MsgHeaderSize;
    std::memset(payload, 'p', s_LongestPayload);
    EXPECT_TRUE(m_Transport.SendMsg(m_Service->Get(1), 1, message.head, 0));
    EXPECT_TRUE(m_Transport.SendMsg(m_Service->Get(1), 2, message.head, s_LongestPayload));
    EXPECT_EQ(ReadExactly(client.Get(), 8), std::string("\x08\0\0\0\0\0\x01\0", 8));
    EXPECT_EQ(ReadExactly(client.Get(), 8), std::string("\0\x08\0\0\0\0\x02\0", 8));
    EXPECT_EQ(ReadExactly(client.Get(), s_LongestPayload), std::string(s_LongestPayload, 'p'));
    EXPECT_THAT(m_Log.Take(),
                ElementsAre(LogCall::SendMsg(1, 1, ""),
                            LogCall::SendMsg(2, 1, std::string(s_LongestPayload, 'p'))));
}

TEST_F(Transport, RefusesLengthsThatNoFrameHas)
{
    const Descriptor client = Connect();
    m_Log.Take();
    LargeMessage message{};
    CallCounter calls("send");
    for (const int length : {-1, -8, s_LongestPayload + 1, 0x7fffffff, -0x7fffffff - 1}) {
        errno = 0;
        EXPECT_FALSE(m_Transport.SendMsg(m_Service->Get(1), 7, message.head, length)) << length;
        EXPECT_EQ(errno, EMSGSIZE);
    }
    EXPECT_EQ(calls.GetCallCount(), 0U);
    EXPECT_EQ(message.head.mtype, 0);
    EXPECT_EQ(message.head.category, 0);
    EXPECT_THAT(m_Log.Take(), IsEmpty());
}

TEST_F(Transport, LeavesTheConnectionOpenWhenASendFails)
{
    const Descriptor client = Connect();
    m_Log.Take();
    IpcMsgBuf message{};
    {
        FailingCall failing("send", ENOBUFS);
        EXPECT_FALSE(m_Transport.SendMsg(m_Service->Get(1), 7, message, 4));
        EXPECT_EQ(errno, ENOBUFS);
    }
    EXPECT_THAT(m_Log.Take(), ElementsAre(LogCall::SendMsg(7, 1, std::string(4, '\0'))));
    EXPECT_FALSE(m_Service->Get(1).IsFree());
    EXPECT_THAT(m_Handler.closed, IsEmpty());
    EXPECT_TRUE(m_Transport.SendMsg(m_Service->Get(1), 7, message, 4));
    EXPECT_EQ(ReadExactly(client.Get(), 12).size(), 12U);
}

TEST_F(Transport, SurvivesSendingToAClientThatIsGone)
{
    Descriptor client = Connect();
    Reset(client);
    WaitForBytes(m_Service->GetSock(1), 1);
    IpcMsgBuf message{};
    EXPECT_FALSE(m_Transport.SendMsg(m_Service->Get(1), 7, message, 4));
    EXPECT_FALSE(m_Transport.SendMsg(m_Service->Get(1), 7, message, 4));
    EXPECT_EQ(errno, EPIPE);
    RunClose(1);
    EXPECT_FALSE(m_Transport.SendMsg(m_Service->Get(1), 7, message, 4));
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Transport, TakesAPartialSendForASuccess)
{
    const Descriptor client = Connect();
    Hook hook(interposed::send, [](int, const void*, std::size_t, int) { return 1; });
    IpcMsgBuf message{};
    EXPECT_TRUE(m_Transport.SendMsg(m_Service->Get(1), 7, message, 100));
}

// --- Many clients ---------------------------------------------------------------------------

/// Checks that each connection's messages are those of one client, once each and in order. Their
/// payloads begin with the client's number and the message's.
class OrderChecker final : public IpcMsgHandler
{
public:
    struct Header
    {
        std::int32_t client;
        std::int32_t number;
    };

    static std::string Payload(int client, int number, std::size_t padding)
    {
        const Header header{client, number};
        std::string payload;
        Append(payload, &header, sizeof header);
        return payload.append(padding, static_cast<char>('A' + number % 26));
    }

    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        ASSERT_GE(length, static_cast<int>(sizeof(Header)));
        Header header{};
        std::memcpy(&header, msg.data, sizeof header);
        const int connection = msg.connection;
        const auto [client, isNew] = clientOfConnection.emplace(connection, header.client);
        ASSERT_EQ(client->second, header.client);
        ASSERT_EQ(header.number, counts[header.client]);
        for (int i = static_cast<int>(sizeof header); i < length; ++i) {
            ASSERT_EQ(msg.data[i], 'A' + header.number % 26);
        }
        ++counts[header.client];
        if (onMessage) {
            onMessage(header);
        }
    }

    void HandleIpcClose(int connectionId) override
    {
        clientOfConnection.erase(connectionId);
        ++closed;
    }

    std::map<int, int> clientOfConnection;
    std::map<int, int> counts;
    int closed = 0;
    std::function<void(const Header&)> onMessage;
};

TEST_F(Transport, ServesTwoHundredClientsAtOnce)
{
    constexpr int clientCount = 200;
    constexpr int messagesPerClient = 50;
    SocketService service(nullptr, nullptr);
    OrderChecker checker;
    service.manager.RegisterHandler(&checker, s_Category);
    std::atomic<int> accepted{0};
    std::jthread clients([&] {
        std::mt19937 random(20240229);
        std::vector<Descriptor> descriptors;
        std::vector<std::string> pending(clientCount);
        const int port = service.GetPort();
        for (int client = 0; client < clientCount; ++client) {
            descriptors.push_back(ConnectTo(port));
            // One at a time: the system keeps only 5 waiting.
            accepted.wait(client);
            for (int number = 0; number < messagesPerClient; ++number) {
                pending[static_cast<std::size_t>(client)] +=
                    Frame(s_Category, OrderChecker::Payload(client, number, random() % 200));
            }
        }
        for (int left = clientCount; left > 0;) {
            const std::size_t client = random() % clientCount;
            std::string& bytes = pending[client];
            if (bytes.empty()) {
                continue;
            }
            const std::size_t part = std::min<std::size_t>(bytes.size(), 1 + random() % 1500);
            WriteAll(descriptors[client].Get(), std::string_view(bytes).substr(0, part));
            bytes.erase(0, part);
            left -= bytes.empty() ? 1 : 0;
        }
    });
    while (checker.closed < clientCount) {
        service.transport.Run();
        if (accepted != clientCount) {
            accepted = service.CountOpen();
            accepted.notify_one();
        }
        ASSERT_FALSE(HasFatalFailure());
    }
    clients.join();
    EXPECT_THAT(checker.counts, SizeIs(clientCount));
    for (const auto& [client, count] : checker.counts) {
        EXPECT_EQ(count, messagesPerClient) << "client " << client;
    }
    EXPECT_EQ(service.CountOpen(), 0);
}

TEST_F(Transport, SurvivesClientsThatAreKilled)
{
    constexpr int clientCount = 20;
    constexpr int messagesPerSurvivor = 400;
    const auto isVictim = [](int client) { return client % 2 == 1; };
    SocketService service(nullptr, nullptr);
    OrderChecker checker;
    service.manager.RegisterHandler(&checker, s_Category);

    // The clients wait for their turn: the system keeps only 5 waiting to be accepted.
    int turn[2];
    ASSERT_EQ(pipe2(turn, O_CLOEXEC), 0);
    const Descriptor turnReader(turn[0]);
    const Descriptor turnWriter(turn[1]);
    const int port = service.GetPort();
    std::vector<std::unique_ptr<ChildProcess>> processes;
    for (int client = 0; client < clientCount; ++client) {
        processes.push_back(std::make_unique<ChildProcess>([&, client] {
            std::mt19937 random(static_cast<unsigned int>(client));
            ReadExactly(turnReader.Get(), 1);
            const Descriptor descriptor = ConnectTo(port);
            for (int number = 0; isVictim(client) || number < messagesPerSurvivor; ++number) {
                const std::string frame =
                    Frame(s_Category, OrderChecker::Payload(client, number, random() % 1500));
                const std::size_t cut = random() % frame.size();
                WriteAll(descriptor.Get(), std::string_view(frame).substr(0, cut));
                WriteAll(descriptor.Get(), std::string_view(frame).substr(cut));
            }
            return 0;
        }));
    }

    std::mt19937 random(4711);
    std::vector<int> lastWords;
    for (int client = 0; client < clientCount; ++client) {
        lastWords.push_back(1 + static_cast<int>(random() % 300));
    }
    checker.onMessage = [&](const OrderChecker::Header& header) {
        const auto client = static_cast<std::size_t>(header.client);
        if (isVictim(header.client) && header.number == lastWords[client]) {
            // In the middle of whatever it is sending by now.
            processes[client]->Kill(SIGKILL);
        }
    };
    {
        // A client that is killed with a reply unread would make the system reset; none is.
        int open = 0;
        for (int client = 0; client < clientCount; ++client) {
            WriteAll(turnWriter.Get(), "t");
            while (open + checker.closed == client) {
                service.transport.Run();
                open = service.CountOpen();
            }
        }
        while (checker.closed < clientCount) {
            service.transport.Run();
            ASSERT_FALSE(HasFatalFailure());
        }
    }
    for (int client = 0; client < clientCount; ++client) {
        const int status = processes[static_cast<std::size_t>(client)]->WaitForExitStatus();
        if (isVictim(client)) {
            EXPECT_EQ(status, -SIGKILL);
            EXPECT_GT(checker.counts[client], lastWords[static_cast<std::size_t>(client)]);
        } else {
            EXPECT_EQ(status, 0);
            EXPECT_EQ(checker.counts[client], messagesPerSurvivor) << "client " << client;
        }
    }
    EXPECT_EQ(service.CountOpen(), 0);
}

TEST_F(Transport, SendsFromAnotherThreadWhileItRuns)
{
    constexpr int requestCount = 500;
    std::mutex mutex;
    std::condition_variable_any changed;
    std::vector<std::pair<SocketService::Connection*, std::string>> requests;
    m_Handler.onMessage = [&](const IpcMsgBuf& msg, int length) {
        // The connection is looked up here, on the thread that runs the transport.
        const std::lock_guard lock(mutex);
        requests.emplace_back(
            m_Service->manager.GetConnection(msg.connection),
            std::string(reinterpret_cast<const char*>(msg.data), static_cast<std::size_t>(length)));
        changed.notify_one();
    };
    std::jthread responder([&](const std::stop_token& stop) {
        std::unique_lock lock(mutex);
        while (changed.wait(lock, stop, [&] { return !requests.empty(); })) {
            const auto work = std::exchange(requests, {});
            lock.unlock();
            for (const auto& [connection, text] : work) {
                IpcMsgBuf reply{};
                std::memcpy(reply.data, text.data(), text.size());
                EXPECT_TRUE(m_Transport.SendMsg(*connection, s_Category, reply,
                                                static_cast<int>(text.size())));
            }
            lock.lock();
        }
    });
    const int port = m_Service->GetPort();
    std::jthread client([port] {
        const Descriptor descriptor = ConnectTo(port);
        for (int i = 0; i < requestCount; ++i) {
            const std::string text = std::to_string(i);
            WriteAll(descriptor.Get(), Frame(s_Category, text));
            EXPECT_EQ(ReadExactly(descriptor.Get(), 8 + text.size()).substr(8), text);
        }
    });
    while (m_Handler.closed.empty()) {
        m_Transport.Run();
    }
    EXPECT_THAT(m_Handler.messages, SizeIs(requestCount));
}

TEST_F(Transport, LetsAHandlerEndASendThatItsClientKeepsWaiting)
{
    std::atomic<pid_t> sender{0};
    int error = 0;
    std::jthread responder;
    // Goes before the thread, also when the test fails: the send ends with its client.
    const Descriptor client = Connect();
    const int sock = m_Service->GetSock(1);
    m_Handler.onMessage = [&](const IpcMsgBuf& msg, int) {
        const int smallBuffer = 4096;
        EXPECT_EQ(setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &smallBuffer, sizeof smallBuffer), 0);
        responder = std::jthread([&, connection = &m_Service->Get(msg.connection)] {
            sender = gettid();
            sender.notify_one();
            LargeMessage message{};
            while (m_Transport.SendMsg(*connection, 7, message.head, s_LongestPayload)) {
            }
            error = errno;
        });
    };
    m_Handler.onClose = [&](int id) {
        EXPECT_TRUE(IsOpen(sock));
        shutdown(m_Service->GetSock(id), SHUT_RDWR);
        responder.join();
    };
    Deliver(client, 1, Frame(s_Category, "request"));
    sender.wait(0);
    WaitUntilInCall(sender, s_SendCalls);
    // The client reads nothing, but says that it has nothing more to send.
    shutdown(client.Get(), SHUT_WR);
    RunClose(1);
    EXPECT_EQ(error, EPIPE);
    EXPECT_THAT(m_Handler.closed, ElementsAre(1));
    EXPECT_TRUE(m_Service->Get(1).IsFree());
    EXPECT_FALSE(IsOpen(sock));
}

} // namespace

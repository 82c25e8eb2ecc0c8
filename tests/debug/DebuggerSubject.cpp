// A process for debuggers to look at: its objects are in states that the test knows, and it ends
// itself by abort() when it has them there. What is printed are the globals.

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_Ipc/IpcSocketException.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>
#include <VelaHost_OS/ProcessMutex.h>
#include <VelaHost_OS/ThreadEvent.h>
#include <VelaHost_OS/ThreadMutex.h>
#include <VelaHost_OS/TimerQueue.h>
#include <VelaHost_Utility/Lockable.h>
#include <VelaHost_Utility/PropertiesEx.h>
#include <VelaHost_Utility/Timer.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <netinet/in.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace subject {

using namespace VelaHost_Ipc;
using namespace VelaHost_OS;
using namespace VelaHost_Utility;

void Quiet(const Exception& /*e*/) {}

/// Not one of the library's: what it adds must not be hidden.
class OwnException : public Exception
{
public:
    explicit OwnException(int detail)
        : Exception({"Loader", "loader.cpp", 12, Quiet}, 0x4711), m_Detail(detail)
    {
        SetText("no \"left\" slot");
    }

    int m_Detail;
};

class Blinker : public Timer::Handler
{
public:
    void OnTimer(Timer* /*timer*/) override {}
};

class Named
{
public:
    virtual ~Named() noexcept(false) = default;
    const char* m_Name = "watchdog";
};

/// Its timer is not where the object begins.
class Watchdog : public Named, public Timer
{
public:
    using Timer::Timer;
};

class OwnRequestHandler final : public TimerService::ReqHandler
{
public:
    void Fire(Locker& /*locker*/) override {}
};

class Guarded : public Lockable
{
public:
    int m_State = 7;
};

/// A thread that has run into the system's wait for a lock or a condition.
class SleepingThread
{
public:
    explicit SleepingThread(std::function<void()> body)
        : m_Thread([this, run = std::move(body)] {
              m_Id = static_cast<pid_t>(syscall(SYS_gettid));
              run();
          })
    {
        while (m_Id == 0 || !IsInFutex()) {
            std::this_thread::yield();
        }
        m_Thread.detach();
    }

private:
    bool IsInFutex() const
    {
        std::string call;
        std::ifstream("/proc/self/task/" + std::to_string(m_Id) + "/syscall") >> call;
#ifdef SYS_futex_time64
        if (call == std::to_string(SYS_futex_time64)) {
            return true;
        }
#endif
        return call == std::to_string(SYS_futex);
    }

    std::atomic<pid_t> m_Id{0};
    std::thread m_Thread;
};

pid_t mainThread;

ThreadMutex freeMutex;
ThreadMutex usedMutex;
ThreadMutex heldMutex;
ThreadMutex wantedMutex;
Guarded freeObject;
Guarded heldObject;
const Locker* outerLocker;
const Locker* releasedLocker;
alignas(ThreadMutex) unsigned char notAMutex[sizeof(ThreadMutex)];
ThreadMutex& neverConstructed = reinterpret_cast<ThreadMutex&>(notAMutex);
ProcessMutex processMutex("subject.lock");

ThreadEvent clearEvent;
ThreadEvent setEvent;
ThreadEvent awaitedEvent;

Properties settings;
Properties failedSettings;
PropertiesEx sections;
const Property* someProperty;

const SystemException* systemFailure;
const Exception* anyFailure;
const IpcSocketException* socketFailure;
const OwnException* ownFailure;

Blinker blinker;
Timer stoppedTimer(250, &blinker, false);
Timer runningTimer(3'600'000, &blinker, true);
Watchdog watchdog(7'200'000, nullptr, false);
OwnRequestHandler ownHandler;
TimerQueue unusedQueue;
TimerService* queue;
TimerService::Request* firstRequest;

int serverPort;
int clientPort;
Socket noSocket;
Socket clientSocket;
IpcConnectionManager<IpcSocketTransport> socketManager(nullptr);
IpcConnectionManager<IpcMsgQueueTransport> queueManager(nullptr);

class IgnoringHandler : public IpcMsgHandler
{
public:
    void HandleIpcMessage(IpcMsgBuf& /*msg*/, int /*length*/) override {}
};
IgnoringHandler ignoring;

void MakeLocks()
{
    mainThread = static_cast<pid_t>(syscall(SYS_gettid));
    usedMutex.Lock();
    usedMutex.Unlock();
    heldMutex.Lock();
    wantedMutex.Lock();
    const SleepingThread wanting([] { wantedMutex.Lock(); });
    outerLocker = new Locker(heldObject);
    new Locker(heldObject);
    auto* const released = new Locker(freeObject);
    released->Unlock();
    releasedLocker = released;
    setEvent.Set();
    const SleepingThread awaiting([] { awaitedEvent.Wait(-1); });
}

void MakeConfiguration()
{
    settings.AddProperty("Port", 4711U);
    someProperty = settings.AddProperty("Name", "left \"slot\"");
    settings.AddProperty("Zero", 0U);
    std::istringstream bad("A = 1\nnonsense\n");
    try {
        failedSettings.Load(bad);
    } catch (const PropertiesException&) {
        // The last error is what is looked at.
    }
    sections.AddProperty("Mode", 2U);
    sections.AddSection("Board", "left 1")->AddProperty("Speed", "fast");
    sections.AddSection("Board", "right");
}

void MakeExceptions()
{
    errno = EBUSY;
    systemFailure = new SystemException({nullptr, "src/somewhere", 68, Quiet}, 0x2002);
    anyFailure = systemFailure;
    socketFailure =
        new IpcSocketException({nullptr, "src/unix/ClientSocket", 52, Quiet}, 0x2105, ECONNREFUSED);
    ownFailure = new OwnException(99);
}

void MakeTimers()
{
    runningTimer.Start();
    watchdog.Start();
    queue = TimerService::GetInstance();
    const Locker lock(*queue);
    firstRequest = queue->MakeRequest(&ownHandler, 1'800'000);
    queue->MakeRequest(nullptr, 86'400'000);
}

int LocalPort(int descriptor)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

/// Two clients, of which the second is gone; the first has sent the beginning of a frame.
void MakeConnections()
{
    socketManager.RegisterHandler(&ignoring, 5);
    socketManager.RegisterHandler(&ignoring, 19);
    static IpcSocketTransport transport({0}, socketManager, nullptr);
    transport.Init();
    serverPort = LocalPort(transport.GetServer().GetSock());
    clientSocket.create(AF_INET);
    clientSocket.connect("127.0.0.1", serverPort);
    clientPort = LocalPort(clientSocket.GetSock());
    static Socket gone;
    gone.create(AF_INET);
    gone.connect("127.0.0.1", serverPort);
    while (socketManager.GetConnectionCount() < 2) {
        transport.Run();
    }
    gone.close();
    const std::uint32_t length = 100;
    const std::uint16_t words[] = {0, 5};
    unsigned char start[12]{};
    std::memcpy(start, &length, sizeof length);
    std::memcpy(start + sizeof length, words, sizeof words);
    clientSocket.send(start, sizeof start);
    while (socketManager.RequireConnection(1).fill < 12 ||
           !socketManager.RequireConnection(2).IsFree()) {
        transport.Run();
    }
    queueManager.FindFreeConnection().pid = 4660;
    queueManager.FindFreeConnection();
}

} // namespace subject

int main()
{
    alarm(60); // Whatever happens, it ends.
    subject::MakeLocks();
    subject::MakeConfiguration();
    subject::MakeExceptions();
    subject::MakeTimers();
    subject::MakeConnections();
    std::abort();
}

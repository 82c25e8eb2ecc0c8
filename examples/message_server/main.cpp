// A server process: answers clients over a System V message queue and, if so configured, over TCP.
// Of several servers with one name only the first serves; the others wait and take over in turn.

#include "Handlers.h"
#include "PublishedStatus.h"
#include "Service.h"

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>
#include <VelaHost_Ipc/Socket.h>
#include <VelaHost_OS/LibraryVersion.h>
#include <VelaHost_OS/ProcessMutex.h>
#include <VelaHost_OS/SharedMemory.h>
#include <VelaHost_Utility/Lockable.h>
#include <VelaHost_Utility/PropertiesEx.h>
#include <VelaHost_Utility/Timer.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <sys/socket.h>

namespace {

using namespace VelaHost_Ipc;
using namespace VelaHost_OS;
using namespace VelaHost_Utility;

/// Runs a function whenever its timer fires, until it is dismissed. A firing that is under way when
/// the timer is stopped still comes, so these objects are never destroyed.
class RunOnTimer : public Lockable, public Timer::Handler
{
public:
    explicit RunOnTimer(std::function<void()> function) : m_Function(std::move(function)) {}

    ~RunOnTimer() noexcept override {}

    void OnTimer(Timer*) override
    {
        Locker locker(*this);
        m_Function();
    }

    /// From now on nothing runs and nothing is running.
    void Dismiss()
    {
        Locker locker(*this);
        m_Function = [] {};
    }

private:
    std::function<void()> m_Function;
};

/// Dismisses what a timer runs at the end of a scope. Declared before the timer, which is stopped
/// by then.
class Dismissal
{
public:
    explicit Dismissal(RunOnTimer& dismissed) : m_Dismissed(dismissed) {}
    Dismissal(const Dismissal&) = delete;
    Dismissal& operator=(const Dismissal&) = delete;
    ~Dismissal() { m_Dismissed.Dismiss(); }

private:
    RunOnTimer& m_Dismissed;
};

/// Its queue goes with it.
class QueueService : public Service<IpcMsgQueueTransport>
{
public:
    using Service::Service;
    ~QueueService()
    {
        Stop([this] { Wake(); });
        RemoveQueue();
    }

    /// Clients take replies by their process id.
    void Answer(IpcMsgBuf& message, int length)
    {
        if (const auto* connection = GetManager().GetConnection(message.connection)) {
            message.mtype = connection->pid;
            GetTransport().GetQueue().Send(message, length);
        }
    }

private:
    /// Ends the pass that is waiting for a message.
    void Wake()
    {
        IpcMsgBuf nothing{};
        const IpcControlCode code = IpcControlCode::Ignored;
        nothing.mtype = s_ServerMsgType;
        nothing.category = s_ControlCategory;
        std::memcpy(nothing.data, &code, sizeof code);
        try {
            GetTransport().GetQueue().Send(nothing, s_ControlPayload);
        } catch (const IpcMsgException&) {
            // Full, perhaps of answers that nobody takes: without its queue the pass ends, too.
            RemoveQueue();
        }
    }

    void RemoveQueue() { msgctl(GetTransport().GetQueue().GetId(), IPC_RMID, nullptr); }
};

class TcpService : public Service<IpcSocketTransport>
{
public:
    using Service::Service;
    ~TcpService()
    {
        Stop([this] { Wake(); });
    }

    /// The configured port, or the one that the system has chosen.
    int GetPort()
    {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        getsockname(GetListener(), reinterpret_cast<sockaddr*>(&address), &size);
        return ntohs(address.sin_port);
    }

    void Answer(IpcMsgBuf& message, int length)
    {
        if (auto* connection = GetManager().GetConnection(message.connection)) {
            GetTransport().SendMsg(*connection, message.category, message, length);
        }
    }

private:
    int GetListener() { return GetTransport().GetServer().GetSock(); }

    /// Ends the pass that is waiting for a client or a message, by being one.
    void Wake()
    {
        Socket client;
        if (!client.create(AF_INET) || !client.connect("127.0.0.1", GetPort())) {
            // A pass that has nothing to accept clients with ends, too.
            shutdown(GetListener(), SHUT_RDWR);
        }
        client.close();
    }
};

/// The text of a setting that must be there.
std::string RequireText(Properties& settings, const char* name)
{
    const StringProperty* property = settings.GetStringProperty(name);
    if (property == nullptr || property->GetValue().empty()) {
        throw std::runtime_error(std::string("no text for ") + name);
    }
    return property->GetValue();
}

PropertiesSection& RequireSection(PropertiesEx& config, const char* type)
{
    PropertiesSection* section = config.GetSection(type, 0);
    if (section == nullptr) {
        throw std::runtime_error(std::string("no section ") + type);
    }
    return *section;
}

/// Sets an event on SIGINT or SIGTERM, which every thread of the process has blocked.
class SignalWatch
{
public:
    explicit SignalWatch(ThreadEvent& event) { CreateThread(Wait, 0, &event, &m_Thread); }
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;
    ~SignalWatch()
    {
        CancelThread(m_Thread); // it may still wait for a signal
        JoinThread(m_Thread);
    }

private:
    static void Wait(void* event)
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        int signalNumber = 0;
        sigwait(&signals, &signalNumber);
        static_cast<ThreadEvent*>(event)->Set();
    }

    unsigned long m_Thread = 0;
};

/// Serves until a signal or an idle time ends it. However this is left, by an exception too, no
/// thread and no timer goes on, and the queue is gone.
void Serve(PropertiesEx& config, StatusPage& page)
{
    constexpr unsigned int millisecondsPerSecond = 1000;

    ThreadEvent stop;

    static RunOnTimer onHeartbeat([&] {
        ++page.heartbeats;
        PrintLine("heartbeat: " + std::to_string(page.messages) + " messages");
    });
    const Dismissal heartbeatDismissal(onHeartbeat);
    Timer heartbeat(GetUIntPropertyValue(config, "HeartbeatMilliseconds", millisecondsPerSecond),
                    &onHeartbeat, true);
    const unsigned int idleSeconds = GetUIntPropertyValue(config, "IdleSeconds", 0);
    static RunOnTimer onIdle([&] {
        PrintLine("idle for " + std::to_string(idleSeconds) + " s");
        stop.Set();
    });
    const Dismissal idleDismissal(onIdle);
    Timer idle(idleSeconds * millisecondsPerSecond, &onIdle, false);

    HandlerContext context{page.sum, [&] {
                               ++page.messages;
                               if (idleSeconds > 0) {
                                   idle.Restart();
                               }
                           }};

    PropertiesSection& queueSection = RequireSection(config, "Queue");
    const std::string queuePath = RequireText(queueSection, "Path");
    QueueService queue({queuePath.c_str(), RequireText(queueSection, "Id")[0]},
                       GetUIntPropertyValue(queueSection, "LogLevel", ConsoleLog::s_Errors), stop,
                       page.queueConnections);
    queue.AddHandlers(MakeHandlers(
        config, context, [&](IpcMsgBuf& message, int length) { queue.Answer(message, length); }));

    std::optional<TcpService> tcp;
    if (PropertiesSection* tcpSection = config.GetSection("Tcp", 0)) {
        const char* port = tcpSection->GetArg(0);
        TcpService& service =
            tcp.emplace(IpcSocketTransport::Config{port != nullptr ? std::stoi(port) : 0},
                        GetUIntPropertyValue(*tcpSection, "LogLevel", ConsoleLog::s_Errors), stop,
                        page.tcpConnections);
        service.AddHandlers(
            MakeHandlers(config, context, [&service](IpcMsgBuf& message, int length) {
                service.Answer(message, length);
            }));
        PrintLine("TCP port " + std::to_string(service.GetPort()));
    }

    const SignalWatch signals(stop);
    queue.Start();
    if (tcp) {
        tcp->Start();
    }
    heartbeat.Start();
    if (idleSeconds > 0) {
        idle.Start();
    }
    PrintLine("serving");

    // Whole seconds: an event set between its test and its wait is noticed in the next one.
    while (!stop.Wait(millisecondsPerSecond)) {
    }
}

/// Serves, with a status page that is there meanwhile.
void PublishAndServe(PropertiesEx& config)
{
    PublishedStatus status(RequireText(config, "StatusPage"));
    Serve(config, status.Get());
    PrintLine("stopped after " + std::to_string(status.Get().messages) + " messages");
}

void LoadConfig(PropertiesEx& config, const char* configFile)
{
    try {
        std::ifstream file(configFile);
        config.Load(file, true);
    } catch (const PropertiesException&) {
        throw std::runtime_error(std::string(configFile) + ": " + config.GetLastError());
    }
}

int RunServer(PropertiesEx& config, bool last)
{
    std::printf("%s\n%s\n", LIBVELAHOST_FILE_VERSION_STRING, LIBVELAHOST_PRODUCT_VERSION_STRING);
    ProcessMutex instance(RequireText(config, "Name").c_str());
    instance.Init();
    PrintLine("waiting for the lock " + instance.GetPath());
    // From here on every signal is blocked in this thread and in those that it starts.
    instance.Lock();
    PrintLine("got the lock");
    PublishAndServe(config);
    if (last) {
        instance.Delete();
    } else {
        instance.Unlock();
    }
    return 0;
}

/// Removes what killed servers have left: queue, lock and status page.
int CleanUp(PropertiesEx& config)
{
    PropertiesSection& queueSection = RequireSection(config, "Queue");
    const IpcMsgQueue queue(RequireText(queueSection, "Path").c_str(),
                            RequireText(queueSection, "Id")[0], false);
    msgctl(queue.GetId(), IPC_RMID, nullptr);
    SharedMemory(RequireText(config, "StatusPage").c_str()).Delete();
    ProcessMutex instance(RequireText(config, "Name").c_str());
    instance.Init();
    instance.Delete();
    return 0;
}

int PrintVersion(const char* library)
{
    std::string version;
    if (!GetLibraryVersion(library, version)) {
        std::fprintf(stderr, "message_server: %s publishes no version\n", library);
        return 1;
    }
    std::printf("%s\n", version.c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string option = argc == 3 ? argv[1] : "";
    try {
        if (option == "--version-of") {
            return PrintVersion(argv[2]);
        }
        if (argc == 2 || option == "--last" || option == "--clean") {
            PropertiesEx config;
            LoadConfig(config, argv[argc - 1]);
            return option == "--clean" ? CleanUp(config) : RunServer(config, option == "--last");
        }
    } catch (const Exception& e) {
        std::fprintf(stderr, "message_server: %s\n", e.GetText().c_str());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "message_server: %s\n", e.what());
        return 1;
    }
    std::fprintf(stderr,
                 "usage: message_server [--last] CONFIG   serve; with --last, remove the lock"
                 " at the end\n"
                 "       message_server --clean CONFIG    remove what killed servers left\n"
                 "       message_server --version-of LIBRARY\n");
    return 2;
}

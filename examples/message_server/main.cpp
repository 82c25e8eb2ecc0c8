// A server process: answers clients over a System V message queue and, if so configured, over TCP.
// Of several servers with one name only the first serves; the others wait and take over in turn.

#include "Handlers.h"
#include "PublishedStatus.h"
#include "Service.h"

#include <VelaHost_Ipc/ClientSocket.h>
#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>
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

class QueueService : public Service<IpcMsgQueueTransport>
{
public:
    using Service::Service;

    /// Clients take replies by their process id.
    void Answer(IpcMsgBuf& message, int length)
    {
        if (const auto* connection = GetManager().GetConnection(message.connection)) {
            message.mtype = connection->pid;
            GetTransport().GetQueue().Send(message, length);
        }
    }

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
    TcpService(int port, unsigned int logLevel, ThreadEvent& stop,
               std::atomic<std::uint32_t>& connectionCount)
        : Service({port}, logLevel, stop, connectionCount), m_Port(port)
    {}

    void Answer(IpcMsgBuf& message, int length)
    {
        if (auto* connection = GetManager().GetConnection(message.connection)) {
            GetTransport().SendMsg(*connection, message.category, message, length);
        }
    }

    /// Ends the pass that is waiting for a client or a message, by being one.
    void Wake() const { ClientSocket("127.0.0.1", m_Port); }

private:
    const int m_Port;
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

/// Waits for SIGINT or SIGTERM, which every thread of the process has blocked.
void WaitForSignal(void* stopEvent)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    int signalNumber = 0;
    sigwait(&signals, &signalNumber);
    static_cast<ThreadEvent*>(stopEvent)->Set();
}

void Serve(PropertiesEx& config)
{
    constexpr unsigned int millisecondsPerSecond = 1000;

    PublishedStatus status(RequireText(config, "StatusPage"));
    StatusPage& page = status.Get();
    ThreadEvent stop;

    static RunOnTimer onHeartbeat([&] {
        ++page.heartbeats;
        PrintLine("heartbeat: " + std::to_string(page.messages) + " messages");
    });
    Timer heartbeat(GetUIntPropertyValue(config, "HeartbeatMilliseconds", millisecondsPerSecond),
                    &onHeartbeat, true);
    const unsigned int idleSeconds = GetUIntPropertyValue(config, "IdleSeconds", 0);
    static RunOnTimer onIdle([&] {
        PrintLine("idle for " + std::to_string(idleSeconds) + " s");
        stop.Set();
    });
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
        tcp.emplace(port != nullptr ? std::stoi(port) : 0,
                    GetUIntPropertyValue(*tcpSection, "LogLevel", ConsoleLog::s_Errors), stop,
                    page.tcpConnections);
        tcp->AddHandlers(MakeHandlers(config, context, [&](IpcMsgBuf& message, int length) {
            tcp->Answer(message, length);
        }));
    }

    unsigned long signalThread = 0;
    CreateThread(WaitForSignal, 0, &stop, &signalThread);
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

    queue.Wake();
    queue.Join();
    queue.RemoveQueue();
    if (tcp) {
        tcp->Wake();
        tcp->Join();
    }
    heartbeat.Stop();
    idle.Stop();
    onHeartbeat.Dismiss();
    onIdle.Dismiss();
    CancelThread(signalThread); // it may still wait for a signal
    JoinThread(signalThread);
    PrintLine("stopped after " + std::to_string(page.messages) + " messages");
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
    Serve(config);
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

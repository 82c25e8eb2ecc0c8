#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_OS/SystemInfo.h>
#include <VelaHost_OS/Thread.h>
#include <VelaHost_OS/ThreadEvent.h>
#include <VelaHost_Utility/Properties.h>
#include <VelaHost_Utility/StringHelpers.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <string>

using namespace VelaHost_Ipc;
using namespace VelaHost_OS;
using namespace VelaHost_Utility;

struct Settings
{
    std::string keyPath;
    unsigned int category;
};

static bool ReadSettings(const char* path, Settings& settings)
{
    std::ifstream file(path);
    Properties properties;
    try {
        properties.Load(file);
    } catch (const PropertiesException&) {
        std::printf("%s: %s\n", path, properties.GetLastError().c_str());
        return false;
    }
    settings.keyPath = GetStringPropertyValue(properties, "KeyPath", "capitals.key");
    settings.category = GetUIntPropertyValue(properties, "Category", 2);
    if (!std::ofstream(settings.keyPath, std::ios::app)) {
        std::printf("can't make %s\n", settings.keyPath.c_str());
        return false;
    }
    return true;
}

class Log : public IpcLogAdapter
{
public:
    [[gnu::format(printf, 2, 3)]] void LogInfo(const char*, ...) override {}
    [[gnu::format(printf, 2, 3)]] void LogDebug(const char* format, ...) override
    {
        std::va_list arguments;
        va_start(arguments, format);
        Print("", format, arguments);
        va_end(arguments);
    }
    [[gnu::format(printf, 2, 3)]] void LogError(const char* format, ...) override
    {
        std::va_list arguments;
        va_start(arguments, format);
        Print("error: ", format, arguments);
        va_end(arguments);
    }
    void LogRcvMsg(int, int, const void*, int) override {}
    void LogSendMsg(int, int, const void*, int) override {}

private:
    static void Print(const char* prefix, const char* format, std::va_list arguments)
    {
        char text[200];
        std::vsnprintf(text, sizeof text, format, arguments);
        std::printf("%s%s\n", prefix, text);
    }
};

class Capitals : public IpcMsgHandler
{
public:
    Capitals(IpcConnectionManager<IpcMsgQueueTransport>& manager, const IpcMsgQueue& queue,
             ThreadEvent& over)
        : m_Manager(manager), m_Queue(queue), m_Over(over)
    {}

    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        std::string text(reinterpret_cast<const char*>(msg.data), static_cast<std::size_t>(length));
        strupr(text.data());
        text.copy(reinterpret_cast<char*>(msg.data), text.size());
        msg.mtype = m_Manager.RequireConnection(msg.connection).pid;
        m_Queue.Send(msg, length);
    }

    void HandleIpcClose(int) override { m_Over.Set(); }

private:
    IpcConnectionManager<IpcMsgQueueTransport>& m_Manager;
    const IpcMsgQueue& m_Queue;
    ThreadEvent& m_Over;
};

struct Service
{
    IpcMsgQueueTransport& transport;
    ThreadEvent& over;
};

static void Serve(void* argument)
{
    auto& service = *static_cast<Service*>(argument);
    while (!service.over.IsSet()) {
        service.transport.Run();
    }
}

class QueueOwner
{
public:
    explicit QueueOwner(int id) : m_Id(id) {}
    QueueOwner(const QueueOwner&) = delete;
    QueueOwner& operator=(const QueueOwner&) = delete;
    ~QueueOwner() { msgctl(m_Id, IPC_RMID, nullptr); }

    void WaitUntilEmpty() const
    {
        msqid_ds state{};
        for (int tries = 0; tries < 100; ++tries) {
            if (msgctl(m_Id, IPC_STAT, &state) == -1 || state.msg_qnum == 0) {
                return;
            }
            SleepMilliseconds(50);
        }
    }

private:
    const int m_Id;
};

static int Run(const Settings& settings)
{
    Log log;
    ThreadEvent over;
    IpcConnectionManager<IpcMsgQueueTransport> manager(&log);
    IpcMsgQueueTransport transport({settings.keyPath.c_str(), 'G'}, manager, &log);
    const QueueOwner queue(transport.GetQueue().GetId());
    Capitals capitals(manager, transport.GetQueue(), over);
    transport.Init();
    if (manager.RegisterHandler(&capitals, static_cast<int>(settings.category)) != 0) {
        std::printf("no category %u\n", settings.category);
        return 1;
    }

    Service service{transport, over};
    unsigned long thread = 0;
    CreateThread(Serve, 0, &service, &thread);
    std::puts("serving");
    std::fflush(stdout);
    while (!over.Wait(1000) && !over.IsSet()) {
        // A heartbeat would go here.
    }
    JoinThread(thread);
    queue.WaitUntilEmpty();
    std::puts("over");
    return 0;
}

int main(int argc, char** argv)
{
    Settings settings;
    if (argc != 2 || !ReadSettings(argv[1], settings)) {
        return 2;
    }
    try {
        return Run(settings);
    } catch (const Exception& e) {
        std::printf("failed with code 0x%x: %s\n", e.GetErrorCode(), e.GetText().c_str());
        return 1;
    }
}

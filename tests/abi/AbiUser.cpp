#include "AbiUser.h"

#include <VelaHost_Ipc/ClientSocket.h>
#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_Ipc/IpcSocketException.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>
#include <VelaHost_OS/ProcessMutex.h>
#include <VelaHost_OS/SharedMemory.h>
#include <VelaHost_OS/SystemInfo.h>
#include <VelaHost_OS/ThreadEvent.h>
#include <VelaHost_OS/ThreadLocalType.h>
#include <VelaHost_OS/TimerQueue.h>
#include <VelaHost_Utility/Observer.h>
#include <VelaHost_Utility/PropertiesEx.h>
#include <VelaHost_Utility/Timer.h>

// Compiled once for each language level; ABI_USER names the function that hands its user out.

namespace {

using namespace VelaHost_Ipc;
using namespace VelaHost_OS;
using namespace VelaHost_Utility;

using Layout = std::vector<std::pair<std::string, std::size_t>>;

template <typename Class>
void AddClass(Layout& layout, const std::string& name)
{
    // One more member in a derived class shows where the class ends.
    struct Derived : Class
    {
        using Class::Class;
        char next;
    };
    layout.emplace_back("sizeof " + name, sizeof(Class));
    layout.emplace_back("alignof " + name, alignof(Class));
    layout.emplace_back("sizeof derived from " + name, sizeof(Derived));
}

/// Where the base lies in a derived object.
template <typename Base, typename Derived>
std::size_t OffsetOf(Derived& derived)
{
    Base& base = derived;
    return static_cast<std::size_t>(reinterpret_cast<char*>(&base) -
                                    reinterpret_cast<char*>(&derived));
}

struct Leading
{
    virtual ~Leading() noexcept(false) = default;
    char letter = 0;
};

struct ReachableMutex : ThreadRecursiveMutex
{
    std::size_t GetOffset()
    {
        return static_cast<std::size_t>(reinterpret_cast<char*>(&m_Mutex) -
                                        reinterpret_cast<char*>(this));
    }
};

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wfree-nonheap-object"
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
struct LockableSecond : Leading, Lockable
{};
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

class User final : public AbiUser
{
public:
    long GetLanguageLevel() const override { return __cplusplus; }

    Layout GetLayout() const override
    {
        Layout layout;
        AddClass<ThreadMutex>(layout, "ThreadMutex");
        AddClass<ThreadRecursiveMutex>(layout, "ThreadRecursiveMutex");
        AddClass<Lockable>(layout, "Lockable");
        AddClass<Locker>(layout, "Locker");
        AddClass<Exception::Context>(layout, "Exception::Context");
        AddClass<Exception>(layout, "Exception");
        AddClass<BadParmException>(layout, "BadParmException");
        AddClass<BadStateException>(layout, "BadStateException");
        AddClass<FeatureNotSupportedException>(layout, "FeatureNotSupportedException");
        AddClass<NotImplementedException>(layout, "NotImplementedException");
        AddClass<SystemException>(layout, "SystemException");
        AddClass<IpcMsgException>(layout, "IpcMsgException");
        AddClass<IpcMsgBuf>(layout, "IpcMsgBuf");
        AddClass<IpcMsgHandler>(layout, "IpcMsgHandler");
        AddClass<IpcLogAdapter>(layout, "IpcLogAdapter");
        AddClass<IpcMsgQueue>(layout, "IpcMsgQueue");
        AddClass<IpcConnectionData>(layout, "IpcConnectionData");
        AddClass<IpcMsgQueueTransport>(layout, "IpcMsgQueueTransport");
        AddClass<IpcMsgQueueTransport::Config>(layout, "IpcMsgQueueTransport::Config");
        AddClass<IpcMsgQueueTransport::Connection>(layout, "IpcMsgQueueTransport::Connection");
        AddClass<IpcConnectionManager<IpcMsgQueueTransport>>(layout, "IpcConnectionManager");
        AddClass<IpcSocketException>(layout, "IpcSocketException");
        AddClass<IpcSocketTransport>(layout, "IpcSocketTransport");
        AddClass<IpcSocketTransport::Config>(layout, "IpcSocketTransport::Config");
        AddClass<IpcSocketTransport::Connection>(layout, "IpcSocketTransport::Connection");
        AddClass<Socket>(layout, "Socket");
        AddClass<ClientSocket>(layout, "ClientSocket");
        AddClass<ServerSocket>(layout, "ServerSocket");
        AddClass<ProcessMutex>(layout, "ProcessMutex");
        AddClass<SharedMemory>(layout, "SharedMemory");
        AddClass<ThreadEvent>(layout, "ThreadEvent");
        AddClass<ThreadLocalType>(layout, "ThreadLocalType");
        AddClass<TimerService>(layout, "TimerService");
        AddClass<TimerService::Request>(layout, "TimerService::Request");
        AddClass<TimerQueue>(layout, "TimerQueue");
        AddClass<_SYSTEMTIME>(layout, "_SYSTEMTIME");
        AddClass<Observable>(layout, "Observable");
        AddClass<Observer>(layout, "Observer");
        AddClass<RefCount>(layout, "RefCount");
        AddClass<SmartPointer<Observer>>(layout, "SmartPointer");
        AddClass<Property>(layout, "Property");
        AddClass<UIntProperty>(layout, "UIntProperty");
        AddClass<StringProperty>(layout, "StringProperty");
        AddClass<Properties>(layout, "Properties");
        AddClass<PropertiesEx>(layout, "PropertiesEx");
        AddClass<PropertiesSection>(layout, "PropertiesSection");
        AddClass<PropertiesException>(layout, "PropertiesException");
        AddClass<Timer>(layout, "Timer");
        AddClass<Timer::Handler>(layout, "Timer::Handler");
        AddClass<TimerException>(layout, "TimerException");
        ReachableMutex mutex;
        layout.emplace_back("ThreadRecursiveMutex::m_Mutex", mutex.GetOffset());
        LockableSecond second;
        layout.emplace_back("Lockable as second base", OffsetOf<Lockable>(second));
        return layout;
    }

    ThreadMutex* MakeThreadMutex() const override { return new ThreadMutex; }
    ThreadRecursiveMutex* MakeThreadRecursiveMutex() const override
    {
        return new ThreadRecursiveMutex;
    }
    Lockable* MakeLockable() const override { return new Lockable; }
    Locker* MakeLocker(Lockable& lockable) const override { return new Locker(lockable); }
    Exception* MakeException(const Exception::Context& context) const override
    {
        return new SystemException(context, 1);
    }

    void Delete(ThreadMutex* mutex) const override { delete mutex; }
    void Delete(ThreadRecursiveMutex* mutex) const override { delete mutex; }
    void Delete(Lockable* lockable) const override { delete lockable; }
    void Delete(Locker* locker) const override { delete locker; }
    void Delete(Exception* e) const override { delete e; }
};

} // namespace

const AbiUser& ABI_USER()
{
    static const User s_User;
    return s_User;
}

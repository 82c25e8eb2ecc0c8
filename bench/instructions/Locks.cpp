#include "Counted.h"
#include "Scenarios.h"
#include "ScratchDirectory.h"

#include <VelaHost_OS/ProcessMutex.h>
#include <VelaHost_OS/ThreadEvent.h>
#include <VelaHost_OS/ThreadMutex.h>
#include <VelaHost_Utility/Lockable.h>

namespace instructions {

int LockThreadMutex()
{
    VelaHost_OS::ThreadMutex mutex;
    return CountEach(1000, [&](int) {
        mutex.Lock();
        mutex.Unlock();
    });
}

int LockLockable()
{
    VelaHost_Utility::Lockable lockable;
    return CountEach(1000, [&](int) { const VelaHost_Utility::Locker locker(lockable); });
}

int LockProcessMutex()
{
    const ScratchDirectory directory;
    VelaHost_OS::ProcessMutex mutex("instructions");
    mutex.Init();
    const int operations = CountEach(1000, [&](int) {
        mutex.Lock();
        mutex.Unlock();
    });
    mutex.Delete();
    return operations;
}

int SetEvent()
{
    VelaHost_OS::ThreadEvent event;
    return CountEach(1000, [&](int) {
        event.Set();
        event.Reset();
    });
}

int WaitForSetEvent()
{
    VelaHost_OS::ThreadEvent event;
    event.Set();
    return CountEach(1000, [&](int) { event.Wait(-1); });
}

} // namespace instructions

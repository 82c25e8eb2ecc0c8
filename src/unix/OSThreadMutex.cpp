#include <VelaHost_OS/ThreadMutex.h>

#include "DestroyingDelete.h"

#include <internal/unix/OSSystem.h>

#include <cerrno>
#include <string>

namespace VelaHost_OS {

static const std::string s_CompName("OS");

namespace {

// Keeps the exported symbols of what is inline, for programs built when it was not.
[[gnu::used]] void (ThreadMutex::*const s_ExportedInlines[])() = {&ThreadMutex::Lock,
                                                                  &ThreadMutex::Unlock};

} // namespace

ThreadMutex::ThreadMutex()
{
    pthread_mutexattr_t attributes;
    CheckResult(pthread_mutexattr_init(&attributes));
    CheckResult(pthread_mutex_init(&m_Mutex, &attributes));
    m_LockCount = 0;
    m_UnlockCount = 0;
    m_Magic = 0xDEAD;
    m_Locked = 0;
    m_Owner = 0;
}

ThreadMutex::~ThreadMutex() noexcept(false)
{
    CheckResult(pthread_mutex_destroy(&m_Mutex));
}

void ThreadMutex::operator delete(ThreadMutex* mutex, std::destroying_delete_t) noexcept(false)
{
    VelaHost_Utility::DestroyThenFree(mutex);
}

bool ThreadMutex::TryLock()
{
    const int result = pthread_mutex_trylock(&m_Mutex);
    if (result == EBUSY) {
        return false;
    }
    CheckResult(result);
    RecordAcquisition();
    return true;
}

} // namespace VelaHost_OS

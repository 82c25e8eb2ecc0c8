#include <VelaHost_OS/ThreadMutex.h>

#include "DestroyingDelete.h"

#include <internal/unix/OSSystem.h>

#include <cerrno>

namespace VelaHost_OS {

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

void ThreadMutex::Lock()
{
    CheckResult(pthread_mutex_lock(&m_Mutex));
    RecordAcquisition();
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

void ThreadMutex::Unlock()
{
    // Before the release: after it, another thread may already be writing these words.
    ++m_UnlockCount;
    m_Locked = 0;
    CheckResult(pthread_mutex_unlock(&m_Mutex));
}

void ThreadMutex::RecordAcquisition()
{
    ++m_LockCount;
    m_Locked = 1;
    m_Owner = pthread_self();
}

} // namespace VelaHost_OS

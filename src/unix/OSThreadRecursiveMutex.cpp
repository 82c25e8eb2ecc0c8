#include <VelaHost_OS/ThreadMutex.h>

#include "DestroyingDelete.h"

#include <internal/unix/OSSystem.h>

#include <string>

namespace VelaHost_OS {

static const std::string s_CompName("OS");

ThreadRecursiveMutex::ThreadRecursiveMutex()
{
    pthread_mutexattr_t attributes;
    CheckResult(pthread_mutexattr_init(&attributes));
    CheckResult(pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE));
    CheckResult(pthread_mutex_init(&m_Mutex, &attributes));
    CheckResult(pthread_mutexattr_destroy(&attributes));
    m_Magic = 0xBEEF;
}

ThreadRecursiveMutex::~ThreadRecursiveMutex() noexcept(false)
{
    CheckResult(pthread_mutex_destroy(&m_Mutex));
}

void ThreadRecursiveMutex::operator delete(ThreadRecursiveMutex* mutex,
                                           std::destroying_delete_t) noexcept(false)
{
    VelaHost_Utility::DestroyThenFree(mutex);
}

} // namespace VelaHost_OS

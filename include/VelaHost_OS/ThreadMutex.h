#pragma once

#include <VelaHost_Utility/Export.h>

#include <internal/unix/OSSystem.h>

#include <new>
#include <pthread.h>

namespace VelaHost_OS {

/// A mutex for the threads of one process, not recursive, that keeps a few words of diagnosis.
///
/// Every failed platform call throws `VelaHost_Utility::SystemException`, code 0x2002, also out of
/// the destructor: misuse is reported, not hidden. Locking a mutex that the calling thread already
/// holds deadlocks. Unlocking one that it does not hold is undefined. The diagnostic words are
/// written by the thread that holds the mutex and are exact only while it is held.
class VELAHOST_EXPORT ThreadMutex
{
public:
    ThreadMutex();
    ThreadMutex(const ThreadMutex&) = delete;
    ThreadMutex& operator=(const ThreadMutex&) = delete;

    /// Throws when the platform refuses, for example because the mutex is still held; the memory
    /// of a heap object is then not freed (see docs/limits.md for derived classes).
    virtual ~ThreadMutex() noexcept(false);

    /// Waits until the mutex is free and takes it.
    VELAHOST_EXPORT void Lock()
    {
        CheckResult(pthread_mutex_lock(&m_Mutex));
        RecordAcquisition();
    }

    /// True when the mutex was free and is now held; false, and nothing is changed, when another
    /// holds it.
    bool TryLock();

    /// Releases the mutex. When it throws, the diagnostic words say that it is released.
    VELAHOST_EXPORT void Unlock()
    {
        // Before the release: after it, another thread may already be writing these words.
        ++m_UnlockCount;
        m_Locked = 0;
        CheckResult(pthread_mutex_unlock(&m_Mutex));
    }

    /// Successful `Lock` and `TryLock` calls since construction.
    unsigned int GetLockCount() const { return m_LockCount; }
    /// `Unlock` calls since construction.
    unsigned int GetUnlockCount() const { return m_UnlockCount; }
    /// 0xDEAD in every constructed `ThreadMutex`.
    unsigned int GetMagic() const { return m_Magic; }
    /// True from an acquisition until the next `Unlock`.
    bool IsLocked() const { return m_Locked != 0; }
    /// The last thread that acquired the mutex, also after it released it; 0 before the first.
    pthread_t GetOwner() const { return m_Owner; }

#ifdef __cpp_lib_destroying_delete
    /// Frees the memory only after the destructor has returned; lets its exception out.
    void operator delete(ThreadMutex* mutex, std::destroying_delete_t) noexcept(false);
#endif

private:
    friend class ThreadEvent;

    void RecordAcquisition()
    {
        ++m_LockCount;
        m_Locked = 1;
        m_Owner = pthread_self();
    }

    pthread_mutex_t m_Mutex;
    unsigned int m_LockCount;
    unsigned int m_UnlockCount;
    unsigned int m_Magic;
    unsigned int m_Locked;
    pthread_t m_Owner;
};

/// A recursive mutex for classes to build on; they lock `m_Mutex` itself. A failed platform call
/// throws `VelaHost_Utility::SystemException`, code 0x2002, also out of the destructor.
class VELAHOST_EXPORT ThreadRecursiveMutex
{
public:
    ThreadRecursiveMutex();
    ThreadRecursiveMutex(const ThreadRecursiveMutex&) = delete;
    ThreadRecursiveMutex& operator=(const ThreadRecursiveMutex&) = delete;

    /// Throws when the platform refuses, for example because the mutex is still held; the memory
    /// of a heap object is then not freed (see docs/limits.md for derived classes).
    virtual ~ThreadRecursiveMutex() noexcept(false);

    /// 0xBEEF in every constructed `ThreadRecursiveMutex`.
    unsigned int GetMagic() const { return m_Magic; }

#ifdef __cpp_lib_destroying_delete
    /// Frees the memory only after the destructor has returned; lets its exception out.
    void operator delete(ThreadRecursiveMutex* mutex, std::destroying_delete_t) noexcept(false);
#endif

protected:
    /// Recursive; derived classes check what its calls return.
    pthread_mutex_t m_Mutex; // NOLINT: what derived classes are for

private:
    unsigned int m_Magic;
};

} // namespace VelaHost_OS

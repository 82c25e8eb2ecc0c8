#pragma once

#include <VelaHost_OS/ThreadMutex.h>
#include <VelaHost_Utility/Export.h>

#include <internal/unix/OSSystem.h>

#include <new>
#include <pthread.h>

namespace VelaHost_Utility {

/// Base of objects that guard their own state with one recursive mutex, which only `Locker` takes.
class VELAHOST_EXPORT Lockable : private VelaHost_OS::ThreadRecursiveMutex
{
public:
    /// Throws `SystemException`, code 0x2002, when the mutex can't be made.
    Lockable();

    /// Throws `SystemException`, code 0x2002, when the mutex can't be destroyed, for example
    /// because it is still held; the memory of a heap object is then not freed (see
    /// docs/limits.md for derived classes).
    ~Lockable() noexcept(false) override;

#ifdef __cpp_lib_destroying_delete
    /// Frees the memory only after the destructor has returned; lets its exception out.
    void operator delete(Lockable* lockable, std::destroying_delete_t) noexcept(false);
#endif

private:
    friend class Locker;
};

/// Holds a `Lockable`'s mutex from construction until `Unlock()` or destruction, whichever comes
/// first; once released it stays released. The mutex is recursive: one thread may hold several
/// guards on one object, and the object is free when all of them are released. A guard belongs to
/// the thread that made it.
///
/// A failed platform call throws `SystemException`, code 0x2002, also out of the destructor. After
/// a failed lock there is no guard; after a failed unlock the guard still counts as holding.
class VELAHOST_EXPORT Locker
{
public:
    /// Waits until the mutex of `obj` is free or the calling thread's own, and takes it.
    explicit Locker(Lockable& obj) : m_Lockable(&obj), m_Locked(false)
    {
        VelaHost_OS::CheckResult(pthread_mutex_lock(&m_Lockable->m_Mutex));
        m_Locked = true;
    }

    Locker(const Locker&) = delete;
    Locker& operator=(const Locker&) = delete;

    virtual ~Locker() noexcept(false) { Unlock(); }

    /// Releases the mutex; does nothing when it is already released.
    void Unlock()
    {
        if (m_Locked) {
            VelaHost_OS::CheckResult(pthread_mutex_unlock(&m_Lockable->m_Mutex));
            m_Locked = false;
        }
    }

private:
    Lockable* m_Lockable;
    bool m_Locked;
};

} // namespace VelaHost_Utility

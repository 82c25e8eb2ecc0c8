#pragma once

#include <VelaHost_OS/ThreadMutex.h>
#include <VelaHost_Utility/Export.h>

#include <atomic>
#include <pthread.h>

namespace VelaHost_OS {

/// Base of one kind of per-thread value. A derived class says how a thread's value is made and
/// disposed of; the base owns the platform key, makes a thread's value on first use, and keeps
/// every object of the process in a registry for the broadcasts below.
///
/// A thread that ends with a value has that value taken for a `ThreadLocalType`, whose
/// `Destructor()` runs on the ending thread. A value of any other kind must therefore be replaced
/// (`SetValue(nullptr)`) before its thread ends.
///
/// A failed platform call throws `VelaHost_Utility::SystemException`, code 0x2002, also out of the
/// destructor. `GetValue`, `SetValue`, `AttachThread` and `Destructor` may be called from any
/// thread, and objects may be constructed on any thread; `AttachThreadAll` from any thread while
/// none changes the registry. Everything else is for times when no other thread uses the object or,
/// in the broadcasts, the registry.
class VELAHOST_EXPORT ThreadLocalType
{
public:
    /// Registers the object; no key is allocated yet.
    ThreadLocalType();
    ThreadLocalType(const ThreadLocalType&) = delete;
    ThreadLocalType& operator=(const ThreadLocalType&) = delete;

    /// Deletes the key if one was ever allocated, even when `Free` has already done so: the
    /// platform refuses the second deletion and the destructor throws. The object is not
    /// unregistered; after an object ended other than by `DetachProcessAll`, no broadcast may be
    /// made any more.
    virtual ~ThreadLocalType() noexcept(false);

    /// Makes a value for the calling thread and sets it.
    virtual void AttachThread();
    /// Disposes of one thread's value; called with null when the process detaches.
    virtual void DestroyValue(void* value) = 0;
    /// Makes the calling thread's value.
    virtual void* CreateValue() = 0;
    /// For the derived class's own use; this library never calls it.
    virtual void DetachThread() = 0;

    /// Allocates a key; one allocated before is forgotten, not deleted.
    void Allocate();
    /// Deletes the key. The object keeps its number: it can't be allocated on first use again.
    void Free();

    /// Sets the calling thread's value; a former one is not disposed of. Throws when no key has
    /// been allocated.
    void SetValue(void* value);
    /// The calling thread's value, made by `CreateValue` on first use, and on every use while that
    /// returns null. The first call in the process allocates the key. When that fails it throws
    /// with `s_Mutex` still held; when a new value can't be set it throws and nobody owns the
    /// value.
    void* GetValue();

    /// Allocates a key and makes the calling thread's value.
    void AttachProcess();
    /// Calls `DestroyValue(nullptr)`, then deletes the key.
    void DetachProcess();
    /// Disposes of the calling thread's value if it has one; the value stays set.
    void Destructor();

    /// `AttachThread` on every registered object, the youngest first; the first failure ends it.
    static void AttachThreadAll();
    /// `AttachProcess` on every registered object, the youngest first; the first failure ends it.
    static void AttachProcessAll();
    /// Takes every object off the registry, the youngest first, calls its `DetachProcess` and
    /// deletes it; all must have been made by `new`. A failure does not stop it: the first one is
    /// thrown, as it was, when the registry is empty. There is one for every object: either its key
    /// is deleted twice, or it never had one to delete. Only cancellation of the calling thread
    /// stops it; what it has not reached then stays registered.
    static void DetachProcessAll();

    /// The youngest registered object, null when there is none.
    static ThreadLocalType* s_AllTypes;
    /// Guards the registration of objects and the allocation of keys on first use.
    static ThreadMutex s_Mutex;

    /// The platform key; all bits set while none has been allocated.
    std::atomic<pthread_key_t> m_Key;
    /// The next older registered object.
    ThreadLocalType* m_Next;
};

} // namespace VelaHost_OS

#include "Objects.h"
#include "PlatformMutex.h"

#include "support/FakeClock.h"
#include "support/Interpose.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_OS/ThreadEvent.h>
#include <VelaHost_OS/ThreadMutex.h>
#include <VelaHost_Utility/Lockable.h>

#include <new>

namespace velahost_test {

namespace {

using VelaHost_OS::ThreadEvent;
using VelaHost_OS::ThreadMutex;
using VelaHost_OS::ThreadRecursiveMutex;
using VelaHost_Utility::Lockable;
using VelaHost_Utility::Locker;

struct FreeMutex
{
    ThreadMutex mutex;

    FreeMutex() = default;
    ~FreeMutex() { ReleaseIfHeld(PlatformMutex(mutex)); }

    std::string GetState()
    {
        return "locks " + std::to_string(mutex.GetLockCount()) + ", unlocks " +
               std::to_string(mutex.GetUnlockCount()) +
               (mutex.IsLocked() ? ", locked" : ", unlocked") +
               (mutex.GetOwner() == pthread_self() ? ", mine" : ", nobody's") +
               (IsHeld(PlatformMutex(mutex)) ? ", held" : ", free");
    }
};

struct HeldMutex : FreeMutex
{
    HeldMutex() { mutex.Lock(); }
};

struct FreeLockable
{
    Lockable lockable;

    ~FreeLockable() { ReleaseIfHeld(PlatformMutex(lockable)); }

    std::string GetState() { return IsHeld(PlatformMutex(lockable)) ? "held" : "free"; }
};

/// A guard that is destroyed by hand.
struct Guarded : FreeLockable
{
    alignas(Locker) unsigned char memory[sizeof(Locker)];
    Locker* locker = new (memory) Locker(lockable);
};

struct GuardedTwice : Guarded
{
    Locker outer{lockable};

    ~GuardedTwice() { outer.Unlock(); }
};

constexpr std::int64_t s_SomeSeconds = 1'000'000'000;

/// An event whose waiters sleep only as a test wants them to.
struct Event
{
    FakeClock clock{s_SomeSeconds};
    ThreadEvent event;
    Hook<int(pthread_cond_t*, pthread_mutex_t*)> sleep{interposed::pthread_cond_wait,
                                                       [this](pthread_cond_t*, pthread_mutex_t*) {
                                                           event.Set();
                                                           return 0;
                                                       }};
    Hook<int(pthread_cond_t*, pthread_mutex_t*, const WideTimespec*)> timedSleep{
        interposed::pthread_cond_timedwait,
        [](pthread_cond_t*, pthread_mutex_t*, const WideTimespec*) { return ETIMEDOUT; }};

    // The mutex is an event's first member.
    ~Event() { ReleaseIfHeld(PlatformMutex(event)); }

    std::string GetState()
    {
        const auto slept = [](std::int64_t time) { return time == 0 ? " never" : " then"; };
        return std::string(event.IsSet() ? "set" : "clear") + ", waits " +
               std::to_string(event.GetWaitCount()) + ", wakes " +
               std::to_string(event.GetWakeCount()) + ", slept" + slept(event.GetWaitStart()) +
               " to" + slept(event.GetWaitEnd()) +
               (IsHeld(PlatformMutex(event)) ? ", held" : ", free");
    }
};

struct SetEvent : Event
{
    SetEvent() { event.Set(); }
};

Told WaitFor(Event& f, int milliseconds)
{
    return f.event.Wait(milliseconds) ? "set" : "time ran out";
}

} // namespace

std::vector<Operation> LockOperations()
{
    constexpr unsigned int each = Row::each;
    // These calls return their error number, so the errno of the moment is told: 0.
    const Effect throws = ThrowsSystem(0);

    return {
        {"ThreadMutex_Construct",
         With<Nothing<ThreadMutex>>(Make<ThreadMutex>),
         Tells("made").Leaves("made"),
         {{"pthread_mutexattr_init", each, ENOMEM, throws},
          {"pthread_mutex_init", each, EAGAIN, throws}}},

        // The deleting form frees the memory only after a successful destroy.
        {"ThreadMutex_Destroy",
         With<Doomed<ThreadMutex>>(Delete<ThreadMutex>),
         Tells("deleted").Leaves("freed"),
         {{"pthread_mutex_destroy", each, EBUSY, throws.ThenNoMore()}}},

        {"ThreadMutex_Lock",
         With<FreeMutex>([](FreeMutex& f) {
             f.mutex.Lock();
             return Told("done");
         }),
         Tells("done").Leaves("locks 1, unlocks 0, locked, mine, held"),
         {{"pthread_mutex_lock", each, EINVAL, throws}}},

        {"ThreadMutex_TryLock",
         With<FreeMutex>([](FreeMutex& f) { return Told::Number(f.mutex.TryLock()); }),
         Tells("1").Leaves("locks 1, unlocks 0, locked, mine, held"),
         {{"pthread_mutex_trylock", each, EBUSY, Tells("0")},
          {"pthread_mutex_trylock", each, EINVAL, throws}}},

        {"ThreadMutex_TryLock_Held",
         With<HeldMutex>([](HeldMutex& f) { return Told::Number(f.mutex.TryLock()); }),
         Tells("0"),
         {{"pthread_mutex_trylock", each, EINVAL, throws}}},

        // The bookkeeping comes before the platform's unlock in any case.
        {"ThreadMutex_Unlock",
         With<HeldMutex>([](HeldMutex& f) {
             f.mutex.Unlock();
             return Told("done");
         }),
         Tells("done").Leaves("locks 1, unlocks 1, unlocked, mine, free"),
         {{"pthread_mutex_unlock", each, EPERM,
           throws.Leaves("locks 1, unlocks 1, unlocked, mine, held")}}},

        {"ThreadRecursiveMutex_Construct",
         With<Nothing<ThreadRecursiveMutex>>(Make<ThreadRecursiveMutex>),
         Tells("made").Leaves("made"),
         {{"pthread_mutexattr_init", each, ENOMEM, throws},
          {"pthread_mutexattr_settype", each, EINVAL, throws},
          {"pthread_mutex_init", each, EAGAIN, throws},
          {"pthread_mutexattr_destroy", each, EINVAL, throws}}},

        {"ThreadRecursiveMutex_Destroy",
         With<Doomed<ThreadRecursiveMutex>>(Delete<ThreadRecursiveMutex>),
         Tells("deleted").Leaves("freed"),
         {{"pthread_mutex_destroy", each, EBUSY, throws.ThenNoMore()}}},

        {"Lockable_Construct",
         With<Nothing<Lockable>>(Make<Lockable>),
         Tells("made").Leaves("made"),
         {{"pthread_mutexattr_init", each, ENOMEM, throws},
          {"pthread_mutexattr_settype", each, EINVAL, throws},
          {"pthread_mutex_init", each, EAGAIN, throws},
          {"pthread_mutexattr_destroy", each, EINVAL, throws}}},

        {"Lockable_Destroy",
         With<Doomed<Lockable>>(Delete<Lockable>),
         Tells("deleted").Leaves("freed"),
         {{"pthread_mutex_destroy", each, EBUSY, throws.ThenNoMore()}}},

        // Without a guard nothing is released afterwards.
        {"Locker_Construct",
         With<FreeLockable>([](FreeLockable& f) {
             alignas(Locker) unsigned char memory[sizeof(Locker)];
             new (memory) Locker(f.lockable);
             return Told("locked");
         }),
         Tells("locked").Leaves("held"),
         {{"pthread_mutex_lock", each, EAGAIN, throws}}},

        // The flag is cleared only after a successful unlock, so that it can be tried again.
        {"Locker_Unlock",
         With<Guarded>([](Guarded& f) {
             f.locker->Unlock();
             return Told("released");
         }),
         Tells("released").Leaves("free"),
         {{"pthread_mutex_unlock", each, EPERM, throws}}},

        {"Locker_Destroy",
         With<Guarded>([](Guarded& f) {
             f.locker->~Locker();
             return Told("destroyed");
         }),
         Tells("destroyed").Leaves("free"),
         {{"pthread_mutex_unlock", each, EPERM, throws.ThenNoMore()}}},

        {"Locker_Unlock_Nested",
         With<GuardedTwice>([](GuardedTwice& f) {
             f.locker->Unlock();
             return Told("released");
         }),
         Tells("released").Leaves("held"),
         {{"pthread_mutex_unlock", each, EPERM, throws}}},

        {"ThreadEvent_Construct",
         With<Nothing<ThreadEvent>>(Make<ThreadEvent>),
         Tells("made").Leaves("made"),
         {{"pthread_mutexattr_init", each, ENOMEM, throws},
          {"pthread_mutex_init", each, EAGAIN, throws},
          {"pthread_cond_init", each, ENOMEM, throws}}},

        // The memory is freed even so.
        {"ThreadEvent_Destroy",
         With<Doomed<ThreadEvent>>(Delete<ThreadEvent>),
         Tells("deleted").Leaves("freed"),
         {{"pthread_cond_destroy", each, EBUSY, throws.Leaves("freed").ThenNoMore()},
          {"pthread_mutex_destroy", each, EBUSY, throws.Leaves("freed").ThenNoMore()}}},

        // The flag is set before the waiters are woken.
        {"ThreadEvent_Set",
         With<Event>([](Event& f) {
             f.event.Set();
             return Told("done");
         }),
         Tells("done").Leaves("set, waits 0, wakes 0, slept never to never, free"),
         {{"pthread_cond_broadcast", each, EINVAL,
           throws.Leaves("set, waits 0, wakes 0, slept never to never, free")}}},

        {"ThreadEvent_Reset", With<SetEvent>([](SetEvent& f) {
             f.event.Reset();
             return Told("done");
         }),
         Tells("done").Leaves("clear, waits 0, wakes 0, slept never to never, free")},

        {"ThreadEvent_Wait_Set",
         With<SetEvent>([](SetEvent& f) { return WaitFor(f, -1); }),
         Tells("set"),
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"pthread_mutex_unlock", each, EPERM,
           throws.Leaves("set, waits 0, wakes 0, slept never to never, held").ThenNoMore()}}},

        // gethrtime does not test its reading of the clock: 0. A failed wait leaves the mutex held.
        {"ThreadEvent_Wait_Woken",
         With<Event>([](Event& f) { return WaitFor(f, -1); }),
         Tells("set").Leaves("set, waits 1, wakes 1, slept then to then, free"),
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"gettimeofday", 1, EINVAL,
           Tells("set").Leaves("set, waits 1, wakes 1, slept never to then, free"),
           Tells("set").Leaves("set, waits 1, wakes 1, slept never to never, free")},
          {"gettimeofday", 2, EINVAL,
           Tells("set").Leaves("set, waits 1, wakes 1, slept then to never, free")},
          {"pthread_cond_wait", each, EINVAL,
           throws.Leaves("clear, waits 1, wakes 0, slept then to then, held").ThenNoMore()},
          {"pthread_mutex_unlock", each, EPERM,
           throws.Leaves("set, waits 1, wakes 1, slept then to then, held").ThenNoMore()}}},

        // The deadline's reading of the clock is not tested either: it lies in the past then.
        {"ThreadEvent_Wait_TimedOut",
         With<Event>([](Event& f) { return WaitFor(f, 2000); }),
         Tells("time ran out").Leaves("clear, waits 1, wakes 1, slept then to then, free"),
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"gettimeofday", 1, EINVAL,
           Tells("time ran out").Leaves("clear, waits 1, wakes 1, slept never to then, free"),
           Tells("time ran out").Leaves("clear, waits 1, wakes 1, slept never to never, free")},
          {"gettimeofday", 2, EINVAL, Ignored(),
           Tells("time ran out").Leaves("clear, waits 1, wakes 1, slept then to never, free")},
          {"gettimeofday", 3, EINVAL,
           Tells("time ran out").Leaves("clear, waits 1, wakes 1, slept then to never, free")},
          {"pthread_cond_timedwait", each, EINVAL,
           throws.Leaves("clear, waits 1, wakes 0, slept then to then, held").ThenNoMore()},
          {"pthread_mutex_unlock", each, EPERM,
           throws.Leaves("clear, waits 1, wakes 1, slept then to then, held").ThenNoMore()}}},
    };
}

} // namespace velahost_test

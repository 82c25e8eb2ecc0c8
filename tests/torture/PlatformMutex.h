#pragma once

#include <pthread.h>

namespace velahost_test {

/// The platform's mutex inside a `ThreadMutex`, a `ThreadRecursiveMutex` or a class whose first
/// base is one: it lies right behind the pointer to the virtual table.
template <typename Mutex>
pthread_mutex_t* PlatformMutex(Mutex& mutex)
{
    return reinterpret_cast<pthread_mutex_t*>(reinterpret_cast<char*>(&mutex) + sizeof(void*));
}

/// True while any thread holds it, this one included.
bool IsHeld(pthread_mutex_t* mutex);

/// Releases what a failed unlock has left held by this thread.
void ReleaseIfHeld(pthread_mutex_t* mutex);

} // namespace velahost_test

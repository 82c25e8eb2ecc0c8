#include "PlatformMutex.h"

#include "support/interpose/Interposed.h"

#include <stdexcept>

namespace velahost_test {

namespace {

struct Attempt
{
    pthread_mutex_t* mutex;
    bool succeeded = false;
};

void* TryIt(void* data)
{
    auto* attempt = static_cast<Attempt*>(data);
    if (interposed::pthread_mutex_trylock.Real(attempt->mutex) == 0) {
        attempt->succeeded = true;
        interposed::pthread_mutex_unlock.Real(attempt->mutex);
    }
    return nullptr;
}

} // namespace

bool IsHeld(pthread_mutex_t* mutex)
{
    // By another thread: a recursive mutex lets its holder in. Not std::thread, which moves memory
    // from thread to thread.
    Attempt attempt{mutex};
    pthread_t thread{};
    if (interposed::pthread_create.Real(&thread, nullptr, TryIt, &attempt) != 0) {
        throw std::runtime_error("no thread to try the mutex");
    }
    interposed::pthread_join.Real(thread, nullptr);
    return !attempt.succeeded;
}

void ReleaseIfHeld(pthread_mutex_t* mutex)
{
    while (IsHeld(mutex)) {
        interposed::pthread_mutex_unlock.Real(mutex);
    }
}

} // namespace velahost_test

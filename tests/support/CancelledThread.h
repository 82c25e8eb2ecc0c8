#pragma once

#include <functional>
#include <pthread.h>

namespace velahost_test {

/// Runs `body` on a thread of its own and waits for its end; true when a cancellation ended it.
inline bool EndsCancelled(std::function<void()> body)
{
    pthread_t thread{};
    void* result = nullptr;
    pthread_create(
        &thread, nullptr,
        [](void* argument) -> void* {
            (*static_cast<std::function<void()>*>(argument))();
            return nullptr;
        },
        &body);
    pthread_join(thread, &result);
    return result == PTHREAD_CANCELED;
}

/// The calling thread is to end at its next cancellation point.
inline void CancelMyself()
{
    pthread_cancel(pthread_self());
}

} // namespace velahost_test

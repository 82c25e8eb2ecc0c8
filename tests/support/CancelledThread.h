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

/// Runs `body`, in which the thread is cancelled, on a thread of its own; true when it came to its
/// end all the same, and only a cancellation point behind it ended the thread.
inline bool OutlivesCancellation(const std::function<void()>& body)
{
    bool cameToItsEnd = false;
    const bool isCancelled = EndsCancelled([&] {
        body();
        cameToItsEnd = true;
        pthread_testcancel();
    });
    return cameToItsEnd && isCancelled;
}

/// The calling thread is to end at its next cancellation point.
inline void CancelMyself()
{
    pthread_cancel(pthread_self());
}

} // namespace velahost_test

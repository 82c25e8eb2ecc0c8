#include <VelaHost_OS/Thread.h>

#include <internal/unix/OSSystem.h>

#include <bit>
#include <cerrno>
#include <pthread.h>
#include <signal.h>
#include <string>

static const std::string s_CompName("OS");

namespace VelaHost_OS {

namespace {

/// Makes `call` on the thread; 0, or the `errno` of the moment when it failed.
template <typename Call>
unsigned int OnThread(unsigned long threadId, Call call)
{
    if (threadId == 0) {
        // The platform would take the id for an address.
        errno = ESRCH;
        return ESRCH;
    }
    return call(threadId) == 0 ? 0 : static_cast<unsigned int>(errno);
}

} // namespace

unsigned int CreateThread(void (*entry)(void*), int, void* argument, unsigned long* threadId)
{
    pthread_attr_t attributes;
    CheckResult(pthread_attr_init(&attributes));
    pthread_t unwanted = 0;
    pthread_t* const id = threadId != nullptr ? threadId : &unwanted;
    // What a void function leaves as its result becomes the exit value, which nobody reads.
    CheckResult(pthread_create(id, &attributes, std::bit_cast<void* (*)(void*)>(entry), argument));
    CheckResult(pthread_attr_destroy(&attributes));
    return 0;
}

unsigned int JoinThread(unsigned long threadId)
{
    return OnThread(threadId, [](pthread_t thread) { return pthread_join(thread, nullptr); });
}

unsigned int CancelThread(unsigned long threadId)
{
    return OnThread(threadId, pthread_cancel);
}

unsigned int SignalThread(unsigned long threadId)
{
    return OnThread(threadId, [](pthread_t thread) { return pthread_kill(thread, SIGUSR1); });
}

void EnableCancellation()
{
    int previous = 0;
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &previous);
}

} // namespace VelaHost_OS

#include "support/interpose/Interposed.h"

#include <csignal>
#include <cstdarg>
#include <ctime>
#include <pthread.h>
#include <sys/prctl.h>

namespace velahost_test::interposed {

constinit Interposed<int(sigset_t*)> sigemptyset("sigemptyset", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(sigset_t*, int)> sigaddset("sigaddset", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, const sigset_t*, sigset_t*)>
    pthread_sigmask("pthread_sigmask", FailureStyle::ErrorNumber);
constinit Interposed<int(const sigset_t*, siginfo_t*, const timespec*)>
    sigtimedwait("sigtimedwait", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(pthread_attr_t*, int)> pthread_attr_setscope("pthread_attr_setscope",
                                                                      FailureStyle::ErrorNumber);
constinit Interposed<int(pthread_t, const char*)> pthread_setname_np("pthread_setname_np",
                                                                     FailureStyle::ErrorNumber);
constinit Interposed<int(int, unsigned long, unsigned long, unsigned long, unsigned long)>
    prctl("prctl", FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{
    &sigemptyset,        &sigaddset, &pthread_sigmask, &sigtimedwait, &pthread_attr_setscope,
    &pthread_setname_np, &prctl};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int sigemptyset(sigset_t* set) noexcept
{
    return interposed::sigemptyset.Call(set);
}

int sigaddset(sigset_t* set, int signalNumber) noexcept
{
    return interposed::sigaddset.Call(set, signalNumber);
}

int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) noexcept
{
    return interposed::pthread_sigmask.Call(how, set, old);
}

int sigtimedwait(const sigset_t* set, siginfo_t* info, const timespec* timeout)
{
    return interposed::sigtimedwait.Call(set, info, timeout);
}

int pthread_attr_setscope(pthread_attr_t* attributes, int scope) noexcept
{
    return interposed::pthread_attr_setscope.Call(attributes, scope);
}

int pthread_setname_np(pthread_t thread, const char* name) noexcept
{
    return interposed::pthread_setname_np.Call(thread, name);
}

int prctl(int option, ...) noexcept
{
    std::va_list list;
    va_start(list, option);
    const auto second = va_arg(list, unsigned long);
    const auto third = va_arg(list, unsigned long);
    const auto fourth = va_arg(list, unsigned long);
    const auto fifth = va_arg(list, unsigned long);
    va_end(list);
    return interposed::prctl.Call(option, second, third, fourth, fifth);
}

} // extern "C"

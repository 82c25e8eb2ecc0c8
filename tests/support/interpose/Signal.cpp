#include "support/interpose/Interposed.h"

#include <csignal>

namespace velahost_test::interposed {

constinit Interposed<int(int, const sigset_t*, sigset_t*)>
    sigprocmask("sigprocmask", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(sigset_t*)> sigfillset("sigfillset", FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{&sigprocmask, &sigfillset};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int sigprocmask(int how, const sigset_t* set, sigset_t* old) noexcept
{
    return interposed::sigprocmask.Call(how, set, old);
}

int sigfillset(sigset_t* set) noexcept
{
    return interposed::sigfillset.Call(set);
}

} // extern "C"

#include "support/interpose/Interposed.h"

#include <sys/ipc.h>
#include <sys/msg.h>

namespace velahost_test::interposed {

constinit Interposed<key_t(const char*, int)> ftok("ftok", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(key_t, int)> msgget("msgget", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, int, msqid_ds*)> msgctl("msgctl", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, const void*, std::size_t, int)>
    msgsnd("msgsnd", FailureStyle::MinusOneAndErrno);
constinit Interposed<ssize_t(int, void*, std::size_t, long, int)>
    msgrcv("msgrcv", FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{&ftok, &msgget, &msgctl, &msgsnd, &msgrcv};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

key_t ftok(const char* path, int id) noexcept
{
    return interposed::ftok.Call(path, id);
}

int msgget(key_t key, int flags) noexcept
{
    return interposed::msgget.Call(key, flags);
}

int msgctl(int queue, int command, msqid_ds* state) noexcept
{
    return interposed::msgctl.Call(queue, command, state);
}

int msgsnd(int queue, const void* message, std::size_t size, int flags)
{
    return interposed::msgsnd.Call(queue, message, size, flags);
}

ssize_t msgrcv(int queue, void* message, std::size_t size, long type, int flags)
{
    return interposed::msgrcv.Call(queue, message, size, type, flags);
}

} // extern "C"

#include "support/interpose/Interposed.h"

#include <cstdarg>
#include <sys/ipc.h>
#include <sys/sem.h>

namespace velahost_test::interposed {

constinit Interposed<int(key_t, int, int)> semget("semget", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, sembuf*, std::size_t)> semop("semop", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, int, int, SemaphoreArgument)> semctl("semctl",
                                                                   FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{&semget, &semop, &semctl};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int semget(key_t key, int count, int flags) noexcept
{
    return interposed::semget.Call(key, count, flags);
}

int semop(int semaphore, sembuf* operations, std::size_t count) noexcept
{
    return interposed::semop.Call(semaphore, operations, count);
}

int semctl(int semaphore, int number, int command, ...) noexcept
{
    velahost_test::SemaphoreArgument argument{};
    // The others take no fourth argument.
    if (command != IPC_RMID && command != GETVAL && command != GETPID && command != GETNCNT &&
        command != GETZCNT) {
        std::va_list arguments;
        va_start(arguments, command);
        argument = va_arg(arguments, velahost_test::SemaphoreArgument);
        va_end(arguments);
    }
    return interposed::semctl.Call(semaphore, number, command, argument);
}

} // extern "C"

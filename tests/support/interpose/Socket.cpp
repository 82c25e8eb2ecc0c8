#include "support/interpose/Interposed.h"

#include <arpa/inet.h>
#include <cstdarg>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velahost_test::interposed {

constinit Interposed<int(int, int, int)> socket("socket", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, int, int, const void*, socklen_t)>
    setsockopt("setsockopt", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, const sockaddr*, socklen_t)> bind("bind",
                                                                FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, int)> listen("listen", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, sockaddr*, socklen_t*)> accept("accept",
                                                             FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, const sockaddr*, socklen_t)> connect("connect",
                                                                   FailureStyle::MinusOneAndErrno);
constinit Interposed<ssize_t(int, const void*, std::size_t, int)>
    send("send", FailureStyle::MinusOneAndErrno);
constinit Interposed<ssize_t(int, void*, std::size_t, int)> recv("recv",
                                                                 FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, fd_set*, fd_set*, fd_set*, timeval*)>
    select("select", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, int, void*)> fcntl("fcntl", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int, const char*, void*)> inet_pton("inet_pton",
                                                             FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{&socket, &setsockopt, &bind,     &listen,
                                         &accept, &connect,    &send,     &recv,
                                         &select, &fcntl,      &inet_pton};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int socket(int family, int type, int protocol) noexcept
{
    return interposed::socket.Call(family, type, protocol);
}

int setsockopt(int descriptor, int level, int option, const void* value, socklen_t size) noexcept
{
    return interposed::setsockopt.Call(descriptor, level, option, value, size);
}

int bind(int descriptor, const sockaddr* address, socklen_t length) noexcept
{
    return interposed::bind.Call(descriptor, address, length);
}

int listen(int descriptor, int backlog) noexcept
{
    return interposed::listen.Call(descriptor, backlog);
}

int accept(int descriptor, sockaddr* address, socklen_t* length)
{
    return interposed::accept.Call(descriptor, address, length);
}

int connect(int descriptor, const sockaddr* address, socklen_t length)
{
    return interposed::connect.Call(descriptor, address, length);
}

ssize_t send(int descriptor, const void* data, std::size_t size, int flags)
{
    return interposed::send.Call(descriptor, data, size, flags);
}

ssize_t recv(int descriptor, void* buffer, std::size_t size, int flags)
{
    return interposed::recv.Call(descriptor, buffer, size, flags);
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout)
{
    return interposed::select.Call(count, readable, writable, exceptional, timeout);
}

int fcntl(int descriptor, int command, ...)
{
    // Whatever the command takes, an int, a pointer or nothing, arrives in one word.
    std::va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return interposed::fcntl.Call(descriptor, command, argument);
}

int inet_pton(int family, const char* text, void* address) noexcept
{
    return interposed::inet_pton.Call(family, text, address);
}

} // extern "C"

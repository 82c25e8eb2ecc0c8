#pragma once

#include "support/Interpose.h"

#include <ctime>
#include <pthread.h>
#include <sys/msg.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

/// The interposed functions, one object each, under the function's own name.
namespace velahost_test::interposed {

// Clock.cpp
extern Interposed<int(timeval*, void*)> gettimeofday;
extern Interposed<int(const timespec*, timespec*)> nanosleep;

// Pthread.cpp
extern Interposed<int(pthread_mutex_t*, const pthread_mutexattr_t*)> pthread_mutex_init;
extern Interposed<int(pthread_mutex_t*)> pthread_mutex_destroy;
extern Interposed<int(pthread_mutex_t*)> pthread_mutex_lock;
extern Interposed<int(pthread_mutex_t*)> pthread_mutex_trylock;
extern Interposed<int(pthread_mutex_t*)> pthread_mutex_unlock;
extern Interposed<int(pthread_mutexattr_t*)> pthread_mutexattr_init;
extern Interposed<int(pthread_mutexattr_t*)> pthread_mutexattr_destroy;
extern Interposed<int(pthread_mutexattr_t*, int)> pthread_mutexattr_settype;

// MessageQueue.cpp
extern Interposed<key_t(const char*, int)> ftok;
extern Interposed<int(key_t, int)> msgget;
extern Interposed<int(int, int, msqid_ds*)> msgctl;
extern Interposed<int(int, const void*, std::size_t, int)> msgsnd;
extern Interposed<ssize_t(int, void*, std::size_t, long, int)> msgrcv;

// Socket.cpp
extern Interposed<int(int, int, int)> socket;
extern Interposed<int(int, int, int, const void*, socklen_t)> setsockopt;
extern Interposed<int(int, const sockaddr*, socklen_t)> bind;
extern Interposed<int(int, int)> listen;
extern Interposed<int(int, sockaddr*, socklen_t*)> accept;
extern Interposed<int(int, const sockaddr*, socklen_t)> connect;
extern Interposed<ssize_t(int, const void*, std::size_t, int)> send;
extern Interposed<ssize_t(int, void*, std::size_t, int)> recv;
extern Interposed<int(int, fd_set*, fd_set*, fd_set*, timeval*)> select;
extern Interposed<int(int, int, void*)> fcntl;
extern Interposed<int(int)> close;
extern Interposed<int(int, const char*, void*)> inet_pton;

} // namespace velahost_test::interposed

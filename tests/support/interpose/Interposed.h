#pragma once

#include "support/Interpose.h"
#include "support/interpose/WideTime.h"

#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <pthread.h>
#include <sys/msg.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace velahost_test {

/// What `semctl` takes last; the C library leaves its declaration to the caller.
union SemaphoreArgument {
    int value;
    semid_ds* state;
    unsigned short* values;
};

} // namespace velahost_test

/// The interposed functions, one object each, under the function's own name.
namespace velahost_test::interposed {

// Clock.cpp
extern Interposed<int(WideTimeval*, void*)> gettimeofday;
extern Interposed<int(const WideTimespec*, WideTimespec*)> nanosleep;
extern Interposed<std::tm*(const std::int64_t*, std::tm*)> localtime_r;

// DynamicLoading.cpp
extern Interposed<void*(const char*, int)> dlopen;
extern Interposed<int(void*)> dlclose;

// File.cpp
extern Interposed<int(const char*, int, mode_t)> open;
extern Interposed<ssize_t(int, void*, std::size_t)> read;
extern Interposed<ssize_t(int, const void*, std::size_t)> write;
extern Interposed<off_t(int, off_t, int)> lseek;
extern Interposed<int(int)> fsync;
extern Interposed<int(int)> close;
extern Interposed<int(const char*)> unlink;
extern Interposed<mode_t(mode_t)> umask;
extern Interposed<void*(void*, std::size_t, int, int, int, off_t)> mmap;
extern Interposed<int(void*, std::size_t)> munmap;

// MessageQueue.cpp
extern Interposed<key_t(const char*, int)> ftok;
extern Interposed<int(key_t, int)> msgget;
extern Interposed<int(int, int, msqid_ds*)> msgctl;
extern Interposed<int(int, const void*, std::size_t, int)> msgsnd;
extern Interposed<ssize_t(int, void*, std::size_t, long, int)> msgrcv;

// Pthread.cpp
extern Interposed<int(pthread_mutex_t*, const pthread_mutexattr_t*)> pthread_mutex_init;
extern Interposed<int(pthread_mutex_t*)> pthread_mutex_destroy;
extern Interposed<int(pthread_mutex_t*)> pthread_mutex_lock;
extern Interposed<int(pthread_mutex_t*)> pthread_mutex_trylock;
extern Interposed<int(pthread_mutex_t*)> pthread_mutex_unlock;
extern Interposed<int(pthread_mutexattr_t*)> pthread_mutexattr_init;
extern Interposed<int(pthread_mutexattr_t*)> pthread_mutexattr_destroy;
extern Interposed<int(pthread_mutexattr_t*, int)> pthread_mutexattr_settype;

// PthreadAttribute.cpp, absent under the thread sanitizer
extern Interposed<int(pthread_attr_t*)> pthread_attr_init;
extern Interposed<int(pthread_attr_t*)> pthread_attr_destroy;

// PthreadCondition.cpp
extern Interposed<int(pthread_cond_t*, const pthread_condattr_t*)> pthread_cond_init;
extern Interposed<int(pthread_cond_t*)> pthread_cond_destroy;
extern Interposed<int(pthread_cond_t*)> pthread_cond_broadcast;
extern Interposed<int(pthread_cond_t*, pthread_mutex_t*)> pthread_cond_wait;
extern Interposed<int(pthread_cond_t*, pthread_mutex_t*, const WideTimespec*)>
    pthread_cond_timedwait;

// PthreadKey.cpp, absent under the thread sanitizer. A value is carried as a number: the platform's
// header promises the compiler that nobody looks behind the pointer.
extern Interposed<int(pthread_key_t*, void (*)(void*))> pthread_key_create;
extern Interposed<int(pthread_key_t)> pthread_key_delete;
extern Interposed<void*(pthread_key_t)> pthread_getspecific;
extern Interposed<int(pthread_key_t, std::uintptr_t)> pthread_setspecific;

// PthreadThread.cpp
extern Interposed<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> pthread_create;
extern Interposed<int(pthread_t, void**)> pthread_join;
extern Interposed<int(pthread_t)> pthread_cancel;
extern Interposed<int(pthread_t, int)> pthread_kill;
extern Interposed<int(int, int*)> pthread_setcanceltype;

// Semaphore.cpp
extern Interposed<int(key_t, int, int)> semget;
extern Interposed<int(int, sembuf*, std::size_t)> semop;
extern Interposed<int(int, int, int, SemaphoreArgument)> semctl;

// Signal.cpp
extern Interposed<int(int, const sigset_t*, sigset_t*)> sigprocmask;
extern Interposed<int(sigset_t*)> sigfillset;

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
extern Interposed<int(int, const char*, void*)> inet_pton;

// Stdio.cpp
extern Interposed<int(const char*)> puts;
extern Interposed<int(std::FILE*)> fflush;
extern Interposed<int(char*, std::size_t, const char*, std::va_list)> vsnprintf;

// System.cpp
extern Interposed<long(int)> sysconf;
extern Interposed<char*(const char*)> getenv;

// TimerThread.cpp
extern Interposed<int(sigset_t*)> sigemptyset;
extern Interposed<int(sigset_t*, int)> sigaddset;
extern Interposed<int(int, const sigset_t*, sigset_t*)> pthread_sigmask;
extern Interposed<int(const sigset_t*, siginfo_t*, const timespec*)> sigtimedwait;
extern Interposed<int(pthread_attr_t*, int)> pthread_attr_setscope;
extern Interposed<int(pthread_t, const char*)> pthread_setname_np;
extern Interposed<int(int, unsigned long, unsigned long, unsigned long, unsigned long)> prctl;

} // namespace velahost_test::interposed

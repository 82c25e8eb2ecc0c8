#pragma once

#include "support/Interpose.h"

#include <csignal>
#include <ctime>
#include <pthread.h>
#include <sys/msg.h>
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

// PthreadAttribute.cpp, absent under the thread sanitizer
extern Interposed<int(pthread_attr_t*)> pthread_attr_init;
extern Interposed<int(pthread_attr_t*)> pthread_attr_destroy;

// PthreadThread.cpp
extern Interposed<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> pthread_create;
extern Interposed<int(pthread_t, void**)> pthread_join;
extern Interposed<int(pthread_t)> pthread_cancel;
extern Interposed<int(pthread_t, int)> pthread_kill;
extern Interposed<int(int, int*)> pthread_setcanceltype;

// TimerThread.cpp
extern Interposed<int(sigset_t*)> sigemptyset;
extern Interposed<int(sigset_t*, int)> sigaddset;
extern Interposed<int(int, const sigset_t*, sigset_t*)> pthread_sigmask;
extern Interposed<int(const sigset_t*, siginfo_t*, const timespec*)> sigtimedwait;
extern Interposed<int(pthread_attr_t*, int)> pthread_attr_setscope;
extern Interposed<int(pthread_t, const char*)> pthread_setname_np;

// MessageQueue.cpp
extern Interposed<key_t(const char*, int)> ftok;
extern Interposed<int(key_t, int)> msgget;
extern Interposed<int(int, int, msqid_ds*)> msgctl;
extern Interposed<int(int, const void*, std::size_t, int)> msgsnd;
extern Interposed<ssize_t(int, void*, std::size_t, long, int)> msgrcv;

} // namespace velahost_test::interposed

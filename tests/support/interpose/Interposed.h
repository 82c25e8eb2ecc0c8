#pragma once

#include "support/Interpose.h"

#include <ctime>
#include <pthread.h>
#include <sys/msg.h>
#include <sys/time.h>

/// The interposed functions, one object each, under the function's own name.
namespace velahost_test::interposed {

// Clock.cpp
extern Interposed<int(timeval*, void*)> gettimeofday;
extern Interposed<int(const timespec*, timespec*)> nanosleep;
extern Interposed<std::tm*(const std::time_t*, std::tm*)> localtime_r;

// DynamicLoading.cpp
extern Interposed<void*(const char*, int)> dlopen;

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

// Stdio.cpp
extern Interposed<int(const char*)> puts;

// System.cpp
extern Interposed<long(int)> sysconf;

} // namespace velahost_test::interposed

#pragma once

#include "support/Interpose.h"

#include <cstdint>
#include <ctime>
#include <pthread.h>
#include <sys/msg.h>
#include <sys/time.h>

/// The interposed functions, one object each, under the function's own name.
namespace velahost_test::interposed {

// Clock.cpp
extern Interposed<int(timeval*, void*)> gettimeofday;
extern Interposed<int(const timespec*, timespec*)> nanosleep;

// DynamicLoading.cpp
extern Interposed<void*(const char*, int)> dlopen;
extern Interposed<int(void*)> dlclose;

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
extern Interposed<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> pthread_cond_timedwait;

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

// MessageQueue.cpp
extern Interposed<key_t(const char*, int)> ftok;
extern Interposed<int(key_t, int)> msgget;
extern Interposed<int(int, int, msqid_ds*)> msgctl;
extern Interposed<int(int, const void*, std::size_t, int)> msgsnd;
extern Interposed<ssize_t(int, void*, std::size_t, long, int)> msgrcv;

} // namespace velahost_test::interposed

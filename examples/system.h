/* All that differs between the systems: a recursive mutex, an auto-reset event, a thread and a clock, each small enough
 * for the work area of a host object. Everything may be called from any thread. Include it before all other headers. */
#ifndef SYSTEM_H
#define SYSTEM_H

#if !defined(_WIN32) && !defined(_POSIX_C_SOURCE)
#define _POSIX_C_SOURCE 200809L
#endif

#include <stdint.h>

typedef struct SystemThread SystemThread;
typedef void (*SystemThreadEntry)(void* argument);

#if defined(_WIN32) /* -------------------------------------------------------------------------------- Windows */

#include <windows.h>
/* Behind it: */
#include <process.h>

typedef CRITICAL_SECTION SystemMutex;
static inline void system_mutex_init(void* mutex) {
  InitializeCriticalSection(mutex);
}
static inline void system_mutex_destroy(void* mutex) {
  DeleteCriticalSection(mutex);
}
static inline void system_mutex_lock(void* mutex) {
  EnterCriticalSection(mutex);
}
static inline int32_t system_mutex_unlock(void* mutex) {
  LeaveCriticalSection(mutex);
  return 1;
}

typedef HANDLE SystemEvent;
static inline int system_event_init(void* event) {
  *(HANDLE*)event = CreateEventW(NULL, FALSE, FALSE, NULL);
  return *(HANDLE*)event != NULL;
}
static inline void system_event_destroy(void* event) {
  CloseHandle(*(HANDLE*)event);
}
static inline void system_event_wait(void* event) {
  WaitForSingleObject(*(HANDLE*)event, INFINITE);
}
static inline void system_event_signal(void* event) {
  SetEvent(*(HANDLE*)event);
}

struct SystemThread {
  uintptr_t handle;
  SystemThreadEntry entry;
  void* argument;
};
static inline unsigned __stdcall system_thread_run(void* thread) {
  ((SystemThread*)thread)->entry(((SystemThread*)thread)->argument);
  return 0;
}
static inline int system_thread_start(SystemThread* thread) {
  thread->handle = _beginthreadex(NULL, 0, system_thread_run, thread, 0, NULL);
  return thread->handle != 0;
}
static inline void system_thread_join(void* thread) {
  const HANDLE handle = (HANDLE)((SystemThread*)thread)->handle;
  WaitForSingleObject(handle, INFINITE);
  CloseHandle(handle);
}

static inline void system_sleep(uint32_t milliseconds) {
  Sleep(milliseconds);
}
static inline uint64_t system_clock_count(void) {
  LARGE_INTEGER count;
  QueryPerformanceCounter(&count);
  return (uint64_t)count.QuadPart;
}
static inline uint64_t system_clock_frequency(void) {
  LARGE_INTEGER frequency;
  QueryPerformanceFrequency(&frequency);
  return (uint64_t)frequency.QuadPart;
}

#else /* ------------------------------------------------------------------------------------------------- POSIX */

#include <pthread.h>
#include <semaphore.h>
#include <stdatomic.h>
#include <time.h>

typedef pthread_mutex_t SystemMutex;
static inline void system_mutex_init(void* mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}
static inline void system_mutex_destroy(void* mutex) {
  pthread_mutex_destroy(mutex);
}
static inline void system_mutex_lock(void* mutex) {
  pthread_mutex_lock(mutex);
}
static inline int32_t system_mutex_unlock(void* mutex) {
  return pthread_mutex_unlock(mutex) == 0;
}

/* A mutex with a condition variable would not fit. The flag keeps the semaphore from counting above one. */
typedef struct SystemEvent {
  sem_t semaphore;
  atomic_bool pending;
} SystemEvent;
static inline int system_event_init(void* event) {
  atomic_init(&((SystemEvent*)event)->pending, 0);
  return sem_init(&((SystemEvent*)event)->semaphore, 0, 0) == 0;
}
static inline void system_event_destroy(void* event) {
  sem_destroy(&((SystemEvent*)event)->semaphore);
}
static inline void system_event_wait(void* event) {
  while (sem_wait(&((SystemEvent*)event)->semaphore) != 0) { /* interrupted by a signal of the process */
  }
  atomic_exchange(&((SystemEvent*)event)->pending, 0);
}
static inline void system_event_signal(void* event) {
  if (!atomic_exchange(&((SystemEvent*)event)->pending, 1)) sem_post(&((SystemEvent*)event)->semaphore);
}

struct SystemThread {
  pthread_t handle;
  SystemThreadEntry entry;
  void* argument;
};
static inline void* system_thread_run(void* thread) {
  ((SystemThread*)thread)->entry(((SystemThread*)thread)->argument);
  return NULL;
}
static inline int system_thread_start(SystemThread* thread) {
  return pthread_create(&thread->handle, NULL, system_thread_run, thread) == 0;
}
static inline void system_thread_join(void* thread) {
  pthread_join(((SystemThread*)thread)->handle, NULL);
}

static inline void system_sleep(uint32_t milliseconds) {
  const struct timespec time = {milliseconds / 1000, (long)(milliseconds % 1000) * 1000000};
  nanosleep(&time, NULL);
}
static inline uint64_t system_clock_count(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000000 + (uint64_t)now.tv_nsec / 1000;
}
static inline uint64_t system_clock_frequency(void) {
  return 1000000;
}

#endif

#endif /* SYSTEM_H */

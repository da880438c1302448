// Linux: futex, POSIX threads, CLOCK_MONOTONIC.
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sync.h"

namespace zel::host {
namespace {

void* start_routine(void* thread) {
  static_cast<Thread*>(thread)->run();
  return nullptr;
}

}  // namespace

void wait_on_word(const std::atomic<std::uint32_t>& word, std::uint32_t value) noexcept {
  syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
}

void wake_one_on_word(const std::atomic<std::uint32_t>& word) noexcept {
  syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

std::uint64_t clock_count() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * kClockFrequency + static_cast<std::uint64_t>(now.tv_nsec) / 100;
}

void sleep_milliseconds(std::uint32_t milliseconds) noexcept {
  timespec left{.tv_sec = static_cast<time_t>(milliseconds / 1000),
                .tv_nsec = static_cast<long>(milliseconds % 1000) * 1'000'000};
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
  }
}

bool Thread::start(ThreadEntry entry, void* argument, const char* name) noexcept {
  entry_ = entry;
  argument_ = argument;
  name_ = name;
  // Signals are the application's: its own threads handle them, never one of these.
  sigset_t all, before;
  sigfillset(&all);
  if (pthread_sigmask(SIG_SETMASK, &all, &before) != 0) return false;
  pthread_t handle{};
  const bool started = pthread_create(&handle, nullptr, start_routine, this) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  static_assert(sizeof handle <= sizeof system_handle_);
  std::memcpy(&system_handle_, &handle, sizeof handle);
  return started;
}

void Thread::run() noexcept {
  if (name_ != nullptr) {
    char name[16] = {};  // the system's limit
    std::strncpy(name, name_, sizeof name - 1);
    pthread_setname_np(pthread_self(), name);
  }
  entry_(argument_);
}

void Thread::join() noexcept {
  pthread_t handle;
  std::memcpy(&handle, &system_handle_, sizeof handle);
  pthread_join(handle, nullptr);
}

}  // namespace zel::host

#include "sync.h"

namespace zel::host {
namespace {

// An address that no other living thread has.
const void* thread_token() noexcept {
  thread_local char token;
  return &token;
}

}  // namespace

void WordLock::lock_contended() noexcept {
  // Whoever comes through here leaves 2 behind, since others may still be asleep.
  while (word_.exchange(2, std::memory_order_acquire) != 0)
    wait_on_word(word_, 2);
}

void RecursiveMutex::lock() noexcept {
  const void* self = thread_token();
  if (owner_.load(std::memory_order_relaxed) != self) {
    lock_.lock();
    owner_.store(self, std::memory_order_relaxed);
  }
  ++depth_;
}

bool RecursiveMutex::unlock() noexcept {
  if (owner_.load(std::memory_order_relaxed) != thread_token()) return false;
  if (--depth_ > 0) return true;
  owner_.store(nullptr, std::memory_order_relaxed);
  lock_.unlock();
  return true;
}

void AutoResetEvent::wait() noexcept {
  while (signalled_.exchange(0, std::memory_order_acquire) == 0)
    wait_on_word(signalled_, 0);
}

void AutoResetEvent::signal() noexcept {
  if (signalled_.exchange(1, std::memory_order_release) == 0) wake_one_on_word(signalled_);
}

}  // namespace zel::host

// What the services need of the operating system, and the locks, events and threads built on it. The first half is
// implemented once per system (sync_linux.cpp); the second half is the same everywhere.
//
// Thread rule: everything may be called from any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace zel::host {

// ---- Per system -----------------------------------------------------------------------------------------------------

/** Sleeps while `word` holds `value`, until woken; may return early. */
void wait_on_word(const std::atomic<std::uint32_t>& word, std::uint32_t value) noexcept;
/** Wakes one thread that sleeps on `word`. The word may already have ceased to exist. */
void wake_one_on_word(const std::atomic<std::uint32_t>& word) noexcept;

/** Counts of a monotonic clock, kClockFrequency a second: 58,000 years until they wrap. */
inline constexpr std::uint64_t kClockFrequency = 10'000'000;
std::uint64_t clock_count() noexcept;
void sleep_milliseconds(std::uint32_t milliseconds) noexcept;

using ThreadEntry = void (*)(void* argument);

/** A running thread; must stay where it is until it is joined. */
class Thread {
 public:
  /** Starts entry(argument). The system may cut the name. False when there is no thread to be had. */
  bool start(ThreadEntry entry, void* argument, const char* name) noexcept;
  /** Waits until the entry has returned, and gives the thread's resources back. */
  void join() noexcept;
  /** For the system's own start routine. */
  void run() noexcept;

 private:
  std::uint64_t system_handle_ = 0;
  ThreadEntry entry_ = nullptr;
  void* argument_ = nullptr;
  const char* name_ = nullptr;
};

// ---- Everywhere -----------------------------------------------------------------------------------------------------

/** A lock of one word: free 0, owned 1, owned with threads asleep 2. Two atomic operations when nobody contends. */
class WordLock {
 public:
  void lock() noexcept {
    std::uint32_t expected = 0;
    if (!word_.compare_exchange_strong(expected, 1, std::memory_order_acquire)) lock_contended();
  }
  void unlock() noexcept {
    if (word_.exchange(0, std::memory_order_release) == 2) wake_one_on_word(word_);
  }

 private:
  void lock_contended() noexcept;
  std::atomic<std::uint32_t> word_{0};
};

/** A lock that its owner may take again. */
class RecursiveMutex {
 public:
  void lock() noexcept;
  /** False, and nothing done, when the calling thread is not the owner. */
  bool unlock() noexcept;

 private:
  WordLock lock_;
  std::uint32_t depth_ = 0;                  // the owner's alone
  std::atomic<const void*> owner_{nullptr};  // the owner's token; a thread can only ever find its own there if it owns
};

/** An auto-reset event: a signal releases one wait, at once or when it comes; signals that find one pending are one. */
class AutoResetEvent {
 public:
  void wait() noexcept;
  void signal() noexcept;

 private:
  std::atomic<std::uint32_t> signalled_{0};
};

/** Builds a T in `work`, which may begin at any address; null when it is null or too small. */
template <typename T>
T* build_in(void* work, std::int32_t work_size) noexcept {
  static_assert(sizeof(T) + alignof(T) - 1 <= 72, "must fit the work area of a host object, wherever that begins");
  std::size_t space = work_size < 0 ? 0 : static_cast<std::size_t>(work_size);
  if (work == nullptr || std::align(alignof(T), sizeof(T), work, space) == nullptr) return nullptr;
  return new (work) T;
}

}  // namespace zel::host

// Ends the process, with the stacks of all its threads, when one of the watched threads has not moved for five minutes.
//
// Thread rule: a Pulse belongs to its thread; the watchdog outlives them all.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace bench {

class Watchdog {
 public:
  Watchdog() : thread_([this](std::stop_token end) { watch(std::move(end)); }) {}

 private:
  friend class Pulse;
  struct Watched {
    std::string name;
    std::atomic<std::uint64_t> beats{0};
    std::uint64_t seen = 0;
    int still = 0;  // looks without a beat
  };

  void watch(std::stop_token end);

  std::mutex mutex_;
  std::condition_variable_any wake_;
  std::list<Watched> watched_;  // guarded by mutex_
  std::jthread thread_;
};

/** While it lives, its thread is watched. */
class Pulse {
 public:
  Pulse(Watchdog& watchdog, const std::string& name);
  ~Pulse();
  Pulse(const Pulse&) = delete;
  Pulse& operator=(const Pulse&) = delete;

  void beat() noexcept { entry_->beats.fetch_add(1, std::memory_order_relaxed); }

 private:
  Watchdog& watchdog_;
  std::list<Watchdog::Watched>::iterator entry_;
};

}  // namespace bench

// Engines working side by side, fed from one bounded queue.
//
// Thread rule: submit and waiting may be called from any thread. Invariants: every accepted job is answered, by its
// recognition or a failure, also when the pool is being destroyed; no job starts after its deadline.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "engine.h"

namespace zel::speechd {

/** More work than can be done in time. */
class Overload : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/** How a job ended. Exceptions stay on the threads that they were thrown on. */
struct Outcome {
  Recognition recognition = {};
  bool overloaded = false;
  std::string failure = {};  ///< why there is no recognition; empty when there is one

  /** The recognition. Throws Overload or std::runtime_error. */
  const Recognition& get() const;
};

class RecognitionPool {
 public:
  /** Makes `engines` engines at once and waits for them. Throws what the factory throws. */
  RecognitionPool(std::size_t engines, const EngineFactory& factory, std::size_t max_waiting);
  /** Finishes every accepted job. */
  ~RecognitionPool();
  RecognitionPool(const RecognitionPool&) = delete;
  RecognitionPool& operator=(const RecognitionPool&) = delete;

  /** Throws Overload when `max_waiting` jobs wait already. A job whose deadline passes in the queue ends as overloaded.
   */
  std::future<Outcome> submit(std::vector<std::int16_t> samples, Deadline deadline);

  std::size_t engines() const noexcept { return workers_.size(); }
  /** Jobs that no engine has begun. */
  std::size_t waiting() const;

 private:
  struct Job {
    std::vector<std::int16_t> samples;
    Deadline deadline;
    std::promise<Outcome> promise;
  };

  void work(Engine& engine);
  void stop();

  const std::size_t max_waiting_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Job> queue_;  // guarded by mutex_
  bool stopping_ = false;  // guarded by mutex_
  std::vector<std::thread> workers_;
};

}  // namespace zel::speechd

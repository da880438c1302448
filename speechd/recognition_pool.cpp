#include "recognition_pool.h"

#include <exception>
#include <utility>

namespace zel::speechd {

namespace {

Outcome run(Engine& engine, const std::vector<std::int16_t>& samples, Deadline deadline) {
  if (std::chrono::steady_clock::now() >= deadline)
    return {.overloaded = true, .failure = "the utterance waited too long"};
  try {
    return {.recognition = engine.recognize(samples, deadline)};
  } catch (const std::exception& error) {
    return {.failure = std::string("recognition failed: ") + error.what()};
  } catch (...) {
    return {.failure = "recognition failed"};
  }
}

}  // namespace

const Recognition& Outcome::get() const {
  if (overloaded) throw Overload(failure);
  if (!failure.empty()) throw std::runtime_error(failure);
  return recognition;
}

RecognitionPool::RecognitionPool(std::size_t engines, const EngineFactory& factory, std::size_t max_waiting)
    : max_waiting_(max_waiting) {
  std::vector<std::promise<void>> ready(engines);
  std::vector<std::future<void>> made;
  made.reserve(engines);
  for (std::promise<void>& promise : ready)
    made.push_back(promise.get_future());

  try {
    for (std::promise<void>& promise : ready) {
      workers_.emplace_back([this, &factory, &promise] {
        std::unique_ptr<Engine> engine;
        try {
          engine = factory();
        } catch (...) {
          promise.set_exception(std::current_exception());
          return;
        }
        promise.set_value();
        work(*engine);
      });
    }
  } catch (...) {  // no more threads to be had
    for (std::size_t i = 0; i < workers_.size(); ++i)
      made[i].wait();
    stop();
    throw;
  }

  // All must be heard of before any of them may be thrown: the threads refer to what stands on this stack.
  for (const std::future<void>& one : made)
    one.wait();
  try {
    for (std::future<void>& one : made)
      one.get();
  } catch (...) {
    stop();
    throw;
  }
}

RecognitionPool::~RecognitionPool() {
  stop();
}

std::future<Outcome> RecognitionPool::submit(std::vector<std::int16_t> samples, Deadline deadline) {
  Job job{std::move(samples), deadline, {}};
  std::future<Outcome> result = job.promise.get_future();
  {
    const std::lock_guard lock(mutex_);
    if (queue_.size() >= max_waiting_) throw Overload("too many utterances wait for recognition");
    queue_.push_back(std::move(job));
  }
  changed_.notify_one();
  return result;
}

std::size_t RecognitionPool::waiting() const {
  const std::lock_guard lock(mutex_);
  return queue_.size();
}

void RecognitionPool::work(Engine& engine) {
  for (;;) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (queue_.empty()) return;
    Job job = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();

    job.promise.set_value(run(engine, job.samples, job.deadline));
  }
}

void RecognitionPool::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  for (std::thread& worker : workers_)
    worker.join();
}

}  // namespace zel::speechd

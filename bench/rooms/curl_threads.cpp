#include "curl_threads.h"

#include <stdexcept>
#include <thread>

namespace bench {

namespace {

bool answered(const Post& post) {
  try {
    return !post_with_curl(post, "").empty();
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace

struct CurlThreads::Worker {
  std::binary_semaphore wanted{0};
  bool quit = false;    // written before `wanted` is released
  bool failed = false;  // read after `done_` has been acquired
  std::thread thread;
};

CurlThreads::CurlThreads(std::size_t count, const std::string& origin, std::size_t body_size)
    : body_(body_size), post_{origin, "/stt?language=en-US&speaker=user01", "Bearer token", body_} {
  for (std::size_t i = 0; i < count; ++i) {
    Worker& worker = *workers_.emplace_back(std::make_unique<Worker>());
    worker.thread = std::thread([this, &worker] {
      done_.release();
      for (worker.wanted.acquire(); !worker.quit; worker.wanted.acquire()) {
        worker.failed = !answered(post_);
        done_.release();
      }
    });
    done_.acquire();
  }
}

CurlThreads::~CurlThreads() {
  for (const auto& worker : workers_) {
    worker->quit = true;
    worker->wanted.release();
    worker->thread.join();
  }
}

void CurlThreads::converse(std::size_t first, std::size_t count) {
  for (std::size_t i = first; i < first + count; ++i)
    workers_[i]->wanted.release();
  for (std::size_t i = 0; i < count; ++i)
    done_.acquire();
  for (std::size_t i = first; i < first + count; ++i) {
    if (workers_[i]->failed) throw std::runtime_error("memory: an exchange has failed");
  }
}

}  // namespace bench

// The peer of row memory: threads that each make exchanges with bare libcurl (curl_post.h) and wait in between: what a
// recognizer's thread would take if nothing but the exchange happened on it.
//
// Thread rule: an object belongs to one thread. Errors: std::runtime_error.
#pragma once

#include <cstddef>
#include <memory>
#include <semaphore>
#include <string>
#include <vector>

#include "curl_post.h"

namespace bench {

class CurlThreads {
 public:
  /** `origin` of a plain service. */
  CurlThreads(std::size_t count, const std::string& origin, std::size_t body_size);
  ~CurlThreads();
  CurlThreads(const CurlThreads&) = delete;
  CurlThreads& operator=(const CurlThreads&) = delete;

  /** One exchange of each thread of a group, all at once; returns when they are over. */
  void converse(std::size_t first, std::size_t count);

 private:
  struct Worker;
  const std::vector<unsigned char> body_;
  const Post post_;
  std::counting_semaphore<> done_{0};
  std::vector<std::unique_ptr<Worker>> workers_;
};

}  // namespace bench

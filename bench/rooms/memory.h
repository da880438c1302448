// What one recognizer takes of memory, measured in a process of its own.
#pragma once

#include <cstddef>
#include <memory>
#include <semaphore>
#include <string>
#include <vector>

namespace rooms {

/** Measures a contestant of the row, "plugin" or "curl_threads", and prints its numbers on one line, in bytes per
 * recognizer; a program's exit status. */
int PrintMemory(const std::string& contestant);

/** Threads that each make exchanges with bare libcurl, a fresh handle for each, and wait in between: what a recognizer's
 * thread would take if nothing but the exchange happened on it. Plain HTTP. Errors: std::runtime_error. */
class CurlThreads {
 public:
  CurlThreads(std::size_t count, std::string url, std::size_t body_size);
  ~CurlThreads();
  CurlThreads(const CurlThreads&) = delete;
  CurlThreads& operator=(const CurlThreads&) = delete;

  /** One exchange of each thread of a group, all at once; returns when they are over. */
  void Converse(std::size_t first, std::size_t count);

 private:
  struct Worker;
  std::string url_;
  std::string body_;
  std::counting_semaphore<> done_{0};
  std::vector<std::unique_ptr<Worker>> workers_;
};

}  // namespace rooms

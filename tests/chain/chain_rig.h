// What the tests of the whole chain share: reports that are kept, replies, and a bounded wait.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

// Keeps every report of the plug-in, and makes the exchanges of this process trust the test authority and go to no
// proxy.
class ChainTest : public testing::Test {
 protected:
  ChainTest();
  ~ChainTest() override;

  std::vector<std::string> take_reports();

 private:
  std::mutex lock_;
  std::vector<std::string> reports_;
};

// Calls `step` until `done` holds; fails the test after a minute.
template <typename Step, typename Done>
void wait_until(Step step, Done done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) FAIL() << "waited for a minute";
    step();
    std::this_thread::yield();
  }
}

inline std::span<const std::uint8_t> bytes_of(const std::string& packet) {
  return {reinterpret_cast<const std::uint8_t*>(packet.data()), packet.size()};
}

// The JSON of a reply that reports success, and the whole reply.
std::string recognized(const std::string& text);
std::string success(const std::string& text);

// What the tests of the whole chain share: reports that are kept, and a bounded wait.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
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

// A reply that reports success.
std::string recognized(const std::string& text);

// What the tests of the whole chain share: reports that are kept, a bounded wait, Opus speech and its decoding.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <string_view>
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

// A recording of the test data as Opus packets: 16 kHz mono, 40 ms each.
std::vector<std::string> encode_recording(const std::string& file);
// The packets' sound at 48 kHz, by the codec alone.
std::vector<float> decode_packets(const std::vector<std::string>& packets);
// The stream's sound at 48 kHz; fails the test when an Ogg Opus reader has anything to say against it.
std::vector<float> decode_stream(std::string_view bytes);
// A reply that reports success.
std::string recognized(const std::string& text);

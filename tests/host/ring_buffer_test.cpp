#include "ring_buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <iostream>
#include <random>
#include <thread>
#include <vector>

#include "fuzz.h"

namespace zel::host {
namespace {

constexpr ZelRingBufferConfig kPluginConfig{0, 163840, 81920, 8, ""};

// The fuzz target of the ring buffer, which ends the process when its model differs, with inputs of this run's own.
TEST(RingBuffer, BehavesAsItsModel) {
  const unsigned seed = std::random_device{}();
  std::cerr << "seed " << seed << "\n";
  std::mt19937 random(seed);
  std::vector<std::uint8_t> input(4000);
  for (int i = 0; i < 300; ++i) {
    for (std::uint8_t& byte : input)
      byte = static_cast<std::uint8_t>(random());
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
}

// A ring buffer as a recognizer has one, in a work area that begins at an odd address.
struct PluginRing : testing::Test {
  const std::uint32_t work_size = static_cast<std::uint32_t>(RingBuffer::calculate_work_size(kPluginConfig));
  std::vector<std::uint8_t> work = std::vector<std::uint8_t>(work_size + 1);
  RingBuffer* ring = RingBuffer::create(kPluginConfig, &work[1], work_size);
};

TEST_F(PluginRing, RefusesWhatIsNotOutAndSplitsInPlace) {
  ZelRingBufferChunk chunk = ring->acquire(0, 100), tail;
  const ZelRingBufferChunk wrong[] = {
      {chunk.data, 101}, {chunk.data + 1, 1}, {chunk.data, 0xFFFFFFFF}, {chunk.data, 0}};
  for (const ZelRingBufferChunk& other : wrong) {
    ring->commit(1, other);
    ring->commit(0, other);
    ring->release(1, other);
    EXPECT_EQ(ring->data_size(0), 163740U);
    EXPECT_EQ(ring->data_size(1), 0U);
  }
  EXPECT_EQ(ring->acquire(0, 0).data, nullptr);
  ring->release(0, chunk);
  ring->release(0, chunk);
  EXPECT_EQ(ring->data_size(0), 163840U);

  RingBuffer::split(chunk, 40, chunk, tail);  // the head may be the source
  EXPECT_EQ(chunk.size, 40U);
  EXPECT_EQ(tail.data, chunk.data + 40);
  RingBuffer::split(tail, 100, chunk, tail);
  EXPECT_EQ(chunk.size, 60U);
  EXPECT_EQ(tail.data, nullptr);

  EXPECT_EQ(RingBuffer::create(kPluginConfig, nullptr, 1'000'000), nullptr);
  EXPECT_EQ(RingBuffer::create(kPluginConfig, work.data(), work_size - 1), nullptr);
  constexpr std::uint32_t kMax = 0xFFFFFFFF;
  const std::uint32_t unusable[][3] = {{0, 0, 8}, {10, 0, 8}, {10, 11, 8}, {kMax, kMax, 8}, {10, 10, kMax}};
  for (const auto& [size, chunk_size, chunks] : unusable)
    EXPECT_EQ(RingBuffer::calculate_work_size({0, size, chunk_size, chunks, ""}), -1) << size << " " << chunk_size;
}

// The audio path writes and finishes streams, the update path gives them back, as in a recognizer.
TEST_F(PluginRing, AudioPathAndUpdateMeet) {
  constexpr int kStreams = 4'000;
  std::atomic<const ZelRingBufferChunk*> slot{nullptr};
  std::thread update([&] {
    for (int i = 0; i < kStreams; ++i) {
      while (slot == nullptr)
        std::this_thread::yield();
      const ZelRingBufferChunk stream = *slot;
      slot = nullptr;
      EXPECT_EQ(stream.size, 3000U);
      ring->commit(0, stream);
    }
  });
  ZelRingBufferChunk stream, head, tail;
  for (int i = 0; i < kStreams; ++i) {
    RingBuffer::split(ring->acquire(0, 5120), 3000, head, tail);
    ring->commit(1, head);
    ring->release(0, tail);
    while (slot != nullptr)
      std::this_thread::yield();
    stream = ring->acquire(1, 3000);
    slot = &stream;
  }
  update.join();
  EXPECT_EQ(ring->data_size(0), kPluginConfig.buffer_size);
  EXPECT_EQ(ring->statistics().waiting(), 0U);
}

}  // namespace
}  // namespace zel::host

#include "ring_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <random>
#include <thread>
#include <vector>

namespace zel::host {
namespace {

constexpr ZelRingBufferConfig kPluginConfig{0, 163840, 81920, 8, ""};

// The value that the n-th byte ever committed to lane 1 has.
std::uint8_t byte_at(std::uint64_t n) {
  return static_cast<std::uint8_t>((n * 0x9E3779B97F4A7C15ULL) >> 56);
}

bool holds(const ZelRingBufferChunk& chunk, std::uint64_t from) {
  for (std::uint32_t i = 0; i < chunk.size; ++i) {
    if (chunk.data[i] != byte_at(from + i)) return false;
  }
  return true;
}

// A ring buffer beside the simplest model of it: lane 1 and the chunks taken from it are runs of numbered bytes.
class Machine {
 public:
  Machine(const ZelRingBufferConfig& config, std::uint32_t seed, bool in_order)
      : config_(config), in_order_(in_order), random_(seed) {
    const auto size = static_cast<std::size_t>(RingBuffer::calculate_work_size(config));
    work_.resize(size + seed % 8);
    ring_ = RingBuffer::create(config, work_.data() + seed % 8, static_cast<std::uint32_t>(size));
  }

  void step() {
    const std::uint32_t what = pick(100);
    if (what < 50) {
      write();
    } else if (what < 75) {
      take();
    } else if (what < 99 || pick(50) != 0) {
      give_back(in_order_ ? 0 : pick(static_cast<std::uint32_t>(taken_.size()) + 1));
    } else {
      ring_->reset();
      taken_.clear();
      front_ = back_;
    }
    std::uint64_t out = 0, waiting = 0;
    for (const Taken& taken : taken_) {
      out += taken.chunk.size;
      waiting += taken.back ? 0 : 1;
    }
    ASSERT_EQ(ring_->data_size(1), back_ - front_);
    ASSERT_EQ(ring_->data_size(0), config_.buffer_size - (back_ - front_) - out);
    ASSERT_EQ(ring_->statistics().waiting(), waiting);
  }

 private:
  struct Taken {
    ZelRingBufferChunk chunk;
    std::uint64_t from;
    bool back;  // but not among the free bytes yet
  };

  std::uint32_t pick(std::uint32_t below) { return static_cast<std::uint32_t>(random_() % below); }

  ZelRingBufferChunk acquire(std::uint32_t lane, std::uint32_t size) {
    const std::uint32_t there = ring_->data_size(lane);
    const ZelRingBufferChunk chunk = ring_->acquire(lane, size);
    EXPECT_EQ(chunk.size, std::min(size, there));
    EXPECT_EQ(chunk.data == nullptr, chunk.size == 0);
    return chunk;
  }

  void write() {
    const ZelRingBufferChunk whole = acquire(0, 1 + pick(config_.max_chunk_size / 4));
    for (std::uint32_t i = 0; i < whole.size; ++i)
      whole.data[i] = byte_at(back_ + i);
    ZelRingBufferChunk head, tail;
    RingBuffer::split(whole, pick(4) == 0 ? 0 : pick(whole.size + 1), head, tail);
    const bool release_first = pick(2) == 0;
    if (release_first) ring_->release(0, tail);
    ring_->commit(1, head);
    if (!release_first) ring_->release(0, tail);
    back_ += head.size;
  }

  // A finished stream; or one that is discarded, or put back.
  void take() {
    const auto lane1 = static_cast<std::uint32_t>(back_ - front_);
    const ZelRingBufferChunk chunk = acquire(1, lane1);
    ASSERT_TRUE(holds(chunk, front_));
    if (chunk.size == 0) return;
    const std::uint32_t what = pick(4);
    if (what == 0 || taken_.size() > config_.max_chunks) return ring_->release(1, chunk);
    taken_.push_back({chunk, front_, false});
    front_ += chunk.size;
    if (taken_.size() > config_.max_chunks || what == 1)
      give_back(in_order_ && lane1 > chunk.size ? 0 : taken_.size() - 1);
  }

  void give_back(std::size_t index) {
    if (index >= taken_.size() || taken_[index].back) return;
    const Taken taken = taken_[index];
    ASSERT_TRUE(holds(taken.chunk, taken.from)) << "bytes of a chunk have changed while it was out";
    ring_->commit(0, taken.chunk);
    ring_->commit(0, taken.chunk);  // a second time: not out any more
    taken_[index].back = true;
    const auto is_back = [](const Taken& other) { return other.back; };
    const auto at = taken_.begin() + static_cast<std::ptrdiff_t>(index);
    // Joins the free bytes at their back, or at their front when there is nothing in between.
    if (front_ == back_ && std::all_of(at, taken_.end(), is_back)) {
      while (!taken_.empty() && taken_.back().back)
        taken_.pop_back();
    }
    if (std::all_of(taken_.begin(), taken_.end(), is_back)) taken_.clear();
    while (!taken_.empty() && taken_.front().back)
      taken_.pop_front();
  }

  const ZelRingBufferConfig config_;
  const bool in_order_;
  std::mt19937 random_;
  std::vector<std::uint8_t> work_;
  RingBuffer* ring_ = nullptr;
  std::uint64_t front_ = 0, back_ = 0;  // lane 1
  std::deque<Taken> taken_;             // oldest first
};

TEST(RingBuffer, BehavesAsItsModel) {
  const std::uint32_t seed = std::random_device{}();
  std::cout << "seed " << seed << "\n";
  const ZelRingBufferConfig configs[] = {{0, 97, 48, 8, ""}, {0, 64, 64, 3, ""}, {0, 4096, 1024, 8, ""}, kPluginConfig};
  for (const ZelRingBufferConfig& config : configs) {
    for (const bool in_order : {true, false}) {
      Machine machine(config, seed, in_order);
      // The large one moves a hundred times the bytes.
      const int steps = config.buffer_size > 5000 ? 30'000 : 240'000;
      for (int i = 0; i < steps; ++i) {
        machine.step();
        if (testing::Test::HasFailure()) FAIL() << "seed " << seed << " size " << config.buffer_size << " step " << i;
      }
    }
  }
}

// A ring buffer as a recognizer has one.
struct PluginRing : testing::Test {
  std::vector<std::uint8_t> work =
      std::vector<std::uint8_t>(static_cast<std::size_t>(RingBuffer::calculate_work_size(kPluginConfig)));
  RingBuffer* ring = RingBuffer::create(kPluginConfig, work.data(), static_cast<std::uint32_t>(work.size()));
};

TEST_F(PluginRing, RefusesWhatIsNotOutAndSplitsInPlace) {
  std::uint8_t foreign[16] = {};
  ZelRingBufferChunk chunk = ring->acquire(0, 100), tail;
  const ZelRingBufferChunk wrong[] = {{foreign, 16}, {chunk.data, 101},        {chunk.data + 1, 1},
                                      {nullptr, 5},  {chunk.data, 0xFFFFFFFF}, {chunk.data, 0}};
  for (const ZelRingBufferChunk& other : wrong) {
    ring->commit(1, other);
    ring->commit(0, other);
    ring->release(1, other);
    EXPECT_EQ(ring->data_size(0), 163740U);
    EXPECT_EQ(ring->data_size(1), 0U);
  }
  ring->release(7, chunk);
  EXPECT_EQ(ring->acquire(7, 5).size, 0U);
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
  EXPECT_EQ(RingBuffer::create(kPluginConfig, work.data(), static_cast<std::uint32_t>(work.size() - 1)), nullptr);
  constexpr std::uint32_t kMax = 0xFFFFFFFF;
  const std::uint32_t unusable[][3] = {{0, 0, 8}, {10, 0, 8}, {10, 11, 8}, {kMax, kMax, 8}, {10, 10, kMax}};
  for (const auto& [size, chunk_size, chunks] : unusable)
    EXPECT_EQ(RingBuffer::calculate_work_size({0, size, chunk_size, chunks, ""}), -1) << size << " " << chunk_size;
}

// The audio path writes and finishes streams, the update path gives them back, as in a recognizer.
TEST_F(PluginRing, AudioPathAndUpdateMeet) {
  constexpr int kStreams = 20'000;
  const RingWatch watch;
  std::atomic<const ZelRingBufferChunk*> slot{nullptr};
  std::thread update([&] {
    const RingWatch other;
    for (int i = 0; i < kStreams; ++i) {
      while (slot == nullptr)
        std::this_thread::yield();
      const ZelRingBufferChunk stream = *slot.load();
      slot = nullptr;
      EXPECT_TRUE(holds(stream, static_cast<std::uint64_t>(i) * 3000));
      ring->commit(0, stream);
    }
    EXPECT_EQ(other.seen(), nullptr) << "acquired nothing";
  });
  ZelRingBufferChunk stream, head, tail;
  for (std::uint64_t i = 0; i < kStreams; ++i) {
    RingBuffer::split(ring->acquire(0, 5120), 3000, head, tail);
    for (std::uint32_t b = 0; b < head.size; ++b)
      head.data[b] = byte_at(i * 3000 + b);
    ring->commit(1, head);
    ring->release(0, tail);
    while (slot != nullptr)
      std::this_thread::yield();
    stream = ring->acquire(1, 3000);
    slot = &stream;
  }
  update.join();
  EXPECT_EQ(watch.seen(), ring);
  EXPECT_EQ(ring->data_size(0), kPluginConfig.buffer_size);
}

}  // namespace
}  // namespace zel::host

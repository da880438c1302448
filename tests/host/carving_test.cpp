#include "carving.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace zel::host {
namespace {

struct Block {
  std::int64_t size;
  std::uint32_t count, alignment;
};

std::int32_t total_of(const std::vector<Block>& blocks) {
  ZelWorkSizeRecord record;
  work_size_begin(&record);
  for (const Block& block : blocks)
    work_size_add(&record, block.size, block.count, block.alignment);
  return work_size_total(&record);
}

// Whether all blocks can be had, each where it should be.
bool carve(std::uint8_t* work, std::int32_t size, const std::vector<Block>& blocks) {
  ZelFixedAllocatorRecord record;
  fixed_allocator_create(work, size, &record);
  const std::uint8_t* last_end = work;
  for (const Block& block : blocks) {
    const auto bytes = static_cast<std::uint32_t>(block.size);
    auto* place = static_cast<std::uint8_t*>(fixed_allocator_allocate(&record, bytes, block.alignment));
    if (place == nullptr) return false;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(place) % block.alignment, 0U);
    EXPECT_GE(place, last_end);
    last_end = place + bytes;
    EXPECT_LE(last_end, work + size);
  }
  fixed_allocator_destroy(&record);
  EXPECT_EQ(fixed_allocator_allocate(&record, 0, 1), nullptr) << "the carving has ended";
  return true;
}

// Areas begin anywhere, since they may be blocks of alignment 1 themselves.
TEST(Carving, TotalServesEveryStartAndOneByteLessDoesNot) {
  std::mt19937 random(20230503);
  alignas(8) std::array<std::uint8_t, 600> storage;
  for (int round = 0; round < 5000; ++round) {
    std::vector<Block> blocks(1 + random() % 10);
    for (Block& block : blocks)
      block = {static_cast<std::int64_t>(1 + random() % 40), 1, 1U << random() % 4};
    const std::int32_t total = total_of(blocks);
    int one_less_fails = 0;
    for (std::size_t start = 0; start < 8; ++start) {
      ASSERT_TRUE(carve(&storage[start], total, blocks)) << "round " << round << " start " << start;
      if (!carve(&storage[start], total - 1, blocks)) ++one_less_fails;
    }
    ASSERT_GT(one_less_fails, 0) << "the total is larger than any start needs, round " << round;
  }
}

TEST(Carving, TotalsThatDoNotFitAreNegative) {
  constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
  EXPECT_EQ(total_of({}), 0);
  EXPECT_EQ(total_of({{kMax, 1, 1}}), kMax);
  const std::pair<const char*, std::vector<Block>> unusable[] = {
      {"largest and one", {{kMax, 1, 1}, {1, 1, 1}}},
      {"slack passes the limit", {{kMax - 3, 1, 8}}},
      {"product", {{1 << 16, 1U << 16, 1}}},
      {"product beyond 64 bits", {{std::numeric_limits<std::int64_t>::max(), 0xFFFFFFFF, 8}}},
      {"negative of none", {{-1, 0, 1}}},
      {"negative is not made good", {{-1, 1, 1}, {100, 1, 1}}},
      {"alignment 3", {{8, 1, 3}}},
  };
  for (const auto& [name, blocks] : unusable)
    EXPECT_EQ(total_of(blocks), -1) << name;
}

TEST(Carving, ARefusedBlockTakesNothingAndAnUnusableAreaGivesNone) {
  alignas(8) std::array<std::uint8_t, 16> work;
  ZelFixedAllocatorRecord record;
  fixed_allocator_create(work.data(), 16, &record);
  EXPECT_EQ(fixed_allocator_allocate(&record, 1, 1), work.data());
  for (const auto& [size, alignment] : {std::pair{0xFFFFFFFFU, 8U}, {9U, 8U}, {1U, 0U}})
    EXPECT_EQ(fixed_allocator_allocate(&record, size, alignment), nullptr);
  EXPECT_EQ(fixed_allocator_allocate(&record, 8, 8), work.data() + 8);
  for (const auto& [area, size] : {std::pair<void*, std::int32_t>{nullptr, 16}, {work.data(), -1}}) {
    fixed_allocator_create(area, size, &record);
    EXPECT_EQ(fixed_allocator_allocate(&record, 1, 1), nullptr);
  }
}

}  // namespace
}  // namespace zel::host

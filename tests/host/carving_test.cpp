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
  std::uint32_t size;
  std::uint32_t alignment;
};

std::int32_t total_of(const std::vector<Block>& blocks) {
  ZelWorkSizeRecord record;
  work_size_begin(&record);
  for (const Block& block : blocks)
    work_size_add(&record, block.size, 1, block.alignment);
  return work_size_total(&record);
}

// Whether all blocks can be had, each where it should be.
bool carve(std::uint8_t* work, std::int32_t size, const std::vector<Block>& blocks) {
  ZelFixedAllocatorRecord record;
  fixed_allocator_create(work, size, &record);
  const std::uint8_t* last_end = work;
  for (const Block& block : blocks) {
    auto* place = static_cast<std::uint8_t*>(fixed_allocator_allocate(&record, block.size, block.alignment));
    if (place == nullptr) return false;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(place) % block.alignment, 0U);
    EXPECT_GE(place, last_end);
    last_end = place + block.size;
    EXPECT_LE(last_end, work + size);
  }
  fixed_allocator_destroy(&record);
  EXPECT_EQ(fixed_allocator_allocate(&record, 0, 1), nullptr) << "the carving has ended";
  return true;
}

// Areas begin anywhere, since they may be blocks of alignment 1 themselves.
TEST(Carving, TotalServesEveryStartAndOneByteLessDoesNot) {
  constexpr std::uint32_t kSeed = 20230503;
  std::mt19937 random(kSeed);
  const auto pick = [&random](std::uint32_t below) { return static_cast<std::uint32_t>(random() % below); };
  alignas(8) std::array<std::uint8_t, 600> storage;
  for (int round = 0; round < 5000; ++round) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + " round " + std::to_string(round));
    std::vector<Block> blocks(1 + pick(10));
    for (Block& block : blocks)
      block = {1 + pick(40), 1U << pick(4)};
    const std::int32_t total = total_of(blocks);
    int one_less_fails = 0;
    for (std::size_t start = 0; start < 8; ++start) {
      ASSERT_TRUE(carve(&storage[start], total, blocks)) << "start " << start;
      if (!carve(&storage[start], total - 1, blocks)) ++one_less_fails;
    }
    ASSERT_GT(one_less_fails, 0) << "the total is larger than any start needs";
  }
}

TEST(Carving, TotalsThatDoNotFitAreNegative) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
  struct Case {
    const char* name;
    std::vector<std::array<std::int64_t, 3>> adds;  // size, count, alignment
    std::int32_t total;
  };
  const Case cases[] = {
      {"nothing", {}, 0},
      {"largest", {{kMax, 1, 1}}, static_cast<std::int32_t>(kMax)},
      {"largest and one", {{kMax, 1, 1}, {1, 1, 1}}, -1},
      {"slack passes the limit", {{kMax - 3, 1, 8}}, -1},
      {"product", {{1 << 16, 1U << 16, 1}}, -1},
      {"product beyond 64 bits", {{std::numeric_limits<std::int64_t>::max(), 0xFFFFFFFF, 8}}, -1},
      {"negative", {{-1, 1, 1}}, -1},
      {"negative of none", {{-1, 0, 1}}, -1},
      {"negative is not made good", {{-1, 1, 1}, {100, 1, 1}}, -1},
      {"overflow is not made good", {{kMax, 3, 1}, {8, 1, 8}}, -1},
      {"alignment 3", {{8, 1, 3}}, -1},
  };
  for (const Case& c : cases) {
    ZelWorkSizeRecord record;
    work_size_begin(&record);
    for (const auto& [size, count, alignment] : c.adds) {
      work_size_add(&record, size, static_cast<std::uint32_t>(count), static_cast<std::uint32_t>(alignment));
    }
    EXPECT_EQ(work_size_total(&record), c.total) << c.name;
  }
}

TEST(Carving, AnExhaustedAreaRefusesAndKeepsWhatIsLeft) {
  alignas(8) std::array<std::uint8_t, 16> work;
  ZelFixedAllocatorRecord record;
  fixed_allocator_create(work.data(), 16, &record);
  EXPECT_EQ(fixed_allocator_allocate(&record, 1, 1), work.data());
  EXPECT_EQ(fixed_allocator_allocate(&record, 0xFFFFFFFF, 8), nullptr);
  EXPECT_EQ(fixed_allocator_allocate(&record, 9, 8), nullptr);
  EXPECT_EQ(fixed_allocator_allocate(&record, 1, 0), nullptr);
  EXPECT_EQ(fixed_allocator_allocate(&record, 8, 8), work.data() + 8);
  EXPECT_EQ(fixed_allocator_allocate(&record, 1, 1), nullptr);

  for (const auto& [area, size] : {std::pair<void*, std::int32_t>{nullptr, 16}, {work.data(), -1}}) {
    fixed_allocator_create(area, size, &record);
    EXPECT_EQ(fixed_allocator_allocate(&record, 1, 1), nullptr);
  }
}

}  // namespace
}  // namespace zel::host

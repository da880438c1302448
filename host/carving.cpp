#include "carving.h"

#include <algorithm>
#include <array>
#include <bit>
#include <limits>

namespace zel::host {
namespace {

constexpr std::int64_t kMaxTotal = std::numeric_limits<std::int32_t>::max();
constexpr std::size_t kPositions = 8;

// For an area that starts at position p behind a multiple of 8, the end of the last block is at base + ahead[p] behind
// that multiple. `ahead` never exceeds 8, so all of it fits the record.
struct WorkSize {
  std::int64_t base = 0;
  std::array<std::uint8_t, kPositions> ahead = {0, 1, 2, 3, 4, 5, 6, 7};
  std::uint64_t spoilt = 0;
};
static_assert(sizeof(WorkSize) == sizeof(ZelWorkSizeRecord));

constexpr std::int64_t align_up(std::int64_t position, std::int64_t alignment) {
  return (position + alignment - 1) & -alignment;
}

}  // namespace

void fixed_allocator_create(void* work, std::int32_t work_size, ZelFixedAllocatorRecord* record) noexcept {
  const auto start = reinterpret_cast<std::uintptr_t>(work);
  const bool usable = work != nullptr && work_size > 0;
  *record = {{start, usable ? start + static_cast<std::uint32_t>(work_size) : start, 0}};
}

void fixed_allocator_destroy(ZelFixedAllocatorRecord* record) noexcept {
  *record = {};
}

void* fixed_allocator_allocate(ZelFixedAllocatorRecord* record, std::uint32_t size, std::uint32_t alignment) noexcept {
  auto& [next, end, unused] = record->host_state;
  if (next == 0 || !std::has_single_bit(alignment)) return nullptr;
  const std::uint64_t mask = alignment - 1;
  const std::uint64_t padding = (alignment - (next & mask)) & mask;
  if (padding > end - next || size > end - next - padding) return nullptr;
  const std::uint64_t block = next + padding;
  next = block + size;
  return reinterpret_cast<void*>(static_cast<std::uintptr_t>(block));
}

void work_size_begin(ZelWorkSizeRecord* record) noexcept {
  *record = std::bit_cast<ZelWorkSizeRecord>(WorkSize{});
}

void work_size_add(ZelWorkSizeRecord* record, std::int64_t size, std::uint32_t count,
                   std::uint32_t alignment) noexcept {
  auto sum = std::bit_cast<WorkSize>(*record);
  std::int64_t bytes = 0;
  const bool sound = size >= 0 && !__builtin_mul_overflow(size, std::int64_t{count}, &bytes) && bytes <= kMaxTotal &&
                     std::has_single_bit(alignment) && alignment <= kPositions;
  if (!sound) sum.spoilt = 1;
  if (sum.spoilt == 0) {
    const WorkSize before = sum;
    sum.base = align_up(before.base, alignment) + bytes;
    for (std::size_t p = 0; p < kPositions; ++p) {
      const std::int64_t end = align_up(before.base + before.ahead[p], alignment) + bytes;
      sum.ahead[p] = static_cast<std::uint8_t>(end - sum.base);
    }
    if (sum.base > kMaxTotal) sum.spoilt = 1;
  }
  *record = std::bit_cast<ZelWorkSizeRecord>(sum);
}

std::int32_t work_size_total(ZelWorkSizeRecord* record) noexcept {
  const auto sum = std::bit_cast<WorkSize>(*record);
  if (sum.spoilt != 0) return -1;
  std::int64_t total = 0;
  for (std::size_t p = 0; p < kPositions; ++p) {
    total = std::max(total, sum.base + sum.ahead[p] - static_cast<std::int64_t>(p));
  }
  return total <= kMaxTotal ? static_cast<std::int32_t>(total) : -1;
}

}  // namespace zel::host

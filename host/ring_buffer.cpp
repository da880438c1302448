#include "ring_buffer.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace zel::host {
namespace {

thread_local RingWatch* innermost_watch = nullptr;

constexpr ZelRingBufferChunk kNothing{nullptr, 0};

}  // namespace

std::int32_t RingBuffer::calculate_work_size(const ZelRingBufferConfig& config) noexcept {
  if (config.buffer_size == 0 || config.max_chunk_size == 0 || config.max_chunk_size > config.buffer_size) return -1;
  const std::uint64_t total = alignof(RingBuffer) - 1 + sizeof(RingBuffer) +
                              std::uint64_t{config.max_chunks} * sizeof(Returned) +
                              2 * std::uint64_t{config.buffer_size};
  return total <= std::numeric_limits<std::int32_t>::max() ? static_cast<std::int32_t>(total) : -1;
}

RingBuffer* RingBuffer::create(const ZelRingBufferConfig& config, void* work, std::uint32_t work_size) noexcept {
  const std::int32_t needed = calculate_work_size(config);
  if (work == nullptr || needed < 0 || work_size < static_cast<std::uint32_t>(needed)) return nullptr;
  std::size_t space = work_size;
  auto* place = static_cast<std::uint8_t*>(std::align(alignof(RingBuffer), sizeof(RingBuffer), work, space));
  static_assert(alignof(RingBuffer) >= alignof(Returned) && sizeof(RingBuffer) % alignof(Returned) == 0);
  auto* returned = reinterpret_cast<Returned*>(place + sizeof(RingBuffer));
  std::uninitialized_default_construct_n(returned, config.max_chunks);
  auto* bytes = reinterpret_cast<std::uint8_t*>(returned + config.max_chunks);
  return new (place) RingBuffer(config, returned, bytes);
}

RingBuffer::RingBuffer(const ZelRingBufferConfig& config, Returned* returned, std::uint8_t* bytes) noexcept
    : capacity_(config.buffer_size), max_returned_(config.max_chunks), bytes_(bytes), returned_(returned) {}

void RingBuffer::reset() noexcept {
  std::lock_guard hold(lock_);
  oldest_ = used_ = out_ = data_ = write_ = writing_ = returned_count_ = 0;
  statistics_.returned = statistics_.taken;
}

// At most twice the capacity comes in: a position plus a length that does not exceed the capacity.
std::uint32_t RingBuffer::wrap(std::uint32_t position) const noexcept {
  return position >= capacity_ ? position - capacity_ : position;
}

std::uint32_t RingBuffer::position_of(const ZelRingBufferChunk& chunk) const noexcept {
  const auto offset = reinterpret_cast<std::uintptr_t>(chunk.data) - reinterpret_cast<std::uintptr_t>(bytes_);
  const std::uint64_t length = 2 * std::uint64_t{capacity_};
  if (chunk.data == nullptr || offset >= length || chunk.size > length - offset || chunk.size > capacity_) {
    return capacity_;
  }
  return wrap(static_cast<std::uint32_t>(offset));
}

std::uint32_t RingBuffer::distance_of(std::uint32_t position) const noexcept {
  return position >= oldest_ ? position - oldest_ : position + (capacity_ - oldest_);
}

bool RingBuffer::is_out(std::uint32_t distance, std::uint32_t size) const noexcept {
  if (distance >= used_ || size > used_ - distance || size > out_) return false;
  const auto overlaps = [&](const Returned& back) { return distance < back.end && back.begin < distance + size; };
  return std::none_of(returned_, returned_ + returned_count_, overlaps);
}

ZelRingBufferChunk RingBuffer::acquire(std::uint32_t lane, std::uint32_t size) noexcept {
  if (innermost_watch != nullptr) innermost_watch->seen_ = this;
  std::lock_guard hold(lock_);
  if (lane == ZEL_RING_LANE_FREE) return acquire_free(size);
  return lane == ZEL_RING_LANE_DATA ? acquire_data(size) : kNothing;
}

ZelRingBufferChunk RingBuffer::acquire_free(std::uint32_t size) noexcept {
  const std::uint32_t begin = wrap(write_ + writing_);
  const std::uint32_t count = std::min(size, free_bytes());
  if (count == 0) return kNothing;
  writing_ += count;
  return {bytes_ + begin, count};
}

ZelRingBufferChunk RingBuffer::acquire_data(std::uint32_t size) noexcept {
  const std::uint32_t begin = wrap(oldest_ + used_);
  const std::uint32_t count = std::min(size, data_);
  if (count == 0) return kNothing;
  if (count > capacity_ - begin) std::memcpy(bytes_ + capacity_, bytes_, count - (capacity_ - begin));
  data_ -= count;
  used_ += count;
  out_ += count;
  ++statistics_.taken;
  return {bytes_ + begin, count};
}

void RingBuffer::release(std::uint32_t lane, const ZelRingBufferChunk& chunk) noexcept {
  std::lock_guard hold(lock_);
  const std::uint32_t begin = position_of(chunk);
  if (begin == capacity_ || chunk.size == 0) return;
  const std::uint32_t end = wrap(begin + chunk.size);
  if (lane == ZEL_RING_LANE_FREE && chunk.size <= writing_ && end == wrap(write_ + writing_)) {
    writing_ -= chunk.size;
  } else if (lane == ZEL_RING_LANE_DATA && end == wrap(oldest_ + used_) && is_out(distance_of(begin), chunk.size)) {
    data_ += chunk.size;
    used_ -= chunk.size;
    out_ -= chunk.size;
    ++statistics_.returned;
  }
}

void RingBuffer::commit(std::uint32_t lane, const ZelRingBufferChunk& chunk) noexcept {
  std::lock_guard hold(lock_);
  const std::uint32_t begin = position_of(chunk);
  if (begin == capacity_ || chunk.size == 0) return;
  if (lane == ZEL_RING_LANE_FREE) {
    const std::uint32_t distance = distance_of(begin);
    if (is_out(distance, chunk.size)) take_back_used(distance, distance + chunk.size);
  } else if (lane == ZEL_RING_LANE_DATA && begin == write_ && chunk.size <= writing_) {
    // What was written behind the end of the circle goes where it belongs.
    const auto from = static_cast<std::uint32_t>(chunk.data - bytes_);
    const std::uint32_t crossing = std::max(from, capacity_);
    if (from + chunk.size > crossing) {
      std::memcpy(bytes_ + (crossing - capacity_), bytes_ + crossing, from + chunk.size - crossing);
    }
    data_ += chunk.size;
    writing_ -= chunk.size;
    write_ = wrap(write_ + chunk.size);
  }
}

void RingBuffer::take_back_used(std::uint32_t begin, std::uint32_t end) noexcept {
  out_ -= end - begin;
  ++statistics_.returned;
  // Joins its returned neighbours, which leave the list.
  for (std::uint32_t i = returned_count_; i-- > 0;) {
    if (returned_[i].end != begin && returned_[i].begin != end) continue;
    begin = std::min(begin, returned_[i].begin);
    end = std::max(end, returned_[i].end);
    returned_[i] = returned_[--returned_count_];
  }
  const bool at_front = data_ == 0 && writing_ == 0;
  if (out_ == 0) {
    advance_oldest(used_);
  } else if (begin == 0) {
    advance_oldest(end);
  } else if (at_front && end == used_) {
    write_ = wrap(oldest_ + begin);
    used_ = begin;
  } else if (returned_count_ < max_returned_) {
    returned_[returned_count_++] = {begin, end};
  }
  // A list that is full forgets the chunk; its bytes come back when nothing is out any more.
}

void RingBuffer::advance_oldest(std::uint32_t distance) noexcept {
  oldest_ = wrap(oldest_ + distance);
  used_ -= distance;
  if (out_ == 0) returned_count_ = 0;
  for (std::uint32_t i = 0; i < returned_count_; ++i) {
    returned_[i].begin -= distance;
    returned_[i].end -= distance;
  }
}

std::uint32_t RingBuffer::data_size(std::uint32_t lane) noexcept {
  std::lock_guard hold(lock_);
  if (lane == ZEL_RING_LANE_FREE) return free_bytes();
  return lane == ZEL_RING_LANE_DATA ? data_ : 0;
}

RingStatistics RingBuffer::statistics() noexcept {
  std::lock_guard hold(lock_);
  RingStatistics now = statistics_;
  now.free_bytes = free_bytes();
  return now;
}

void RingBuffer::split(const ZelRingBufferChunk& source, std::uint32_t size, ZelRingBufferChunk& head,
                       ZelRingBufferChunk& tail) noexcept {
  const ZelRingBufferChunk whole = source;
  const std::uint32_t cut = std::min(size, whole.size);
  head = cut > 0 ? ZelRingBufferChunk{whole.data, cut} : kNothing;
  tail = cut < whole.size ? ZelRingBufferChunk{whole.data + cut, whole.size - cut} : kNothing;
}

RingWatch::RingWatch() noexcept : outer_(std::exchange(innermost_watch, this)) {}

RingWatch::~RingWatch() {
  innermost_watch = outer_;
}

}  // namespace zel::host

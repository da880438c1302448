// The ring buffer behind slots 43 to 53: two lanes of bytes, free (0) and written (1), and chunks that are out.
//
// Positions lie on a circle of `buffer_size` bytes, in this order: the chunks out of lane 1, oldest first; lane 1; the
// chunks out of lane 0, oldest first; lane 0, which reaches round to the oldest chunk. Behind the end of the circle
// lies a mirror of the same size, so that every chunk is contiguous: one that crosses the end has its second part in
// the mirror. Only one run can cross the end, so only one uses the mirror.
//
// Promises
//  1. An acquire of n bytes from a lane that holds n gives exactly n; from one that holds less, all that it holds.
//  2. Lane 0 is always one run. Used chunks of lane 1 join it at its back, oldest first; one that comes back before an
//     older one waits until that is back, or joins at the front when lane 1 is empty and the chunk was its last. So a
//     discarded stream is free at once whatever is waiting in front of it.
//  3. Chunks of lane 0 are committed to lane 1 oldest first and released newest first; a chunk cut in two counts as
//     two. A chunk that is not out where it claims to be changes nothing.
//  4. Nothing is allocated: the state lies at the beginning of the work area, which may begin anywhere.
//
// Thread rule: every operation may be called from any thread; each holds a short lock. Creation and destruction must
// not overlap the use of the ring.
#pragma once

#include <cstdint>

#include "sync.h"
#include "zel_base_rtc_bridge.h"

namespace zel::host {

/** Traffic between the far end of lane 1 and lane 0 since creation; both counts wrap. */
struct RingStatistics {
  std::uint32_t taken = 0;       ///< chunks acquired from lane 1
  std::uint32_t returned = 0;    ///< of these, committed to lane 0, released, or voided by a reset
  std::uint32_t free_bytes = 0;  ///< bytes in lane 0

  /** Chunks of lane 1 that are out: finished streams that wait. */
  std::uint32_t waiting() const noexcept { return taken - returned; }
};

class RingBuffer {
 public:
  /** Bytes of work area, or -1 for a configuration without bytes, with chunks longer than the buffer, or too large. */
  static std::int32_t calculate_work_size(const ZelRingBufferConfig& config) noexcept;
  /** Null when `work` is null or smaller than calculated. Nothing needs to be destroyed: the work area is all there is.
   */
  static RingBuffer* create(const ZelRingBufferConfig& config, void* work, std::uint32_t work_size) noexcept;

  void reset() noexcept;
  ZelRingBufferChunk acquire(std::uint32_t lane, std::uint32_t size) noexcept;
  void release(std::uint32_t lane, const ZelRingBufferChunk& chunk) noexcept;
  void commit(std::uint32_t lane, const ZelRingBufferChunk& chunk) noexcept;
  std::uint32_t data_size(std::uint32_t lane) noexcept;
  RingStatistics statistics() noexcept;

  static void split(const ZelRingBufferChunk& source, std::uint32_t size, ZelRingBufferChunk& head,
                    ZelRingBufferChunk& tail) noexcept;

 private:
  // A used chunk that waits for an older one, by its distance from the start of the oldest chunk that is out.
  struct Returned {
    std::uint32_t begin;
    std::uint32_t end;
  };

  RingBuffer(const ZelRingBufferConfig& config, Returned* returned, std::uint8_t* bytes) noexcept;
  std::uint32_t wrap(std::uint32_t position) const noexcept;
  std::uint32_t free_bytes() const noexcept { return capacity_ - used_ - data_ - writing_; }
  // Position of the chunk's first byte, or the capacity when the chunk does not lie in the buffer.
  std::uint32_t position_of(const ZelRingBufferChunk& chunk) const noexcept;
  std::uint32_t distance_of(std::uint32_t position) const noexcept;
  // Whether these bytes, by their distance, are out of lane 1.
  bool is_out(std::uint32_t distance, std::uint32_t size) const noexcept;
  ZelRingBufferChunk acquire_free(std::uint32_t size) noexcept;
  ZelRingBufferChunk acquire_data(std::uint32_t size) noexcept;
  void take_back_used(std::uint32_t begin, std::uint32_t end) noexcept;
  void advance_oldest(std::uint32_t distance) noexcept;

  WordLock lock_;
  const std::uint32_t capacity_;
  const std::uint32_t max_returned_;
  std::uint8_t* const bytes_;  // twice capacity_
  Returned* const returned_;   // max_returned_ entries, no two adjacent

  std::uint32_t oldest_ = 0;   // position of the oldest chunk out of lane 1, or of lane 1 when none is out
  std::uint32_t used_ = 0;     // bytes from there to lane 1: chunks out, and returned ones that wait
  std::uint32_t out_ = 0;      // of these, bytes still out
  std::uint32_t data_ = 0;     // bytes in lane 1
  std::uint32_t write_ = 0;    // position behind lane 1
  std::uint32_t writing_ = 0;  // bytes out of lane 0, from there on
  std::uint32_t returned_count_ = 0;
  RingStatistics statistics_;
};

/** While it lives, remembers the ring buffer that its own thread acquired bytes from last. Nests; destroyed in reverse
 * order. */
class RingWatch {
 public:
  RingWatch() noexcept;
  ~RingWatch();
  RingWatch(const RingWatch&) = delete;
  RingWatch& operator=(const RingWatch&) = delete;

  /** Null when the thread has acquired nothing. */
  RingBuffer* seen() const noexcept { return seen_; }

 private:
  friend class RingBuffer;
  RingBuffer* seen_ = nullptr;
  RingWatch* outer_;
};

}  // namespace zel::host

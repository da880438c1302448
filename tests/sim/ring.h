// The ring buffer of one recognizer, as strict as the bridge's contract allows: every chunk is a block of its own, so
// that a sanitizer sees each step beyond it, and is overwritten when it comes back; only what is out can come back.
// Where chunks go tells the recognizer's ledger what has become of its utterances.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "zel_base_rtc_bridge.h"

namespace sim {

class Seat;

class Ring {
 public:
  explicit Ring(Seat& seat, std::uint32_t bytes) : seat_(seat), bytes_(bytes) {}

  ZelRingBufferChunk Acquire(std::uint32_t lane, std::uint32_t size);
  void Release(std::uint32_t lane, const ZelRingBufferChunk& chunk) { TakeBack(lane, chunk, true); }
  void Commit(std::uint32_t lane, const ZelRingBufferChunk& chunk) { TakeBack(lane, chunk, false); }
  void Reset();
  std::uint32_t Size(std::uint32_t lane) const;
  // Chunks that are out of a lane, taken by updates or by the audio path.
  std::size_t Out(std::uint32_t lane, bool by_update = false) const;
  Seat& seat() { return seat_; }

 private:
  struct Chunk {
    std::unique_ptr<std::uint8_t[]> bytes;
    std::uint32_t size, out, lane;
    bool by_update;  // taken by the update, not by the audio path
  };
  void TakeBack(std::uint32_t lane, const ZelRingBufferChunk& part, bool released);

  Seat& seat_;
  const std::uint32_t bytes_;
  std::vector<std::uint8_t> data_;  // lane 1
  std::vector<Chunk> chunks_;       // those out, oldest first
};

}  // namespace sim

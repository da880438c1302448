#include "ring.h"

#include <algorithm>

#include "ledger.h"
#include "world.h"

namespace sim {

std::uint32_t Ring::Size(std::uint32_t lane) const {
  if (lane == ZEL_RING_LANE_DATA) return static_cast<std::uint32_t>(data_.size());
  std::uint32_t used = static_cast<std::uint32_t>(data_.size());
  for (const Chunk& chunk : chunks_)
    used += chunk.out;
  return bytes_ - used;
}

std::size_t Ring::Out(std::uint32_t lane, bool by_update) const {
  return static_cast<std::size_t>(
      std::ranges::count_if(chunks_, [=](const Chunk& c) { return c.lane == lane && c.by_update == by_update; }));
}

ZelRingBufferChunk Ring::Acquire(std::uint32_t lane, std::uint32_t size) {
  if (Me().in_frame) seat_.Worked();
  std::uint32_t given = std::min(size, Size(lane));
  if (OneIn(TheWorld().knobs.starve_one_in)) given = Below(given + 1);
  TheWorld().trace.Mix(given * 2 + lane);
  if (given < size) seat_.RingFellShort(lane);
  if (given == 0) return {nullptr, 0};
  Chunk chunk = {std::make_unique_for_overwrite<std::uint8_t[]>(given), given, given, lane, Me().updating};
  if (lane == ZEL_RING_LANE_DATA) {
    const auto end = data_.begin() + given;
    std::copy(data_.begin(), end, chunk.bytes.get());
    data_.erase(data_.begin(), end);
  }
  const ZelRingBufferChunk whole = {chunk.bytes.get(), given};
  const bool stream = lane == ZEL_RING_LANE_DATA && !chunk.by_update;
  chunks_.push_back(std::move(chunk));
  if (stream) seat_.TookStream(given, data_.empty());
  return whole;
}

void Ring::TakeBack(std::uint32_t lane, const ZelRingBufferChunk& part, bool released) {
  if (part.size == 0) return;
  if (Me().in_frame) seat_.Worked();
  const auto found = std::ranges::find_if(chunks_, [&](const Chunk& c) {
    return c.bytes.get() <= part.data && part.data + part.size <= c.bytes.get() + c.size && part.size <= c.out;
  });
  SIM_CHECK(found != chunks_.end(), "%u bytes come back that are not out", part.size);
  SIM_CHECK(!released || lane == found->lane, "released to another lane");
  TheWorld().trace.Mix(part.size * 4 + lane * 2 + (released ? 1 : 0));
  if (lane == ZEL_RING_LANE_DATA) {
    SIM_CHECK(found->lane == ZEL_RING_LANE_FREE, "data that was read is written again");
    data_.insert(data_.end(), part.data, part.data + part.size);
  }
  const bool was_data = found->lane == ZEL_RING_LANE_DATA, by_update = found->by_update;
  const bool oldest = std::find_if(chunks_.begin(), found, [](const Chunk& c) { return c.lane == 1; }) == found;
  found->out -= part.size;
  if (found->out == 0) {
    std::fill_n(found->bytes.get(), found->size, 0xDD);
    chunks_.erase(found);
  }
  if (!was_data) return;
  SIM_CHECK(lane == ZEL_RING_LANE_FREE, "a stream was put back");
  if (by_update) return seat_.DroppedAudio();
  if (Me().in_frame) return seat_.GaveStreamBack();
  SIM_CHECK(oldest, "an utterance is freed before an older one");
  seat_.Answered();
}

void Ring::Reset() {
  Note("resets the ring of", seat_.name());
  data_.clear();
  for (const Chunk& chunk : chunks_)
    std::fill_n(chunk.bytes.get(), chunk.size, 0xDD);
  chunks_.clear();
  seat_.RingWasReset();
}

}  // namespace sim

// The contestants of row pipeline. Each turns the frames of a member into Ogg Opus streams in memory, one per
// utterance, and keeps the last eight.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "script.h"

namespace bench {

using Stream = std::vector<std::uint8_t>;

/** Bytes of the longest stream, and more. */
inline constexpr std::size_t kStreamRoom = 65'536;

/** One member as a contestant sees it; frames as in script(). */
class PipelineMember {
 public:
  virtual ~PipelineMember() = default;
  /** Drops the streams kept. Each round begins with it. */
  virtual void begin_round() = 0;
  virtual void put_frame(const SttAudioFrame& frame) = 0;
  /** The streams of the round so far, oldest first. */
  virtual std::vector<Stream> streams() = 0;
};

std::unique_ptr<PipelineMember> make_libogg_member();
std::unique_ptr<PipelineMember> make_libavformat_member();
std::unique_ptr<PipelineMember> make_gstreamer_member();

}  // namespace bench

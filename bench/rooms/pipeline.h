// The contestants of row pipeline. Each turns the frames of a member into Ogg Opus streams in memory, one per
// utterance, and keeps the last eight.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "script.h"

namespace rooms {

/** One member as a contestant sees it; frames as in Script(). The first frame of a round drops the streams kept. */
class PipelineMember {
 public:
  virtual ~PipelineMember() = default;
  virtual void BeginRound() = 0;
  virtual void PutFrame(const SttAudioFrame& frame) = 0;
  /** The streams of the round so far, oldest first. */
  virtual std::vector<std::string> Streams() = 0;
};

std::unique_ptr<PipelineMember> MakeLiboggMember();
std::unique_ptr<PipelineMember> MakeLibavformatMember();
std::unique_ptr<PipelineMember> MakeGstreamerMember();

/** The OpusHead packet that all contestants announce (RFC 7845, section 5.1): 16 kHz, mono. */
std::vector<std::uint8_t> IdentificationPacket();
/** An OpusTags packet without vendor and comments. */
std::vector<std::uint8_t> CommentPacket();

}  // namespace rooms

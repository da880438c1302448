// What a member says, over and over: eight utterances of real speech, each ended by seven silent frames.
#pragma once

#include <cstddef>
#include <span>

#include "zel_rtc_speech_to_text_host.h"

namespace bench {

inline constexpr std::size_t kUtterances = 8;  // as many as wait in a recognizer's slots
inline constexpr std::size_t kPause = 7;       // silent frames that end an utterance
inline constexpr double kFramesPerSecond = 25;

/** The frames of one round. Made once. */
std::span<const SttAudioFrame> script();

/** A member's place in the script; the members of a room start at places evenly apart, so that every tick holds the
 * same mixture of work. */
class Place {
 public:
  Place(std::size_t member, std::size_t members) : next_(member * frames_.size() / members) {}
  /** The round begins with the next frame. */
  bool at_start() const { return next_ == 0; }
  const SttAudioFrame& next() {
    const SttAudioFrame& frame = frames_[next_];
    next_ = next_ + 1 < frames_.size() ? next_ + 1 : 0;
    return frame;
  }

 private:
  std::span<const SttAudioFrame> frames_ = script();
  std::size_t next_;
};

}  // namespace bench

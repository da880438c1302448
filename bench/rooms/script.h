// What a member says, over and over: eight utterances of real speech, each ended by seven silent frames.
#pragma once

#include <cstddef>
#include <vector>

#include "zel_rtc_speech_to_text_host.h"

namespace rooms {

inline constexpr std::size_t kUtterances = 8;  // as many as wait in a recognizer's slots
inline constexpr std::size_t kPause = 7;       // silent frames that end an utterance
inline constexpr double kFramesPerSecond = 25;

/** The frames of one round. Built once; lives as long as the process. */
const std::vector<SttAudioFrame>& Script();

/** A member's place in the script; the members of a room start at places evenly apart, so that every tick holds the same
 * mixture of work. */
class Place {
 public:
  Place(std::size_t member, std::size_t members) : next_(member * Script().size() / members) {}
  /** The round begins with the next frame. */
  bool at_start() const { return next_ == 0; }
  const SttAudioFrame& Next() {
    const SttAudioFrame& frame = Script()[next_];
    next_ = next_ + 1 < Script().size() ? next_ + 1 : 0;
    return frame;
  }

 private:
  std::size_t next_;
};

}  // namespace rooms

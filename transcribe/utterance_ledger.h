// Which stretch of a member's audio each answer belongs to. Utterances are answered in order, but an answer without a
// text shows only in the room's counts.
//
// Thread rule: an object belongs to one thread.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace zel::transcribe {

/** Seconds from the beginning of the member's audio. */
struct Stretch {
  double begin = 0;
  double end = 0;
};

class UtteranceLedger {
 public:
  /** An utterance has been stored for posting. */
  void stored(Stretch stretch) { open_.push_back(stretch); }

  /** One update gave `texts` texts, and `answered` utterances in all have been answered since the beginning. Result:
   * the stretch of each text, or nothing where it cannot be known which of several utterances had the text. */
  std::vector<std::optional<Stretch>> resolve(std::size_t texts, std::uint64_t answered);

 private:
  std::deque<Stretch> open_;
  std::uint64_t resolved_ = 0;
};

}  // namespace zel::transcribe

// Cuts a member's audio into utterances at pauses.
//
// An utterance is one contiguous stretch of audio: a little before the first word, everything up to the last one, a
// little behind it. Pauses of less than about half a second stay inside, whole. The longer an utterance gets, the
// shorter the pause that ends it; at the longest it is cut wherever it stands, with nothing lost.
//
// Thread rule: an object belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>

#include "audio.h"
#include "voice_detector.h"

namespace zel::transcribe {

/** Takes what the cutter hands out, in order. */
struct CutterSink {
  std::function<void(const Frame& frame, std::uint64_t index)> audio;  ///< `index` counts the frames pushed
  std::function<void()> cut;                                           ///< the utterance is over
};

class UtteranceCutter {
 public:
  /** `max_frames`: the longest utterance. */
  UtteranceCutter(std::size_t max_frames, CutterSink sink);

  void push(const Frame& frame, Activity activity);
  /** The audio is over: ends an utterance that is open. */
  void finish();

 private:
  struct Held {
    Frame frame;
    std::uint64_t index;
  };

  void listen(bool voiced);
  void follow(Activity activity);
  std::size_t pause_frames() const;
  bool is_dip(double level) const;
  void emit(std::size_t count);
  void end_utterance();

  std::size_t max_frames_;
  CutterSink sink_;
  std::uint64_t next_index_ = 0;
  std::deque<Held> held_;  // not handed out yet: recent frames while listening, a pause while speaking
  bool speaking_ = false;
  std::size_t voiced_run_ = 0;  // while listening
  std::size_t length_ = 0;      // frames of the utterance, held ones included
  double mean_level_ = 0;       // of its voiced frames, dB
};

}  // namespace zel::transcribe

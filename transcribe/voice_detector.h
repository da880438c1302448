// Tells voice from everything else, 40 ms at a time.
//
// A statistical voice detector decides on what a frame sounds like; on its own it takes loud steady noise and tones for
// voice forever. So the level has to stand out, too: from a floor that falls to the quietest frames at once and climbs
// slowly, which is what no voice with its pauses lets happen.
//
// Thread rule: an object belongs to one thread.
#pragma once

#include <memory>

#include "audio.h"

namespace webrtc {
class AudioProcessing;
}

namespace zel::transcribe {

struct Activity {
  bool voiced = false;
  double level = -100;  ///< dB relative to full scale
};

class VoiceDetector {
 public:
  VoiceDetector();
  ~VoiceDetector();
  VoiceDetector(const VoiceDetector&) = delete;
  VoiceDetector& operator=(const VoiceDetector&) = delete;

  Activity look_at(const Frame& frame);

 private:
  std::unique_ptr<webrtc::AudioProcessing> processing_;
  double floor_;
};

}  // namespace zel::transcribe

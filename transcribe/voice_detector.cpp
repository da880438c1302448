#include "voice_detector.h"

#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace zel::transcribe {
namespace {

constexpr std::size_t kStepSamples = 160;  // 10 ms, what the detector takes
constexpr int kVoicedSteps = 2;            // of a frame's four
constexpr double kFirstFloor = -50;        // dB; the first words are not to be waited for
constexpr double kLowestFloor = -65;
constexpr double kFloorFall = 0.5;   // part of the way to a quieter frame
constexpr double kFloorRise = 0.06;  // dB per frame
constexpr double kMargin = 4;        // dB over the floor

double level_of(const Frame& frame) {
  double energy = 0;
  for (const std::int16_t sample : frame)
    energy += static_cast<double>(sample) * sample;
  return 10 * std::log10(energy / kFrameSamples / (32768.0 * 32768.0) + 1e-10);
}

int voiced_steps(webrtc::AudioProcessing& processing, const Frame& frame) {
  const webrtc::StreamConfig mono(kSampleRate, 1);
  int voiced = 0;
  for (std::size_t start = 0; start < kFrameSamples; start += kStepSamples) {
    std::array<float, kStepSamples> step{};
    std::transform(frame.begin() + static_cast<std::ptrdiff_t>(start),
                   frame.begin() + static_cast<std::ptrdiff_t>(start + kStepSamples), step.begin(),
                   [](std::int16_t sample) { return static_cast<float>(sample) / 32768.0F; });
    float* channel = step.data();
    if (processing.ProcessStream(&channel, mono, mono, &channel) != webrtc::AudioProcessing::kNoError) continue;
    if (processing.voice_detection()->stream_has_voice()) ++voiced;
  }
  return voiced;
}

}  // namespace

VoiceDetector::VoiceDetector() : processing_(webrtc::AudioProcessing::Create()), floor_(kFirstFloor) {
  if (!processing_) throw std::runtime_error("voice detector cannot be created");
  processing_->high_pass_filter()->Enable(true);
  webrtc::VoiceDetection* detection = processing_->voice_detection();
  detection->set_likelihood(webrtc::VoiceDetection::kLowLikelihood);
  detection->set_frame_size_ms(10);
  detection->Enable(true);
}

VoiceDetector::~VoiceDetector() = default;

Activity VoiceDetector::look_at(const Frame& frame) {
  Activity activity;
  activity.level = level_of(frame);
  floor_ += activity.level < floor_ ? (activity.level - floor_) * kFloorFall : kFloorRise;
  floor_ = std::max(floor_, kLowestFloor);
  activity.voiced = voiced_steps(*processing_, frame) >= kVoicedSteps && activity.level > floor_ + kMargin;
  return activity;
}

}  // namespace zel::transcribe

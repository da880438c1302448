#include "utterance_cutter.h"

#include <algorithm>
#include <utility>

namespace zel::transcribe {
namespace {

constexpr std::size_t kOnsetFrames = 3;     // voiced frames in a row that begin an utterance; fewer are a click
constexpr std::size_t kPreRollFrames = 6;   // kept from before the first of them
constexpr std::size_t kHangoverFrames = 6;  // kept behind the last voiced one
constexpr std::size_t kPauseFrames = 13;    // end an utterance
constexpr double kDip = 6;                  // dB below its mean that make a frame of a very long utterance a pause
constexpr double kMeanWeight = 0.02;        // of a new frame in the mean level

}  // namespace

UtteranceCutter::UtteranceCutter(std::size_t max_frames, CutterSink sink)
    : max_frames_(max_frames), sink_(std::move(sink)) {}

void UtteranceCutter::push(const Frame& frame, Activity activity) {
  held_.push_back({frame, next_index_++});
  if (speaking_) {
    follow(activity);
  } else {
    listen(activity.voiced);
    if (speaking_) mean_level_ = activity.level;
  }
}

void UtteranceCutter::finish() {
  if (speaking_) end_utterance();
}

void UtteranceCutter::listen(bool voiced) {
  voiced_run_ = voiced ? voiced_run_ + 1 : 0;
  while (held_.size() > kPreRollFrames + kOnsetFrames)
    held_.pop_front();
  if (voiced_run_ < kOnsetFrames) return;
  speaking_ = true;
  length_ = held_.size();
  emit(held_.size());
}

void UtteranceCutter::follow(Activity activity) {
  ++length_;
  if (activity.voiced && !is_dip(activity.level)) {
    mean_level_ += kMeanWeight * (activity.level - mean_level_);
    emit(held_.size());
  } else if (held_.size() >= pause_frames()) {
    end_utterance();
    return;
  }
  if (length_ < max_frames_) return;
  emit(held_.size());
  sink_.cut();
  length_ = 0;
}

// Half a second at first; a dip of one frame when the end is near.
std::size_t UtteranceCutter::pause_frames() const {
  if (2 * length_ < max_frames_) return kPauseFrames;
  if (3 * length_ < 2 * max_frames_) return kPauseFrames / 2;
  return 6 * length_ < 5 * max_frames_ ? 3 : 1;
}

bool UtteranceCutter::is_dip(double level) const {
  return 3 * length_ >= 2 * max_frames_ && level < mean_level_ - kDip;
}

void UtteranceCutter::emit(std::size_t count) {
  for (; count > 0; --count) {
    sink_.audio(held_.front().frame, held_.front().index);
    held_.pop_front();
  }
}

// What is held beyond the hangover may become the pre-roll of the next utterance. Nothing but a pause behind one that
// was cut at its longest is no utterance.
void UtteranceCutter::end_utterance() {
  if (length_ > held_.size()) {
    emit(std::min(held_.size(), kHangoverFrames));
    sink_.cut();
  }
  speaking_ = false;
  voiced_run_ = 0;
  length_ = 0;
}

}  // namespace zel::transcribe

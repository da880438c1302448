// One member from audio to the room: source, voice detector, cutter, encoder, and the frames that the room has not
// taken yet. Reads on only when the room has taken everything, so a slow service holds the source back and nothing is
// lost.
//
// Thread rule: an object belongs to one thread.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "audio_source.h"
#include "encoder.h"
#include "options.h"
#include "room.h"
#include "utterance_cutter.h"
#include "voice_detector.h"

namespace zel::transcribe {

/** Longest utterance, frames: 25 s, which a recognizer at twice real time answers within the plug-in's time-outs. */
inline constexpr std::size_t kLongestUtterance = 625;

/** A part of a member's audio, seconds from its beginning. */
struct Stretch {
  double begin = 0;
  double end = 0;
};

/** The longest utterance at a bit rate: no more than kLongestUtterance, nor than fits the request body with the room's
 * reserve. */
std::size_t longest_utterance(int bitrate);

class MemberFeed {
 public:
  MemberFeed(std::uint32_t id, const MemberOptions& options, std::unique_ptr<AudioSource> source, int bitrate);

  enum class Step {
    kWorked,   ///< a frame was read, or the room took something
    kIdle,     ///< live audio has not come yet, or no more may be read
    kBlocked,  ///< the room takes nothing before it has been pumped
    kOver,     ///< the audio is over and the room has all of it
  };

  /** Gives the room what it takes; then, if it took everything and `may_read`, reads one more frame. */
  Step step(host::Room& room, bool may_read);
  /** The audio is over now; what was read is still fed. */
  void stop() { stopped_ = true; }

  /** Where the room's utterance of that number was spoken; earlier ones are forgotten. Nothing when the room cut it. */
  std::optional<Stretch> take_stretch(std::uint64_t utterance);

  std::uint32_t id() const { return id_; }
  ZelRtcSpeechToTextLanguage language() const { return language_; }
  bool live() const { return source_->live(); }
  /** Why the audio ended before its time; empty when it did not. */
  std::string error() const { return source_->error(); }
  std::uint64_t frames_read() const { return frames_read_; }

 private:
  // A frame for the room: a packet, or nothing.
  struct Piece {
    std::array<unsigned char, host::kMaxPacketSize> packet;
    std::size_t size = 0;
    std::uint64_t index = 0;  // of the frame in the member's audio
    bool last_of_cut = false;
  };

  CutterSink sink();
  bool feed_pending(host::Room& room);
  void note_taken(const host::Room& room, const Piece& piece);
  bool read_frame();

  std::uint32_t id_;
  ZelRtcSpeechToTextLanguage language_;
  std::unique_ptr<AudioSource> source_;
  VoiceDetector detector_;
  UtteranceCutter cutter_;
  Encoder encoder_;
  std::deque<Piece> pending_;
  bool stopped_ = false;
  bool finished_ = false;
  bool in_utterance_ = false;  // of the frames encoded
  std::uint64_t frames_read_ = 0;

  std::map<std::uint64_t, Stretch> stretches_;  // by the room's number, of utterances that wait
  std::optional<Stretch> spoken_;               // the utterance of the frames that the room has taken
};

}  // namespace zel::transcribe

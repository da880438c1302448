// The texts on standard output, one a line, and a progress line on standard error when that is a terminal.
//
// Thread rule: an object belongs to one thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "member_feed.h"

namespace zel::transcribe {

struct Caption {
  const host::RoomText& text;
  ZelRtcSpeechToTextLanguage language;
  std::optional<Stretch> stretch;
};

/** "01:02.5"; hours only when there are any. */
std::string format_time(double seconds);
/** The line without its end. */
std::string format_caption(const Caption& caption, Format format);

class CaptionWriter {
 public:
  explicit CaptionWriter(Format format);
  ~CaptionWriter() { hide_progress(); }
  CaptionWriter(const CaptionWriter&) = delete;
  CaptionWriter& operator=(const CaptionWriter&) = delete;

  /** False when standard output takes no more. */
  bool write(const Caption& caption);
  /** A few times a second at most. */
  void show_progress(double audio_seconds, std::size_t waiting);
  void hide_progress();

 private:
  Format format_;
  bool terminal_;
  bool shown_ = false;
  std::size_t texts_ = 0;
  std::chrono::steady_clock::time_point next_progress_{};
};

}  // namespace zel::transcribe

#include "captions.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "json_text.h"

namespace zel::transcribe {
namespace {

constexpr std::chrono::milliseconds kProgressInterval{200};

// Frame positions are multiples of 40 ms; this takes away what doubles add to that.
double rounded(double seconds) {
  return std::round(seconds * 100) / 100;
}

std::string format_json(const Caption& caption) {
  JsonMembers line = {{"member", caption.text.client_id},
                      {"member_id", std::uint64_t{caption.text.member_id}},
                      {"text", unescape(caption.text.text)},
                      {"timestamp_us", caption.text.timestamp_us}};
  if (caption.stretch) {
    line.emplace_back("begin_s", rounded(caption.stretch->begin));
    line.emplace_back("end_s", rounded(caption.stretch->end));
  }
  line.emplace_back("language", language_name(caption.language));
  return json_object(line);
}

}  // namespace

std::string format_time(double seconds) {
  const auto tenths = static_cast<long long>(std::llround(seconds * 10));
  const long long minutes = tenths / 600;
  char text[40];
  if (minutes < 60) {
    std::snprintf(text, sizeof text, "%02lld:%02lld.%lld", minutes, tenths / 10 % 60, tenths % 10);
  } else {
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld.%lld", minutes / 60, minutes % 60, tenths / 10 % 60,
                  tenths % 10);
  }
  return text;
}

std::string format_caption(const Caption& caption, Format format) {
  if (format == Format::kJsonLines) return format_json(caption);
  std::string line;
  if (caption.stretch) {
    line.append("[").append(format_time(caption.stretch->begin)).append("-");
    line.append(format_time(caption.stretch->end)).append("] ");
  }
  return line.append(printable(caption.text.client_id)).append(": ").append(printable(unescape(caption.text.text)));
}

CaptionWriter::CaptionWriter(Format format) : format_(format), terminal_(isatty(STDERR_FILENO) != 0) {}

bool CaptionWriter::write(const Caption& caption) {
  hide_progress();
  const std::string line = format_caption(caption, format_) + "\n";
  ++texts_;
  return std::fwrite(line.data(), 1, line.size(), stdout) == line.size() && std::fflush(stdout) == 0;
}

void CaptionWriter::show_progress(double audio_seconds, std::size_t waiting) {
  const auto now = std::chrono::steady_clock::now();
  if (!terminal_ || now < next_progress_) return;
  next_progress_ = now + kProgressInterval;
  shown_ = true;
  std::fprintf(stderr, "\r\033[K%s of audio, %zu utterances waiting, %zu texts", format_time(audio_seconds).c_str(),
               waiting, texts_);
  std::fflush(stderr);
}

void CaptionWriter::hide_progress() {
  if (!shown_) return;
  shown_ = false;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

}  // namespace zel::transcribe

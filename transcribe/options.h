// What the user asked for.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "encoder.h"
#include "zel_rtc_speech_to_text.h"

namespace zel::transcribe {

/** Members of one room; each costs memory and a thread. */
inline constexpr std::size_t kMaxMembers = 64;
/** A source that stands for standard input. */
inline constexpr const char* kStandardInput = "-";

/** Arguments or files that cannot be used, with the reason. */
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Format { kText, kJsonLines };

struct MemberOptions {
  std::string client_id;
  std::vector<std::string> sources;  ///< paths, or kStandardInput, in the order in which they are played
  ZelRtcSpeechToTextLanguage language = ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_EN_US;
};

struct Options {
  std::vector<MemberOptions> members;  ///< in the order of their first mention
  std::string endpoint;                ///< empty: the embedded service
  std::string token;                   ///< empty: none
  Format format = Format::kText;
  int bitrate = kDefaultBitrate;
  bool realtime = false;
  bool verbose = false;
  bool stats = false;
  bool help_shown = false;  ///< the user asked for help and got it; nothing else is set
};

/** "en-US" and the like. */
const char* language_name(ZelRtcSpeechToTextLanguage language);

/** Throws UsageError. Files are not opened here. */
Options parse_options(int argc, const char* const* argv);

}  // namespace zel::transcribe

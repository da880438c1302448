// JSON replies, cut so that a client with fixed buffers can keep them whole.
//
// A client keeps 1231 bytes of a reply, and of the strings in it, as they stand in JSON with their escapes: 1023 bytes
// of "text", 511 of "speaker", 31 of "error_code", 127 of "error_message". A string that is too long is cut between
// characters, the text between words. When the whole is too long, the speaker gives way before the text does.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "engine.h"

namespace zel::speechd {

inline constexpr std::size_t kMaxReply = 1231;
inline constexpr std::size_t kMaxText = 1023;
inline constexpr std::size_t kMaxSpeaker = 511;
inline constexpr std::size_t kMaxErrorCode = 31;
inline constexpr std::size_t kMaxErrorMessage = 127;

/** "result" "success". Invalid UTF-8 in `speaker` or the text is replaced. An incomplete recognition is marked by
 * "complete" false. */
std::string success_reply(std::string_view speaker, const Recognition& recognition);

/** "result" "error". */
std::string error_reply(std::string_view code, std::string_view message);

/** "status" "ok", and what the service has to offer. */
struct Health {
  std::vector<std::string> languages;
  std::size_t engines = 0;
  std::size_t waiting = 0;  ///< utterances that no engine has begun
  std::size_t max_waiting = 0;
};
std::string health_reply(const Health& health);

}  // namespace zel::speechd

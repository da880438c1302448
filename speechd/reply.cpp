#include "reply.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace zel::speechd {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kReplyVersion = "1.0";

std::string dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::size_t json_size(const std::string& text) {
  return dump(text).size() - 2;
}

std::size_t character_size(unsigned char first) {
  if (first < 0x80) return 1;
  if (first < 0xe0) return 2;
  return first < 0xf0 ? 3 : 4;
}

enum class Unit { kCharacter, kWord };

// The longest beginning of `text`, in whole units, that takes at most `limit` bytes inside a JSON string. A first word
// that is too long by itself is cut between characters.
std::string cut(std::string_view text, std::size_t limit, Unit unit) {
  std::string valid = Json::parse(dump(text)).get<std::string>();
  std::size_t end = 0;
  std::size_t last_space = 0;
  for (std::size_t used = 0; end < valid.size();) {
    const std::size_t size = character_size(static_cast<unsigned char>(valid[end]));
    used += json_size(valid.substr(end, size));
    if (used > limit) break;
    if (valid[end] == ' ') last_space = end;
    end += size;
  }
  const bool torn = end < valid.size() && valid[end] != ' ';
  if (unit == Unit::kWord && torn && last_space > 0) end = last_space;
  valid.resize(end);
  return valid;
}

}  // namespace

std::string success_reply(std::string_view speaker, const Recognition& recognition) {
  Json reply{{"result", "success"},
             {"version", kReplyVersion},
             {"speaker", ""},
             {"text", cut(recognition.text, kMaxText, Unit::kWord)}};
  if (!recognition.complete) reply["complete"] = false;
  reply["speaker"] = cut(speaker, std::min(kMaxSpeaker, kMaxReply - dump(reply).size()), Unit::kCharacter);
  return dump(reply);
}

std::string error_reply(std::string_view code, std::string_view message) {
  return dump(Json{{"result", "error"},
                   {"version", kReplyVersion},
                   {"error_code", cut(code, kMaxErrorCode, Unit::kCharacter)},
                   {"error_message", cut(message, kMaxErrorMessage, Unit::kWord)}});
}

std::string health_reply(const Health& health) {
  return dump(Json{{"status", "ok"},
                   {"languages", health.languages},
                   {"engines", health.engines},
                   {"waiting", health.waiting},
                   {"max_waiting", health.max_waiting}});
}

}  // namespace zel::speechd

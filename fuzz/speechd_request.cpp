// What the speech service makes of a request: its body decoded, its reply written.
//
// 1. Any body gives audio of at most the duration allowed and one packet, or is refused as one of the known faults.
// 2. Any reply is JSON of at most 1231 bytes whose strings, as they stand in it, keep to their limits.
// 3. The text of a reply is the beginning of what was recognized.
#include <ogg/ogg.h>

#include <nlohmann/json.hpp>
#include <vector>

#include "fuzz.h"
#include "ogg_opus.h"
#include "reply.h"

namespace {

using Json = nlohmann::json;
using namespace zel::speechd;

constexpr std::chrono::seconds kMaxDuration{2};
constexpr std::size_t kLongestPacket = kSampleRate * 120 / 1000;  // samples of 120 ms
constexpr std::size_t kPageHeader = 27;
constexpr std::pair<const char*, std::size_t> kLimits[] = {
    {"text", kMaxText}, {"speaker", kMaxSpeaker}, {"error_code", kMaxErrorCode}, {"error_message", kMaxErrorMessage}};

// Gives every page its checksum: without it, few changed bodies would get past the container.
void MendChecksums(std::string& body) {
  auto* bytes = reinterpret_cast<unsigned char*>(body.data());
  for (std::size_t at = body.find("OggS"); at != std::string::npos; at = body.find("OggS", at + 1)) {
    if (body.size() - at < kPageHeader || body.size() - at < kPageHeader + bytes[at + 26]) return;
    ogg_page page = {bytes + at, static_cast<long>(kPageHeader + bytes[at + 26]), nullptr, 0};
    page.body = page.header + page.header_len;
    for (std::size_t i = kPageHeader; i < static_cast<std::size_t>(page.header_len); ++i)
      page.body_len += page.header[i];
    if (static_cast<std::size_t>(page.header_len + page.body_len) > body.size() - at) return;
    ogg_page_checksum_set(&page);
  }
}

void CheckAudio(const std::string& body) {
  const std::vector<char> exact(body.begin(), body.end());
  try {
    const std::size_t samples = decode_ogg_opus({exact.data(), exact.size()}, kMaxDuration).size();
    FUZZ_CHECK(samples <= kMaxDuration.count() * kSampleRate + kLongestPacket);
  } catch (const AudioError& error) {
    FUZZ_CHECK(error.fault() <= AudioFault::kTooLong && *error.what() != '\0');
    FUZZ_CHECK((error.fault() == AudioFault::kEmpty) || !body.empty());
  }
}

Json CheckReply(const std::string& reply) {
  FUZZ_CHECK(reply.size() <= kMaxReply);
  Json json = Json::parse(reply, nullptr, false);
  FUZZ_CHECK(json.is_object() && json["version"].is_string());
  for (const auto& [name, limit] : kLimits)
    FUZZ_CHECK(!json.contains(name) || json[name].dump().size() - 2 <= limit);
  return json;
}

// Invalid UTF-8 replaced, as in a reply.
std::string Valid(std::string_view text) {
  return Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace)).get<std::string>();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const bool complete = input.below(2) == 0;
  const bool mend = input.below(4) != 0;
  const std::string_view speaker = input.take(input.below(1500));
  const std::string_view text = input.take(input.below(3000));
  std::string body(input.rest());
  if (mend) MendChecksums(body);
  CheckAudio(body);

  const Json success = CheckReply(success_reply(speaker, {std::string(text), complete}));
  FUZZ_CHECK(success["result"] == "success" && success.contains("complete") == !complete);
  FUZZ_CHECK(Valid(text).starts_with(success["text"].get<std::string>()));
  FUZZ_CHECK(Valid(speaker).starts_with(success["speaker"].get<std::string>()));
  const Json error = CheckReply(error_reply(speaker, text));
  FUZZ_CHECK(error["result"] == "error" && error.contains("error_code") && error.contains("error_message"));
  return 0;
}

// Reading a reply as the recognition request does.
//
// 1. Any body of up to 1231 bytes ends as a text of at most 1023 bytes without a report, or as a failure without a text
//    and with exactly one report.
// 2. The reply buffers hold terminated strings; those of the other outcome keep what they held.
// 3. What is delivered stands in the body, or is the stand-in for a missing member.
#include <array>
#include <vector>

#include "fuzz.h"
#include "json_reader.h"
#include "plugin_host.h"
#include "recognition_request.h"
#include "wreq_request.h"

namespace {

constexpr std::size_t kMaxBody = 1231;
constexpr const char kMissing[] = "invalid_string";
constexpr const char kEarlier[] = "earlier";

// A reply buffer of exactly its size.
struct Buffer {
  explicit Buffer(std::size_t size) : bytes(size) { std::copy_n(kEarlier, sizeof kEarlier, bytes.data()); }
  std::string text() const {
    const std::size_t length = strnlen(bytes.data(), bytes.size());
    FUZZ_CHECK(length < bytes.size());
    return {bytes.data(), length};
  }
  std::vector<char> bytes;
};

bool Untouched(const Buffer& buffer) {
  return buffer.text() == kEarlier;
}

bool ComesFrom(const std::string& body, const std::string& value) {
  return body.find(value) != std::string::npos || value == kMissing;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzz::PluginHost host;
  static JsonReader reader;
  const std::string body(reinterpret_cast<const char*>(data), std::min(size, kMaxBody));
  std::vector<std::uint8_t> bytes(body.c_str(), body.c_str() + body.size() + 1);
  WreqResponse response = {.status_code = 200,
                           .error_kind = 0,
                           .data = bytes.data(),
                           .data_size = static_cast<std::uint32_t>(body.size()),
                           .buffer = bytes.data(),
                           .buffer_size = static_cast<std::uint32_t>(bytes.size())};
  Buffer version(16), speaker(512), text(1024), code(32), message(128);
  SttRequest request = {};
  request.json_work = &reader;
  request.reply_version = version.bytes.data();
  request.reply_speaker = speaker.bytes.data();
  request.reply_text = text.bytes.data();
  request.reply_error_code = code.bytes.data();
  request.reply_error_message = message.bytes.data();

  FUZZ_CHECK(zelSttRequest_ParseReply(&request, &response) == 1);

  std::array<char, 1024> copy;
  const std::int32_t length = zelSttRequest_CopyText(&request, copy.data(), copy.size());
  const std::vector<std::string> reports = host.take_reports();
  version.text();
  if (zelSttRequest_IsSucceeded(&request) == 1) {
    FUZZ_CHECK(reports.empty() && Untouched(code) && Untouched(message));
    FUZZ_CHECK(length >= 0 && length <= 1023 && text.text() == copy.data());
    FUZZ_CHECK(static_cast<std::size_t>(length) == text.text().size());
    FUZZ_CHECK(body.find("success") != std::string::npos);
    FUZZ_CHECK(ComesFrom(body, text.text()) && ComesFrom(body, speaker.text()));
    FUZZ_CHECK(zelSttRequest_CopyText(&request, copy.data(), length) == -1);
    FUZZ_CHECK(zelSttRequest_CopyText(&request, copy.data(), length + 1) == length);
  } else {
    FUZZ_CHECK(length == -1 && Untouched(text) && Untouched(speaker));
    FUZZ_CHECK(ComesFrom(body, code.text()) && ComesFrom(body, message.text()));
    FUZZ_CHECK(reports.size() == 1 && reports[0].starts_with("E2022110401:"));
  }
  return 0;
}

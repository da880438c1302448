#include "expected_reports.h"
#include "web.h"

namespace sim {

namespace {

constexpr const char* kMissing = "invalid_string";

std::string Success(const std::string& text) {
  return R"({"result":"success","version":"1.0","speaker":"somebody","text":")" + text + "\"}";
}

// A reply that reports no success: what is missing in it, and what does not fit, is reported so.
Reply Refuses(const std::string& body, const std::string& code = kMissing, const std::string& message = kMissing) {
  const std::string kept_code = code.substr(0, 31), kept_message = message.substr(0, 127);
  return {.body = body,
          .report = ReportText("E2022110401", {Argument(kept_code.c_str()), Argument(kept_message.c_str())})};
}

}  // namespace

Reply MakeReply(Random& random, bool plain, std::uint32_t serial) {
  const std::string text = "words of exchange " + std::to_string(serial);
  const std::string dots(1100, '.'), letters(random.Below(300), static_cast<char>('a' + random.Below(26)));
  const Reply answer = {.body = Success(text), .fate = Fate::kText, .text = text};
  if (plain) return answer;
  const Reply replies[] = {
      answer,
      {.body = Success(""), .fate = Fate::kEmpty},
      {.body = R"({"more":{"text":"no"}, "result" : "success"})", .fate = Fate::kText, .text = kMissing},
      // Escapes stand as written, bytes above 127 too; 1023 bytes are kept.
      {.body = Success(text + "\\u00e9\xE3\x81\x82"), .fate = Fate::kText, .text = text + "\\u00e9\xE3\x81\x82"},
      {.body = Success(text + dots), .fate = Fate::kText, .text = (text + dots).substr(0, 1023)},
      Refuses(
          R"({"result":"error","error_code":")" + letters.substr(0, 60) + R"(","error_message":")" + letters + "\"}",
          letters.substr(0, 60), letters),
      Refuses(""),
      Refuses("<html><body>502</body></html>"),
      Refuses(R"({"result":?})"),
      Refuses(R"([{"result":"success","text":"no"}])"),
      Refuses(std::string(kMaxReply, '{')),
      {.body = answer.body + std::string(kMaxReply - answer.body.size(), ' '), .fate = Fate::kText, .text = text},
      {.body = answer.body + std::string(kMaxReply + 1 - answer.body.size() + random.Below(3), ' ')},
      {.body = std::string(random.Below(100'000) + 2 * kMaxReply, ' ')},
  };
  return random.Pick(replies);
}

}  // namespace sim

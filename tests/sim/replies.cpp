#include <algorithm>

#include "reports.h"
#include "web.h"

namespace sim {

namespace {

constexpr const char* kMissing = "invalid_string";

std::string Success(const std::string& text) {
  return R"({"result":"success","version":"1.0","speaker":"somebody","text":")" + text + "\"}";
}

Reply Delivers(std::string body, std::string text) {
  return {.body = std::move(body), .fate = text.empty() ? Fate::kEmpty : Fate::kText, .text = std::move(text)};
}

Reply Refuses(std::string body, const std::string& code, const std::string& message) {
  const std::string format(ReportText("E2022110401"));
  return {.body = std::move(body), .report = format + "|" + code.substr(0, 31) + "|" + message.substr(0, 127)};
}

// Objects and arrays without an answer in them, and what is no JSON at all.
Reply Nonsense(Random& random) {
  static const std::string kBodies[] = {
      "",
      " ",
      "[]",
      "{}",
      "{",
      "null",
      "\"result\"",
      "<html><body>502</body></html>",
      R"({"result":{}})",
      R"({"result":?})",
      R"({"result":"success"   )",
      R"({"result" "success"})",
      R"({"result":"success",})",
      R"({"result":"Success"})",
      R"([{"result":"success","text":"no"}])",
      R"({"in":{"result":"success","text":"no"}})",
      std::string(1200, '['),
      std::string(1231, '{'),
      std::string("\0{}", 3),
      R"({"result":"success\)",
      "\xEF\xBB\xBF{}",
  };
  return Refuses(random.Pick(kBodies), kMissing, kMissing);
}

}  // namespace

Reply MakeReply(Random& random, bool plain, std::uint32_t serial) {
  const std::string text = "words of exchange " + std::to_string(serial);
  const std::string letters(random.Below(300), static_cast<char>('a' + random.Below(26)));
  Reply reply = Delivers(Success(text), text);
  switch (plain ? 0 : random.Below(12)) {
    case 0:
      break;
    case 1:  // members that do not count, the wanted ones among them
      reply = Delivers(
          " {\n\"n\" : [1, {\"text\":\"no\"}, \"]\"], \"more\":{\"text\":\"no\"}, \"speaker\":null,\t\"text\":\"" +
              text + "\" , \"result\" : \"success\"}\r\n",
          text);
      break;
    case 2:  // escapes stand as written, bytes above 127 too
      reply =
          Delivers(Success(text + R"( \"\\\/\u00e9 )" + "\xE3\x81\x82"), text + R"( \"\\\/\u00e9 )" + "\xE3\x81\x82");
      break;
    case 3:
      reply = Delivers(Success(""), "");
      break;
    case 4:
      reply = Delivers(R"({"result":"success"})", kMissing);
      break;
    case 5:  // kept up to 1023 bytes
      reply = Delivers(Success(text + std::string(1100, '.')), (text + std::string(1100, '.')).substr(0, 1023));
      break;
    case 6:
      reply = Refuses(
          R"({"result":"error","error_code":")" + letters.substr(0, 60) + R"(","error_message":")" + letters + "\"}",
          letters.substr(0, 60), letters);
      break;
    case 7:
      reply = Refuses(R"({"result":"error"})", kMissing, kMissing);
      break;
    case 8:
      reply = Nonsense(random);
      break;
    case 9:  // exactly what fits
      reply.body.resize(kMaxReply, ' ');
      break;
    case 10:
      reply.body.resize(kMaxReply + 1 + random.Below(3), ' ');
      break;
    default:
      reply.body.resize(kMaxReply + random.Below(100'000), ' ');
  }
  constexpr std::uint32_t kStatuses[] = {200, 200, 200, 204, 400, 401, 404, 500, 503};
  reply.status = random.Pick(kStatuses);
  return reply;
}

}  // namespace sim

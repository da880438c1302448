#include "reply.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

namespace zel::speechd {
namespace {

using nlohmann::json;

std::string Repeat(const std::string& text, std::size_t times) {
  std::string all;
  for (std::size_t i = 0; i < times; ++i)
    all += text;
  return all;
}

// Bytes of a member's string as it stands in the reply.
std::size_t RawSize(const json& reply, const char* name) {
  return reply.at(name).dump().size() - 2;
}

TEST(Reply, CarriesSpeakerAndTextUnchangedWhenTheyFit) {
  EXPECT_EQ(success_reply("alice", {"go forward"}),
            R"({"result":"success","version":"1.0","speaker":"alice","text":"go forward"})");
  const std::string speaker = "\"a\\b\"\n\x01 \xC3\xA9 \xE6\x97\xA5 \xF0\x9F\x8E\xA4";
  const json reply = json::parse(success_reply(speaker, {"caf\xC3\xA9", false}));
  EXPECT_EQ(reply["speaker"], speaker);
  EXPECT_EQ(reply["text"], "caf\xC3\xA9");
  EXPECT_EQ(reply["complete"], false);
}

TEST(Reply, AlwaysFitsTheClientsBuffers) {
  const struct {
    const char* name;
    std::string speaker, text;
  } cases[] = {
      {"empty", "", ""},
      {"long words", "alice", Repeat("word ", 400)},
      {"one endless word", "alice", Repeat("a", 5000)},
      {"long speaker", Repeat("s", 4000), "hello"},
      {"both long", Repeat("s", 511), Repeat("word ", 400)},
      {"escapes", Repeat("\"", 511), Repeat("\\ ", 900)},
      {"controls", Repeat("\x01", 511), Repeat("\x02", 900)},
      {"two-byte characters", Repeat("\xC3\xA9", 511), Repeat("\xC3\xA9", 900)},
      {"four-byte characters", Repeat("\xF0\x9F\x8E\xA4", 300), Repeat("\xF0\x9F\x8E\xA4", 900)},
      {"invalid", Repeat("\xFF\xC3", 511), Repeat("\x80\xED\xA0\x80", 900)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const bool complete : {true, false}) {
      const std::string reply = success_reply(c.speaker, {c.text, complete});
      EXPECT_LE(reply.size(), kMaxReply);
      const json parsed = json::parse(reply);  // throws on a torn character
      EXPECT_LE(RawSize(parsed, "text"), kMaxText);
      EXPECT_LE(RawSize(parsed, "speaker"), kMaxSpeaker);
      EXPECT_EQ(parsed["result"], "success");
    }
    const std::string refusal = error_reply(c.speaker, c.text);
    EXPECT_LE(refusal.size(), kMaxReply);
    EXPECT_LE(RawSize(json::parse(refusal), "error_code"), kMaxErrorCode);
    EXPECT_LE(RawSize(json::parse(refusal), "error_message"), kMaxErrorMessage);
  }
}

TEST(Reply, CutsTheTextBetweenWordsAndTheSpeakerBeforeTheText) {
  const json words = json::parse(success_reply("alice", {Repeat("word ", 400)}));
  EXPECT_EQ(words["text"], Repeat("word ", 203) + "word");  // 1019 bytes; another word would take 1024
  const json exact = json::parse(success_reply("alice", {Repeat("abc ", 255) + "abc def"}));
  EXPECT_EQ(exact["text"], Repeat("abc ", 255) + "abc");  // exactly 1023
  const json both = json::parse(success_reply(Repeat("s", 511), {Repeat("a", 5000)}));
  EXPECT_EQ(both["text"], Repeat("a", kMaxText));
  EXPECT_EQ(both.dump().size(), kMaxReply);
  const json speaker = json::parse(success_reply(Repeat("s", 600), {"hello"}));
  EXPECT_EQ(speaker["speaker"], Repeat("s", kMaxSpeaker));
}

}  // namespace
}  // namespace zel::speechd

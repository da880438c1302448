#include "reply.h"

#include <gtest/gtest.h>

#include <string>

namespace zel::speechd {
namespace {

std::string Repeat(const std::string& text, std::size_t times) {
  std::string all;
  for (std::size_t i = 0; i < times; ++i)
    all += text;
  return all;
}

std::string Success(const std::string& speaker, const std::string& text) {
  return R"({"result":"success","version":"1.0","speaker":")" + speaker + R"(","text":")" + text + "\"}";
}

// That no reply ever outgrows the client's buffers is the fuzz target's to check.
TEST(Reply, CutsTheTextBetweenWordsAndTheSpeakerBeforeTheText) {
  EXPECT_EQ(success_reply("\"a\\\xC3\xA9\x01", {"caf\xC3\xA9"}), Success("\\\"a\\\\\xC3\xA9\\u0001", "caf\xC3\xA9"));
  // 1019 bytes, another word would take 1024; then exactly 1023.
  EXPECT_EQ(success_reply("a", {Repeat("word ", 400)}), Success("a", Repeat("word ", 203) + "word"));
  EXPECT_EQ(success_reply("a", {Repeat("abc ", 255) + "abc def"}), Success("a", Repeat("abc ", 255) + "abc"));
  const std::size_t room = kMaxReply - Success("", Repeat("a", kMaxText)).size();
  EXPECT_EQ(success_reply(Repeat("s", 511), {Repeat("a", 5000)}), Success(Repeat("s", room), Repeat("a", kMaxText)));
  EXPECT_EQ(success_reply(Repeat("s", 600), {"hello"}), Success(Repeat("s", kMaxSpeaker), "hello"));
  EXPECT_EQ(success_reply("", {Repeat("\xF0\x9F\x8E\xA4", 300)}), Success("", Repeat("\xF0\x9F\x8E\xA4", 255)));
  EXPECT_EQ(error_reply(Repeat("c", 40), Repeat("m", 200)), R"({"result":"error","version":"1.0","error_code":")" +
                                                                Repeat("c", 31) + R"(","error_message":")" +
                                                                Repeat("m", 127) + "\"}");
}

}  // namespace
}  // namespace zel::speechd

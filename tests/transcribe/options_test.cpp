#include "options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zel::transcribe {
namespace {

Options parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "zel-transcribe");
  return parse_options(static_cast<int>(arguments.size()), arguments.data());
}

TEST(Options, MembersKeepTheOrderOfTheirFirstMention) {
  const Options options = parse({"bob=a.wav", "--language", "zh-CN", "alice=-", "--language", "bob=ja-JP",
                                 "bob=b=c.wav", "--endpoint", "HTTPS://host/x"});
  ASSERT_EQ(options.members.size(), 2U);
  EXPECT_EQ(options.members[0].client_id, "bob");
  EXPECT_THAT(options.members[0].sources, testing::ElementsAre("a.wav", "b=c.wav"));
  EXPECT_STREQ(language_name(options.members[0].language), "ja-JP");
  EXPECT_STREQ(language_name(options.members[1].language), "zh-CN");
}

TEST(Options, WhatCannotBeUsedIsNamed) {
  const std::string long_id = std::string(512, 'x') + "=a.wav";
  const std::string long_token(505, 't');
  const std::string long_url = "http://host/" + std::string(990, 'u');
  const struct {
    std::vector<const char*> arguments;
    const char* reason;
  } cases[] = {
      {{}, "MEMBER=FILE"},
      {{"=a.wav"}, "member before '=' is missing"},
      {{"a="}, "file behind '=' is missing"},
      {{"a\x1b=b"}, "control characters"},
      {{long_id.c_str()}, "at most 511 bytes"},
      {{"a=-", "a=-"}, "only one member"},
      {{"a=b", "--language", "en"}, "'en' is none of"},
      {{"a=b", "--language", "b=en-US"}, "no member 'b'"},
      {{"a=b", "--language", "ja-JP"}, "ja-JP needs an --endpoint"},
      {{"a=b", "--endpoint", "host/path"}, "http:// or https://"},
      {{"a=b", "--endpoint", "http:///path"}, "names no host"},
      {{"a=b", "--endpoint", long_url.c_str()}, "too long"},
      {{"a=b", "--endpoint", "http://h/", "--token", long_token.c_str()}, "more than 504"},
      {{"a=b", "--endpoint", "http://h/", "--token", "x\r\ny"}, "token holds control"},
      {{"a=b", "--endpoint", "http://h/", "--token-file", "does-not-exist"}, "does-not-exist cannot be read"},
      {{"a=b", "--token", "x"}, "--endpoint"},
      {{"a=b", "--format", "xml"}, "--format"},
      {{"a=b", "--bitrate", "100"}, "--bitrate"},
  };
  for (const auto& each : cases) {
    const auto named = testing::ThrowsMessage<UsageError>(testing::HasSubstr(each.reason));
    EXPECT_THAT([&] { parse(each.arguments); }, named);
  }
  const auto without_value = testing::ThrowsMessage<UsageError>(testing::StrEq("unknown option: --tokn"));
  EXPECT_THAT([&] { parse({"a=b", "--tokn=secret"}); }, without_value);
}

}  // namespace
}  // namespace zel::transcribe

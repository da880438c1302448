#include "json_text.h"

#include <gtest/gtest.h>

namespace zel::transcribe {
namespace {

const std::string kBad = "\xEF\xBF\xBD";

TEST(JsonText, UnescapesTextAndReplacesWhatIsNone) {
  const std::pair<std::string, std::string> cases[] = {
      {R"(a \"b\" \\ \/ \b\f\n\r\t)", "a \"b\" \\ / \b\f\n\r\t"},
      {R"(\u0041\u00e9\u3042\uFFFF)", "A\xC3\xA9\xE3\x81\x82\xEF\xBF\xBF"},
      {"\\ud83d\\ude00!\xE3\x81\x82", "\xF0\x9F\x98\x80!\xE3\x81\x82"},
      {"cut\\", "cut" + kBad},
      {"\\u12", kBad + "u12"},
      {"\\u12g4", kBad + "u12g4"},
      {"\\x41", kBad + "x41"},
      {"\\ude00\\ud83d", kBad + kBad},
      {"\\ud83d\\u0041", kBad + "A"},
      {"\\ud83d\\ue000", kBad + "\xEE\x80\x80"},
      {"a\xE3\x81", "a" + kBad + kBad},
      {"\xED\xA0\x80", kBad + kBad + kBad},
  };
  for (const auto& [raw, expected] : cases)
    EXPECT_EQ(unescape(raw), expected) << raw;
}

TEST(JsonText, NothingPrintedSteersTheTerminal) {
  EXPECT_EQ(printable("one\r\ntwo\tthree"), "one  two three");
  EXPECT_EQ(printable(std::string("\x1b[2J\0\x7f", 6)), kBad + "[2J" + kBad + kBad);
  EXPECT_EQ(printable("\xC2\x9B 31m \xC2\xA0\xFF"), kBad + " 31m \xC2\xA0" + kBad);
}

TEST(JsonText, NothingOfAnEchoedTokenIsShown) {
  const std::string token = "AAAAAAAA/B+B%41B\\/B";
  for (const char* echo : {"AAAAAAAA/B+B%41B\\/B", R"(AAAAAAAA\/B+B%41B\\\/B)", "AAAAAAAA%2fB%2BB%2541B%5C%2FB"})
    EXPECT_EQ(hide_token("no " + std::string(echo) + "!", token), "no <token>!") << echo;
  EXPECT_EQ(hide_token("100%25 sure", token), "100%25 sure");
}

}  // namespace
}  // namespace zel::transcribe

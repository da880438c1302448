#include "json_text.h"

#include <gtest/gtest.h>

namespace zel::transcribe {
namespace {

struct Case {
  const char* raw;
  const char* expected;
};

constexpr const char* kBad = "\xEF\xBF\xBD";

TEST(JsonText, UnescapesWhatAServiceMayWrite) {
  const Case cases[] = {
      {"", ""},
      {R"(a \"b\" \\ \/ c)", R"(a "b" \ / c)"},
      {R"(\b\f\n\r\t)", "\b\f\n\r\t"},
      {R"(\u0041\u00e9\u3042\uFFFF)", "A\xC3\xA9\xE3\x81\x82\xEF\xBF\xBF"},
      {R"(\ud83d\ude00!)", "\xF0\x9F\x98\x80!"},
      {"\xE3\x81\x82", "\xE3\x81\x82"},
  };
  for (const Case& each : cases)
    EXPECT_EQ(unescape(each.raw), each.expected) << each.raw;
}

TEST(JsonText, ReplacesWhatIsNoText) {
  const std::string bad = kBad;
  const std::pair<std::string, std::string> cases[] = {
      {"cut\\", "cut" + bad},
      {"\\u12", bad + "u12"},
      {"\\u12g4", bad + "u12g4"},
      {"\\x41", bad + "x41"},
      {"\\ud83d", bad},
      {"\\ude00\\ud83d", bad + bad},
      {"\\ud83d\\u0041", bad + "A"},
      {"a\xE3\x81", "a" + bad + bad},
      {"\xC0\x80", bad + bad},
      {"\xED\xA0\x80", bad + bad + bad},
      {"\xF4\x90\x80\x80", bad + bad + bad + bad},
  };
  for (const auto& [raw, expected] : cases)
    EXPECT_EQ(unescape(raw), expected) << raw;
}

TEST(JsonText, NothingPrintedSteersTheTerminal) {
  EXPECT_EQ(printable("one\r\ntwo\tthree"), "one  two three");
  EXPECT_EQ(printable(std::string("\x1b[2J\0\x7f", 6)), std::string(kBad) + "[2J" + kBad + kBad);
  EXPECT_EQ(printable("\xC2\x9B"
                      "31m \xC2\xA0\xFF"),
            std::string(kBad) + "31m \xC2\xA0" + kBad);
}

}  // namespace
}  // namespace zel::transcribe

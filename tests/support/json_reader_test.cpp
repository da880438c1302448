#include "json_reader.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

namespace {

constexpr const char* kNone = "(default)";

std::string Repeat(const std::string& text, int n, const std::string& separator = "") {
  std::string all;
  for (int i = 0; i < n; ++i)
    all.append(i == 0 ? "" : separator).append(text);
  return all;
}
std::string Array(const std::string& elements) {
  return "[" + elements + "]";
}
std::string Object(const std::string& members) {
  return "{" + members + "}";
}

// Parses `text`, once with the length of all its bytes. What stands behind its terminator would lead a reader that goes
// on there far astray.
class Parsed {
 public:
  explicit Parsed(const std::string& text) : bytes_(text + '\0' + Repeat("\"}]", 20)) {
    const std::string printed_sized =
        Print([this] { zelJsonReader_OpenSized(reader_.get(), bytes_.data(), bytes_.size()); });
    const char* cursor = reader_->cursor;
    printed = Print([this] { EXPECT_EQ(zelJsonReader_Open(reader_.get(), bytes_.data()), reader_.get()); });
    EXPECT_EQ(printed, printed_sized);
    EXPECT_EQ(reader_->cursor, cursor) << "with the length of more bytes";
    EXPECT_EQ(reader_->cursor != nullptr, succeeded());
    EXPECT_LE(reader_->cursor, bytes_.data() + text.size()) << "read behind the terminator";
  }
  std::string Get(const std::string& key) { return zelJsonReader_GetString(reader_.get(), key.c_str(), kNone); }
  bool succeeded() const { return reader_->root != nullptr; }
  std::size_t arena_used() const { return static_cast<std::size_t>(reader_->arena_top - reader_->arena); }

  std::string printed;

 private:
  static std::string Print(const std::function<void()>& parse) {
    testing::internal::CaptureStdout();
    parse();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }

  std::string bytes_;
  std::unique_ptr<JsonReader> reader_ = std::make_unique<JsonReader>();
};

TEST(JsonReader, LooksUpScalarsOfTheTopLevelObject) {
  const struct {
    std::string text, key, value;
  } cases[] = {
      {R"({"result":"success","text":"hello"})", "text", "hello"},
      {R"({"result":"success","text":"hello"})", "speaker", kNone},
      {R"({"result":"success","text":"hello"})", "resul", kNone},
      {R"({"result":"success","":"empty key"})", "", "empty key"},
      {R"({"a":""})", "a", ""},
      {R"({"a":-1.5e+3 })", "a", "-1.5e+3"},
      {R"({"text":"a\"b"})", "text", R"(a\"b)"},
      {R"({"text":"\u0041\\"})", "text", R"(\u0041\\)"},
      {R"({"text":"\u"}  "})", "text", R"(\u"}  )"},  // six characters whatever they are
      {R"({"text":"\u123\"})", "text", R"(\u123\)"},
      {R"({"a\n":1})", R"(a\n)", "1"},
      {R"({"a":1,"a":2})", "a", "1"},
      {R"({"o":{"text":"x"}})", "text", kNone},
      {R"({"o":{},"a":[1],"a":2})", "a", kNone},
      {R"(["a"])", "a", kNone},
      {R"({1:"x"})", "1", "x"},
      {R"({true : false})", "true", "false"},
      {R"({"a":tru})", "a", "tru"},
      {R"({"a":nonsense})", "a", kNone},  // "no" ends at the o
      {"{} x", "a", kNone},
      {R"({"a":"b"} ] garbage)", "a", "b"},
      {"\t\n\r { \"a\" :\t\"b\" ,\n\"c\":null}", "c", "null"},
      {"{\"a\":\"\x01\xFF\"}", "a", "\x01\xFF"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.text);
    Parsed parsed(test.text);
    EXPECT_EQ(parsed.Get(test.key), test.value);
    EXPECT_EQ(parsed.Get(test.key), test.value) << "the second look-up";
    EXPECT_EQ(parsed.printed, "");
  }
}

TEST(JsonReader, RefusesWhatIsNoJson) {
  const auto expect_refused = [](std::initializer_list<const char*> texts, const std::string& message) {
    for (const char* text : texts) {
      Parsed parsed(text);
      EXPECT_FALSE(parsed.succeeded()) << text;
      EXPECT_EQ(parsed.Get("a"), kNone) << text;
      EXPECT_EQ(parsed.printed, message) << text;
    }
  };
  expect_refused({"", "  ", "\xEF\xBB\xBF{}", "\"lone\"", "12", "<html>"}, "INVALID TYPE\n");
  expect_refused({"[1,]", R"({"a":})", R"({"a":True})", R"({"a":1,"b":[}])"}, "UNKOWN TYPE\n");
  expect_refused({R"({"a":1,})", R"({"a" 1})", R"({"a":1;"b":2})", R"({"a":"b)", R"({"a":1)", R"({"a":"b\)",
                  R"({"a":"b\u12)", R"({"a":1\)"},
                 "");
}

TEST(JsonReader, SurvivesEveryCut) {
  const std::string text =
      R"({ "result" : "success","n":[1,-2.5e3,true,{"\u00e4\"":"\\"},[]],"o":{"a":null},"text":"h\u00e9llo\n"})";
  for (std::size_t length = 0; length < text.size(); ++length)
    for (const char* tail : {"", "\\", "\\u", "\\u1", "\"", "{", "[", "x"})
      EXPECT_FALSE(Parsed(text.substr(0, length) + tail).succeeded()) << length << tail;
  EXPECT_EQ(Parsed(text).Get("text"), R"(h\u00e9llo\n)");
}

TEST(JsonReader, HoldsToItsLimits) {
  // The 512th child fails, silently; so does what does not fit the scratch area, or the arena.
  // One array of 300 arrays: 8 + 300 * (8 + 8) bytes of arrays and 24 for each of 16013 scalars make 389,120.
  const std::string full =
      Repeat(Array(Repeat("1", 54, ",")), 113, ",") + "," + Repeat(Array(Repeat("1", 53, ",")), 187, ",");
  const struct {
    std::string text;
    bool accepted;
  } cases[] = {
      {Array(Repeat("1", 511, ",")), true},
      {Array(Repeat("1", 512, ",")), false},
      {Object(Repeat("1:2", 511, ",")), true},
      {Object(Repeat("1:2", 512, ",")), false},
      {Repeat("{\"o\":", 19) + "{}" + Repeat("}", 19), true},
      {Repeat("{\"o\":", 20) + "{}" + Repeat("}", 20), false},
      {Repeat("[", 40) + Repeat("]", 40), true},
      {Repeat("[", 41) + Repeat("]", 41), false},
      {Repeat("[", 200000), false},
      {Array(Repeat("[{}]", 300, ",")), true},  // closed containers give their scratch back
      {Array(full), true},
      {Array(full + ",[]"), false},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.text.substr(0, 60));
    Parsed parsed(test.text);
    EXPECT_EQ(parsed.succeeded(), test.accepted);
    EXPECT_EQ(parsed.printed, "");
  }
  EXPECT_EQ(Parsed(Array(full)).arena_used(), kJsonArenaSize);
}

}  // namespace

#include "json_reader.h"

#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

std::string Repeat(const std::string& text, int n, const std::string& separator = "") {
  std::string all;
  for (int i = 0; i < n; ++i)
    all.append(i == 0 ? "" : separator).append(text);
  return all;
}
std::string Array(const std::string& elements) {
  return std::string("[").append(elements).append("]");
}
std::string Object(const std::string& members) {
  return std::string("{").append(members).append("}");
}

#ifdef _WIN32
std::size_t PageSize() {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return info.dwPageSize;
}
char* TakePages(std::size_t size) {
  return static_cast<char*>(VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
}
bool Forbid(char* page, std::size_t size) {
  DWORD before = 0;
  return VirtualProtect(page, size, PAGE_NOACCESS, &before) != FALSE;
}
void GivePagesBack(char* pages, std::size_t) {
  VirtualFree(pages, 0, MEM_RELEASE);
}
#else
std::size_t PageSize() {
  return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}
char* TakePages(std::size_t size) {
  return static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}
bool Forbid(char* page, std::size_t size) {
  return mprotect(page, size, PROT_NONE) == 0;
}
void GivePagesBack(char* pages, std::size_t size) {
  munmap(pages, size);
}
#endif

// Parses a copy of `text` that ends at an unreadable page, so that reading behind the terminator crashes.
class Parsed {
 public:
  explicit Parsed(const std::string& text) {
    const std::size_t page = PageSize();
    size_ = (text.size() / page + 2) * page;
    base_ = TakePages(size_);
    char* end = base_ + size_ - page;
    EXPECT_TRUE(Forbid(end, page));
    char* start = end - text.size() - 1;
    std::memcpy(start, text.c_str(), text.size() + 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(zelJsonReader_Open(reader_.get(), start), reader_.get());
    std::fflush(stdout);
    printed = testing::internal::GetCapturedStdout();
  }
  ~Parsed() {
    zelJsonReader_Close(reader_.get());
    GivePagesBack(base_, size_);
  }
  Parsed(const Parsed&) = delete;
  Parsed& operator=(const Parsed&) = delete;
  std::string Get(const char* key) { return zelJsonReader_GetString(reader_.get(), key, "(default)"); }
  bool succeeded() const { return reader_->root != nullptr; }
  std::size_t arena_used() const { return static_cast<std::size_t>(reader_->arena_top - reader_->arena); }

  std::string printed;

 private:
  std::unique_ptr<JsonReader> reader_ = std::make_unique<JsonReader>();
  char* base_;
  std::size_t size_;
};

struct Case {
  std::string text, key, value;
  std::string printed = "";
};
constexpr const char* kNone = "(default)";
constexpr const char* kInvalid = "INVALID TYPE\n";
constexpr const char* kUnknown = "UNKOWN TYPE\n";

TEST(JsonReader, LooksUpScalarsOfTheTopLevelObject) {
  const std::string reply = R"({"result":"success","text":"hello"})";
  const Case cases[] = {
      {reply, "result", "success"},
      {reply, "text", "hello"},
      {reply, "speaker", kNone},
      {reply, "resul", kNone},
      {reply, "", kNone},
      {R"({"":"empty key"})", "", "empty key"},
      {R"({"a":""})", "a", ""},
      {R"({"error_code":400})", "error_code", "400"},
      {R"({"a":-1.5e+3 })", "a", "-1.5e+3"},
      {R"({"text":"a\"b"})", "text", R"(a\"b)"},
      {R"({"text":"\u0041\\"})", "text", R"(\u0041\\)"},
      {R"({"text":"\u"}  "})", "text", R"(\u"}  )"},  // six characters whatever they are
      {R"({"a\n":1})", R"(a\n)", "1"},
      {R"({"a":1,"a":2})", "a", "1"},
      {R"({"o":{"text":"x"}})", "text", kNone},
      {R"({"o":{"text":"x"},"text":"y"})", "text", "y"},
      {R"({"o":{},"a":[1]})", "o", kNone},
      {R"({"o":{},"a":[1]})", "a", kNone},
      {R"(["a"])", "a", kNone},
      {R"({1:"x"})", "1", "x"},
      {R"({true : false})", "true", "false"},
      {R"({"a":tru})", "a", "tru"},
      {R"({"a":nonsense})", "a", kNone},  // "no" ends at the o
      {"{} x", "a", kNone},
      {R"({"a":"b"} ] garbage)", "a", "b"},
      {"\t\n\r { \"a\" :\t\"b\" ,\n\"c\":null}", "c", "null"},
      {"\xEF\xBB\xBF{}", "a", kNone, kInvalid},
      {"{\"a\":\"\x01\xFF\"}", "a", "\x01\xFF"},
      {"", "a", kNone, kInvalid},
      {"  ", "a", kNone, kInvalid},
      {"\"lone\"", "a", kNone, kInvalid},
      {"12", "a", kNone, kInvalid},
      {"<html>", "a", kNone, kInvalid},
      {"[1,]", "a", kNone, kUnknown},
      {R"({"a":})", "a", kNone, kUnknown},
      {R"({"a":True})", "a", kNone, kUnknown},
      {R"({"a":1,"b":[}])", "a", kNone, kUnknown},
      {R"({"a":1,})", "a", kNone},
      {R"({"a" 1})", "a", kNone},
      {R"({"a":1;"b":2})", "a", kNone},
      {R"({"a":"b)", "a", kNone},
      {R"({"a":1)", "a", kNone},
      {R"({"a":"b\)", "a", kNone},
      {R"({"a":"b\u12)", "a", kNone},
      {R"({"a":1\)", "a", kNone},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.text);
    Parsed parsed(test.text);
    EXPECT_EQ(parsed.Get(test.key.c_str()), test.value);
    EXPECT_EQ(parsed.Get(test.key.c_str()), test.value) << "the second look-up";
    EXPECT_EQ(parsed.printed, test.printed);
  }
}

TEST(JsonReader, SurvivesEveryCut) {
  const std::string text =
      R"({ "result" : "success","n":[1,-2.5e3,true,{"\u00e4\"":"\\"},[]],"o":{"a":null},"text":"h\u00e9llo\n"})";
  for (std::size_t length = 0; length < text.size(); ++length) {
    Parsed parsed(text.substr(0, length));
    EXPECT_FALSE(parsed.succeeded()) << length;
    EXPECT_EQ(parsed.Get("result"), kNone) << length;
    for (const char* tail : {"\\", "\\u", "\\u1", "\"", "{", "[", "x"})
      Parsed(text.substr(0, length) + tail).Get("n");
  }
  EXPECT_EQ(Parsed(text).Get("text"), R"(h\u00e9llo\n)");
}

TEST(JsonReader, HoldsToItsLimits) {
  // The 512th child fails, silently; so does what does not fit the scratch area.
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
      {Repeat("{\"o\":", 10) + Repeat("[", 20) + Repeat("]", 20) + Repeat("}", 10), true},
      {Repeat("[", 200000), false},
      {Array(Repeat("[[]]", 300, ",")), true},  // closed containers give their scratch back
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.text.substr(0, 60));
    Parsed parsed(test.text);
    EXPECT_EQ(parsed.succeeded(), test.accepted);
    EXPECT_EQ(parsed.printed, "");
  }
}

TEST(JsonReader, FillsTheArenaToTheLastByte) {
  // One array of 300 arrays: 8 + 300 * (8 + 8) bytes of arrays and 24 for each of 16013 scalars make 389,120.
  const std::string elements =
      Repeat(Array(Repeat("1", 54, ",")), 113, ",") + "," + Repeat(Array(Repeat("1", 53, ",")), 187, ",");
  Parsed full(Array(elements));
  EXPECT_TRUE(full.succeeded());
  EXPECT_EQ(full.arena_used(), kJsonArenaSize);
  Parsed beyond(Array(elements + ",[]"));
  EXPECT_FALSE(beyond.succeeded());
  EXPECT_EQ(beyond.printed, "");
}

TEST(JsonReader, StartsAfreshWithEachText) {
  auto reader = std::make_unique<JsonReader>();
  char first[] = R"({"a":"1"})", second[] = R"({"b":"2"})", broken[] = "{";
  zelJsonReader_Open(reader.get(), first);
  const char* kept = zelJsonReader_GetString(reader.get(), "a", "");
  zelJsonReader_Open(reader.get(), second);
  EXPECT_STREQ(zelJsonReader_GetString(reader.get(), "a", kNone), kNone);
  EXPECT_STREQ(zelJsonReader_GetString(reader.get(), "b", kNone), "2");
  EXPECT_STREQ(kept, "1");
  zelJsonReader_Open(reader.get(), broken);
  EXPECT_EQ(zelJsonReader_GetString(reader.get(), "b", nullptr), nullptr);
}

}  // namespace

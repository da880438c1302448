// The JSON reader against an independent parser.
//
// 1. What the parser accepts (RFC 8259), within the reader's limits on children, nesting and storage, the reader
//    accepts with the same containers, keys and values in the same order; beyond the limits it refuses.
// 2. Whatever it accepts, its nodes lie inside the text and the text is as it was.
// 3. A look-up gives the first scalar of the name, again and again; the default for containers and after a refusal.
#include "json_reader.h"

#include <nlohmann/json.hpp>
#include <unordered_map>
#include <vector>

#include "fuzz.h"

namespace {

using Json = nlohmann::json;

// Writes down what the parser finds and adds up what it costs the reader.
class Oracle : public Json::json_sax_t {
 public:
  std::string found;
  bool within_limits = true;

  bool null() override { return scalar(nullptr); }
  bool boolean(bool value) override { return scalar(value); }
  bool number_integer(std::int64_t value) override { return scalar(value); }
  bool number_unsigned(std::uint64_t value) override { return scalar(value); }
  bool number_float(double value, const std::string&) override { return scalar(value); }
  bool string(std::string& value) override { return scalar(value); }
  bool binary(Json::binary_t&) override { return false; }
  bool key(std::string& name) override { return write(name); }
  bool start_object(std::size_t) override { return open('{', 8192); }
  bool start_array(std::size_t) override { return open('[', 4096); }
  bool end_object() override { return close('}', 16); }
  bool end_array() override { return close(']', 8); }
  bool parse_error(std::size_t, const std::string&, const Json::exception&) override { return false; }

 private:
  struct Container {
    std::size_t scratch, children;
  };

  bool write(const Json& value) {
    found += value.dump() + ' ';
    return spend(16);
  }
  bool scalar(const Json& value) {
    count_child();
    return write(value);
  }
  bool open(char bracket, std::size_t scratch) {
    count_child();
    containers_.push_back({scratch, 0});
    scratch_ += scratch;
    if (scratch_ > kJsonScratchSize) within_limits = false;
    found += bracket;
    return true;
  }
  bool close(char bracket, std::size_t bytes_per_child) {
    found += bracket;
    scratch_ -= containers_.back().scratch;
    const std::size_t children = containers_.back().children;
    containers_.pop_back();
    return spend(8 + children * bytes_per_child);
  }
  void count_child() {
    if (!containers_.empty() && ++containers_.back().children >= 512) within_limits = false;
  }
  bool spend(std::size_t bytes) {
    arena_ += bytes;
    if (arena_ > kJsonArenaSize) within_limits = false;
    return true;
  }

  std::vector<Container> containers_;
  std::size_t arena_ = 0, scratch_ = 0;
};

const JsonNode* Child(const JsonNode* container, std::uint32_t index) {
  return reinterpret_cast<const JsonNode* const*>(container + 1)[index];
}

std::string_view RawText(const JsonNode* scalar) {
  return {*reinterpret_cast<char* const*>(scalar + 1), scalar->length};
}

// The parser's words for a tree of the reader; raw tokens when the parser has refused the text.
void Describe(const JsonNode* node, std::string_view text, bool valid, std::string& found) {
  if (node->type == JsonNodeType_Scalar) {
    const std::string_view raw = RawText(node);
    FUZZ_CHECK(raw.data() > text.data() && raw.data() + raw.size() <= text.data() + text.size());
    const std::string quote = raw.data()[-1] == '"' ? "\"" : "";
    const std::string token = quote + std::string(raw) + quote;
    found += (valid ? Json::parse(token).dump() : token) + ' ';
    return;
  }
  const bool object = node->type == JsonNodeType_Object;
  found += object ? '{' : '[';
  for (std::uint32_t i = 0; i < node->length * (object ? 2 : 1); ++i)
    Describe(Child(node, i), text, valid, found);
  found += object ? '}' : ']';
}

void CheckLookUps(JsonReader* reader) {
  static const char kDefault[] = "the default";
  std::unordered_map<std::string, std::string> expected;
  const JsonNode* root = reader->root;
  for (std::uint32_t i = 0; root != nullptr && root->type == JsonNodeType_Object && i < root->length; ++i) {
    const JsonNode* value = Child(root, 2 * i + 1);
    const bool scalar = value->type == JsonNodeType_Scalar;
    expected.try_emplace(std::string(RawText(Child(root, 2 * i))), scalar ? RawText(value) : kDefault);
  }
  expected.try_emplace("absent", kDefault);
  for (int round = 0; round < 2; ++round) {
    for (const auto& [key, value] : expected)
      FUZZ_CHECK(zelJsonReader_GetString(reader, key.c_str(), kDefault) == value);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
  std::vector<char> bytes(text.c_str(), text.c_str() + text.size() + 1);

  static JsonReader reader;
  FUZZ_CHECK(zelJsonReader_Open(&reader, bytes.data()) == &reader);
  FUZZ_CHECK(text == bytes.data());
  FUZZ_CHECK(reader.arena_top >= reader.arena && reader.arena_top <= reader.arena + kJsonArenaSize);
  FUZZ_CHECK(reader.scratch_top >= reader.scratch && reader.scratch_top <= reader.scratch + kJsonScratchSize);

  // The parser would skip a byte order mark, and take a scalar for a whole text.
  Oracle oracle;
  const bool parsed =
      !text.starts_with("\xEF\xBB\xBF") && Json::sax_parse(text, &oracle, Json::input_format_t::json, false);
  const bool valid = parsed && (oracle.found[0] == '{' || oracle.found[0] == '[');
  if (valid) FUZZ_CHECK((reader.root != nullptr) == oracle.within_limits);
  if (reader.root != nullptr) {
    std::string found;
    Describe(reader.root, {bytes.data(), text.size()}, valid, found);
    if (valid) FUZZ_CHECK(found == oracle.found);
  }
  CheckLookUps(&reader);
  return 0;
}

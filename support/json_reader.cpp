#include "json_reader.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr std::uint32_t kMaxChildren = 512;  // reaching this count fails the parse
constexpr std::size_t kPointerSize = sizeof(void*);
constexpr std::size_t kArrayScratch = kMaxChildren * kPointerSize;
constexpr std::size_t kObjectScratch = 2 * kArrayScratch;

struct ScalarNode {
  JsonNode head;
  char* text;
};

struct Member {
  const JsonNode* key;
  const JsonNode* value;
};

static_assert(sizeof(JsonNode) == 8 && sizeof(ScalarNode) == 16 && sizeof(Member) == 16);

// Classes of a byte, as bits.
enum : std::uint8_t {
  kSpace = 1,         // tab, line feed, carriage return, blank
  kScalarStart = 2,   // starts a scalar value
  kLiteral = 4,       // belongs to a number or literal that has begun
  kStringSpecial = 8  // ends the fast run through a string: quote, backslash, NUL
};

struct ByteClasses {
  std::uint8_t of[256];
};

constexpr ByteClasses MakeByteClasses() {
  ByteClasses table{};
  const auto mark = [&table](const char* bytes, std::uint8_t bit) {
    for (; *bytes != '\0'; ++bytes) {
      std::uint8_t& entry = table.of[static_cast<unsigned char>(*bytes)];
      entry = static_cast<std::uint8_t>(entry | bit);
    }
  };
  mark("\t\n\r ", kSpace);
  mark("\"-0123456789tfn", kScalarStart);
  mark("+-.0123456789Eaeflnrstu", kLiteral);
  mark("\"\\", kStringSpecial);
  table.of[0] = kStringSpecial;
  return table;
}

constexpr ByteClasses kBytes = MakeByteClasses();

bool Is(char byte, std::uint8_t classes) {
  return (kBytes.of[static_cast<unsigned char>(byte)] & classes) != 0;
}

// The next character that is not white space, not consumed.
char Peek(JsonReader* reader) {
  while (Is(*reader->cursor, kSpace))
    ++reader->cursor;
  return *reader->cursor;
}

// Consumes the next character that is not white space; never the terminator.
char Next(JsonReader* reader) {
  const char byte = Peek(reader);
  if (byte != '\0') ++reader->cursor;
  return byte;
}

void* TakeArena(JsonReader* reader, std::size_t size) {
  if (static_cast<std::size_t>(reader->arena + kJsonArenaSize - reader->arena_top) < size) return nullptr;
  void* node = reader->arena_top;
  reader->arena_top += size;
  return node;
}

const JsonNode** TakeScratch(JsonReader* reader, std::size_t size) {
  if (static_cast<std::size_t>(reader->scratch + kJsonScratchSize - reader->scratch_top) < size) return nullptr;
  auto* children = reinterpret_cast<const JsonNode**>(reader->scratch_top);
  reader->scratch_top += size;
  return children;
}

// Steps over an escape sequence: six characters for \u, otherwise two, but never past the terminator.
char* SkipEscape(char* at) {
  for (int left = at[1] == 'u' ? 6 : 2; left > 0 && *at != '\0'; --left)
    ++at;
  return at;
}

char* ScanString(char* at) {
  for (;;) {
    while (!Is(*at, kStringSpecial))
      ++at;
    if (*at != '\\') return at;
    at = SkipEscape(at);
  }
}

// A number or literal ends at the first byte that cannot belong to one; a token of no class takes all that is left.
char* ScanBare(char* at, bool known_class) {
  while (*at != '\0') {
    if (*at == '\\') {
      at = SkipEscape(at);
    } else if (known_class && !Is(*at, kLiteral)) {
      break;
    } else {
      ++at;
    }
  }
  return at;
}

const JsonNode* ParseScalar(JsonReader* reader) {
  const char first = Peek(reader);
  auto* node = static_cast<ScalarNode*>(TakeArena(reader, sizeof(ScalarNode)));
  if (node == nullptr) return nullptr;
  char* start = first == '"' ? reader->cursor + 1 : reader->cursor;
  char* end = first == '"' ? ScanString(start) : ScanBare(start, Is(first, kScalarStart));
  reader->cursor = first == '"' && *end == '"' ? end + 1 : end;
  node->head = {JsonNodeType_Scalar, static_cast<std::uint32_t>(end - start)};
  node->text = start;
  return &node->head;
}

const JsonNode* ParseArray(JsonReader* reader);
const JsonNode* ParseObject(JsonReader* reader);

// Parses the value that comes next; `complaint` goes to standard output when none does.
const JsonNode* ParseValue(JsonReader* reader, bool scalars, const char* complaint) {
  const char first = Peek(reader);
  if (first == '{') return ParseObject(reader);
  if (first == '[') return ParseArray(reader);
  if (scalars && Is(first, kScalarStart)) return ParseScalar(reader);
  std::printf("%s\n", complaint);
  return nullptr;
}

const JsonNode* ParseElement(JsonReader* reader) {
  return ParseValue(reader, true, "UNKOWN TYPE");
}

// Parses elements up to and including the closing bracket into `elements`; false on failure.
bool ParseElements(JsonReader* reader, const JsonNode** elements, std::uint32_t* count) {
  ++reader->cursor;
  if (Peek(reader) == ']') {
    ++reader->cursor;
    return true;
  }
  for (;;) {
    const JsonNode* element = ParseElement(reader);
    if (element == nullptr) return false;
    elements[(*count)++] = element;
    if (*count == kMaxChildren) return false;
    const char separator = Next(reader);
    if (separator == ']') return true;
    if (separator != ',') return false;
  }
}

const JsonNode* ParseArray(JsonReader* reader) {
  const JsonNode** elements = TakeScratch(reader, kArrayScratch);
  std::uint32_t count = 0;
  if (elements == nullptr || !ParseElements(reader, elements, &count)) return nullptr;

  auto* node = static_cast<JsonNode*>(TakeArena(reader, sizeof(JsonNode) + count * kPointerSize));
  if (node == nullptr) return nullptr;
  *node = {JsonNodeType_Array, count};
  std::memcpy(node + 1, elements, count * kPointerSize);
  reader->scratch_top -= kArrayScratch;
  return node;
}

// Parses members up to and including the closing brace into `keys` and `values`; false on failure.
bool ParseMembers(JsonReader* reader, const JsonNode** keys, const JsonNode** values, std::uint32_t* count) {
  ++reader->cursor;
  if (Peek(reader) == '}') {
    ++reader->cursor;
    return true;
  }
  for (;;) {
    keys[*count] = ParseScalar(reader);
    if (keys[*count] == nullptr || Next(reader) != ':') return false;
    values[*count] = ParseElement(reader);
    if (values[*count] == nullptr) return false;
    if (++*count == kMaxChildren) return false;
    const char separator = Next(reader);
    if (separator == '}') return true;
    if (separator != ',') return false;
  }
}

const JsonNode* ParseObject(JsonReader* reader) {
  const JsonNode** keys = TakeScratch(reader, kObjectScratch);
  std::uint32_t count = 0;
  if (keys == nullptr) return nullptr;
  const JsonNode** values = keys + kMaxChildren;
  if (!ParseMembers(reader, keys, values, &count)) return nullptr;

  auto* node = static_cast<JsonNode*>(TakeArena(reader, sizeof(JsonNode) + count * sizeof(Member)));
  if (node == nullptr) return nullptr;
  *node = {JsonNodeType_Object, count};
  auto* members = reinterpret_cast<Member*>(node + 1);
  for (std::uint32_t i = 0; i < count; ++i)
    members[i] = {keys[i], values[i]};
  reader->scratch_top -= kObjectScratch;
  return node;
}

}  // namespace

JsonReader* zelJsonReader_Open(JsonReader* reader, char* text) {
  static char empty[1] = "";
  reader->arena_top = reader->arena;
  reader->scratch_top = reader->scratch;
  reader->cursor = text != nullptr ? text : empty;
  reader->root = ParseValue(reader, false, "INVALID TYPE");
  return reader;
}

const char* zelJsonReader_GetString(JsonReader* reader, const char* key, const char* fallback) {
  const JsonNode* root = reader->root;
  if (root == nullptr || root->type != JsonNodeType_Object) return fallback;
  const std::size_t key_length = std::strlen(key);
  const auto* members = reinterpret_cast<const Member*>(root + 1);
  for (std::uint32_t i = 0; i < root->length; ++i) {
    const auto* name = reinterpret_cast<const ScalarNode*>(members[i].key);
    if (name->head.length != key_length || std::memcmp(name->text, key, key_length) != 0) continue;
    if (members[i].value->type != JsonNodeType_Scalar) return fallback;
    const auto* value = reinterpret_cast<const ScalarNode*>(members[i].value);
    value->text[value->head.length] = '\0';
    return value->text;
  }
  return fallback;
}

void zelJsonReader_Close(JsonReader*) {}

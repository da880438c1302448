#include "json_reader.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <cstdio>
#include <cstring>

namespace {

constexpr std::uint32_t kMaxChildren = 512;  // reaching this count fails the parse
constexpr int kNearEscape = 8;               // characters behind an escape sequence that are looked at one by one
constexpr std::size_t kBlock = 16;           // bytes that are looked at together
constexpr std::size_t kPointerSize = sizeof(void*);
constexpr std::size_t kArrayScratch = kMaxChildren * kPointerSize;
constexpr std::size_t kObjectScratch = 2 * kArrayScratch;

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

char* SkipSpace(char* at) {
  while (Is(*at, kSpace))
    ++at;
  return at;
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

// Steps over an escape sequence: six characters for \u, otherwise two, but never past the terminator. A processor
// foresees these steps; it would have to wait for a computed length.
char* SkipEscape(char* at) {
  for (int left = at[1] == 'u' ? 6 : 2; left > 0 && *at != '\0'; --left)
    ++at;
  return at;
}

#ifdef __SSE2__
// One bit for each of sixteen bytes: set for a quote, backslash or NUL.
unsigned MarkSpecials(const char* block) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block));
  const __m128i quotes = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('"'));
  const __m128i backslashes = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'));
  const __m128i terminators = _mm_cmpeq_epi8(bytes, _mm_setzero_si128());
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(quotes, backslashes), terminators)));
}
#endif

// The next quote, backslash or NUL. Sixteen bytes at a time: one at a time, long texts would take three times as long.
// The last block, which ends with the terminator, may have begun before `at`. Always inline: most strings are short.
[[gnu::always_inline]] inline char* FindSpecial(char* at, [[maybe_unused]] char* last_block) {
#ifdef __SSE2__
  if (last_block != nullptr) {
    for (; at < last_block; at += kBlock) {
      const unsigned marks = MarkSpecials(at);
      if (marks != 0) return at + __builtin_ctz(marks);
    }
    return at + __builtin_ctz(MarkSpecials(last_block) >> (at - last_block));
  }
#endif
  while (!Is(*at, kStringSpecial))
    ++at;
  return at;
}

// Escape sequences come in rows, and seldom far apart: behind one, a few characters are looked at one by one.
char* FindNearSpecial(char* at, char* last_block) {
  for (int near = kNearEscape; near > 0; --near, ++at) {
    if (Is(*at, kStringSpecial)) return at;
  }
  return FindSpecial(at, last_block);
}

// From the first backslash on. Not inlined: most strings have none.
[[gnu::noinline]] char* ScanEscaped(char* at, char* last_block) {
  do {
    do
      at = SkipEscape(at);
    while (*at == '\\');
    at = FindNearSpecial(at, last_block);
  } while (*at == '\\');
  return at;
}

inline char* ScanString(char* at, char* last_block) {
  at = FindSpecial(at, last_block);
  return *at == '\\' ? ScanEscaped(at, last_block) : at;
}

// A number or literal ends at the first byte that cannot belong to one; a token of no class takes all that is left.
char* ScanBare(char* at) {
  const bool known_class = Is(*at, kScalarStart);
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

// The parsing functions begin at the first character of what they parse, store its node, and return where it ends; null
// on failure.

// Inline: a reply is little else than strings.
inline char* ParseScalar(JsonReader* reader, char* at, const JsonNode** node) {
  auto* scalar = static_cast<JsonScalar*>(TakeArena(reader, sizeof(JsonScalar)));
  if (scalar == nullptr) return nullptr;
  *node = &scalar->head;
  if (*at == '"') [[likely]] {
    char* end = ScanString(at + 1, reader->last_block);
    *scalar = {{JsonNodeType_Scalar, static_cast<std::uint32_t>(end - at - 1)}, at + 1};
    return *end == '"' ? end + 1 : end;
  }
  char* end = ScanBare(at);
  *scalar = {{JsonNodeType_Scalar, static_cast<std::uint32_t>(end - at)}, at};
  return end;
}

char* ParseArray(JsonReader* reader, char* at, const JsonNode** node);
char* ParseObject(JsonReader* reader, char* at, const JsonNode** node);

char* ParseContainer(JsonReader* reader, char* at, const JsonNode** node) {
  if (*at == '{') return ParseObject(reader, at, node);
  if (*at == '[') return ParseArray(reader, at, node);
  std::printf("UNKOWN TYPE\n");
  return nullptr;
}

inline char* ParseElement(JsonReader* reader, char* at, const JsonNode** node) {
  return Is(*at, kScalarStart) ? ParseScalar(reader, at, node) : ParseContainer(reader, at, node);
}

// What follows an element or member: the next one's first character, or behind the container's closing bracket, which
// sets `*closed`; null for anything else.
char* ParseSeparator(char* at, char closing, bool* closed) {
  at = SkipSpace(at);
  *closed = *at == closing;
  if (*closed) return at + 1;
  return *at == ',' ? SkipSpace(at + 1) : nullptr;
}

// Parses what stands between the brackets and the closing one into `elements`.
char* ParseElements(JsonReader* reader, char* at, const JsonNode** elements, std::uint32_t* count) {
  at = SkipSpace(at + 1);
  if (*at == ']') return at + 1;
  for (bool closed = false; !closed;) {
    at = ParseElement(reader, at, &elements[*count]);
    if (at == nullptr || ++*count == kMaxChildren) return nullptr;
    at = ParseSeparator(at, ']', &closed);
    if (at == nullptr) return nullptr;
  }
  return at;
}

char* ParseArray(JsonReader* reader, char* at, const JsonNode** node) {
  const JsonNode** elements = TakeScratch(reader, kArrayScratch);
  if (elements == nullptr) return nullptr;
  std::uint32_t count = 0;
  at = ParseElements(reader, at, elements, &count);
  if (at == nullptr) return nullptr;

  auto* array = static_cast<JsonNode*>(TakeArena(reader, sizeof(JsonNode) + count * kPointerSize));
  if (array == nullptr) return nullptr;
  *array = {JsonNodeType_Array, count};
  std::memcpy(array + 1, elements, count * kPointerSize);
  reader->scratch_top -= kArrayScratch;
  *node = array;
  return at;
}

// Reads a pointer that has just been stored, and nothing beside it: a wider load, as compilers like to make of two,
// would have to wait until both stores have reached the cache.
const JsonNode* ReadAlone(const JsonNode* const* pointer) {
  return *const_cast<const JsonNode* const volatile*>(pointer);
}

// The same for `keys` and `values`.
char* ParseMembers(JsonReader* reader, char* at, const JsonNode** keys, const JsonNode** values, std::uint32_t* count) {
  at = SkipSpace(at + 1);
  if (*at == '}') return at + 1;
  for (bool closed = false; !closed;) {
    at = ParseScalar(reader, at, &keys[*count]);
    if (at == nullptr) return nullptr;
    at = SkipSpace(at);
    if (*at != ':') return nullptr;
    at = ParseElement(reader, SkipSpace(at + 1), &values[*count]);
    if (at == nullptr || ++*count == kMaxChildren) return nullptr;
    at = ParseSeparator(at, '}', &closed);
    if (at == nullptr) return nullptr;
  }
  return at;
}

char* ParseObject(JsonReader* reader, char* at, const JsonNode** node) {
  const JsonNode** keys = TakeScratch(reader, kObjectScratch);
  if (keys == nullptr) return nullptr;
  const JsonNode** values = keys + kMaxChildren;
  std::uint32_t count = 0;
  at = ParseMembers(reader, at, keys, values, &count);
  if (at == nullptr) return nullptr;

  auto* object = static_cast<JsonNode*>(TakeArena(reader, sizeof(JsonNode) + count * sizeof(JsonMember)));
  if (object == nullptr) return nullptr;
  *object = {JsonNodeType_Object, count};
  auto* members = reinterpret_cast<JsonMember*>(object + 1);
  for (std::uint32_t i = 0; i < count; ++i)
    members[i] = {ReadAlone(&keys[i]), ReadAlone(&values[i])};
  reader->scratch_top -= kObjectScratch;
  *node = object;
  return at;
}

// Only a container can be the root.
char* ParseRoot(JsonReader* reader, char* at, const JsonNode** node) {
  if (*at == '{') return ParseObject(reader, at, node);
  if (*at == '[') return ParseArray(reader, at, node);
  std::printf("INVALID TYPE\n");
  return nullptr;
}

}  // namespace

JsonReader* zelJsonReader_Open(JsonReader* reader, char* text) {
  return zelJsonReader_OpenSized(reader, text, text != nullptr ? std::strlen(text) : 0);
}

JsonReader* zelJsonReader_OpenSized(JsonReader* reader, char* text, std::size_t size) {
  static char empty[1] = "";
  if (text == nullptr) {
    text = empty;
    size = 0;
  }
  reader->arena_top = reader->arena;
  reader->scratch_top = reader->scratch;
  reader->last_block = size + 1 >= kBlock ? text + size + 1 - kBlock : nullptr;
  const JsonNode* root = nullptr;
  reader->cursor = ParseRoot(reader, SkipSpace(text), &root);
  reader->root = reader->cursor != nullptr ? root : nullptr;
  return reader;
}

void zelJsonReader_Close(JsonReader*) {}

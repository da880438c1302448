// In-place reader of small JSON texts: a tree of nodes in fixed storage, and look-up of the top-level object's scalars.
//
// It reads a lenient superset of JSON (RFC 8259): scalars are kept as their raw text, escape sequences as written, and
// neither number syntax nor literals are checked. At most 511 elements or members per container, and as many containers
// open at once as the scratch area holds (20 objects, 40 arrays). Nothing is allocated and no text is copied.
//
// Thread rule: none inside; one user at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

inline constexpr std::size_t kJsonArenaSize = 389120;
inline constexpr std::size_t kJsonScratchSize = 163840;

enum JsonNodeType : std::uint32_t {
  JsonNodeType_Object = 0,
  JsonNodeType_Array = 1,
  JsonNodeType_Scalar = 2,
};

// Head of every node. In the arena an object's head is followed by `length` pairs (key node pointer, value node
// pointer), an array's by `length` node pointers, a scalar's by the pointer to its first character.
struct JsonNode {
  JsonNodeType type;
  std::uint32_t length;  // members, elements, or bytes of text
};

struct JsonScalar {
  JsonNode head;
  char* text;
};

struct JsonMember {
  const JsonNode* key;
  const JsonNode* value;
};

static_assert(sizeof(JsonNode) == 8 && sizeof(JsonScalar) == 16 && sizeof(JsonMember) == 16);

struct JsonReader {
  alignas(8) std::uint8_t arena[kJsonArenaSize];      // finished nodes, children before their container
  alignas(8) std::uint8_t scratch[kJsonScratchSize];  // children of the containers that are open
  std::uint8_t* arena_top;
  std::uint8_t* scratch_top;
  char* cursor;          // behind the top-level value; null when the last parse failed
  const JsonNode* root;  // null when the last parse failed
  char* last_block;      // the last 16 bytes of the text, terminator included; null when it has fewer
};

// Parses the NUL-terminated `text` (null counts as empty) and keeps its root; returns the reader whether or not that
// succeeded. After a failure every look-up gives its default. `text` stays alive and writable while values are used.
// Prints "INVALID TYPE" to standard output when the text starts with no container, "UNKOWN TYPE" for an element or
// member value of no known class; other errors are silent.
JsonReader* zelJsonReader_Open(JsonReader* reader, char* text);

// The same, in one pass, for a text whose length is known: text[size] is 0. An earlier NUL ends the text, too.
JsonReader* zelJsonReader_OpenSized(JsonReader* reader, char* text, std::size_t size);

// The raw text of the top-level member `key` (compared with the raw key text, the first of several wins),
// NUL-terminated in place. `fallback` when there is no such member or its value is a container.
// Inline, because with the length of a literal known, comparing keys takes no calls.
inline const char* zelJsonReader_GetString(JsonReader* reader, const char* key, const char* fallback) {
  const JsonNode* root = reader->root;
  if (root == nullptr || root->type != JsonNodeType_Object) return fallback;
  const std::size_t key_length = std::strlen(key);
  const auto* members = reinterpret_cast<const JsonMember*>(root + 1);
  for (std::uint32_t i = 0; i < root->length; ++i) {
    const auto* name = reinterpret_cast<const JsonScalar*>(members[i].key);
    if (name->head.length != key_length || std::memcmp(name->text, key, key_length) != 0) continue;
    if (members[i].value->type != JsonNodeType_Scalar) return fallback;
    const auto* value = reinterpret_cast<const JsonScalar*>(members[i].value);
    value->text[value->head.length] = '\0';
    return value->text;
  }
  return fallback;
}

// Nothing to release.
void zelJsonReader_Close(JsonReader* reader);

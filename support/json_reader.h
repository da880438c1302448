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

struct JsonReader {
  alignas(8) std::uint8_t arena[kJsonArenaSize];      // finished nodes, children before their container
  alignas(8) std::uint8_t scratch[kJsonScratchSize];  // children of the containers that are open
  std::uint8_t* arena_top;
  std::uint8_t* scratch_top;
  char* cursor;          // behind the top-level value; null when the last parse failed
  const JsonNode* root;  // null when the last parse failed
  char* end;             // the terminator of the text
};

// Parses the NUL-terminated `text` (null counts as empty) and keeps its root; returns the reader whether or not that
// succeeded. After a failure every look-up gives its default. `text` stays alive and writable while values are used.
// Prints "INVALID TYPE" to standard output when the text starts with no container, "UNKOWN TYPE" for an element or
// member value of no known class; other errors are silent.
JsonReader* zelJsonReader_Open(JsonReader* reader, char* text);

// GetString for a key of `key_length` bytes.
const char* zelJsonReader_Find(JsonReader* reader, const char* key, std::size_t key_length, const char* fallback);

// The raw text of the top-level member `key` (compared with the raw key text, the first of several wins),
// NUL-terminated in place. `fallback` when there is no such member or its value is a container.
inline const char* zelJsonReader_GetString(JsonReader* reader, const char* key, const char* fallback) {
  return zelJsonReader_Find(reader, key, std::strlen(key), fallback);  // inline: the length of a literal costs nothing
}

// Nothing to release.
void zelJsonReader_Close(JsonReader* reader);

// The limit of reading a reply: a scanner written for nothing but this, as fast as we know how to make it.
//
// It accepts what the plug-in's reader accepts and builds the same tree: a scalar node of 16 bytes for each key and
// value, children before their container, an object node with its pairs in document order, containers no larger and
// nested no deeper. It differs in what makes it quick: everything is in one place for the compiler, the caller pads the
// text with 16 bytes that may be read, and the arena is large enough for any text of a reply's length, so that it is
// not watched.
#pragma once

#include <emmintrin.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "reply_peers.h"

namespace bench {

// The end of a run of ordinary string characters: the next quote, backslash or NUL, one byte at a time ...
struct Bytewise {
  static char* end(char* at) {
    while (*at != '"' && *at != '\\' && *at != '\0')
      ++at;
    return at;
  }
};

// ... or sixteen.
struct Sse2 {
  static char* end(char* at) {
    for (;; at += 16) {
      const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
      const __m128i hit = _mm_or_si128(
          _mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8('"')), _mm_cmpeq_epi8(block, _mm_set1_epi8('\\'))),
          _mm_cmpeq_epi8(block, _mm_setzero_si128()));
      const auto mask = static_cast<unsigned>(_mm_movemask_epi8(hit));
      if (mask != 0) return at + __builtin_ctz(mask);
    }
  }
};

template <typename Strings>
class TreeScanner {
 public:
  // `text`: NUL-terminated, in a buffer of kReplyBuffer bytes.
  bool parse(char* text) {
    arena_ = arena_bytes_.data();
    children_ = child_slots_.data();
    depth_ = 0;
    root_ = nullptr;
    char* at = skip_space(text);
    if (*at == '{') return parse_object(at, &root_) != nullptr;
    return *at == '[' && parse_array(at, &root_) != nullptr;
  }

  // A scalar of the top-level object, NUL-terminated in place, or the default.
  const char* find(std::string_view key) const {
    constexpr const char* kDefault = "invalid_string";
    if (root_ == nullptr || root_->type != 0) return kDefault;
    const auto* members = reinterpret_cast<const Node* const*>(root_ + 1);
    for (std::uint32_t i = 0; i < root_->length; ++i, members += 2) {
      const auto* name = reinterpret_cast<const Scalar*>(members[0]);
      if (name->head.length != key.size() || std::memcmp(name->text, key.data(), key.size()) != 0) continue;
      const auto* value = reinterpret_cast<const Scalar*>(members[1]);
      if (value->head.type != 2) return kDefault;
      value->text[value->head.length] = '\0';
      return value->text;
    }
    return kDefault;
  }

 private:
  struct Node {
    std::uint32_t type;  // 0 object, 1 array, 2 scalar
    std::uint32_t length;
  };
  struct Scalar {
    Node head;
    char* text;
  };

  static constexpr std::uint32_t kMaxChildren = 512;
  static constexpr std::uint32_t kMaxDepth = 40;  // in arrays; an object counts twice

  static char* skip_space(char* at) {
    while (*at == ' ' || *at == '\n' || *at == '\r' || *at == '\t')
      ++at;
    return at;
  }

  static char* skip_escape(char* at) {
    for (int left = at[1] == 'u' ? 6 : 2; left > 0 && *at != '\0'; --left)
      ++at;
    return at;
  }

  static bool is_bare(char byte) {
    return (byte >= '0' && byte <= '9') || byte == '-' || byte == 't' || byte == 'f' || byte == 'n';
  }

  static char* bare_end(char* at) {
    static constexpr std::string_view kBytes = "+-.0123456789Eaeflnrstu";
    for (;;) {
      if (*at == '\\') {
        at = skip_escape(at);
      } else if (*at == '\0' || kBytes.find(*at) == std::string_view::npos) {
        return at;
      } else {
        ++at;
      }
    }
  }

  // Each parses from `at` and returns where it ends, or null.

  char* parse_string(char* at, const Node** node) {
    char* start = at + 1;
    char* end = Strings::end(start);
    while (*end == '\\') {
      do
        end = skip_escape(end);
      while (*end == '\\');
      end = Strings::end(end);
    }
    add_scalar(start, end, node);
    return *end == '"' ? end + 1 : end;
  }

  char* parse_bare(char* at, const Node** node) {
    char* end = bare_end(at);
    add_scalar(at, end, node);
    return end;
  }

  // Whatever a key begins with, it is one; what cannot begin a scalar takes all that is left.
  char* parse_key(char* at, const Node** node) {
    if (*at == '"') return parse_string(at, node);
    if (is_bare(*at)) return parse_bare(at, node);
    char* end = at + std::strlen(at);
    add_scalar(at, end, node);
    return end;
  }

  void add_scalar(char* start, char* end, const Node** node) {
    auto* scalar = reinterpret_cast<Scalar*>(arena_);
    *scalar = {{2, static_cast<std::uint32_t>(end - start)}, start};
    arena_ += sizeof(Scalar);
    *node = &scalar->head;
  }

  char* parse_value(char* at, const Node** node) {
    if (*at == '"') return parse_string(at, node);
    if (*at == '{') return parse_object(at, node);
    if (*at == '[') return parse_array(at, node);
    return is_bare(*at) ? parse_bare(at, node) : nullptr;
  }

  char* parse_object(char* at, const Node** node) {
    if ((depth_ += 2) > kMaxDepth) return nullptr;
    const Node** first = children_;
    at = skip_space(at + 1);
    while (*at != '}' || children_ != first) {
      at = skip_space(parse_key(at, children_));
      if (*at != ':') return nullptr;
      children_ += 2;
      at = parse_value(skip_space(at + 1), children_ - 1);
      if (at == nullptr || children_ - first == 2 * kMaxChildren) return nullptr;
      at = skip_space(at);
      if (*at == '}') break;
      if (*at != ',') return nullptr;
      at = skip_space(at + 1);
    }
    add_container(0, first, 2, node);
    depth_ -= 2;
    return at + 1;
  }

  char* parse_array(char* at, const Node** node) {
    if (++depth_ > kMaxDepth) return nullptr;
    const Node** first = children_;
    at = skip_space(at + 1);
    while (*at != ']' || children_ != first) {
      ++children_;
      at = parse_value(at, children_ - 1);
      if (at == nullptr || children_ - first == kMaxChildren) return nullptr;
      at = skip_space(at);
      if (*at == ']') break;
      if (*at != ',') return nullptr;
      at = skip_space(at + 1);
    }
    add_container(1, first, 1, node);
    --depth_;
    return at + 1;
  }

  // Moves the children from `first` on behind a new node.
  void add_container(std::uint32_t type, const Node** first, std::uint32_t slots, const Node** node) {
    const auto count = static_cast<std::size_t>(children_ - first);
    auto* container = reinterpret_cast<Node*>(arena_);
    *container = {type, static_cast<std::uint32_t>(count) / slots};
    // One by one: a wider load would have to wait until the pointers just stored have reached the cache.
    auto** copy = reinterpret_cast<const Node**>(container + 1);
    for (std::size_t i = 0; i < count; ++i)
      copy[i] = static_cast<const Node* const volatile*>(first)[i];
    arena_ += sizeof(Node) + count * sizeof(*first);
    children_ = first;
    *node = container;
  }

  char* arena_ = nullptr;
  const Node** children_ = nullptr;
  std::uint32_t depth_ = 0;
  const Node* root_ = nullptr;
  std::array<const Node*, 2 * kLongestReply> child_slots_;
  alignas(8) std::array<char, 48 * kLongestReply> arena_bytes_;
};

}  // namespace bench

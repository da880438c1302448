// General JSON parsers reading a reply, each as its documentation would have it done when speed matters. Read gets a
// NUL-terminated text that it may write to, in a buffer of kReplyBuffer bytes.
#pragma once

#include <memory>
#include <string_view>

namespace bench {

inline constexpr std::size_t kLongestReply = 1231;
inline constexpr std::size_t kReplyBuffer = kLongestReply + 1 + 64;

// What is kept of a reply; each field NUL-terminated, cut to its size. A field that a reply does not have keeps its
// value.
struct ReadReply {
  bool succeeded = false;
  char version[16] = {};
  char speaker[512] = {};
  char text[1024] = {};
  char error_code[32] = {};
  char error_message[128] = {};

  bool operator==(const ReadReply& other) const;
};

template <std::size_t kSize>
void keep(char (&field)[kSize], std::string_view value) {
  const std::size_t count = value.size() < kSize ? value.size() : kSize - 1;
  __builtin_memcpy(field, value.data(), count);
  field[count] = '\0';
}

// simdjson's document parser, which keeps its buffers from reply to reply.
class Simdjson {
 public:
  Simdjson();
  ~Simdjson();
  const ReadReply& read(char* reply, std::size_t length);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// RapidJSON in situ, with memory of its own that is used again for every reply.
class Rapidjson {
 public:
  Rapidjson();
  ~Rapidjson();
  const ReadReply& read(char* reply, std::size_t length);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// nlohmann-json, which has no such choices.
class Nlohmann {
 public:
  const ReadReply& read(char* reply, std::size_t length);

 private:
  ReadReply read_;
};

}  // namespace bench

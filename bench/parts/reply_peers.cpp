#include "reply_peers.h"

#include <rapidjson/document.h>
#include <simdjson.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

namespace bench {
namespace {

// `find` gives the string of a member.
template <typename Lookup>
void fill(ReadReply& read, const Lookup& find) {
  read.succeeded = find("result") == "success";
  keep(read.version, find("version"));
  if (read.succeeded) {
    keep(read.speaker, find("speaker"));
    keep(read.text, find("text"));
  } else {
    keep(read.error_code, find("error_code"));
    keep(read.error_message, find("error_message"));
  }
}

}  // namespace

bool ReadReply::operator==(const ReadReply& other) const {
  return succeeded == other.succeeded && std::strcmp(version, other.version) == 0 &&
         std::strcmp(speaker, other.speaker) == 0 && std::strcmp(text, other.text) == 0 &&
         std::strcmp(error_code, other.error_code) == 0 && std::strcmp(error_message, other.error_message) == 0;
}

static_assert(kReplyBuffer - kLongestReply - 1 >= simdjson::SIMDJSON_PADDING);

struct Simdjson::State {
  simdjson::dom::parser parser{kLongestReply + 1};
  ReadReply read;
};

Simdjson::Simdjson() : state_(std::make_unique<State>()) {}
Simdjson::~Simdjson() = default;

const ReadReply& Simdjson::read(char* reply, std::size_t length) {
  const simdjson::dom::object document =
      state_->parser.parse(reinterpret_cast<const std::uint8_t*>(reply), length, false).get_object();
  fill(state_->read, [&](std::string_view key) -> std::string_view { return document[key].get_string(); });
  return state_->read;
}

struct Rapidjson::State {
  using Allocator = rapidjson::MemoryPoolAllocator<>;
  using Document = rapidjson::GenericDocument<rapidjson::UTF8<>, Allocator, Allocator>;
  char values[4096];
  char parsing[4096];
  ReadReply read;
};

Rapidjson::Rapidjson() : state_(std::make_unique<State>()) {}
Rapidjson::~Rapidjson() = default;

const ReadReply& Rapidjson::read(char* reply, std::size_t) {
  State::Allocator values(state_->values, sizeof state_->values);
  State::Allocator parsing(state_->parsing, sizeof state_->parsing);
  State::Document document(&values, sizeof state_->parsing / 2, &parsing);
  document.ParseInsitu(reply);
  fill(state_->read, [&](const char* key) -> std::string_view {
    const auto& value = document.FindMember(key)->value;
    return {value.GetString(), value.GetStringLength()};
  });
  return state_->read;
}

const ReadReply& Nlohmann::read(char* reply, std::size_t length) {
  const nlohmann::json document = nlohmann::json::parse(reply, reply + length);
  fill(read_, [&](const char* key) -> std::string_view { return document.find(key)->get_ref<const std::string&>(); });
  return read_;
}

}  // namespace bench

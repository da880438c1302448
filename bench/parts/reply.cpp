// Row "reply". A unit: a reply copied into the buffer where a worker leaves it, parsed, its members looked up and
// copied as the recognition request does: result, version, speaker and text of a success, otherwise result, version,
// error code and message. Texts are kept as raw JSON; the general parsers decode escape sequences besides. A run copies
// eight replies before it reads the first, because a reply has always been in its buffer for a while when it is read.
#include <array>
#include <memory>
#include <stdexcept>

#include "bridge.h"
#include "cases.h"
#include "json_reader.h"
#include "recognition_request.h"
#include "replies.h"
#include "reply_peers.h"
#include "tree_scanner.h"
#include "wreq_request.h"

namespace bench {
namespace {

constexpr std::size_t kLengths[] = {100, 400, 1200};
constexpr struct {
  ReplyKind kind;
  const char* name;
} kKinds[] = {{ReplyKind::kSuccess, "success"}, {ReplyKind::kFailed, "failed"}, {ReplyKind::kEscapes, "escapes"}};

// The plug-in's own function.
class Plugin {
 public:
  Plugin() : reader_(std::make_unique<JsonReader>()) {
    request_.json_work = reader_.get();
    request_.reply_version = read_.version;
    request_.reply_speaker = read_.speaker;
    request_.reply_text = read_.text;
    request_.reply_error_code = read_.error_code;
    request_.reply_error_message = read_.error_message;
  }

  const ReadReply& read(char* reply, std::size_t length) {
    response_.data = reinterpret_cast<std::uint8_t*>(reply);
    response_.data_size = static_cast<std::uint32_t>(length);
    zelSttRequest_ParseReply(&request_, &response_);
    read_.succeeded = request_.succeeded == 1;
    return read_;
  }

 private:
  std::unique_ptr<JsonReader> reader_;
  SttRequest request_{};
  WreqResponse response_{};
  ReadReply read_;
};

// The scanner, and the same copies by the same service of the host.
template <typename Strings>
class Limit {
 public:
  const ReadReply& read(char* reply, std::size_t) {
    scanner_.parse(reply);
    read_.succeeded = std::strcmp(scanner_.find("result"), "success") == 0;
    zelString_Copy(read_.version, sizeof read_.version, scanner_.find("version"));
    if (read_.succeeded) {
      zelString_Copy(read_.speaker, sizeof read_.speaker, scanner_.find("speaker"));
      zelString_Copy(read_.text, sizeof read_.text, scanner_.find("text"));
    } else {
      zelString_Copy(read_.error_code, sizeof read_.error_code, scanner_.find("error_code"));
      zelString_Copy(read_.error_message, sizeof read_.error_message, scanner_.find("error_message"));
    }
    return read_;
  }

 private:
  TreeScanner<Strings> scanner_;
  ReadReply read_;
};

// Where replies and their trees lie begins a cache line: otherwise the linker decides, and replies of 100 bytes take up
// to 15 % more or less.
constexpr std::size_t kLine = 64;

struct alignas(kLine) Buffer {
  char bytes[kReplyBuffer];
  char* fill(const std::string& reply) {
    std::memcpy(bytes, reply.c_str(), reply.size() + 1);
    return bytes;
  }
};

template <typename Contestant>
void add(Cases& cases, const std::string& contestant, const std::string& input, const std::string& reply) {
  alignas(kLine) static Contestant reader;
  static std::array<Buffer, 8> buffers;
  cases.push_back({"reply/" + contestant + "/" + input, std::ssize(buffers), [reply] {
                     for (Buffer& buffer : buffers)
                       buffer.fill(reply);
                     for (Buffer& buffer : buffers)
                       reader.read(buffer.bytes, reply.size());
                   }});
}

const ReadReply& read_once(auto& reader, const std::string& reply) {
  static Buffer buffer;
  return reader.read(buffer.fill(reply), reply.size());
}

// Ours and the limit on texts that are no replies, too; the peers where nothing is escaped.
void compare() {
  Plugin plugin;
  Limit<Bytewise> bytewise;
  Limit<Sse2> sse2;
  Simdjson simdjson;
  Rapidjson rapidjson;
  Nlohmann nlohmann;
  for (const auto& [kind, name] : kKinds) {
    for (const std::size_t length : kLengths) {
      const std::string reply = make_reply(kind, length);
      require(reply.size() == length, "reply: length");
      const ReadReply& read = read_once(plugin, reply);
      require(read.succeeded == (kind != ReplyKind::kFailed), "reply: result");
      require(read == read_once(bytewise, reply) && read == read_once(sse2, reply), "reply: limit");
      const bool same = read == read_once(simdjson, reply) && read == read_once(rapidjson, reply) &&
                        read == read_once(nlohmann, reply);
      require(same == (kind != ReplyKind::kEscapes), "reply: peers");
    }
  }
  for (const char* text : {"", "[]", "{", "{\"a\"", "{\"result\":\"success", "{\"result\":\"success\",\"text\":{}}",
                           " { \"result\" : \"success\" , \"text\" : -1.5e3 , \"o\" : { \"text\" : [ 1 , [ ] ] } } ",
                           "{\"result\":\"success\",\"text\":\"\\u12", "{x:1}", "{1:true,\"text\":[1,]}"}) {
    const ReadReply& read = read_once(plugin, text);
    require(read == read_once(bytewise, text) && read == read_once(sse2, text), std::string("reply: limit on ") + text);
  }
}

}  // namespace

void add_reply_cases(Cases& cases) {
  compare();
  for (const auto& [kind, name] : kKinds) {
    for (const std::size_t length : kLengths) {
      const std::string reply = make_reply(kind, length);
      const std::string input = std::to_string(length) + "_" + name;
      add<Plugin>(cases, "plugin", input, reply);
      add<Limit<Sse2>>(cases, "limit", input, reply);
      add<Limit<Bytewise>>(cases, "limit_bytewise", input, reply);
      add<Simdjson>(cases, "simdjson", input, reply);
      add<Rapidjson>(cases, "rapidjson", input, reply);
      add<Nlohmann>(cases, "nlohmann", input, reply);
    }
  }
}

}  // namespace bench

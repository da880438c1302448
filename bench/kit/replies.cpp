#include "replies.h"

#include <stdexcept>
#include <string_view>

namespace bench {
namespace {

constexpr std::string_view kWords =
    "he was not an ill disposed young man unless to be rather cold hearted and rather selfish is to be ill disposed ";
// What a service that writes ASCII only makes of Japanese, beside the short sequences.
constexpr std::string_view kEscaped = R"(\u3042\u308a\u304c\u3068\u3046 \"so\"\n)";

// `pattern` over and over, `length` bytes; the escape sequence that the end would cut is left out.
std::string fill(std::string_view pattern, std::size_t length) {
  std::string text;
  while (text.size() < length)
    text += pattern;
  std::size_t end = length;
  for (std::size_t at = 0; at < length; at += text[at] != '\\' ? 1 : text[at + 1] == 'u' ? 6 : 2)
    end = at;
  // `end` is where the last character or sequence begins.
  text.resize(text[end] == '\\' ? end : length);
  return text.append(length - text.size(), '.');
}

}  // namespace

std::string make_reply(ReplyKind kind, std::size_t length) {
  const bool failed = kind == ReplyKind::kFailed;
  const std::string head = failed ? R"({"result":"error","version":"1.0","error_code":"E400","error_message":")"
                                  : R"({"result":"success","version":"1.0","speaker":"user-0815","text":")";
  const std::string_view tail = R"("})";
  if (length < 100) throw std::invalid_argument("a reply of less than 100 bytes");
  return head + fill(kind == ReplyKind::kEscapes ? kEscaped : kWords, length - head.size() - tail.size()) +
         std::string(tail);
}

}  // namespace bench

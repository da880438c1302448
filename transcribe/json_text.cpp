#include "json_text.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

namespace zel::transcribe {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

std::string quoted(std::string_view text) {
  return '"' + std::string(text) + '"';
}

// Bytes that the first character of `raw` takes in a JSON string, plain or escaped; 0 when there is no sound one.
std::size_t character_length(std::string_view raw) {
  for (const std::size_t length : {1, 2, 3, 4, 6, 12}) {
    if (length <= raw.size() && nlohmann::json::accept(quoted(raw.substr(0, length)))) return length;
  }
  return 0;
}

bool is_code_unit(std::string_view raw) {
  const auto is_digit = [](unsigned char c) { return std::isxdigit(c) != 0; };
  return raw.size() >= 6 && raw.starts_with("\\u") && std::all_of(raw.begin() + 2, raw.begin() + 6, is_digit);
}

bool is_plain_ascii(char c) {
  return static_cast<unsigned char>(c) < 0x80 && c != '\\';
}

}  // namespace

std::string unescape(std::string_view raw) {
  std::string out;
  while (!raw.empty()) {
    std::size_t length = 1;
    if (is_plain_ascii(raw[0])) {
      out += raw[0];
    } else if (length = character_length(raw); length > 0) {
      out += nlohmann::json::parse(quoted(raw.substr(0, length))).get<std::string>();
    } else {
      out += kReplacement;
      length = is_code_unit(raw) ? 6 : 1;  // half of a pair
    }
    raw.remove_prefix(length);
  }
  return out;
}

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const bool ascii = static_cast<unsigned char>(text[0]) < 0x80;
    const std::size_t length = ascii ? 1 : character_length(text);
    const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
    const bool control = ascii ? std::iscntrl(text[0]) != 0 : character >= "\xC2\x80" && character < "\xC2\xA0";
    if (character == "\t" || character == "\n" || character == "\r") {
      out += ' ';
    } else {
      out += length == 0 || control ? kReplacement : character;
    }
    text.remove_prefix(character.size());
  }
  return out;
}

std::string hide_token(std::string_view text, std::string_view token) {
  const std::size_t shortest = std::min<std::size_t>(token.size(), 8);
  if (shortest == 0) return std::string(text);
  const auto holds = [&](std::size_t count) {
    return text.size() >= count && token.find(text.substr(0, count)) != std::string_view::npos;
  };
  std::string out;
  while (!text.empty()) {
    std::size_t length = holds(shortest) ? shortest : 0;
    while (length > 0 && holds(length + 1))
      ++length;
    out += length > 0 ? "<token>" : text.substr(0, 1);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return out;
}

}  // namespace zel::transcribe

#include "json_text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
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

std::string decode_percent(std::string_view text) {
  std::string out;
  for (; !text.empty(); text.remove_prefix(1)) {
    unsigned char byte = 0;
    const char* digits = text.data() + 1;
    if (text[0] == '%' && text.size() >= 3 && std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
      out += static_cast<char>(byte);
      text.remove_prefix(2);
    } else {
      out += text[0];
    }
  }
  return out;
}

// "<token>" for every stretch of `text` that parts of the forms cover, each of them of 8 bytes or a whole form.
std::string hide_parts(std::string_view text, const std::vector<std::string>& forms) {
  std::vector<bool> hidden(text.size() + 1);
  for (const std::string& form : forms) {
    const std::size_t size = std::min<std::size_t>(form.size(), 8);
    for (std::size_t begin = 0; size > 0 && begin + size <= text.size(); ++begin) {
      if (form.find(text.substr(begin, size)) == std::string::npos) continue;
      std::fill_n(hidden.begin() + static_cast<std::ptrdiff_t>(begin), size, true);
    }
  }
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (!hidden[i]) out += text[i];
    if (hidden[i] && !hidden[i + 1]) out += "<token>";
  }
  return out;
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

std::string json_object(const JsonMembers& members) {
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  for (const auto& [name, value] : members)
    std::visit([&, &key = name](const auto& each) { object[key] = each; }, value);
  return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
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

std::string hide_token(std::string_view raw, std::string_view token) {
  const std::string text = unescape(raw);
  const std::string decoded = decode_percent(text);
  // What a decoder makes of a token that was echoed without being encoded.
  const std::vector<std::string> forms = {std::string(token), unescape(token), decode_percent(token),
                                          decode_percent(unescape(token))};
  std::string hidden = hide_parts(decoded, forms);
  return hidden != decoded ? hidden : hide_parts(text, forms);
}

}  // namespace zel::transcribe

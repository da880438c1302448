#include "json_text.h"

#include <cstdint>
#include <optional>

namespace zel::transcribe {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

void append_utf8(std::string& out, std::uint32_t code) {
  const auto tail = [&](int shift) { out += static_cast<char>(0x80 | (code >> shift & 0x3F)); };
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | code >> 6);
    tail(0);
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | code >> 12);
    tail(6);
    tail(0);
  } else {
    out += static_cast<char>(0xF0 | code >> 18);
    tail(12);
    tail(6);
    tail(0);
  }
}

// Bytes of the UTF-8 sequence that `text` begins with; 0 when it begins with none.
std::size_t sequence_length(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return 1;
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  const bool overlong = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xF0 && byte(1) < 0x90);
  const bool outside = (lead == 0xED && byte(1) > 0x9F) || (lead == 0xF4 && byte(1) > 0x8F);
  return overlong || outside ? 0 : length;
}

// The code unit of "uXXXX" at the beginning of `text`.
std::optional<std::uint32_t> code_unit(std::string_view text) {
  if (text.size() < 5 || text[0] != 'u') return std::nullopt;
  std::uint32_t value = 0;
  for (const char c : text.substr(1, 4)) {
    const std::size_t digit =
        std::string_view("0123456789abcdef").find(static_cast<char>(c >= 'A' && c <= 'F' ? c + 32 : c));
    if (digit == std::string_view::npos) return std::nullopt;
    value = value << 4 | static_cast<std::uint32_t>(digit);
  }
  return value;
}

// Appends what the escape sequence behind a backslash stands for. Result: bytes of `text` that belong to it.
std::size_t append_escape(std::string& out, std::string_view text) {
  constexpr std::string_view kNames = "\"\\/bfnrt";
  constexpr std::string_view kValues = "\"\\/\b\f\n\r\t";
  const std::size_t simple = text.empty() ? std::string_view::npos : kNames.find(text[0]);
  if (simple != std::string_view::npos) {
    out += kValues[simple];
    return 1;
  }
  const auto unit = code_unit(text);
  if (!unit) {
    out += kReplacement;
    return 0;
  }
  if (*unit < 0xD800 || *unit > 0xDFFF) {
    append_utf8(out, *unit);
    return 5;
  }
  const auto low = text.size() > 5 && text[5] == '\\' ? code_unit(text.substr(6)) : std::nullopt;
  if (*unit > 0xDBFF || !low || *low < 0xDC00 || *low > 0xDFFF) {
    out += kReplacement;
    return 5;
  }
  append_utf8(out, 0x10000 + ((*unit - 0xD800) << 10) + (*low - 0xDC00));
  return 11;
}

}  // namespace

std::string unescape(std::string_view raw) {
  std::string out;
  while (!raw.empty()) {
    if (raw[0] == '\\') {
      raw.remove_prefix(1);
      raw.remove_prefix(append_escape(out, raw));
      continue;
    }
    const std::size_t length = sequence_length(raw);
    out += length > 0 ? raw.substr(0, length) : kReplacement;
    raw.remove_prefix(length > 0 ? length : 1);
  }
  return out;
}

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const std::size_t length = sequence_length(text);
    const auto byte = static_cast<unsigned char>(text[0]);
    const bool upper_control = byte == 0xC2 && length == 2 && static_cast<unsigned char>(text[1]) < 0xA0;
    if (byte == '\t' || byte == '\n' || byte == '\r') {
      out += ' ';
    } else if (length == 0 || byte < 0x20 || byte == 0x7F || upper_control) {
      out += kReplacement;
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
  return out;
}

}  // namespace zel::transcribe

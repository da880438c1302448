// Texts as the speech service wrote them, made fit to be shown.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace zel::transcribe {

/** The characters that raw JSON string content stands for, as sound UTF-8: what is no escape sequence, no pair of
 * surrogates or no UTF-8 becomes U+FFFD. */
std::string unescape(std::string_view raw);

/** Names and values of a JSON object, in their order. */
using JsonMembers = std::vector<std::pair<std::string, std::variant<std::string, std::uint64_t, double>>>;

/** The object on one line; what is no UTF-8 becomes U+FFFD. */
std::string json_object(const JsonMembers& members);

/** One line that does a terminal no harm: tabs and line ends become blanks, every other control character and what is
 * no UTF-8 U+FFFD. */
std::string printable(std::string_view text);

/** unescape, with "<token>" for the token and for every part of it of 8 bytes or more: a service that answers with what
 * it was sent may cut it off anywhere. The token is found as it is, escaped for JSON, percent-encoded, and first the
 * one and then the other; nothing is promised about other encodings (Base64, HTML, letters of the other case). */
std::string hide_token(std::string_view raw, std::string_view token);

}  // namespace zel::transcribe

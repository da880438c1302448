// Texts as the speech service wrote them, made fit to be shown.
#pragma once

#include <string>
#include <string_view>

namespace zel::transcribe {

/** The characters that raw JSON string content stands for, as sound UTF-8: what is no escape sequence, no pair of
 * surrogates or no UTF-8 becomes U+FFFD. */
std::string unescape(std::string_view raw);

/** One line that does a terminal no harm: tabs and line ends become blanks, every other control character and what is
 * no UTF-8 U+FFFD. */
std::string printable(std::string_view text);

/** `text` with "<token>" for the token and for every part of it of 8 bytes or more: a service that answers with what it
 * was sent may cut it off anywhere. */
std::string hide_token(std::string_view text, std::string_view token);

}  // namespace zel::transcribe

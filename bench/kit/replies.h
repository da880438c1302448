// Replies of a speech-to-text service, as JSON texts.
#pragma once

#include <cstddef>
#include <string>

namespace bench {

enum class ReplyKind {
  kSuccess,  ///< result, version, speaker, and a text that fills the length
  kFailed,   ///< result, version, an error code, and a message that fills the length
  kEscapes,  ///< as kSuccess, most characters of the text written as escape sequences
};

/** A reply of exactly `length` bytes, at least 100, written compactly. */
std::string make_reply(ReplyKind kind, std::size_t length);

}  // namespace bench

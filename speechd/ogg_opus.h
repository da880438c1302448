// Reading the body of a recognition request.
#pragma once

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zel::speechd {

/** Why audio was refused. */
enum class AudioFault {
  kNotOggOpus,  ///< something else, or damaged
  kEmpty,       ///< a proper stream without a single sample, or no bytes at all
  kTooLong,
};

class AudioError : public std::runtime_error {
 public:
  AudioError(AudioFault fault, const std::string& what) : std::runtime_error(what), fault_(fault) {}
  AudioFault fault() const noexcept { return fault_; }

 private:
  AudioFault fault_;
};

/** Decodes a complete Ogg Opus stream (RFC 7845) of any number of channels to 16 kHz mono. Stops decoding at
 * `max_duration`, whatever the stream claims. Throws AudioError. */
std::vector<std::int16_t> decode_ogg_opus(std::string_view body, std::chrono::seconds max_duration);

}  // namespace zel::speechd

// Opus packets as a voice room carries them: 40 ms of 16 kHz mono each.
//
// Thread rule: callable from any thread. Errors: std::runtime_error when a recording is missing or cannot be encoded.
#pragma once

#include <cstddef>
#include <vector>

namespace bench {

/** The speech recordings of Debian's pocketsphinx-testdata, one after the other, encoded by libopus for voice at
 * 16 kbit/s with its variable rate: 80 bytes on average, 256 at most. The same packets in every run. */
std::vector<std::vector<unsigned char>> speech_packets();

/** `count` packets of 256 bytes, the longest that the plug-in takes. Their bytes mean nothing to a decoder, but begin
 * as a packet of 40 ms does (RFC 6716, section 3.1). */
std::vector<std::vector<unsigned char>> full_packets(std::size_t count);

}  // namespace bench

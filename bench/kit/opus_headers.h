// The two header packets of an Ogg Opus stream (RFC 7845, section 5) as all contestants announce it: 16 kHz, mono, no
// vendor and no comments.
#pragma once

#include <array>
#include <cstdint>

namespace bench {

inline constexpr std::array<std::uint8_t, 19> kOpusHead = {'O', 'p', 'u',  's',  'H', 'e', 'a', 'd', 1, 1,
                                                           0,   0,   0x80, 0x3E, 0,   0,   0,   0,   0};
inline constexpr std::array<std::uint8_t, 16> kOpusTags = {'O', 'p', 'u', 's', 'T', 'a', 'g', 's'};

/** Granules of a frame of 40 ms: granules count samples at 48 kHz, whatever the rate of the stream. */
inline constexpr std::int64_t kFrameGranules = 1920;

}  // namespace bench

#include "script.h"

#include <array>
#include <cstdint>
#include <vector>

#include "speech_packets.h"

namespace bench {
namespace {

// Frames of the utterances: 1.5 to 6 seconds.
constexpr std::array<std::size_t, kUtterances> kLengths = {125, 50, 100, 75, 150, 38, 88, 62};

std::vector<SttAudioFrame> build() {
  static const std::vector<std::vector<unsigned char>> packets = speech_packets();
  std::vector<SttAudioFrame> frames;
  std::size_t next = 0;
  for (const std::size_t length : kLengths) {
    for (std::size_t i = 0; i < length; ++i) {
      const std::vector<unsigned char>& packet = packets[next++ % packets.size()];
      frames.push_back({packet.data(), static_cast<std::uint32_t>(packet.size())});
    }
    frames.insert(frames.end(), kPause, SttAudioFrame{nullptr, 0});
  }
  return frames;
}

}  // namespace

std::span<const SttAudioFrame> script() {
  static const std::vector<SttAudioFrame> frames = build();
  return frames;
}

}  // namespace bench

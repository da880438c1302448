#include "script.h"

#include <array>
#include <cstdint>

#include "speech_packets.h"

namespace rooms {
namespace {

// Frames of the utterances: 1.5 to 6 seconds.
constexpr std::array<std::size_t, kUtterances> kLengths = {125, 50, 100, 75, 150, 38, 88, 62};

std::vector<SttAudioFrame> Build() {
  static const std::vector<std::vector<unsigned char>> packets = bench_kit::SpeechPackets();
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

const std::vector<SttAudioFrame>& Script() {
  static const std::vector<SttAudioFrame> frames = Build();
  return frames;
}

}  // namespace rooms

#include "speech_packets.h"

#include <opus.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>

namespace bench {
namespace {

constexpr const char* kRecordings[] = {
    "goforward.raw",
    "librivox/sense_and_sensibility_01_austen_64kb-0870.wav",
    "librivox/sense_and_sensibility_01_austen_64kb-0880.wav",
    "librivox/sense_and_sensibility_01_austen_64kb-0890.wav",
    "librivox/sense_and_sensibility_01_austen_64kb-0920.wav",
    "librivox/sense_and_sensibility_01_austen_64kb-0930.wav",
};
constexpr std::size_t kWavHeader = 44;
constexpr std::size_t kFrame = 640;  // samples
constexpr std::size_t kLongestPacket = 256;
constexpr unsigned char kWide40MsMono = 10 << 3;  // SILK, wideband, 40 ms, one frame

// 16-bit samples at 16 kHz, with or without a WAV header in front.
std::vector<std::int16_t> read_recording(const std::string& name) {
  std::ifstream stream(std::string(ZEL_BENCH_RECORDINGS "/") + name, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(stream), {});
  const std::size_t header = bytes.starts_with("RIFF") ? kWavHeader : 0;
  if (bytes.size() < header + 2 * kFrame) throw std::runtime_error("no recording: " + name);
  std::vector<std::int16_t> samples((bytes.size() - header) / 2);
  std::memcpy(samples.data(), bytes.data() + header, samples.size() * 2);
  return samples;
}

}  // namespace

std::vector<std::vector<unsigned char>> speech_packets() {
  int error = OPUS_OK;
  const std::unique_ptr<OpusEncoder, void (*)(OpusEncoder*)> encoder(
      opus_encoder_create(16000, 1, OPUS_APPLICATION_VOIP, &error), opus_encoder_destroy);
  if (error != OPUS_OK || opus_encoder_ctl(encoder.get(), OPUS_SET_BITRATE(16000)) != OPUS_OK)
    throw std::runtime_error("no Opus encoder");
  std::vector<std::vector<unsigned char>> packets;
  for (const char* name : kRecordings) {
    const std::vector<std::int16_t> samples = read_recording(name);
    for (std::size_t at = 0; at + kFrame <= samples.size(); at += kFrame) {
      std::array<unsigned char, kLongestPacket> packet;
      const int size = opus_encode(encoder.get(), &samples[at], kFrame, packet.data(), kLongestPacket);
      if (size <= 0) throw std::runtime_error(std::string("not encoded: ") + name);
      packets.emplace_back(packet.begin(), packet.begin() + size);
    }
  }
  return packets;
}

std::vector<std::vector<unsigned char>> full_packets(std::size_t count) {
  std::mt19937 random(1);
  std::vector<std::vector<unsigned char>> packets(count, std::vector<unsigned char>(kLongestPacket));
  for (std::vector<unsigned char>& packet : packets) {
    for (unsigned char& byte : packet)
      byte = static_cast<unsigned char>(random());
    packet[0] = kWide40MsMono;
  }
  return packets;
}

}  // namespace bench

#include "opus_speech.h"

#include <gtest/gtest.h>
#include <opus.h>
#include <opusfile.h>

#include <array>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

std::vector<std::string> encode_recording(const std::string& file) {
  constexpr std::size_t kFrame = 640;
  std::ifstream stream(ZEL_TEST_RECORDINGS "/" + file, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(stream), {});
  EXPECT_GT(bytes.size(), 32'000U) << file;
  std::vector<std::int16_t> samples(bytes.size() / 2);
  std::memcpy(samples.data(), bytes.data(), samples.size() * 2);

  const std::unique_ptr<OpusEncoder, void (*)(OpusEncoder*)> encoder(
      opus_encoder_create(16000, 1, OPUS_APPLICATION_VOIP, nullptr), opus_encoder_destroy);
  std::vector<std::string> packets;
  for (std::size_t at = 0; at + kFrame <= samples.size(); at += kFrame) {
    std::array<unsigned char, 256> packet;
    const int size = opus_encode(encoder.get(), &samples[at], kFrame, packet.data(), packet.size());
    packets.emplace_back(packet.data(), packet.data() + std::max(size, 0));
  }
  return packets;
}

std::vector<float> decode_packets(const std::vector<std::string>& packets) {
  const std::unique_ptr<OpusDecoder, void (*)(OpusDecoder*)> decoder(opus_decoder_create(48000, 1, nullptr),
                                                                     opus_decoder_destroy);
  std::vector<float> sound;
  for (const std::string& packet : packets) {
    std::array<float, 1920> frame;
    EXPECT_EQ(opus_decode_float(decoder.get(), reinterpret_cast<const unsigned char*>(packet.data()),
                                static_cast<opus_int32>(packet.size()), frame.data(), 1920, 0),
              1920);
    sound.insert(sound.end(), frame.begin(), frame.end());
  }
  return sound;
}

std::vector<float> decode_stream(std::string_view bytes) {
  int error = 0;
  const std::unique_ptr<OggOpusFile, void (*)(OggOpusFile*)> file(
      op_open_memory(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), &error), op_free);
  std::vector<float> sound;
  EXPECT_EQ(error, 0);
  if (!file) return sound;
  EXPECT_EQ(op_link_count(file.get()), 1);
  EXPECT_EQ(op_serialno(file.get(), -1), 0U);
  EXPECT_EQ(op_head(file.get(), -1)->channel_count, 1);
  EXPECT_EQ(op_head(file.get(), -1)->input_sample_rate, 16000U);
  std::array<float, 5760> part;
  int size = 0;
  while ((size = op_read_float(file.get(), part.data(), part.size(), nullptr)) > 0)
    sound.insert(sound.end(), part.begin(), part.begin() + size);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(op_pcm_total(file.get(), -1), static_cast<ogg_int64_t>(sound.size()));
  return sound;
}

#include "ogg_opus_writer.h"

#include <ogg/ogg.h>
#include <opus.h>

#include <array>
#include <cmath>
#include <memory>
#include <numbers>
#include <stdexcept>

namespace speechd_test {
namespace {

constexpr int kRate = 16000;
constexpr std::size_t kFrame = 640;
constexpr ogg_int64_t kGranulesPerFrame = 1920;

class Muxer {
 public:
  Muxer() { ogg_stream_init(&stream_, 0); }
  ~Muxer() { ogg_stream_clear(&stream_); }
  Muxer(const Muxer&) = delete;
  Muxer& operator=(const Muxer&) = delete;

  void Put(std::span<unsigned char> bytes, ogg_int64_t granules, bool last) {
    ogg_packet packet{bytes.data(), static_cast<long>(bytes.size()), count_ == 0, last, granules, count_};
    ++count_;
    ogg_stream_packetin(&stream_, &packet);
    const bool alone = count_ <= 2 || last;
    ogg_page page;
    while ((alone ? ogg_stream_flush(&stream_, &page) : ogg_stream_pageout(&stream_, &page)) != 0) {
      bytes_.append(reinterpret_cast<const char*>(page.header), static_cast<std::size_t>(page.header_len));
      bytes_.append(reinterpret_cast<const char*>(page.body), static_cast<std::size_t>(page.body_len));
    }
  }
  const std::string& bytes() const { return bytes_; }

 private:
  ogg_stream_state stream_{};
  ogg_int64_t count_ = 0;
  std::string bytes_;
};

}  // namespace

std::string WriteOggOpus(std::span<const std::int16_t> samples, const StreamOptions& options) {
  const auto channels = static_cast<std::size_t>(options.channels);
  Muxer muxer;
  std::array<unsigned char, 19> head{'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1, 0, 0, 0, 0x80, 0x3e, 0, 0, 0, 0, 0};
  head[9] = static_cast<unsigned char>(channels);
  std::array<unsigned char, 16> tags{'O', 'p', 'u', 's', 'T', 'a', 'g', 's'};
  muxer.Put(head, 0, false);
  muxer.Put(tags, 0, samples.empty());

  const std::unique_ptr<OpusEncoder, decltype(&opus_encoder_destroy)> encoder(
      opus_encoder_create(kRate, options.channels, OPUS_APPLICATION_VOIP, nullptr), opus_encoder_destroy);
  opus_encoder_ctl(encoder.get(), OPUS_SET_BITRATE(options.bit_rate));
  const std::size_t frames = (samples.size() + kFrame - 1) / kFrame;
  for (std::size_t i = 0; i < frames; ++i) {
    std::vector<std::int16_t> frame(kFrame * channels);
    for (std::size_t j = 0; j < frame.size() && i * kFrame + j / channels < samples.size(); ++j)
      frame[j] = samples[i * kFrame + j / channels];
    std::array<unsigned char, 1275> packet;
    const int size = opus_encode(encoder.get(), frame.data(), kFrame, packet.data(), packet.size());
    if (size < 0) throw std::runtime_error(opus_strerror(size));
    muxer.Put(std::span(packet).first(static_cast<std::size_t>(size)),
              static_cast<ogg_int64_t>(i + 1) * kGranulesPerFrame, i + 1 == frames);
  }
  return muxer.bytes();
}

std::vector<std::int16_t> Tone(double frequency, double seconds, double amplitude) {
  std::vector<std::int16_t> samples(static_cast<std::size_t>(seconds * kRate));
  double angle = 0;
  for (std::int16_t& sample : samples)
    sample = static_cast<std::int16_t>(amplitude * std::sin(angle += 2 * std::numbers::pi * frequency / kRate));
  return samples;
}

}  // namespace speechd_test

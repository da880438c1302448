#include "ogg_opus.h"

#include <opusfile.h>
#include <soxr.h>

#include <array>
#include <cstddef>
#include <memory>

#include "engine.h"

namespace zel::speechd {
namespace {

constexpr int kDecodedRate = 48000;  // what opusfile gives, whatever the stream was made from
constexpr std::size_t kLongestPacket = 5760;

struct FileFree {
  void operator()(OggOpusFile* file) const { op_free(file); }
};

std::vector<float> decode_mono(OggOpusFile* file, std::size_t max_samples) {
  std::vector<float> samples;
  std::array<float, 2 * kLongestPacket> stereo;
  for (;;) {
    const int count = op_read_float_stereo(file, stereo.data(), static_cast<int>(stereo.size()));
    if (count == OP_HOLE) continue;
    if (count < 0) throw AudioError(AudioFault::kNotOggOpus, "the Ogg Opus stream is damaged");
    if (count == 0) return samples;
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i)
      samples.push_back((stereo[2 * i] + stereo[2 * i + 1]) / 2);
    if (samples.size() > max_samples) throw AudioError(AudioFault::kTooLong, "the audio is too long");
  }
}

// Without dither, so that the same audio always gives the same text.
std::vector<std::int16_t> resample(const std::vector<float>& samples) {
  const soxr_io_spec_t format = [] {
    soxr_io_spec_t spec = soxr_io_spec(SOXR_FLOAT32_I, SOXR_INT16_I);
    spec.flags = SOXR_NO_DITHER;
    return spec;
  }();
  std::vector<std::int16_t> resampled(samples.size() * kSampleRate / kDecodedRate + 1);
  std::size_t written = 0;
  const soxr_error_t error = soxr_oneshot(kDecodedRate, kSampleRate, 1, samples.data(), samples.size(), nullptr,
                                          resampled.data(), resampled.size(), &written, &format, nullptr, nullptr);
  if (error != nullptr) throw std::runtime_error(std::string("resampling failed: ") + soxr_strerror(error));
  resampled.resize(written);
  return resampled;
}

}  // namespace

std::vector<std::int16_t> decode_ogg_opus(std::string_view body, std::chrono::seconds max_duration) {
  if (body.empty()) throw AudioError(AudioFault::kEmpty, "the request has no body");
  int error = 0;
  const std::unique_ptr<OggOpusFile, FileFree> file(
      op_open_memory(reinterpret_cast<const unsigned char*>(body.data()), body.size(), &error));
  if (file == nullptr) throw AudioError(AudioFault::kNotOggOpus, "the body is not an Ogg Opus stream");

  const auto max_samples = static_cast<std::size_t>(max_duration.count()) * kDecodedRate;
  const std::vector<float> samples = decode_mono(file.get(), max_samples);
  if (samples.empty()) throw AudioError(AudioFault::kEmpty, "the stream holds no audio");
  return resample(samples);
}

}  // namespace zel::speechd

#include "encoder.h"

#include <opus.h>

#include <stdexcept>
#include <string>

namespace zel::transcribe {
namespace {

void require(int result) {
  if (result < 0) throw std::runtime_error(std::string("Opus encoder: ") + opus_strerror(result));
}

}  // namespace

Encoder::Encoder(int bits_per_second) : state_(nullptr, opus_encoder_destroy) {
  int error = OPUS_OK;
  state_.reset(opus_encoder_create(kSampleRate, 1, OPUS_APPLICATION_VOIP, &error));
  require(error);
  require(opus_encoder_ctl(state_.get(), OPUS_SET_BITRATE(bits_per_second)));
  require(opus_encoder_ctl(state_.get(), OPUS_SET_VBR(0)));
  require(opus_encoder_ctl(state_.get(), OPUS_SET_DTX(0)));
  require(opus_encoder_ctl(state_.get(), OPUS_SET_SIGNAL(OPUS_SIGNAL_VOICE)));
  // Left alone, the encoder gives up the upper half of the band at the lowest rates; recognizers need it.
  require(opus_encoder_ctl(state_.get(), OPUS_SET_BANDWIDTH(OPUS_BANDWIDTH_WIDEBAND)));
}

Encoder::~Encoder() = default;

void Encoder::reset() {
  require(opus_encoder_ctl(state_.get(), OPUS_RESET_STATE));
}

std::size_t Encoder::encode(const Frame& frame, std::span<unsigned char, host::kMaxPacketSize> packet) {
  const int size = opus_encode(state_.get(), frame.data(), static_cast<int>(frame.size()), packet.data(),
                               static_cast<opus_int32>(packet.size()));
  require(size);
  return static_cast<std::size_t>(size);
}

}  // namespace zel::transcribe

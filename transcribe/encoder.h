// One member's Opus encoder: 16 kHz mono, 40 ms packets of constant size.
//
// Thread rule: an object belongs to one thread. Errors: std::runtime_error when libopus refuses.
#pragma once

#include <memory>
#include <span>

#include "audio.h"
#include "room.h"

struct OpusEncoder;

namespace zel::transcribe {

/** Bytes of one packet at a bit rate. */
constexpr std::size_t packet_size(int bits_per_second) {
  return static_cast<std::size_t>((bits_per_second * 40 + 4000) / 8000);
}

/** At least the length of the stream that `packets` packets make: 91 bytes of header pages, a length byte with each
 * packet, and 27 bytes of header for each page, which is cut when it holds more than 4096 bytes or 255 lengths. */
constexpr std::size_t max_stream_size(std::size_t packets, std::size_t packet_bytes) {
  const std::size_t lacing = packets * (packet_bytes / 255 + 1);
  return 91 + packets * packet_bytes + lacing + 27 * (packets * packet_bytes / 4096 + lacing / 255 + 2);
}

inline constexpr std::size_t kMaxBody = 81'920;
inline constexpr std::size_t kMaxUtterancePackets = 1500;
inline constexpr int kMinBitrate = 6000;
inline constexpr int kMaxBitrate = 51'200;
/** The highest one, in steps of a byte per packet, at which an utterance of 60 s fits the request body. */
inline constexpr int kDefaultBitrate = 10'600;
static_assert(max_stream_size(kMaxUtterancePackets, packet_size(kDefaultBitrate)) <= kMaxBody);
static_assert(max_stream_size(kMaxUtterancePackets, packet_size(kDefaultBitrate) + 1) > kMaxBody);
static_assert(packet_size(kMaxBitrate) <= host::kMaxPacketSize);

class Encoder {
 public:
  explicit Encoder(int bits_per_second);
  ~Encoder();
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  /** Forgets what came before: every utterance is decoded as a stream of its own. */
  void reset();
  /** Result: bytes written to `packet`. */
  std::size_t encode(const Frame& frame, std::span<unsigned char, host::kMaxPacketSize> packet);

 private:
  std::unique_ptr<OpusEncoder, void (*)(OpusEncoder*)> state_;
};

}  // namespace zel::transcribe

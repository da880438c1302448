// libavformat's Ogg muxer, writing into memory as a program would that has it anyway, and a reader that says what is in
// a stream.
#pragma once

#include <cstdint>

#include "utterances.h"

struct AVPacket;

namespace bench_parts {

// A muxer for each utterance, since a trailer ends it. Pages are let grow to about the 4 KB of libogg's, where the
// muxer's own default would cut them every second; nothing is flushed before it must be.
class AvformatMuxer {
 public:
  AvformatMuxer();
  ~AvformatMuxer();
  AvformatMuxer(const AvformatMuxer&) = delete;
  AvformatMuxer& operator=(const AvformatMuxer&) = delete;

  // Bytes written to `output`, which has room for them.
  std::size_t Write(const Utterance& utterance, std::uint8_t* output);

 private:
  AVPacket* packet_;
};

// The packets behind the two headers.
Utterance OggPackets(const std::vector<std::uint8_t>& stream);

}  // namespace bench_parts

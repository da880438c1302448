// What libogg itself costs: the stream that the plug-in writes, written by the calls of libogg that it takes and by
// nothing else. One packet is held back, so that the last one can be marked as the end of the stream; a page's bytes
// are copied to where they are wanted. There are no checks, no host services and no memory limit, and libogg allocates
// its own storage.
#pragma once

#include <ogg/ogg.h>

#include <cstdint>
#include <cstring>

#include "opus_headers.h"

namespace bench {

class OggLimit {
 public:
  OggLimit() { ogg_stream_init(&stream_, 0); }
  ~OggLimit() { ogg_stream_clear(&stream_); }
  OggLimit(const OggLimit&) = delete;
  OggLimit& operator=(const OggLimit&) = delete;

  // All three return the bytes written to `output`.

  /** Begins a stream; the one under way is dropped. */
  std::int32_t write_headers(std::uint8_t* output) {
    ogg_stream_reset(&stream_);
    packets_ = granule_ = 0;
    held_ = false;
    const std::int32_t first = write_header(kOpusHead, output);
    return first + write_header(kOpusTags, output + first);
  }

  /** A packet of 40 ms and at most 256 bytes. */
  std::int32_t write_packet(const std::uint8_t* data, std::uint32_t size, std::uint8_t* output) {
    std::int32_t written = 0;
    if (held_) {
      submit(false);
      ogg_page page;
      if (ogg_stream_pageout(&stream_, &page) != 0) written = copy(page, output);
    }
    held_ = true;
    held_size_ = static_cast<std::int32_t>(size);
    std::memcpy(packet_, data, size);
    return written;
  }

  /** Ends the stream, which has at least one packet. */
  std::int32_t flush(std::uint8_t* output) {
    submit(true);
    std::int32_t written = 0;
    ogg_page page;
    while (ogg_stream_flush(&stream_, &page) != 0)
      written += copy(page, output + written);
    return written;
  }

 private:
  static std::int32_t copy(const ogg_page& page, std::uint8_t* output) {
    std::memcpy(output, page.header, static_cast<std::size_t>(page.header_len));
    std::memcpy(output + page.header_len, page.body, static_cast<std::size_t>(page.body_len));
    return static_cast<std::int32_t>(page.header_len + page.body_len);
  }

  template <std::size_t kSize>
  std::int32_t write_header(const std::array<std::uint8_t, kSize>& data, std::uint8_t* output) {
    ogg_packet packet = {const_cast<unsigned char*>(data.data()), kSize, packets_ == 0 ? 1 : 0, 0, 0, packets_};
    ++packets_;
    ogg_stream_packetin(&stream_, &packet);
    ogg_page page;
    return ogg_stream_flush(&stream_, &page) != 0 ? copy(page, output) : 0;
  }

  void submit(bool last) {
    granule_ += kFrameGranules;
    ogg_packet packet = {packet_, held_size_, 0, last ? 1 : 0, granule_, packets_++};
    ogg_stream_packetin(&stream_, &packet);
  }

  ogg_stream_state stream_;
  ogg_int64_t packets_ = 0;
  ogg_int64_t granule_ = 0;
  bool held_ = false;
  std::int32_t held_size_ = 0;
  unsigned char packet_[256];
};

}  // namespace bench

// What libogg itself costs: the stream that the plug-in writes, written by the calls of libogg that it takes and by
// nothing else. One packet is held back, so that the last one can be marked as the end of the stream; a page's bytes
// are copied to where they are wanted. There are no checks, no host services and no memory limit, and libogg allocates
// its own storage.
#pragma once

#include <ogg/ogg.h>

#include <cstdint>
#include <cstring>

namespace bench_parts {

class OggLimit {
 public:
  OggLimit() { ogg_stream_init(&stream_, 0); }
  ~OggLimit() { ogg_stream_clear(&stream_); }
  OggLimit(const OggLimit&) = delete;
  OggLimit& operator=(const OggLimit&) = delete;

  // All three return the bytes written to `output`.

  std::int32_t WriteHeaders(std::uint8_t* output) {
    static unsigned char identification[] = {'O', 'p', 'u',  's',  'H', 'e', 'a', 'd', 1, 1,
                                             0,   0,   0x80, 0x3E, 0,   0,   0,   0,   0};
    static unsigned char comment[16] = {'O', 'p', 'u', 's', 'T', 'a', 'g', 's'};
    ogg_stream_reset(&stream_);
    packets_ = granule_ = 0;
    held_ = false;
    const std::int32_t first = WriteHeader(identification, sizeof identification, output);
    return first + WriteHeader(comment, sizeof comment, output + first);
  }

  std::int32_t WritePacket(const std::uint8_t* data, std::uint32_t size, std::uint8_t* output) {
    std::int32_t written = 0;
    if (held_) {
      Submit(false);
      ogg_page page;
      if (ogg_stream_pageout(&stream_, &page) != 0) written = Copy(page, output);
    }
    held_ = true;
    held_size_ = static_cast<std::int32_t>(size);
    std::memcpy(packet_, data, size);
    return written;
  }

  std::int32_t Flush(std::uint8_t* output) {
    Submit(true);
    std::int32_t written = 0;
    ogg_page page;
    while (ogg_stream_flush(&stream_, &page) != 0)
      written += Copy(page, output + written);
    return written;
  }

 private:
  static std::int32_t Copy(const ogg_page& page, std::uint8_t* output) {
    std::memcpy(output, page.header, static_cast<std::size_t>(page.header_len));
    std::memcpy(output + page.header_len, page.body, static_cast<std::size_t>(page.body_len));
    return static_cast<std::int32_t>(page.header_len + page.body_len);
  }

  std::int32_t WriteHeader(unsigned char* data, long size, std::uint8_t* output) {
    ogg_packet packet = {data, size, packets_ == 0 ? 1 : 0, 0, 0, packets_};
    ++packets_;
    ogg_stream_packetin(&stream_, &packet);
    ogg_page page;
    return ogg_stream_flush(&stream_, &page) != 0 ? Copy(page, output) : 0;
  }

  void Submit(bool last) {
    granule_ += 1920;
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

}  // namespace bench_parts

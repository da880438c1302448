// libavformat's Ogg muxer, writing Ogg Opus streams into memory as a program would that has it anyway and wants it
// fast: pages are let grow to about the 4 KB of libogg's, where the muxer's own default would cut them every second;
// nothing is flushed before it must be; the output context is used again for every stream. The muxer itself cannot be,
// since a trailer ends it.
//
// Thread rule: an object belongs to one thread, and stays where it was constructed. Errors: std::runtime_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct AVFormatContext;
struct AVIOContext;
struct AVPacket;

namespace bench {

class AvformatMuxer {
 public:
  AvformatMuxer();
  ~AvformatMuxer();
  AvformatMuxer(const AvformatMuxer&) = delete;
  AvformatMuxer& operator=(const AvformatMuxer&) = delete;

  /** Begins a stream. Its bytes go to `output`, the last of them when it ends; a stream under way is dropped. */
  void begin(std::span<std::uint8_t> output);
  /** A packet of 40 ms. */
  void write(std::span<const std::uint8_t> packet);
  /** Ends the stream; its size in bytes. */
  std::size_t end();

 private:
  static int append(void* muxer, std::uint8_t* bytes, int size);
  void drop();

  AVPacket* packet_;
  AVIOContext* io_;
  AVFormatContext* muxer_ = nullptr;  // of the stream under way
  std::int64_t granules_ = 0;
  std::span<std::uint8_t> output_;
  std::size_t size_ = 0;  // bytes of output_ written
};

}  // namespace bench

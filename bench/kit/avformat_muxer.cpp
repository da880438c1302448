#include "avformat_muxer.h"

#include <cstring>
#include <stdexcept>

#include "opus_headers.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

namespace bench {
namespace {

constexpr int kIoBuffer = 4096;
constexpr const char* kPageMicroseconds = "2000000";

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("libavformat: ") + what);
}

void add_stream(AVFormatContext* muxer) {
  AVStream* stream = avformat_new_stream(muxer, nullptr);
  require(stream != nullptr, "stream");
  AVCodecParameters& codec = *stream->codecpar;
  codec.codec_type = AVMEDIA_TYPE_AUDIO;
  codec.codec_id = AV_CODEC_ID_OPUS;
  codec.sample_rate = 48000;
  av_channel_layout_default(&codec.ch_layout, 1);
  codec.extradata = static_cast<std::uint8_t*>(av_mallocz(kOpusHead.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  std::memcpy(codec.extradata, kOpusHead.data(), kOpusHead.size());
  codec.extradata_size = static_cast<int>(kOpusHead.size());
  stream->time_base = {1, 48000};
}

}  // namespace

AvformatMuxer::AvformatMuxer()
    : packet_(av_packet_alloc()),
      io_(avio_alloc_context(static_cast<unsigned char*>(av_malloc(kIoBuffer)), kIoBuffer, 1, this, nullptr, append,
                             nullptr)) {
  require(packet_ != nullptr && io_ != nullptr, "memory");
}

AvformatMuxer::~AvformatMuxer() {
  drop();
  av_freep(&io_->buffer);
  avio_context_free(&io_);
  av_packet_free(&packet_);
}

void AvformatMuxer::begin(std::span<std::uint8_t> output) {
  static const AVOutputFormat* const ogg = av_guess_format("ogg", nullptr, nullptr);
  drop();
  output_ = output;
  size_ = 0;
  granules_ = 0;
  require(avformat_alloc_output_context2(&muxer_, ogg, nullptr, nullptr) >= 0, "muxer");
  muxer_->pb = io_;
  muxer_->flags |= AVFMT_FLAG_BITEXACT;
  muxer_->flush_packets = 0;
  av_opt_set(muxer_->priv_data, "page_duration", kPageMicroseconds, 0);
  add_stream(muxer_);
  require(avformat_write_header(muxer_, nullptr) >= 0, "header");
}

void AvformatMuxer::write(std::span<const std::uint8_t> packet) {
  packet_->data = const_cast<std::uint8_t*>(packet.data());  // the muxer copies it
  packet_->size = static_cast<int>(packet.size());
  packet_->pts = packet_->dts = granules_;
  packet_->duration = kFrameGranules;
  granules_ += kFrameGranules;
  require(av_write_frame(muxer_, packet_) >= 0, "packet");
}

std::size_t AvformatMuxer::end() {
  require(av_write_trailer(muxer_) >= 0, "trailer");
  drop();
  return size_;
}

int AvformatMuxer::append(void* muxer, std::uint8_t* bytes, int size) {
  auto& self = *static_cast<AvformatMuxer*>(muxer);
  const auto count = static_cast<std::size_t>(size);
  if (count > self.output_.size() - self.size_) return AVERROR(ENOSPC);
  std::memcpy(self.output_.data() + self.size_, bytes, count);
  self.size_ += count;
  return size;
}

// What the output context still holds goes to the output of the stream that is dropped.
void AvformatMuxer::drop() {
  avio_flush(io_);
  avformat_free_context(muxer_);
  muxer_ = nullptr;
}

}  // namespace bench

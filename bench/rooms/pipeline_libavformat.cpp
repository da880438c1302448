// libavformat's Ogg muxer, writing into memory with its default options: a program that does with it what the plug-in
// does with libogg.
extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

#include <cstring>
#include <stdexcept>

#include "pipeline.h"

namespace rooms {
namespace {

constexpr int kIoBufferSize = 4096;
constexpr std::int64_t kGranulesPerFrame = 1920;  // 40 ms at 48 kHz

void Require(bool condition) {
  if (!condition) throw std::runtime_error("libavformat");
}

class LibavformatMember final : public PipelineMember {
 public:
  LibavformatMember() : packet_(av_packet_alloc()) {
    Require(packet_ != nullptr);
    BeginStream();
  }
  ~LibavformatMember() override {
    CloseStream();
    av_packet_free(&packet_);
  }

  void BeginRound() override {
    CloseStream();
    fill_ = 0;
    silent_frames_ = 0;
    BeginStream();
  }

  void PutFrame(const SttAudioFrame& frame) override {
    if (frame.data == nullptr) {
      if (++silent_frames_ == kPause) EndUtterance();
      return;
    }
    // The muxer copies what it is given.
    packet_->data = const_cast<std::uint8_t*>(frame.data);
    packet_->size = static_cast<int>(frame.size);
    packet_->pts = packet_->dts = granules_;
    packet_->duration = kGranulesPerFrame;
    granules_ += kGranulesPerFrame;
    Require(av_write_frame(format_, packet_) >= 0);
    silent_frames_ = 0;
  }

  std::vector<std::string> Streams() override { return {streams_.begin(), streams_.begin() + fill_}; }

 private:
  static int Write(void* member, std::uint8_t* bytes, int size) {
    auto* self = static_cast<LibavformatMember*>(member);
    self->streams_[static_cast<std::size_t>(self->fill_)].append(reinterpret_cast<const char*>(bytes),
                                                                 static_cast<std::size_t>(size));
    return size;
  }

  void BeginStream() {
    static const std::vector<std::uint8_t> identification = IdentificationPacket();
    granules_ = 0;
    streams_[static_cast<std::size_t>(fill_)].clear();
    Require(avformat_alloc_output_context2(&format_, nullptr, "ogg", nullptr) >= 0);
    auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
    format_->pb = avio_alloc_context(buffer, kIoBufferSize, 1, this, nullptr, Write, nullptr);
    format_->flags |= AVFMT_FLAG_BITEXACT;
    AVStream* stream = avformat_new_stream(format_, nullptr);
    Require(stream != nullptr && format_->pb != nullptr);
    AVCodecParameters& codec = *stream->codecpar;
    codec.codec_type = AVMEDIA_TYPE_AUDIO;
    codec.codec_id = AV_CODEC_ID_OPUS;
    codec.sample_rate = 48000;
    av_channel_layout_default(&codec.ch_layout, 1);
    codec.extradata = static_cast<std::uint8_t*>(av_mallocz(identification.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    std::memcpy(codec.extradata, identification.data(), identification.size());
    codec.extradata_size = static_cast<int>(identification.size());
    stream->time_base = {1, 48000};
    Require(avformat_write_header(format_, nullptr) >= 0);
  }

  void EndUtterance() {
    Require(av_write_trailer(format_) >= 0);
    avio_flush(format_->pb);
    CloseStream();
    ++fill_;
    BeginStream();
  }

  void CloseStream() {
    if (format_ == nullptr) return;
    av_freep(&format_->pb->buffer);
    avio_context_free(&format_->pb);
    avformat_free_context(format_);
    format_ = nullptr;
  }

  AVPacket* packet_;
  AVFormatContext* format_ = nullptr;
  std::int64_t granules_ = 0;
  std::size_t silent_frames_ = 0;
  std::vector<std::string> streams_ = std::vector<std::string>(kUtterances + 1);  // the last one is being written
  std::ptrdiff_t fill_ = 0;
};

}  // namespace

std::unique_ptr<PipelineMember> MakeLibavformatMember() {
  return std::make_unique<LibavformatMember>();
}

}  // namespace rooms

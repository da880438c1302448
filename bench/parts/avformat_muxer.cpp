#include "avformat_muxer.h"

#include <ogg/ogg.h>

#include <cstring>

#include "cases.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

namespace bench_parts {
namespace {

constexpr int kIoBuffer = 4096;
constexpr const char* kPageMicroseconds = "2000000";
constexpr std::uint8_t kIdentification[] = {'O', 'p', 'u',  's',  'H', 'e', 'a', 'd', 1, 1,
                                            0,   0,   0x80, 0x3E, 0,   0,   0,   0,   0};

int Append(void* opaque, std::uint8_t* bytes, int size) {
  auto*& at = *static_cast<std::uint8_t**>(opaque);
  std::memcpy(at, bytes, static_cast<std::size_t>(size));
  at += size;
  return size;
}

void AddStream(AVFormatContext* muxer) {
  AVStream* stream = avformat_new_stream(muxer, nullptr);
  AVCodecParameters& codec = *stream->codecpar;
  codec.codec_type = AVMEDIA_TYPE_AUDIO;
  codec.codec_id = AV_CODEC_ID_OPUS;
  codec.sample_rate = 48000;
  av_channel_layout_default(&codec.ch_layout, 1);
  codec.extradata = static_cast<std::uint8_t*>(av_mallocz(sizeof kIdentification + AV_INPUT_BUFFER_PADDING_SIZE));
  std::memcpy(codec.extradata, kIdentification, sizeof kIdentification);
  codec.extradata_size = sizeof kIdentification;
  stream->time_base = {1, 48000};
}

}  // namespace

AvformatMuxer::AvformatMuxer() : packet_(av_packet_alloc()) {}

AvformatMuxer::~AvformatMuxer() {
  av_packet_free(&packet_);
}

std::size_t AvformatMuxer::Write(const Utterance& utterance, std::uint8_t* output) {
  std::uint8_t* at = output;
  AVFormatContext* muxer = nullptr;
  Require(avformat_alloc_output_context2(&muxer, nullptr, "ogg", nullptr) >= 0, "libavformat: muxer");
  muxer->pb = avio_alloc_context(static_cast<unsigned char*>(av_malloc(kIoBuffer)), kIoBuffer, 1, &at, nullptr, Append,
                                 nullptr);
  muxer->flags |= AVFMT_FLAG_BITEXACT;
  muxer->flush_packets = 0;
  av_opt_set(muxer->priv_data, "page_duration", kPageMicroseconds, 0);
  AddStream(muxer);
  Require(avformat_write_header(muxer, nullptr) >= 0, "libavformat: header");
  std::int64_t time = 0;
  for (const Packet& data : utterance) {
    packet_->data = const_cast<std::uint8_t*>(data.data());
    packet_->size = static_cast<int>(data.size());
    packet_->pts = packet_->dts = time;
    packet_->duration = 1920;
    time += 1920;
    if (av_write_frame(muxer, packet_) < 0) Require(false, "libavformat: packet");
  }
  av_write_trailer(muxer);
  avio_flush(muxer->pb);
  av_freep(&muxer->pb->buffer);
  avio_context_free(&muxer->pb);
  avformat_free_context(muxer);
  return static_cast<std::size_t>(at - output);
}

Utterance OggPackets(const std::vector<std::uint8_t>& bytes) {
  ogg_sync_state sync;
  ogg_sync_init(&sync);
  std::memcpy(ogg_sync_buffer(&sync, static_cast<long>(bytes.size())), bytes.data(), bytes.size());
  ogg_sync_wrote(&sync, static_cast<long>(bytes.size()));
  ogg_stream_state stream{};
  ogg_page page;
  Utterance packets;
  bool begun = false;
  while (ogg_sync_pageout(&sync, &page) == 1) {
    if (!begun) ogg_stream_init(&stream, ogg_page_serialno(&page));
    begun = true;
    ogg_stream_pagein(&stream, &page);
    ogg_packet packet;
    while (ogg_stream_packetout(&stream, &packet) == 1)
      packets.emplace_back(packet.packet, packet.packet + packet.bytes);
  }
  ogg_stream_clear(&stream);
  ogg_sync_clear(&sync);
  packets.erase(packets.begin(), packets.begin() + std::min<std::ptrdiff_t>(2, std::ssize(packets)));
  return packets;
}

}  // namespace bench_parts

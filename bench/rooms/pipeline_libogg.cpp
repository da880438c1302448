// The limit of row pipeline: what libogg and the reference host's ring buffer cost when nothing else is done.
//
// Per frame with audio: 5,120 bytes of ring acquired, the packet held back before it submitted, a page, if libogg has
// one, copied into the ring and committed, the rest released, the new packet copied into the place of the held one. Per
// utterance: the last packet submitted, all pages out, the stream taken out of the ring in one piece, the two header
// pages of the next one. The ring is called through the bridge table, as a plug-in must; nothing else is. There are no
// checks, no atomics, no reports and no states other than these.
#include <ogg/ogg.h>

#include <array>
#include <cstring>
#include <stdexcept>

#include "bridge_services.h"
#include "pipeline.h"

namespace rooms {
namespace {

constexpr std::uint32_t kChunkSize = 5120;
constexpr std::int64_t kGranulesPerFrame = 1920;  // 40 ms at 48 kHz
constexpr ZelRingBufferConfig kRingBufferConfig = {
    .reserved = 0, .buffer_size = 163840, .max_chunk_size = 81920, .max_chunks = 8, .name = ""};

class LiboggMember final : public PipelineMember {
 public:
  LiboggMember() {
    ring_work_.resize(static_cast<std::size_t>(table_.ring_buffer_calculate_work_size(&kRingBufferConfig)));
    ring_ =
        table_.ring_buffer_create(&kRingBufferConfig, ring_work_.data(), static_cast<std::uint32_t>(ring_work_.size()));
    ogg_stream_init(&stream_, 0);
    if (ring_ == nullptr) throw std::runtime_error("ring buffer");
    BeginStream();
  }
  ~LiboggMember() override { ogg_stream_clear(&stream_); }

  void BeginRound() override {
    table_.ring_buffer_reset(ring_);
    slots_.fill({});
    fill_ = 0;
    silent_frames_ = 0;
    BeginStream();
  }

  void PutFrame(const SttAudioFrame& frame) override {
    if (frame.data == nullptr) {
      if (++silent_frames_ == kPause && held_size_ > 0) EndUtterance();
      return;
    }
    ZelRingBufferChunk chunk{};
    table_.ring_buffer_acquire(ring_, ZEL_RING_LANE_FREE, kChunkSize, &chunk);
    std::uint32_t written = 0;
    if (held_size_ > 0) {
      Submit(false);
      ogg_page page;
      if (ogg_stream_pageout(&stream_, &page) != 0) written = CopyPage(page, chunk.data);
    }
    std::memcpy(held_.data(), frame.data, frame.size);
    held_size_ = frame.size;
    if (written > 0) {
      ZelRingBufferChunk rest{};
      table_.ring_buffer_split_chunk(&chunk, written, &chunk, &rest);
      table_.ring_buffer_release(ring_, ZEL_RING_LANE_FREE, &rest);
      table_.ring_buffer_commit(ring_, ZEL_RING_LANE_DATA, &chunk);
    } else {
      table_.ring_buffer_release(ring_, ZEL_RING_LANE_FREE, &chunk);
    }
    silent_frames_ = 0;
  }

  std::vector<std::string> Streams() override {
    std::vector<std::string> streams;
    for (std::size_t i = 0; i < fill_; ++i)
      streams.emplace_back(reinterpret_cast<const char*>(slots_[i].data), slots_[i].size);
    return streams;
  }

 private:
  std::uint32_t CopyPage(const ogg_page& page, std::uint8_t* output) {
    std::memcpy(output, page.header, static_cast<std::size_t>(page.header_len));
    std::memcpy(output + page.header_len, page.body, static_cast<std::size_t>(page.body_len));
    const auto size = static_cast<std::uint32_t>(page.header_len + page.body_len);
    stream_size_ += size;
    return size;
  }

  void Submit(bool last) {
    granules_ += kGranulesPerFrame;
    ogg_packet packet{};
    packet.packet = held_.data();
    packet.bytes = static_cast<long>(held_size_);
    packet.e_o_s = last ? 1 : 0;
    packet.granulepos = granules_;
    packet.packetno = packets_++;
    ogg_stream_packetin(&stream_, &packet);
  }

  void Commit(ZelRingBufferChunk chunk, std::uint32_t written) {
    ZelRingBufferChunk rest{};
    table_.ring_buffer_split_chunk(&chunk, written, &chunk, &rest);
    table_.ring_buffer_commit(ring_, ZEL_RING_LANE_DATA, &chunk);
    table_.ring_buffer_release(ring_, ZEL_RING_LANE_FREE, &rest);
  }

  void BeginStream() {
    static std::vector<std::uint8_t> identification = IdentificationPacket();
    static std::vector<std::uint8_t> comment = CommentPacket();
    ogg_stream_reset(&stream_);
    granules_ = packets_ = 0;
    held_size_ = stream_size_ = 0;
    ZelRingBufferChunk chunk{};
    table_.ring_buffer_acquire(ring_, ZEL_RING_LANE_FREE, kChunkSize, &chunk);
    for (std::vector<std::uint8_t>* header : {&identification, &comment}) {
      ogg_packet packet{};
      packet.packet = header->data();
      packet.bytes = static_cast<long>(header->size());
      packet.b_o_s = packets_ == 0 ? 1 : 0;
      packet.packetno = packets_++;
      ogg_stream_packetin(&stream_, &packet);
      ogg_page page;
      ogg_stream_flush(&stream_, &page);
      CopyPage(page, chunk.data + stream_size_);
    }
    Commit(chunk, stream_size_);
  }

  void EndUtterance() {
    ZelRingBufferChunk chunk{};
    table_.ring_buffer_acquire(ring_, ZEL_RING_LANE_FREE, kChunkSize, &chunk);
    Submit(true);
    std::uint32_t written = 0;
    ogg_page page;
    while (ogg_stream_flush(&stream_, &page) != 0)
      written += CopyPage(page, chunk.data + written);
    Commit(chunk, written);
    table_.ring_buffer_acquire(ring_, ZEL_RING_LANE_DATA, stream_size_, &slots_[fill_++]);
    BeginStream();
  }

  const BridgeTable& table_ = *zel::host::bridge_interface().table;
  std::vector<std::uint8_t> ring_work_;
  void* ring_ = nullptr;
  ogg_stream_state stream_{};
  std::int64_t granules_ = 0;
  std::int64_t packets_ = 0;
  std::array<std::uint8_t, 256> held_{};
  std::uint32_t held_size_ = 0;  // 0: none
  std::uint32_t stream_size_ = 0;
  std::size_t silent_frames_ = 0;
  std::array<ZelRingBufferChunk, kUtterances> slots_{};
  std::size_t fill_ = 0;
};

}  // namespace

std::unique_ptr<PipelineMember> MakeLiboggMember() {
  return std::make_unique<LiboggMember>();
}

}  // namespace rooms

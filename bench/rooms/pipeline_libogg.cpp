// The limit of row pipeline: what libogg and the reference host's ring buffer cost when nothing else is done.
//
// Per frame with audio: 5,120 bytes of ring acquired, the packet held back before it submitted, a page, if libogg has
// one, copied into the ring and committed, the rest released, the new packet copied into the place of the held one. Per
// utterance: the last packet submitted, all pages out, the stream taken out of the ring in one piece, the two header
// pages of the next one. The ring is called through the bridge table, as a plug-in must; nothing else is. There are no
// checks, no atomics, no reports and no states other than these.
#include <array>
#include <stdexcept>

#include "bridge_services.h"
#include "ogg_limit.h"
#include "pipeline.h"

namespace bench {
namespace {

constexpr std::uint32_t kChunkSize = 5120;
constexpr ZelRingBufferConfig kRingBufferConfig = {
    .reserved = 0, .buffer_size = 163840, .max_chunk_size = 81920, .max_chunks = 8, .name = ""};

class LiboggMember final : public PipelineMember {
 public:
  LiboggMember() {
    ring_work_.resize(static_cast<std::size_t>(table_.ring_buffer_calculate_work_size(&kRingBufferConfig)));
    ring_ =
        table_.ring_buffer_create(&kRingBufferConfig, ring_work_.data(), static_cast<std::uint32_t>(ring_work_.size()));
    if (ring_ == nullptr) throw std::runtime_error("ring buffer");
    begin_stream();
  }

  void begin_round() override {
    table_.ring_buffer_reset(ring_);
    slots_.fill({});
    fill_ = 0;
    silent_frames_ = 0;
    begin_stream();
  }

  void put_frame(const SttAudioFrame& frame) override {
    if (frame.data == nullptr) {
      if (++silent_frames_ == kPause && speaks_) end_utterance();
      return;
    }
    const ZelRingBufferChunk chunk = acquire();
    const std::int32_t written = ogg_.write_packet(frame.data, frame.size, chunk.data);
    if (written > 0) {
      commit(chunk, written);
    } else {
      table_.ring_buffer_release(ring_, ZEL_RING_LANE_FREE, &chunk);
    }
    speaks_ = true;
    silent_frames_ = 0;
  }

  std::vector<Stream> streams() override {
    std::vector<Stream> streams;
    for (std::size_t i = 0; i < fill_; ++i)
      streams.emplace_back(slots_[i].data, slots_[i].data + slots_[i].size);
    return streams;
  }

 private:
  ZelRingBufferChunk acquire() {
    ZelRingBufferChunk chunk{};
    table_.ring_buffer_acquire(ring_, ZEL_RING_LANE_FREE, kChunkSize, &chunk);
    return chunk;
  }

  void commit(ZelRingBufferChunk chunk, std::int32_t written) {
    ZelRingBufferChunk rest{};
    table_.ring_buffer_split_chunk(&chunk, static_cast<std::uint32_t>(written), &chunk, &rest);
    table_.ring_buffer_release(ring_, ZEL_RING_LANE_FREE, &rest);
    table_.ring_buffer_commit(ring_, ZEL_RING_LANE_DATA, &chunk);
    stream_size_ += static_cast<std::uint32_t>(written);
  }

  void begin_stream() {
    stream_size_ = 0;
    speaks_ = false;
    const ZelRingBufferChunk chunk = acquire();
    commit(chunk, ogg_.write_headers(chunk.data));
  }

  void end_utterance() {
    const ZelRingBufferChunk chunk = acquire();
    commit(chunk, ogg_.flush(chunk.data));
    table_.ring_buffer_acquire(ring_, ZEL_RING_LANE_DATA, stream_size_, &slots_[fill_++]);
    begin_stream();
  }

  const BridgeTable& table_ = *zel::host::bridge_interface().table;
  std::vector<std::uint8_t> ring_work_;
  void* ring_ = nullptr;
  OggLimit ogg_;
  std::uint32_t stream_size_ = 0;  // bytes in the ring
  bool speaks_ = false;            // there is a packet behind the headers
  std::size_t silent_frames_ = 0;
  std::array<ZelRingBufferChunk, kUtterances> slots_{};
  std::size_t fill_ = 0;
};

}  // namespace

std::unique_ptr<PipelineMember> make_libogg_member() {
  return std::make_unique<LiboggMember>();
}

}  // namespace bench

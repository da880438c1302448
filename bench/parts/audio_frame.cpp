// Rows "audio_frame" and "silent_frame": what the host pays for handing over a frame. The recognizer stands on the
// reference host's services and is called as a host calls it, through its table.
#include <memory>

#include "bridge.h"
#include "cases.h"
#include "ogg_limit.h"
#include "recognizer.h"
#include "recognizer_record.h"
#include "utterances.h"

namespace bench_parts {
namespace {

constexpr int kFramesOfPause = 7;
constexpr SttAudioFrame kSilence = {nullptr, 0};

class Recognizer {
 public:
  Recognizer() {
    constexpr SttRecognizerConfig config = {kSttRecognizerConfigCheckValue, 16, 1024, 0};
    work_.resize(static_cast<std::size_t>(zelSttRecognizer_CalculateWorkSize(&config)));
    handle_ = zelSttRecognizer_Create(&config, work_.data(), static_cast<std::int32_t>(work_.size()));
    Require(handle_ != nullptr, "recognizer");
  }
  ~Recognizer() { zelSttRecognizer_Destroy(handle_); }
  Recognizer(const Recognizer&) = delete;
  Recognizer& operator=(const Recognizer&) = delete;

  SttRecognizerHn handle() const { return handle_; }

  void Put(const SttAudioFrame& frame) { handle_->interface_table->PutAudioFrame(handle_->instance, &frame); }

  // The utterance, and the pause that ends it: its stream, which stays in its slot until it is given back.
  ZelRingBufferChunk Take(const Utterance& utterance) {
    const int slot = handle_->instance->fill_index;
    for (const Packet& packet : utterance)
      Put({packet.data(), static_cast<std::uint32_t>(packet.size())});
    for (int i = 0; i < kFramesOfPause; ++i)
      Put(kSilence);
    return handle_->instance->utterance_slots[slot];
  }

  // What an update does when the stream has been posted and answered.
  void GiveBack() {
    SttRecognizer& recognizer = *handle_->instance;
    ZelRingBufferChunk& slot = recognizer.utterance_slots[recognizer.send_index];
    zelRingBuffer_Commit(recognizer.ring_buffer, ZEL_RING_LANE_FREE, &slot);
    slot.data = nullptr;
    zelAtomic_Store(&slot.size, 0);
    recognizer.send_index = (recognizer.send_index + 1) % kSttUtteranceSlots;
  }

 private:
  std::vector<std::uint8_t> work_;
  SttRecognizerHn handle_;
};

// libogg and the ring buffer, nothing else: for each packet the chunk that a page might need, acquired and given back,
// the packet into libogg, and now and then a page out of it, copied into the chunk, which is cut and committed. The
// ring buffer is the reference host's, reached through the bridge table by the same calls as in the plug-in.
class Limit {
 public:
  Limit() {
    constexpr ZelRingBufferConfig config = {0, 163840, 81920, 8, ""};
    work_.resize(static_cast<std::size_t>(zelRingBuffer_CalculateWorkSize(&config)));
    ring_ = zelRingBuffer_Create(&config, work_.data(), static_cast<std::uint32_t>(work_.size()));
    Require(ring_ != nullptr, "ring buffer");
    Begin();
  }

  ZelRingBufferChunk Take(const Utterance& utterance) {
    for (const Packet& packet : utterance) {
      ZelRingBufferChunk chunk = Acquire();
      const std::int32_t written =
          ogg_.WritePacket(packet.data(), static_cast<std::uint32_t>(packet.size()), chunk.data);
      if (written > 0) {
        Commit(chunk, written);
      } else {
        zelRingBuffer_Release(ring_, ZEL_RING_LANE_FREE, &chunk);
      }
    }
    ZelRingBufferChunk chunk = Acquire();
    Commit(chunk, ogg_.Flush(chunk.data));
    zelRingBuffer_Acquire(ring_, ZEL_RING_LANE_DATA, total_, &stream_);
    const ZelRingBufferChunk stream = stream_;
    Begin();
    return stream;
  }

  void GiveBack() { zelRingBuffer_Commit(ring_, ZEL_RING_LANE_FREE, &stream_); }

 private:
  ZelRingBufferChunk Acquire() {
    ZelRingBufferChunk chunk;
    zelRingBuffer_Acquire(ring_, ZEL_RING_LANE_FREE, 5120, &chunk);
    return chunk;
  }

  void Commit(ZelRingBufferChunk chunk, std::int32_t written) {
    ZelRingBufferChunk rest;
    zelRingBuffer_SplitChunk(&chunk, static_cast<std::uint32_t>(written), &chunk, &rest);
    zelRingBuffer_Release(ring_, ZEL_RING_LANE_FREE, &rest);
    zelRingBuffer_Commit(ring_, ZEL_RING_LANE_DATA, &chunk);
    total_ += static_cast<std::uint32_t>(written);
  }

  void Begin() {
    total_ = 0;
    const ZelRingBufferChunk chunk = Acquire();
    Commit(chunk, ogg_.WriteHeaders(chunk.data));
  }

  std::vector<std::uint8_t> work_;
  void* ring_;
  OggLimit ogg_;
  std::uint32_t total_ = 0;  // bytes of the stream so far
  ZelRingBufferChunk stream_{};
};

// A run: every utterance of the input, its pause included, and its bytes given back. A unit: one frame with audio.
template <typename Contestant>
void AddAudio(Cases& cases, const std::string& contestant, const Speech& speech) {
  auto taker = std::make_shared<Contestant>();
  cases.push_back({"audio_frame/" + contestant + "/" + speech.name, speech.Packets(), [taker, &speech] {
                     for (const Utterance& utterance : speech.utterances) {
                       taker->Take(utterance);
                       taker->GiveBack();
                     }
                   }});
}

void Compare(const Speech& speech) {
  const auto bytes = [](const ZelRingBufferChunk& chunk) { return Packet(chunk.data, chunk.data + chunk.size); };
  Recognizer recognizer;
  Limit limit;
  for (int round = 0; round < 3; ++round) {
    for (const Utterance& utterance : speech.utterances) {
      Require(bytes(recognizer.Take(utterance)) == bytes(limit.Take(utterance)), "audio frame: streams");
      recognizer.GiveBack();
      limit.GiveBack();
    }
  }
}

// The limit: one call through the table, which does nothing.
[[gnu::noipa]] std::uint32_t TakeNothing(SttRecognizer*, const SttAudioFrame*) {
  return 1;
}
constexpr SttRecognizerInterface kNothing = {nullptr, nullptr, TakeNothing, nullptr};

// The least that the contract leaves: whether a member is enabled says a word that is read by the host's service.
std::uint32_t enabled_word = 1;
[[gnu::noipa]] std::uint32_t ReadFlag(SttRecognizer*, const SttAudioFrame*) {
  return zelAtomic_Load(&enabled_word);
}
constexpr SttRecognizerInterface kFlagOnly = {nullptr, nullptr, ReadFlag, nullptr};

constexpr std::int64_t kSilentFrames = 700;

// A unit: one frame. Every seventh ends an utterance that is none.
void BeSilent(const SttRecognizerPair* pair) {
  for (std::int64_t i = 0; i < kSilentFrames; ++i) {
    asm volatile("" : "+r"(pair));
    pair->interface_table->PutAudioFrame(pair->instance, &kSilence);
  }
}

}  // namespace

void AddAudioCases(Cases& cases) {
  for (const Speech& speech : Speeches()) {
    Compare(speech);
    AddAudio<Recognizer>(cases, "plugin", speech);
    AddAudio<Limit>(cases, "limit", speech);
  }
  static Recognizer recognizer;
  static const SttRecognizerPair nothing = {&kNothing, nullptr};
  static const SttRecognizerPair flag_only = {&kFlagOnly, nullptr};
  const struct {
    const char* contestant;
    const SttRecognizerPair* pair;
  } silent[] = {{"plugin", recognizer.handle()}, {"limit", &nothing}, {"two_calls", &flag_only}};
  for (const auto& [contestant, pair] : silent)
    cases.push_back({std::string("silent_frame/") + contestant, kSilentFrames, [pair = pair] { BeSilent(pair); }});
}

}  // namespace bench_parts

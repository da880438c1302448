// Rows "audio_frame" and "silent_frame": what the host pays for handing over a frame. The recognizer stands on the
// reference host's services and is called as a host calls it, through its table.
#include <deque>
#include <memory>

#include "bridge.h"
#include "cases.h"
#include "ogg_limit.h"
#include "recognizer.h"
#include "recognizer_record.h"
#include "utterances.h"

namespace bench {
namespace {

constexpr int kFramesOfPause = 7;
constexpr SttAudioFrame kSilence = {nullptr, 0};

class Recognizer {
 public:
  Recognizer() {
    constexpr SttRecognizerConfig config = {kSttRecognizerConfigCheckValue, 16, 1024, 0};
    work_.resize(static_cast<std::size_t>(zelSttRecognizer_CalculateWorkSize(&config)));
    handle_ = zelSttRecognizer_Create(&config, work_.data(), static_cast<std::int32_t>(work_.size()));
    require(handle_ != nullptr, "recognizer");
  }
  ~Recognizer() { zelSttRecognizer_Destroy(handle_); }
  Recognizer(const Recognizer&) = delete;
  Recognizer& operator=(const Recognizer&) = delete;

  SttRecognizerHn handle() const { return handle_; }

  void put(const SttAudioFrame& frame) { handle_->interface_table->PutAudioFrame(handle_->instance, &frame); }

  // The utterance, and the pause that ends it: its stream, which stays in its slot until it is given back.
  ZelRingBufferChunk take(const Utterance& utterance) {
    const int slot = handle_->instance->fill_index;
    for (const Packet& packet : utterance)
      put({packet.data(), static_cast<std::uint32_t>(packet.size())});
    for (int i = 0; i < kFramesOfPause; ++i)
      put(kSilence);
    return handle_->instance->utterance_slots[slot];
  }

  // What an update does when the stream has been posted and answered.
  void give_back() {
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
    require(ring_ != nullptr, "ring buffer");
    begin();
  }

  ZelRingBufferChunk take(const Utterance& utterance) {
    for (const Packet& packet : utterance)
      put({packet.data(), static_cast<std::uint32_t>(packet.size())});
    return end();
  }

  void put(const SttAudioFrame& frame) {
    ZelRingBufferChunk chunk = acquire();
    const std::int32_t written = ogg_.write_packet(frame.data, frame.size, chunk.data);
    if (written > 0) {
      commit(chunk, written);
    } else {
      zelRingBuffer_Release(ring_, ZEL_RING_LANE_FREE, &chunk);
    }
  }

  ZelRingBufferChunk end() {
    ZelRingBufferChunk chunk = acquire();
    commit(chunk, ogg_.flush(chunk.data));
    zelRingBuffer_Acquire(ring_, ZEL_RING_LANE_DATA, total_, &stream_);
    const ZelRingBufferChunk stream = stream_;
    begin();
    return stream;
  }

  void give_back() { zelRingBuffer_Commit(ring_, ZEL_RING_LANE_FREE, &stream_); }

 private:
  ZelRingBufferChunk acquire() {
    ZelRingBufferChunk chunk;
    zelRingBuffer_Acquire(ring_, ZEL_RING_LANE_FREE, 5120, &chunk);
    return chunk;
  }

  void commit(ZelRingBufferChunk chunk, std::int32_t written) {
    ZelRingBufferChunk rest;
    zelRingBuffer_SplitChunk(&chunk, static_cast<std::uint32_t>(written), &chunk, &rest);
    zelRingBuffer_Release(ring_, ZEL_RING_LANE_FREE, &rest);
    zelRingBuffer_Commit(ring_, ZEL_RING_LANE_DATA, &chunk);
    total_ += static_cast<std::uint32_t>(written);
  }

  void begin() {
    total_ = 0;
    const ZelRingBufferChunk chunk = acquire();
    commit(chunk, ogg_.write_headers(chunk.data));
  }

  std::vector<std::uint8_t> work_;
  void* ring_;
  OggLimit ogg_;
  std::uint32_t total_ = 0;  // bytes of the stream so far
  ZelRingBufferChunk stream_{};
};

// What a frame cannot do without, besides: the host's call through the recognizer's table; the enabled flag, read by
// the host's service; and, because an update may discard the stream of a disabled member at any time, a word that says
// who has it: stored before the flag is read, with one full barrier between the two, and given back after the frame.
class Handshake {
 public:
  Handshake() = default;
  Handshake(const Handshake&) = delete;
  Handshake& operator=(const Handshake&) = delete;

  ZelRingBufferChunk take(const Utterance& utterance) {
    for (const Packet& packet : utterance) {
      const SttAudioFrame frame = {packet.data(), static_cast<std::uint32_t>(packet.size())};
      const SttRecognizerPair* pair = &pair_;
      asm volatile("" : "+r"(pair));
      pair->interface_table->PutAudioFrame(pair->instance, &frame);
    }
    return limit_.end();
  }
  void give_back() { limit_.give_back(); }

 private:
  [[gnu::noipa]] static std::uint32_t put(SttRecognizer* instance, const SttAudioFrame* frame) {
    auto* self = reinterpret_cast<Handshake*>(instance);
    __atomic_store_n(&self->busy_, 1, __ATOMIC_SEQ_CST);
    const bool enabled = zelAtomic_Load(&self->enabled_) != 0;
    if (enabled) self->limit_.put(*frame);
    __atomic_store_n(&self->busy_, 0, __ATOMIC_RELEASE);
    return enabled ? 1 : 0;
  }
  static constexpr SttRecognizerInterface kInterface = {nullptr, nullptr, put, nullptr};

  SttRecognizerPair pair_ = {&kInterface, reinterpret_cast<SttRecognizer*>(this)};
  std::uint32_t busy_ = 0;
  std::uint32_t enabled_ = 1;
  Limit limit_;
};

// A run: every utterance of the input, its pause included, and its bytes given back. A unit: one frame with audio.
template <typename Contestant>
void add_audio(Cases& cases, const std::string& contestant, const Speech& speech) {
  auto taker = std::make_shared<Contestant>();
  cases.push_back({"audio_frame/" + contestant + "/" + speech.name, speech.packets(), [taker, &speech] {
                     for (const Utterance& utterance : speech.utterances) {
                       taker->take(utterance);
                       taker->give_back();
                     }
                   }});
}

void compare(const Speech& speech) {
  const auto bytes = [](const ZelRingBufferChunk& chunk) { return Packet(chunk.data, chunk.data + chunk.size); };
  Recognizer recognizer;
  Limit limit;
  Handshake handshake;
  for (int round = 0; round < 3; ++round) {
    for (const Utterance& utterance : speech.utterances) {
      const Packet stream = bytes(recognizer.take(utterance));
      require(stream == bytes(limit.take(utterance)), "audio frame: streams");
      require(stream == bytes(handshake.take(utterance)), "audio frame: streams of the handshake");
      recognizer.give_back();
      limit.give_back();
      handshake.give_back();
    }
  }
}

// The limit of a frame without audio: one call through the table, which does nothing.
[[gnu::noipa]] std::uint32_t take_nothing(SttRecognizer*, const SttAudioFrame*) {
  return 1;
}

// That the member is enabled says a word that is read by the host's service: two calls are the least.
std::uint32_t enabled_word = 1;
[[gnu::noipa]] std::uint32_t read_flag(SttRecognizer*, const SttAudioFrame*) {
  return zelAtomic_Load(&enabled_word);
}

// All that such a frame has to do: but for that second call, the flag being read where it lies; and with it.
template <bool kByService>
[[gnu::noipa]] std::uint32_t count_silence(SttRecognizer* recognizer, const SttAudioFrame* frame) {
  if (recognizer == nullptr || frame == nullptr || frame->data != nullptr) return 0;
  const std::uint32_t* flag = &recognizer->enabled;
  if ((kByService ? zelAtomic_Load(flag) : __atomic_load_n(flag, __ATOMIC_SEQ_CST)) == 0) return 0;
  const std::int32_t silent_frames = __atomic_load_n(&recognizer->silent_frames, __ATOMIC_RELAXED) + 1;
  const bool ends = silent_frames == kFramesOfPause;
  if (ends && __atomic_load_n(&recognizer->utterance_length, __ATOMIC_RELAXED) != 0) return 0;  // an utterance to end
  __atomic_store_n(&recognizer->silent_frames, ends ? 0 : silent_frames, __ATOMIC_RELAXED);
  return 1;
}

constexpr std::int64_t kSilentFrames = 700;

// A unit: one frame. Every seventh ends an utterance that is none.
void be_silent(const SttRecognizerPair* pair) {
  for (std::int64_t i = 0; i < kSilentFrames; ++i) {
    asm volatile("" : "+r"(pair));
    pair->interface_table->PutAudioFrame(pair->instance, &kSilence);
  }
}

}  // namespace

void add_audio_cases(Cases& cases) {
  for (const Speech& speech : speeches()) {
    compare(speech);
    add_audio<Recognizer>(cases, "plugin", speech);
    add_audio<Limit>(cases, "limit", speech);
    add_audio<Handshake>(cases, "handshake", speech);
  }
  static Recognizer recognizer;
  static SttRecognizer counted{};
  counted.enabled = 1;
  using Put = std::uint32_t (*)(SttRecognizer*, const SttAudioFrame*);
  const auto add = [&cases](const std::string& contestant, const SttRecognizerPair& pair) {
    cases.push_back({"silent_frame/" + contestant, kSilentFrames, [pair] { be_silent(&pair); }});
  };
  const auto add_put = [&add](const std::string& contestant, Put put) {
    static std::deque<SttRecognizerInterface> tables;
    add(contestant, {&tables.emplace_back(SttRecognizerInterface{nullptr, nullptr, put, nullptr}), &counted});
  };
  add("plugin", *recognizer.handle());
  add_put("limit", take_nothing);
  add_put("two_calls", read_flag);
  add_put("counter", count_silence<false>);
  add_put("counter_two_calls", count_silence<true>);
}

}  // namespace bench

#include "utterance.h"

#include "bridge.h"
#include "ogg_formatter.h"
#include "recognizer_record.h"

namespace {

constexpr uint32_t kChunkSize = 5120;             // room for the longest page that the formatter can write
constexpr int32_t kFrameSamples = 640;            // 40 ms at 16 kHz
constexpr int32_t kMaxUtteranceSamples = 960000;  // 60 s
constexpr int32_t kMinUtteranceSamples = 3200;    // 200 ms
constexpr int32_t kMaxBridgedSilentFrames = 6;    // the next frame without audio ends the utterance

uint32_t GetDataSize(const SttRecognizer* recognizer) {
  return zelRingBuffer_GetDataSize(recognizer->ring_buffer, ZEL_RING_LANE_DATA);
}

ZelRingBufferChunk AcquireFree(SttRecognizer* recognizer) {
  ZelRingBufferChunk chunk{};
  zelRingBuffer_Acquire(recognizer->ring_buffer, ZEL_RING_LANE_FREE, kChunkSize, &chunk);
  return chunk;
}

// Appends the first `written` bytes of a free chunk to the current stream and gives the rest back.
void CommitWritten(SttRecognizer* recognizer, ZelRingBufferChunk chunk, int32_t written) {
  ZelRingBufferChunk rest{};
  zelRingBuffer_SplitChunk(&chunk, static_cast<uint32_t>(written), &chunk, &rest);
  zelRingBuffer_Commit(recognizer->ring_buffer, ZEL_RING_LANE_DATA, &chunk);
  zelRingBuffer_Release(recognizer->ring_buffer, ZEL_RING_LANE_FREE, &rest);
}

// Gives all that lane 1 holds back. One chunk as a rule; a ring buffer that gives less is asked again. False when it
// gives none.
bool EmptyDataLane(SttRecognizer* recognizer, uint32_t left) {
  while (left > 0) {
    ZelRingBufferChunk chunk{};
    zelRingBuffer_Acquire(recognizer->ring_buffer, ZEL_RING_LANE_DATA, left, &chunk);
    if (chunk.size == 0) return false;
    zelRingBuffer_Commit(recognizer->ring_buffer, ZEL_RING_LANE_FREE, &chunk);
    left -= chunk.size < left ? chunk.size : left;
  }
  return true;
}

// Nothing may stand in front of the header pages.
bool BeginInEmptyLane(SttRecognizer* recognizer, uint32_t left) {
  recognizer->stream_begun = 0;
  return EmptyDataLane(recognizer, left) && zelSttRecognizer_BeginStream(recognizer) != 0;
}

void WriteAudio(SttRecognizer* recognizer, const SttAudioFrame& frame) {
  if (recognizer->stream_begun == 0 && !BeginInEmptyLane(recognizer, GetDataSize(recognizer))) return;
  ZelRingBufferChunk chunk = AcquireFree(recognizer);
  const OggFormatterPacket packet = {frame.data, static_cast<int32_t>(frame.size), kFrameSamples};
  const int32_t written = zelContainerFormatterOgg_WritePacket(recognizer->formatter, &packet, chunk.data,
                                                               static_cast<int32_t>(chunk.size));
  if (written < 1) return zelRingBuffer_Release(recognizer->ring_buffer, ZEL_RING_LANE_FREE, &chunk);
  // Unlike at the ends of a stream, the rest goes back first.
  ZelRingBufferChunk rest{};
  zelRingBuffer_SplitChunk(&chunk, static_cast<uint32_t>(written), &chunk, &rest);
  zelRingBuffer_Release(recognizer->ring_buffer, ZEL_RING_LANE_FREE, &rest);
  zelRingBuffer_Commit(recognizer->ring_buffer, ZEL_RING_LANE_DATA, &chunk);
}

// Writes what the formatter still holds; false when the stream cannot be completed.
bool FlushStream(SttRecognizer* recognizer) {
  ZelRingBufferChunk chunk = AcquireFree(recognizer);
  const int32_t written =
      zelContainerFormatterOgg_Flush(recognizer->formatter, chunk.data, static_cast<int32_t>(chunk.size));
  if (written < 0) {
    zelRingBuffer_Release(recognizer->ring_buffer, ZEL_RING_LANE_FREE, &chunk);
    return false;
  }
  CommitWritten(recognizer, chunk, written);
  return true;
}

// Moves the finished stream out of lane 1; false, and what was taken is given back, when it does not come whole.
bool TakeStream(SttRecognizer* recognizer, ZelRingBufferChunk* stream) {
  const int32_t size = zelContainerFormatterOgg_GetTotalSize(recognizer->formatter);
  if (size <= 0) return false;
  *stream = {};
  zelRingBuffer_Acquire(recognizer->ring_buffer, ZEL_RING_LANE_DATA, static_cast<uint32_t>(size), stream);
  if (stream->size == static_cast<uint32_t>(size)) return true;
  zelRingBuffer_Commit(recognizer->ring_buffer, ZEL_RING_LANE_FREE, stream);
  return false;
}

// Whether a frame without audio leaves the stream as it is: the pause is still bridged, or there is no utterance to
// end. An update of a disabled member clears both numbers; whatever is seen of that, the flag decides.
bool IsOnlyCounted(const SttRecognizer* recognizer) {
  return __atomic_load_n(&recognizer->silent_frames, __ATOMIC_RELAXED) < kMaxBridgedSilentFrames ||
         __atomic_load_n(&recognizer->utterance_length, __ATOMIC_RELAXED) == 0;
}

// The cheapest frame there is: it touches nothing but the counter, which is read here again: to keep it across the call
// costs more.
uint32_t CountSilence(SttRecognizer* recognizer) {
  if (zelAtomic_Load(&recognizer->enabled) == 0) [[unlikely]]
    return 0;
  const int32_t silent_frames = __atomic_load_n(&recognizer->silent_frames, __ATOMIC_RELAXED);
  __atomic_store_n(&recognizer->silent_frames, silent_frames < kMaxBridgedSilentFrames ? silent_frames + 1 : 0,
                   __ATOMIC_RELAXED);
  return 1;
}

void SetUtteranceLength(SttRecognizer* recognizer, int32_t samples) {
  __atomic_store_n(&recognizer->utterance_length, samples, __ATOMIC_RELAXED);
}

void AddFrame(SttRecognizer* recognizer, const SttAudioFrame& frame) {
  if (frame.data == nullptr) {
    zelSttRecognizer_EndUtterance(recognizer);
  } else {
    WriteAudio(recognizer, frame);
    SetUtteranceLength(recognizer, recognizer->utterance_length + kFrameSamples);
    if (recognizer->utterance_length >= kMaxUtteranceSamples) zelSttRecognizer_EndUtterance(recognizer);
  }
  __atomic_store_n(&recognizer->silent_frames, 0, __ATOMIC_RELAXED);
}

// Not inlined: frames that are only counted would pay for its registers.
[[gnu::noinline]] uint32_t TakeFrame(SttRecognizer* recognizer, const SttAudioFrame& frame) {
  // First the word, then the flag: an update that finds the member disabled either sees the word or is seen here. That
  // takes one full barrier; giving the word back takes none.
  __atomic_store_n(&recognizer->audio_busy, 1, __ATOMIC_SEQ_CST);
  const bool enabled = zelAtomic_Load(&recognizer->enabled) != 0;
  if (enabled) AddFrame(recognizer, frame);
  __atomic_store_n(&recognizer->audio_busy, 0, __ATOMIC_RELEASE);
  return enabled ? 1 : 0;
}

// Not inlined: as the last thing that a refused frame does, it costs the others no registers.
[[gnu::noinline]] uint32_t Refuse(const char* identifier) {
  zelErr_NotifyInvalidParameter(identifier);
  return 0;
}

uint32_t DiscardUtterance(SttRecognizer* recognizer) {
  zelSttRecognizer_DiscardStream(recognizer, GetDataSize(recognizer));
  return 0;
}

}  // namespace

uint32_t zelSttRecognizer_PutAudioFrame(SttRecognizer* recognizer, const SttAudioFrame* frame) {
  if (recognizer == nullptr) return Refuse("E2022111441");
  if (frame == nullptr) return Refuse("E2022111442");
  if (frame->data != nullptr || !IsOnlyCounted(recognizer)) [[unlikely]]
    return TakeFrame(recognizer, *frame);
  return CountSilence(recognizer);
}

uint32_t zelSttRecognizer_EndUtterance(SttRecognizer* recognizer) {
  if (zelErr_Refuse(recognizer == nullptr, "E2022111437")) return 0;
  if (recognizer->utterance_length == 0) return 0;
  if (recognizer->utterance_length < kMinUtteranceSamples) return DiscardUtterance(recognizer);
  ZelRingBufferChunk& slot = recognizer->utterance_slots[recognizer->fill_index];
  if (zelAtomic_Load(&slot.size) != 0) {
    zelErr_Notify(ZEL_ERR_LEVEL_WARNING,
                  "W2023020741:Discarded an utterance because eight utterances are waiting to be recognized.");
    return DiscardUtterance(recognizer);
  }
  ZelRingBufferChunk stream;
  if (recognizer->stream_begun == 0 || !FlushStream(recognizer) || !TakeStream(recognizer, &stream)) {
    return DiscardUtterance(recognizer);
  }

  slot.data = stream.data;
  zelAtomic_Store(&slot.size, stream.size);
  __atomic_store_n(&recognizer->handle->pending, 1, __ATOMIC_SEQ_CST);
  recognizer->fill_index = (recognizer->fill_index + 1) % kSttUtteranceSlots;
  zelSttRecognizer_BeginStream(recognizer);
  SetUtteranceLength(recognizer, 0);
  return 1;
}

uint32_t zelSttRecognizer_BeginStream(SttRecognizer* recognizer) {
  if (zelErr_Refuse(recognizer == nullptr, "E2023020739")) return 0;
  ZelRingBufferChunk chunk = AcquireFree(recognizer);
  const int32_t written =
      zelContainerFormatterOgg_WriteHeaders(recognizer->formatter, chunk.data, static_cast<int32_t>(chunk.size));
  const bool begun = written >= 0;
  recognizer->stream_begun = begun ? 1 : 0;
  if (!begun) {
    zelRingBuffer_Release(recognizer->ring_buffer, ZEL_RING_LANE_FREE, &chunk);
    return 0;
  }
  CommitWritten(recognizer, chunk, written);
  return 1;
}

void zelSttRecognizer_DiscardStream(SttRecognizer* recognizer, uint32_t size) {
  BeginInEmptyLane(recognizer, size);
  SetUtteranceLength(recognizer, 0);
}

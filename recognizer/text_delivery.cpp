#include "text_delivery.h"

#include "bridge.h"
#include "packet.h"
#include "packet_pool.h"
#include "packet_ref.h"
#include "ptr_queue.h"
#include "ptr_stack.h"
#include "recognition_request.h"
#include "recognizer_record.h"

namespace {

constexpr uint64_t kMicrosecondsPerSecond = 1000000;

void Report(const char* message) {
  zelErr_Notify(ZEL_ERR_LEVEL_ERROR, message);
}

// Whole seconds and the rest apart: the product of a whole count would wrap.
uint64_t MicrosecondsSince(uint64_t time_base) {
  const uint64_t elapsed = zelTimer_GetElapsed(time_base, zelTimer_GetCount());
  const uint64_t frequency = zelTimer_GetFrequency();
  return elapsed / frequency * kMicrosecondsPerSecond + elapsed % frequency * kMicrosecondsPerSecond / frequency;
}

// Fills `packet` with the text in `block`, or gives both back.
void FillAndQueue(SttRecognizer* recognizer, PacketRef* packet, char* block) {
  const int32_t length =
      zelSttRequest_CopyText(recognizer->request, block, static_cast<int32_t>(recognizer->max_text_message_size));
  if (length <= 0) {
    if (length < 0) {
      Report("E2022110406:Failed to write text buffer for SpeechToText because buffer size is not enough.");
    }
    zelPtrStack_Push(recognizer->text_blocks, block);
    zelPacketRef_Release(packet);
    return;
  }
  const uint64_t timestamp = MicrosecondsSince(recognizer->time_base);
  zelPacketRef_SetPointer(packet, SttPacketField_Text, block);
  zelPacketRef_SetUInt32(packet, SttPacketField_TextLength, static_cast<uint32_t>(length));
  zelPacketRef_SetUInt32(packet, SttPacketField_MemberId, recognizer->member_id);
  zelPacketRef_SetUInt64(packet, SttPacketField_Timestamp, timestamp);
  zelPtrQueue_Push(recognizer->packet_queue, packet);
}

// Under the mutex.
void DeliverLocked(SttRecognizer* recognizer) {
  PacketRef* packet = zelSttPacketPool_Allocate(recognizer->packet_pool, zelSttRecognizer_ReleaseText, recognizer);
  if (packet == nullptr) return Report("E2022110404:Failed to allcate text packet for SpeechToText.");
  auto* block = static_cast<char*>(zelPtrStack_Pop(recognizer->text_blocks));
  if (block == nullptr) {
    Report("E2022110405:Failed to allcate text resource for SpeechToText.");
    return zelPacketRef_Release(packet);
  }
  FillAndQueue(recognizer, packet, block);
}

}  // namespace

void zelSttRecognizer_DeliverText(SttRecognizer* recognizer) {
  if (zelSttRequest_IsSucceeded(recognizer->request) != 1) {
    return Report("E2022110403:Failed to get response text for SpeechToText.");
  }
  zelMutex_Lock(recognizer->mutex);
  DeliverLocked(recognizer);
  zelMutex_Unlock(recognizer->mutex);
}

PacketRef* zelSttRecognizer_PopTextPacket(SttRecognizer* recognizer) {
  if (zelErr_Refuse(recognizer == nullptr, "E2022111525")) return nullptr;
  PacketRef* packet = nullptr;
  zelMutex_Lock(recognizer->mutex);
  if (zelPtrQueue_GetCount(recognizer->packet_queue) != 0) {
    packet = static_cast<PacketRef*>(zelPtrQueue_Pop(recognizer->packet_queue));
  }
  zelMutex_Unlock(recognizer->mutex);
  return packet;
}

void zelSttRecognizer_ReleaseText(void* instance, PacketRef* packet) {
  if (instance == nullptr || packet == nullptr) {
    return zelErr_NotifyInvalidParameter(instance == nullptr ? "E2022111435" : "E2022111436");
  }
  auto* recognizer = static_cast<SttRecognizer*>(instance);
  zelMutex_Lock(recognizer->mutex);
  const uint64_t block = zelPacketRef_GetField(packet, SttPacketField_Text);
  zelPtrStack_Push(recognizer->text_blocks, reinterpret_cast<void*>(static_cast<uintptr_t>(block)));
  zelMutex_Unlock(recognizer->mutex);
}

void zelSttRecognizer_ReleaseQueuedTexts(SttRecognizer* recognizer) {
  zelMutex_Lock(recognizer->mutex);
  zelPtrQueue_ReleaseAll(recognizer->packet_queue);
  zelMutex_Unlock(recognizer->mutex);
}

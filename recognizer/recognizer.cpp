#include "recognizer.h"

#include "bridge.h"
#include "ogg_formatter.h"
#include "packet_pool.h"
#include "ptr_queue.h"
#include "ptr_stack.h"
#include "recognition_request.h"
#include "recognizer_record.h"
#include "text_delivery.h"
#include "utterance.h"

namespace {

constexpr uint32_t kAlignment = 8;

constexpr ZelContainerFormatterOggConfig kFormatterConfig = {
    .sampling_rate = 16000, .num_channels = 1, .max_buffer_size_per_write = 256};
constexpr ZelRingBufferConfig kRingBufferConfig = {
    .reserved = 0, .buffer_size = 163840, .max_chunk_size = 81920, .max_chunks = 8, .name = ""};
constexpr SttRequestConfig kRequestConfig = {};

// The work sizes of a recognizer's parts.
struct PartSizes {
  int32_t formatter;
  int32_t ring_buffer;
  int32_t packet_pool;
  int32_t packet_queue;
  uint32_t texts;  // all text blocks together
  int32_t request;
};

// False when a part has no size.
bool CalculatePartSizes(const SttRecognizerConfig& config, PartSizes* sizes) {
  const uint32_t n = config.max_queueing_messages;
  const uint64_t texts = uint64_t{n} * config.max_text_message_size;
  *sizes = {
      .formatter = zelContainerFormatterOgg_CalculateWorkSize(&kFormatterConfig),
      .ring_buffer = zelRingBuffer_CalculateWorkSize(&kRingBufferConfig),
      .packet_pool = zelSttPacketPool_CalculateWorkSize(n),
      .packet_queue = zelPtrQueue_CalculateWorkSize(n),
      .texts = static_cast<uint32_t>(texts),
      .request = zelSttRequest_CalculateWorkSize(&kRequestConfig),
  };
  return sizes->formatter >= 0 && sizes->ring_buffer >= 0 && sizes->packet_pool >= 0 && sizes->packet_queue >= 0 &&
         texts <= INT32_MAX && sizes->request >= 0;
}

void* Carve(ZelFixedAllocatorRecord* carving, int32_t size, uint32_t alignment) {
  return zelFixedAllocator_Allocate(carving, static_cast<uint32_t>(size), alignment);
}

// Carves the stack of free text blocks and fills it with n blocks, the lowest address at the bottom.
PtrStack* CreateTextBlocks(ZelFixedAllocatorRecord* carving, const SttRecognizerConfig& config, uint32_t size) {
  const uint32_t n = config.max_queueing_messages;
  auto* stack = static_cast<PtrStack*>(Carve(carving, sizeof(PtrStack), kAlignment));
  if (stack == nullptr) return nullptr;
  auto* items = static_cast<void**>(zelFixedAllocator_Allocate(carving, n * uint32_t{sizeof(void*)}, kAlignment));
  if (items == nullptr) return nullptr;
  auto* texts = static_cast<char*>(zelFixedAllocator_Allocate(carving, size, 1));
  if (texts == nullptr) return nullptr;
  zelPtrStack_Init(stack, items, n);
  for (uint32_t i = 0; i < n; ++i)
    zelPtrStack_Push(stack, texts + uint64_t{i} * config.max_text_message_size);
  return stack;
}

// Carves and creates the parts in the order of the work size; false at the first one that cannot be had. Each part gets
// what the carve gave and answers null with null, after a report if it has one.
bool CreateParts(ZelFixedAllocatorRecord* carving, const SttRecognizerConfig& config, SttRecognizer* recognizer) {
  PartSizes sizes;
  if (!CalculatePartSizes(config, &sizes)) return false;
  const uint32_t n = config.max_queueing_messages;

  void* work = Carve(carving, sizes.formatter, 1);
  recognizer->formatter = zelContainerFormatterOgg_Create(&kFormatterConfig, work, sizes.formatter);
  if (recognizer->formatter == nullptr) return false;

  work = Carve(carving, sizes.ring_buffer, 1);
  recognizer->ring_buffer = zelRingBuffer_Create(&kRingBufferConfig, work, static_cast<uint32_t>(sizes.ring_buffer));
  if (recognizer->ring_buffer == nullptr) return false;

  work = Carve(carving, sizes.packet_pool, kAlignment);
  recognizer->packet_pool = zelSttPacketPool_Create(n, work, sizes.packet_pool);
  if (recognizer->packet_pool == nullptr) return false;

  work = Carve(carving, sizes.packet_queue, zelPtrQueue_GetAlignment());
  recognizer->packet_queue = zelPtrQueue_Create(n, work, sizes.packet_queue);
  if (recognizer->packet_queue == nullptr) return false;

  recognizer->text_blocks = CreateTextBlocks(carving, config, sizes.texts);
  if (recognizer->text_blocks == nullptr) return false;

  work = Carve(carving, ZEL_HOST_OBJECT_WORK_SIZE, 1);
  recognizer->mutex = zelMutex_Create(work, ZEL_HOST_OBJECT_WORK_SIZE);
  if (recognizer->mutex == nullptr) return false;
  zelSttPacketPool_SetMutex(recognizer->packet_pool, recognizer->mutex);

  work = Carve(carving, sizes.request, 1);
  recognizer->request = zelSttRequest_Create(&kRequestConfig, work, sizes.request);
  return recognizer->request != nullptr;
}

// The size goes last and by itself: it gives the slot to the audio path.
void ClearSlot(ZelRingBufferChunk* slot) {
  zelMemory_Clear(&slot->data, sizeof slot->data);
  zelAtomic_Store(&slot->size, 0);
}

// The request that posted it has ended: its bytes are free again, and so is the request.
void FreeSentSlot(SttRecognizer* recognizer) {
  ZelRingBufferChunk* slot = &recognizer->utterance_slots[recognizer->send_index];
  zelRingBuffer_Commit(recognizer->ring_buffer, ZEL_RING_LANE_FREE, slot);
  ClearSlot(slot);
  recognizer->send_index = (recognizer->send_index + 1) % kSttUtteranceSlots;
  zelSttRequest_Reset(recognizer->request);
}

void StartNextRequest(SttRecognizer* recognizer) {
  const ZelRingBufferChunk* slot = &recognizer->utterance_slots[recognizer->send_index];
  const uint32_t size = zelAtomic_Load(&slot->size);
  if (size == 0) return;
  const SttUtterance utterance = {slot->data, size, recognizer->client_id, recognizer->language};
  zelSttRequest_Start(recognizer->request, &utterance);
}

void DropDisabledAudio(SttRecognizer* recognizer) {
  // A frame that was being taken when the member was disabled is dropped by a later update.
  if (zelAtomic_Load(&recognizer->enabled) != 0 || zelAtomic_Load(&recognizer->audio_busy) != 0) return;
  const uint32_t size = zelRingBuffer_GetDataSize(recognizer->ring_buffer, ZEL_RING_LANE_DATA);
  if (size == 0) return;
  zelSttRecognizer_DiscardStream(recognizer, size);
  __atomic_store_n(&recognizer->silent_frames, 0, __ATOMIC_RELAXED);
}

SttRecognizerHandle* HandleOf(SttRecognizerHn handle) {
  return reinterpret_cast<SttRecognizerHandle*>(handle);
}

bool IsIdle(SttRecognizer* recognizer) {
  return zelSttRequest_GetState(recognizer->request) == STT_REQUEST_IDLE &&
         zelAtomic_Load(&recognizer->utterance_slots[recognizer->send_index].size) == 0 &&
         zelAtomic_Load(&recognizer->enabled) != 0;
}

// ---- The host's interface ----

uint32_t SetMemberId(SttRecognizer* recognizer, uint32_t member_id) {
  if (zelErr_Refuse(recognizer == nullptr, "E2022111438")) return 0;
  recognizer->member_id = member_id;
  return 1;
}

uint32_t SetClientId(SttRecognizer* recognizer, const uint8_t* bytes, uint32_t size) {
  if (zelErr_Refuse(recognizer == nullptr, "E2022111439") || zelErr_Refuse(size > kSttClientIdSize, "E2022111440"))
    return 0;
  if (bytes == nullptr) {
    zelMemory_Clear(recognizer->client_id, kSttClientIdSize);
    return 1;
  }
  return zelMemory_Copy(recognizer->client_id, kSttClientIdSize, bytes, size) != 0 ? 1 : 0;
}

constexpr SttRecognizerInterface kRecognizerInterface = {
    .SetMemberId = SetMemberId,
    .SetClientId = SetClientId,
    .PutAudioFrame = zelSttRecognizer_PutAudioFrame,
    .PopTextPacket = zelSttRecognizer_PopTextPacket,
};

}  // namespace

int32_t zelSttRecognizer_CalculateWorkSize(const SttRecognizerConfig* config) {
  if (zelErr_Refuse(config == nullptr, "E2022111404")) return -1;
  if (zelErr_Refuse(config->check_value != kSttRecognizerConfigCheckValue, "E2022111704")) return -1;
  PartSizes sizes;
  if (!CalculatePartSizes(*config, &sizes)) return -1;

  ZelWorkSizeRecord size;
  zelWorkSize_Begin(&size);
  zelWorkSize_Add(&size, sizeof(SttRecognizerHandle), 1, kAlignment);
  zelWorkSize_Add(&size, sizeof(SttRecognizer), 1, kAlignment);
  zelWorkSize_Add(&size, sizes.formatter, 1, 1);
  zelWorkSize_Add(&size, sizes.ring_buffer, 1, 1);
  zelWorkSize_Add(&size, sizes.packet_pool, 1, kAlignment);
  zelWorkSize_Add(&size, sizes.packet_queue, 1, zelPtrQueue_GetAlignment());
  zelWorkSize_Add(&size, sizeof(PtrStack), 1, kAlignment);
  zelWorkSize_Add(&size, sizeof(void*), config->max_queueing_messages, kAlignment);
  zelWorkSize_Add(&size, 1, sizes.texts, 1);
  zelWorkSize_Add(&size, ZEL_HOST_OBJECT_WORK_SIZE, 1, 1);
  zelWorkSize_Add(&size, sizes.request, 1, 1);
  return zelWorkSize_Result(&size);
}

SttRecognizerHn zelSttRecognizer_Create(const SttRecognizerConfig* config, void* work, int32_t work_size) {
  if (zelErr_Refuse(config == nullptr, "E2022111405") || zelErr_Refuse(work == nullptr, "E2022111406")) return nullptr;
  if (work_size < 0) return nullptr;
  if (zelErr_Refuse(config->check_value != kSttRecognizerConfigCheckValue, "E2022111705")) return nullptr;

  zelMemory_Clear(work, static_cast<uint64_t>(work_size));
  ZelFixedAllocatorRecord carving;
  zelFixedAllocator_Create(work, work_size, &carving);
  auto* handle = static_cast<SttRecognizerHandle*>(Carve(&carving, sizeof(SttRecognizerHandle), kAlignment));
  auto* recognizer =
      handle != nullptr ? static_cast<SttRecognizer*>(Carve(&carving, sizeof(SttRecognizer), kAlignment)) : nullptr;
  if (recognizer == nullptr) {
    zelFixedAllocator_Destroy(&carving);
    return nullptr;
  }
  handle->pair = {&kRecognizerInterface, recognizer};
  recognizer->handle = handle;
  recognizer->member_id = kSttNoMemberId;
  recognizer->enabled = 1;
  recognizer->max_text_message_size = config->max_text_message_size;

  const bool created = CreateParts(&carving, *config, recognizer);
  if (!created) zelSttRecognizer_Destroy(&handle->pair);
  zelFixedAllocator_Destroy(&carving);
  if (!created) return nullptr;
  zelSttRecognizer_Reset(&handle->pair);
  return &handle->pair;
}

uint32_t zelSttRecognizer_Destroy(SttRecognizerHn handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022111420")) return 0;
  SttRecognizer* recognizer = handle->instance;
  if (recognizer->request != nullptr) zelSttRequest_Destroy(recognizer->request);
  if (recognizer->packet_queue != nullptr) zelPtrQueue_ReleaseAll(recognizer->packet_queue);
  if (recognizer->text_blocks != nullptr) zelPtrStack_Destroy(recognizer->text_blocks);
  if (recognizer->packet_pool != nullptr) zelSttPacketPool_Destroy(recognizer->packet_pool);
  if (recognizer->ring_buffer != nullptr) {
    zelRingBuffer_Reset(recognizer->ring_buffer);
    zelRingBuffer_Destroy(recognizer->ring_buffer);
  }
  if (recognizer->formatter != nullptr) zelContainerFormatterOgg_Destroy(recognizer->formatter);
  if (recognizer->mutex != nullptr) zelMutex_Destroy(recognizer->mutex);
  return 1;
}

uint32_t zelSttRecognizer_Update(SttRecognizerHn handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022111427")) return 0;
  uint32_t* pending = &HandleOf(handle)->pending;
  if (__atomic_load_n(pending, __ATOMIC_SEQ_CST) == 0) return 1;
  __atomic_exchange_n(pending, 0, __ATOMIC_SEQ_CST);  // whatever was set last is seen with all before it
  SttRecognizer* recognizer = handle->instance;
  const uint32_t state = zelSttRequest_GetState(recognizer->request);
  if (state == STT_REQUEST_SUCCEEDED) zelSttRecognizer_DeliverText(recognizer);
  if (state == STT_REQUEST_SUCCEEDED || state == STT_REQUEST_FAILED) FreeSentSlot(recognizer);
  // After a failure the next utterance waits for the next update.
  if (state == STT_REQUEST_IDLE || state == STT_REQUEST_SUCCEEDED) StartNextRequest(recognizer);
  zelSttRequest_Poll(recognizer->request);
  DropDisabledAudio(recognizer);
  if (!IsIdle(recognizer)) __atomic_store_n(pending, 1, __ATOMIC_SEQ_CST);
  return 1;
}

uint32_t zelSttRecognizer_Reset(SttRecognizerHn handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022111524")) return 0;
  SttRecognizer* recognizer = handle->instance;
  zelSttRequest_Reset(recognizer->request);
  zelSttRecognizer_ReleaseQueuedTexts(recognizer);
  zelRingBuffer_Reset(recognizer->ring_buffer);
  // The ring buffer has taken the waiting utterances back.
  for (ZelRingBufferChunk& slot : recognizer->utterance_slots)
    ClearSlot(&slot);
  recognizer->send_index = recognizer->fill_index;
  zelSttRecognizer_BeginStream(recognizer);
  recognizer->utterance_length = 0;
  recognizer->silent_frames = 0;
  return 1;
}

uint32_t zelSttRecognizer_Recycle(SttRecognizerHn handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022111429")) return 0;
  zelSttRecognizer_Reset(handle);
  handle->instance->member_id = kSttNoMemberId;
  handle->instance->language = 0;
  return 1;
}

uint32_t zelSttRecognizer_EnableMember(SttRecognizerHn handle, uint32_t enabled) {
  if (zelErr_Refuse(handle == nullptr, "E2022111422")) return 0;
  zelAtomic_Store(&handle->instance->enabled, enabled);
  __atomic_store_n(&HandleOf(handle)->pending, 1, __ATOMIC_SEQ_CST);
  return 1;
}

uint32_t zelSttRecognizer_IsEnabledMember(SttRecognizerHn handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022111423")) return 0;
  return zelAtomic_Load(&handle->instance->enabled);
}

uint32_t zelSttRecognizer_SetLanguage(SttRecognizerHn handle, uint32_t language) {
  if (zelErr_Refuse(handle == nullptr, "E2022111424") || zelErr_Refuse(language >= kSttLanguageCount, "E2022111425"))
    return 0;
  handle->instance->language = language;
  return 1;
}

int32_t zelSttRecognizer_GetLanguage(SttRecognizerHn handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022111426")) return -1;
  return static_cast<int32_t>(handle->instance->language);
}

const char* zelSttRecognizer_GetClientId(SttRecognizerHn handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022111421")) return nullptr;
  return handle->instance->client_id;
}

uint32_t zelSttRecognizer_SetUrl(SttRecognizerHn handle, const char* url) {
  if (zelErr_Refuse(handle == nullptr, "E2022112204")) return 0;
  return zelSttRequest_SetUrl(handle->instance->request, url);
}

uint32_t zelSttRecognizer_SetAuthorization(SttRecognizerHn handle, const char* authorization) {
  if (zelErr_Refuse(handle == nullptr, "E2022111430")) return 0;
  return zelSttRequest_SetAuthorization(handle->instance->request, authorization);
}

uint32_t zelSttRecognizer_SetTimeBase(SttRecognizerHn handle, uint64_t time_base) {
  if (zelErr_Refuse(handle == nullptr, "E2022111432")) return 0;
  handle->instance->time_base = time_base;
  return 1;
}

// The host's services, one function per slot of the installed table. The rest of the plug-in reaches the host only
// through these. Each loads the table pointer and jumps: a table installed later serves the very next call.
//
// Thread rule: callable from any thread once a table is installed; contracts stand at the slots
// (zel_base_rtc_bridge.h).
#pragma once

#include "zel_base_rtc_bridge.h"

// The installed record; all zero until the first installation. Inline, so that every source knows that it is the
// library's own and reads the table pointer with one instruction.
inline ZelBaseRtcBridgeInterface zel_bridge_interface{};

// Read atomically: idle workers are inside a service while another table is installed.
inline const BridgeTable* zelBridge_Installed() {
  return __atomic_load_n(&zel_bridge_interface.table, __ATOMIC_ACQUIRE);
}
inline const BridgeTable& zelBridge_Table() {
  return *zelBridge_Installed();
}
inline bool zelBridge_IsInstalled() {
  return zelBridge_Installed() != nullptr;
}

inline uint32_t zelAtomic_Load(const uint32_t* word) {
  return zelBridge_Table().atomic_load(word);
}
inline void zelAtomic_Store(uint32_t* word, uint32_t value) {
  zelBridge_Table().atomic_store(word, value);
}

inline void zelString_Copy(char* destination, uint64_t capacity, const char* source) {
  zelBridge_Table().string_copy(destination, capacity, source);
}
inline uint32_t zelString_Length(const char* string) {
  return zelBridge_Table().string_length(string);
}
[[gnu::format(printf, 3, 4)]] void zelString_Format(char* destination, uint64_t capacity, const char* format, ...);

inline uint32_t zelMemory_Copy(void* destination, uint64_t capacity, const void* source, uint64_t size) {
  return zelBridge_Table().memory_copy(destination, capacity, source, size);
}
inline void zelMemory_Clear(void* destination, uint64_t size) {
  zelBridge_Table().memory_clear(destination, size);
}

inline void* zelMutex_Create(void* work, int32_t work_size) {
  return zelBridge_Table().mutex_create(work, work_size);
}
inline void zelMutex_Destroy(void* mutex) {
  zelBridge_Table().mutex_destroy(mutex);
}
inline void zelMutex_Lock(void* mutex) {
  zelBridge_Table().mutex_lock(mutex);
}
inline void zelMutex_Unlock(void* mutex) {
  zelBridge_Table().mutex_unlock(mutex);
}

inline void zelErr_Notify(uint32_t level, const char* message) {
  zelBridge_Table().err_notify(level, message);
}
inline void zelErr_Notify1(uint32_t level, const char* format, uint64_t argument) {
  zelBridge_Table().err_notify1(level, format, argument);
}
inline void zelErr_Notify2(uint32_t level, const char* format, uint64_t argument1, uint64_t argument2) {
  zelBridge_Table().err_notify2(level, format, argument1, argument2);
}
inline void zelErr_NotifyParam(uint32_t level, const char* identifier, int32_t code) {
  zelBridge_Table().err_notify_param(level, identifier, code);
}

inline void zelFixedAllocator_Create(void* work, int32_t work_size, ZelFixedAllocatorRecord* record) {
  zelBridge_Table().fixed_allocator_create(work, work_size, record);
}
inline void zelFixedAllocator_Destroy(ZelFixedAllocatorRecord* record) {
  zelBridge_Table().fixed_allocator_destroy(record);
}
inline void* zelFixedAllocator_Allocate(ZelFixedAllocatorRecord* record, uint32_t size, uint32_t alignment) {
  return zelBridge_Table().fixed_allocator_allocate(record, size, alignment);
}

inline void zelWorkSize_Begin(ZelWorkSizeRecord* record) {
  zelBridge_Table().work_size_begin(record);
}
inline void zelWorkSize_Add(ZelWorkSizeRecord* record, int64_t size, uint32_t count, uint32_t alignment) {
  zelBridge_Table().work_size_add(record, size, count, alignment);
}
inline int32_t zelWorkSize_Total(ZelWorkSizeRecord* record) {
  return zelBridge_Table().work_size_total(record);
}

inline void zelUserAllocator_SetMalloc(ZelUserAllocatorRecord* record, ZelUserMallocFunction function, void* object) {
  zelBridge_Table().user_allocator_set_malloc(record, function, object);
}
inline void zelUserAllocator_SetFree(ZelUserAllocatorRecord* record, ZelUserFreeFunction function, void* object) {
  zelBridge_Table().user_allocator_set_free(record, function, object);
}
inline void* zelUserAllocator_Allocate(ZelUserAllocatorRecord* record, uint32_t size) {
  return zelBridge_Table().user_allocator_allocate(record, size);
}
inline void zelUserAllocator_Free(ZelUserAllocatorRecord* record, void* pointer) {
  zelBridge_Table().user_allocator_free(record, pointer);
}
inline uint32_t zelUserAllocator_IsSet(ZelUserAllocatorRecord* record) {
  return zelBridge_Table().user_allocator_is_set(record);
}

inline int32_t zelRingBuffer_CalculateWorkSize(const ZelRingBufferConfig* config) {
  return zelBridge_Table().ring_buffer_calculate_work_size(config);
}
inline void* zelRingBuffer_Create(const ZelRingBufferConfig* config, void* work, uint32_t work_size) {
  return zelBridge_Table().ring_buffer_create(config, work, work_size);
}
inline void zelRingBuffer_Destroy(void* ring) {
  zelBridge_Table().ring_buffer_destroy(ring);
}
inline void zelRingBuffer_Reset(void* ring) {
  zelBridge_Table().ring_buffer_reset(ring);
}
inline void zelRingBuffer_Acquire(void* ring, uint32_t lane, uint32_t size, ZelRingBufferChunk* chunk) {
  zelBridge_Table().ring_buffer_acquire(ring, lane, size, chunk);
}
inline void zelRingBuffer_Release(void* ring, uint32_t lane, const ZelRingBufferChunk* chunk) {
  zelBridge_Table().ring_buffer_release(ring, lane, chunk);
}
inline void zelRingBuffer_Commit(void* ring, uint32_t lane, const ZelRingBufferChunk* chunk) {
  zelBridge_Table().ring_buffer_commit(ring, lane, chunk);
}
inline uint32_t zelRingBuffer_GetDataSize(void* ring, uint32_t lane) {
  return zelBridge_Table().ring_buffer_get_data_size(ring, lane);
}
inline void zelRingBuffer_SplitChunk(const ZelRingBufferChunk* source, uint32_t size, ZelRingBufferChunk* head,
                                     ZelRingBufferChunk* tail) {
  zelBridge_Table().ring_buffer_split_chunk(source, size, head, tail);
}

inline void* zelThread_Create(void* work, int32_t work_size, ZelThreadEntry entry, void* argument, const char* name) {
  return zelBridge_Table().thread_create(work, work_size, entry, argument, name);
}
inline void zelThread_Join(void* thread) {
  zelBridge_Table().thread_join(thread);
}
inline void zelThread_Sleep(uint32_t milliseconds) {
  zelBridge_Table().thread_sleep(milliseconds);
}

inline void zelTimer_Initialize() {
  zelBridge_Table().timer_initialize();
}
inline void zelTimer_Finalize() {
  zelBridge_Table().timer_finalize();
}
inline uint64_t zelTimer_GetCount() {
  return zelBridge_Table().timer_get_count();
}
inline uint64_t zelTimer_GetFrequency() {
  return zelBridge_Table().timer_get_frequency();
}
inline uint64_t zelTimer_GetElapsed(uint64_t start, uint64_t current) {
  return zelBridge_Table().timer_get_elapsed(start, current);
}

inline void* zelEvent_Create(void* work, int32_t work_size) {
  return zelBridge_Table().event_create(work, work_size);
}
inline void zelEvent_Destroy(void* event) {
  zelBridge_Table().event_destroy(event);
}
inline void zelEvent_Wait(void* event) {
  zelBridge_Table().event_wait(event);
}
inline void zelEvent_Signal(void* event) {
  zelBridge_Table().event_signal(event);
}

// The total as the result of a work-size operation: -1 when there is none.
inline int32_t zelWorkSize_Result(ZelWorkSizeRecord* record) {
  const int32_t total = zelWorkSize_Total(record);
  return total < 0 ? -1 : total;
}

// Reports a refused argument.
inline void zelErr_NotifyInvalidParameter(const char* identifier) {
  zelErr_NotifyParam(ZEL_ERR_LEVEL_ERROR, identifier, ZEL_ERR_INVALID_PARAMETER);
}

// The same when `refused` holds; returns `refused`.
inline bool zelErr_Refuse(bool refused, const char* identifier) {
  if (refused) zelErr_NotifyInvalidParameter(identifier);
  return refused;
}

// A string as the 64-bit argument of a report.
inline uint64_t zelErr_Argument(const char* text) {
  return reinterpret_cast<uintptr_t>(text);
}

// A bounded first-in-first-out ring of pointers; the record PtrQueue is shared with the host. No locks. Refused
// arguments are reported with code -2 under the identifier given here.
#pragma once

#include "zel_rtc_speech_to_text_host.h"

// 8 * capacity + 24 bytes; -1 when capacity is 0 or above 238,609,294.
int32_t zelPtrQueue_CalculateWorkSize(uint32_t capacity);

// Alignment of queue memory: 8.
uint32_t zelPtrQueue_GetAlignment();

// Builds a queue in `work`, the items right behind the header. Null, without a report, when `work` is null, too small,
// or not aligned so that the queue fits.
PtrQueue* zelPtrQueue_Create(uint32_t capacity, void* work, int32_t work_size);

// 1; 0 when full, or for a null queue or pointer (E2021100516).
uint32_t zelPtrQueue_Push(PtrQueue* queue, void* pointer);

// The oldest pointer; null when empty, or for a null queue (E2021100518).
void* zelPtrQueue_Pop(PtrQueue* queue);

// Entries; 0 for a null queue (E2021100514).
uint32_t zelPtrQueue_GetCount(const PtrQueue* queue);

// Pops every entry and releases it as a PacketRef: 1; 0 for a null queue (E2021100519).
uint32_t zelPtrQueue_ReleaseAll(PtrQueue* queue);

// ---- For containers built around a queue ----

// Lays out a queue header in `work`, rounded up to 8 bytes, `record_bytes` of records behind it and the items behind
// those. `required` is the work size that `work_size` must reach. Null, without a report, when that fails or does not
// fit.
PtrQueue* zelPtrQueue_Build(uint32_t capacity, uint32_t record_bytes, int32_t required, void* work, int32_t work_size);

// Push, look and pop without checks of the arguments. Inline, because calls cost more than what they would do.
inline uint32_t zelPtrQueue_Append(PtrQueue* queue, void* pointer) {
  const uint32_t at = queue->write_index;
  if (at - queue->read_index == queue->capacity) return 0;
  // Below twice the capacity: a division would give no more.
  queue->items[at < queue->capacity ? at : at - queue->capacity] = pointer;
  queue->write_index = at + 1;
  return 1;
}

inline bool zelPtrQueue_IsEmpty(const PtrQueue* queue) {
  return queue->write_index == queue->read_index;
}

inline void* zelPtrQueue_Take(PtrQueue* queue) {
  const uint32_t at = queue->read_index;
  const uint32_t end = queue->write_index;
  if (at == end) return nullptr;
  const uint32_t capacity = queue->capacity;
  void* pointer = queue->items[at];
  const bool wraps = at + 1 == capacity;
  queue->read_index = wraps ? 0 : at + 1;
  if (wraps) queue->write_index = end - capacity;
  return pointer;
}

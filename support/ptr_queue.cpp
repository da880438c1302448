#include "ptr_queue.h"

#include "bridge.h"
#include "packet_ref.h"

namespace {

constexpr int32_t kItemSize = sizeof(void*);

}  // namespace

int32_t zelPtrQueue_CalculateWorkSize(uint32_t capacity) {
  if (capacity == 0 || static_cast<uint32_t>(INT32_MAX) / capacity <= kItemSize) return -1;
  const int64_t total = int64_t{kItemSize} * capacity + int64_t{sizeof(PtrQueue)};
  return total > INT32_MAX ? -1 : static_cast<int32_t>(total);
}

uint32_t zelPtrQueue_GetAlignment() {
  return alignof(PtrQueue);
}

PtrQueue* zelPtrQueue_Build(uint32_t capacity, uint32_t record_bytes, int32_t required, void* work, int32_t work_size) {
  if (required < 0 || work_size < required || work == nullptr) return nullptr;
  auto* start = static_cast<uint8_t*>(work);
  const uint64_t padding = (0 - reinterpret_cast<uintptr_t>(work)) % alignof(PtrQueue);
  const uint64_t items_offset = padding + sizeof(PtrQueue) + record_bytes;
  if (items_offset + uint64_t{capacity} * kItemSize > static_cast<uint32_t>(work_size)) return nullptr;

  auto* queue = reinterpret_cast<PtrQueue*>(start + padding);
  *queue = {reinterpret_cast<void**>(start + items_offset), capacity, 0, 0, 0};
  return queue;
}

PtrQueue* zelPtrQueue_Create(uint32_t capacity, void* work, int32_t work_size) {
  return zelPtrQueue_Build(capacity, 0, zelPtrQueue_CalculateWorkSize(capacity), work, work_size);
}

uint32_t zelPtrQueue_Push(PtrQueue* queue, void* pointer) {
  if (queue == nullptr || pointer == nullptr) {
    zelErr_NotifyInvalidParameter("E2021100516");
    return 0;
  }
  return zelPtrQueue_Append(queue, pointer);
}

void* zelPtrQueue_Pop(PtrQueue* queue) {
  if (zelErr_Refuse(queue == nullptr, "E2021100518")) return nullptr;
  return zelPtrQueue_Take(queue);
}

uint32_t zelPtrQueue_GetCount(const PtrQueue* queue) {
  if (zelErr_Refuse(queue == nullptr, "E2021100514")) return 0;
  return queue->write_index - queue->read_index;
}

uint32_t zelPtrQueue_ReleaseAll(PtrQueue* queue) {
  if (zelErr_Refuse(queue == nullptr, "E2021100519")) return 0;
  while (queue->write_index != queue->read_index)
    zelPacketRef_Release(static_cast<PacketRef*>(zelPtrQueue_Take(queue)));
  return 1;
}

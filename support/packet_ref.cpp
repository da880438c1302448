#include "packet_ref.h"

#include "bridge.h"

namespace {

constexpr int32_t kRefSize = sizeof(PacketRef);
constexpr int32_t kItemSize = sizeof(void*);
constexpr int32_t kAlignmentSlack = alignof(PtrQueue);

}  // namespace

int32_t zelPacketRefPool_CalculateWorkSize(uint32_t capacity) {
  if (capacity == 0 || static_cast<uint32_t>(INT32_MAX) / capacity <= kRefSize) return -1;
  const int64_t total = int64_t{kRefSize + kItemSize} * capacity + int64_t{sizeof(PtrQueue)} + kAlignmentSlack;
  return total > INT32_MAX ? -1 : static_cast<int32_t>(total);
}

PacketRefPool* zelPacketRefPool_Create(uint32_t capacity, void* work, int32_t work_size) {
  const int32_t required = zelPacketRefPool_CalculateWorkSize(capacity);
  PacketRefPool* pool = zelPtrQueue_Build(capacity, capacity * uint32_t{sizeof(PacketRef)}, required, work, work_size);
  if (pool == nullptr) return nullptr;
  auto* refs = reinterpret_cast<PacketRef*>(pool + 1);
  for (uint32_t i = 0; i < capacity; ++i) {
    refs[i] = {};
    zelPtrQueue_Append(pool, &refs[i]);
  }
  return pool;
}

uint32_t zelPacketRefPool_GetFreeCount(const PacketRefPool* pool) {
  if (zelErr_Refuse(pool == nullptr, "E2021100513")) return 0;
  return pool->write_index - pool->read_index;
}

void zelPacketRefPool_CheckAllReturned(const PacketRefPool* pool) {
  if (pool == nullptr || pool->write_index - pool->read_index == pool->capacity) return;
  zelErr_NotifyInvalidParameter("E2021100512");
}

SttPacket* zelPacketRef_GetPacket(PacketRef* ref) {
  if (zelErr_Refuse(ref == nullptr, "E2021100520")) return nullptr;
  return ref->payload;
}

void zelPacketRef_Release(PacketRef* ref) {
  if (zelErr_Refuse(ref == nullptr, "E2021100523")) return;
  if (zelErr_Refuse(ref->ref_count == 0, "E2021100510")) return;
  if (zelErr_Refuse(ref->owner_queue == nullptr, "E2021100511")) return;
  ref->ref_count -= 1;
  if (ref->ref_count > 0) return;
  if (ref->release_callback != nullptr) ref->release_callback(ref->release_context, ref);
  zelPtrQueue_Append(ref->owner_queue, ref);
}

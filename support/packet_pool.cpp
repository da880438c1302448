#include "packet_pool.h"

#include "bridge.h"
#include "packet.h"
#include "packet_ref.h"

namespace {

constexpr uint32_t kAlignment = 8;

// Brings a packet back when its envelope has lost its last reference.
void ReturnPacket(void* context, PacketRef* ref) {
  auto* pool = static_cast<SttPacketPool*>(context);
  SttPacket* packet = ref->payload;
  if (packet->release_callback != nullptr) packet->release_callback(packet->release_context, ref);
  zelPtrStack_Push(&pool->free_packets, packet);
}

// The same under the owner's mutex.
void ReturnPacketLocked(void* context, PacketRef* ref) {
  const auto* pool = static_cast<const SttPacketPool*>(context);
  zelMutex_Lock(pool->mutex);
  ReturnPacket(context, ref);
  zelMutex_Unlock(pool->mutex);
}

// Carves one part; on failure reports `message`, unless it is null.
void* Carve(ZelFixedAllocatorRecord* carving, uint32_t size, uint32_t alignment, const char* message) {
  void* part = zelFixedAllocator_Allocate(carving, size, alignment);
  if (part == nullptr && message != nullptr) zelErr_Notify(ZEL_ERR_LEVEL_ERROR, message);
  return part;
}

// Carves the parts of a pool of n packets and links them; the envelopes' area is handed out uninitialized.
SttPacketPool* CarveParts(ZelFixedAllocatorRecord* carving, uint32_t n, void** envelope_work, int32_t envelope_size) {
  auto* pool = static_cast<SttPacketPool*>(
      Carve(carving, sizeof(SttPacketPool), kAlignment, "E2021100782:zelFixedAllocator_Allocate() Failed."));
  if (pool == nullptr) return nullptr;
  *pool = {};
  pool->packets = static_cast<SttPacket*>(
      Carve(carving, n * uint32_t{sizeof(SttPacket)}, kAlignment, "E2021100783:zelFixedAllocator_Allocate() Failed."));
  if (pool->packets == nullptr) return nullptr;
  pool->free_items = static_cast<void**>(
      Carve(carving, n * uint32_t{sizeof(void*)}, kAlignment, "E2021100784:zelFixedAllocator_Allocate() Failed."));
  if (pool->free_items == nullptr) return nullptr;
  *envelope_work = Carve(carving, static_cast<uint32_t>(envelope_size), 1, nullptr);
  return *envelope_work != nullptr ? pool : nullptr;
}

}  // namespace

int32_t zelSttPacketPool_CalculateWorkSize(uint32_t n) {
  if (n == 0) return -1;
  ZelWorkSizeRecord size;
  zelWorkSize_Begin(&size);
  zelWorkSize_Add(&size, sizeof(SttPacketPool), 1, kAlignment);
  zelWorkSize_Add(&size, sizeof(SttPacket), n, kAlignment);
  zelWorkSize_Add(&size, sizeof(void*), n, kAlignment);
  zelWorkSize_Add(&size, zelPacketRefPool_CalculateWorkSize(n), 1, 1);
  return zelWorkSize_Result(&size);
}

SttPacketPool* zelSttPacketPool_Create(uint32_t n, void* work, int32_t work_size) {
  const int32_t required = zelSttPacketPool_CalculateWorkSize(n);
  if (required < 0 || work_size < required || work == nullptr) return nullptr;

  const int32_t envelope_size = zelPacketRefPool_CalculateWorkSize(n);
  void* envelope_work = nullptr;
  ZelFixedAllocatorRecord carving;
  zelFixedAllocator_Create(work, work_size, &carving);
  SttPacketPool* pool = CarveParts(&carving, n, &envelope_work, envelope_size);
  zelFixedAllocator_Destroy(&carving);
  if (pool == nullptr) return nullptr;

  zelPtrStack_Init(&pool->free_packets, pool->free_items, n);
  for (uint32_t i = 0; i < n; ++i)
    zelPtrStack_Push(&pool->free_packets, &pool->packets[i]);
  pool->envelopes = zelPacketRefPool_Create(n, envelope_work, envelope_size);
  return pool->envelopes != nullptr ? pool : nullptr;
}

void zelSttPacketPool_SetMutex(SttPacketPool* pool, void* mutex) {
  pool->mutex = mutex;
}

PacketRef* zelSttPacketPool_Allocate(SttPacketPool* pool, PacketReleaseCallback callback, void* context) {
  if (pool == nullptr || zelPtrStack_GetCount(&pool->free_packets) == 0) return nullptr;
  PacketRefPool* envelopes = pool->envelopes;
  if (zelPtrQueue_IsEmpty(envelopes)) return nullptr;
  auto* packet = static_cast<SttPacket*>(zelPtrStack_Pop(&pool->free_packets));
  zelSttPacket_Reset(packet);
  packet->release_callback = callback;
  packet->release_context = context;
  return zelPacketRefPool_Take(envelopes, packet, 0, 0, pool->mutex != nullptr ? ReturnPacketLocked : ReturnPacket,
                               pool);
}

void zelSttPacketPool_Destroy(SttPacketPool* pool) {
  if (pool == nullptr) return;
  zelPacketRefPool_CheckAllReturned(pool->envelopes);
  zelPtrStack_Destroy(&pool->free_packets);
}

// Reference-counted envelopes that carry text packets, and the pool that holds the free ones. The record PacketRef is
// shared with the host. No locks. Refused arguments are reported with code -2 under the identifier given here.
#pragma once

#include "ptr_queue.h"
#include "zel_rtc_speech_to_text_host.h"

// A pool is a PtrQueue created together with its PacketRef records, holding the free ones.
using PacketRefPool = PtrQueue;

// 56 * capacity + 32 bytes; -1 when capacity is 0 or above 38,347,921.
int32_t zelPacketRefPool_CalculateWorkSize(uint32_t capacity);

// Builds a pool in `work`, which may start at any address. Null, without a report, when it is null or too small.
PacketRefPool* zelPacketRefPool_Create(uint32_t capacity, void* work, int32_t work_size);

// A PacketRef with one reference, or null, without a report, when pool or payload is null or none is free.
inline PacketRef* zelPacketRefPool_Take(PacketRefPool* pool, SttPacket* payload, uint32_t user_value,
                                        uint64_t user_word, PacketReleaseCallback release_callback,
                                        void* release_context) {
  if (pool == nullptr || payload == nullptr) return nullptr;
  auto* ref = static_cast<PacketRef*>(zelPtrQueue_Take(pool));
  if (ref == nullptr) return nullptr;
  *ref = {payload, user_word, user_value, 1, pool, release_callback, release_context};
  return ref;
}

// Free PacketRefs; 0 for a null pool (E2021100513).
uint32_t zelPacketRefPool_GetFreeCount(const PacketRefPool* pool);

// Reports E2021100512 when some PacketRef is still out. A null pool is ignored.
void zelPacketRefPool_CheckAllReturned(const PacketRefPool* pool);

// The carried packet; null for a null ref (E2021100520).
SttPacket* zelPacketRef_GetPacket(PacketRef* ref);

// Drops one reference. The last one runs the release callback and sends the envelope back to its pool. Changes nothing
// for a null ref (E2021100523), one without references (E2021100510) or without a pool (E2021100511).
void zelPacketRef_Release(PacketRef* ref);

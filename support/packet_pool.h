// A fixed number of text packets with the envelopes that carry them.
//
// Packets and envelopes are equal in number, so both run out together.
// Thread rule: the owner serializes its calls. Hosts drop last references on threads of their own: the packet's release
// callback and its return run under the owner's mutex, once the pool has been given it; the envelope's return does not.
#pragma once

#include "ptr_stack.h"
#include "zel_rtc_speech_to_text_host.h"

struct SttPacketPool {
  PtrStack free_packets;
  SttPacket* packets;   // array of blocks, one per packet
  void** free_items;    // storage of free_packets
  PtrQueue* envelopes;  // PacketRefPool
  void* mutex;          // the owner's, recursive; null until zelSttPacketPool_SetMutex
};

// Bytes of work area for n packets; -1 when n is 0.
int32_t zelSttPacketPool_CalculateWorkSize(uint32_t n);

// Builds a pool in `work`; null when the area is null or too small (no report) or a carve fails.
SttPacketPool* zelSttPacketPool_Create(uint32_t n, void* work, int32_t work_size);

// Returns of packets take `mutex` from now on; it belongs to the caller and outlives the pool's last packet.
void zelSttPacketPool_SetMutex(SttPacketPool* pool, void* mutex);

// An envelope with one reference that carries an emptied packet, or null, without a report, when all are out. When the
// last reference goes, callback(context, envelope) runs, then packet and envelope return to the pool.
PacketRef* zelSttPacketPool_Allocate(SttPacketPool* pool, PacketReleaseCallback callback, void* context);

// Reports packets that are still out (E2021100512). A null pool is ignored. The memory stays with its owner.
void zelSttPacketPool_Destroy(SttPacketPool* pool);

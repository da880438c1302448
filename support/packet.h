// The text packet: nine slots of (flag, value); the record SttPacket is shared with the host. No locks.
//
// Invariants: slots are filled from slot 0 on without gaps; no two used slots have the same flag; field_mask is the OR
// of the used slots' flags. A packet is written only by its producer, before it is queued.
#pragma once

#include "zel_rtc_speech_to_text_host.h"

// Empties the packet: mask, marks and flags become 0, values and callback stay.
inline void zelSttPacket_Reset(SttPacket* packet) {
  packet->field_mask = 0;
  packet->slot_marks = 0;
  for (uint32_t& flag : packet->field_flags)
    flag = 0;
}

// 1 when stored; 0 when the flag is there already or is 0 (reported with code -2: E2022042122, for pointers
// E2021100500), or when nine other flags are (no report).
int32_t zelSttPacket_AddField(SttPacket* packet, uint32_t flag, uint64_t value);
int32_t zelSttPacket_AddPointerField(SttPacket* packet, uint32_t flag, void* pointer);

// 1 and the value when the packet has the flag; 0, and the value untouched, when it has not.
int32_t zelSttPacket_GetField(const SttPacket* packet, uint32_t flag, uint64_t* value);

// The same on the packet that a PacketRef carries; 0, without a report, for a null ref. An absent field reads as 0.
uint64_t zelPacketRef_GetField(const PacketRef* ref, uint32_t flag);
int32_t zelPacketRef_SetPointer(PacketRef* ref, uint32_t flag, void* pointer);
int32_t zelPacketRef_SetUInt32(PacketRef* ref, uint32_t flag, uint32_t value);
int32_t zelPacketRef_SetUInt64(PacketRef* ref, uint32_t flag, uint64_t value);

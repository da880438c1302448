#include "packet.h"

#include "bridge.h"

namespace {

// The slot that took the value, or -1.
int32_t Add(SttPacket* packet, uint32_t flag, uint64_t value, const char* duplicate) {
  for (int32_t i = 0; i < STT_PACKET_SLOTS; ++i) {
    if (packet->field_flags[i] == flag) {
      zelErr_NotifyInvalidParameter(duplicate);
      return -1;
    }
    if (packet->field_flags[i] == 0) {
      packet->field_values[i] = value;
      packet->field_flags[i] = flag;
      packet->field_mask |= flag;
      return i;
    }
  }
  return -1;
}

}  // namespace

int32_t zelSttPacket_AddField(SttPacket* packet, uint32_t flag, uint64_t value) {
  return Add(packet, flag, value, "E2022042122") >= 0 ? 1 : 0;
}

int32_t zelSttPacket_AddPointerField(SttPacket* packet, uint32_t flag, void* pointer) {
  const int32_t slot = Add(packet, flag, reinterpret_cast<uintptr_t>(pointer), "E2021100500");
  if (slot < 0) return 0;
  // Slots 7 and 8 have no mark: their bits fall outside the byte.
  packet->slot_marks = static_cast<uint8_t>(packet->slot_marks & ~(2U << slot));
  return 1;
}

int32_t zelSttPacket_GetField(const SttPacket* packet, uint32_t flag, uint64_t* value) {
  for (int32_t i = 0; i < STT_PACKET_SLOTS; ++i) {
    if (packet->field_flags[i] != flag) continue;
    *value = packet->field_values[i];
    return 1;
  }
  return 0;
}

uint64_t zelPacketRef_GetField(const PacketRef* ref, uint32_t flag) {
  uint64_t value = 0;
  if (ref != nullptr) zelSttPacket_GetField(ref->payload, flag, &value);
  return value;
}

int32_t zelPacketRef_SetPointer(PacketRef* ref, uint32_t flag, void* pointer) {
  return ref == nullptr ? 0 : zelSttPacket_AddPointerField(ref->payload, flag, pointer);
}

int32_t zelPacketRef_SetUInt32(PacketRef* ref, uint32_t flag, uint32_t value) {
  return ref == nullptr ? 0 : zelSttPacket_AddField(ref->payload, flag, value);
}

int32_t zelPacketRef_SetUInt64(PacketRef* ref, uint32_t flag, uint64_t value) {
  return ref == nullptr ? 0 : zelSttPacket_AddField(ref->payload, flag, value);
}

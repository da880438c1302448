#include "text_packet.h"

namespace zel::host {

std::optional<std::uint64_t> packet_field(const SttPacket& packet, std::uint32_t flag) noexcept {
  if (flag == 0) return std::nullopt;
  for (int slot = 0; slot < STT_PACKET_SLOTS; ++slot) {
    if (packet.field_flags[slot] == flag) return packet.field_values[slot];
  }
  return std::nullopt;
}

void release_packet(PacketRef* ref) noexcept {
  if (ref->ref_count == 0 || --ref->ref_count > 0) return;
  if (ref->release_callback != nullptr) ref->release_callback(ref->release_context, ref);
  PtrQueue& queue = *ref->owner_queue;
  queue.items[queue.write_index % queue.capacity] = ref;
  ++queue.write_index;
}

std::uint64_t TextPacket::field(std::uint32_t flag) const noexcept {
  return ref_ != nullptr ? packet_field(*ref_->payload, flag).value_or(0) : 0;
}

std::string_view TextPacket::text() const noexcept {
  const auto* text = reinterpret_cast<const char*>(static_cast<std::uintptr_t>(field(SttPacketField_Text)));
  return text != nullptr ? std::string_view(text, field(SttPacketField_TextLength)) : std::string_view{};
}

}  // namespace zel::host

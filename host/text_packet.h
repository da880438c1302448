// A text packet as the host receives it: read by flag, released by the documented layout.
//
// Thread rule: one thread at a time; the release must happen where the session's update cannot overlap.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "zel_rtc_speech_to_text_host.h"

namespace zel::host {

/** Value of the packet's field with this flag; nothing when no slot has it. */
std::optional<std::uint64_t> packet_field(const SttPacket& packet, std::uint32_t flag) noexcept;

/** Drops one reference; with the last one, packet and text belong to the plug-in again. Does nothing to an envelope
 * whose count is 0 already. */
void release_packet(PacketRef* ref) noexcept;

/** Holds one reference to a packet and drops it when it goes. */
class TextPacket {
 public:
  TextPacket() noexcept = default;
  /** Takes over the caller's reference; null gives an empty object. */
  explicit TextPacket(PacketRef* ref) noexcept : ref_(ref) {}
  TextPacket(TextPacket&& other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}
  TextPacket& operator=(TextPacket&& other) noexcept {
    std::swap(ref_, other.ref_);
    return *this;
  }
  ~TextPacket() {
    if (ref_ != nullptr) release_packet(ref_);
  }

  explicit operator bool() const noexcept { return ref_ != nullptr; }
  /** The text, valid as long as the reference; empty when the packet carries none. */
  std::string_view text() const noexcept;
  /** 0 when the packet does not say. */
  std::uint32_t member_id() const noexcept { return static_cast<std::uint32_t>(field(SttPacketField_MemberId)); }
  /** Microseconds from Attach to the collection of the reply; 0 when the packet does not say. */
  std::uint64_t timestamp_us() const noexcept { return field(SttPacketField_Timestamp); }

 private:
  std::uint64_t field(std::uint32_t flag) const noexcept;
  PacketRef* ref_ = nullptr;
};

}  // namespace zel::host

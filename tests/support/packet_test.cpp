#include "packet.h"

#include <cstring>

#include "scripted_host.h"

namespace {

SttPacket Used() {
  SttPacket packet;
  std::memset(static_cast<void*>(&packet), 0xCC, sizeof(packet));
  return packet;
}

TEST(SttPacket, ResetClearsWhatMarksFieldsAndNothingElse) {
  SttPacket packet = Used(), expected = packet;
  expected.field_mask = 0;
  expected.slot_marks = 0;
  std::memset(expected.field_flags, 0, sizeof(expected.field_flags));
  zelSttPacket_Reset(&packet);
  EXPECT_EQ(std::memcmp(&packet, &expected, sizeof(packet)), 0);
}

TEST(SttPacket, FillsSlotsInOrderAndRefusesDuplicates) {
  ScriptedHost host;
  SttPacket packet = Used();
  zelSttPacket_Reset(&packet);
  packet.slot_marks = 0xFF;
  PacketRef ref{};
  ref.payload = &packet;
  EXPECT_EQ(zelPacketRef_SetPointer(&ref, 1024, &host), 1);
  EXPECT_EQ(packet.slot_marks, 0xFD) << "the mark of slot 0 is bit 1";
  EXPECT_EQ(zelPacketRef_SetUInt32(&ref, 512, 0xFFFFFFFF), 1);
  EXPECT_EQ(zelPacketRef_SetUInt32(&ref, 32, 7), 1);
  EXPECT_EQ(zelPacketRef_SetUInt64(&ref, 4, 0), 1);
  EXPECT_EQ(packet.slot_marks, 0xFD);
  EXPECT_EQ(packet.field_mask, 1572u);
  const std::uint32_t flags[STT_PACKET_SLOTS] = {1024, 512, 32, 4};
  EXPECT_EQ(std::memcmp(packet.field_flags, flags, sizeof(flags)), 0);
  EXPECT_EQ(packet.field_values[0], reinterpret_cast<std::uintptr_t>(&host));
  EXPECT_EQ(packet.field_values[1], 4294967295u);
  EXPECT_TRUE(host.TakeReports().empty());

  const SttPacket before = packet;
  EXPECT_EQ(zelPacketRef_SetUInt32(&ref, 512, 1), 0);
  EXPECT_EQ(zelPacketRef_SetUInt64(&ref, 1024, 1), 0);
  EXPECT_EQ(zelPacketRef_SetPointer(&ref, 1024, &ref), 0);
  EXPECT_EQ(zelSttPacket_AddField(&packet, 0, 1), 0);
  EXPECT_EQ(zelSttPacket_AddPointerField(&packet, 0, &ref), 0);
  EXPECT_EQ(host.TakeReports(), (Reports{"0 E2022042122 -2", "0 E2022042122 -2", "0 E2021100500 -2", "0 E2022042122 -2",
                                         "0 E2021100500 -2"}));
  EXPECT_EQ(std::memcmp(&packet, &before, sizeof(packet)), 0);

  std::uint64_t value = 99;
  EXPECT_EQ(zelSttPacket_GetField(&packet, 4, &value), 1);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(zelSttPacket_GetField(&packet, 8, &value), 0);
  EXPECT_EQ(zelPacketRef_GetField(&ref, 32), 7u);
  EXPECT_EQ(zelPacketRef_GetField(&ref, 8), 0u);
  EXPECT_EQ(zelPacketRef_GetField(nullptr, 4), 0u);
  EXPECT_EQ(zelPacketRef_SetPointer(nullptr, 8, &host), 0);
  EXPECT_EQ(zelPacketRef_SetUInt32(nullptr, 8, 1), 0);
  EXPECT_EQ(zelPacketRef_SetUInt64(nullptr, 8, 1), 0);
}

TEST(SttPacket, HoldsNineFields) {
  ScriptedHost host;
  SttPacket packet{};
  for (std::uint32_t i = 0; i < STT_PACKET_SLOTS; ++i) {
    packet.slot_marks = 0xFF;
    EXPECT_EQ(
        i % 2 == 0 ? zelSttPacket_AddPointerField(&packet, 1u << i, &host) : zelSttPacket_AddField(&packet, 1u << i, i),
        1);
    const int cleared = i % 2 == 0 && i < 7 ? 2 << i : 0;
    EXPECT_EQ(packet.slot_marks, 0xFF & ~cleared) << "slot " << i;
  }
  EXPECT_EQ(zelSttPacket_AddField(&packet, 512, 1), 0);
  EXPECT_EQ(zelSttPacket_AddPointerField(&packet, 512, &host), 0);
  EXPECT_EQ(packet.field_mask, 511u);
}

}  // namespace

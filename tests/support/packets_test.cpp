// Text packets, their envelopes, and the pool that lends both.
#include <algorithm>
#include <cstring>

#include "packet.h"
#include "packet_pool.h"
#include "packet_ref.h"
#include "ptr_queue.h"
#include "scripted_host.h"

namespace {

using Called = std::vector<PacketRef*>;

void Record(void* called, PacketRef* ref) {
  EXPECT_EQ(ref->ref_count, 0u);
  static_cast<Called*>(called)->push_back(ref);
}

// A packet full of garbage, then reset; all marks set, to see which are cleared.
SttPacket FreshPacket() {
  SttPacket packet;
  std::memset(static_cast<void*>(&packet), 0xCC, sizeof(packet));
  SttPacket expected = packet;
  expected.field_mask = 0;
  expected.slot_marks = 0;
  std::memset(expected.field_flags, 0, sizeof(expected.field_flags));
  zelSttPacket_Reset(&packet);
  EXPECT_EQ(std::memcmp(&packet, &expected, sizeof(packet)), 0) << "a reset clears marks and flags, nothing else";
  packet.slot_marks = 0xFF;
  return packet;
}

TEST(SttPacket, FillsSlotsInOrderAndRefusesDuplicates) {
  ScriptedHost host;
  SttPacket packet = FreshPacket();
  PacketRef ref{};
  ref.payload = &packet;
  EXPECT_EQ(zelPacketRef_SetPointer(&ref, 1024, &host), 1);
  EXPECT_EQ(zelPacketRef_SetUInt32(&ref, 512, 0xFFFFFFFF), 1);
  EXPECT_EQ(zelPacketRef_SetUInt32(&ref, 32, 7), 1);
  EXPECT_EQ(zelPacketRef_SetUInt64(&ref, 4, 0), 1);
  EXPECT_EQ(packet.slot_marks, 0xFD) << "the mark of slot 0 is bit 1";
  EXPECT_EQ(packet.field_mask, 1572u);
  const std::uint32_t flags[STT_PACKET_SLOTS] = {1024, 512, 32, 4};
  EXPECT_EQ(std::memcmp(packet.field_flags, flags, sizeof(flags)), 0);
  EXPECT_EQ(packet.field_values[0], reinterpret_cast<std::uintptr_t>(&host));
  EXPECT_EQ(packet.field_values[1], 4294967295u);

  const SttPacket before = packet;
  EXPECT_EQ(zelPacketRef_SetUInt32(&ref, 512, 1), 0);
  EXPECT_EQ(zelPacketRef_SetUInt64(&ref, 1024, 1), 0);
  EXPECT_EQ(zelPacketRef_SetPointer(&ref, 1024, &ref), 0);
  EXPECT_EQ(zelSttPacket_AddField(&packet, 0, 1), 0);
  EXPECT_EQ(host.TakeReports(),
            (Reports{"0 E2022042122 -2", "0 E2022042122 -2", "0 E2021100500 -2", "0 E2022042122 -2"}));
  EXPECT_EQ(std::memcmp(&packet, &before, sizeof(packet)), 0);

  std::uint64_t value = 99;
  EXPECT_EQ(zelSttPacket_GetField(&packet, 8, &value), 0);
  EXPECT_EQ(zelSttPacket_GetField(&packet, 4, &value), 1);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(zelPacketRef_GetField(&ref, 32), 7u);
  EXPECT_EQ(zelPacketRef_GetField(&ref, 8) + zelPacketRef_GetField(nullptr, 4), 0u);
  EXPECT_EQ(zelPacketRef_SetPointer(nullptr, 8, &host) + zelPacketRef_SetUInt32(nullptr, 8, 1), 0);
  EXPECT_EQ(zelPacketRef_SetUInt64(nullptr, 8, 1), 0);
}

TEST(SttPacket, HoldsNineFields) {
  ScriptedHost host;
  SttPacket packet = FreshPacket();
  for (std::uint32_t i = 0; i < STT_PACKET_SLOTS; ++i) {
    packet.slot_marks = 0xFF;
    const bool pointer = i % 2 == 0;
    EXPECT_EQ(
        pointer ? zelSttPacket_AddPointerField(&packet, 1u << i, &host) : zelSttPacket_AddField(&packet, 1u << i, i),
        1);
    EXPECT_EQ(packet.slot_marks, 0xFF & ~(pointer && i < 7 ? 2 << i : 0)) << "slot " << i;
  }
  EXPECT_EQ(zelSttPacket_AddField(&packet, 512, 1) + zelSttPacket_AddPointerField(&packet, 512, &host), 0);
  EXPECT_EQ(packet.field_mask, 511u);
}

TEST(PacketRef, ReturnsWithItsLastReference) {
  ScriptedHost host;
  WorkArea area(zelPacketRefPool_CalculateWorkSize(1));
  PacketRefPool* pool = zelPacketRefPool_Create(1, area.data(), area.size());
  SttPacket packet{};
  Called called;
  const auto record = [](void* context, PacketRef* returned) {
    EXPECT_EQ(zelPacketRefPool_GetFreeCount(returned->owner_queue), 0u) << "returned before its callback";
    Record(context, returned);
  };
  EXPECT_EQ(zelPacketRefPool_Take(pool, nullptr, 0, 0, nullptr, nullptr), nullptr);
  EXPECT_EQ(zelPacketRefPool_Take(nullptr, &packet, 0, 0, nullptr, nullptr), nullptr);
  EXPECT_EQ(zelPacketRefPool_GetFreeCount(pool), 1u);
  PacketRef* ref = zelPacketRefPool_Take(pool, &packet, 3, 4, record, &called);
  const PacketRef expected = {&packet, 4, 3, 1, pool, record, &called};
  EXPECT_EQ(std::memcmp(ref, &expected, sizeof(expected)), 0);
  EXPECT_EQ(zelPacketRef_GetPacket(ref), &packet);
  zelPacketRefPool_CheckAllReturned(pool);
  EXPECT_EQ(host.TakeReports(), Reports{"0 E2021100512 -2"});
  ref->ref_count = 2;
  zelPacketRef_Release(ref);
  EXPECT_TRUE(called.empty());
  zelPacketRef_Release(ref);
  EXPECT_EQ(called, Called{ref});
  zelPacketRef_Release(zelPacketRefPool_Take(pool, &packet, 0, 0, nullptr, nullptr));  // a callback may be missing
  zelPacketRefPool_CheckAllReturned(pool);
  zelPacketRefPool_CheckAllReturned(nullptr);

  zelPacketRef_Release(ref);
  PacketRef stray{};
  stray.ref_count = 1;
  zelPacketRef_Release(&stray);
  zelPacketRef_Release(nullptr);
  EXPECT_EQ(zelPacketRef_GetPacket(nullptr), nullptr);
  EXPECT_EQ(zelPacketRefPool_GetFreeCount(nullptr), 0u);
  EXPECT_EQ(host.TakeReports(), (Reports{"0 E2021100510 -2", "0 E2021100511 -2", "0 E2021100523 -2", "0 E2021100520 -2",
                                         "0 E2021100513 -2"}));
  EXPECT_EQ(stray.ref_count, 1u);
  EXPECT_EQ(zelPacketRefPool_GetFreeCount(pool), 1u);
  EXPECT_EQ(called.size(), 1u);
}

TEST(SttPacketPool, LendsEachPacketOnceAndTakesItBack) {
  ScriptedHost host;
  WorkArea area(zelSttPacketPool_CalculateWorkSize(3)), queue_area(zelPtrQueue_CalculateWorkSize(3));
  EXPECT_EQ(zelSttPacketPool_CalculateWorkSize(0), -1);
  EXPECT_EQ(zelSttPacketPool_Create(0, area.data(), area.size()), nullptr);
  EXPECT_EQ(zelSttPacketPool_Create(3, nullptr, area.size()), nullptr);
  EXPECT_EQ(zelSttPacketPool_Create(3, area.data(), area.size() - 1), nullptr);
  SttPacketPool* pool = zelSttPacketPool_Create(3, area.data(), area.size());
  PtrQueue* out = zelPtrQueue_Create(3, queue_area.data(), queue_area.size());
  Called called;
  for (int i = 0; i < 3; ++i) {
    PacketRef* ref = zelSttPacketPool_Allocate(pool, Record, &called);
    ASSERT_NE(ref, nullptr);
    EXPECT_EQ(ref->payload, pool->packets + 2 - i) << "the highest block comes first";
    EXPECT_EQ(ref->user_value + ref->user_word, 0u);
    zelPacketRef_SetUInt32(ref, 4, 1);
    ref->payload->slot_marks = 0xFE;
    zelPtrQueue_Push(out, ref);
  }
  EXPECT_EQ(zelSttPacketPool_Allocate(pool, nullptr, nullptr), nullptr);
  EXPECT_EQ(zelSttPacketPool_Allocate(nullptr, nullptr, nullptr), nullptr);

  auto* first = static_cast<PacketRef*>(zelPtrQueue_Pop(out));
  zelPacketRef_Release(first);
  EXPECT_EQ(called, Called{first});
  zelSttPacketPool_Destroy(pool);
  EXPECT_EQ(host.TakeReports(), Reports{"0 E2021100512 -2"});
  PacketRef* again = zelSttPacketPool_Allocate(pool, nullptr, nullptr);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->payload, pool->packets + 2);
  EXPECT_EQ(again->payload->field_mask + again->payload->slot_marks, 0u);
  zelPacketRef_Release(again);
  called.clear();
  EXPECT_EQ(zelPtrQueue_ReleaseAll(out), 1u);
  EXPECT_EQ(zelPtrQueue_GetCount(out), 0u);
  EXPECT_EQ(called.size(), 2u);
  zelSttPacketPool_Destroy(pool);
  zelSttPacketPool_Destroy(nullptr);
}

}  // namespace

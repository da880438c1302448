// Text packets, their envelopes, and the pool that lends both.
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
  EXPECT_EQ(zelPacketRefPool_GetFreeCount(ref->owner_queue), 0u) << "returned before its callback";
  static_cast<Called*>(called)->push_back(ref);
}

TEST(SttPacket, FillsSlotsInOrderAndRefusesDuplicates) {
  ScriptedHost host;
  SttPacket packet, expected;
  std::memset(static_cast<void*>(&packet), 0xCC, sizeof(packet));
  expected = packet;
  zelSttPacket_Reset(&packet);
  expected.field_mask = expected.slot_marks = 0;
  std::memset(expected.field_flags, 0, sizeof(expected.field_flags));
  EXPECT_EQ(std::memcmp(&packet, &expected, sizeof(packet)), 0) << "a reset clears marks and flags, nothing else";

  PacketRef ref{};
  ref.payload = &packet;
  packet.slot_marks = 0xFF;  // to see which are cleared
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

  expected = packet;
  EXPECT_FALSE(zelPacketRef_SetUInt32(&ref, 512, 1) || zelPacketRef_SetUInt64(&ref, 1024, 1) ||
               zelPacketRef_SetPointer(&ref, 1024, &ref) || zelSttPacket_AddField(&packet, 0, 1));
  EXPECT_EQ(host.TakeReports(),
            (Reports{"0 E2022042122 -2", "0 E2022042122 -2", "0 E2021100500 -2", "0 E2022042122 -2"}));
  EXPECT_EQ(std::memcmp(&packet, &expected, sizeof(packet)), 0);

  std::uint64_t value = 99;
  EXPECT_EQ(zelSttPacket_GetField(&packet, 8, &value), 0);
  EXPECT_EQ(zelSttPacket_GetField(&packet, 4, &value), 1);
  EXPECT_EQ(value, 0u) << "a field of 0 is not an absent one";
  EXPECT_EQ(zelPacketRef_GetField(&ref, 32), 7u);
  EXPECT_EQ(zelPacketRef_GetField(&ref, 8) + zelPacketRef_GetField(nullptr, 4), 0u);
  EXPECT_FALSE(zelPacketRef_SetPointer(nullptr, 8, &host) || zelPacketRef_SetUInt32(nullptr, 8, 1) ||
               zelPacketRef_SetUInt64(nullptr, 8, 1));

  // Nine fields, seven of which have a mark; there is no tenth.
  for (int i = 4; i < STT_PACKET_SLOTS; ++i)
    EXPECT_EQ(zelSttPacket_AddPointerField(&packet, 1u << (20 + i), &host), 1);
  EXPECT_EQ(packet.slot_marks, 0xFF & ~(2 | 0xE0));
  EXPECT_EQ(zelSttPacket_AddField(&packet, 8, 1) + zelSttPacket_AddPointerField(&packet, 8, &host), 0);
  EXPECT_EQ(packet.field_mask, 1572u | 0x1F000000);
}

TEST(PacketRef, ReturnsWithItsLastReference) {
  ScriptedHost host;
  WorkArea area(zelPacketRefPool_CalculateWorkSize(1));
  PacketRefPool* pool = zelPacketRefPool_Create(1, area.data(), area.size());
  SttPacket packet{};
  Called called;
  EXPECT_EQ(zelPacketRefPool_Take(pool, nullptr, 0, 0, nullptr, nullptr), nullptr);
  EXPECT_EQ(zelPacketRefPool_Take(nullptr, &packet, 0, 0, nullptr, nullptr), nullptr);
  PacketRef* ref = zelPacketRefPool_Take(pool, &packet, 3, 4, Record, &called);
  const PacketRef expected = {&packet, 4, 3, 1, pool, Record, &called};
  EXPECT_EQ(std::memcmp(ref, &expected, sizeof(expected)), 0);
  ref->ref_count = 2;
  zelPacketRef_Release(ref);
  EXPECT_TRUE(called.empty());
  zelPacketRef_Release(ref);
  EXPECT_EQ(called, Called{ref});
  zelPacketRef_Release(zelPacketRefPool_Take(pool, &packet, 0, 0, nullptr, nullptr));  // a callback may be missing
  zelPacketRefPool_CheckAllReturned(pool);
  zelPacketRefPool_CheckAllReturned(nullptr);
  EXPECT_EQ(host.TakeReports(), Reports{});

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
  WorkArea area(zelSttPacketPool_CalculateWorkSize(2)), queue_area(zelPtrQueue_CalculateWorkSize(2));
  EXPECT_EQ(zelSttPacketPool_CalculateWorkSize(0), -1);
  EXPECT_FALSE(zelSttPacketPool_Create(0, area.data(), area.size()) || zelSttPacketPool_Create(2, nullptr, 1000) ||
               zelSttPacketPool_Create(2, area.data(), area.size() - 1));
  SttPacketPool* pool = zelSttPacketPool_Create(2, area.data(), area.size());
  PtrQueue* out = zelPtrQueue_Create(2, queue_area.data(), queue_area.size());
  PacketRef* const first = zelSttPacketPool_Allocate(pool, nullptr, nullptr);
  EXPECT_EQ(first->payload, pool->packets + 1) << "the highest block comes first";
  EXPECT_EQ(first->user_value + first->user_word, 0u);
  zelPacketRef_SetUInt32(first, 4, 1);
  first->payload->slot_marks = 0xFE;
  zelPtrQueue_Push(out, zelSttPacketPool_Allocate(pool, nullptr, nullptr));
  EXPECT_EQ(zelSttPacketPool_Allocate(pool, nullptr, nullptr), nullptr);
  EXPECT_EQ(zelSttPacketPool_Allocate(nullptr, nullptr, nullptr), nullptr);

  zelPacketRef_Release(first);
  Called called;
  PacketRef* const again = zelSttPacketPool_Allocate(pool, Record, &called);
  EXPECT_EQ(again->payload, pool->packets + 1) << "the one that came back last";
  EXPECT_EQ(again->payload->field_mask + again->payload->slot_marks, 0u);
  zelPacketRef_Release(again);
  EXPECT_EQ(called, Called{again});
  zelSttPacketPool_Destroy(pool);
  EXPECT_EQ(host.TakeReports(), Reports{"0 E2021100512 -2"}) << "one is still out";
  EXPECT_EQ(zelPtrQueue_ReleaseAll(out), 1u);
  EXPECT_EQ(zelPtrQueue_GetCount(out), 0u);
  zelSttPacketPool_Destroy(pool);
  zelSttPacketPool_Destroy(nullptr);
}

}  // namespace

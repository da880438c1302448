#include "packet_ref.h"

#include "ptr_queue.h"
#include "scripted_host.h"

namespace {

TEST(PacketRefPool, SizesFollowTheFormula) {
  const struct {
    std::uint32_t n;
    std::int32_t size;
  } cases[] = {{0, -1}, {1, 88}, {8, 480}, {38'347'921, 2'147'483'608}, {38'347'922, -1}, {UINT32_MAX, -1}};
  for (const auto& test : cases)
    EXPECT_EQ(zelPacketRefPool_CalculateWorkSize(test.n), test.size) << test.n;
}

TEST(PacketRefPool, HandsItsRecordsOutInAddressOrderAtEveryMisalignment) {
  ScriptedHost host;
  SttPacket packet{};
  const auto callback = [](void*, PacketRef*) {};
  EXPECT_EQ(zelPacketRefPool_Create(2, nullptr, 1000), nullptr);
  EXPECT_EQ(zelPacketRefPool_Create(0, &host, 1000), nullptr);
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    WorkArea area(zelPacketRefPool_CalculateWorkSize(2), misalignment);
    EXPECT_EQ(zelPacketRefPool_Create(2, area.data(), area.size() - 1), nullptr);
    PacketRefPool* pool = zelPacketRefPool_Create(2, area.data(), area.size());
    ASSERT_NE(pool, nullptr) << misalignment;
    auto* records = reinterpret_cast<PacketRef*>(pool + 1);
    EXPECT_EQ(static_cast<void*>(pool->items), static_cast<void*>(records + 2));
    EXPECT_EQ(zelPacketRefPool_Take(pool, nullptr, 0, 0, nullptr, nullptr), nullptr);
    EXPECT_EQ(zelPacketRefPool_GetFreeCount(pool), 2u);
    PacketRef* first = zelPacketRefPool_Take(pool, &packet, 3, 4, callback, &host);
    ASSERT_EQ(first, records);
    EXPECT_EQ(zelPacketRefPool_Take(pool, &packet, 0, 0, nullptr, nullptr), records + 1);
    EXPECT_EQ(zelPacketRefPool_Take(pool, &packet, 0, 0, nullptr, nullptr), nullptr);
    EXPECT_EQ(first->payload, &packet);
    EXPECT_EQ(first->user_value, 3u);
    EXPECT_EQ(first->user_word, 4u);
    EXPECT_EQ(first->ref_count, 1u);
    EXPECT_EQ(first->owner_queue, pool);
    EXPECT_EQ(first->release_callback, +callback);
    EXPECT_EQ(first->release_context, &host);
    EXPECT_EQ(zelPacketRef_GetPacket(first), &packet);
  }
  EXPECT_EQ(zelPacketRefPool_Take(nullptr, &packet, 0, 0, nullptr, nullptr), nullptr);
}

TEST(PacketRef, ReturnsWithItsLastReference) {
  ScriptedHost host;
  WorkArea area(zelPacketRefPool_CalculateWorkSize(1));
  PacketRefPool* pool = zelPacketRefPool_Create(1, area.data(), area.size());
  SttPacket packet{};
  std::vector<PacketRef*> called;
  const auto callback = [](void* context, PacketRef* ref) {
    EXPECT_EQ(zelPacketRefPool_GetFreeCount(ref->owner_queue), 0u) << "returned before its callback";
    static_cast<std::vector<PacketRef*>*>(context)->push_back(ref);
  };
  PacketRef* ref = zelPacketRefPool_Take(pool, &packet, 0, 0, callback, &called);
  zelPacketRefPool_CheckAllReturned(pool);
  EXPECT_EQ(host.TakeReports(), Reports{"0 E2021100512 -2"});
  ref->ref_count = 2;
  zelPacketRef_Release(ref);
  EXPECT_TRUE(called.empty());
  zelPacketRef_Release(ref);
  EXPECT_EQ(called, std::vector{ref});
  EXPECT_EQ(zelPacketRefPool_GetFreeCount(pool), 1u);
  zelPacketRefPool_CheckAllReturned(pool);
  zelPacketRefPool_CheckAllReturned(nullptr);

  zelPacketRef_Release(ref);
  EXPECT_EQ(host.TakeReports(), Reports{"0 E2021100510 -2"});
  PacketRef stray{};
  stray.ref_count = 1;
  zelPacketRef_Release(&stray);
  zelPacketRef_Release(nullptr);
  EXPECT_EQ(zelPacketRef_GetPacket(nullptr), nullptr);
  EXPECT_EQ(zelPacketRefPool_GetFreeCount(nullptr), 0u);
  EXPECT_EQ(host.TakeReports(),
            (Reports{"0 E2021100511 -2", "0 E2021100523 -2", "0 E2021100520 -2", "0 E2021100513 -2"}));
  EXPECT_EQ(stray.ref_count, 1u);
  EXPECT_EQ(zelPacketRefPool_GetFreeCount(pool), 1u);
  EXPECT_EQ(called.size(), 1u);
}

}  // namespace

// The queue of pointers, and the pool of envelopes, which is such a queue with records in it.
#include "packet_ref.h"
#include "ptr_queue.h"
#include "scripted_host.h"

namespace {

int g_targets[64];

// The host reads queues by their fields, so these are compared too.
TEST(PtrQueue, GivesBackWhatCameFirstUpToItsCapacity) {
  ScriptedHost host;
  for (const std::uint32_t capacity : {1u, 2u, 3u, 16u}) {
    SCOPED_TRACE("capacity " + std::to_string(capacity));
    WorkArea area(zelPtrQueue_CalculateWorkSize(capacity));
    PtrQueue* queue = zelPtrQueue_Create(capacity, area.data(), area.size());
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(queue->capacity, capacity);
    std::uint32_t pushed = 0, popped = 0;
    for (std::uint32_t round = 0; round < 40; ++round) {
      for (; pushed - popped < capacity; ++pushed)
        ASSERT_EQ(zelPtrQueue_Push(queue, &g_targets[pushed % 64]), 1u);
      ASSERT_EQ(zelPtrQueue_Push(queue, &g_targets[0]), 0u);
      ASSERT_LT(queue->read_index, capacity);
      for (std::uint32_t i = 0; i < capacity; ++i)
        ASSERT_EQ(queue->items[(queue->read_index + i) % capacity], &g_targets[(popped + i) % 64]);
      for (std::uint32_t i = 0; i <= round % capacity; ++i)
        ASSERT_EQ(zelPtrQueue_Pop(queue), &g_targets[popped++ % 64]);
      ASSERT_EQ(zelPtrQueue_GetCount(queue), pushed - popped);
    }
  }
}

TEST(PtrQueue, RefusesMisuse) {
  ScriptedHost host;
  WorkArea area(zelPtrQueue_CalculateWorkSize(1));
  PtrQueue* queue = zelPtrQueue_Create(1, area.data(), area.size());
  EXPECT_FALSE(zelPtrQueue_Push(nullptr, &host) || zelPtrQueue_Push(queue, nullptr) || zelPtrQueue_GetCount(nullptr) ||
               zelPtrQueue_ReleaseAll(nullptr) || zelPtrQueue_GetCount(queue) || zelPtrQueue_Pop(nullptr));
  EXPECT_EQ(zelPtrQueue_Pop(queue), nullptr);
  EXPECT_EQ(host.TakeReports(), (Reports{"0 E2021100516 -2", "0 E2021100516 -2", "0 E2021100514 -2", "0 E2021100519 -2",
                                         "0 E2021100518 -2"}));
}

TEST(PtrQueue, SizesEndBeforeTheyOverflow) {
  const struct {
    std::uint32_t capacity;
    std::int32_t queue, envelopes;
  } cases[] = {{0, -1, -1},
               {1, 32, 88},
               {8, 88, 480},
               {38'347'921, 306'783'392, 2'147'483'608},
               {38'347'922, 306'783'400, -1},
               {238'609'294, 1'908'874'376, -1},
               {238'609'295, -1, -1},
               {UINT32_MAX, -1, -1}};
  for (const auto& test : cases) {
    EXPECT_EQ(zelPtrQueue_CalculateWorkSize(test.capacity), test.queue) << test.capacity;
    EXPECT_EQ(zelPacketRefPool_CalculateWorkSize(test.capacity), test.envelopes) << test.capacity;
  }
}

// A queue's size holds no padding, an envelope pool's does.
TEST(PtrQueue, TakesExactlyTheMemoryOfItsSizeAtEveryMisalignment) {
  ScriptedHost host;
  EXPECT_EQ(zelPtrQueue_Create(0, &host, 1000), nullptr);
  EXPECT_EQ(zelPtrQueue_Create(3, nullptr, 48), nullptr);
  EXPECT_EQ(zelPtrQueue_GetAlignment(), 8u);
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    SCOPED_TRACE(misalignment);
    WorkArea exact(48, misalignment), roomy(48 + 7, misalignment), area(56 * 2 + 32, misalignment);
    for (const int size : {-1, 47, 48})
      EXPECT_EQ(zelPtrQueue_Create(3, exact.data(), size) != nullptr, size == 48 && misalignment == 0);
    PtrQueue* queue = zelPtrQueue_Create(3, roomy.data(), roomy.size());
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(static_cast<void*>(queue->items), static_cast<void*>(queue + 1));

    EXPECT_EQ(zelPacketRefPool_Create(2, area.data(), area.size() - 1), nullptr);
    PacketRefPool* pool = zelPacketRefPool_Create(2, area.data(), area.size());
    ASSERT_NE(pool, nullptr);
    auto* records = reinterpret_cast<PacketRef*>(pool + 1);
    EXPECT_EQ(static_cast<void*>(pool->items), static_cast<void*>(records + 2));
    SttPacket packet{};
    for (PacketRef* expected : {records, records + 1, static_cast<PacketRef*>(nullptr)})
      EXPECT_EQ(zelPacketRefPool_Take(pool, &packet, 0, 0, nullptr, nullptr), expected) << "in address order";
  }
}

}  // namespace

#include "ptr_queue.h"

#include <deque>
#include <random>

#include "packet_ref.h"
#include "scripted_host.h"

namespace {

TEST(PtrQueue, SizesFollowTheFormula) {
  const struct {
    std::uint32_t n;
    std::int32_t size;
  } cases[] = {{0, -1}, {1, 32}, {8, 88}, {238'609'294, 1'908'874'376}, {238'609'295, -1}, {UINT32_MAX, -1}};
  for (const auto& test : cases)
    EXPECT_EQ(zelPtrQueue_CalculateWorkSize(test.n), test.size) << test.n;
  EXPECT_EQ(zelPtrQueue_GetAlignment(), 8u);
}

TEST(PtrQueue, TakesExactlyAlignedMemoryOfItsSize) {
  ScriptedHost host;
  EXPECT_EQ(zelPtrQueue_Create(0, &host, 1000), nullptr);
  EXPECT_EQ(zelPtrQueue_Create(3, nullptr, 48), nullptr);
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    WorkArea exact(48, misalignment), roomy(48 + 7, misalignment);
    EXPECT_EQ(zelPtrQueue_Create(3, exact.data(), 47), nullptr);
    EXPECT_EQ(zelPtrQueue_Create(3, exact.data(), -1), nullptr);
    EXPECT_EQ(zelPtrQueue_Create(3, exact.data(), 48) != nullptr, misalignment == 0) << misalignment;
    PtrQueue* queue = zelPtrQueue_Create(3, roomy.data(), roomy.size());
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(queue) % 8, 0u);
    EXPECT_EQ(static_cast<void*>(queue->items), static_cast<void*>(queue + 1));
    EXPECT_EQ(queue->capacity, 3u);
    EXPECT_EQ(queue->read_index + queue->write_index, 0u);
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(zelPtrQueue_Push(queue, &host), 1u);
  }
}

TEST(PtrQueue, BehavesLikeABoundedFifo) {
  constexpr unsigned kSeed = 20221106;
  ScriptedHost host;
  std::mt19937 random(kSeed);
  int targets[64];
  for (std::uint32_t capacity : {1u, 2u, 3u, 16u}) {
    SCOPED_TRACE("capacity " + std::to_string(capacity) + ", seed " + std::to_string(kSeed));
    WorkArea area(zelPtrQueue_CalculateWorkSize(capacity));
    PtrQueue* queue = zelPtrQueue_Create(capacity, area.data(), area.size());
    ASSERT_NE(queue, nullptr);
    std::deque<void*> model;
    for (int step = 0; step < 3000; ++step) {
      if (random() % 2 == 0) {
        void* pointer = &targets[random() % 64];
        const bool fits = model.size() < capacity;
        ASSERT_EQ(zelPtrQueue_Push(queue, pointer), fits ? 1u : 0u);
        if (fits) model.push_back(pointer);
      } else {
        ASSERT_EQ(zelPtrQueue_Pop(queue), model.empty() ? nullptr : model.front());
        if (!model.empty()) model.pop_front();
      }
      ASSERT_EQ(zelPtrQueue_GetCount(queue), model.size());
      ASSERT_LT(queue->read_index, capacity);
      ASSERT_EQ(queue->write_index - queue->read_index, model.size());
      for (std::uint32_t i = 0; i < model.size(); ++i)
        ASSERT_EQ(queue->items[(queue->read_index + i) % capacity], model[i]);
    }
  }
}

TEST(PtrQueue, ReportsMisuse) {
  ScriptedHost host;
  WorkArea area(zelPtrQueue_CalculateWorkSize(1));
  PtrQueue* queue = zelPtrQueue_Create(1, area.data(), area.size());
  EXPECT_EQ(zelPtrQueue_Push(nullptr, &host), 0u);
  EXPECT_EQ(zelPtrQueue_Push(queue, nullptr), 0u);
  EXPECT_EQ(zelPtrQueue_Pop(nullptr), nullptr);
  EXPECT_EQ(zelPtrQueue_GetCount(nullptr), 0u);
  EXPECT_EQ(zelPtrQueue_ReleaseAll(nullptr), 0u);
  EXPECT_EQ(host.TakeReports(), (Reports{"0 E2021100516 -2", "0 E2021100516 -2", "0 E2021100518 -2", "0 E2021100514 -2",
                                         "0 E2021100519 -2"}));
  EXPECT_EQ(zelPtrQueue_GetCount(queue), 0u);
}

TEST(PtrQueue, ReleasesEveryEntry) {
  ScriptedHost host;
  WorkArea pool_area(zelPacketRefPool_CalculateWorkSize(3)), queue_area(zelPtrQueue_CalculateWorkSize(3));
  PacketRefPool* pool = zelPacketRefPool_Create(3, pool_area.data(), pool_area.size());
  PtrQueue* queue = zelPtrQueue_Create(3, queue_area.data(), queue_area.size());
  SttPacket packet{};
  for (int i = 0; i < 3; ++i)
    zelPtrQueue_Push(queue, zelPacketRefPool_Take(pool, &packet, 0, 0, nullptr, nullptr));
  EXPECT_EQ(zelPacketRefPool_GetFreeCount(pool), 0u);
  EXPECT_EQ(zelPtrQueue_ReleaseAll(queue), 1u);
  EXPECT_EQ(zelPtrQueue_GetCount(queue), 0u);
  EXPECT_EQ(zelPacketRefPool_GetFreeCount(pool), 3u);
}

}  // namespace

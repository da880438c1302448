// The stack and the queue of pointers, and the pool of envelopes, which is such a queue with records in it.
#include <algorithm>
#include <deque>
#include <random>

#include "packet_ref.h"
#include "ptr_queue.h"
#include "ptr_stack.h"
#include "scripted_host.h"

namespace {

constexpr unsigned kSeed = 20221106;
int g_targets[64];

TEST(PtrStack, BehavesLikeABoundedStack) {
  std::mt19937 random(kSeed);
  for (const std::uint32_t capacity : {0u, 1u, 2u, 7u}) {
    SCOPED_TRACE("capacity " + std::to_string(capacity));
    void* items[8] = {};
    PtrStack stack = {nullptr, 99, 99};
    zelPtrStack_Init(&stack, items, capacity);
    std::vector<void*> model;
    for (int step = 0; step < 2000; ++step) {
      if (random() % 2 == 0) {
        void* pointer = random() % 8 == 0 ? nullptr : &g_targets[random() % 64];
        const bool fits = pointer != nullptr && model.size() < capacity;
        ASSERT_EQ(zelPtrStack_Push(&stack, pointer), fits ? 1u : 0u);
        if (fits) model.push_back(pointer);
      } else {
        ASSERT_EQ(zelPtrStack_Pop(&stack), model.empty() ? nullptr : model.back());
        if (!model.empty()) model.pop_back();
      }
      ASSERT_EQ(zelPtrStack_GetCount(&stack), model.size());
    }
    EXPECT_EQ(items[capacity], nullptr) << "written behind the items";
    zelPtrStack_Destroy(&stack);
    EXPECT_EQ(zelPtrStack_GetCount(&stack), model.size());
  }
}

// The host reads queues by their fields, so these are compared too.
TEST(PtrQueue, BehavesLikeABoundedFifo) {
  ScriptedHost host;
  std::mt19937 random(kSeed);
  for (const std::uint32_t capacity : {1u, 2u, 3u, 16u}) {
    SCOPED_TRACE("capacity " + std::to_string(capacity));
    WorkArea area(zelPtrQueue_CalculateWorkSize(capacity));
    PtrQueue* queue = zelPtrQueue_Create(capacity, area.data(), area.size());
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(queue->capacity, capacity);
    std::deque<void*> model;
    for (int step = 0; step < 3000; ++step) {
      if (random() % 2 == 0) {
        void* pointer = &g_targets[random() % 64];
        const bool fits = model.size() < capacity;
        ASSERT_EQ(zelPtrQueue_Push(queue, pointer), fits ? 1u : 0u);
        if (fits) model.push_back(pointer);
      } else {
        ASSERT_EQ(zelPtrQueue_Pop(queue), model.empty() ? nullptr : model.front());
        if (!model.empty()) model.pop_front();
      }
      ASSERT_EQ(zelPtrQueue_GetCount(queue), model.size());
      ASSERT_LT(queue->read_index, capacity);
      for (std::uint32_t i = 0; i < model.size(); ++i)
        ASSERT_EQ(queue->items[(queue->read_index + i) % capacity], model[i]);
    }
  }
  EXPECT_EQ(zelPtrQueue_Push(nullptr, &host) + zelPtrQueue_GetCount(nullptr) + zelPtrQueue_ReleaseAll(nullptr), 0u);
  EXPECT_EQ(zelPtrQueue_Pop(nullptr), nullptr);
  WorkArea area(zelPtrQueue_CalculateWorkSize(1));
  PtrQueue* queue = zelPtrQueue_Create(1, area.data(), area.size());
  EXPECT_EQ(zelPtrQueue_Push(queue, nullptr) + zelPtrQueue_GetCount(queue), 0u);
  Reports reports = host.TakeReports();
  std::ranges::sort(reports);
  EXPECT_EQ(reports, (Reports{"0 E2021100514 -2", "0 E2021100516 -2", "0 E2021100516 -2", "0 E2021100518 -2",
                              "0 E2021100519 -2"}));
}

TEST(PtrQueue, SizesEndBeforeTheyOverflow) {
  const struct {
    std::int32_t (*size_of)(std::uint32_t);
    std::uint32_t capacity;
    std::int32_t size;
  } cases[] = {{zelPtrQueue_CalculateWorkSize, 0, -1},
               {zelPtrQueue_CalculateWorkSize, 1, 32},
               {zelPtrQueue_CalculateWorkSize, 8, 88},
               {zelPtrQueue_CalculateWorkSize, 238'609'294, 1'908'874'376},
               {zelPtrQueue_CalculateWorkSize, 238'609'295, -1},
               {zelPtrQueue_CalculateWorkSize, UINT32_MAX, -1},
               {zelPacketRefPool_CalculateWorkSize, 0, -1},
               {zelPacketRefPool_CalculateWorkSize, 1, 88},
               {zelPacketRefPool_CalculateWorkSize, 8, 480},
               {zelPacketRefPool_CalculateWorkSize, 38'347'921, 2'147'483'608},
               {zelPacketRefPool_CalculateWorkSize, 38'347'922, -1},
               {zelPacketRefPool_CalculateWorkSize, UINT32_MAX, -1}};
  for (const auto& test : cases)
    EXPECT_EQ(test.size_of(test.capacity), test.size) << "case " << &test - cases;
}

// A queue's size holds no padding, an envelope pool's does.
TEST(PtrQueue, TakesExactlyTheMemoryOfItsSizeAtEveryMisalignment) {
  ScriptedHost host;
  EXPECT_EQ(zelPtrQueue_Create(0, &host, 1000), nullptr);
  EXPECT_EQ(zelPtrQueue_Create(3, nullptr, 48), nullptr);
  EXPECT_EQ(zelPacketRefPool_Create(0, &host, 1000), nullptr);
  EXPECT_EQ(zelPacketRefPool_Create(2, nullptr, 1000), nullptr);
  EXPECT_EQ(zelPtrQueue_GetAlignment(), 8u);
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    SCOPED_TRACE(misalignment);
    WorkArea exact(48, misalignment), roomy(48 + 7, misalignment);
    EXPECT_EQ(zelPtrQueue_Create(3, exact.data(), 47), nullptr);
    EXPECT_EQ(zelPtrQueue_Create(3, exact.data(), -1), nullptr);
    EXPECT_EQ(zelPtrQueue_Create(3, exact.data(), 48) != nullptr, misalignment == 0);
    PtrQueue* queue = zelPtrQueue_Create(3, roomy.data(), roomy.size());
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(static_cast<void*>(queue->items), static_cast<void*>(queue + 1));

    WorkArea area(zelPacketRefPool_CalculateWorkSize(2), misalignment);
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

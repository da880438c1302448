#include "ptr_stack.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

TEST(PtrStack, BehavesLikeABoundedStack) {
  constexpr unsigned kSeed = 20230503;
  std::mt19937 random(kSeed);
  for (std::uint32_t capacity : {0u, 1u, 2u, 7u}) {
    SCOPED_TRACE("capacity " + std::to_string(capacity) + ", seed " + std::to_string(kSeed));
    void* items[8] = {};
    PtrStack stack = {nullptr, 99, 99};
    zelPtrStack_Init(&stack, items, capacity);
    std::vector<void*> model;
    int targets[64];
    for (int step = 0; step < 2000; ++step) {
      if (random() % 2 == 0) {
        void* pointer = random() % 8 == 0 ? nullptr : &targets[random() % 64];
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

}  // namespace

// A bounded last-in-first-out stack of pointers over the caller's array. No locks, no messages. Inline, because calls
// cost more than what they would do.
#pragma once

#include <cstdint>

struct PtrStack {
  void** items;            // the caller's; entries 0 to count - 1 are in use
  std::uint32_t capacity;  // entries of `items`
  std::uint32_t count;
};

inline void zelPtrStack_Init(PtrStack* stack, void** items, std::uint32_t capacity) {
  *stack = {items, capacity, 0};
}

// 1; 0 when the pointer is null or the stack is full.
inline std::uint32_t zelPtrStack_Push(PtrStack* stack, void* pointer) {
  if (pointer == nullptr || stack->count >= stack->capacity) return 0;
  stack->items[stack->count++] = pointer;
  return 1;
}

// The top pointer, or null when empty.
inline void* zelPtrStack_Pop(PtrStack* stack) {
  return stack->count == 0 ? nullptr : stack->items[--stack->count];
}

inline std::uint32_t zelPtrStack_GetCount(const PtrStack* stack) {
  return stack->count;
}

// Nothing to release.
inline void zelPtrStack_Destroy(PtrStack*) {}

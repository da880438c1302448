// A bounded last-in-first-out stack of pointers over the caller's array. No locks, no messages.
#pragma once

#include <cstdint>

struct PtrStack {
  void** items;            // the caller's; entries 0 to count - 1 are in use
  std::uint32_t capacity;  // entries of `items`
  std::uint32_t count;
};

void zelPtrStack_Init(PtrStack* stack, void** items, std::uint32_t capacity);

// 1; 0 when the pointer is null or the stack is full.
std::uint32_t zelPtrStack_Push(PtrStack* stack, void* pointer);

// The top pointer, or null when empty.
void* zelPtrStack_Pop(PtrStack* stack);

std::uint32_t zelPtrStack_GetCount(const PtrStack* stack);

// Nothing to release.
void zelPtrStack_Destroy(PtrStack* stack);

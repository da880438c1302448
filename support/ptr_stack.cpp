#include "ptr_stack.h"

void zelPtrStack_Init(PtrStack* stack, void** items, std::uint32_t capacity) {
  *stack = {items, capacity, 0};
}

std::uint32_t zelPtrStack_Push(PtrStack* stack, void* pointer) {
  if (pointer == nullptr || stack->count >= stack->capacity) return 0;
  stack->items[stack->count++] = pointer;
  return 1;
}

void* zelPtrStack_Pop(PtrStack* stack) {
  return stack->count == 0 ? nullptr : stack->items[--stack->count];
}

std::uint32_t zelPtrStack_GetCount(const PtrStack* stack) {
  return stack->count;
}

void zelPtrStack_Destroy(PtrStack*) {}

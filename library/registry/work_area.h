// Where the memory of the library and of each session comes from: the application's own work area, or the allocation
// functions that it registered.
//
// Thread rule: the record is written by the registration exports only, which overlap nothing.
#pragma once

#include "zel_base_rtc_bridge.h"

// The application's allocation functions, kept by the host; all zero when the library is loaded.
extern ZelUserAllocatorRecord zel_user_allocator;

struct SttWorkArea {
  void* memory;
  int32_t size;  // bytes
  void* own;     // `memory` when it was allocated here and is to be returned, otherwise null
};

// Identifiers of what can go wrong.
struct WorkAreaReports {
  const char* too_small;     // supplied area below the required size: code -2
  const char* no_functions;  // finished message: no allocation functions registered
  const char* no_memory;     // the allocation function returned null: code -3
};

// Takes the supplied area, or, when `work` is null or `work_size` 0, allocates `required` bytes. False after a report.
bool zelWorkArea_Obtain(void* work, int32_t work_size, int32_t required, const WorkAreaReports& reports,
                        SttWorkArea* area);

// Returns what was allocated; nothing for null.
void zelWorkArea_Return(void* own);

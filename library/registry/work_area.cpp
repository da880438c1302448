#include "work_area.h"

#include "bridge.h"

ZelUserAllocatorRecord zel_user_allocator;

bool zelWorkArea_Obtain(void* work, int32_t work_size, int32_t required, const WorkAreaReports& reports,
                        SttWorkArea* area) {
  if (work != nullptr && work_size != 0) {
    *area = {work, work_size, nullptr};
    return !zelErr_Refuse(work_size < required, reports.too_small);
  }
  if (zelUserAllocator_IsSet(&zel_user_allocator) == 0) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, reports.no_functions);
    return false;
  }
  void* own = zelUserAllocator_Allocate(&zel_user_allocator, static_cast<uint32_t>(required));
  *area = {own, required, own};
  if (own == nullptr) zelErr_NotifyParam(ZEL_ERR_LEVEL_ERROR, reports.no_memory, ZEL_ERR_ALLOCATION);
  return own != nullptr;
}

void zelWorkArea_Return(void* own) {
  if (own != nullptr) zelUserAllocator_Free(&zel_user_allocator, own);
}

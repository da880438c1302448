#include "session_registry.h"

#include "bridge.h"
#include "zel_rtc_speech_to_text.h"

namespace {

struct SttRegistry {
  SttRegistryLink* head;
  SttRegistryLink* tail;
  uint32_t count;
  void* mutex;  // guards the fields above
};

struct ClockConfig {
  uint32_t check_value;
};

constexpr uint32_t kClockCheckValue = 4;
constexpr ClockConfig kClockConfig = {kClockCheckValue};

SttRegistry* g_registry;

uint32_t StartClock(const ClockConfig* config) {
  if (zelErr_Refuse(config == nullptr, "E2022111402")) return 0;
  if (zelErr_Refuse(config->check_value != kClockCheckValue, "E2022111701")) return 0;
  zelTimer_Initialize();
  return 1;
}

void StopClock() {
  zelTimer_Finalize();
}

// Carves the registry and its mutex and starts the clock; null after a report.
SttRegistry* Build(ZelFixedAllocatorRecord* carving) {
  auto* registry = static_cast<SttRegistry*>(zelFixedAllocator_Allocate(carving, sizeof(SttRegistry), 8));
  if (registry == nullptr) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022111472:ZelRtcSpeechToTextSesion is failed to initialize.");
    return nullptr;
  }
  *registry = {};
  void* mutex_work = zelFixedAllocator_Allocate(carving, ZEL_HOST_OBJECT_WORK_SIZE, 1);
  registry->mutex = zelMutex_Create(mutex_work, ZEL_HOST_OBJECT_WORK_SIZE);
  if (registry->mutex == nullptr) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022111473:ZelRtcSpeechToTextSesion is failed to initialize.");
    return nullptr;
  }
  if (StartClock(&kClockConfig) != 1) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022111474:ZelRtcSpeechToTextSesion is failed to initialize.");
    zelMutex_Destroy(registry->mutex);
    return nullptr;
  }
  return registry;
}

}  // namespace

int32_t zelSttRegistry_CalculateWorkSize(const SttRegistryConfig* config) {
  if (zelErr_Refuse(config == nullptr, "E2022111443")) return -1;
  ZelWorkSizeRecord size;
  zelWorkSize_Begin(&size);
  zelWorkSize_Add(&size, sizeof(SttRegistry), 1, 8);
  zelWorkSize_Add(&size, ZEL_HOST_OBJECT_WORK_SIZE, 1, 1);
  return zelWorkSize_Result(&size);
}

uint32_t zelSttRegistry_Initialize(const SttRegistryConfig* config, void* work, uint32_t work_size) {
  if (g_registry != nullptr) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022111448:ZelRtcspeechToTextSession is already initialized.");
    return 0;
  }
  if (zelErr_Refuse(config == nullptr, "E2022111444") || zelErr_Refuse(work == nullptr, "E2022111445")) return 0;
  ZelFixedAllocatorRecord carving;
  zelFixedAllocator_Create(work, static_cast<int32_t>(work_size), &carving);
  g_registry = Build(&carving);
  zelFixedAllocator_Destroy(&carving);
  if (g_registry == nullptr) return 0;
  zelTimer_Initialize();
  return 1;
}

uint32_t zelSttRegistry_Finalize() {
  if (g_registry == nullptr) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022111449:ZelRtcspeechToTextSession is not initialized.");
    return 1;
  }
  zelTimer_Finalize();
  for (SttRegistryLink* link = g_registry->head; link != nullptr;) {
    SttRegistryLink* next = link->next;
    zelRtcSpeechToTextSession_Destroy(link->item);
    link = next;
  }
  if (g_registry->count > 0) {
    zelTimer_Initialize();
    return 0;
  }
  zelMutex_Destroy(g_registry->mutex);
  StopClock();
  g_registry = nullptr;
  return 1;
}

bool zelSttRegistry_Exists() {
  return g_registry != nullptr;
}

void zelSttRegistry_Append(SttRegistryLink* link) {
  zelMutex_Lock(g_registry->mutex);
  if (g_registry->tail != nullptr) {
    g_registry->tail->next = link;
  } else {
    g_registry->head = link;
  }
  g_registry->tail = link;
  g_registry->count += 1;
  zelMutex_Unlock(g_registry->mutex);
}

void zelSttRegistry_Unlink(SttRegistryLink* link) {
  zelMutex_Lock(g_registry->mutex);
  SttRegistryLink* previous = nullptr;
  SttRegistryLink* current = g_registry->head;
  while (current != nullptr && current != link) {
    previous = current;
    current = current->next;
  }
  if (current != nullptr) {
    if (previous != nullptr) {
      previous->next = link->next;
    } else {
      g_registry->head = link->next;
    }
    if (g_registry->tail == link) g_registry->tail = previous;
    g_registry->count -= 1;
  }
  link->next = nullptr;
  zelMutex_Unlock(g_registry->mutex);
}

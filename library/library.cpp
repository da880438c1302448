// The library as a whole: configuration, initialization, finalization, version, and the application's allocation
// functions.
//
// Thread rule: nothing here locks; the application serializes these calls with one another and with every session call.
#include <cstring>

#include "bridge.h"
#include "session_registry.h"
#include "work_area.h"
#include "zel_rtc_speech_to_text.h"

namespace {

constexpr char kVersion[] = ZEL_RTC_SPEECH_TO_TEXT_VERSION;
constexpr char kReportedVersion[] = "1.2.147-1.7";
constexpr char kBanner[] =
    "\nZEL Rtc SpeechToText/PCx64 Ver." ZEL_RTC_SPEECH_TO_TEXT_VERSION " Build:" __DATE__ " " __TIME__ "\n";

constexpr WorkAreaReports kWorkAreaReports = {
    .too_small = "E2022101106",
    .no_functions = "E2022101104:User allocator function has not been set.",
    .no_memory = "E2022101105",
};

uint32_t g_initialized;
void* g_own_work;

// `message` takes the library's version and the configuration's.
bool CheckVersion(const ZelRtcSpeechToTextConfig* config, const char* message) {
  if (config == nullptr) return true;
  const char* version = config->version != nullptr ? config->version : "";
  if (std::strcmp(version, kVersion) == 0) return true;
  zelErr_Notify2(ZEL_ERR_LEVEL_ERROR, message, zelErr_Argument(kReportedVersion), zelErr_Argument(version));
  return false;
}

int32_t WorkSize(int32_t registry_size) {
  if (registry_size < 0) return -1;
  ZelWorkSizeRecord size;
  zelWorkSize_Begin(&size);
  zelWorkSize_Add(&size, registry_size, 1, 1);
  return zelWorkSize_Result(&size);
}

// The registry's work size; negative after a report.
int32_t RegistrySize() {
  const int32_t size = zelSttRegistry_CalculateWorkSize(&kSttRegistryConfig);
  if (size < 0) zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022111475:ZelRtcSpeechToText is failed to initialize.");
  return size;
}

bool BuildRegistry(ZelFixedAllocatorRecord* carving) {
  const int32_t size = RegistrySize();
  if (size < 0) return false;
  void* work = zelFixedAllocator_Allocate(carving, static_cast<uint32_t>(size), 1);
  if (zelSttRegistry_Initialize(&kSttRegistryConfig, work, static_cast<uint32_t>(size)) == 1) return true;
  zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022111476:ZelRtcSpeechToText is failed to initialize.");
  return false;
}

bool BuildLibrary(const SttWorkArea& area) {
  zelMemory_Clear(area.memory, static_cast<uint64_t>(area.size));
  ZelFixedAllocatorRecord carving;
  zelFixedAllocator_Create(area.memory, area.size, &carving);
  const bool built = BuildRegistry(&carving);
  zelFixedAllocator_Destroy(&carving);
  return built;
}

}  // namespace

void zelRtcSpeechToText_SetDefaultConfig(ZelRtcSpeechToTextConfig* config) {
  if (config != nullptr) *config = {.version = kVersion, .reserved = sizeof(ZelRtcSpeechToTextConfig)};
}

int32_t zelRtcSpeechToText_CalculateWorkSize(const ZelRtcSpeechToTextConfig* config) {
  if (!zelBridge_IsInstalled()) return -1;
  if (!CheckVersion(config,
                    "E2022101100:Mismatch between ZEL Rtc SpeechToText header version and linked library version. "
                    "(Library version is %s, but the specified version is %s.)")) {
    return -1;
  }
  return WorkSize(zelSttRegistry_CalculateWorkSize(&kSttRegistryConfig));
}

uint32_t zelRtcSpeechToText_Initialize(const ZelRtcSpeechToTextConfig* config, void* work, int32_t work_size) {
  if (!zelBridge_IsInstalled()) return 0;
  if (g_initialized != 0) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022101101:ZEL Rtc SpeechToText Library is initialized.");
    return 0;
  }
  if (!CheckVersion(config,
                    "E2022101102:Mismatch between ZEL Rtc SpeechToText header version and linked library version. "
                    "(Library version is %s, but the specified version is %s.)")) {
    return 0;
  }
  const int32_t required = WorkSize(RegistrySize());
  if (required < 0) return 0;
  SttWorkArea area;
  if (!zelWorkArea_Obtain(work, work_size, required, kWorkAreaReports, &area)) return 0;
  if (!BuildLibrary(area)) {
    zelWorkArea_Return(area.own);
    return 0;
  }
  g_own_work = area.own;
  g_initialized = 1;
  return 1;
}

void zelRtcSpeechToText_Finalize(void) {
  if (!zelBridge_IsInstalled()) return;
  if (g_initialized == 0) {
    zelErr_NotifyParam(ZEL_ERR_LEVEL_ERROR, "E2022101103", ZEL_ERR_NOT_INITIALIZED);
    return;
  }
  if (zelSttRegistry_Finalize() == 0) return;
  zelWorkArea_Return(g_own_work);
  g_own_work = nullptr;
  g_initialized = 0;
}

uint32_t zelRtcSpeechToText_IsInitialized(void) {
  return g_initialized;
}

const char* zelRtcSpeechToText_GetLibraryVersionString(void) {
  return kBanner + 1;
}

void zelRtcSpeechToText_SetUserMallocFunction(ZelUserMallocFunction function, void* object) {
  if (zelBridge_IsInstalled()) zelUserAllocator_SetMalloc(&zel_user_allocator, function, object);
}

void zelRtcSpeechToText_SetUserFreeFunction(ZelUserFreeFunction function, void* object) {
  if (zelBridge_IsInstalled()) zelUserAllocator_SetFree(&zel_user_allocator, function, object);
}

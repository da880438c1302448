/* Walks the public interface: every function by its type, and the language codes. The headers pin the layouts.
 * It is enough that this compiles, as C and, through interface.cpp, as C++. */
#include "zel_rtc_speech_to_text_host.h"
/* After its dependant on purpose. */
#include "zel_base_rtc_bridge.h"
#include "zel_rtc_speech_to_text.h"

const struct {
  void (*set_bridge)(const ZelBaseRtcBridgeInterface*);
  void (*set_default_config)(ZelRtcSpeechToTextConfig*);
  int32_t (*calculate_work_size)(const ZelRtcSpeechToTextConfig*);
  uint32_t (*initialize)(const ZelRtcSpeechToTextConfig*, void*, int32_t);
  void (*finalize)(void);
  uint32_t (*is_initialized)(void);
  const char* (*get_version_string)(void);
  void (*set_user_malloc)(void* (*)(void*, uint32_t), void*);
  void (*set_user_free)(void (*)(void*, void*), void*);
  void (*session_set_default_config)(ZelRtcSpeechToTextSessionConfig*);
  int32_t (*session_calculate_work_size)(const ZelRtcSpeechToTextSessionConfig*);
  struct SttSession* (*session_create)(const ZelRtcSpeechToTextSessionConfig*, void*, int32_t);
  uint32_t (*session_destroy)(struct SttSession*);
  uint32_t (*session_enable)(struct SttSession*, const char*, uint32_t);
  uint32_t (*session_is_enabled)(struct SttSession*, const char*);
  uint32_t (*session_set_language)(struct SttSession*, const char*, uint32_t);
  int32_t (*session_get_language)(struct SttSession*, const char*);
} zel_interface = {zelRtcSpeechToText_SetBaseRtcBridgeInterface,
                   zelRtcSpeechToText_SetDefaultConfig,
                   zelRtcSpeechToText_CalculateWorkSize,
                   zelRtcSpeechToText_Initialize,
                   zelRtcSpeechToText_Finalize,
                   zelRtcSpeechToText_IsInitialized,
                   zelRtcSpeechToText_GetLibraryVersionString,
                   zelRtcSpeechToText_SetUserMallocFunction,
                   zelRtcSpeechToText_SetUserFreeFunction,
                   zelRtcSpeechToTextSession_SetDefaultConfig,
                   zelRtcSpeechToTextSession_CalculateWorkSize,
                   zelRtcSpeechToTextSession_Create,
                   zelRtcSpeechToTextSession_Destroy,
                   zelRtcSpeechToTextSession_EnableMember,
                   zelRtcSpeechToTextSession_IsEnabledMember,
                   zelRtcSpeechToTextSession_SetLanguage,
                   zelRtcSpeechToTextSession_GetLanguage};

ZEL_STATIC_ASSERT(ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_JA_JP == 0 && ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_EN_US == 1 &&
                      ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_ZH_CN == 2,
                  "a language has another code");

/* Walks the public interface: every function by its type, every slot and record that a host calls or reads by its
 * number. Compiled as C and, through layout_test.cpp, as C++. */
#include <stdio.h>
#include <string.h>

#include "zel_rtc_speech_to_text_host.h"
/* After its dependant on purpose. */
#include "zel_base_rtc_bridge.h"
#include "zel_rtc_speech_to_text.h"

/* A wrong type of any member does not compile. */
static const struct {
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
} api = {zelRtcSpeechToText_SetBaseRtcBridgeInterface,
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

#define BYTE_OF(record, field) (int)offsetof(record, field)
#define SLOT_OF(record, field) (int)(offsetof(record, field) / 8)

static const struct {
  int is, must_be;
} numbers[] = {
    {(int)sizeof(BridgeTable), 88 * 8},
    {BYTE_OF(ZelBaseRtcBridgeInterface, table), 8},
    {SLOT_OF(SttSessionInterface, Update), 0},
    {SLOT_OF(SttSessionInterface, Attach), 1},
    {SLOT_OF(SttSessionInterface, Detach), 2},
    {SLOT_OF(SttSessionInterface, IsAttached), 3},
    {SLOT_OF(SttSessionInterface, AcquireRecognizer), 4},
    {SLOT_OF(SttSessionInterface, ReleaseRecognizer), 5},
    {SLOT_OF(SttSessionInterface, ReleaseAllRecognizers), 6},
    {SLOT_OF(SttSessionInterface, ResetRecognizersA), 7},
    {SLOT_OF(SttSessionInterface, ResetRecognizersB), 8},
    {SLOT_OF(SttSessionInterface, SetAccessToken), 9},
    {SLOT_OF(SttSessionInterface, SetEndpointUrl), 10},
    {(int)sizeof(SttSessionInterface), 11 * 8},
    {SLOT_OF(SttRecognizerInterface, SetMemberId), 0},
    {SLOT_OF(SttRecognizerInterface, SetClientId), 1},
    {SLOT_OF(SttRecognizerInterface, PutAudioFrame), 2},
    {SLOT_OF(SttRecognizerInterface, PopTextPacket), 3},
    {BYTE_OF(SttSession, interface_table), 8},
    {BYTE_OF(SttSession, body), 16},
    {(int)sizeof(SttSession), 40},
    {(int)sizeof(SttPacket), 136},
    {BYTE_OF(SttPacket, field_values), 48},
    {(int)sizeof(PacketRef), 48},
    {BYTE_OF(PacketRef, ref_count), 20},
    {BYTE_OF(PacketRef, owner_queue), 24},
    {BYTE_OF(PtrQueue, write_index), 16},
    {ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_JA_JP, 0},
    {ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_EN_US, 1},
    {ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_ZH_CN, 2},
    {SttPacketField_Timestamp | SttPacketField_MemberId | SttPacketField_TextLength | SttPacketField_Text, 1572}};

int main(void) {
  int faults = 0;
  for (size_t i = 0; i < sizeof numbers / sizeof numbers[0]; ++i) {
    if (numbers[i].is == numbers[i].must_be) continue;
    printf("entry %d: %d instead of %d\n", (int)i, numbers[i].is, numbers[i].must_be);
    ++faults;
  }
  ZelRtcSpeechToTextConfig config;
  ZelRtcSpeechToTextSessionConfig session;
  api.set_default_config(&config);
  api.session_set_default_config(&session);
  if (strcmp(config.version, ZEL_RTC_SPEECH_TO_TEXT_VERSION) != 0 || session.max_text_message_size != 1200 ||
      api.is_initialized() != 0 || strstr(api.get_version_string(), ZEL_RTC_SPEECH_TO_TEXT_VERSION) == NULL) {
    printf("the library is not the one that the headers describe\n");
    ++faults;
  }
  return faults;
}

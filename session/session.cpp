// The session API: creation with all recognizers, destruction, and the application's operations on members.
#include <cstring>

#include "bridge.h"
#include "recognizer.h"
#include "session_body.h"
#include "session_interface.h"
#include "session_registry.h"
#include "work_area.h"
#include "zel_rtc_speech_to_text.h"

namespace {

constexpr uint16_t kMinQueueingMessages = 4;
constexpr ZelRtcSpeechToTextSessionConfig kDefaultConfig = {
    .max_queueing_messages = 16, .max_text_message_size = 1200, .reserved = 20000, .max_identifiable_members = 16};

constexpr WorkAreaReports kWorkAreaReports = {
    .too_small = "E2022102103",
    .no_functions = "E2022102101:User allocator function has not been set.",
    .no_memory = "E2022102102",
};

// Every rule is checked, so that the application hears of all violations at once.
bool CheckConfig(const ZelRtcSpeechToTextSessionConfig& config) {
  const struct {
    bool violated;
    const char* message;
    uint64_t value;
  } rules[] = {
      {config.max_queueing_messages < kMinQueueingMessages,
       "E2022102522:Please increase ZelRtcSpeechToTextSessionConfig::max_queueing_messages.",
       config.max_queueing_messages},
      {config.max_text_message_size == 0,
       "E2022102523:Please increase ZelRtcSpeechToTextSessionConfig::max_text_message_size.",
       config.max_text_message_size},
      {config.max_identifiable_members == 0,
       "E2022102525:Please increase ZelRtcSpeechToTextSessionConfig::max_identifiable_members.",
       config.max_identifiable_members},
  };
  bool sound = true;
  for (const auto& rule : rules) {
    if (!rule.violated) continue;
    zelErr_Notify1(ZEL_ERR_LEVEL_ERROR, rule.message, rule.value);
    sound = false;
  }
  return sound;
}

SttRecognizerConfig RecognizerConfig(const ZelRtcSpeechToTextSessionConfig& config) {
  return {
      .check_value = kSttRecognizerConfigCheckValue,
      .max_queueing_messages = config.max_queueing_messages,
      .max_text_message_size = config.max_text_message_size,
      .reserved = config.reserved,
  };
}

int32_t MemberCount(const ZelRtcSpeechToTextSessionConfig& config) {
  return static_cast<int32_t>(config.max_identifiable_members);
}

// Carves record and body and fills them; null when a carve fails.
SttSession* BuildRecords(ZelFixedAllocatorRecord* carving, void* own_work) {
  auto* session = static_cast<SttSession*>(zelFixedAllocator_Allocate(carving, sizeof(SttSession), 8));
  if (session == nullptr) return nullptr;
  auto* body = static_cast<SttSessionBody*>(zelFixedAllocator_Allocate(carving, sizeof(SttSessionBody), 8));
  if (body == nullptr) return nullptr;
  *session = {own_work, &zel_stt_session_interface, body, {session, nullptr}};
  return session;
}

bool CreateRecognizer(ZelFixedAllocatorRecord* carving, const SttRecognizerConfig& config, int32_t size,
                      SttSessionBody* body) {
  auto* node = static_cast<SttRecognizerNode*>(zelFixedAllocator_Allocate(carving, sizeof(SttRecognizerNode), 8));
  if (node == nullptr) return false;
  // Without an area the recognizer reports that there is none.
  void* work = zelFixedAllocator_Allocate(carving, static_cast<uint32_t>(size), 1);
  SttRecognizerHn recognizer = zelSttRecognizer_Create(&config, work, size);
  if (recognizer == nullptr) return false;
  zelSttRecognizer_SetAuthorization(recognizer, body->authorization);
  node->recognizer = recognizer;
  zelSttRecognizerList_Append(&body->free_list, node);
  return true;
}

// Gives the body its mutex and its recognizers.
bool BuildBody(ZelFixedAllocatorRecord* carving, const ZelRtcSpeechToTextSessionConfig& config, SttSessionBody* body) {
  void* mutex_work = zelFixedAllocator_Allocate(carving, ZEL_HOST_OBJECT_WORK_SIZE, 1);
  body->mutex = zelMutex_Create(mutex_work, ZEL_HOST_OBJECT_WORK_SIZE);
  if (body->mutex == nullptr) return false;
  const SttRecognizerConfig recognizer_config = RecognizerConfig(config);
  const int32_t size = zelSttRecognizer_CalculateWorkSize(&recognizer_config);
  if (size < 0) return false;
  for (int32_t i = 0; i < MemberCount(config); ++i) {
    if (!CreateRecognizer(carving, recognizer_config, size, body)) return false;
  }
  return true;
}

SttSession* BuildSession(const ZelRtcSpeechToTextSessionConfig& config, const SttWorkArea& area) {
  zelMemory_Clear(area.memory, static_cast<uint64_t>(area.size));
  ZelFixedAllocatorRecord carving;
  zelFixedAllocator_Create(area.memory, area.size, &carving);
  SttSession* session = BuildRecords(&carving, area.own);
  const bool built = session != nullptr && BuildBody(&carving, config, session->body);
  if (!built) {
    // Destruction of a partial session returns the area too.
    if (session != nullptr) {
      zelRtcSpeechToTextSession_Destroy(session);
    } else {
      zelWorkArea_Return(area.own);
    }
  }
  zelFixedAllocator_Destroy(&carving);
  return built ? session : nullptr;
}

// Takes a session out of the registry and destroys its mutex; false when it is attached.
bool Unregister(SttSession* session) {
  SttSessionBody* body = session->body;
  zelMutex_Lock(body->mutex);
  const bool attached = body->attach_count > 0;
  zelMutex_Unlock(body->mutex);
  if (attached) {
    zelErr_Notify1(ZEL_ERR_LEVEL_ERROR,
                   "E2022102623:Failed to destroy this handle(0x%08x). Please detach this handle from "
                   "ZelRtcRoomSessionHn.",
                   reinterpret_cast<uintptr_t>(session));
    return false;
  }
  zelSttRegistry_Unlink(&session->registry_link);
  zelMutex_Destroy(body->mutex);
  return true;
}

void DestroyRecognizers(SttRecognizerList* list) {
  while (list->head != nullptr) {
    SttRecognizerNode* node = list->head;
    zelSttRecognizerList_Unlink(list, nullptr, node);
    zelSttRecognizer_Destroy(node->recognizer);
  }
}

// Identifiers of a member operation.
struct MemberReports {
  const char* null_session;
  const char* null_client_id;
  const char* not_found;  // warning that takes the client id
};

// The first active recognizer with that client id, or null.
SttRecognizerHn FindMember(const SttSessionBody* body, const char* client_id) {
  for (const SttRecognizerNode* node = body->active_list.head; node != nullptr; node = node->next) {
    if (std::strcmp(zelSttRecognizer_GetClientId(node->recognizer), client_id) == 0) return node->recognizer;
  }
  return nullptr;
}

// Runs `operation` on the member's recognizer under the session's mutex; `failure` after a report.
template <typename Result, typename Operation>
Result OnMember(SttSession* session, const char* client_id, const MemberReports& reports, Result failure,
                Operation operation) {
  if (!zelBridge_IsInstalled() || zelErr_Refuse(session == nullptr, reports.null_session) ||
      zelErr_Refuse(client_id == nullptr, reports.null_client_id)) {
    return failure;
  }
  Result result = failure;
  zelMutex_Lock(session->body->mutex);
  SttRecognizerHn member = FindMember(session->body, client_id);
  if (member != nullptr) {
    result = operation(member);
  } else {
    zelErr_Notify1(ZEL_ERR_LEVEL_WARNING, reports.not_found, zelErr_Argument(client_id));
  }
  zelMutex_Unlock(session->body->mutex);
  return result;
}

}  // namespace

void zelRtcSpeechToTextSession_SetDefaultConfig(ZelRtcSpeechToTextSessionConfig* config) {
  if (config != nullptr) *config = kDefaultConfig;
}

int32_t zelRtcSpeechToTextSession_CalculateWorkSize(const ZelRtcSpeechToTextSessionConfig* config) {
  if (!zelBridge_IsInstalled()) return -1;
  if (config == nullptr) config = &kDefaultConfig;
  if (!CheckConfig(*config)) return -1;
  const SttRecognizerConfig recognizer_config = RecognizerConfig(*config);
  const int32_t recognizer_size = zelSttRecognizer_CalculateWorkSize(&recognizer_config);
  const int32_t members = MemberCount(*config);
  if (recognizer_size < 0 || int64_t{members} * recognizer_size > INT32_MAX) return -1;

  ZelWorkSizeRecord size;
  zelWorkSize_Begin(&size);
  zelWorkSize_Add(&size, sizeof(SttSession), 1, 8);
  zelWorkSize_Add(&size, sizeof(SttSessionBody), 1, 8);
  zelWorkSize_Add(&size, ZEL_HOST_OBJECT_WORK_SIZE, 1, 1);
  for (int32_t i = 0; i < members; ++i) {
    zelWorkSize_Add(&size, sizeof(SttRecognizerNode), 1, 8);
    zelWorkSize_Add(&size, recognizer_size, 1, 1);
  }
  return zelWorkSize_Result(&size);
}

ZelRtcSpeechToTextSessionHn zelRtcSpeechToTextSession_Create(const ZelRtcSpeechToTextSessionConfig* config, void* work,
                                                             int32_t work_size) {
  if (!zelBridge_IsInstalled()) return nullptr;
  if (!zelSttRegistry_Exists()) {
    zelErr_NotifyParam(ZEL_ERR_LEVEL_ERROR, "E2022102100", ZEL_ERR_NOT_INITIALIZED);
    return nullptr;
  }
  if (config == nullptr) config = &kDefaultConfig;
  const int32_t required = zelRtcSpeechToTextSession_CalculateWorkSize(config);
  if (required < 0) return nullptr;
  SttWorkArea area;
  if (!zelWorkArea_Obtain(work, work_size, required, kWorkAreaReports, &area)) return nullptr;
  SttSession* session = BuildSession(*config, area);
  if (session != nullptr) zelSttRegistry_Append(&session->registry_link);
  return session;
}

uint32_t zelRtcSpeechToTextSession_Destroy(ZelRtcSpeechToTextSessionHn session) {
  if (!zelBridge_IsInstalled()) return 0;
  if (!zelSttRegistry_Exists()) {
    zelErr_NotifyParam(ZEL_ERR_LEVEL_ERROR, "E2022102105", ZEL_ERR_NOT_INITIALIZED);
    return 0;
  }
  if (zelErr_Refuse(session == nullptr, "E2022102104")) return 0;
  SttSessionBody* body = session->body;
  if (body->mutex != nullptr && !Unregister(session)) return 0;
  DestroyRecognizers(&body->active_list);
  DestroyRecognizers(&body->free_list);
  zelWorkArea_Return(session->own_work);
  return 1;
}

uint32_t zelRtcSpeechToTextSession_EnableMember(ZelRtcSpeechToTextSessionHn session, const char* client_id,
                                                uint32_t enabled) {
  constexpr MemberReports kReports = {"E2022102846", "E2022102702", "W2022102700:Not found specified client(%s)."};
  return OnMember(session, client_id, kReports, 0U,
                  [enabled](SttRecognizerHn member) { return zelSttRecognizer_EnableMember(member, enabled); });
}

uint32_t zelRtcSpeechToTextSession_IsEnabledMember(ZelRtcSpeechToTextSessionHn session, const char* client_id) {
  constexpr MemberReports kReports = {"E2022102848", "E2022102849", "W2022110822:Not found specified client(%s)."};
  return OnMember(session, client_id, kReports, 0U, zelSttRecognizer_IsEnabledMember);
}

uint32_t zelRtcSpeechToTextSession_SetLanguage(ZelRtcSpeechToTextSessionHn session, const char* client_id,
                                               ZelRtcSpeechToTextLanguage language) {
  constexpr MemberReports kReports = {"E2022102827", "E2022102829", "W2022102702:Not found specified client(%s)."};
  return OnMember(session, client_id, kReports, 0U,
                  [language](SttRecognizerHn member) { return zelSttRecognizer_SetLanguage(member, language); });
}

int32_t zelRtcSpeechToTextSession_GetLanguage(ZelRtcSpeechToTextSessionHn session, const char* client_id) {
  constexpr MemberReports kReports = {"E2022102828", "E2022102830", "W2022102703:Not found specified client(%s)."};
  return OnMember(session, client_id, kReports, -1, zelSttRecognizer_GetLanguage);
}

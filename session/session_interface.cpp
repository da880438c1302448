#include "session_interface.h"

#include <initializer_list>

#include "bridge.h"
#include "recognizer.h"
#include "session_body.h"

namespace {

// An update walks the list faster than memory answers: each node lies in a page of its own. So a node tells in good
// time which one comes later.
constexpr int kNodesAhead = 8;

void LeadAhead(const SttRecognizerList& list) {
  const SttRecognizerNode* ahead = list.head;
  for (int i = 0; i < kNodesAhead && ahead != list.tail; ++i)
    ahead = ahead->next;
  for (SttRecognizerNode* node = list.head; node != nullptr; node = node->next) {
    node->ahead = ahead;
    if (ahead != list.tail) ahead = ahead->next;
  }
}

void Update(SttSessionBody* body) {
  if (zelErr_Refuse(body == nullptr, "E2022111456")) return;
  zelMutex_Lock(body->mutex);
  if (body->active_changed != 0) LeadAhead(body->active_list);
  body->active_changed = 0;
  for (SttRecognizerNode* node = body->active_list.head; node != nullptr; node = node->next) {
    __builtin_prefetch(node->ahead);
    __builtin_prefetch(node->ahead + 1);  // the recognizer's area begins there
    zelSttRecognizer_Update(node->recognizer);
  }
  zelMutex_Unlock(body->mutex);
}

uint32_t Attach(SttSessionBody* body) {
  if (zelErr_Refuse(body == nullptr, "E2022111457")) return 0;
  zelMutex_Lock(body->mutex);
  const bool attached = body->attach_count <= 0;
  if (attached) {
    body->attach_count = 1;
    const uint64_t time_base = zelTimer_GetCount();
    for (const SttRecognizerList* list : {&body->free_list, &body->active_list}) {
      for (SttRecognizerNode* node = list->head; node != nullptr; node = node->next) {
        zelSttRecognizer_SetTimeBase(node->recognizer, time_base);
      }
    }
  }
  zelMutex_Unlock(body->mutex);
  return attached ? 1 : 0;
}

uint32_t Detach(SttSessionBody* body) {
  if (zelErr_Refuse(body == nullptr, "E2022111458")) return 0;
  zelMutex_Lock(body->mutex);
  const bool detached = body->attach_count != 0;
  if (detached) body->attach_count -= 1;
  zelMutex_Unlock(body->mutex);
  return detached ? 1 : 0;
}

uint32_t IsAttached(SttSessionBody* body) {
  if (zelErr_Refuse(body == nullptr, "E2022111459")) return 0;
  zelMutex_Lock(body->mutex);
  const bool attached = body->attach_count > 0;
  zelMutex_Unlock(body->mutex);
  return attached ? 1 : 0;
}

SttRecognizerHn AcquireRecognizer(SttSessionBody* body) {
  if (zelErr_Refuse(body == nullptr, "E2022111460")) return nullptr;
  SttRecognizerHn recognizer = nullptr;
  zelMutex_Lock(body->mutex);
  SttRecognizerNode* node = body->free_list.head;
  if (node != nullptr) {
    zelSttRecognizerList_Unlink(&body->free_list, nullptr, node);
    zelSttRecognizerList_Append(&body->active_list, node);
    body->active_changed = 1;
    recognizer = node->recognizer;
  }
  zelMutex_Unlock(body->mutex);
  return recognizer;
}

// Takes `node`, which follows `previous` in the active list, back.
void Recover(SttSessionBody* body, SttRecognizerNode* previous, SttRecognizerNode* node) {
  zelSttRecognizerList_Unlink(&body->active_list, previous, node);
  body->active_changed = 1;
  zelSttRecognizer_Recycle(node->recognizer);
  zelSttRecognizerList_Append(&body->free_list, node);
}

uint32_t ReleaseRecognizer(SttSessionBody* body, SttRecognizerHn recognizer) {
  if (zelErr_Refuse(body == nullptr, "E2022111461") || zelErr_Refuse(recognizer == nullptr, "E2022111462")) return 0;
  zelMutex_Lock(body->mutex);
  SttRecognizerNode* previous = nullptr;
  SttRecognizerNode* node = body->active_list.head;
  while (node != nullptr && node->recognizer != recognizer) {
    previous = node;
    node = node->next;
  }
  if (node != nullptr) Recover(body, previous, node);
  zelMutex_Unlock(body->mutex);
  return node != nullptr ? 1 : 0;
}

uint32_t ReleaseAllRecognizers(SttSessionBody* body) {
  if (zelErr_Refuse(body == nullptr, "E2022111463")) return 0;
  zelMutex_Lock(body->mutex);
  while (body->active_list.head != nullptr)
    Recover(body, nullptr, body->active_list.head);
  zelMutex_Unlock(body->mutex);
  return 1;
}

// Serves two slots of the table.
void ResetRecognizers(SttSessionBody* body) {
  if (zelErr_Refuse(body == nullptr, "E2022111464")) return;
  zelMutex_Lock(body->mutex);
  for (SttRecognizerNode* node = body->active_list.head; node != nullptr; node = node->next) {
    zelSttRecognizer_Reset(node->recognizer);
  }
  zelMutex_Unlock(body->mutex);
}

uint32_t SetAccessToken(SttSessionBody* body, const char* token, int32_t length) {
  if (zelErr_Refuse(body == nullptr, "E2022111465") || zelErr_Refuse(token == nullptr, "E2022111466") ||
      zelErr_Refuse(length <= 0, "E2022111467")) {
    return 0;
  }
  zelMutex_Lock(body->mutex);
  zelString_Format(body->authorization, kSttAuthorizationSize, "Bearer %s", token);
  zelMutex_Unlock(body->mutex);
  return 1;
}

uint32_t SetEndpointUrl(SttSessionBody* body, const char* url, int32_t length) {
  if (zelErr_Refuse(body == nullptr, "E2022121223") || zelErr_Refuse(url == nullptr, "E2022121224") ||
      zelErr_Refuse(length <= 0, "E2022121225")) {
    return 0;
  }
  zelMutex_Lock(body->mutex);
  for (const SttRecognizerList* list : {&body->free_list, &body->active_list}) {
    for (SttRecognizerNode* node = list->head; node != nullptr; node = node->next) {
      zelSttRecognizer_SetUrl(node->recognizer, url);
    }
  }
  zelMutex_Unlock(body->mutex);
  return 1;
}

}  // namespace

const SttSessionInterface zel_stt_session_interface = {
    .Update = Update,
    .Attach = Attach,
    .Detach = Detach,
    .IsAttached = IsAttached,
    .AcquireRecognizer = AcquireRecognizer,
    .ReleaseRecognizer = ReleaseRecognizer,
    .ReleaseAllRecognizers = ReleaseAllRecognizers,
    .ResetRecognizersA = ResetRecognizers,
    .ResetRecognizersB = ResetRecognizers,
    .SetAccessToken = SetAccessToken,
    .SetEndpointUrl = SetEndpointUrl,
};

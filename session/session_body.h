// The mutable part of a session and its two lists of recognizers.
//
// Invariants: every recognizer of a session is in exactly one of the lists; nodes are carved at creation and only move
// between them. Everything here is guarded by the session's mutex, which is taken before any recognizer's.
#pragma once

#include "recognizer.h"

inline constexpr uint32_t kSttAuthorizationSize = 520;

struct SttRecognizerNode {
  SttRecognizerHn recognizer;
  SttRecognizerNode* next;
  const SttRecognizerNode* ahead;  // some nodes down the active list, as it was when an update last looked
};

struct SttRecognizerList {
  SttRecognizerNode* head;
  SttRecognizerNode* tail;
  uint32_t count;
};

struct SttSessionBody {
  int32_t attach_count;  // above 0 while a room has the session attached
  void* mutex;
  SttRecognizerList free_list;                // not assigned to a member
  SttRecognizerList active_list;              // assigned to a member by the host
  char authorization[kSttAuthorizationSize];  // "Bearer " and the access token; the recognizers' requests read it here
  uint32_t active_changed;                    // 1 when an update has to set the nodes' `ahead` anew
};

inline void zelSttRecognizerList_Append(SttRecognizerList* list, SttRecognizerNode* node) {
  node->next = nullptr;
  if (list->tail != nullptr) {
    list->tail->next = node;
  } else {
    list->head = node;
  }
  list->tail = node;
  list->count += 1;
}

// Unlinks `node`, which follows `previous` (null: it is the head).
inline void zelSttRecognizerList_Unlink(SttRecognizerList* list, SttRecognizerNode* previous, SttRecognizerNode* node) {
  if (previous != nullptr) {
    previous->next = node->next;
  } else {
    list->head = node->next;
  }
  if (list->tail == node) list->tail = previous;
  node->next = nullptr;
  list->count -= 1;
}

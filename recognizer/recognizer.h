// One recognizer: cuts a member's voice into utterances, posts them one at a time, and hands recognized text to the
// host.
//
// Thread rule: the functions here run under the session's mutex, creation and destruction apart. The host's interface
// slots take no session lock: see utterance.h for the audio path and text_delivery.h for the packets. Refused arguments
// are reported with code -2 under the identifier given here; the function then changes nothing.
#pragma once

#include "zel_rtc_speech_to_text_host.h"

struct SttRecognizerConfig {
  uint32_t check_value;            // 16
  uint16_t max_queueing_messages;  // text packets, output-queue entries and text blocks
  uint32_t max_text_message_size;  // bytes of one text block, terminator included
  uint32_t reserved;               // not read
};

inline constexpr uint32_t kSttRecognizerConfigCheckValue = 16;
inline constexpr uint32_t kSttNoMemberId = 0xFFFFFFFF;

// Bytes of work area, or -1: null configuration E2022111404, check value E2022111704, or a part without a size.
int32_t zelSttRecognizer_CalculateWorkSize(const SttRecognizerConfig* config);

// Builds a recognizer with its worker in `work`, the handle at its first bytes, and begins its first stream. Null: null
// configuration E2022111405, null area E2022111406, check value E2022111705, or a part that could not be made (the part
// reports).
SttRecognizerHn zelSttRecognizer_Create(const SttRecognizerConfig* config, void* work, int32_t work_size);

// Destroys what exists; waits for an exchange in flight. 1; 0 for null (E2022111420).
uint32_t zelSttRecognizer_Destroy(SttRecognizerHn handle);

// Collects a reply, posts the next utterance, drops a disabled member's audio. 1; 0 for null (E2022111427).
uint32_t zelSttRecognizer_Update(SttRecognizerHn handle);

// Waits for an exchange in flight and drops everything collected; the member stays. 1; 0 for null (E2022111524).
uint32_t zelSttRecognizer_Reset(SttRecognizerHn handle);

// Reset, then no member id and language 0; client id and enabled flag stay. 1; 0 for null (E2022111429).
uint32_t zelSttRecognizer_Recycle(SttRecognizerHn handle);

// 1; 0 for null (E2022111422). The value is stored as given; 0 disables.
uint32_t zelSttRecognizer_EnableMember(SttRecognizerHn handle, uint32_t enabled);

// The stored value; 0 for null (E2022111423).
uint32_t zelSttRecognizer_IsEnabledMember(SttRecognizerHn handle);

// 1; 0 for null (E2022111424) or a language above 2 (E2022111425).
uint32_t zelSttRecognizer_SetLanguage(SttRecognizerHn handle, uint32_t language);

// The language; -1 for null (E2022111426).
int32_t zelSttRecognizer_GetLanguage(SttRecognizerHn handle);

// The client id, NUL-terminated; null for null (E2022111421).
const char* zelSttRecognizer_GetClientId(SttRecognizerHn handle);

// 1; 0 for null (E2022112204). The URL is copied.
uint32_t zelSttRecognizer_SetUrl(SttRecognizerHn handle, const char* url);

// 1; 0 for null (E2022111430). The pointer is kept.
uint32_t zelSttRecognizer_SetAuthorization(SttRecognizerHn handle, const char* authorization);

// 1; 0 for null (E2022111432). `time_base`: the timer count that is time zero of the packets' time stamps.
uint32_t zelSttRecognizer_SetTimeBase(SttRecognizerHn handle, uint64_t time_base);

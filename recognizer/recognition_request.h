// Posts one finished utterance at a time to the speech-to-text service and keeps what the service answered.
//
// Wire format. Request: POST endpoint?language=...&speaker=..., with the headers Content-Type "audio/ogg; codecs=opus",
// Authorization and Accept "application/json"; the body is one Ogg Opus stream of at most 81920 bytes. Reply: a JSON
// object of at most 1231 bytes, whatever its HTTP status; "result" alone decides: "success" comes with "version",
// "speaker" and "text", anything else with "version", "error_code" and "error_message". Values are raw JSON text,
// escapes as written.
//
// Thread rule: one caller at a time (the session's mutex); the exchange itself runs on the worker's thread. Refused
// arguments are reported with code -2.
#pragma once

#include <cstdint>

struct JsonReader;
struct WreqAsync;
struct WreqResponse;

enum SttRequestState : std::uint32_t {
  STT_REQUEST_IDLE = 0,        // nothing in flight; a request may start
  STT_REQUEST_REQUESTING = 1,  // handed to the worker, not yet ended
  STT_REQUEST_SUCCEEDED = 2,   // a reply that reports success arrived
  STT_REQUEST_FAILED = 3,      // the start was refused, the exchange failed, or the reply reports no success
};

// The reply buffers hold NUL-terminated strings; each keeps its value until a reply sets it again.
struct SttRequest {
  std::uint32_t state;  // SttRequestState
  JsonReader* json_work;
  WreqAsync* wreq;
  char* url;                  // 1024 bytes: base URL, then the query of the current request
  std::uint32_t url_length;   // bytes of the base URL as given, which may be more than fits
  const char* authorization;  // the session's value, not a copy
  std::uint32_t succeeded;    // 1 when the last reply reports success
  char* reply_version;        // 16 bytes
  char* reply_speaker;        // 512 bytes, of the last successful reply
  char* reply_text;           // 1024 bytes, of the last successful reply
  char* reply_error_code;     // 32 bytes, of the last unsuccessful reply
  char* reply_error_message;  // 128 bytes, of the last unsuccessful reply
};

// Languages that there is a text for.
inline constexpr std::uint32_t kSttLanguageCount = 3;

struct SttRequestConfig {
  std::uint32_t reserved;  // 0; only the presence of the record is checked
};

struct SttUtterance {
  const std::uint8_t* body;  // first byte of the Ogg stream; copied when the request starts
  std::uint32_t body_size;   // bytes
  const char* speaker;       // client id
  std::uint32_t language;    // ZelRtcSpeechToTextLanguage
};

std::int32_t zelSttRequest_CalculateWorkSize(const SttRequestConfig* config);

// Builds a request with its worker in `work`, or null.
SttRequest* zelSttRequest_Create(const SttRequestConfig* config, void* work, std::int32_t work_size);

// Ends the worker; waits for an exchange in flight.
std::uint32_t zelSttRequest_Destroy(SttRequest* request);

// The base URL, copied; null clears it. Takes effect with the next start.
std::uint32_t zelSttRequest_SetUrl(SttRequest* request, const char* url);

// The value of the Authorization header; the pointer is kept.
std::uint32_t zelSttRequest_SetAuthorization(SttRequest* request, const char* authorization);

// Hands the utterance to the worker: 1; 0 and state Failed when the URL does not fit or the worker refuses
// (E2022110407).
std::uint32_t zelSttRequest_Start(SttRequest* request, const SttUtterance* utterance);

// Moves a request that has ended to Succeeded or Failed. Never blocks.
void zelSttRequest_Poll(SttRequest* request);

std::uint32_t zelSttRequest_GetState(SttRequest* request);
std::uint32_t zelSttRequest_IsSucceeded(SttRequest* request);

// Copies the recognized text with its terminator: its length, or -1 when there is none or it does not fit `capacity`.
std::int32_t zelSttRequest_CopyText(SttRequest* request, char* destination, std::int32_t capacity);

// Waits for an exchange in flight and makes the request idle.
std::uint32_t zelSttRequest_Reset(SttRequest* request);

// Steps of Poll: asks the worker and takes over what it has; reads the reply in `response` into the reply buffers.
std::uint32_t zelSttRequest_CheckCompletion(SttRequest* request);
std::uint32_t zelSttRequest_ParseReply(SttRequest* request, WreqResponse* response);

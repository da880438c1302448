#include "recognition_request.h"

#include <cstring>
#include <initializer_list>

#include "bridge.h"
#include "json_reader.h"
#include "wreq_async.h"

namespace {

constexpr std::uint32_t kUrlSize = 1024;
constexpr std::uint32_t kVersionSize = 16;
constexpr std::uint32_t kSpeakerSize = 512;
constexpr std::uint32_t kTextSize = 1024;
constexpr std::uint32_t kErrorCodeSize = 32;
constexpr std::uint32_t kErrorMessageSize = 128;
constexpr std::int32_t kTimeoutSeconds = 20;

constexpr const char kQueryFormat[] = "?language=%s&speaker=%s";
constexpr std::uint32_t kQueryFixedLength = sizeof("?language=&speaker=") - 1;

constexpr ZelWreqAsyncConfig kWorkerLimits = {
    .max_headers = 3,
    .max_header_key_length = 14,  // "Authorization" and its terminator
    .max_header_value_length = 512,
    .max_url_length = kUrlSize,
    .max_request_body_length = 81920,
    .max_basic_authentication_user_name_length = 0,
    .max_basic_authentication_user_password_length = 0,
    .max_response_body_length = 1232,
};

constexpr const char* kLanguages[kSttLanguageCount] = {"ja-JP", "en-US", "zh-CN"};

bool CarveBuffers(ZelFixedAllocatorRecord* carving, SttRequest* request) {
  const struct {
    char** buffer;
    std::uint32_t size;
  } buffers[] = {
      {&request->url, kUrlSize},
      {&request->reply_version, kVersionSize},
      {&request->reply_speaker, kSpeakerSize},
      {&request->reply_text, kTextSize},
      {&request->reply_error_code, kErrorCodeSize},
      {&request->reply_error_message, kErrorMessageSize},
  };
  for (const auto& [buffer, size] : buffers) {
    *buffer = static_cast<char*>(zelFixedAllocator_Allocate(carving, size, 1));
    if (*buffer == nullptr) return false;
  }
  return true;
}

bool CarveParts(ZelFixedAllocatorRecord* carving, SttRequest* request) {
  request->json_work = static_cast<JsonReader*>(zelFixedAllocator_Allocate(carving, sizeof(JsonReader), 8));
  if (request->json_work == nullptr) return false;
  const std::int32_t worker_size = zelWreqAsync_CalculateWorkSize(&kWorkerLimits);
  if (worker_size < 0) return false;
  void* worker_work = zelFixedAllocator_Allocate(carving, static_cast<std::uint32_t>(worker_size), 1);
  request->wreq = zelWreqAsync_Create(&kWorkerLimits, worker_work, worker_size);
  return request->wreq != nullptr && CarveBuffers(carving, request);
}

// Writes the query behind the base URL; false when both do not fit.
bool WriteQuery(SttRequest* request, const char* language, const char* speaker) {
  const std::uint64_t length =
      std::uint64_t{request->url_length} + kQueryFixedLength + zelString_Length(language) + zelString_Length(speaker);
  if (length >= kUrlSize) return false;
  zelString_Format(request->url + request->url_length, kUrlSize - request->url_length, kQueryFormat, language, speaker);
  return true;
}

std::int32_t HandToWorker(SttRequest* request, const SttUtterance& utterance) {
  const WreqHeader headers[] = {
      {"Content-Type", "audio/ogg; codecs=opus"},
      {"Authorization", request->authorization != nullptr ? request->authorization : ""},
      {"Accept", "application/json"},
  };
  const WreqRequest wreq = {
      .url = request->url,
      .method = "POST",
      .num_headers = sizeof(headers) / sizeof(headers[0]),
      .headers = headers,
      .data = utterance.body,
      .data_len = static_cast<std::int32_t>(utterance.body_size),
      .timeout_sec = kTimeoutSeconds,
      .auth_basic = {},
  };
  return zelWreqAsync_Request(request->wreq, &wreq);
}

const char* FailureWord(const WreqResponse* response) {
  if (response == nullptr) return "connection";
  switch (response->error_kind) {
    case WREQ_ERROR_UNKNOWN:
      return "unknown";
    case WREQ_ERROR_TIMEOUT:
      return "time out";
    case WREQ_ERROR_DNS:
      return "DNS";
    case WREQ_ERROR_CONNECTION:
      return "connection";
    case WREQ_ERROR_SSL:
      return "SSL";
    case WREQ_ERROR_HTTP_STATUS:
      switch (response->status_code) {
        case 400:
          return "bad request";
        case 401:
          return "unauthorized";
        case 500:
          return "internal server";
        default:
          return "unknown";
      }
    default:
      return "internal";
  }
}

const char* ReplyValue(SttRequest* request, const char* key) {
  return zelJsonReader_GetString(request->json_work, key, "invalid_string");
}

}  // namespace

std::int32_t zelSttRequest_CalculateWorkSize(const SttRequestConfig* config) {
  if (zelErr_Refuse(config == nullptr, "E2022111530")) return -1;
  const std::int32_t worker_size = zelWreqAsync_CalculateWorkSize(&kWorkerLimits);
  if (worker_size < 0) return -1;
  ZelWorkSizeRecord size;
  zelWorkSize_Begin(&size);
  zelWorkSize_Add(&size, sizeof(SttRequest), 1, 8);
  zelWorkSize_Add(&size, sizeof(JsonReader), 1, 8);
  zelWorkSize_Add(&size, worker_size, 1, 1);
  for (const std::uint32_t bytes :
       {kUrlSize, kVersionSize, kTextSize, kSpeakerSize, kErrorCodeSize, kErrorMessageSize}) {
    zelWorkSize_Add(&size, 1, bytes, 1);
  }
  return zelWorkSize_Result(&size);
}

SttRequest* zelSttRequest_Create(const SttRequestConfig* config, void* work, std::int32_t work_size) {
  if (zelErr_Refuse(config == nullptr, "E2022110907") || zelErr_Refuse(work == nullptr, "E2022110908")) return nullptr;
  if (work_size < 0) return nullptr;
  zelMemory_Clear(work, static_cast<std::uint64_t>(work_size));
  ZelFixedAllocatorRecord carving;
  zelFixedAllocator_Create(work, work_size, &carving);
  auto* request = static_cast<SttRequest*>(zelFixedAllocator_Allocate(&carving, sizeof(SttRequest), 8));
  if (request != nullptr && !CarveParts(&carving, request)) {
    if (request->wreq != nullptr) zelWreqAsync_Destroy(request->wreq);
    request = nullptr;
  }
  zelFixedAllocator_Destroy(&carving);
  return request;
}

std::uint32_t zelSttRequest_Destroy(SttRequest* request) {
  if (zelErr_Refuse(request == nullptr, "E2022110920")) return 0;
  zelWreqAsync_Destroy(request->wreq);
  return 1;
}

std::uint32_t zelSttRequest_SetUrl(SttRequest* request, const char* url) {
  if (zelErr_Refuse(request == nullptr, "E2022112205")) return 0;
  if (url == nullptr) {
    zelMemory_Clear(request->url, kUrlSize);
    request->url_length = 0;
  } else {
    zelString_Copy(request->url, kUrlSize, url);
    request->url_length = zelString_Length(url);
  }
  return 1;
}

std::uint32_t zelSttRequest_SetAuthorization(SttRequest* request, const char* authorization) {
  if (zelErr_Refuse(request == nullptr, "E2022111005")) return 0;
  request->authorization = authorization;
  return 1;
}

std::uint32_t zelSttRequest_Start(SttRequest* request, const SttUtterance* utterance) {
  if (zelErr_Refuse(request == nullptr, "E2022110924") || zelErr_Refuse(utterance == nullptr, "E2022110925")) return 0;
  const char* language = "";
  if (utterance->language < kSttLanguageCount) {
    language = kLanguages[utterance->language];
  } else {
    zelErr_NotifyInvalidParameter("E2022111008");
  }
  if (!WriteQuery(request, language, utterance->speaker) || HandToWorker(request, *utterance) != 0) {
    request->state = STT_REQUEST_FAILED;
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022110407:Failed to request for SpeechToText.");
    return 0;
  }
  request->state = STT_REQUEST_REQUESTING;
  return 1;
}

void zelSttRequest_Poll(SttRequest* request) {
  if (zelErr_Refuse(request == nullptr, "E2022110921")) return;
  if (request->state == STT_REQUEST_REQUESTING) zelSttRequest_CheckCompletion(request);
}

std::uint32_t zelSttRequest_CheckCompletion(SttRequest* request) {
  if (zelErr_Refuse(request == nullptr, "E2022111009")) return 0;
  const WreqAsyncStatus status = zelWreqAsync_GetStatus(request->wreq);
  if (status == WREQ_ASYNC_STATUS_COMPLETE) {
    WreqResponse* response = zelWreqAsync_GetResponse(request->wreq);
    if (response == nullptr) {
      request->state = STT_REQUEST_FAILED;
      return 1;
    }
    // The reply lies in the worker's buffer: it is read before the worker is free again.
    const std::uint32_t parsed = zelSttRequest_ParseReply(request, response);
    zelWreqAsync_Stop(request->wreq);
    request->state = parsed == 1 && request->succeeded == 1 ? STT_REQUEST_SUCCEEDED : STT_REQUEST_FAILED;
  } else if (status == WREQ_ASYNC_STATUS_ERROR) {
    zelErr_Notify1(ZEL_ERR_LEVEL_ERROR, "E2022110402:Failed to request SpeechToText because it is %s error.",
                   zelErr_Argument(FailureWord(zelWreqAsync_GetResponse(request->wreq))));
    zelWreqAsync_Stop(request->wreq);
    request->state = STT_REQUEST_FAILED;
  }
  return 1;
}

std::uint32_t zelSttRequest_ParseReply(SttRequest* request, WreqResponse* response) {
  if (zelErr_Refuse(request == nullptr, "E2022111014") || zelErr_Refuse(response == nullptr, "E2022111015")) return 0;
  zelJsonReader_OpenSized(request->json_work, reinterpret_cast<char*>(response->data), response->data_size);
  request->succeeded = std::strcmp(ReplyValue(request, "result"), "success") == 0 ? 1 : 0;
  zelString_Copy(request->reply_version, kVersionSize, ReplyValue(request, "version"));
  if (request->succeeded == 1) {
    zelString_Copy(request->reply_speaker, kSpeakerSize, ReplyValue(request, "speaker"));
    zelString_Copy(request->reply_text, kTextSize, ReplyValue(request, "text"));
  } else {
    zelString_Copy(request->reply_error_code, kErrorCodeSize, ReplyValue(request, "error_code"));
    zelString_Copy(request->reply_error_message, kErrorMessageSize, ReplyValue(request, "error_message"));
    zelErr_Notify2(
        ZEL_ERR_LEVEL_ERROR,
        "E2022110401:Failed to request SpeechToText because it is bad request.(ErrorCode:%s, ErrorMessage:%s)",
        zelErr_Argument(request->reply_error_code), zelErr_Argument(request->reply_error_message));
  }
  zelJsonReader_Close(request->json_work);
  return 1;
}

std::uint32_t zelSttRequest_GetState(SttRequest* request) {
  if (zelErr_Refuse(request == nullptr, "E2022110923")) return 0;
  return request->state;
}

std::uint32_t zelSttRequest_IsSucceeded(SttRequest* request) {
  if (zelErr_Refuse(request == nullptr, "E2022111531")) return 0;
  return request->succeeded;
}

std::int32_t zelSttRequest_CopyText(SttRequest* request, char* destination, std::int32_t capacity) {
  if (zelErr_Refuse(request == nullptr, "E2022111532") || zelErr_Refuse(destination == nullptr, "E2022111003"))
    return -1;
  if (request->succeeded != 1) return -1;
  const auto length = static_cast<std::int32_t>(zelString_Length(request->reply_text));
  if (length >= capacity) return -1;
  zelString_Copy(destination, static_cast<std::uint64_t>(capacity), request->reply_text);
  return length;
}

std::uint32_t zelSttRequest_Reset(SttRequest* request) {
  if (zelErr_Refuse(request == nullptr, "E2022111007")) return 0;
  zelWreqAsync_Stop(request->wreq);
  request->state = STT_REQUEST_IDLE;
  request->succeeded = 0;
  return 1;
}

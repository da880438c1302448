#include "wreq_async.h"

#include <initializer_list>

#include "bridge.h"
#include "wreq_execute.h"

namespace {

constexpr std::int32_t kMethodSize = 8;  // bytes of the method name, terminator included

enum WreqAsyncState : std::uint32_t { kIdle = 0, kRequesting = 1, kDone = 2, kFailed = 3 };

}  // namespace

struct WreqAsync {
  WreqRequest request;  // the copy that the worker executes; its pointers lead to the buffers below
  WreqResponse response;
  WreqHeader* headers;     // max_headers entries; entry i leads to keys[i] and values[i]
  char** keys;             // slots of the key storage
  char* key_storage;       // max_headers * max_header_key_length bytes
  char** values;           // slots of the value storage
  char* value_storage;     // max_headers * max_header_value_length bytes
  char* method;            // kMethodSize bytes
  char* url;               // max_url_length bytes
  std::uint8_t* body;      // max_request_body_length bytes, or null
  char* user_name;         // or null
  char* user_pass;         // or null
  std::uint8_t* received;  // max_response_body_length bytes
  ZelWreqAsyncConfig config;
  void* event;          // wakes the worker
  void* thread;         // the worker
  std::uint32_t stop;   // atomic: 0 run, 1 stop; written by Destroy only
  std::uint32_t state;  // atomic: WreqAsyncState
};

namespace {

// Storage of a limit: nothing for 0 or less.
std::uint32_t Bytes(std::int64_t limit) {
  if (limit <= 0) return 0;
  return limit < INT32_MAX ? static_cast<std::uint32_t>(limit) : static_cast<std::uint32_t>(INT32_MAX);
}

std::uint32_t Product(std::int32_t count, std::int32_t size) {
  return Bytes(std::int64_t{static_cast<std::int32_t>(Bytes(count))} * static_cast<std::int32_t>(Bytes(size)));
}

// A carving in progress: after the first part that cannot be had, nothing more is carved.
struct Carving {
  ZelFixedAllocatorRecord record;
  bool failed;
};

// Carves a part, or reports `message`. A part of no bytes may be null.
void* Carve(Carving* carving, std::uint32_t size, std::uint32_t alignment, const char* message) {
  if (carving->failed) return nullptr;
  void* part = zelFixedAllocator_Allocate(&carving->record, size, alignment);
  if (part == nullptr && size > 0) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, message);
    carving->failed = true;
  }
  return part;
}

char* CarveText(Carving* carving, std::uint32_t size, const char* message) {
  return static_cast<char*>(Carve(carving, size, 1, message));
}

char* CarveOptionalText(Carving* carving, std::int32_t limit, const char* message) {
  return limit > 0 ? CarveText(carving, Bytes(limit), message) : nullptr;
}

void CarveBuffers(Carving* carving, WreqAsync* handle, const ZelWreqAsyncConfig& limits) {
  const std::uint32_t headers = Bytes(limits.max_headers);
  handle->headers = static_cast<WreqHeader*>(
      Carve(carving, headers * std::uint32_t{sizeof(WreqHeader)}, 8, "E2022121305:Failed create wreq async handle."));
  handle->keys = static_cast<char**>(
      Carve(carving, headers * std::uint32_t{sizeof(char*)}, 8, "E2022121335:Failed create wreq async handle."));
  handle->key_storage = CarveText(carving, Product(limits.max_headers, limits.max_header_key_length),
                                  "E2022121306:Failed create wreq async handle.");
  handle->values = static_cast<char**>(
      Carve(carving, headers * std::uint32_t{sizeof(char*)}, 8, "E2022121336:Failed create wreq async handle."));
  handle->value_storage = CarveText(carving, Product(limits.max_headers, limits.max_header_value_length),
                                    "E2022121307:Failed create wreq async handle.");
  handle->method = CarveText(carving, kMethodSize, "E2022121308:Failed create wreq async handle.");
  handle->url = CarveText(carving, Bytes(limits.max_url_length), "E2022121309:Failed create wreq async handle.");
  handle->body = reinterpret_cast<std::uint8_t*>(
      CarveOptionalText(carving, limits.max_request_body_length, "E2022121310:Failed create wreq async handle."));
  handle->user_name = CarveOptionalText(carving, limits.max_basic_authentication_user_name_length,
                                        "E2022121311:Failed create wreq async handle.");
  handle->user_pass = CarveOptionalText(carving, limits.max_basic_authentication_user_password_length,
                                        "E2022121312:Failed create wreq async handle.");
  handle->received = static_cast<std::uint8_t*>(
      Carve(carving, Bytes(limits.max_response_body_length), 1, "E2022121313:Failed create wreq async handle."));
}

void LinkBuffers(WreqAsync* handle, const ZelWreqAsyncConfig& limits) {
  for (std::int32_t i = 0; i < limits.max_headers; ++i) {
    handle->keys[i] = handle->key_storage + std::int64_t{i} * Bytes(limits.max_header_key_length);
    handle->values[i] = handle->value_storage + std::int64_t{i} * Bytes(limits.max_header_value_length);
    handle->headers[i] = {handle->keys[i], handle->values[i]};
  }
  handle->request.url = handle->url;
  handle->request.method = handle->method;
  handle->request.headers = handle->headers;
  handle->request.data = handle->body;
  handle->response.buffer = handle->received;
  handle->response.buffer_size = Bytes(limits.max_response_body_length);
  handle->config = limits;
}

void WorkerBody(void* argument) {
  auto* handle = static_cast<WreqAsync*>(argument);
  for (;;) {
    zelEvent_Wait(handle->event);
    if (zelAtomic_Load(&handle->stop) != 0) return;
    const std::int32_t result = zelWreq_Execute(&handle->request, &handle->response);
    zelAtomic_Store(&handle->state, result == WREQ_EXECUTE_OK ? kDone : kFailed);
  }
}

// The event first: a worker needs it from its first step on.
void StartWorker(Carving* carving, WreqAsync* handle) {
  void* work = zelFixedAllocator_Allocate(&carving->record, ZEL_HOST_OBJECT_WORK_SIZE, 1);
  if (work != nullptr) handle->event = zelEvent_Create(work, ZEL_HOST_OBJECT_WORK_SIZE);
  if (handle->event == nullptr) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022121314:Failed create wreq async handle.");
    carving->failed = true;
    return;
  }
  work = zelFixedAllocator_Allocate(&carving->record, ZEL_HOST_OBJECT_WORK_SIZE, 1);
  if (work != nullptr) {
    handle->thread = zelThread_Create(work, ZEL_HOST_OBJECT_WORK_SIZE, WorkerBody, handle, "ZEL Wreq Async Thread");
  }
  if (handle->thread == nullptr) {
    zelErr_Notify(ZEL_ERR_LEVEL_ERROR, "E2022121315:Failed create wreq async handle.");
    carving->failed = true;
  }
}

std::int32_t Refuse(const char* message) {
  zelErr_Notify(ZEL_ERR_LEVEL_ERROR, message);
  return 1;
}

// Copies `text` into a buffer of `limit` bytes; false when text and terminator do not fit.
bool CopyText(char* destination, std::int32_t limit, const char* text) {
  if (std::int64_t{zelString_Length(text)} + 1 > limit) return false;
  zelString_Copy(destination, static_cast<std::uint64_t>(limit), text);
  return true;
}

std::int32_t CopyHeaders(WreqAsync* handle, const WreqRequest& request) {
  const ZelWreqAsyncConfig& limits = handle->config;
  if (request.num_headers > limits.max_headers) {
    return Refuse("E2022121324:Failed to request becase ZelWreqAsyncConfig::max_headers is not enough.");
  }
  for (std::int32_t i = 0; i < request.num_headers; ++i) {
    if (!CopyText(handle->keys[i], limits.max_header_key_length, request.headers[i].key)) {
      return Refuse("E2022121325:Failed to request becase ZelWreqAsyncConfig::max_header_key_length is not enough.");
    }
    if (!CopyText(handle->values[i], limits.max_header_value_length, request.headers[i].value)) {
      return Refuse("E2022121326:Failed to request becase ZelWreqAsyncConfig::max_header_value_length is not enough.");
    }
  }
  return 0;
}

std::int32_t CopyBody(WreqAsync* handle, const WreqRequest& request) {
  const std::int32_t limit = handle->config.max_request_body_length;
  if (request.data == nullptr) return 0;
  if (request.data_len <= 0) {
    zelErr_Notify1(ZEL_ERR_LEVEL_ERROR, "E2022121500:Failed to request becase request->data_len is invalid.",
                   static_cast<std::uint64_t>(std::int64_t{request.data_len}));
    return 1;
  }
  if (request.data_len > limit || zelMemory_Copy(handle->body, static_cast<std::uint64_t>(limit), request.data,
                                                 static_cast<std::uint64_t>(request.data_len)) == 0) {
    return Refuse("E2022121329:Failed to request becase ZelWreqAsyncConfig::max_request_body_length is not enough.");
  }
  return 0;
}

std::int32_t CopyCredentials(WreqAsync* handle, const WreqBasicCredentials& given) {
  const ZelWreqAsyncConfig& limits = handle->config;
  if (given.user_name != nullptr &&
      !CopyText(handle->user_name, limits.max_basic_authentication_user_name_length, given.user_name)) {
    return Refuse(
        "E2022121330:Failed to request becase ZelWreqAsyncConfig::max_basic_authentication_user_name_length is not "
        "enough.");
  }
  if (given.user_pass != nullptr &&
      !CopyText(handle->user_pass, limits.max_basic_authentication_user_password_length, given.user_pass)) {
    return Refuse(
        "E2022121331:Failed to request becase ZelWreqAsyncConfig::max_basic_authentication_user_password_length is not "
        "enough.");
  }
  return 0;
}

// Checks `request` against the limits and copies its parts; 1 after a report.
std::int32_t CopyRequest(WreqAsync* handle, const WreqRequest& request) {
  if (CopyHeaders(handle, request) != 0) return 1;
  if (!CopyText(handle->method, kMethodSize, request.method)) {
    zelErr_Notify1(ZEL_ERR_LEVEL_ERROR, "E2022121327:Failed to request becase this method(%s) is not support.",
                   zelErr_Argument(request.method));
    return 1;
  }
  if (!CopyText(handle->url, handle->config.max_url_length, request.url)) {
    return Refuse("E2022121328:Failed to request becase ZelWreqAsyncConfig::max_url_length is not enough.");
  }
  if (CopyBody(handle, request) != 0) return 1;
  return CopyCredentials(handle, request.auth_basic);
}

}  // namespace

std::int32_t zelWreqAsync_CalculateWorkSize(const ZelWreqAsyncConfig* config) {
  if (zelErr_Refuse(config == nullptr, "E2022121300")) return -1;
  const std::uint32_t headers = Bytes(config->max_headers);
  ZelWorkSizeRecord size;
  zelWorkSize_Begin(&size);
  zelWorkSize_Add(&size, sizeof(WreqAsync), 1, 8);
  zelWorkSize_Add(&size, sizeof(WreqHeader), headers, 8);
  zelWorkSize_Add(&size, sizeof(char*), headers, 8);
  zelWorkSize_Add(&size, 1, Product(config->max_headers, config->max_header_key_length), 1);
  zelWorkSize_Add(&size, sizeof(char*), headers, 8);
  zelWorkSize_Add(&size, 1, Product(config->max_headers, config->max_header_value_length), 1);
  zelWorkSize_Add(&size, 1, kMethodSize, 1);
  zelWorkSize_Add(&size, 1, Bytes(config->max_url_length), 1);
  for (const std::int32_t limit : {config->max_request_body_length, config->max_basic_authentication_user_name_length,
                                   config->max_basic_authentication_user_password_length}) {
    if (limit > 0) zelWorkSize_Add(&size, 1, Bytes(limit), 1);
  }
  zelWorkSize_Add(&size, 1, Bytes(config->max_response_body_length), 1);
  zelWorkSize_Add(&size, ZEL_HOST_OBJECT_WORK_SIZE, 1, 1);
  zelWorkSize_Add(&size, ZEL_HOST_OBJECT_WORK_SIZE, 1, 1);
  return zelWorkSize_Result(&size);
}

WreqAsync* zelWreqAsync_Create(const ZelWreqAsyncConfig* config, void* work, std::int32_t work_size) {
  if (zelErr_Refuse(config == nullptr, "E2022121301") || zelErr_Refuse(work == nullptr, "E2022121302")) return nullptr;
  const std::int32_t required = zelWreqAsync_CalculateWorkSize(config);
  if (zelErr_Refuse(required < 0 || work_size < required, "E2022121303")) return nullptr;

  zelMemory_Clear(work, static_cast<std::uint64_t>(work_size));
  Carving carving{};
  zelFixedAllocator_Create(work, work_size, &carving.record);
  auto* handle =
      static_cast<WreqAsync*>(Carve(&carving, sizeof(WreqAsync), 8, "E2022121304:Failed create wreq async handle."));
  if (handle != nullptr) CarveBuffers(&carving, handle, *config);
  if (!carving.failed) {
    LinkBuffers(handle, *config);
    zelAtomic_Store(&handle->state, kIdle);
    zelAtomic_Store(&handle->stop, 0);
    StartWorker(&carving, handle);
  }
  zelFixedAllocator_Destroy(&carving.record);
  if (!carving.failed) return handle;
  if (handle != nullptr) zelWreqAsync_Destroy(handle);
  return nullptr;
}

void zelWreqAsync_Destroy(WreqAsync* handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022121316")) return;
  if (handle->thread != nullptr) {
    zelAtomic_Store(&handle->stop, 1);
    zelEvent_Signal(handle->event);
    zelThread_Join(handle->thread);
  }
  if (handle->event != nullptr) zelEvent_Destroy(handle->event);
}

std::int32_t zelWreqAsync_Request(WreqAsync* handle, const WreqRequest* request) {
  if (zelErr_Refuse(handle == nullptr, "E2022121317") || zelErr_Refuse(request == nullptr, "E2022121318")) return 1;
  const std::uint32_t state = zelAtomic_Load(&handle->state);
  if (state != kIdle && state != kDone) {
    return Refuse("E2022121334:Failed to request. Please call zelWreqAsync_Stop().");
  }
  if (CopyRequest(handle, *request) != 0) return 1;

  const bool authenticated = request->auth_basic.user_name != nullptr && request->auth_basic.user_pass != nullptr;
  handle->request.num_headers = request->num_headers;
  handle->request.data_len = request->data != nullptr ? request->data_len : 0;
  handle->request.timeout_sec = request->timeout_sec;
  handle->request.auth_basic.user_name = authenticated ? handle->user_name : nullptr;
  handle->request.auth_basic.user_pass = authenticated ? handle->user_pass : nullptr;
  handle->response.status_code = 0;
  handle->response.error_kind = WREQ_ERROR_UNKNOWN;
  handle->response.data = nullptr;
  handle->response.data_size = 0;
  zelAtomic_Store(&handle->state, kRequesting);
  zelEvent_Signal(handle->event);
  return 0;
}

WreqAsyncStatus zelWreqAsync_GetStatus(WreqAsync* handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022121320")) return WREQ_ASYNC_STATUS_ERROR;
  switch (zelAtomic_Load(&handle->state)) {
    case kIdle:
      return WREQ_ASYNC_STATUS_IDLE;
    case kRequesting:
      return WREQ_ASYNC_STATUS_REQUESTING;
    case kDone:
      return WREQ_ASYNC_STATUS_COMPLETE;
    default:
      return WREQ_ASYNC_STATUS_ERROR;
  }
}

WreqResponse* zelWreqAsync_GetResponse(WreqAsync* handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022121323")) return nullptr;
  const std::uint32_t state = zelAtomic_Load(&handle->state);
  if (state == kDone || state == kFailed) return &handle->response;
  zelErr_NotifyInvalidParameter("E2022121333");
  return nullptr;
}

std::int32_t zelWreqAsync_Stop(WreqAsync* handle) {
  if (zelErr_Refuse(handle == nullptr, "E2022121319")) return 1;
  while (zelAtomic_Load(&handle->state) == kRequesting)
    zelThread_Sleep(1);
  zelAtomic_Store(&handle->state, kIdle);
  return 0;
}

// A worker that runs one HTTP request at a time on a thread of its own.
//
// Thread rule: every operation belongs to the owner's thread (one at a time, no lock inside); only the worker body runs
// on the worker's thread. Invariants:
//  1. The request copy and its buffers are written only in zelWreqAsync_Request, while the worker waits.
//  2. The response is written by the worker only between its wake-up and its store of "done" or "failed".
//  3. The state word has one writer at a time: Request (0 or 2 to 1), the worker (1 to 2 or 3), Stop (any but 1 to 0).
#pragma once

#include "wreq_request.h"

struct WreqAsync;

// Limits of one worker. Not checked for sign or size: a limit of 0 or less means no storage.
struct ZelWreqAsyncConfig {
  std::int32_t max_headers;
  std::int32_t max_header_key_length;                          // bytes, terminator included
  std::int32_t max_header_value_length;                        // bytes, terminator included
  std::int32_t max_url_length;                                 // bytes, terminator included
  std::int32_t max_request_body_length;                        // bytes; 0 or less: no body buffer
  std::int32_t max_basic_authentication_user_name_length;      // bytes, terminator included; 0 or less: no buffer
  std::int32_t max_basic_authentication_user_password_length;  // bytes, terminator included; 0 or less: no buffer
  std::int32_t max_response_body_length;                       // bytes, terminator included; at least 1
};

enum WreqAsyncStatus : std::int32_t {
  WREQ_ASYNC_STATUS_IDLE = 0,
  WREQ_ASYNC_STATUS_REQUESTING = 1,
  WREQ_ASYNC_STATUS_COMPLETE = 5,  // a response was received, whatever its HTTP status
  WREQ_ASYNC_STATUS_ERROR = 6,     // the request failed, or the handle was null
};

// Bytes of work area; -1 for a null config (E2022121300).
std::int32_t zelWreqAsync_CalculateWorkSize(const ZelWreqAsyncConfig* config);

// Builds a worker in `work` and starts its thread. The area is the caller's and stays untouched until Destroy has
// returned. Null after a report.
WreqAsync* zelWreqAsync_Create(const ZelWreqAsyncConfig* config, void* work, std::int32_t work_size);

// Ends the worker; waits for a request in flight.
void zelWreqAsync_Destroy(WreqAsync* handle);

// Copies the request and hands it to the worker: 0, or 1 after a report. Accepted when idle and after a success; after
// a failure Stop comes first. Never blocks.
std::int32_t zelWreqAsync_Request(WreqAsync* handle, const WreqRequest* request);

WreqAsyncStatus zelWreqAsync_GetStatus(WreqAsync* handle);

// The response of a request that has ended, otherwise null (E2022121333). The worker's; rewritten by the next request.
WreqResponse* zelWreqAsync_GetResponse(WreqAsync* handle);

// Waits, polling every millisecond, until no request is running, and makes the worker idle: 0, or 1 for a null handle.
std::int32_t zelWreqAsync_Stop(WreqAsync* handle);

// One HTTP request and its outcome, as the worker, the executor and the recognition request share them.
#pragma once

#include <cstdint>

struct WreqHeader {
  const char* key;
  const char* value;
};

struct WreqBasicCredentials {
  const char* user_name;  // null: none
  const char* user_pass;  // null: none; used only when both are given
};

// All strings are NUL-terminated 8-bit text, widened byte by byte on their way to the platform.
struct WreqRequest {
  const char* url;            // whole URL: scheme, host, optional port, path and query
  const char* method;         // one of the eight method names, upper case
  std::int32_t num_headers;   // 0 or less: none
  const WreqHeader* headers;  // sent in this order
  const std::uint8_t* data;   // body; null: none
  std::int32_t data_len;      // bytes of the body
  std::int32_t timeout_sec;   // of each phase (resolve, connect, send, receive); 0 or less: the platform's defaults
  WreqBasicCredentials auth_basic;
};

enum WreqErrorKind : std::uint32_t {
  WREQ_ERROR_UNKNOWN = 0,
  WREQ_ERROR_TIMEOUT = 1,  // never produced by the executor: time-outs count as connection errors
  WREQ_ERROR_DNS = 2,
  WREQ_ERROR_CONNECTION = 3,
  WREQ_ERROR_SSL = 4,
  WREQ_ERROR_HTTP_STATUS = 5,  // never produced by the executor: a reply is a success whatever its status
  WREQ_ERROR_INTERNAL = 6,
};

// Everything but the buffer is cleared when a request is accepted.
struct WreqResponse {
  std::uint32_t status_code;  // written on success only
  std::uint32_t error_kind;   // WreqErrorKind of the last platform error met
  std::uint8_t* data;         // `buffer`, or null when there is none; written on success only
  std::uint32_t data_size;    // bytes of body, terminator not counted; written on success only
  std::uint8_t* buffer;       // the owner's storage for the body; null: the body is not read
  std::uint32_t buffer_size;  // bytes of it, terminator included
};

// What the executor must do against which server, as data: nothing here depends on how the two are run.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "http_server.h"
#include "watched_calls.h"
#include "wreq_execute.h"

struct ExchangeRequest {
  std::string url = "http://127.0.0.1:{port}/p";  // "{port}" is the server's
  std::string method = "POST";
  std::vector<std::pair<std::string, std::string>> headers = {};
  std::string body = "{}";
  std::int32_t timeout_sec = 5;
  std::optional<std::string> user = {};
  std::optional<std::string> password = {};
  std::optional<std::uint32_t> buffer_size = 1232;  // none: no buffer
  Orders orders = {};                               // to the platform
};

struct ExchangeOutcome {
  std::int32_t result = WREQ_EXECUTE_OK;
  std::uint32_t status = 200;
  std::string body = {};
  std::string report = {};  // format of the one report expected
  std::uint32_t error = 0;  // its number; 0: the report carries none, and the error class stays
  std::uint32_t kind = 0;   // class that the number belongs to
};

// What the exchange is on Windows where it is rightly another. Without an outcome and pieces, the case does not run there.
struct OnWindows {
  const char* reason = nullptr;  // none: nothing differs
  std::optional<ExchangeOutcome> expected = {};
  std::vector<std::string> sent = {};
};

struct ExchangeCase {
  const char* name;
  std::vector<kit::Script> server;
  ExchangeRequest request;
  ExchangeOutcome expected;
  std::vector<std::string> sent = {};      // pieces of all requests, joined, in this order
  std::vector<std::string> not_sent = {};  // pieces that the last request must not have
  OnWindows windows = {};
};

// Replies of every kind, and what the request looked like.
std::vector<ExchangeCase> ReplyCases();
// Requests that never leave.
std::vector<ExchangeCase> RefusedCases();
// Connections and replies that fail.
std::vector<ExchangeCase> BrokenCases();
// TLS.
std::vector<ExchangeCase> SecureCases();
// One operation of the platform after the other fails.
std::vector<ExchangeCase> FailedCallCases();

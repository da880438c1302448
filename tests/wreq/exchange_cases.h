// What the executor must do against which server, as data: nothing here depends on how the two are run.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http_server.h"
#include "wreq_execute.h"

struct ExchangeRequest {
  std::string url = "http://127.0.0.1:{port}/p";  // "{port}" is the server's
  std::string method = "POST";
  std::vector<std::pair<std::string, std::string>> headers = {};
  std::string body = "{}";
  std::int32_t timeout_sec = 60;
  std::optional<std::string> user = {}, password = {};
  std::optional<std::uint32_t> buffer_size = 1232;  // none: no buffer
  std::string proxy = {};                           // the user's proxy list, "{port}" the server's
  int failing_allocation = 0;                       // the n-th of the executor fails
};

struct ExchangeOutcome {
  std::int32_t result = WREQ_EXECUTE_OK;
  std::uint32_t status = 200;
  std::string body = {};
  std::string report = {};  // format of the one report expected
  std::uint32_t error = 0;  // its number; 0: the report carries none, and the error class stays
  std::uint32_t kind = 0;   // class that the number belongs to
};

// What the exchange is on Windows where it is rightly another. Without an outcome and pieces, the case does not run
// there.
struct OnWindows {
  const char* reason = nullptr;  // none: nothing differs
  std::optional<ExchangeOutcome> expected = {};
  std::vector<std::string> sent = {};
};

struct ExchangeCase {
  std::string name;
  std::vector<kit::Script> server;
  ExchangeRequest request;
  ExchangeOutcome expected;
  std::vector<std::string> sent = {};      // pieces of all requests, joined, in this order
  std::vector<std::string> not_sent = {};  // pieces that the last request must not have
  OnWindows windows = {};
  bool slow = false;                    // ends with a time-out of the last phase; the ones in front may need more time
  std::vector<kit::Script> other = {};  // of a second server, "{other}" in replies; not_sent is about its requests then
};

// ---- What cases are made of

inline constexpr char kAddHeaders[] = "E2021060617:[ZELWREQ] WinHttpAddRequestHeaders() failed. err=%lu(%s)";
inline constexpr char kSend[] = "E2021060621:[ZELWREQ] WinHttpSendRequest() failed. err=%lu(%s)";
inline constexpr char kReceive[] = "E2021060622:[ZELWREQ] WinHttpReceiveResponse() failed. err=%lu(%s)";
inline constexpr char kData[] = "E2021060625:[ZELWREQ] WinHttpQueryDataAvailable() failed. err=%lu(%s)";

// Why Windows, or Wine where it is not like Windows, does otherwise.
inline constexpr char kPassesSecretsOn[] =
    "hands all headers of the caller on; where we follow redirects ourselves we are stricter";
inline constexpr char kEndIsEnd[] =
    "takes the end of the stream for the end of the body, whatever its announced length";
inline constexpr char kChannelError[] = "Wine has one number for all that can happen in a handshake";
inline constexpr char kWineRedirects[] =
    "Wine resolves locations wrongly, and follows 302 with the old length and no body";
inline constexpr char kWineReplies[] =
    "Wine reads replies in its own way: status lines, heads, lengths, chunks, and where they end";
inline constexpr char kWineProxies[] =
    "Wine sends another request to proxies, and does not look at what a tunnel answers";
inline constexpr char kWineWaits[] =
    "Wine waits without limit for a head or in a handshake, and counts time from the last byte";

inline std::vector<kit::Script> Answer(std::string reply) {
  return {{kit::ReadRequest(), kit::Send(std::move(reply))}};
}
inline std::vector<kit::Script> Ok(std::string_view body) {
  return Answer(kit::Reply("200 OK", body));
}
inline std::string Hop(std::string_view status, const std::string& location, const std::string& more = "") {
  return kit::Reply(status, "gone", "Location: " + location + "\r\n" + more);
}

// A case that does not run on Windows.
inline ExchangeCase NotOnWindows(const char* reason, ExchangeCase c) {
  c.windows.reason = reason;
  return c;
}

inline ExchangeOutcome Success(std::string body, std::uint32_t status = 200) {
  return {.status = status, .body = std::move(body)};
}
inline ExchangeOutcome Failure(const char* report, std::uint32_t error = 0, std::uint32_t kind = 0) {
  return {.result = WREQ_EXECUTE_FAILED, .report = report, .error = error, .kind = kind};
}
inline ExchangeOutcome TooBig() {
  return {.result = WREQ_EXECUTE_BODY_TOO_BIG};
}
inline ExchangeRequest To(std::string url) {
  return {.url = std::move(url)};
}
inline ExchangeRequest Secure() {
  return To("https://localhost:{port}/p");
}

// ---- The tables

// Replies of every kind, and what the request looked like.
std::vector<ExchangeCase> ReplyCases();
// Requests that never leave.
std::vector<ExchangeCase> RefusedCases();
// TLS.
std::vector<ExchangeCase> SecureCases();

// The rest is made by generators, in hostile_cases.cpp.

// The end of the connection at every stage, by every way to the server.
std::vector<ExchangeCase> CutOffCases();
// Bodies of the largest size that fits, one byte more, and without an end, in every framing.
std::vector<ExchangeCase> BodySizeCases();
// Heads and bodies that break the rules.
std::vector<ExchangeCase> MalformedCases();
// Every redirect code by several methods, and every kind of location.
std::vector<ExchangeCase> RedirectCases();
// Redirects that would carry secrets to where they do not belong.
std::vector<ExchangeCase> SecretCases();
// Servers that keep an exchange waiting in one of its phases.
std::vector<ExchangeCase> SlowCases();

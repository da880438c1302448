#include "exchange_run.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "bridge.h"
#include "watched_calls.h"

namespace {

// Of the calling thread's execution. Has room for more than may come, so that reporting takes nothing from the heap.
thread_local std::vector<ExchangeReport> reports;

void Keep(std::uint32_t level, const char* text, std::uint64_t error, const char* name) {
  ExchangeReport& report = reports.emplace_back();
  report.level = level;
  std::snprintf(report.text, sizeof report.text, "%s", text);
  report.error = error;
  std::snprintf(report.name, sizeof report.name, "%s", name);
}

std::string WithPort(std::string text, unsigned port, std::string_view mark = "{port}") {
  const std::size_t at = text.find(mark);
  return at == std::string::npos ? text : text.replace(at, mark.size(), std::to_string(port));
}

void ExpectOutcome(const ExchangeOutcome& expected, const Execution& execution) {
  const WreqResponse& response = execution.response;
  EXPECT_EQ(execution.result, expected.result);
  EXPECT_EQ(response.error_kind, expected.error != 0 ? expected.kind : kUntouched);
  EXPECT_EQ(execution.buffer.back(), 0xEE) << "written behind the buffer";
  EXPECT_EQ(execution.reports.size(), expected.report.empty() ? 0u : 1u);
  for (const ExchangeReport& report : execution.reports) {
    EXPECT_EQ(report.level, expected.report[0] == 'W' ? 1u : 0u);
    EXPECT_EQ(report.text, expected.report);
    EXPECT_EQ(report.error, expected.error);
    EXPECT_STREQ(report.name, expected.error != 0 ? zelWreq_GetWinHttpErrorName(expected.error) : "");
  }
  if (expected.result != WREQ_EXECUTE_OK) {
    EXPECT_EQ(response.status_code, kUntouched);
    EXPECT_EQ(response.data_size, kUntouched);
    EXPECT_EQ(response.data, nullptr);
    return;
  }
  EXPECT_EQ(response.status_code, expected.status);
  EXPECT_EQ(response.data_size, expected.body.size());
  if (response.buffer == nullptr || response.buffer_size == 0) {
    EXPECT_EQ(response.data, nullptr);
    return;
  }
  ASSERT_EQ(response.data, response.buffer);
  EXPECT_EQ(std::string(response.data, response.data + response.data_size), expected.body);
  EXPECT_EQ(response.data[response.data_size], 0);
}

void ExpectRequests(const ExchangeCase& c, const std::vector<std::string>& requests) {
  std::string all;
  for (const std::string& request : requests)
    all += request;
  std::size_t at = 0;
  for (const std::string& piece : c.sent) {
    const std::size_t found = all.find(piece, at);
    ASSERT_NE(found, std::string::npos) << "missing: " << piece << "\nin:\n" << all;
    at = found + piece.size();
  }
  if (!c.other.empty()) return;
  for (const std::string& piece : c.not_sent) {
    EXPECT_TRUE(requests.empty() || requests.back().find(piece) == std::string::npos) << piece << "\nin:\n" << all;
  }
}

// What a second server got: nothing at all when the exchange was to end before.
void ExpectOther(const ExchangeCase& c, const std::vector<std::string>& requests) {
  EXPECT_EQ(requests.size(), c.expected.result == WREQ_EXECUTE_OK ? 1u : 0u);
  for (const std::string& request : requests) {
    for (const std::string& piece : c.not_sent)
      EXPECT_EQ(request.find(piece), std::string::npos) << piece << "\nin:\n" << request;
  }
}

}  // namespace

void PrepareExchanges() {
  kit::UseNoProxy();
  kit::TrustTestAuthority();
  static BridgeTable table = {};
  table.err_notify = [](std::uint32_t level, const char* message) { Keep(level, message, 0, ""); };
  table.err_notify2 = [](std::uint32_t level, const char* format, std::uint64_t error, std::uint64_t name) {
    Keep(level, format, error, reinterpret_cast<const char*>(name));
  };
  zel_bridge_interface = {ZEL_BASE_RTC_BRIDGE_VERSION, &table};
}

Execution Execute(const ExchangeRequest& given, unsigned port) {
  const std::string url = WithPort(given.url, port);
  std::vector<WreqHeader> headers;
  for (const auto& [key, value] : given.headers)
    headers.push_back({key.c_str(), value.c_str()});
  const WreqRequest request = {
      .url = url.c_str(),
      .method = given.method.c_str(),
      .num_headers = static_cast<std::int32_t>(headers.size()),
      .headers = headers.data(),
      .data = given.body.empty() ? nullptr : reinterpret_cast<const std::uint8_t*>(given.body.data()),
      .data_len = static_cast<std::int32_t>(given.body.size()),
      .timeout_sec = given.timeout_sec,
      .auth_basic = {given.user ? given.user->c_str() : nullptr, given.password ? given.password->c_str() : nullptr},
  };
  Execution execution = {};
  execution.buffer.assign(given.buffer_size.value_or(0) + 1, 0xEE);
  execution.response = {kUntouched,
                        kUntouched,
                        nullptr,
                        kUntouched,
                        given.buffer_size ? execution.buffer.data() : nullptr,
                        given.buffer_size.value_or(0)};
  reports.clear();
  reports.reserve(8);
  Watch watch = {given.orders};
  watch.orders.proxy = WithPort(given.orders.proxy, port);
  SetWatch(&watch);
  execution.result = zelWreq_Execute(&request, &execution.response);
  SetWatch(nullptr);
  EXPECT_TRUE(watch.held == Holdings()) << watch.held.handles << " handles, " << watch.held.proxy_strings
                                        << " proxy strings, " << watch.held.blocks << " blocks kept";
  execution.allocation_failed = given.orders.failing_allocation > 0 && watch.orders.failing_allocation == 0;
  execution.reports = reports;
  return execution;
}

bool Runs(const ExchangeCase& c) {
  return !kWindows || c.windows.reason == nullptr || c.windows.expected || !c.windows.sent.empty();
}

void RunCase(const ExchangeCase& given) {
  SCOPED_TRACE(given.name);
  ExchangeCase c = given;
  if (kWindows && c.windows.expected) c.expected = *c.windows.expected;
  if (kWindows && c.windows.reason != nullptr) c.sent = c.windows.sent;
  if (c.server.empty()) return ExpectOutcome(c.expected, Execute(c.request, 1));
  std::optional<kit::HttpServer> other;
  if (!c.other.empty()) {
    other.emplace(c.other);
    for (kit::Script& script : c.server) {
      for (kit::Step& step : script)
        step.text = WithPort(std::move(step.text), other->port(), "{other}");
    }
  }
  const kit::HttpServer server(c.server);
  ExpectOutcome(c.expected, Execute(c.request, server.port()));
  ExpectRequests(c, server.requests());
  if (other) ExpectOther(c, other->requests());
}

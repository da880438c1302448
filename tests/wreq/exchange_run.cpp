#include "exchange_run.h"

#include <gtest/gtest.h>

#include "bridge.h"
#include "watched_calls.h"

namespace {

// Of the calling thread's execution. Not an object: those are destroyed too late at the end of a thread on Windows.
thread_local std::vector<std::string>* reports;

std::string Render(std::uint32_t level, const std::string& text, std::uint64_t error, const char* name) {
  std::string report = std::to_string(level);
  report.append(" ").append(text);
  if (error != 0) report.append("|").append(std::to_string(error)).append("|").append(name);
  return report;
}

// What the reports take from the heap is not counted.
void Keep(std::uint32_t level, const char* text, std::uint64_t error, const char* name) {
  Watch* const paused = SetWatch(nullptr);
  reports->push_back(Render(level, text, error, name));
  SetWatch(paused);
}

std::string WithPort(std::string text, unsigned port, std::string_view mark = "{port}") {
  const std::size_t at = text.find(mark);
  return at == std::string::npos ? text : text.replace(at, mark.size(), std::to_string(port));
}

const char* Optional(const std::optional<std::string>& text) {
  return text ? text->c_str() : nullptr;
}

std::vector<std::string> ReportsOf(const ExchangeOutcome& expected) {
  if (expected.report.empty()) return {};
  const std::uint32_t level = expected.report[0] == 'W' ? 1 : 0;
  return {Render(level, expected.report, expected.error, zelWreq_GetWinHttpErrorName(expected.error))};
}

void ExpectOutcome(const ExchangeOutcome& expected, const Execution& execution) {
  const WreqResponse& response = execution.response;
  const bool ok = expected.result == WREQ_EXECUTE_OK;
  EXPECT_EQ(execution.result, expected.result);
  EXPECT_EQ(execution.reports, ReportsOf(expected));
  EXPECT_EQ(response.error_kind, expected.error != 0 ? expected.kind : kUntouched);
  EXPECT_EQ(response.status_code, ok ? expected.status : kUntouched);
  EXPECT_EQ(response.data_size, ok ? expected.body.size() : kUntouched);
  EXPECT_EQ(response.data, ok && response.buffer_size != 0 ? response.buffer : nullptr);
  EXPECT_EQ(execution.buffer.back(), 0xEE) << "written behind the buffer";
  if (response.data == nullptr || response.data_size != expected.body.size()) return;
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
}

void ExpectNothingOf(const std::vector<std::string>& pieces, const std::vector<std::string>& requests) {
  const std::string last = requests.empty() ? "" : requests.back();
  for (const std::string& piece : pieces)
    EXPECT_EQ(last.find(piece), std::string::npos) << piece << "\nin:\n" << last;
}

// Runs the case against servers of its own; false, without a verdict, when a phase in front of the slow one took too
// long.
bool RunOnce(ExchangeCase c) {
  std::optional<kit::HttpServer> other;
  if (!c.other.empty()) {
    other.emplace(c.other);
    for (kit::Script& script : c.server) {
      for (kit::Step& step : script)
        step.text = WithPort(std::move(step.text), other->port(), "{other}");
    }
  }
  const kit::HttpServer server(c.server);
  const Execution execution = Execute(c.request, server.port());
  const bool too_slow = c.slow && execution.reports != ReportsOf(c.expected) && c.request.timeout_sec < 30;
  if (too_slow && execution.response.error_kind == c.expected.kind) return false;
  ExpectOutcome(c.expected, execution);
  ExpectRequests(c, server.requests());
  if (!other) {
    ExpectNothingOf(c.not_sent, server.requests());
  } else {  // nothing at all came there when the exchange was to end before
    EXPECT_EQ(other->requests().size(), c.expected.result == WREQ_EXECUTE_OK ? 1u : 0u);
    ExpectNothingOf(c.not_sent, other->requests());
  }
  return true;
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
      .auth_basic = {Optional(given.user), Optional(given.password)},
  };
  Execution execution = {};
  execution.buffer.assign(given.buffer_size.value_or(0) + 1, 0xEE);
  std::uint8_t* buffer = given.buffer_size ? execution.buffer.data() : nullptr;
  execution.response = {kUntouched, kUntouched, nullptr, kUntouched, buffer, given.buffer_size.value_or(0)};
  reports = &execution.reports;
  Watch watch = {.failing_allocation = given.failing_allocation, .proxy = WithPort(given.proxy, port)};
  SetWatch(&watch);
  execution.result = zelWreq_Execute(&request, &execution.response);
  SetWatch(nullptr);
  EXPECT_TRUE(watch.held == Holdings()) << watch.held.handles << " handles, " << watch.held.proxy_strings
                                        << " proxy strings, " << watch.held.blocks << " blocks kept";
  execution.allocation_failed = given.failing_allocation > 0 && watch.failing_allocation == 0;
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
  while (!RunOnce(c))
    c.request.timeout_sec *= 2;
}

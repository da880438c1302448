#include "wreq_execute.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

#include "bridge.h"
#include "exchange_cases.h"

// Allocations of the calling thread until one fails; 0: none does. The linker leads the plug-in's allocations here.
static thread_local int allocations_left;

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
char* __real_strdup(const char* text);

static bool Fails() {
  return allocations_left > 0 && --allocations_left == 0;
}
void* __wrap_malloc(std::size_t size) {
  return Fails() ? nullptr : __real_malloc(size);
}
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return Fails() ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* memory, std::size_t size) {
  return Fails() ? nullptr : __real_realloc(memory, size);
}
char* __wrap_strdup(const char* text) {
  return Fails() ? nullptr : __real_strdup(text);
}
}

namespace {

struct Report {
  std::uint32_t level;
  std::string text;
  std::uint64_t error;
  std::string name;
};

// Reports of the calling thread since the last look.
thread_local std::vector<Report> reports;

void OnNotify(std::uint32_t level, const char* message) {
  reports.push_back({level, message, 0, ""});
}
void OnNotify2(std::uint32_t level, const char* format, std::uint64_t error, std::uint64_t name) {
  reports.push_back({level, format, error, reinterpret_cast<const char*>(name)});
}

std::string WithPort(std::string text, unsigned port) {
  const std::size_t at = text.find("{port}");
  return at == std::string::npos ? text : text.replace(at, 6, std::to_string(port));
}

constexpr std::uint32_t kUntouched = 77;

struct Execution {
  std::int32_t result;
  WreqResponse response;
  std::vector<std::uint8_t> buffer;
};

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
  execution.result = zelWreq_Execute(&request, &execution.response);
  return execution;
}

void ExpectOutcome(const ExchangeCase& c, const Execution& execution) {
  const WreqResponse& response = execution.response;
  EXPECT_EQ(execution.result, c.expected.result);
  EXPECT_EQ(response.error_kind, c.expected.error != 0 ? c.expected.kind : kUntouched);
  EXPECT_EQ(execution.buffer.back(), 0xEE) << "written behind the buffer";
  EXPECT_EQ(reports.size(), c.expected.report.empty() ? 0u : 1u);
  for (const Report& report : reports) {
    EXPECT_EQ(report.level, 0u);
    EXPECT_EQ(report.text, c.expected.report);
    EXPECT_EQ(report.error, c.expected.error);
    EXPECT_EQ(report.name, report.error != 0 ? zelWreq_GetWinHttpErrorName(c.expected.error) : "");
  }
  if (c.expected.result != WREQ_EXECUTE_OK) {
    EXPECT_EQ(response.status_code, kUntouched);
    EXPECT_EQ(response.data_size, kUntouched);
    EXPECT_EQ(response.data, nullptr);
    return;
  }
  EXPECT_EQ(response.status_code, c.expected.status);
  EXPECT_EQ(response.data_size, c.expected.body.size());
  if (response.buffer == nullptr || response.buffer_size == 0) {
    EXPECT_EQ(response.data, nullptr);
    return;
  }
  ASSERT_EQ(response.data, response.buffer);
  EXPECT_EQ(std::string(response.data, response.data + response.data_size), c.expected.body);
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
  for (const std::string& piece : c.not_sent) {
    EXPECT_TRUE(requests.empty() || requests.back().find(piece) == std::string::npos) << piece << "\nin:\n" << all;
  }
}

void RunCase(const ExchangeCase& c) {
  SCOPED_TRACE(c.name);
  if (c.server.empty()) return ExpectOutcome(c, Execute(c.request, 1));
  const kit::HttpServer server(c.server);
  ExpectOutcome(c, Execute(c.request, server.port()));
  ExpectRequests(c, server.requests());
}

class WreqExecute : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("SSL_CERT_FILE", kit::Authority::Get().file().c_str(), 1);
    for (const char* name :
         {"http_proxy", "https_proxy", "all_proxy", "no_proxy", "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY"}) {
      unsetenv(name);
    }
    static BridgeTable table = {};
    table.err_notify = OnNotify;
    table.err_notify2 = OnNotify2;
    const ZelBaseRtcBridgeInterface record = {ZEL_BASE_RTC_BRIDGE_VERSION, &table};
    zel_bridge_interface = record;
  }

  static std::size_t OpenDescriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
  }
};

TEST_F(WreqExecute, TakesReplies) {
  for (const ExchangeCase& c : ReplyCases())
    RunCase(c);
}

TEST_F(WreqExecute, RefusesBadRequests) {
  for (const ExchangeCase& c : RefusedCases())
    RunCase(c);
}

TEST_F(WreqExecute, ReportsBrokenExchanges) {
  for (const ExchangeCase& c : BrokenCases())
    RunCase(c);
}

TEST_F(WreqExecute, VerifiesServers) {
  for (const ExchangeCase& c : SecureCases())
    RunCase(c);
}

TEST_F(WreqExecute, RunsOnManyThreadsAndLeavesNoDescriptorBehind) {
  std::vector<ExchangeCase> cases = ReplyCases();
  for (ExchangeCase& c : SecureCases())
    cases.push_back(std::move(c));
  std::erase_if(cases, [](const ExchangeCase& c) { return c.request.timeout_sec == 1; });
  RunCase(cases.back());  // what is loaded once is loaded now
  const std::size_t before = OpenDescriptors();
  std::vector<std::thread> threads;
  for (std::size_t first = 0; first < 4; ++first) {
    threads.emplace_back([&cases, first] {
      for (std::size_t i = 0; i < cases.size(); ++i)
        RunCase(cases[(i + first * 7) % cases.size()]);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(WreqExecute, SurvivesEveryFailedAllocation) {
  const ExchangeRequest request = {.headers = {{"User-Agent", "A"}, {"X-A", "1"}}, .user = "u", .password = "p"};
  int failures = 0;
  for (bool failed = true; failed; ++failures) {
    SCOPED_TRACE(failures);
    ASSERT_LT(failures, 200);
    const kit::HttpServer server(
        {{kit::ReadRequest(), kit::Send(kit::Reply("302 F", "", "Location: /n\r\nSet-Cookie: a=b\r\n"))},
         {kit::ReadRequest(), kit::Send(kit::Reply("200 OK", "ok"))}});
    allocations_left = failures + 1;
    const Execution execution = Execute(request, server.port());
    failed = allocations_left == 0;
    allocations_left = 0;
    ASSERT_EQ(execution.result, failed ? WREQ_EXECUTE_FAILED : WREQ_EXECUTE_OK);
    ASSERT_EQ(reports.size(), failed ? 1u : 0u);
    if (!failed) break;
    const bool numbered = reports[0].text.find("err=%lu(%s)") != std::string::npos;
    EXPECT_EQ(reports[0].error, numbered ? 8u : 0u) << reports[0].text;
    EXPECT_EQ(execution.response.error_kind, numbered ? std::uint32_t{WREQ_ERROR_INTERNAL} : kUntouched);
  }
  EXPECT_GT(failures, 20);
}

TEST_F(WreqExecute, SaturatesHugeTimeouts) {
  const kit::HttpServer server(kit::Script{kit::ReadRequest(), kit::Send(kit::Reply("200 OK", "ok"))});
  EXPECT_EQ(Execute({.timeout_sec = 2147484}, server.port()).result, WREQ_EXECUTE_OK);
  EXPECT_EQ(Execute({.timeout_sec = 0}, server.port()).result, WREQ_EXECUTE_OK);
}

TEST(WreqErrors, HaveNamesAndClasses) {
  const struct {
    std::uint32_t error;
    const char* name;
    WreqErrorKind kind;
  } kErrors[] = {
      {8, "ERROR_NOT_ENOUGH_MEMORY", WREQ_ERROR_INTERNAL},
      {12002, "ERROR_WINHTTP_TIMEOUT", WREQ_ERROR_CONNECTION},
      {12007, "ERROR_WINHTTP_NAME_NOT_RESOLVED", WREQ_ERROR_DNS},
      {12017, "ERROR_WINHTTP_OPERATION_CANCELLED", WREQ_ERROR_UNKNOWN},
      {12029, "ERROR_WINHTTP_CANNOT_CONNECT", WREQ_ERROR_CONNECTION},
      {12030, "ERROR_WINHTTP_CONNECTION_ERROR", WREQ_ERROR_INTERNAL},
      {12037, "unknown", WREQ_ERROR_SSL},
      {12044, "ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED", WREQ_ERROR_SSL},
      {12153, "unknown", WREQ_ERROR_INTERNAL},
      {12157, "unknown", WREQ_ERROR_SSL},
      {12175, "ERROR_WINHTTP_SECURE_FAILURE", WREQ_ERROR_SSL},
      {12184, "ERROR_WINHTTP_RESPONSE_DRAIN_OVERFLOW", WREQ_ERROR_INTERNAL},
      {12186, "unknown", WREQ_ERROR_SSL},
      {0, "unknown", WREQ_ERROR_INTERNAL},
  };
  for (const auto& error : kErrors) {
    EXPECT_STREQ(zelWreq_GetWinHttpErrorName(error.error), error.name) << error.error;
    EXPECT_EQ(zelWreq_ClassifyWinHttpError(error.error), error.kind) << error.error;
  }
}

}  // namespace

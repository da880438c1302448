#include "wreq_execute.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <thread>

#include "exchange_run.h"
#include "watched_calls.h"

namespace {

void SetVariable(const char* name, const std::string& value) {
#ifdef _WIN32
  _putenv_s(name, value.c_str());
#else
  setenv(name, value.c_str(), 1);
#endif
}

// Descriptors of the process. Wine cannot count the handles of one; what each execution keeps is counted everywhere.
std::size_t OpenDescriptors() {
  if (kWindows) return 0;
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

class WreqExecute : public testing::Test {
 protected:
  static void SetUpTestSuite() { PrepareExchanges(); }

  // Behind each case the next exchange works and, once everything is loaded, no descriptor is left.
  static void RunAll(const std::vector<ExchangeCase>& cases) {
    const ExchangeCase works = {"the next exchange", Ok("next"), {}, Success("next")};
    RunCase(works);
    for (const ExchangeCase& c : cases) {
      if (!Runs(c)) continue;
      const std::size_t before = OpenDescriptors();
      RunCase(c);
      RunCase(works);
      EXPECT_EQ(OpenDescriptors(), before) << c.name;
    }
  }
};

// The cases that run here and wait for no time-out.
std::vector<ExchangeCase> QuickCases() {
  std::vector<ExchangeCase> cases;
  for (auto* table : {ReplyCases, RefusedCases, MalformedCases, SecureCases, FailedCallCases}) {
    for (ExchangeCase& c : table())
      if (c.request.timeout_sec != 1 && Runs(c)) cases.push_back(std::move(c));
  }
  return cases;
}

TEST_F(WreqExecute, TakesReplies) {
  RunAll(ReplyCases());
}

TEST_F(WreqExecute, RefusesBadRequests) {
  RunAll(RefusedCases());
}

// Whatever the environment says.
TEST_F(WreqExecute, VerifiesServers) {
  for (const char* name : {"CURL_INSECURE", "CURL_SSL_NO_VERIFY", "SSL_NO_VERIFY", "GIT_SSL_NO_VERIFY"})
    SetVariable(name, "1");
  for (const char* name : {"CURL_CA_BUNDLE", "NODE_TLS_REJECT_UNAUTHORIZED", "PYTHONHTTPSVERIFY"})
    SetVariable(name, "0");
  RunAll(SecureCases());
}

TEST_F(WreqExecute, TellsWhereTheConnectionEnded) {
  RunAll(CutOffCases());
}

TEST_F(WreqExecute, TakesBodiesThatFit) {
  RunAll(BodySizeCases());
}

TEST_F(WreqExecute, RefusesMalformedReplies) {
  RunAll(MalformedCases());
}

TEST_F(WreqExecute, FollowsRedirectsByTheRules) {
  RunAll(RedirectCases());
}

TEST_F(WreqExecute, KeepsSecretsWhereTheyBelong) {
  RunAll(SecretCases());
}

TEST_F(WreqExecute, EndsInEveryPhase) {
  RunAll(SlowCases());
}

TEST_F(WreqExecute, ReportsEveryFailedCall) {
  RunAll(FailedCallCases());
}

// Exchanges of every kind but the slow ones; each execution checks that it keeps nothing.
TEST_F(WreqExecute, RunsOnManyThreadsAThousandTimesAndKeepsNothing) {
  const std::vector<ExchangeCase> cases = QuickCases();
  constexpr std::size_t kThreads = 4;
  const auto run_rounds = [&cases](std::size_t rounds) {
    std::vector<std::thread> threads;
    for (std::size_t first = 0; first < kThreads; ++first) {
      threads.emplace_back([&cases, rounds, first] {
        for (std::size_t i = 0; i < rounds * cases.size(); ++i)
          RunCase(cases[(first * 7 + i) % cases.size()]);
      });
    }
    for (std::thread& thread : threads)
      thread.join();
  };
  const std::size_t rounds = 1000 / (kThreads * cases.size()) + 1;
  run_rounds(1);  // what is loaded once is loaded now
  const std::size_t before = OpenDescriptors();
  run_rounds(rounds);
  EXPECT_EQ(OpenDescriptors(), before);
}

// By the user's proxy, without which nobody listens: no failure leads past it.
TEST_F(WreqExecute, SurvivesEveryFailedAllocation) {
  ExchangeRequest request = {.url = kWindows ? "http://127.0.0.1:{port}/p" : "http://127.0.0.1:1/p",
                             .headers = {{"User-Agent", "A"}, {"X-A", "1"}},
                             .user = "u",
                             .password = "p"};
  int recovered = 0;
  for (int& nth = request.orders.failing_allocation = 1;; ++nth) {
    SCOPED_TRACE(nth);
    ASSERT_LT(nth, 200);
    const kit::HttpServer server(
        {{kit::ReadRequest(), kit::Send(kit::Reply("307 T", "", "Location: /n\r\nSet-Cookie: a=b\r\n"))},
         {kit::ReadRequest(), kit::Send(kit::Reply("200 OK", "ok"))}});
    if (!kWindows) SetVariable("http_proxy", "127.0.0.1:" + std::to_string(server.port()));
    const Execution execution = Execute(request, server.port());
    kit::UseNoProxy();
    // Reading the proxies is tried twice.
    if (execution.allocation_failed && execution.result == WREQ_EXECUTE_OK && ++recovered <= 2) continue;
    const bool failed = execution.allocation_failed;
    ASSERT_EQ(execution.result, failed ? WREQ_EXECUTE_FAILED : WREQ_EXECUTE_OK);
    ASSERT_EQ(execution.reports.size(), failed ? 1u : 0u);
    if (!failed) {
      EXPECT_GT(nth, 5);  // agent, URL, host, path, line
      return;
    }
    const bool numbered = std::string_view(execution.reports[0].text).find("err=%lu(%s)") != std::string::npos;
    EXPECT_EQ(execution.reports[0].error, numbered ? 8u : 0u) << execution.reports[0].text;
    EXPECT_EQ(execution.response.error_kind, numbered ? std::uint32_t{WREQ_ERROR_INTERNAL} : kUntouched);
  }
}

#ifndef _WIN32
TEST_F(WreqExecute, KnowsExceptionsThatAreAddresses) {
  const kit::HttpServer proxy(Ok("by proxy"));
  SetVariable("http_proxy", "127.0.0.1:" + std::to_string(proxy.port()));
  for (const char* exceptions : {"::1", "a, [::1]", "::2"}) {
    SetVariable("no_proxy", exceptions);
    const bool passes = Execute(To("http://[::1]:1/"), 1).result == WREQ_EXECUTE_FAILED;
    EXPECT_EQ(passes, std::string_view(exceptions) != "::2") << exceptions;
  }
  kit::UseNoProxy();
}
#endif

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

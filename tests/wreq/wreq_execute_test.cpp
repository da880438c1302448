#include "wreq_execute.h"

#include <gtest/gtest.h>

#include <iterator>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#else
#include <filesystem>
#endif

#include "exchange_run.h"
#include "watched_calls.h"

namespace {

class WreqExecute : public testing::Test {
 protected:
  static void SetUpTestSuite() { PrepareExchanges(); }

  static void RunAll(const std::vector<ExchangeCase>& cases) {
    for (const ExchangeCase& c : cases)
      if (Runs(c)) RunCase(c);
  }
};

// The cases that run here and wait for no time-out.
std::vector<ExchangeCase> QuickCases() {
  std::vector<ExchangeCase> cases;
  for (auto* table : {ReplyCases, RefusedCases, BrokenCases, SecureCases, FailedCallCases}) {
    for (ExchangeCase& c : table())
      if (c.request.timeout_sec != 1 && Runs(c)) cases.push_back(std::move(c));
  }
  return cases;
}

// Handles or descriptors of the process.
std::size_t OpenHandles() {
#ifdef _WIN32
  DWORD count = 0;
  EXPECT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &count));
  return count;
#else
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
#endif
}

TEST_F(WreqExecute, TakesReplies) {
  RunAll(ReplyCases());
}

TEST_F(WreqExecute, RefusesBadRequests) {
  RunAll(RefusedCases());
}

TEST_F(WreqExecute, ReportsBrokenExchanges) {
  RunAll(BrokenCases());
}

TEST_F(WreqExecute, VerifiesServers) {
  RunAll(SecureCases());
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
  const std::size_t before = OpenHandles();
  run_rounds(rounds);
#ifdef _WIN32
  EXPECT_LT(OpenHandles(), before + 200);  // the system may keep connections open for a while, in case of more requests
#else
  EXPECT_EQ(OpenHandles(), before);
#endif
}

TEST_F(WreqExecute, SurvivesEveryFailedAllocation) {
  ExchangeRequest request = {.headers = {{"User-Agent", "A"}, {"X-A", "1"}}, .user = "u", .password = "p"};
  for (int& nth = request.orders.failing_allocation = 1;; ++nth) {
    SCOPED_TRACE(nth);
    ASSERT_LT(nth, 200);
    const kit::HttpServer server(
        {{kit::ReadRequest(), kit::Send(kit::Reply("307 T", "", "Location: /n\r\nSet-Cookie: a=b\r\n"))},
         {kit::ReadRequest(), kit::Send(kit::Reply("200 OK", "ok"))}});
    const Execution execution = Execute(request, server.port());
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

#include "wreq_execute.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <ostream>
#include <thread>

#include "exchange_run.h"

namespace {

void SetVariable(const char* name, const std::string& value) {
#ifdef _WIN32
  _putenv_s(name, value.c_str());
#else
  setenv(name, value.c_str(), 1);
#endif
}

// Descriptors of the process. Wine cannot count the handles of one; what each execution keeps is counted everywhere.
std::ptrdiff_t OpenDescriptors() {
  return kWindows ? 0 : std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class WreqExecute : public testing::Test {
 protected:
  // Servers are verified whatever the environment says.
  static void SetUpTestSuite() {
    PrepareExchanges();
    for (const char* name : {"CURL_INSECURE", "CURL_SSL_NO_VERIFY", "SSL_NO_VERIFY", "GIT_SSL_NO_VERIFY"})
      SetVariable(name, "1");
    for (const char* name : {"CURL_CA_BUNDLE", "NODE_TLS_REJECT_UNAUTHORIZED", "PYTHONHTTPSVERIFY"})
      SetVariable(name, "0");
  }
};

struct Table {
  const char* name;
  std::vector<ExchangeCase> (*cases)();
};
void PrintTo(const Table& table, std::ostream* output) {
  *output << table.name;
}
class Exchanges : public WreqExecute, public testing::WithParamInterface<Table> {};

INSTANTIATE_TEST_SUITE_P(
    Wreq, Exchanges,
    testing::Values(Table{"TakeReplies", ReplyCases}, Table{"RefuseBadRequests", RefusedCases},
                    Table{"VerifyServers", SecureCases}, Table{"TellWhereTheyWereCutOff", CutOffCases},
                    Table{"TakeBodiesThatFit", BodySizeCases}, Table{"RefuseMalformedReplies", MalformedCases},
                    Table{"FollowRedirectsByTheRules", RedirectCases}, Table{"KeepSecretsWhereTheyBelong", SecretCases},
                    Table{"EndInEveryPhase", SlowCases}),
    [](const auto& table) { return table.param.name; });

// Behind each case the next exchange works and, once everything is loaded, no descriptor is left.
TEST_P(Exchanges, DoAsTheirTablesSay) {
  const ExchangeCase works = {"the next exchange", Ok("next"), {}, Success("next")};
  RunCase(works);
  for (const ExchangeCase& c : GetParam().cases()) {
    if (!Runs(c)) continue;
    const std::ptrdiff_t before = OpenDescriptors();
    RunCase(c);
    RunCase(works);
    EXPECT_EQ(OpenDescriptors(), before) << c.name;
  }
}

// Exchanges of every kind but the slow ones; each execution checks that it keeps nothing.
TEST_F(WreqExecute, RunsOnManyThreadsAThousandTimesAndKeepsNothing) {
  std::vector<ExchangeCase> cases;
  for (auto* table : {ReplyCases, RefusedCases, MalformedCases, SecureCases}) {
    for (ExchangeCase& c : table())
      if (Runs(c)) cases.push_back(std::move(c));
  }
  constexpr std::size_t kThreads = 4;
  const auto run_rounds = [&cases](std::size_t rounds) {
    std::vector<std::jthread> threads;
    for (std::size_t first = 0; first < kThreads; ++first) {
      threads.emplace_back([&cases, rounds, first] {
        for (std::size_t i = 0; i < rounds * cases.size(); ++i)
          RunCase(cases[(first * 7 + i) % cases.size()]);
      });
    }
  };
  run_rounds(1);  // what is loaded once is loaded now
  const std::ptrdiff_t before = OpenDescriptors();
  run_rounds(1000 / (kThreads * cases.size()) + 1);
  EXPECT_EQ(OpenDescriptors(), before);
}

// By the user's proxy, without which nobody listens: no failure leads past it.
TEST_F(WreqExecute, SurvivesEveryFailedAllocation) {
  ExchangeRequest request = {.url = kWindows ? "http://127.0.0.1:{port}/p" : "http://127.0.0.1:1/p",
                             .headers = {{"User-Agent", "A"}, {"X-A", "1"}},
                             .user = "u",
                             .password = "p"};
  const std::string hop = kit::Reply("307 T", "", "Location: /n\r\nSet-Cookie: a=b\r\n");
  int recovered = 0;
  for (int& nth = request.failing_allocation = 1;; ++nth) {
    SCOPED_TRACE(nth);
    ASSERT_LT(nth, 200);
    const kit::HttpServer server({{kit::ReadRequest(), kit::Send(hop)}, Ok("ok")[0]});
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
    const bool numbered = execution.reports[0].find("err=%lu(%s)") != std::string::npos;
    EXPECT_EQ(numbered, execution.reports[0].ends_with("|8|ERROR_NOT_ENOUGH_MEMORY")) << execution.reports[0];
    EXPECT_EQ(execution.response.error_kind, numbered ? std::uint32_t{WREQ_ERROR_INTERNAL} : kUntouched);
  }
}

#ifndef _WIN32
TEST_F(WreqExecute, GoesPastTheProxyToExceptions) {
  const kit::HttpServer server(Ok("ok")), proxy(Ok("by proxy"));
  SetVariable("http_proxy", "127.0.0.1:" + std::to_string(proxy.port()));
  const struct {
    const char *url, *exceptions;
    bool passes;
  } kCases[] = {{"http://127.0.0.1:{port}/", "127.0.0.1", true},
                {"http://127.0.0.1:{port}/", "a,0.0.1", true},
                {"http://127.0.0.1:{port}/", "*.0.0.1", true},
                {"http://127.0.0.1:{port}/", "27.0.0.1", false},
                {"http://[::1]:1/", "::1", true},
                {"http://[::1]:1/", "a, [::1]", true},
                {"http://[::1]:1/", "::2", false}};
  for (const auto& [url, exceptions, passes] : kCases) {
    SetVariable("no_proxy", exceptions);
    const Execution execution = Execute(To(url), server.port());  // nobody listens at [::1]:1
    const bool by_proxy = execution.response.data_size == 8;
    EXPECT_EQ(by_proxy, !passes) << url << " " << exceptions;
  }
  kit::UseNoProxy();
}
#endif

TEST_F(WreqExecute, SaturatesHugeTimeouts) {
  const kit::HttpServer server(Ok("ok"));
  for (const std::int32_t seconds : {2147484, 0})
    EXPECT_TRUE(Execute({.timeout_sec = seconds}, server.port()).reports.empty());
}

}  // namespace

#include "wreq_async.h"

#include <string>

#include "scripted_executor.h"
#include "scripted_host.h"

namespace {

// Headers, key, value, URL, body, user name, password, response.
constexpr ZelWreqAsyncConfig kConfig = {3, 14, 16, 32, 100, 5, 6, 64};
constexpr WreqHeader kHeaders[] = {{"Authorization", "123456789012345"}, {"a", "1"}, {"b", ""}, {"c", "3"}};
constexpr std::uint8_t kBody[101] = {'x', 'y', 'z'};

WreqRequest Request() {
  return {"http://h/p?q", "POST", 2, kHeaders, kBody, 3, 20, {}};
}

struct Worker {
  explicit Worker(const ZelWreqAsyncConfig& config = kConfig, std::size_t misalignment = 0)
      : area(zelWreqAsync_CalculateWorkSize(&config), misalignment),
        handle(zelWreqAsync_Create(&config, area.data(), area.size())) {}
  ~Worker() {
    if (handle != nullptr) zelWreqAsync_Destroy(handle);
  }
  WorkArea area;
  WreqAsync* handle;
};

TEST(WreqAsync, CarvesWhatItsSizePromisesAtEveryMisalignment) {
  ScriptedHost host;
  ScriptedExecutor executor;
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    host.ForgetCalls();
    Worker worker(kConfig, misalignment);
    ASSERT_NE(worker.handle, nullptr) << misalignment;
    ASSERT_EQ(host.carvings.size(), 1u);
    EXPECT_EQ(host.carvings[0], host.calculations[0]);
    const Blocks parts(host.carvings[0].begin() + 1, host.carvings[0].end());
    Blocks expected = {{48, 8}, {24, 8}, {42, 1}, {24, 8}, {48, 1}};
    for (const std::uint64_t size : {8, 32, 100, 5, 6, 64, 72, 72})
      expected.emplace_back(size, 1);
    EXPECT_EQ(parts, expected);
    EXPECT_EQ(host.carvings[0][0].second, 8u);
  }
  ZelWreqAsyncConfig bare = kConfig;
  bare.max_request_body_length = bare.max_basic_authentication_user_name_length = 0;
  bare.max_basic_authentication_user_password_length = -1;
  host.ForgetCalls();
  Worker worker(bare);
  ASSERT_NE(worker.handle, nullptr);
  EXPECT_EQ(host.carvings[0], host.calculations[0]);
  EXPECT_EQ(host.carvings[0].size(), 11u);
  EXPECT_EQ(host.Count(SLOT(memory_clear)), 1);
}

TEST(WreqAsync, ReportsWhatItCannotCreate) {
  ScriptedHost host;
  WorkArea area(zelWreqAsync_CalculateWorkSize(&kConfig));
  EXPECT_EQ(zelWreqAsync_CalculateWorkSize(nullptr), -1);
  EXPECT_EQ(zelWreqAsync_Create(nullptr, area.data(), area.size()), nullptr);
  EXPECT_EQ(zelWreqAsync_Create(&kConfig, nullptr, area.size()), nullptr);
  EXPECT_EQ(zelWreqAsync_Create(&kConfig, area.data(), area.size() - 1), nullptr);
  EXPECT_EQ(host.TakeReports(),
            (Reports{"0 E2022121300 -2", "0 E2022121301 -2", "0 E2022121302 -2", "0 E2022121303 -2"}));
  EXPECT_TRUE(area.untouched());

  // The parts that no recognition request has; tests/faults fails all the others.
  for (const auto& [k, identifier] : {std::pair(10, "E2022121311"), {11, "E2022121312"}}) {
    host.Fail(SLOT(fixed_allocator_allocate), k);
    EXPECT_EQ(zelWreqAsync_Create(&kConfig, area.data(), area.size()), nullptr);
    EXPECT_TRUE(host.Failed());
    EXPECT_EQ(host.TakeReports(), Reports{std::string("0 ") + identifier + ":Failed create wreq async handle."});
    EXPECT_EQ(host.Live(), (std::array<int, kLiveKinds>{})) << identifier;
  }
}

TEST(WreqAsync, RefusesNullHandles) {
  ScriptedHost host;
  const WreqRequest request = Request();
  Worker worker;
  zelWreqAsync_Destroy(nullptr);
  EXPECT_EQ(zelWreqAsync_Request(nullptr, &request), 1);
  EXPECT_EQ(zelWreqAsync_Request(worker.handle, nullptr), 1);
  EXPECT_EQ(zelWreqAsync_Stop(nullptr), 1);
  EXPECT_EQ(zelWreqAsync_GetStatus(nullptr), WREQ_ASYNC_STATUS_ERROR);
  EXPECT_EQ(zelWreqAsync_GetResponse(nullptr), nullptr);
  EXPECT_EQ(zelWreqAsync_GetResponse(worker.handle), nullptr);
  EXPECT_EQ(host.TakeReports(), (Reports{"0 E2022121316 -2", "0 E2022121317 -2", "0 E2022121318 -2", "0 E2022121319 -2",
                                         "0 E2022121320 -2", "0 E2022121323 -2", "0 E2022121333 -2"}));
}

TEST(WreqAsync, RefusesWhatExceedsALimitAndTakesWhatReachesIt) {
  ScriptedHost host;
  ScriptedExecutor executor;
  Worker worker;
  const char* const url = "http://h/p?q";
  const std::string url31(31, 'u'), url32(32, 'u');
  const WreqHeader long_key[] = {{"14-characters-", ""}}, long_value[] = {{"k", "16-characters---"}};
  const auto limit = [](const char* number, const std::string& name) {
    return std::string("0 E2022121") + number + ":Failed to request becase ZelWreqAsyncConfig::" + name +
           " is not enough.";
  };
  const std::string method = "0 E2022121327:Failed to request becase this method(%s) is not support.|";
  const std::string length = "0 E2022121500:Failed to request becase request->data_len is invalid.|";
  const struct {
    std::string report;  // "" when accepted
    WreqRequest request;
  } cases[] = {
      {"", Request()},
      {limit("324", "max_headers"), {url, "POST", 4, kHeaders, kBody, 3, 20, {}}},
      {"", {url, "POST", 3, kHeaders, kBody, 3, 20, {}}},
      {"", {url, "POST", -1, kHeaders, kBody, 3, 20, {}}},
      {limit("325", "max_header_key_length"), {url, "POST", 1, long_key, kBody, 3, 20, {}}},
      {limit("326", "max_header_value_length"), {url, "POST", 1, long_value, kBody, 3, 20, {}}},
      {method + "8-LETTER", {url, "8-LETTER", 2, kHeaders, kBody, 3, 20, {}}},
      {"", {url, "7-LETTE", 2, kHeaders, kBody, 3, 20, {}}},
      {limit("328", "max_url_length"), {url32.c_str(), "POST", 2, kHeaders, kBody, 3, 20, {}}},
      {"", {url31.c_str(), "POST", 2, kHeaders, kBody, 3, 20, {}}},
      {length + "0", {url, "POST", 2, kHeaders, kBody, 0, 20, {}}},
      {length + "-1", {url, "POST", 2, kHeaders, kBody, -1, 20, {}}},
      {limit("329", "max_request_body_length"), {url, "POST", 2, kHeaders, kBody, 101, 20, {}}},
      {"", {url, "POST", 2, kHeaders, kBody, 100, 20, {}}},
      {limit("330", "max_basic_authentication_user_name_length"),
       {url, "POST", 2, kHeaders, kBody, 3, 20, {"12345", nullptr}}},
      {limit("331", "max_basic_authentication_user_password_length"),
       {url, "POST", 2, kHeaders, kBody, 3, 20, {nullptr, "123456"}}},
      {"", {url, "POST", 2, kHeaders, kBody, 3, 20, {"1234", "12345"}}},
      {"", {url, "POST", 2, kHeaders, kBody, 3, 20, {"1234", nullptr}}},
      {"", {"", "", 0, nullptr, nullptr, 77, 0, {nullptr, "1"}}},
  };
  for (const auto& [report, request] : cases) {
    SCOPED_TRACE(report + " " + request.url + " " + request.method);
    const bool accepted = report.empty();
    EXPECT_EQ(zelWreqAsync_Request(worker.handle, &request), accepted ? 0 : 1);
    EXPECT_EQ(host.TakeReports(), accepted ? Reports{} : Reports{report});
    host.WaitForWorkers();
    EXPECT_EQ(zelWreqAsync_GetStatus(worker.handle), accepted ? WREQ_ASYNC_STATUS_COMPLETE : WREQ_ASYNC_STATUS_IDLE);
    EXPECT_EQ(zelWreqAsync_Stop(worker.handle), 0);
    if (!accepted) continue;
    const Exchange got = executor.exchanges().back();
    EXPECT_EQ(got.url, request.url);
    EXPECT_EQ(got.method, request.method);
    ASSERT_EQ(got.headers.size(), static_cast<std::size_t>(std::max(request.num_headers, 0)));
    for (std::size_t i = 0; i < got.headers.size(); ++i)
      EXPECT_EQ(got.headers[i], (std::pair<std::string, std::string>(kHeaders[i].key, kHeaders[i].value)));
    const std::size_t body_size = request.data != nullptr ? static_cast<std::size_t>(request.data_len) : 0;
    EXPECT_EQ(got.body, std::string(reinterpret_cast<const char*>(kBody), body_size));
    EXPECT_EQ(got.timeout_sec, request.timeout_sec);
    const bool both = request.auth_basic.user_name != nullptr && request.auth_basic.user_pass != nullptr;
    EXPECT_EQ(got.user_name, both ? std::optional<std::string>("1234") : std::nullopt);
    EXPECT_EQ(got.user_pass, both ? std::optional<std::string>("12345") : std::nullopt);
  }
}

TEST(WreqAsync, GoesThroughItsStates) {
  ScriptedHost host;
  ScriptedExecutor executor;
  Worker worker;
  const WreqRequest request = Request();
  const Reports busy{"0 E2022121334:Failed to request. Please call zelWreqAsync_Stop()."};
  EXPECT_EQ(zelWreqAsync_Stop(worker.handle), 0);
  EXPECT_EQ(host.Count(SLOT(thread_sleep)), 0);

  executor.Hold();
  executor.Reply({"no", 0, 404});
  ASSERT_EQ(zelWreqAsync_Request(worker.handle, &request), 0);
  EXPECT_EQ(zelWreqAsync_GetStatus(worker.handle), WREQ_ASYNC_STATUS_REQUESTING);
  EXPECT_EQ(zelWreqAsync_Request(worker.handle, &request), 1);
  EXPECT_EQ(host.TakeReports(), busy);
  EXPECT_EQ(zelWreqAsync_GetResponse(worker.handle), nullptr);
  EXPECT_EQ(host.TakeReports(), Reports{"0 E2022121333 -2"});
  executor.LetGo();
  host.WaitForWorkers();
  EXPECT_EQ(zelWreqAsync_GetStatus(worker.handle), WREQ_ASYNC_STATUS_COMPLETE);
  const WreqResponse* response = zelWreqAsync_GetResponse(worker.handle);
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->status_code, 404u);
  EXPECT_STREQ(reinterpret_cast<const char*>(response->data), "no");
  EXPECT_EQ(response->buffer_size, 64u);

  // A success needs no stop; a failure does. The outcome of an earlier request does not show through.
  for (const std::int32_t result : {1, 3, 2}) {
    executor.Reply({"", result, 0, 4});
    ASSERT_EQ(zelWreqAsync_Request(worker.handle, &request), 0);
    host.WaitForWorkers();
    EXPECT_EQ(zelWreqAsync_GetStatus(worker.handle), WREQ_ASYNC_STATUS_ERROR);
    ASSERT_EQ(zelWreqAsync_GetResponse(worker.handle), response);
    EXPECT_EQ(response->error_kind, result == 1 ? 4u : 0u);
    EXPECT_EQ(response->status_code, 0u);
    EXPECT_EQ(response->data, nullptr);
    EXPECT_EQ(zelWreqAsync_Request(worker.handle, &request), 1);
    EXPECT_EQ(host.TakeReports(), busy);
    EXPECT_EQ(zelWreqAsync_Stop(worker.handle), 0);
    EXPECT_EQ(zelWreqAsync_GetStatus(worker.handle), WREQ_ASYNC_STATUS_IDLE);
  }
}

TEST(WreqAsync, StopAndDestroyWaitForTheExchangeInFlight) {
  ScriptedHost host;
  ScriptedExecutor executor;
  Worker worker;
  const WreqRequest request = Request();
  executor.Hold();
  ASSERT_EQ(zelWreqAsync_Request(worker.handle, &request), 0);
  executor.WaitForExchanges(1);
  host.on_sleep = [&] { executor.LetGo(); };
  EXPECT_EQ(zelWreqAsync_Stop(worker.handle), 0);
  EXPECT_GE(host.Count(SLOT(thread_sleep)), 1);
  EXPECT_EQ(zelWreqAsync_GetStatus(worker.handle), WREQ_ASYNC_STATUS_IDLE);

  executor.Hold();
  ASSERT_EQ(zelWreqAsync_Request(worker.handle, &request), 0);
  executor.WaitForExchanges(2);
  std::thread releaser([&] { executor.LetGo(); });
  zelWreqAsync_Destroy(std::exchange(worker.handle, nullptr));
  releaser.join();
  EXPECT_EQ(executor.exchanges().size(), 2u);
}

}  // namespace

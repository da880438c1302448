#include "wreq_async.h"

#include <string>

#include "scripted_executor.h"
#include "scripted_host.h"

namespace {

// Headers, key, value, URL, body, user name, password, response.
constexpr ZelWreqAsyncConfig kConfig = {3, 14, 16, 32, 100, 5, 6, 64};
constexpr WreqHeader kHeaders[] = {{"Authorization", "123456789012345"}, {"a", ""}, {"b", "2"}, {"c", "3"}};
constexpr std::uint8_t kBody[101] = {'x', 'y', 'z'};
constexpr const char kFailedCreate[] = ":Failed create wreq async handle.";

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
    EXPECT_EQ(parts, (Blocks{{48, 8},
                             {24, 8},
                             {42, 1},
                             {24, 8},
                             {48, 1},
                             {8, 1},
                             {32, 1},
                             {100, 1},
                             {5, 1},
                             {6, 1},
                             {64, 1},
                             {72, 1},
                             {72, 1}}));
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

  const char* identifiers[] = {"E2022121304", "E2022121305", "E2022121335", "E2022121306", "E2022121336",
                               "E2022121307", "E2022121308", "E2022121309", "E2022121310", "E2022121311",
                               "E2022121312", "E2022121313", "E2022121314", "E2022121315"};
  const auto expect_failure = [&](int slot, int k, const char* identifier) {
    host.Fail(slot, k);
    EXPECT_EQ(zelWreqAsync_Create(&kConfig, area.data(), area.size()), nullptr);
    EXPECT_TRUE(host.Failed());
    EXPECT_EQ(host.TakeReports(), Reports{std::string("0 ") + identifier + kFailedCreate});
    EXPECT_EQ(host.Live(), (std::array<int, kLiveKinds>{})) << identifier;
  };
  for (int k = 1; k <= 14; ++k)
    expect_failure(SLOT(fixed_allocator_allocate), k, identifiers[k - 1]);
  expect_failure(SLOT(event_create), 1, "E2022121314");
  expect_failure(SLOT(thread_create), 1, "E2022121315");

  WreqAsync* handle = zelWreqAsync_Create(&kConfig, area.data(), area.size());
  ASSERT_NE(handle, nullptr);
  zelWreqAsync_Destroy(handle);
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
  const std::string url31(31, 'u'), url32(32, 'u');
  const WreqHeader long_key[] = {{"14-characters-", ""}}, long_value[] = {{"k", "16-characters---"}};
  const std::string prefix = "0 E2022121", because = ":Failed to request becase ZelWreqAsyncConfig::";
  const struct {
    std::string report;  // "" when accepted
    void (*change)(WreqRequest*);
  } cases[] = {
      {"", [](WreqRequest*) {}},
      {"324" + because + "max_headers is not enough.", [](WreqRequest* r) { r->num_headers = 4; }},
      {"", [](WreqRequest* r) { r->num_headers = 3; }},
      {"", [](WreqRequest* r) { r->num_headers = -1; }},
      {"327:Failed to request becase this method(%s) is not support.|8-LETTER",
       [](WreqRequest* r) { r->method = "8-LETTER"; }},
      {"", [](WreqRequest* r) { r->method = "7-LETTE"; }},
      {"500:Failed to request becase request->data_len is invalid.|0", [](WreqRequest* r) { r->data_len = 0; }},
      {"500:Failed to request becase request->data_len is invalid.|-1", [](WreqRequest* r) { r->data_len = -1; }},
      {"329" + because + "max_request_body_length is not enough.", [](WreqRequest* r) { r->data_len = 101; }},
      {"", [](WreqRequest* r) { r->data_len = 100; }},
      {"330" + because + "max_basic_authentication_user_name_length is not enough.",
       [](WreqRequest* r) {
         r->auth_basic = {"12345", nullptr};
       }},
      {"331" + because + "max_basic_authentication_user_password_length is not enough.",
       [](WreqRequest* r) {
         r->auth_basic = {nullptr, "123456"};
       }},
      {"",
       [](WreqRequest* r) {
         r->auth_basic = {"1234", "12345"};
       }},
      {"",
       [](WreqRequest* r) {
         r->auth_basic = {"1234", nullptr};
       }},
      {"",
       [](WreqRequest* r) {
         *r = {"", "", 0, nullptr, nullptr, 77, 0, {nullptr, "1"}};
       }},
  };
  const auto check = [&](const WreqRequest& request, const std::string& report) {
    const bool accepted = report.empty();
    EXPECT_EQ(zelWreqAsync_Request(worker.handle, &request), accepted ? 0 : 1);
    EXPECT_EQ(host.TakeReports(), accepted ? Reports{} : Reports{prefix + report});
    host.WaitForWorkers();
    EXPECT_EQ(zelWreqAsync_GetStatus(worker.handle), accepted ? WREQ_ASYNC_STATUS_COMPLETE : WREQ_ASYNC_STATUS_IDLE);
    EXPECT_EQ(zelWreqAsync_Stop(worker.handle), 0);
    if (!accepted) return;
    const Exchange got = executor.exchanges().back();
    EXPECT_EQ(got.url, request.url);
    EXPECT_EQ(got.method, request.method);
    ASSERT_EQ(got.headers.size(), static_cast<std::size_t>(std::max(request.num_headers, 0)));
    for (std::size_t i = 0; i < got.headers.size(); ++i)
      EXPECT_EQ(got.headers[i],
                (std::pair<std::string, std::string>(request.headers[i].key, request.headers[i].value)));
    EXPECT_EQ(got.body.size(), request.data != nullptr ? static_cast<std::size_t>(request.data_len) : 0);
    EXPECT_EQ(got.body, std::string(reinterpret_cast<const char*>(kBody), got.body.size()));
    EXPECT_EQ(got.timeout_sec, request.timeout_sec);
    const bool both = request.auth_basic.user_name != nullptr && request.auth_basic.user_pass != nullptr;
    EXPECT_EQ(got.user_name, both ? std::optional<std::string>(request.auth_basic.user_name) : std::nullopt);
    EXPECT_EQ(got.user_pass, both ? std::optional<std::string>(request.auth_basic.user_pass) : std::nullopt);
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.report + " case " + std::to_string(&test - cases));
    WreqRequest request = Request();
    test.change(&request);
    check(request, test.report);
  }
  WreqRequest request = Request();
  request.url = url31.c_str();
  check(request, "");
  request.url = url32.c_str();
  check(request, "328" + because + "max_url_length is not enough.");
  request = Request();
  request.num_headers = 1;
  request.headers = long_key;
  check(request, "325" + because + "max_header_key_length is not enough.");
  request.headers = long_value;
  check(request, "326" + because + "max_header_value_length is not enough.");
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

// Nothing but the plug-in's own hand-over orders the two threads here: made for the thread sanitizer.
TEST(WreqAsync, HandsRequestsAndResponsesOver) {
  ScriptedHost host;
  ScriptedExecutor executor;
  Worker worker;
  const WreqRequest request = Request();
  for (int i = 0; i < 200; ++i) {
    executor.Reply({std::to_string(i)});
    ASSERT_EQ(zelWreqAsync_Request(worker.handle, &request), 0);
    while (zelWreqAsync_GetStatus(worker.handle) == WREQ_ASYNC_STATUS_REQUESTING)
      std::this_thread::yield();
    const WreqResponse* response = zelWreqAsync_GetResponse(worker.handle);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(reinterpret_cast<const char*>(response->data), std::to_string(i));
  }
}

}  // namespace

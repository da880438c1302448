// The executor on a scripted platform: the order and the arguments of its calls, and what it does when one of them fails.
#include <gtest/gtest.h>

#include <algorithm>

#include "bridge.h"
#include "scripted_winhttp.h"
#include "wreq_execute.h"

namespace {

using Notes = std::vector<std::string>;

constexpr std::uint32_t kUntouched = 77;

struct Outcome {
  std::int32_t result;
  WreqResponse response;
  std::string body;
  Notes notes;
};

struct Script {
  bool named_proxy = true;
  bool probe_succeeds = false;
  int fail_at = -1;
  std::uint32_t error = 0;
  std::uint32_t buffer_size = 6;
};

// One exchange that uses every operation; the reply "abcde" comes in parts, one of which is empty.
Outcome Execute(const Script& script) {
  static ScriptedWinHttp* noting;
  static BridgeTable table = {};
  table.err_notify = [](std::uint32_t level, const char* message) {
    noting->notes.push_back("report " + std::to_string(level) + " " + message);
  };
  table.err_notify2 = [](std::uint32_t level, const char* format, std::uint64_t error, std::uint64_t name) {
    const std::string arguments = " " + std::to_string(error) + " " + reinterpret_cast<const char*>(name);
    noting->notes.push_back("report " + std::to_string(level) + " " + format + arguments);
  };
  zel_bridge_interface = {ZEL_BASE_RTC_BRIDGE_VERSION, &table};
  const WreqHeader headers[] = {{"user-agent", "A"}, {"X-Long", "value"}};
  const WreqRequest request = {.url = "https://host/p?q",
                               .method = "POST",
                               .num_headers = 2,
                               .headers = headers,
                               .data = reinterpret_cast<const std::uint8_t*>("body"),
                               .data_len = 4,
                               .timeout_sec = 20,
                               .auth_basic = {"user", "pass"}};
  std::vector<std::uint8_t> buffer(script.buffer_size, 0xEE);
  Outcome run = {0, {kUntouched, kUntouched, nullptr, kUntouched, buffer.data(), script.buffer_size}, {}, {}};
  ScriptedWinHttp platform;
  noting = &platform;
  platform.named_proxy = script.named_proxy;
  platform.probe_succeeds = script.probe_succeeds;
  platform.fail_at = script.fail_at;
  platform.error = script.error;
  platform.body = {{4, "abc"}, {2, ""}, {2, "de"}};
  run.result = zelWreq_Execute(&request, &run.response);
  EXPECT_EQ(platform.blocks, 0) << "heap blocks kept";
  run.notes = platform.notes;
  if (run.result == WREQ_EXECUTE_OK) run.body = reinterpret_cast<const char*>(run.response.data);
  return run;
}

// The calls of an exchange that succeeds.
const Notes kCalls = {
    "CrackUrl(https://host/p?q, 17, 0, 256, 17, sound)",
    "CheckPlatform()",
    "GetProxies(null)",
    "Open(A, 3, proxy:1, bypass, 0)",
    "SetTimeouts(#1, 20000, 20000, 20000, 20000)",
    "Connect(#1, host, 8443, 0)",
    "OpenRequest(#2, POST, /p?q, null, null, null, 8388608)",
    "AddHeader(#3, user-agent:A, 12, 536870912)",
    "AddHeader(#3, X-Long:value, 12, 536870912)",
    "SetCredentials(#3, 0, 1, user, pass, null)",
    "Send(#3, null, 0, body, 4, 4, 0)",
    "Receive(#3, null)",
    "Probe(#3, 22, null, null, 0, null)",
    "QueryStatus(#3, 536870931, null, buffer, 4, null)",
    "Available(#3, 0)",
    "Read(#3, 4)",
    "Available(#3, 0)",
    "Read(#3, 2)",
    "Available(#3, 0)",
    "Read(#3, 2)",
    "Available(#3, 0)",
};

// What ends every exchange, with as many of the handles as are open.
Notes CleanUp(int handles, bool proxies = true) {
  Notes notes;
  for (int handle = handles; handle > 0; --handle)
    notes.push_back(std::string("Close(#").append(std::to_string(handle)).append(")"));
  if (proxies) notes.insert(notes.end(), {"GlobalFree(proxy:1)", "GlobalFree(bypass)", "GlobalFree(script)"});
  return notes;
}

void Append(Notes& notes, const Notes& more) {
  notes.insert(notes.end(), more.begin(), more.end());
}

// The calls from `first` to `last`, with the expected failure of the probe.
Notes Calls(std::size_t first, std::size_t last, bool probe_succeeds = false) {
  Notes notes;
  for (std::size_t i = first; i <= last; ++i) {
    notes.push_back(kCalls[i]);
    if (kCalls[i].starts_with("Probe") && !probe_succeeds) notes.push_back("error taken");
  }
  return notes;
}

TEST(ExecutorFaults, CallsThePlatformInOrder) {
  for (const bool probe_succeeds : {false, true}) {
    const Outcome run = Execute({.probe_succeeds = probe_succeeds});
    Notes expected = Calls(0, kCalls.size() - 1, probe_succeeds);
    Append(expected, CleanUp(3));
    EXPECT_EQ(run.notes, expected);
    EXPECT_EQ(run.result, WREQ_EXECUTE_OK);
    EXPECT_EQ(run.response.status_code, 200u);
    EXPECT_EQ(run.response.data_size, 5u);
    EXPECT_EQ(run.response.error_kind, kUntouched);
    EXPECT_EQ(run.body, "abcde");
  }
}

// Room must be left behind every part that is announced, whatever is read of it then.
TEST(ExecutorFaults, ReadsNoPartThatMightNotFit) {
  for (const std::uint32_t size : {1u, 4u, 5u}) {
    const Outcome run = Execute({.buffer_size = size});
    Notes expected = Calls(0, size < 5 ? 14 : 16);
    Append(expected, CleanUp(3));
    EXPECT_EQ(run.notes, expected) << size;
    EXPECT_EQ(run.result, WREQ_EXECUTE_BODY_TOO_BIG);
    EXPECT_EQ(run.response.status_code + run.response.data_size + run.response.error_kind, 3 * kUntouched);
  }
}

// Each call fails with each number: the number is taken at once, reported once, and everything is released in order.
TEST(ExecutorFaults, EveryCallFailsWithEveryNumber) {
  constexpr struct {
    std::uint32_t number;
    const char* name;
    WreqErrorKind kind;
  } kErrors[] = {{12002, "ERROR_WINHTTP_TIMEOUT", WREQ_ERROR_CONNECTION},
                 {12007, "ERROR_WINHTTP_NAME_NOT_RESOLVED", WREQ_ERROR_DNS},
                 {12029, "ERROR_WINHTTP_CANNOT_CONNECT", WREQ_ERROR_CONNECTION},
                 {12030, "ERROR_WINHTTP_CONNECTION_ERROR", WREQ_ERROR_INTERNAL},
                 {12152, "ERROR_WINHTTP_INVALID_SERVER_RESPONSE", WREQ_ERROR_INTERNAL},
                 {12175, "ERROR_WINHTTP_SECURE_FAILURE", WREQ_ERROR_SSL},
                 {12017, "ERROR_WINHTTP_OPERATION_CANCELLED", WREQ_ERROR_UNKNOWN},
                 {8, "ERROR_NOT_ENOUGH_MEMORY", WREQ_ERROR_INTERNAL},
                 {87, "ERROR_INVALID_PARAMETER", WREQ_ERROR_INTERNAL},
                 {4711, "unknown", WREQ_ERROR_INTERNAL}};
  const struct {
    const char *call, *report;
    int handles;  // open then
  } kReports[] = {{"CrackUrl", "0 E2021060610:[ZELWREQ] WinHttpCrackUrl()", 0},
                  {"CheckPlatform", "0 E2021060612:[ZELWREQ] WinHttpCheckPlatform()", 0},
                  {"Open", "0 E2021060614:[ZELWREQ] WinHttpOpen() with named proxy", 0},
                  {"SetTimeouts", "1 W2021060603:[ZELWREQ] WinHttpSetTimeouts()", 3},
                  {"Connect", "0 E2021060615:[ZELWREQ] WinHttpConnect()", 1},
                  {"OpenRequest", "0 E2021060616:[ZELWREQ] WinHttpOpenRequest()", 2},
                  {"AddHeader", "0 E2021060617:[ZELWREQ] WinHttpAddRequestHeaders()", 3},
                  {"SetCredentials", "0 E2021060620:[ZELWREQ] WinHttpSetCredentials()", 3},
                  {"Send", "0 E2021060621:[ZELWREQ] WinHttpSendRequest()", 3},
                  {"Receive", "0 E2021060622:[ZELWREQ] WinHttpReceiveResponse()", 3},
                  {"Probe", "0 E2021060623:[ZELWREQ] WinHttpQueryHeaders()", 3},
                  {"QueryStatus", "0 E2021060624:[ZELWREQ] WinHttpQueryHeaders()", 3},
                  {"Available", "0 E2021060625:[ZELWREQ] WinHttpQueryDataAvailable()", 3},
                  {"Read", "0 E2021060626:[ZELWREQ] WinHttpReadData()", 3}};
  for (std::size_t i = 0; i < kCalls.size(); ++i) {
    const std::string call = kCalls[i].substr(0, kCalls[i].find('('));
    if (call == "GetProxies") continue;
    const auto* const entry = std::ranges::find_if(kReports, [&](const auto& e) { return e.call == call; });
    ASSERT_NE(entry, std::end(kReports)) << call;
    const bool goes_on = call == "SetTimeouts";
    for (const auto& error : kErrors) {
      SCOPED_TRACE(kCalls[i] + " " + std::to_string(error.number));
      const Outcome run = Execute({.fail_at = static_cast<int>(i), .error = error.number});
      Notes expected = Calls(0, i);
      if (call != "Probe") expected.push_back("error taken");
      expected.push_back(std::string("report ") + entry->report + " failed. err=%lu(%s) " +
                         std::to_string(error.number) + " " + error.name);
      if (goes_on) Append(expected, Calls(i + 1, kCalls.size() - 1));
      Append(expected, CleanUp(entry->handles, i > 2));
      EXPECT_EQ(run.notes, expected);
      EXPECT_EQ(run.result, goes_on ? WREQ_EXECUTE_OK : WREQ_EXECUTE_FAILED);
      EXPECT_EQ(run.response.error_kind, error.kind);
      EXPECT_EQ(run.response.status_code, goes_on ? 200u : kUntouched);
      EXPECT_EQ(run.response.data_size, goes_on ? 5u : kUntouched);
    }
  }
}

// Without proxies of the user's own the session has the default ones, and nothing is left to release.
TEST(ExecutorFaults, TakesTheDefaultProxies) {
  for (const bool call_fails : {false, true}) {
    Notes expected = Calls(0, kCalls.size() - 1);
    expected[3] = "Open(A, 0, null, null, 0)";
    Append(expected, CleanUp(3, false));
    EXPECT_EQ(Execute({.named_proxy = call_fails, .fail_at = call_fails ? 2 : -1, .error = 12175}).notes, expected);
  }
  const Outcome run = Execute({.named_proxy = false, .fail_at = 3, .error = 12175});
  EXPECT_EQ(run.notes.at(5),
            "report 0 E2021060613:[ZELWREQ] WinHttpOpen() with default proxy failed. err=%lu(%s) 12175 "
            "ERROR_WINHTTP_SECURE_FAILURE");
  EXPECT_EQ(run.notes.size(), 6u);
}

}  // namespace

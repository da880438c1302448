// The executor on a platform of the test's own, which notes every call of its with its arguments and fails when told
// to: the order and the arguments of its calls, and what it does when one of them fails.
#include <gtest/gtest.h>
#include <windows.h>

#include <winhttp.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "bridge.h"
#include "wreq_execute.h"

namespace {

using Notes = std::vector<std::string>;

constexpr std::uint32_t kUntouched = 77;

// One exchange that uses every operation; the reply "abcde" comes in parts, one of which is empty.
struct Exchange {
  // Scripted.
  bool named_proxy = true;  // whether the user has proxies
  bool probe_succeeds = false;
  int fail_at = -1;         // number of the failing call
  int starve_at = -1;       // number of the failing allocation
  std::uint32_t error = 0;  // and its number
  std::uint32_t buffer_size = 6;

  std::int32_t Execute();

  // Noted: "Name(arguments)" of each call, "error taken", "report ..." in between.
  Notes notes = {};
  int calls = 0, allocations = 0;
  int blocks = 0;  // of the heap, allocated and not freed
  std::uint32_t last_error = 0;
  // Announced bytes, and those that are read.
  std::vector<std::pair<DWORD, std::string>> body = {{4, "abc"}, {2, ""}, {2, "de"}, {0, ""}};
  WreqResponse response = {};
  std::vector<std::uint8_t> buffer = {};
};

Exchange* g_exchange;

void NoteReport(std::uint32_t level, const char* format, const std::string& arguments = "") {
  g_exchange->notes.push_back("report " + std::to_string(level) + " " + format + arguments);
}

std::int32_t Exchange::Execute() {
  static BridgeTable table = {};
  table.err_notify = [](std::uint32_t level, const char* message) { NoteReport(level, message); };
  table.err_notify2 = [](std::uint32_t level, const char* format, std::uint64_t number, std::uint64_t name) {
    NoteReport(level, format, " " + std::to_string(number) + " " + reinterpret_cast<const char*>(name));
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
  buffer.assign(buffer_size, 0xEE);
  response = {kUntouched, kUntouched, nullptr, kUntouched, buffer.data(), buffer_size};
  g_exchange = this;
  const std::int32_t result = zelWreq_Execute(&request, &response);
  g_exchange = nullptr;
  EXPECT_EQ(blocks, 0) << "heap blocks kept";
  return result;
}

// ---- The platform

std::string Text(const wchar_t* text) {
  return text == nullptr ? "null" : std::string(text, text + std::wcslen(text));
}
std::string Text(HINTERNET handle) {
  return handle == nullptr ? "null" : "#" + std::to_string(reinterpret_cast<std::uintptr_t>(handle));
}
std::string Text(const std::string& text) {
  return text;
}
template <typename Number>
requires std::is_integral_v<Number> std::string Text(Number number) {
  return std::to_string(number);
}

// Notes a call; FALSE when it is to fail. Any call may change the last error.
template <typename... Arguments>
BOOL Call(const char* name, const Arguments&... arguments) {
  std::string note;
  ((note += (note.empty() ? "" : ", ") + Text(arguments)), ...);
  g_exchange->notes.push_back(name + ("(" + note) + ")");
  const bool fails = g_exchange->calls++ == g_exchange->fail_at;
  g_exchange->last_error = fails ? g_exchange->error : 0xDEAD;
  return fails ? FALSE : TRUE;
}

HINTERNET Handle(std::uintptr_t number) {
  return reinterpret_cast<HINTERNET>(number);  // NOLINT(performance-no-int-to-ptr)
}

std::string Given(const void* pointer, const char* name) {
  return pointer == nullptr ? "null" : name;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void __real_free(void* block);
void* __wrap_malloc(std::size_t size) {
  if (g_exchange == nullptr) return __real_malloc(size);
  if (g_exchange->allocations++ == g_exchange->starve_at) return nullptr;
  ++g_exchange->blocks;
  return __real_malloc(size);
}
void __wrap_free(void* block) {
  if (g_exchange != nullptr && block != nullptr) --g_exchange->blocks;
  __real_free(block);
}
}

DWORD GetLastError(void) {
  g_exchange->notes.push_back("error taken");
  return g_exchange->last_error;
}
HGLOBAL GlobalFree(HGLOBAL memory) {
  Call("GlobalFree", static_cast<const wchar_t*>(memory));
  return nullptr;
}

BOOL WinHttpCrackUrl(LPCWSTR url, DWORD length, DWORD flags, URL_COMPONENTS* parts) {
  const bool sound = parts->dwStructSize == sizeof *parts && parts->lpszScheme == nullptr &&
                     parts->lpszUserName == nullptr && parts->lpszPassword == nullptr &&
                     parts->lpszExtraInfo == nullptr;
  std::wcscpy(parts->lpszHostName, L"host");
  std::wcscpy(parts->lpszUrlPath, L"/p?q");
  parts->nScheme = INTERNET_SCHEME_HTTPS;
  parts->nPort = 8443;
  return Call("CrackUrl", url, length, flags, parts->dwHostNameLength, parts->dwUrlPathLength,
              std::string(sound ? "sound" : "unsound"));
}
BOOL WinHttpCheckPlatform(void) {
  return Call("CheckPlatform");
}
BOOL WinHttpGetIEProxyConfigForCurrentUser(WINHTTP_CURRENT_USER_IE_PROXY_CONFIG* config) {
  if (!Call("GetProxies", config->lpszProxy)) return FALSE;
  static wchar_t proxies[] = L"proxy:1", bypass[] = L"bypass", script[] = L"script";
  if (g_exchange->named_proxy) *config = {TRUE, script, proxies, bypass};
  return TRUE;
}
HINTERNET WinHttpOpen(LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags) {
  return Call("Open", agent, access, proxy, bypass, flags) ? Handle(1) : nullptr;
}
BOOL WinHttpSetTimeouts(HINTERNET session, int resolve, int connect, int send, int receive) {
  return Call("SetTimeouts", session, resolve, connect, send, receive);
}
HINTERNET WinHttpConnect(HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved) {
  return Call("Connect", session, host, port, reserved) ? Handle(2) : nullptr;
}
HINTERNET WinHttpOpenRequest(HINTERNET connection, LPCWSTR verb, LPCWSTR path, LPCWSTR version, LPCWSTR referrer,
                             LPCWSTR* types, DWORD flags) {
  const std::string given = Given(types, "types");
  return Call("OpenRequest", connection, verb, path, version, referrer, given, flags) ? Handle(3) : nullptr;
}
BOOL WinHttpAddRequestHeaders(HINTERNET request, LPCWSTR header, DWORD length, DWORD modifiers) {
  return Call("AddHeader", request, header, length, modifiers);
}
BOOL WinHttpSetCredentials(HINTERNET request, DWORD target, DWORD scheme, LPCWSTR user, LPCWSTR password, LPVOID more) {
  return Call("SetCredentials", request, target, scheme, user, password, more);
}
BOOL WinHttpSendRequest(HINTERNET request, LPCWSTR headers, DWORD headers_length, LPVOID body, DWORD size, DWORD total,
                        DWORD_PTR context) {
  const std::string bytes(static_cast<const char*>(body), size);
  return Call("Send", request, headers, headers_length, bytes, size, total, context);
}
BOOL WinHttpReceiveResponse(HINTERNET request, LPVOID reserved) {
  return Call("Receive", request, reserved);
}
BOOL WinHttpQueryHeaders(HINTERNET request, DWORD level, LPCWSTR name, LPVOID buffer, LPDWORD size, LPDWORD index) {
  const bool probe = level == WINHTTP_QUERY_RAW_HEADERS_CRLF;
  if (!Call(probe ? "Probe" : "QueryStatus", request, level, name, Given(buffer, "buffer"), *size,
            Given(index, "index")))
    return FALSE;
  if (!probe) *static_cast<DWORD*>(buffer) = 200;
  if (!probe || g_exchange->probe_succeeds) return TRUE;
  *size = 100;
  g_exchange->last_error = ERROR_INSUFFICIENT_BUFFER;
  return FALSE;
}
BOOL WinHttpQueryDataAvailable(HINTERNET request, LPDWORD available) {
  if (!Call("Available", request, *available)) return FALSE;
  *available = g_exchange->body.front().first;
  return TRUE;
}
BOOL WinHttpReadData(HINTERNET request, LPVOID buffer, DWORD size, LPDWORD read) {
  if (!Call("Read", request, size)) return FALSE;
  const std::string bytes = g_exchange->body.front().second;
  g_exchange->body.erase(g_exchange->body.begin());
  *read = static_cast<DWORD>(bytes.copy(static_cast<char*>(buffer), bytes.size()));
  return TRUE;
}
BOOL WinHttpCloseHandle(HINTERNET handle) {
  return Call("Close", handle);
}

// ---- The tests

namespace {

constexpr char kAvailable[] = "E2021060625:[ZELWREQ] WinHttpQueryDataAvailable()";
constexpr char kRead[] = "E2021060626:[ZELWREQ] WinHttpReadData()";

// The calls of an exchange that succeeds, and what the failure of each is reported as.
const struct {
  std::string call;
  const char* report;
} kCalls[] = {
    {"CrackUrl(https://host/p?q, 17, 0, 256, 17, sound)", "E2021060610:[ZELWREQ] WinHttpCrackUrl()"},
    {"CheckPlatform()", "E2021060612:[ZELWREQ] WinHttpCheckPlatform()"},
    {"GetProxies(null)", nullptr},
    {"Open(A, 3, proxy:1, bypass, 0)", "E2021060614:[ZELWREQ] WinHttpOpen() with named proxy"},
    {"SetTimeouts(#1, 20000, 20000, 20000, 20000)", "W2021060603:[ZELWREQ] WinHttpSetTimeouts()"},
    {"Connect(#1, host, 8443, 0)", "E2021060615:[ZELWREQ] WinHttpConnect()"},
    {"OpenRequest(#2, POST, /p?q, null, null, null, 8388608)", "E2021060616:[ZELWREQ] WinHttpOpenRequest()"},
    {"AddHeader(#3, user-agent:A, 12, 536870912)", "E2021060617:[ZELWREQ] WinHttpAddRequestHeaders()"},
    {"AddHeader(#3, X-Long:value, 12, 536870912)", "E2021060617:[ZELWREQ] WinHttpAddRequestHeaders()"},
    {"SetCredentials(#3, 0, 1, user, pass, null)", "E2021060620:[ZELWREQ] WinHttpSetCredentials()"},
    {"Send(#3, null, 0, body, 4, 4, 0)", "E2021060621:[ZELWREQ] WinHttpSendRequest()"},
    {"Receive(#3, null)", "E2021060622:[ZELWREQ] WinHttpReceiveResponse()"},
    {"Probe(#3, 22, null, null, 0, null)", "E2021060623:[ZELWREQ] WinHttpQueryHeaders()"},
    {"QueryStatus(#3, 536870931, null, buffer, 4, null)", "E2021060624:[ZELWREQ] WinHttpQueryHeaders()"},
    {"Available(#3, 0)", kAvailable},
    {"Read(#3, 4)", kRead},
    {"Available(#3, 0)", kAvailable},
    {"Read(#3, 2)", kRead},
    {"Available(#3, 0)", kAvailable},
    {"Read(#3, 2)", kRead},
    {"Available(#3, 0)", kAvailable},
};

Notes operator+(Notes notes, const Notes& more) {
  notes.insert(notes.end(), more.begin(), more.end());
  return notes;
}

// What ends every exchange, with as many of the handles as are open.
Notes CleanUp(std::size_t handles, bool proxies = true) {
  const Notes closes = {"Close(#3)", "Close(#2)", "Close(#1)"};
  const Notes frees = {"GlobalFree(proxy:1)", "GlobalFree(bypass)", "GlobalFree(script)"};
  return Notes(closes.end() - static_cast<std::ptrdiff_t>(handles), closes.end()) + (proxies ? frees : Notes{});
}

// The calls from `first` to in front of `end`, with the expected failure of the probe.
Notes Calls(std::size_t first = 0, std::size_t end = std::size(kCalls), bool probe_succeeds = false) {
  Notes notes;
  for (std::size_t i = first; i < end; ++i) {
    notes.push_back(kCalls[i].call);
    if (notes.back().starts_with("Probe") && !probe_succeeds) notes.push_back("error taken");
  }
  return notes;
}

TEST(ExecutorFaults, CallsThePlatformInOrder) {
  for (const bool probe_succeeds : {false, true}) {
    Exchange exchange = {.probe_succeeds = probe_succeeds};
    EXPECT_EQ(exchange.Execute(), WREQ_EXECUTE_OK);
    EXPECT_EQ(exchange.notes, Calls(0, std::size(kCalls), probe_succeeds) + CleanUp(3));
    EXPECT_EQ(exchange.response.status_code, 200u);
    EXPECT_EQ(exchange.response.data_size, 5u);
    EXPECT_EQ(exchange.response.error_kind, kUntouched);
    EXPECT_STREQ(reinterpret_cast<const char*>(exchange.response.data), "abcde");
  }
}

// Room must be left behind every part that is announced, whatever is read of it then.
TEST(ExecutorFaults, ReadsNoPartThatMightNotFit) {
  for (const std::uint32_t size : {1u, 4u, 5u}) {
    Exchange exchange = {.buffer_size = size};
    EXPECT_EQ(exchange.Execute(), WREQ_EXECUTE_BODY_TOO_BIG);
    EXPECT_EQ(exchange.notes, Calls(0, size < 5 ? 15 : 17) + CleanUp(3)) << size;
    const WreqResponse& response = exchange.response;
    EXPECT_EQ(response.status_code + response.data_size + response.error_kind, 3 * kUntouched);
  }
}

// Number, WreqErrorKind and name of all errors that have a name or a kind of their own, and of two that have not.
constexpr char kErrors[] =
    "8 6 ERROR_NOT_ENOUGH_MEMORY 87 6 ERROR_INVALID_PARAMETER 12002 3 ERROR_WINHTTP_TIMEOUT "
    "12004 6 ERROR_WINHTTP_INTERNAL_ERROR 12005 6 ERROR_WINHTTP_INVALID_URL 12006 6 ERROR_WINHTTP_UNRECOGNIZED_SCHEME "
    "12007 2 ERROR_WINHTTP_NAME_NOT_RESOLVED 12012 6 ERROR_WINHTTP_SHUTDOWN 12015 6 ERROR_WINHTTP_LOGIN_FAILURE "
    "12017 0 ERROR_WINHTTP_OPERATION_CANCELLED 12018 6 ERROR_WINHTTP_INCORRECT_HANDLE_TYPE "
    "12019 6 ERROR_WINHTTP_INCORRECT_HANDLE_STATE 12029 3 ERROR_WINHTTP_CANNOT_CONNECT "
    "12030 6 ERROR_WINHTTP_CONNECTION_ERROR 12032 6 ERROR_WINHTTP_RESEND_REQUEST 12037 4 unknown 12038 4 unknown "
    "12044 4 ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED 12045 4 unknown 12057 4 unknown "
    "12150 6 ERROR_WINHTTP_HEADER_NOT_FOUND 12152 6 ERROR_WINHTTP_INVALID_SERVER_RESPONSE 12153 6 unknown "
    "12156 6 ERROR_WINHTTP_REDIRECT_FAILED 12157 4 unknown 12169 4 unknown 12170 4 unknown "
    "12175 4 ERROR_WINHTTP_SECURE_FAILURE 12179 4 unknown 12181 6 ERROR_WINHTTP_HEADER_COUNT_EXCEEDED "
    "12182 6 ERROR_WINHTTP_HEADER_SIZE_OVERFLOW 12183 6 ERROR_WINHTTP_CHUNKED_ENCODING_HEADER_SIZE_OVERFLOW "
    "12184 6 ERROR_WINHTTP_RESPONSE_DRAIN_OVERFLOW 12185 4 unknown 12186 4 unknown 4711 6 unknown";

// Each call fails with each number: the number is taken at once, reported once, and everything is released in order.
TEST(ExecutorFaults, EveryCallFailsWithEveryNumber) {
  for (std::size_t i = 0; i < std::size(kCalls); ++i) {
    const auto& [call, report] = kCalls[i];
    if (report == nullptr) continue;
    const bool goes_on = call.starts_with("SetTimeouts");
    const std::size_t handle = call.find('#');
    const int handles = goes_on ? 3 : handle != call.npos ? call[handle + 1] - '0' : 0;
    std::istringstream errors(kErrors);
    std::uint32_t number = 0, kind = 0;
    for (std::string name; errors >> number >> kind >> name;) {
      SCOPED_TRACE(call + " " + std::to_string(number));
      Exchange exchange = {.fail_at = static_cast<int>(i), .error = number};
      EXPECT_EQ(exchange.Execute(), goes_on ? WREQ_EXECUTE_OK : WREQ_EXECUTE_FAILED);
      const std::string noted = std::string(goes_on ? "report 1 " : "report 0 ") + report + " failed. err=%lu(%s) " +
                                std::to_string(number) + " " + name;
      Notes expected = Calls(0, i + 1);
      if (expected.back() != "error taken") expected.push_back("error taken");
      EXPECT_EQ(exchange.notes, expected + Notes{noted} + Calls(goes_on ? i + 1 : std::size(kCalls)) +
                                    CleanUp(static_cast<std::size_t>(handles), i > 2));
      EXPECT_EQ(exchange.response.error_kind, kind);
      EXPECT_EQ(exchange.response.status_code, goes_on ? 200u : kUntouched);
      EXPECT_EQ(exchange.response.data_size, goes_on ? 5u : kUntouched);
    }
  }
}

// Agent, URL, host, path and header line: that there is no memory is known without asking for the last error.
TEST(ExecutorFaults, EveryAllocationFails) {
  for (int i = 0; i < 5; ++i) {
    Exchange exchange = {.starve_at = i};
    EXPECT_EQ(exchange.Execute(), WREQ_EXECUTE_FAILED) << i;
    EXPECT_EQ(std::ranges::count(exchange.notes, "error taken"), 0) << i;
  }
}

// Without proxies of the user's own the session has the default ones, and nothing is left to release.
TEST(ExecutorFaults, TakesTheDefaultProxies) {
  for (const bool call_fails : {false, true}) {
    Exchange exchange = {.named_proxy = call_fails, .fail_at = call_fails ? 2 : -1, .error = 12175};
    exchange.Execute();
    Notes expected = Calls() + CleanUp(3, false);
    expected[3] = "Open(A, 0, null, null, 0)";
    EXPECT_EQ(exchange.notes, expected);
  }
  Exchange exchange = {.named_proxy = false, .fail_at = 3, .error = 12175};
  exchange.Execute();
  EXPECT_EQ(exchange.notes.at(5),
            "report 0 E2021060613:[ZELWREQ] WinHttpOpen() with default proxy failed. err=%lu(%s) 12175 "
            "ERROR_WINHTTP_SECURE_FAILURE");
  EXPECT_EQ(exchange.notes.size(), 6u);
}

}  // namespace

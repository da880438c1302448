#include "web.h"

#include <windows.h>

#include <winhttp.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "expected_reports.h"
#include "world.h"

namespace {

using namespace sim;

// What can fail in an exchange, in its order, and what is reported then.
// clang-format off
enum Step { kCrack, kPlatform, kOpen, kTimeouts, kConnect, kRequest, kHeader, kSend, kReceive, kProbe, kStatus,
            kAvailable, kRead, kSteps };
constexpr const char* kReports[kSteps] = {
    "E2021060610", "E2021060612", "E2021060613", "W2021060603", "E2021060615", "E2021060616", "E2021060617",
    "E2021060621", "E2021060622", "E2021060623", "E2021060624", "E2021060625", "E2021060626"};
// clang-format on

struct Error {
  DWORD number;
  const char* name;
  const char* word;  // of the failed exchange
};
constexpr Error kErrors[] = {{8, "ERROR_NOT_ENOUGH_MEMORY", "internal"},
                             {12002, "ERROR_WINHTTP_TIMEOUT", "connection"},
                             {12006, "ERROR_WINHTTP_UNRECOGNIZED_SCHEME", "internal"},
                             {12007, "ERROR_WINHTTP_NAME_NOT_RESOLVED", "DNS"},
                             {12017, "ERROR_WINHTTP_OPERATION_CANCELLED", "unknown"},
                             {12175, "ERROR_WINHTTP_SECURE_FAILURE", "SSL"},
                             {4711, "unknown", "internal"}};

// One exchange of one worker: what it will meet, and what it has done so far.
struct Exchange {
  explicit Exchange(Utterance& posted);
  // Whether the step succeeds. Where it waits for the network, time passes: 20 s at most, then it has failed.
  BOOL Allow(Step step);
  // The step fails with that error, and the executor must report it next.
  BOOL FailWith(Step step, DWORD number);
  // What is to become of the utterance.
  void Settle(Fate fate, std::string report, std::string text = {});
  void SettleFailed() { Settle(Fate::kFailed, ReportText("E2022110402", {Argument(word)})); }
  HINTERNET Open(Step step);

  Utterance& utterance;
  const Reply reply;
  const int fails_at;            // Step, or -1
  const char* word = "unknown";  // class of the last error met
  std::string due;               // report that must come next; empty: none
  bool settled = false;          // its utterance's fate is known, and the executor knows it too
  DWORD last_error = 0;
  int open = 0;          // session, connection and request
  char handles[4] = {};  // their addresses, from the second on
  int blocks = 0;        // of the heap, not yet released
  std::string target, headers;
  std::size_t sent = 0, announced = 0;  // bytes of the reply
};

std::map<const Seat*, Exchange> g_exchanges;

// The calling worker's exchange, which begins with its first step.
Exchange& Current() {
  Caller& me = Me();
  SIM_CHECK(me.worker, "the web or the heap is used outside an exchange");
  const auto found = g_exchanges.find(me.seat);
  return found != g_exchanges.end() ? found->second : g_exchanges.try_emplace(me.seat, me.seat->Posted()).first->second;
}

// Every operation works on the handle that was opened last.
Exchange& Use(HINTERNET handle) {
  Exchange& exchange = Current();
  SIM_CHECK(exchange.open > 0 && handle == &exchange.handles[exchange.open], "a handle that is not open");
  return exchange;
}

Exchange::Exchange(Utterance& posted)
    : utterance(posted),
      reply(MakeReply(TheWorld().random, !OneIn(TheWorld().knobs.odd_reply_one_in), ++TheWorld().exchanges)),
      fails_at(OneIn(TheWorld().knobs.web_fail_one_in) ? static_cast<int>(Below(kSteps)) : -1) {
  SIM_CHECK(!posted.urls.empty() && posted.fate == Fate::kOpen, "an exchange that nobody asked for");
}

void Exchange::Settle(Fate fate, std::string report, std::string text) {
  settled = true;
  utterance.fate = fate;
  utterance.owed_report = std::move(report);
  utterance.text = std::move(text);
}

BOOL Exchange::FailWith(Step step, DWORD number) {
  const Error& error = *std::ranges::find(kErrors, number, &Error::number);
  last_error = number;
  word = error.word;
  due = ReportText(kReports[step], {number, Argument(error.name)});
  if (step != kTimeouts) SettleFailed();
  return FALSE;
}

BOOL Exchange::Allow(Step step) {
  TheWorld().scheduler.Point();
  SIM_CHECK(due.empty() && !settled, "the exchange goes on after a failure or its end: %s", due.c_str());
  if (step >= kSend && step != kProbe && step != kStatus) {
    constexpr Micros kTimeout = 20 * kSecond;
    const bool slow = OneIn(TheWorld().knobs.slow_one_in);
    const Micros wait = slow ? Below(kTimeout + 2 * kSecond) : Below(400 * kMillisecond);
    TheWorld().scheduler.Sleep(std::min(wait, kTimeout));
    if (wait > kTimeout) return FailWith(step, ERROR_WINHTTP_TIMEOUT);
  }
  return fails_at != step ? TRUE : FailWith(step, TheWorld().random.Pick(kErrors).number);
}

HINTERNET Exchange::Open(Step step) {
  return Allow(step) ? &handles[++open] : nullptr;
}

std::string Narrow(std::wstring_view text) {
  return {text.begin(), text.end()};
}

}  // namespace

namespace sim {

void WebReport(const std::string& text) {
  Exchange& exchange = Current();
  SIM_CHECK(text == exchange.due, "an exchange reports \"%s\" instead of \"%s\"", text.c_str(), exchange.due.c_str());
  exchange.due.clear();
}

void WebExchangeOver(const Seat& seat) {
  const auto at = g_exchanges.find(&seat);
  if (at == g_exchanges.end()) return;
  const Exchange& exchange = at->second;
  SIM_CHECK(exchange.blocks == 0 && exchange.open == 0, "heap blocks or handles are left");
  SIM_CHECK(exchange.due.empty(), "a failure was not reported: %s", exchange.due.c_str());
  SIM_CHECK(exchange.settled, "an exchange without an end");
  g_exchanges.erase(at);
}

}  // namespace sim

// ---- The heap: the executor's alone, except between runs and behind the last (gcov writes its counts then)

extern "C" {

void* __real_malloc(std::size_t size);
void __real_free(void* block);

void* __wrap_malloc(std::size_t size) {
  if (the_world == nullptr) return __real_malloc(size);
  ++Current().blocks;
  return std::memset(__real_malloc(size), 0xEE, size);
}

void __wrap_free(void* block) {
  if (block != nullptr && the_world != nullptr) --Current().blocks;
  __real_free(block);
}
}

// ---- The operations

DWORD GetLastError() {
  return Current().last_error;
}

HGLOBAL GlobalFree(HGLOBAL memory) {
  return memory;
}

BOOL WinHttpCrackUrl(LPCWSTR url, DWORD, DWORD, URL_COMPONENTS* parts) {
  Exchange& exchange = Current();
  if (!exchange.Allow(kCrack)) return FALSE;
  exchange.target = Narrow(url);
  const auto& urls = exchange.utterance.urls;
  SIM_CHECK(std::ranges::count(urls, exchange.target) > 0, "a request to another URL than %s", urls[0].c_str());
  if (!exchange.target.starts_with("http")) return exchange.FailWith(kCrack, 12006);
  SIM_CHECK(parts->dwUrlPathLength > exchange.target.size(), "no room for the path");
  std::wcscpy(parts->lpszHostName, L"host");
  std::wcscpy(parts->lpszUrlPath, url);
  parts->nScheme = url[4] == L's' ? INTERNET_SCHEME_HTTPS : INTERNET_SCHEME_HTTP;
  return TRUE;
}

BOOL WinHttpCheckPlatform() {
  return Current().Allow(kPlatform);
}

BOOL WinHttpGetIEProxyConfigForCurrentUser(WINHTTP_CURRENT_USER_IE_PROXY_CONFIG*) {
  return FALSE;  // nobody asks why
}

HINTERNET WinHttpOpen(LPCWSTR, DWORD, LPCWSTR, LPCWSTR, DWORD) {
  return Current().Open(kOpen);
}

BOOL WinHttpSetTimeouts(HINTERNET session, int, int, int, int) {
  return Use(session).Allow(kTimeouts);
}

HINTERNET WinHttpConnect(HINTERNET session, LPCWSTR, INTERNET_PORT, DWORD) {
  return Use(session).Open(kConnect);
}

HINTERNET WinHttpOpenRequest(HINTERNET connection, LPCWSTR, LPCWSTR path, LPCWSTR, LPCWSTR, LPCWSTR*, DWORD flags) {
  Exchange& exchange = Use(connection);
  const DWORD secure = exchange.target[4] == 's' ? WINHTTP_FLAG_SECURE : 0;
  SIM_CHECK(Narrow(path) == exchange.target && flags == secure, "another request line");
  return exchange.Open(kRequest);
}

BOOL WinHttpAddRequestHeaders(HINTERNET request, LPCWSTR header, DWORD length, DWORD) {
  Exchange& exchange = Use(request);
  exchange.headers += Narrow({header, length}) + "\n";
  return exchange.Allow(kHeader);
}

BOOL WinHttpSetCredentials(HINTERNET, DWORD, DWORD, LPCWSTR, LPCWSTR, LPVOID) {
  Fail("credentials that nobody gave");
}

BOOL WinHttpSendRequest(HINTERNET request, LPCWSTR, DWORD, LPVOID body, DWORD size, DWORD total, DWORD_PTR) {
  Exchange& exchange = Use(request);
  const Utterance& utterance = exchange.utterance;
  SIM_CHECK(exchange.headers == "Content-Type:audio/ogg; codecs=opus\nAuthorization:" + utterance.authorization +
                                    "\nAccept:application/json\n",
            "other headers");
  SIM_CHECK(size == utterance.bytes && total == size, "a body of another size");
  const std::string bytes(static_cast<const char*>(body), size), fault = JudgeStream(bytes, utterance);
  SIM_CHECK(fault.empty(), "body: %s", fault.c_str());
  if (!exchange.Allow(kSend)) return FALSE;
  SIM_CHECK(std::memcmp(body, bytes.data(), size) == 0, "the body changed while it was sent");
  return TRUE;
}

BOOL WinHttpReceiveResponse(HINTERNET request, LPVOID) {
  return Use(request).Allow(kReceive);
}

BOOL WinHttpQueryHeaders(HINTERNET request, DWORD level, LPCWSTR, LPVOID buffer, LPDWORD, LPDWORD) {
  Exchange& exchange = Use(request);
  const bool probe = level == WINHTTP_QUERY_RAW_HEADERS_CRLF;
  if (!exchange.Allow(probe ? kProbe : kStatus)) return FALSE;
  if (probe) {
    exchange.last_error = ERROR_INSUFFICIENT_BUFFER;
    return FALSE;
  }
  constexpr DWORD kStatuses[] = {200, 200, 204, 400, 401, 404, 500, 503};
  std::memcpy(buffer, &TheWorld().random.Pick(kStatuses), sizeof(DWORD));
  return TRUE;
}

BOOL WinHttpQueryDataAvailable(HINTERNET request, LPDWORD available) {
  Exchange& exchange = Use(request);
  if (!exchange.Allow(kAvailable)) return FALSE;
  const Reply& reply = exchange.reply;
  const std::size_t left = reply.body.size() - exchange.sent;
  exchange.announced = std::min<std::size_t>(left, 1 + Below(2000));
  *available = static_cast<DWORD>(exchange.announced);
  if (exchange.sent + exchange.announced > kMaxReply) {
    exchange.SettleFailed();
  } else if (left == 0) {
    exchange.Settle(reply.fate, reply.report, reply.text);
  }
  return TRUE;
}

BOOL WinHttpReadData(HINTERNET request, LPVOID buffer, DWORD size, LPDWORD read) {
  Exchange& exchange = Use(request);
  SIM_CHECK(size == exchange.announced, "a read of another size");
  if (!exchange.Allow(kRead)) return FALSE;
  *read = 1 + Below(size);
  std::memcpy(buffer, exchange.reply.body.data() + exchange.sent, *read);
  exchange.sent += *read;
  return TRUE;
}

BOOL WinHttpCloseHandle(HINTERNET handle) {
  --Use(handle).open;
  return TRUE;
}

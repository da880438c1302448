#include "web.h"

#include <algorithm>
#include <cstring>

#include "exchange.h"
#include "reports.h"
#include "world.h"

namespace {

using namespace sim;

std::wstring Wide(std::string_view text) {
  std::wstring wide;
  for (const char c : text)
    wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
  return wide;
}

HINTERNET OpenHandle(Exchange& exchange, HandleKind kind) {
  SIM_CHECK(!exchange.open[kind], "a second handle of the same kind");
  exchange.open[kind] = true;
  return &exchange.tokens[kind];
}

Exchange& Use(HINTERNET handle, HandleKind kind) {
  Exchange& exchange = Current();
  SIM_CHECK(handle == &exchange.tokens[kind] && exchange.open[kind], "a handle that is not open");
  return exchange;
}

LPWSTR NewString(Exchange& exchange, std::wstring_view text) {
  auto* copy = new wchar_t[text.size() + 1]();
  std::ranges::copy(text, copy);
  ++exchange.blocks;
  return copy;
}

}  // namespace

DWORD GetLastError() {
  return Current().last_error;
}
void SetLastError(DWORD) {}

HGLOBAL GlobalFree(HGLOBAL memory) {
  if (memory != nullptr) --Current().blocks;
  delete[] static_cast<wchar_t*>(memory);
  return nullptr;
}

BOOL WinHttpCrackUrl(LPCWSTR url, DWORD length, DWORD flags, URL_COMPONENTS* parts) {
  Exchange& exchange = Current();
  if (!Allow(exchange, kCrack)) return FALSE;
  const std::wstring text(url);
  SIM_CHECK(length == text.size() + 1 && flags == 0 && parts->dwStructSize == sizeof *parts, "WinHttpCrackUrl");
  SIM_CHECK(std::ranges::any_of(exchange.utterance->urls, [&](const std::string& u) { return Wide(u) == text; }),
            "a request to another URL than %s", exchange.utterance->urls[0].c_str());
  const std::size_t scheme = text.find(L"://");
  const std::wstring name = text.substr(0, scheme);
  if (scheme == text.npos) return FailWith(exchange, kCrack, "E2021060610", 12006);
  if (name != L"http" && name != L"https") return FailWith(exchange, kCrack, "E2021060610", 12005);
  const std::size_t end = std::min(text.find_first_of(L"/?", scheme + 3), text.size());
  exchange.secure = name == L"https";
  exchange.host = text.substr(scheme + 3, end - scheme - 3);
  exchange.path = text.substr(end);
  SIM_CHECK(exchange.host.size() < 256 && parts->dwHostNameLength == 256 &&
                parts->dwUrlPathLength >= exchange.path.size() + 1,
            "buffers of the URL");
  std::wcscpy(parts->lpszHostName, exchange.host.c_str());
  std::wcscpy(parts->lpszUrlPath, exchange.path.c_str());
  parts->nScheme = exchange.secure ? INTERNET_SCHEME_HTTPS : INTERNET_SCHEME_HTTP;
  parts->nPort = exchange.secure ? 443 : 80;
  return TRUE;
}

BOOL WinHttpCheckPlatform() {
  return Allow(Current(), kPlatform);
}

BOOL WinHttpGetIEProxyConfigForCurrentUser(WINHTTP_CURRENT_USER_IE_PROXY_CONFIG* config) {
  Exchange& exchange = Current();
  Random& random = TheWorld().random;
  if (random.OneIn(4)) return FALSE;  // nobody asks why
  *config = {};
  if (random.OneIn(4)) config->lpszAutoConfigUrl = NewString(exchange, L"http://proxy.example/auto");
  if (!random.OneIn(4)) return TRUE;
  config->lpszProxy = NewString(exchange, L"proxy.example:3128");
  if (random.OneIn(2)) config->lpszProxyBypass = NewString(exchange, L"*.local");
  return TRUE;
}

HINTERNET WinHttpOpen(LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR, DWORD flags) {
  Exchange& exchange = Current();
  const bool named = access == WINHTTP_ACCESS_TYPE_NAMED_PROXY;
  SIM_CHECK(std::wstring(agent) == L"ZEL Wreq/0.31" && flags == 0 && named == (proxy != nullptr), "WinHttpOpen");
  return Allow(exchange, kOpen, named ? "E2021060614" : "E2021060613") ? OpenHandle(exchange, kSession) : nullptr;
}

BOOL WinHttpSetTimeouts(HINTERNET session, int resolve, int connect, int send, int receive) {
  Exchange& exchange = Use(session, kSession);
  SIM_CHECK(resolve == 20000 && connect == 20000 && send == 20000 && receive == 20000, "other time-outs");
  return Allow(exchange, kTimeouts);
}

HINTERNET WinHttpConnect(HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD) {
  Exchange& exchange = Use(session, kSession);
  SIM_CHECK(host == exchange.host && port == (exchange.secure ? 443 : 80), "another host or port");
  return Allow(exchange, kConnect) ? OpenHandle(exchange, kConnection) : nullptr;
}

HINTERNET WinHttpOpenRequest(HINTERNET connection, LPCWSTR verb, LPCWSTR path, LPCWSTR, LPCWSTR, LPCWSTR*,
                             DWORD flags) {
  Exchange& exchange = Use(connection, kConnection);
  SIM_CHECK(std::wstring(verb) == L"POST" && path == exchange.path, "another request line");
  SIM_CHECK(flags == (exchange.secure ? WINHTTP_FLAG_SECURE : 0u), "https is not http");
  return Allow(exchange, kRequest) ? OpenHandle(exchange, kRequestHandle) : nullptr;
}

BOOL WinHttpAddRequestHeaders(HINTERNET request, LPCWSTR header, DWORD length, DWORD modifiers) {
  Exchange& exchange = Use(request, kRequestHandle);
  SIM_CHECK(modifiers == WINHTTP_ADDREQ_FLAG_ADD, "WinHttpAddRequestHeaders");
  exchange.headers.emplace_back(header, length);
  return Allow(exchange, kHeader);
}

BOOL WinHttpSetCredentials(HINTERNET, DWORD, DWORD, LPCWSTR, LPCWSTR, LPVOID) {
  Fail("credentials that nobody gave");
}

BOOL WinHttpSendRequest(HINTERNET request, LPCWSTR, DWORD, LPVOID body, DWORD size, DWORD total, DWORD_PTR) {
  Exchange& exchange = Use(request, kRequestHandle);
  const std::vector<std::wstring> headers = {L"Content-Type:audio/ogg; codecs=opus",
                                             Wide("Authorization:" + exchange.utterance->authorization),
                                             L"Accept:application/json"};
  SIM_CHECK(exchange.headers == headers, "other headers");
  SIM_CHECK(size == exchange.utterance->bytes && total == size, "a body of another size");
  const std::string fault = JudgeStream({static_cast<const std::uint8_t*>(body), size}, *exchange.utterance);
  SIM_CHECK(fault.empty(), "body: %s", fault.c_str());
  if (!Allow(exchange, kSend)) return FALSE;
  SIM_CHECK(JudgeStream({static_cast<const std::uint8_t*>(body), size}, *exchange.utterance).empty(),
            "the body changed while it was sent");
  return TRUE;
}

BOOL WinHttpReceiveResponse(HINTERNET request, LPVOID) {
  return Allow(Use(request, kRequestHandle), kReceive);
}

BOOL WinHttpQueryHeaders(HINTERNET request, DWORD level, LPCWSTR, LPVOID buffer, LPDWORD size, LPDWORD) {
  Exchange& exchange = Use(request, kRequestHandle);
  if (level == WINHTTP_QUERY_RAW_HEADERS_CRLF) {
    if (!Allow(exchange, kProbe)) return FALSE;
    *size = 200;
    exchange.last_error = ERROR_INSUFFICIENT_BUFFER;
    return FALSE;
  }
  SIM_CHECK(level == (WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER) && *size == sizeof(DWORD), "the status");
  if (!Allow(exchange, kStatus)) return FALSE;
  std::memcpy(buffer, &exchange.reply.status, sizeof(DWORD));
  return TRUE;
}

BOOL WinHttpQueryDataAvailable(HINTERNET request, LPDWORD available) {
  Exchange& exchange = Use(request, kRequestHandle);
  if (!Allow(exchange, kAvailable)) return FALSE;
  const Reply& reply = exchange.reply;
  const std::size_t left = reply.body.size() - exchange.sent;
  exchange.announced = std::min<std::size_t>(left, 1 + Below(2000));
  *available = static_cast<DWORD>(exchange.announced);
  if (exchange.sent + exchange.announced > kMaxReply) {
    SettleFailed(exchange);
  } else if (left == 0) {
    Settle(exchange, reply.fate, reply.report, reply.text);
  }
  return TRUE;
}

BOOL WinHttpReadData(HINTERNET request, LPVOID buffer, DWORD size, LPDWORD read) {
  Exchange& exchange = Use(request, kRequestHandle);
  SIM_CHECK(size == exchange.announced, "a read of another size");
  if (!Allow(exchange, kRead)) return FALSE;
  *read = 1 + Below(size);
  std::memcpy(buffer, exchange.reply.body.data() + exchange.sent, *read);
  exchange.sent += *read;
  exchange.announced = 0;
  return TRUE;
}

BOOL WinHttpCloseHandle(HINTERNET handle) {
  Exchange& exchange = Current();
  const auto kind = static_cast<std::size_t>(static_cast<char*>(handle) - exchange.tokens);
  SIM_CHECK(kind < kHandleKinds && exchange.open[kind], "a handle is closed that is not open");
  SIM_CHECK(std::count(exchange.open + kind + 1, std::end(exchange.open), true) == 0, "a parent is closed first");
  exchange.open[kind] = false;
  return TRUE;
}

#include "scripted_winhttp.h"

#include <windows.h>

#include <winhttp.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <initializer_list>

namespace {

ScriptedWinHttp* g_platform;

wchar_t g_proxies[] = L"proxy:1", g_bypass[] = L"bypass", g_script[] = L"script";

std::string Text(const wchar_t* text) {
  if (text == nullptr) return "null";
  std::string narrow;
  for (; *text != L'\0'; ++text)
    narrow += static_cast<char>(*text);
  return narrow;
}
std::string Text(std::uint64_t number) {
  return std::to_string(number);
}
std::string Text(HINTERNET handle) {
  return handle == nullptr ? "null" : std::string("#").append(std::to_string(reinterpret_cast<std::uintptr_t>(handle)));
}

// Notes a call; false when it is to fail. Any call may change the last error.
bool Call(const char* name, std::initializer_list<std::string> arguments) {
  std::string note = name + std::string("(");
  for (const std::string& argument : arguments)
    note += (note.back() == '(' ? "" : ", ") + argument;
  g_platform->notes.push_back(note + ")");
  const bool fails = g_platform->calls++ == g_platform->fail_at;
  g_platform->last_error = fails ? g_platform->error : 0xDEAD;
  return !fails;
}

HINTERNET Handle(std::uintptr_t number) {
  return reinterpret_cast<HINTERNET>(number);  // NOLINT(performance-no-int-to-ptr)
}

}  // namespace

ScriptedWinHttp::ScriptedWinHttp() {
  g_platform = this;
}
ScriptedWinHttp::~ScriptedWinHttp() {
  g_platform = nullptr;
}

extern "C" {
void* __real_malloc(std::size_t size);
void __real_free(void* block);
void* __wrap_malloc(std::size_t size) {
  if (g_platform != nullptr) ++g_platform->blocks;
  return __real_malloc(size);
}
void __wrap_free(void* block) {
  if (g_platform != nullptr && block != nullptr) --g_platform->blocks;
  __real_free(block);
}
}

DWORD GetLastError(void) {
  g_platform->notes.push_back("error taken");
  return g_platform->last_error;
}
HGLOBAL GlobalFree(HGLOBAL memory) {
  Call("GlobalFree", {Text(static_cast<const wchar_t*>(memory))});
  return nullptr;
}

BOOL WinHttpCrackUrl(LPCWSTR url, DWORD length, DWORD flags, URL_COMPONENTS* parts) {
  const bool sound = parts->dwStructSize == sizeof *parts && parts->lpszScheme == nullptr &&
                     parts->lpszUserName == nullptr && parts->lpszPassword == nullptr &&
                     parts->lpszExtraInfo == nullptr;
  if (!Call("CrackUrl", {Text(url), Text(length), Text(flags), Text(parts->dwHostNameLength),
                         Text(parts->dwUrlPathLength), sound ? "sound" : "unsound"}))
    return FALSE;
  const std::wstring text = url;
  const std::size_t host = text.find(L"//") + 2, path = text.find(L'/', host);
  std::copy_n(text.c_str() + host, path - host, parts->lpszHostName);
  parts->lpszHostName[path - host] = L'\0';
  std::copy_n(text.c_str() + path, text.size() - path + 1, parts->lpszUrlPath);
  parts->nScheme = text[4] == L's' ? INTERNET_SCHEME_HTTPS : INTERNET_SCHEME_HTTP;
  parts->nPort = 8443;
  return TRUE;
}
BOOL WinHttpCheckPlatform(void) {
  return Call("CheckPlatform", {}) ? TRUE : FALSE;
}
BOOL WinHttpGetIEProxyConfigForCurrentUser(WINHTTP_CURRENT_USER_IE_PROXY_CONFIG* config) {
  if (!Call("GetProxies", {Text(config->lpszProxy)})) return FALSE;
  if (g_platform->named_proxy) *config = {TRUE, g_script, g_proxies, g_bypass};
  return TRUE;
}
HINTERNET WinHttpOpen(LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags) {
  return Call("Open", {Text(agent), Text(access), Text(proxy), Text(bypass), Text(flags)}) ? Handle(1) : nullptr;
}
BOOL WinHttpSetTimeouts(HINTERNET session, int resolve, int connect, int send, int receive) {
  std::vector<std::string> times;
  for (const int time : {resolve, connect, send, receive})
    times.push_back(std::to_string(time));
  return Call("SetTimeouts", {Text(session), times[0], times[1], times[2], times[3]}) ? TRUE : FALSE;
}
HINTERNET WinHttpConnect(HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved) {
  return Call("Connect", {Text(session), Text(host), Text(port), Text(reserved)}) ? Handle(2) : nullptr;
}
HINTERNET WinHttpOpenRequest(HINTERNET connection, LPCWSTR verb, LPCWSTR path, LPCWSTR version, LPCWSTR referrer,
                             LPCWSTR* types, DWORD flags) {
  return Call("OpenRequest", {Text(connection), Text(verb), Text(path), Text(version), Text(referrer),
                              types == nullptr ? "null" : "types", Text(flags)})
             ? Handle(3)
             : nullptr;
}
BOOL WinHttpAddRequestHeaders(HINTERNET request, LPCWSTR header, DWORD length, DWORD modifiers) {
  return Call("AddHeader", {Text(request), Text(header), Text(length), Text(modifiers)}) ? TRUE : FALSE;
}
BOOL WinHttpSetCredentials(HINTERNET request, DWORD target, DWORD scheme, LPCWSTR user, LPCWSTR password, LPVOID more) {
  return Call("SetCredentials",
              {Text(request), Text(target), Text(scheme), Text(user), Text(password), Text(HINTERNET{more})})
             ? TRUE
             : FALSE;
}
BOOL WinHttpSendRequest(HINTERNET request, LPCWSTR headers, DWORD headers_length, LPVOID body, DWORD size, DWORD total,
                        DWORD_PTR context) {
  const std::string bytes = body == nullptr ? "null" : std::string(static_cast<const char*>(body), size);
  return Call("Send",
              {Text(request), Text(headers), Text(headers_length), bytes, Text(size), Text(total), Text(context)})
             ? TRUE
             : FALSE;
}
BOOL WinHttpReceiveResponse(HINTERNET request, LPVOID reserved) {
  return Call("Receive", {Text(request), Text(HINTERNET{reserved})}) ? TRUE : FALSE;
}
BOOL WinHttpQueryHeaders(HINTERNET request, DWORD level, LPCWSTR name, LPVOID buffer, LPDWORD size, LPDWORD index) {
  const bool probe = level == WINHTTP_QUERY_RAW_HEADERS_CRLF;
  if (!Call(probe ? "Probe" : "QueryStatus",
            {Text(request), Text(level), Text(name), buffer == nullptr ? "null" : "buffer", Text(*size),
             index == nullptr ? "null" : "index"}))
    return FALSE;
  if (!probe) {
    const DWORD status = 200;
    std::memcpy(buffer, &status, sizeof status);
  } else if (!g_platform->probe_succeeds) {
    *size = 100;
    g_platform->last_error = ERROR_INSUFFICIENT_BUFFER;
    return FALSE;
  }
  return TRUE;
}
BOOL WinHttpQueryDataAvailable(HINTERNET request, LPDWORD available) {
  if (!Call("Available", {Text(request), Text(*available)})) return FALSE;
  *available = g_platform->body.empty() ? 0 : g_platform->body.front().first;
  return TRUE;
}
BOOL WinHttpReadData(HINTERNET request, LPVOID buffer, DWORD size, LPDWORD read) {
  if (!Call("Read", {Text(request), Text(size)})) return FALSE;
  const std::string bytes = g_platform->body.front().second;
  g_platform->body.erase(g_platform->body.begin());
  std::memcpy(buffer, bytes.data(), bytes.size());
  *read = static_cast<DWORD>(bytes.size());
  return TRUE;
}
BOOL WinHttpCloseHandle(HINTERNET handle) {
  return Call("Close", {Text(handle)}) ? TRUE : FALSE;
}

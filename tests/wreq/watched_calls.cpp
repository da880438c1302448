#include "watched_calls.h"

#include "watched_names.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#ifdef _WIN32
// Not a thread_local variable: those take memory from the heap here, when they are first used.
static std::atomic<DWORD> watch_index{TLS_OUT_OF_INDEXES};
void SetWatch(Watch* watch) {
  [[maybe_unused]] static const DWORD index = watch_index = TlsAlloc();
  TlsSetValue(watch_index, watch);
}
static Watch* CurrentWatch() {
  return static_cast<Watch*>(TlsGetValue(watch_index));
}
#else
static thread_local Watch* current_watch;
void SetWatch(Watch* watch) {
  current_watch = watch;
}
static Watch* CurrentWatch() {
  return current_watch;
}
#endif

// ---- The heap

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
char* __real_strdup(const char* text);
void __real_free(void* memory);

static bool AllocationFails() {
  Watch* watch = CurrentWatch();
  return watch != nullptr && watch->orders.failing_allocation > 0 && --watch->orders.failing_allocation == 0;
}
static void* Counted(void* memory) {
  if (Watch* watch = CurrentWatch(); watch != nullptr && memory != nullptr) ++watch->held.blocks;
  return memory;
}
void* __wrap_malloc(std::size_t size) {
  return AllocationFails() ? nullptr : Counted(__real_malloc(size));
}
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return AllocationFails() ? nullptr : Counted(__real_calloc(count, size));
}
void* __wrap_realloc(void* memory, std::size_t size) {
  if (AllocationFails()) return nullptr;
  return memory == nullptr ? Counted(__real_realloc(memory, size)) : __real_realloc(memory, size);
}
char* __wrap_strdup(const char* text) {
  return AllocationFails() ? nullptr : static_cast<char*>(Counted(__real_strdup(text)));
}
void __wrap_free(void* memory) {
  if (Watch* watch = CurrentWatch(); watch != nullptr && memory != nullptr) --watch->held.blocks;
  __real_free(memory);
}
}

// ---- The platform

static bool Fails(const char* call) {
  Orders& orders = CurrentWatch()->orders;
  if (orders.failing_call == nullptr || std::strcmp(call, orders.failing_call) != 0) return false;
  if (--orders.failing_count != 0) return false;
  SetLastError(orders.error);
  return true;
}
static HINTERNET Opened(HINTERNET handle) {
  if (handle != nullptr) ++CurrentWatch()->held.handles;
  return handle;
}
// Memory that GlobalFree releases.
static LPWSTR ProxyString(const std::string& text) {
  const std::size_t size = (text.size() + 1) * sizeof(wchar_t);
#ifdef _WIN32
  auto* copy = static_cast<LPWSTR>(GlobalAlloc(GMEM_FIXED, size));
#else
  auto* copy = static_cast<LPWSTR>(std::malloc(size));
#endif
  for (std::size_t i = 0; i <= text.size(); ++i)
    copy[i] = static_cast<wchar_t>(text.c_str()[i]);
  return copy;
}

BOOL Watched_WinHttpCrackUrl(LPCWSTR url, DWORD length, DWORD flags, URL_COMPONENTS* parts) {
  return Fails("CrackUrl") ? FALSE : WinHttpCrackUrl(url, length, flags, parts);
}
BOOL Watched_WinHttpCheckPlatform(void) {
  return Fails("CheckPlatform") ? FALSE : WinHttpCheckPlatform();
}
BOOL Watched_WinHttpGetIEProxyConfigForCurrentUser(WINHTTP_CURRENT_USER_IE_PROXY_CONFIG* config) {
  if (Fails("GetIEProxyConfigForCurrentUser")) return FALSE;
  BOOL result = TRUE;
  if (const std::string& list = CurrentWatch()->orders.proxy; !list.empty()) {
    *config = {TRUE, ProxyString("http://name.invalid/proxy.pac"), ProxyString(list), ProxyString("other.invalid")};
  } else {
    result = WinHttpGetIEProxyConfigForCurrentUser(config);
  }
  for (const LPWSTR text : {config->lpszAutoConfigUrl, config->lpszProxy, config->lpszProxyBypass})
    CurrentWatch()->held.proxy_strings += text != nullptr ? 1 : 0;
  return result;
}
HGLOBAL Watched_GlobalFree(HGLOBAL memory) {
  if (memory != nullptr) --CurrentWatch()->held.proxy_strings;
  return GlobalFree(memory);
}
HINTERNET Watched_WinHttpOpen(LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags) {
  return Fails("Open") ? nullptr : Opened(WinHttpOpen(agent, access, proxy, bypass, flags));
}
BOOL Watched_WinHttpSetTimeouts(HINTERNET session, int resolve, int connect, int send, int receive) {
  return Fails("SetTimeouts") ? FALSE : WinHttpSetTimeouts(session, resolve, connect, send, receive);
}
HINTERNET Watched_WinHttpConnect(HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved) {
  return Fails("Connect") ? nullptr : Opened(WinHttpConnect(session, host, port, reserved));
}
HINTERNET Watched_WinHttpOpenRequest(HINTERNET connection, LPCWSTR verb, LPCWSTR path, LPCWSTR version,
                                     LPCWSTR referrer, LPCWSTR* types, DWORD flags) {
  if (Fails("OpenRequest")) return nullptr;
  return Opened(WinHttpOpenRequest(connection, verb, path, version, referrer, types, flags));
}
BOOL Watched_WinHttpAddRequestHeaders(HINTERNET request, LPCWSTR header, DWORD length, DWORD modifiers) {
  return Fails("AddRequestHeaders") ? FALSE : WinHttpAddRequestHeaders(request, header, length, modifiers);
}
BOOL Watched_WinHttpSetCredentials(HINTERNET request, DWORD target, DWORD scheme, LPCWSTR user, LPCWSTR password,
                                   LPVOID reserved) {
  if (Fails("SetCredentials")) return FALSE;
  return WinHttpSetCredentials(request, target, scheme, user, password, reserved);
}
BOOL Watched_WinHttpSendRequest(HINTERNET request, LPCWSTR headers, DWORD headers_length, LPVOID body, DWORD size,
                                DWORD total, DWORD_PTR context) {
  if (Fails("SendRequest")) return FALSE;
  return WinHttpSendRequest(request, headers, headers_length, body, size, total, context);
}
BOOL Watched_WinHttpReceiveResponse(HINTERNET request, LPVOID reserved) {
  return Fails("ReceiveResponse") ? FALSE : WinHttpReceiveResponse(request, reserved);
}
BOOL Watched_WinHttpQueryHeaders(HINTERNET request, DWORD level, LPCWSTR name, LPVOID buffer, LPDWORD size,
                                 LPDWORD index) {
  if (Fails("QueryHeaders")) return FALSE;
  return WinHttpQueryHeaders(request, level, name, buffer, size, index);
}
BOOL Watched_WinHttpQueryDataAvailable(HINTERNET request, LPDWORD available) {
  return Fails("QueryDataAvailable") ? FALSE : WinHttpQueryDataAvailable(request, available);
}
BOOL Watched_WinHttpReadData(HINTERNET request, LPVOID buffer, DWORD size, LPDWORD read) {
  return Fails("ReadData") ? FALSE : WinHttpReadData(request, buffer, size, read);
}
// Closing is what follows a failure, and may well change the last error.
BOOL Watched_WinHttpCloseHandle(HINTERNET handle) {
  --CurrentWatch()->held.handles;
  const BOOL closed = WinHttpCloseHandle(handle);
  SetLastError(ERROR_INVALID_PARAMETER);
  return closed;
}

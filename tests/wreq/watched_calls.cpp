#include "watched_calls.h"

#include <windows.h>

#include <winhttp.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <utility>

#ifdef _WIN32
#define WATCHED extern "C"
// Neither a thread_local variable, which takes memory from the heap here when it is first used, nor a static one that
// the heap's own first call would initialize.
static std::atomic<DWORD> watch_index{TLS_OUT_OF_INDEXES};
static Watch* CurrentWatch() {
  return static_cast<Watch*>(TlsGetValue(watch_index));
}
Watch* SetWatch(Watch* watch) {
  [[maybe_unused]] static const DWORD index = watch_index = TlsAlloc();
  Watch* const before = CurrentWatch();
  TlsSetValue(watch_index, watch);
  return before;
}
#else
#define WATCHED
static thread_local Watch* current_watch;
static Watch* CurrentWatch() {
  return current_watch;
}
Watch* SetWatch(Watch* watch) {
  return std::exchange(current_watch, watch);
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
  return watch != nullptr && watch->failing_allocation > 0 && --watch->failing_allocation == 0;
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

WATCHED BOOL Watched_WinHttpGetIEProxyConfigForCurrentUser(WINHTTP_CURRENT_USER_IE_PROXY_CONFIG* config) {
  BOOL result = TRUE;
  if (const std::string& list = CurrentWatch()->proxy; !list.empty()) {
    *config = {TRUE, ProxyString("http://name.invalid/proxy.pac"), ProxyString(list), ProxyString("other.invalid")};
  } else {
    result = WinHttpGetIEProxyConfigForCurrentUser(config);
  }
  for (const LPWSTR text : {config->lpszAutoConfigUrl, config->lpszProxy, config->lpszProxyBypass})
    CurrentWatch()->held.proxy_strings += text != nullptr ? 1 : 0;
  return result;
}
WATCHED HGLOBAL Watched_GlobalFree(HGLOBAL memory) {
  if (memory != nullptr) --CurrentWatch()->held.proxy_strings;
  return GlobalFree(memory);
}
WATCHED HINTERNET Watched_WinHttpOpen(LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags) {
  return Opened(WinHttpOpen(agent, access, proxy, bypass, flags));
}
WATCHED HINTERNET Watched_WinHttpConnect(HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved) {
  return Opened(WinHttpConnect(session, host, port, reserved));
}
WATCHED HINTERNET Watched_WinHttpOpenRequest(HINTERNET connection, LPCWSTR verb, LPCWSTR path, LPCWSTR version,
                                             LPCWSTR referrer, LPCWSTR* types, DWORD flags) {
  return Opened(WinHttpOpenRequest(connection, verb, path, version, referrer, types, flags));
}
WATCHED BOOL Watched_WinHttpCloseHandle(HINTERNET handle) {
  --CurrentWatch()->held.handles;
  return WinHttpCloseHandle(handle);
}

#include "winhttp.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "proxy.h"
#include "request.h"
#include "url.h"

namespace {

constexpr size_t kMaxRead = 8192;

enum HandleKind : int { SESSION = 1, CONNECTION = 2, REQUEST = 3 };

// Each kind of handle begins with its kind.
struct SessionHandle {
  HandleKind kind;
  SessionSettings settings;
};

struct ConnectionHandle {
  HandleKind kind;
  const SessionHandle* session;
  char* host;
  INTERNET_PORT port;
};

struct RequestHandle {
  HandleKind kind;
  Request request;
};

thread_local DWORD last_error;
pthread_mutex_t library_lock = PTHREAD_MUTEX_INITIALIZER;
bool is_library_ready;  // atomic

BOOL Result(DWORD error) {
  if (error != 0) last_error = error;
  return error == 0;
}

HINTERNET NoHandle(DWORD error) {
  last_error = error;
  return nullptr;
}

template <typename Record>
Record* As(HINTERNET handle, HandleKind kind) {
  if (handle == nullptr) {
    last_error = ERROR_INVALID_HANDLE;
    return nullptr;
  }
  Record* record = static_cast<Record*>(handle);
  if (record->kind == kind) return record;
  last_error = ERROR_WINHTTP_INCORRECT_HANDLE_TYPE;
  return nullptr;
}

template <typename Record>
Record* MakeHandle(HandleKind kind) {
  Record* record = static_cast<Record*>(calloc(1, sizeof(Record)));
  if (record != nullptr) record->kind = kind;
  return record;
}

// A thread that still waits for a name server when its exchange is over runs in libcurl: it must stay loaded even when
// the library around this code is unloaded.
void KeepLibraryLoaded() {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&curl_global_init), &info) == 0) return;
  dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

// After a failure, memory having run out, the next call tries again.
bool PrepareLibrary() {
  if (__atomic_load_n(&is_library_ready, __ATOMIC_ACQUIRE)) return true;
  pthread_mutex_lock(&library_lock);
  if (!is_library_ready && curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK) {
    KeepLibraryLoaded();
    __atomic_store_n(&is_library_ready, true, __ATOMIC_RELEASE);
  }
  const bool ready = is_library_ready;
  pthread_mutex_unlock(&library_lock);
  return ready;
}

char* Copy(LPCWSTR text) {
  return zelHttpText_ToUtf8(text, wcslen(text));
}

// Strings may be null.
HINTERNET OpenSession(LPCWSTR agent, LPCWSTR proxy_list, LPCWSTR proxy_bypass) {
  SessionHandle* session = MakeHandle<SessionHandle>(SESSION);
  if (session == nullptr) return NoHandle(ERROR_NOT_ENOUGH_MEMORY);
  session->settings.limits = {{0, 60000, 30000, 30000}};
  bool ok = true;
  const auto copy = [&ok](LPCWSTR text) {
    char* bytes = text != nullptr ? Copy(text) : nullptr;
    ok = ok && (text == nullptr || bytes != nullptr);
    return bytes;
  };
  session->settings.agent = copy(agent);
  session->settings.proxy_list = copy(proxy_list);
  session->settings.proxy_bypass = copy(proxy_bypass);
  if (ok) return session;
  WinHttpCloseHandle(session);
  return NoHandle(ERROR_NOT_ENOUGH_MEMORY);
}

// Copies a component into the caller's buffer, or leaves the needed capacity in `capacity`.
bool PutComponent(const wchar_t* text, size_t length, LPWSTR buffer, DWORD* capacity) {
  if (buffer == nullptr) return true;
  if (length >= *capacity) {
    *capacity = static_cast<DWORD>(length + 1);
    return false;
  }
  wmemcpy(buffer, text, length);
  buffer[length] = L'\0';
  *capacity = static_cast<DWORD>(length);
  return true;
}

bool IsUnsupported(const URL_COMPONENTS* parts) {
  const bool others = parts->lpszScheme != nullptr || parts->dwSchemeLength != 0 || parts->lpszUserName != nullptr ||
                      parts->dwUserNameLength != 0 || parts->lpszPassword != nullptr || parts->dwPasswordLength != 0 ||
                      parts->lpszExtraInfo != nullptr || parts->dwExtraInfoLength != 0;
  // A buffer without length is a mistake; a length without buffer asks for views into the URL.
  return others || parts->dwStructSize != sizeof *parts ||
         (parts->lpszHostName == nullptr) != (parts->dwHostNameLength == 0) ||
         (parts->lpszUrlPath == nullptr) != (parts->dwUrlPathLength == 0);
}

DWORD QueryRawHeaders(const Transfer* transfer, LPVOID buffer, LPDWORD size) {
  const size_t length = transfer->head.size;
  const DWORD needed = static_cast<DWORD>((length + 1) * sizeof(WCHAR));
  if (buffer == nullptr || *size < needed) {
    *size = needed;
    return ERROR_INSUFFICIENT_BUFFER;
  }
  WCHAR* text = static_cast<WCHAR*>(buffer);
  for (size_t i = 0; i < length; ++i)
    text[i] = static_cast<unsigned char>(transfer->head.data[i]);
  text[length] = L'\0';
  *size = needed - static_cast<DWORD>(sizeof(WCHAR));
  return 0;
}

DWORD QueryStatus(const Transfer* transfer, LPVOID buffer, LPDWORD size) {
  const DWORD status = static_cast<DWORD>(transfer->status);
  const bool fits = buffer != nullptr && *size >= sizeof status;
  *size = sizeof status;
  if (!fits) return ERROR_INSUFFICIENT_BUFFER;
  memcpy(buffer, &status, sizeof status);
  return 0;
}

}  // namespace

DWORD GetLastError(void) {
  return last_error;
}
void SetLastError(DWORD error) {
  last_error = error;
}

HGLOBAL GlobalFree(HGLOBAL memory) {
  free(memory);
  return nullptr;
}

BOOL WinHttpCrackUrl(LPCWSTR url, DWORD length, DWORD flags, URL_COMPONENTS* components) {
  if (url == nullptr || components == nullptr || flags != 0 || IsUnsupported(components)) {
    return Result(ERROR_INVALID_PARAMETER);
  }
  const size_t size = length != 0 ? wcsnlen(url, length) : wcslen(url);
  UrlParts parts;
  const DWORD error = zelHttpUrl_Split(url, size, &parts);
  if (error != 0) return Result(error);
  components->nScheme = parts.secure ? INTERNET_SCHEME_HTTPS : INTERNET_SCHEME_HTTP;
  components->nPort = parts.port;
  const bool host =
      PutComponent(parts.host, parts.host_length, components->lpszHostName, &components->dwHostNameLength);
  const bool path = PutComponent(parts.path, parts.path_length, components->lpszUrlPath, &components->dwUrlPathLength);
  return Result(host && path ? 0 : ERROR_INSUFFICIENT_BUFFER);
}

BOOL WinHttpCheckPlatform(void) {
  return Result(PrepareLibrary() ? 0 : ERROR_WINHTTP_INTERNAL_ERROR);
}

BOOL WinHttpGetIEProxyConfigForCurrentUser(WINHTTP_CURRENT_USER_IE_PROXY_CONFIG* config) {
  if (config == nullptr) return Result(ERROR_INVALID_PARAMETER);
  *config = {};
  const bool ok = zelHttpProxy_ReadEnvironment(&config->lpszProxy, &config->lpszProxyBypass);
  return Result(ok ? 0 : ERROR_NOT_ENOUGH_MEMORY);
}

HINTERNET WinHttpOpen(LPCWSTR agent, DWORD access_type, LPCWSTR proxy, LPCWSTR proxy_bypass, DWORD flags) {
  const bool named = access_type == WINHTTP_ACCESS_TYPE_NAMED_PROXY;
  if (flags != 0 || (!named && access_type != WINHTTP_ACCESS_TYPE_DEFAULT_PROXY) || named != (proxy != nullptr)) {
    return NoHandle(ERROR_INVALID_PARAMETER);
  }
  if (!WinHttpCheckPlatform()) return nullptr;
  if (named) return OpenSession(agent, proxy, proxy_bypass);
  // A caller who could not read the proxies of the environment must not go past them.
  WINHTTP_CURRENT_USER_IE_PROXY_CONFIG config;
  if (!WinHttpGetIEProxyConfigForCurrentUser(&config)) return nullptr;
  const HINTERNET session = OpenSession(agent, config.lpszProxy, config.lpszProxyBypass);
  free(config.lpszProxy);
  free(config.lpszProxyBypass);
  return session;
}

BOOL WinHttpSetTimeouts(HINTERNET handle, int resolve, int connect, int send, int receive) {
  SessionHandle* session = As<SessionHandle>(handle, SESSION);
  if (session == nullptr) return FALSE;
  if (resolve < -1 || connect < -1 || send < -1 || receive < -1) return Result(ERROR_INVALID_PARAMETER);
  session->settings.limits = {{resolve, connect, send, receive}};
  return TRUE;
}

HINTERNET WinHttpConnect(HINTERNET handle, LPCWSTR host, INTERNET_PORT port, DWORD reserved) {
  const SessionHandle* session = As<SessionHandle>(handle, SESSION);
  if (session == nullptr) return nullptr;
  if (host == nullptr || reserved != 0) return NoHandle(ERROR_INVALID_PARAMETER);
  ConnectionHandle* connection = MakeHandle<ConnectionHandle>(CONNECTION);
  char* name = Copy(host);
  if (connection == nullptr || name == nullptr) {
    free(connection);
    free(name);
    return NoHandle(ERROR_NOT_ENOUGH_MEMORY);
  }
  connection->session = session;
  connection->host = name;
  connection->port = port;
  return connection;
}

HINTERNET WinHttpOpenRequest(HINTERNET handle, LPCWSTR verb, LPCWSTR path, LPCWSTR version, LPCWSTR referrer,
                             LPCWSTR* accept_types, DWORD flags) {
  const ConnectionHandle* connection = As<ConnectionHandle>(handle, CONNECTION);
  if (connection == nullptr) return nullptr;
  const bool secure = flags == WINHTTP_FLAG_SECURE;
  if (version != nullptr || referrer != nullptr || accept_types != nullptr || (flags != 0 && !secure)) {
    return NoHandle(ERROR_INVALID_PARAMETER);
  }
  if (verb == nullptr || *verb == L'\0') verb = L"GET";
  if (path == nullptr) path = L"";
  RequestHandle* record = MakeHandle<RequestHandle>(REQUEST);
  if (record == nullptr) return NoHandle(ERROR_NOT_ENOUGH_MEMORY);
  DWORD error = 0;
  Request* request = &record->request;
  const unsigned short default_port = secure ? INTERNET_DEFAULT_HTTPS_PORT : INTERNET_DEFAULT_HTTP_PORT;
  request->settings = &connection->session->settings;
  request->verb = Copy(verb);
  request->endpoint.secure = secure;
  request->endpoint.port = connection->port != INTERNET_DEFAULT_PORT ? connection->port : default_port;
  request->endpoint.host = strdup(connection->host);
  request->endpoint.target = zelHttpUrl_MakeTarget(path, wcslen(path), &error);
  if (request->verb != nullptr && request->endpoint.host != nullptr && request->endpoint.target != nullptr) {
    return record;
  }
  WinHttpCloseHandle(record);
  return NoHandle(error);
}

BOOL WinHttpAddRequestHeaders(HINTERNET handle, LPCWSTR header, DWORD length, DWORD modifiers) {
  RequestHandle* record = As<RequestHandle>(handle, REQUEST);
  if (record == nullptr) return FALSE;
  if (header == nullptr || length == 0 || modifiers != WINHTTP_ADDREQ_FLAG_ADD) return Result(ERROR_INVALID_PARAMETER);
  if (record->request.state != REQUEST_OPEN) return Result(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
  const size_t size = length == static_cast<DWORD>(-1) ? wcslen(header) : length;
  return Result(zelHttpHeaderList_Add(&record->request.headers, header, size));
}

BOOL WinHttpSetCredentials(HINTERNET handle, DWORD target, DWORD scheme, LPCWSTR user, LPCWSTR password,
                           LPVOID parameters) {
  RequestHandle* record = As<RequestHandle>(handle, REQUEST);
  if (record == nullptr) return FALSE;
  if (target != WINHTTP_AUTH_TARGET_SERVER || scheme != WINHTTP_AUTH_SCHEME_BASIC || user == nullptr ||
      password == nullptr || parameters != nullptr) {
    return Result(ERROR_INVALID_PARAMETER);
  }
  Request* request = &record->request;
  free(request->user);
  free(request->password);
  request->user = Copy(user);
  request->password = Copy(password);
  return Result(request->user != nullptr && request->password != nullptr ? 0 : ERROR_NOT_ENOUGH_MEMORY);
}

BOOL WinHttpSendRequest(HINTERNET handle, LPCWSTR headers, DWORD headers_length, LPVOID body, DWORD size, DWORD total,
                        DWORD_PTR) {
  RequestHandle* record = As<RequestHandle>(handle, REQUEST);
  if (record == nullptr) return FALSE;
  if (headers != nullptr || headers_length != 0 || total != size || (body == nullptr && size != 0)) {
    return Result(ERROR_INVALID_PARAMETER);
  }
  if (record->request.state != REQUEST_OPEN) return Result(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
  record->request.body = body;
  record->request.body_size = size;
  return Result(zelHttpRequest_Send(&record->request));
}

BOOL WinHttpReceiveResponse(HINTERNET handle, LPVOID reserved) {
  RequestHandle* record = As<RequestHandle>(handle, REQUEST);
  if (record == nullptr) return FALSE;
  return Result(reserved != nullptr ? ERROR_INVALID_PARAMETER : zelHttpRequest_Receive(&record->request));
}

BOOL WinHttpQueryHeaders(HINTERNET handle, DWORD level, LPCWSTR name, LPVOID buffer, LPDWORD size, LPDWORD index) {
  const RequestHandle* record = As<RequestHandle>(handle, REQUEST);
  if (record == nullptr) return FALSE;
  if (name != nullptr || size == nullptr || index != nullptr) return Result(ERROR_INVALID_PARAMETER);
  if (record->request.state != REQUEST_RECEIVED) return Result(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
  const Transfer* transfer = &record->request.transfer;
  if (level == WINHTTP_QUERY_RAW_HEADERS_CRLF) return Result(QueryRawHeaders(transfer, buffer, size));
  if (level != (WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER)) return Result(ERROR_INVALID_PARAMETER);
  return Result(QueryStatus(transfer, buffer, size));
}

BOOL WinHttpQueryDataAvailable(HINTERNET handle, LPDWORD available) {
  RequestHandle* record = As<RequestHandle>(handle, REQUEST);
  if (record == nullptr) return FALSE;
  if (available == nullptr) return Result(ERROR_INVALID_PARAMETER);
  *available = 0;
  if (record->request.state != REQUEST_RECEIVED) return Result(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
  Transfer* transfer = &record->request.transfer;
  const DWORD error = zelHttpTransfer_AwaitBody(transfer);
  const size_t queued = zelHttpTransfer_GetQueued(transfer);
  *available = static_cast<DWORD>(queued < kMaxRead ? queued : kMaxRead);
  return Result(error);
}

BOOL WinHttpReadData(HINTERNET handle, LPVOID buffer, DWORD size, LPDWORD read) {
  RequestHandle* record = As<RequestHandle>(handle, REQUEST);
  if (record == nullptr) return FALSE;
  if (buffer == nullptr || read == nullptr) return Result(ERROR_INVALID_PARAMETER);
  *read = 0;
  if (record->request.state != REQUEST_RECEIVED) return Result(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
  Transfer* transfer = &record->request.transfer;
  while (*read < size) {
    const DWORD error = zelHttpTransfer_AwaitBody(transfer);
    const size_t got = zelHttpTransfer_Read(transfer, static_cast<char*>(buffer) + *read, size - *read);
    *read += static_cast<DWORD>(got);
    // An error behind bytes that were read is told by the next call.
    if (got == 0) return Result(*read > 0 ? 0 : error);
  }
  return TRUE;
}

BOOL WinHttpCloseHandle(HINTERNET handle) {
  if (handle == nullptr) return Result(ERROR_INVALID_HANDLE);
  switch (*static_cast<HandleKind*>(handle)) {
    case SESSION: {
      SessionHandle* session = static_cast<SessionHandle*>(handle);
      free(session->settings.agent);
      free(session->settings.proxy_list);
      free(session->settings.proxy_bypass);
      break;
    }
    case CONNECTION:
      free(static_cast<ConnectionHandle*>(handle)->host);
      break;
    case REQUEST:
      zelHttpRequest_Free(&static_cast<RequestHandle*>(handle)->request);
      break;
  }
  free(handle);
  return TRUE;
}

#include "wreq_execute.h"

// windows.h comes first: the system's winhttp.h does not include it.
#include <windows.h>

#include <winhttp.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "bridge.h"

namespace {

constexpr wchar_t kDefaultAgent[] = L"ZEL Wreq/0.31";
constexpr DWORD kHostCapacity = 256;
constexpr std::size_t kCredentialCapacity = 512;

struct Method {
  const char* name;
  const wchar_t* wide;
};

constexpr Method kMethods[] = {
    {"GET", L"GET"},       {"HEAD", L"HEAD"},       {"POST", L"POST"},       {"PUT", L"PUT"},
    {"DELETE", L"DELETE"}, {"CONNECT", L"CONNECT"}, {"OPTIONS", L"OPTIONS"}, {"TRACE", L"TRACE"},
};

// What one call holds. Everything is released by Release, on every path.
struct Exchange {
  const WreqRequest* request;
  WreqResponse* response;
  std::size_t longest_header;  // bytes of key and value of the longest header line
  wchar_t* agent;              // from a "User-Agent" header; null: the default
  wchar_t* url;
  std::size_t url_capacity;  // units of `url`, terminator included
  wchar_t* host;
  wchar_t* path;
  INTERNET_PORT port;
  bool secure;
  const wchar_t* method;
  WINHTTP_CURRENT_USER_IE_PROXY_CONFIG proxy;
  HINTERNET session;
  HINTERNET connection;
  HINTERNET handle;
  wchar_t* line;
};

constexpr std::int32_t kDone = WREQ_EXECUTE_OK;
constexpr std::int32_t kFailed = WREQ_EXECUTE_FAILED;

std::int32_t Fail(const char* message) {
  zelErr_Notify(ZEL_ERR_LEVEL_ERROR, message);
  return kFailed;
}

void ReportError(Exchange* exchange, std::uint32_t level, const char* format, DWORD error) {
  zelErr_Notify2(level, format, error, zelErr_Argument(zelWreq_GetWinHttpErrorName(error)));
  exchange->response->error_kind = zelWreq_ClassifyWinHttpError(error);
}

std::int32_t FailWith(Exchange* exchange, const char* format, DWORD error) {
  ReportError(exchange, ZEL_ERR_LEVEL_ERROR, format, error);
  return kFailed;
}

std::int32_t FailWithLastError(Exchange* exchange, const char* format) {
  return FailWith(exchange, format, GetLastError());
}

wchar_t* AllocateWide(std::size_t count) {
  if (count > SIZE_MAX / sizeof(wchar_t)) return nullptr;
  return static_cast<wchar_t*>(std::malloc(count * sizeof(wchar_t)));
}

// Each byte becomes the code unit of the same value, whatever its encoding; false when the terminator does not fit.
bool Widen(const char* text, wchar_t* wide, std::size_t capacity) {
  const std::size_t size = std::strlen(text) + 1;
  if (size > capacity) return false;
  for (std::size_t i = 0; i < size; ++i)
    wide[i] = static_cast<unsigned char>(text[i]);
  return true;
}

wchar_t* WidenCopy(const char* text, std::size_t* capacity) {
  *capacity = std::strlen(text) + 1;
  wchar_t* wide = AllocateWide(*capacity);
  if (wide != nullptr) Widen(text, wide, *capacity);
  return wide;
}

// "key:value"; the length, or 0 when it does not fit with its terminator.
std::size_t FormatHeader(const WreqHeader& header, wchar_t* line, std::size_t capacity) {
  const std::size_t key_length = std::strlen(header.key);
  if (key_length >= capacity || !Widen(header.key, line, capacity)) return 0;
  line[key_length] = L':';
  if (!Widen(header.value, line + key_length + 1, capacity - key_length - 1)) return 0;
  return key_length + 1 + std::strlen(header.value);
}

bool HasLineBreak(const char* text) {
  return std::strpbrk(text, "\r\n") != nullptr;
}

char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsUserAgent(const char* key) {
  constexpr char kName[] = "user-agent";
  for (std::size_t i = 0; i < sizeof kName; ++i) {
    if (LowerCase(key[i]) != kName[i]) return false;
  }
  return true;
}

std::int32_t PrepareAgent(Exchange* exchange) {
  for (std::int32_t i = 0; i < exchange->request->num_headers; ++i) {
    const WreqHeader& header = exchange->request->headers[i];
    if (IsUserAgent(header.key)) {
      std::size_t capacity = 0;
      wchar_t* agent = WidenCopy(header.value, &capacity);
      if (agent == nullptr) return Fail("E2021060608:[ZELWREQ] mbstowcs() for user-agent failed.");
      std::free(exchange->agent);
      exchange->agent = agent;
    }
    const std::size_t length = std::strlen(header.key) + std::strlen(header.value);
    if (length > exchange->longest_header) exchange->longest_header = length;
  }
  return kDone;
}

std::int32_t SplitUrl(Exchange* exchange) {
  static constexpr char kFormat[] = "E2021060610:[ZELWREQ] WinHttpCrackUrl() failed. err=%lu(%s)";
  exchange->url = WidenCopy(exchange->request->url, &exchange->url_capacity);
  if (exchange->url == nullptr) return Fail("E2021060609:[ZELWREQ] mbstowcs() for url failed.");

  exchange->host = AllocateWide(kHostCapacity);
  exchange->path = AllocateWide(exchange->url_capacity);
  if (exchange->host == nullptr || exchange->path == nullptr) {
    return FailWith(exchange, kFormat, ERROR_NOT_ENOUGH_MEMORY);
  }
  const DWORD length = static_cast<DWORD>(exchange->url_capacity);
  URL_COMPONENTS parts = {};
  parts.dwStructSize = sizeof parts;
  parts.lpszHostName = exchange->host;
  parts.dwHostNameLength = kHostCapacity;
  parts.lpszUrlPath = exchange->path;
  parts.dwUrlPathLength = length;
  if (!WinHttpCrackUrl(exchange->url, length, 0, &parts)) return FailWithLastError(exchange, kFormat);
  exchange->port = parts.nPort;
  exchange->secure = parts.nScheme == INTERNET_SCHEME_HTTPS;
  return kDone;
}

std::int32_t SelectMethod(Exchange* exchange) {
  for (const Method& method : kMethods) {
    if (std::strcmp(exchange->request->method, method.name) != 0) continue;
    exchange->method = method.wide;
    return kDone;
  }
  return Fail("E2021060611:[ZELWREQ] The method not implemented.");
}

std::int32_t OpenSession(Exchange* exchange) {
  if (!WinHttpCheckPlatform()) {
    return FailWithLastError(exchange, "E2021060612:[ZELWREQ] WinHttpCheckPlatform() failed. err=%lu(%s)");
  }
  // A failed call leaves the record cleared, which means: no proxies of the user's own.
  WinHttpGetIEProxyConfigForCurrentUser(&exchange->proxy);
  const wchar_t* agent = exchange->agent != nullptr ? exchange->agent : kDefaultAgent;
  if (exchange->proxy.lpszProxy != nullptr) {
    exchange->session = WinHttpOpen(agent, WINHTTP_ACCESS_TYPE_NAMED_PROXY, exchange->proxy.lpszProxy,
                                    exchange->proxy.lpszProxyBypass, 0);
    if (exchange->session != nullptr) return kDone;
    return FailWithLastError(exchange, "E2021060614:[ZELWREQ] WinHttpOpen() with named proxy failed. err=%lu(%s)");
  }
  exchange->session =
      WinHttpOpen(agent, WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
  if (exchange->session != nullptr) return kDone;
  return FailWithLastError(exchange, "E2021060613:[ZELWREQ] WinHttpOpen() with default proxy failed. err=%lu(%s)");
}

void SetTimeouts(Exchange* exchange) {
  const std::int32_t seconds = exchange->request->timeout_sec;
  if (seconds <= 0) return;
  const int t = seconds > INT_MAX / 1000 ? INT_MAX : seconds * 1000;
  if (WinHttpSetTimeouts(exchange->session, t, t, t, t)) return;
  ReportError(exchange, ZEL_ERR_LEVEL_WARNING, "W2021060603:[ZELWREQ] WinHttpSetTimeouts() failed. err=%lu(%s)",
              GetLastError());
}

std::int32_t OpenRequest(Exchange* exchange) {
  exchange->connection = WinHttpConnect(exchange->session, exchange->host, exchange->port, 0);
  if (exchange->connection == nullptr) {
    return FailWithLastError(exchange, "E2021060615:[ZELWREQ] WinHttpConnect() failed. err=%lu(%s)");
  }
  exchange->handle =
      WinHttpOpenRequest(exchange->connection, exchange->method, exchange->path, nullptr, WINHTTP_NO_REFERER,
                         WINHTTP_DEFAULT_ACCEPT_TYPES, exchange->secure ? WINHTTP_FLAG_SECURE : 0);
  if (exchange->handle != nullptr) return kDone;
  return FailWithLastError(exchange, "E2021060616:[ZELWREQ] WinHttpOpenRequest() failed. err=%lu(%s)");
}

std::int32_t AddHeaders(Exchange* exchange) {
  static constexpr char kFormat[] = "E2021060617:[ZELWREQ] WinHttpAddRequestHeaders() failed. err=%lu(%s)";
  const std::size_t capacity = exchange->longest_header + 2;  // the colon and the terminator
  exchange->line = AllocateWide(capacity);
  if (exchange->line == nullptr) return FailWith(exchange, kFormat, ERROR_NOT_ENOUGH_MEMORY);
  for (std::int32_t i = 0; i < exchange->request->num_headers; ++i) {
    const WreqHeader& header = exchange->request->headers[i];
    // A line break would let a value add headers of its own.
    if (HasLineBreak(header.key) || HasLineBreak(header.value)) {
      return FailWith(exchange, kFormat, ERROR_INVALID_PARAMETER);
    }
    const std::size_t length = FormatHeader(header, exchange->line, capacity);
    if (length == 0 || length > INT_MAX) return FailWith(exchange, kFormat, ERROR_INVALID_PARAMETER);
    if (!WinHttpAddRequestHeaders(exchange->handle, exchange->line, static_cast<DWORD>(length),
                                  WINHTTP_ADDREQ_FLAG_ADD)) {
      return FailWithLastError(exchange, kFormat);
    }
  }
  return kDone;
}

std::int32_t SetCredentials(Exchange* exchange) {
  const WreqBasicCredentials& credentials = exchange->request->auth_basic;
  if (credentials.user_name == nullptr || credentials.user_pass == nullptr) return kDone;
  wchar_t user[kCredentialCapacity];
  if (!Widen(credentials.user_name, user, kCredentialCapacity)) {
    return Fail("E2021060618:[ZELWREQ] mbstowcs() for auth_basic user name failed.");
  }
  wchar_t password[kCredentialCapacity];
  if (!Widen(credentials.user_pass, password, kCredentialCapacity)) {
    return Fail("E2021060619:[ZELWREQ] mbstowcs() for auth_basic user pass failed.");
  }
  if (WinHttpSetCredentials(exchange->handle, WINHTTP_AUTH_TARGET_SERVER, WINHTTP_AUTH_SCHEME_BASIC, user, password,
                            nullptr)) {
    return kDone;
  }
  return FailWithLastError(exchange, "E2021060620:[ZELWREQ] WinHttpSetCredentials() failed. err=%lu(%s)");
}

std::int32_t SendAndReceive(Exchange* exchange) {
  // The platform takes a pointer to writable bytes and only reads them.
  void* body = const_cast<std::uint8_t*>(exchange->request->data);
  const std::int32_t data_len = exchange->request->data_len;
  const DWORD size = body != nullptr && data_len > 0 ? static_cast<DWORD>(data_len) : 0;
  if (!WinHttpSendRequest(exchange->handle, WINHTTP_NO_ADDITIONAL_HEADERS, 0, body, size, size, 0)) {
    return FailWithLastError(exchange, "E2021060621:[ZELWREQ] WinHttpSendRequest() failed. err=%lu(%s)");
  }
  if (!WinHttpReceiveResponse(exchange->handle, nullptr)) {
    return FailWithLastError(exchange, "E2021060622:[ZELWREQ] WinHttpReceiveResponse() failed. err=%lu(%s)");
  }
  return kDone;
}

std::int32_t QueryStatus(Exchange* exchange, DWORD* status) {
  DWORD size = 0;
  if (!WinHttpQueryHeaders(exchange->handle, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX,
                           WINHTTP_NO_OUTPUT_BUFFER, &size, WINHTTP_NO_HEADER_INDEX)) {
    const DWORD error = GetLastError();
    if (error != ERROR_INSUFFICIENT_BUFFER) {
      return FailWith(exchange, "E2021060623:[ZELWREQ] WinHttpQueryHeaders() failed. err=%lu(%s)", error);
    }
  }
  size = sizeof *status;
  if (!WinHttpQueryHeaders(exchange->handle, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                           WINHTTP_HEADER_NAME_BY_INDEX, status, &size, WINHTTP_NO_HEADER_INDEX)) {
    return FailWithLastError(exchange, "E2021060624:[ZELWREQ] WinHttpQueryHeaders() failed. err=%lu(%s)");
  }
  return kDone;
}

std::int32_t Finish(WreqResponse* response, DWORD status, std::uint8_t* data, std::uint32_t size) {
  response->status_code = status;
  response->data = data;
  response->data_size = size;
  return kDone;
}

std::int32_t ReceiveBody(Exchange* exchange, DWORD status) {
  WreqResponse* response = exchange->response;
  if (response->buffer == nullptr || response->buffer_size == 0) return Finish(response, status, nullptr, 0);

  DWORD total = 0;
  for (;;) {
    DWORD available = 0;
    if (!WinHttpQueryDataAvailable(exchange->handle, &available)) {
      return FailWithLastError(exchange, "E2021060625:[ZELWREQ] WinHttpQueryDataAvailable() failed. err=%lu(%s)");
    }
    if (available == 0) {
      response->buffer[total] = 0;
      return Finish(response, status, response->buffer, total);
    }
    if (response->buffer_size - total <= available) return WREQ_EXECUTE_BODY_TOO_BIG;
    DWORD read = 0;
    if (!WinHttpReadData(exchange->handle, response->buffer + total, available, &read)) {
      return FailWithLastError(exchange, "E2021060626:[ZELWREQ] WinHttpReadData() failed. err=%lu(%s)");
    }
    total += read;
  }
}

std::int32_t Run(Exchange* exchange) {
  std::int32_t result = PrepareAgent(exchange);
  if (result == kDone) result = SplitUrl(exchange);
  if (result == kDone) result = SelectMethod(exchange);
  if (result == kDone) result = OpenSession(exchange);
  if (result != kDone) return result;
  SetTimeouts(exchange);
  result = OpenRequest(exchange);
  if (result == kDone) result = AddHeaders(exchange);
  if (result == kDone) result = SetCredentials(exchange);
  if (result == kDone) result = SendAndReceive(exchange);
  DWORD status = 0;
  if (result == kDone) result = QueryStatus(exchange, &status);
  return result == kDone ? ReceiveBody(exchange, status) : result;
}

void Release(Exchange* exchange) {
  if (exchange->handle != nullptr) WinHttpCloseHandle(exchange->handle);
  if (exchange->connection != nullptr) WinHttpCloseHandle(exchange->connection);
  if (exchange->session != nullptr) WinHttpCloseHandle(exchange->session);
  if (exchange->proxy.lpszProxy != nullptr) GlobalFree(exchange->proxy.lpszProxy);
  if (exchange->proxy.lpszProxyBypass != nullptr) GlobalFree(exchange->proxy.lpszProxyBypass);
  if (exchange->proxy.lpszAutoConfigUrl != nullptr) GlobalFree(exchange->proxy.lpszAutoConfigUrl);
  std::free(exchange->agent);
  std::free(exchange->url);
  std::free(exchange->host);
  std::free(exchange->path);
  std::free(exchange->line);
}

}  // namespace

std::int32_t zelWreq_Execute(const WreqRequest* request, WreqResponse* response) {
  Exchange exchange = {};
  exchange.request = request;
  exchange.response = response;
  const std::int32_t result = Run(&exchange);
  Release(&exchange);
  return result;
}

const char* zelWreq_GetWinHttpErrorName(std::uint32_t error) {
  struct ErrorName {
    std::uint32_t error;
    const char* name;
  };
#define ZEL_ERROR_NAME(error) \
  { error, #error }
  static constexpr ErrorName kNames[] = {
      ZEL_ERROR_NAME(ERROR_NOT_ENOUGH_MEMORY),
      ZEL_ERROR_NAME(ERROR_INVALID_PARAMETER),
      ZEL_ERROR_NAME(ERROR_WINHTTP_TIMEOUT),
      ZEL_ERROR_NAME(ERROR_WINHTTP_INTERNAL_ERROR),
      ZEL_ERROR_NAME(ERROR_WINHTTP_INVALID_URL),
      ZEL_ERROR_NAME(ERROR_WINHTTP_UNRECOGNIZED_SCHEME),
      ZEL_ERROR_NAME(ERROR_WINHTTP_NAME_NOT_RESOLVED),
      ZEL_ERROR_NAME(ERROR_WINHTTP_SHUTDOWN),
      ZEL_ERROR_NAME(ERROR_WINHTTP_LOGIN_FAILURE),
      ZEL_ERROR_NAME(ERROR_WINHTTP_OPERATION_CANCELLED),
      ZEL_ERROR_NAME(ERROR_WINHTTP_INCORRECT_HANDLE_TYPE),
      ZEL_ERROR_NAME(ERROR_WINHTTP_INCORRECT_HANDLE_STATE),
      ZEL_ERROR_NAME(ERROR_WINHTTP_CANNOT_CONNECT),
      ZEL_ERROR_NAME(ERROR_WINHTTP_CONNECTION_ERROR),
      ZEL_ERROR_NAME(ERROR_WINHTTP_RESEND_REQUEST),
      ZEL_ERROR_NAME(ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED),
      ZEL_ERROR_NAME(ERROR_WINHTTP_HEADER_NOT_FOUND),
      ZEL_ERROR_NAME(ERROR_WINHTTP_INVALID_SERVER_RESPONSE),
      ZEL_ERROR_NAME(ERROR_WINHTTP_REDIRECT_FAILED),
      ZEL_ERROR_NAME(ERROR_WINHTTP_SECURE_FAILURE),
      ZEL_ERROR_NAME(ERROR_WINHTTP_HEADER_COUNT_EXCEEDED),
      ZEL_ERROR_NAME(ERROR_WINHTTP_HEADER_SIZE_OVERFLOW),
      ZEL_ERROR_NAME(ERROR_WINHTTP_CHUNKED_ENCODING_HEADER_SIZE_OVERFLOW),
      ZEL_ERROR_NAME(ERROR_WINHTTP_RESPONSE_DRAIN_OVERFLOW),
  };
#undef ZEL_ERROR_NAME
  for (const ErrorName& entry : kNames) {
    if (entry.error == error) return entry.name;
  }
  return "unknown";
}

WreqErrorKind zelWreq_ClassifyWinHttpError(std::uint32_t error) {
  switch (error) {
    case ERROR_WINHTTP_TIMEOUT:
    case ERROR_WINHTTP_CANNOT_CONNECT:
      return WREQ_ERROR_CONNECTION;
    case ERROR_WINHTTP_NAME_NOT_RESOLVED:
      return WREQ_ERROR_DNS;
    case ERROR_WINHTTP_OPERATION_CANCELLED:
      return WREQ_ERROR_UNKNOWN;
    case ERROR_WINHTTP_SECURE_CERT_DATE_INVALID:
    case ERROR_WINHTTP_SECURE_CERT_CN_INVALID:
    case ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED:
    case ERROR_WINHTTP_SECURE_INVALID_CA:
    case ERROR_WINHTTP_SECURE_CERT_REV_FAILED:
    case ERROR_WINHTTP_SECURE_CHANNEL_ERROR:
    case ERROR_WINHTTP_SECURE_INVALID_CERT:
    case ERROR_WINHTTP_SECURE_CERT_REVOKED:
    case ERROR_WINHTTP_SECURE_FAILURE:
    case ERROR_WINHTTP_SECURE_CERT_WRONG_USAGE:
    case ERROR_WINHTTP_CLIENT_CERT_NO_PRIVATE_KEY:
    case ERROR_WINHTTP_CLIENT_CERT_NO_ACCESS_PRIVATE_KEY:
      return WREQ_ERROR_SSL;
    default:
      return WREQ_ERROR_INTERNAL;
  }
}

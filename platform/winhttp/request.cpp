#include "request.h"

#include <stdlib.h>
#include <string.h>

#include "proxy.h"
#include "trust_store.h"
#include "url.h"
#include "winhttp.h"

namespace {

constexpr int kMaxRedirects = 10;

bool IsHead(const Request* request) {
  return strcmp(request->verb, "HEAD") == 0;
}

bool HasBody(const Request* request) {
  return request->body_size > 0 || strcmp(request->verb, "POST") == 0 || strcmp(request->verb, "PUT") == 0;
}

bool SetVerb(const Request* request) {
  CURL* easy = request->transfer.easy;
  if (IsHead(request)) return curl_easy_setopt(easy, CURLOPT_NOBODY, 1L) == CURLE_OK;
  const bool post = strcmp(request->verb, "POST") == 0;
  if (curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, post ? nullptr : request->verb) != CURLE_OK) return false;
  if (!HasBody(request)) return curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L) == CURLE_OK;
  const curl_off_t size = request->body_size;
  return curl_easy_setopt(easy, CURLOPT_POST, 1L) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, size) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_POSTFIELDS, size > 0 ? request->body : "") == CURLE_OK;
}

void AppendUrl(TextBuffer* url, const Endpoint* endpoint) {
  zelHttpText_AppendString(url, endpoint->secure ? "https://" : "http://");
  zelHttpText_AppendString(url, endpoint->host);
  zelHttpText_AppendString(url, ":");
  zelHttpText_AppendPort(url, endpoint->port);
  zelHttpText_AppendString(url, endpoint->target);
}

// A plain request through an HTTP proxy names the whole URL; all others only the target.
bool SetDestination(const Request* request, const char* proxy) {
  CURL* easy = request->transfer.easy;
  TextBuffer buffer = {};
  AppendUrl(&buffer, &request->endpoint);
  char* url = zelHttpText_Take(&buffer);
  const bool whole = proxy[0] != '\0' && !request->endpoint.secure && zelHttpText_HasPrefix(proxy, "http", 4);
  const bool ok = url != nullptr && curl_easy_setopt(easy, CURLOPT_URL, url) == CURLE_OK &&
                  curl_easy_setopt(easy, CURLOPT_REQUEST_TARGET, whole ? url : request->endpoint.target) == CURLE_OK;
  free(url);
  return ok;
}

// Null takes them back.
bool SetCredentials(CURL* easy, const char* user, const char* password) {
  return curl_easy_setopt(easy, CURLOPT_HTTPAUTH, CURLAUTH_BASIC) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_USERNAME, user) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_PASSWORD, password) == CURLE_OK;
}

bool SetProxy(CURL* easy, const char* proxy) {
  if (curl_easy_setopt(easy, CURLOPT_PROXY, proxy) != CURLE_OK) return false;
  if (proxy[0] == '\0') return true;
  // Exceptions have been looked at; the tunnel's own head is no response, and the caller's headers are not for the
  // proxy.
  return curl_easy_setopt(easy, CURLOPT_NOPROXY, "") == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_HEADEROPT, static_cast<long>(CURLHEADER_SEPARATE)) == CURLE_OK;
}

bool SetOptions(Request* request, const char* proxy, bool secure) {
  CURL* easy = request->transfer.easy;
  return SetDestination(request, proxy) && SetProxy(easy, proxy) && SetVerb(request) &&
         (request->user == nullptr || SetCredentials(easy, request->user, request->password)) &&
         (!secure || zelHttpTrustStore_Use(&request->transfer)) &&
         curl_easy_setopt(easy, CURLOPT_USERAGENT, request->settings->agent) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_HTTPHEADER, zelHttpHeaderList_Link(&request->headers)) == CURLE_OK;
}

// Sends the request to its endpoint, whole.
DWORD SendHop(Request* request) {
  const Endpoint& endpoint = request->endpoint;
  if (endpoint.host[0] == '\0') return ERROR_WINHTTP_CANNOT_CONNECT;
  if (!zelHttpUrl_IsHost(endpoint.host)) return ERROR_WINHTTP_NAME_NOT_RESOLVED;
  const SessionSettings* settings = request->settings;
  char* proxy = zelHttpProxy_Select(settings->proxy_list, settings->proxy_bypass, endpoint.secure, endpoint.host);
  if (proxy == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
  const bool secure = endpoint.secure || zelHttpText_HasPrefix(proxy, "https", 5);
  const bool valid = zelHttpProxy_IsPortValid(proxy);
  const bool ok = !valid || SetOptions(request, proxy, secure);
  free(proxy);
  if (!ok) return ERROR_NOT_ENOUGH_MEMORY;
  if (!valid) return ERROR_WINHTTP_CANNOT_CONNECT;
  const DWORD error =
      zelHttpTransfer_Start(&request->transfer, &settings->limits, IsHead(request) ? 0 : request->body_size, secure);
  return error != 0 ? error : zelHttpTransfer_AwaitSent(&request->transfer);
}

bool IsRedirect(long status) {
  return (status >= 300 && status <= 303) || status == 307 || status == 308;
}

// What is behind the colon of the first line of a response head from `line` on that has the name; null when there is
// none. Blanks in front of the colon are let pass.
const char* FindValue(const char* line, const char* name) {
  const size_t size = strlen(name);
  while (line != nullptr && *line != '\0') {
    if (zelHttpText_HasPrefix(line, name, size)) {
      const char* colon = line + size + strspn(line + size, " \t");
      if (*colon == ':') return colon + 1;
    }
    // A NUL inside a line ends the search.
    line = strstr(line, "\r\n");
    if (line != nullptr) line += 2;
  }
  return nullptr;
}

// Value of the Location header, null when it is missing or empty.
const char* FindLocation(const char* head, size_t* size) {
  const char* value = FindValue(head, "Location");
  if (value == nullptr) return nullptr;
  value += strspn(value, " \t");
  *size = strcspn(value, "\r");
  while (*size > 0 && (value[*size - 1] == ' ' || value[*size - 1] == '\t'))
    --*size;
  return *size > 0 ? value : nullptr;
}

// Hands the cookies of a redirect to libcurl for the next request to the same origin. libcurl looks cookies up by
// domain, so each gets this host's, in place of one that it may name itself.
DWORD KeepCookies(Request* request) {
  const char* value = request->transfer.head.data;
  while ((value = FindValue(value, "Set-Cookie")) != nullptr) {
    const size_t size = strcspn(value, "\r");
    TextBuffer buffer = {};
    zelHttpText_AppendString(&buffer, "Set-Cookie:");
    zelHttpText_Append(&buffer, value, size);
    zelHttpText_AppendString(&buffer, "; domain=");
    zelHttpText_AppendString(&buffer, request->endpoint.host);
    char* cookie = zelHttpText_Take(&buffer);
    const bool ok =
        cookie != nullptr && curl_easy_setopt(request->transfer.easy, CURLOPT_COOKIELIST, cookie) == CURLE_OK;
    free(cookie);
    if (!ok) return ERROR_NOT_ENOUGH_MEMORY;
    value += size;
  }
  return 0;
}

DWORD MakeEndpoint(const wchar_t* url, Endpoint* endpoint) {
  UrlParts parts;
  DWORD error = zelHttpUrl_Split(url, wcslen(url), &parts);
  if (error != 0) return error;
  endpoint->secure = parts.secure;
  endpoint->port = parts.port;
  endpoint->host = zelHttpText_ToUtf8(parts.host, parts.host_length);
  endpoint->target = zelHttpUrl_MakeTarget(parts.path, parts.path_length, &error);
  if (endpoint->host == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
  return endpoint->target == nullptr ? error : 0;
}

// Where the redirect in the response head leads.
DWORD FindRedirect(const Request* request, Endpoint* next) {
  size_t size = 0;
  const char* location = FindLocation(request->transfer.head.data, &size);
  if (location == nullptr) return ERROR_WINHTTP_HEADER_NOT_FOUND;
  TextBuffer buffer = {};
  AppendUrl(&buffer, &request->endpoint);
  char* base = zelHttpText_Take(&buffer);
  wchar_t* url = nullptr;
  DWORD error = base != nullptr ? zelHttpUrl_Resolve(base, location, size, &url) : ERROR_NOT_ENOUGH_MEMORY;
  if (error == 0) error = MakeEndpoint(url, next);
  free(base);
  free(url);
  if (error == 0 && request->endpoint.secure && !next->secure) error = ERROR_WINHTTP_REDIRECT_FAILED;
  return error;
}

// What was meant for one origin stays there.
void ForgetSecrets(Request* request) {
  static const char* const kHeaders[] = {"Authorization", "Cookie", "Proxy-Authorization", "Host"};
  for (const char* header : kHeaders)
    zelHttpHeaderList_Remove(&request->headers, header);
  free(request->user);
  free(request->password);
  request->user = request->password = nullptr;
  SetCredentials(request->transfer.easy, nullptr, nullptr);
  curl_easy_setopt(request->transfer.easy, CURLOPT_COOKIELIST, "ALL");
}

bool IsSameOrigin(const Endpoint* a, const Endpoint* b) {
  return a->secure == b->secure && a->port == b->port && zelHttpText_Equal(a->host, b->host);
}

DWORD BecomeGet(Request* request) {
  static const char* const kHeaders[] = {"Content-Length", "Content-Type", "Transfer-Encoding"};
  for (const char* header : kHeaders)
    zelHttpHeaderList_Remove(&request->headers, header);
  request->body = nullptr;
  request->body_size = 0;
  char* verb = strdup("GET");
  if (verb == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
  free(request->verb);
  request->verb = verb;
  return 0;
}

DWORD Redirect(Request* request, long status) {
  Endpoint next = {};
  DWORD error = FindRedirect(request, &next);
  if (error == 0) {
    if (IsSameOrigin(&request->endpoint, &next)) {
      error = KeepCookies(request);
    } else {
      ForgetSecrets(request);
    }
  }
  if (error != 0) {
    zelHttpEndpoint_Free(&next);
    return error;
  }
  zelHttpEndpoint_Free(&request->endpoint);
  request->endpoint = next;
  const bool post = strcmp(request->verb, "POST") == 0;
  if ((post && status <= 303) || (!IsHead(request) && status == 303)) return BecomeGet(request);
  return 0;
}

}  // namespace

void zelHttpEndpoint_Free(Endpoint* endpoint) {
  free(endpoint->host);
  free(endpoint->target);
  *endpoint = {};
}

DWORD zelHttpRequest_Send(Request* request) {
  // The credentials take the place of the caller's own header.
  if (request->user != nullptr) zelHttpHeaderList_Remove(&request->headers, "Authorization");
  DWORD error = request->transfer.easy == nullptr ? zelHttpTransfer_Open(&request->transfer) : 0;
  if (error == 0) error = SendHop(request);
  if (error == 0) request->state = REQUEST_SENT;
  return error;
}

DWORD zelHttpRequest_Receive(Request* request) {
  if (request->state != REQUEST_SENT) return ERROR_WINHTTP_INCORRECT_HANDLE_STATE;
  for (int redirects = 0;; ++redirects) {
    DWORD error = zelHttpTransfer_AwaitHead(&request->transfer);
    if (error != 0) return error;
    const long status = request->transfer.status;
    if (!IsRedirect(status)) break;
    if (redirects == kMaxRedirects) return ERROR_WINHTTP_REDIRECT_FAILED;
    error = Redirect(request, status);
    if (error == 0) error = SendHop(request);
    if (error != 0) return error;
  }
  request->state = REQUEST_RECEIVED;
  return 0;
}

void zelHttpRequest_Free(Request* request) {
  zelHttpTransfer_Close(&request->transfer);
  zelHttpEndpoint_Free(&request->endpoint);
  zelHttpHeaderList_Free(&request->headers);
  free(request->verb);
  free(request->user);
  free(request->password);
  *request = {};
}

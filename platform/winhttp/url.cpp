#include "url.h"

#include <curl/curl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "text.h"
#include "winhttp.h"

namespace {

bool HasPrefix(const wchar_t* text, size_t length, const wchar_t* lower_case_prefix) {
  const size_t size = wcslen(lower_case_prefix);
  if (length < size) return false;
  for (size_t i = 0; i < size; ++i) {
    const wchar_t c = text[i] >= L'A' && text[i] <= L'Z' ? text[i] - L'A' + L'a' : text[i];
    if (c != lower_case_prefix[i]) return false;
  }
  return true;
}

const wchar_t* Find(const wchar_t* begin, const wchar_t* end, wchar_t wanted) {
  while (begin < end && *begin != wanted)
    ++begin;
  return begin;
}

// Digits up to the first other character; nothing and 0 stand for the default.
bool ReadPort(const wchar_t* digits, const wchar_t* end, unsigned short* port) {
  unsigned value = 0;
  for (; digits < end && *digits >= L'0' && *digits <= L'9'; ++digits) {
    value = value * 10 + static_cast<unsigned>(*digits - L'0');
    if (value > 65535) return false;
  }
  if (value != 0) *port = static_cast<unsigned short>(value);
  return true;
}

bool SplitAuthority(const wchar_t* begin, const wchar_t* end, UrlParts* parts) {
  const wchar_t* at = Find(begin, end, L'@');
  if (at < end) begin = at + 1;
  const wchar_t* host_end = Find(begin, end, L':');
  if (begin < end && *begin == L'[') {
    host_end = Find(begin, end, L']');
    if (host_end == end) return false;
    ++host_end;
    if (host_end < end && *host_end != L':') return false;
  }
  parts->host = begin;
  parts->host_length = static_cast<size_t>(host_end - begin);
  return host_end == end || ReadPort(host_end + 1, end, &parts->port);
}

bool MustEscape(unsigned byte) {
  return byte <= 0x20 || byte == '#' || byte >= 0x7F;
}

// Writes a byte as it is or as %XX; returns the end.
char* PutEscaped(char* out, unsigned byte) {
  static const char kDigits[] = "0123456789ABCDEF";
  if (!MustEscape(byte)) {
    *out++ = static_cast<char>(byte);
    return out;
  }
  *out++ = '%';
  *out++ = kDigits[byte >> 4];
  *out++ = kDigits[byte & 15];
  return out;
}

// A Location as the URL functions take it: nothing that they would refuse or read in another way.
char* EscapeLocation(const char* location, size_t size) {
  char* escaped = size < SIZE_MAX / 4 ? static_cast<char*>(malloc(3 * size + 1)) : nullptr;
  if (escaped == nullptr) return nullptr;
  char* out = escaped;
  for (size_t i = 0; i < size; ++i)
    out = PutEscaped(out, static_cast<unsigned char>(location[i]));
  *out = '\0';
  return escaped;
}

DWORD ErrorOfUrlCode(CURLUcode code) {
  if (code == CURLUE_OK) return 0;
  if (code == CURLUE_OUT_OF_MEMORY) return ERROR_NOT_ENOUGH_MEMORY;
  return code == CURLUE_UNSUPPORTED_SCHEME ? ERROR_WINHTTP_UNRECOGNIZED_SCHEME : ERROR_WINHTTP_INVALID_URL;
}

}  // namespace

DWORD zelHttpUrl_Split(const wchar_t* url, size_t length, UrlParts* parts) {
  const bool secure = HasPrefix(url, length, L"https:");
  if (!secure && !HasPrefix(url, length, L"http:")) return ERROR_WINHTTP_UNRECOGNIZED_SCHEME;
  const wchar_t* end = url + length;
  url += secure ? 6 : 5;
  if (end - url < 3 || url[0] != L'/' || url[1] != L'/') return ERROR_WINHTTP_INVALID_URL;
  url += 2;

  const wchar_t* path = url;
  while (path < end && *path != L'/' && *path != L'?' && *path != L'#')
    ++path;
  parts->secure = secure;
  parts->port = secure ? INTERNET_DEFAULT_HTTPS_PORT : INTERNET_DEFAULT_HTTP_PORT;
  parts->path = path;
  parts->path_length = static_cast<size_t>(end - path);
  return SplitAuthority(url, path, parts) ? 0 : ERROR_WINHTTP_INVALID_URL;
}

char* zelHttpUrl_MakeTarget(const wchar_t* path, size_t length, DWORD* error) {
  *error = ERROR_NOT_ENOUGH_MEMORY;
  if (length >= SIZE_MAX / 4) return nullptr;
  char* target = static_cast<char*>(malloc(3 * length + 2));
  if (target == nullptr) return nullptr;
  char* out = target;
  if (length == 0 || path[0] != L'/') *out++ = '/';
  for (size_t i = 0; i < length; ++i) {
    if (static_cast<unsigned>(path[i]) > 0xFF) {
      free(target);
      *error = ERROR_INVALID_PARAMETER;
      return nullptr;
    }
    out = PutEscaped(out, static_cast<unsigned>(path[i]));
  }
  *out = '\0';
  return target;
}

bool zelHttpUrl_IsHost(const char* host) {
  static const char kName[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
  static const char kLiteral[] = "0123456789ABCDEFabcdef:.";
  if (host[0] != '[') return host[0] != '\0' && host[strspn(host, kName)] == '\0';
  const size_t length = strspn(host + 1, kLiteral);
  return length > 0 && strcmp(host + 1 + length, "]") == 0;
}

DWORD zelHttpUrl_Resolve(const char* base, const char* location, size_t size, wchar_t** url) {
  const void* fragment = memchr(location, '#', size);
  if (fragment != nullptr) size = static_cast<size_t>(static_cast<const char*>(fragment) - location);
  if (size == 0) {  // the same document, its query included
    *url = zelHttpText_Widen(base);
    return *url != nullptr ? 0 : ERROR_NOT_ENOUGH_MEMORY;
  }
  char* reference = EscapeLocation(location, size);
  CURLU* parts = curl_url();
  char* text = nullptr;
  CURLUcode code = parts != nullptr && reference != nullptr ? CURLUE_OK : CURLUE_OUT_OF_MEMORY;
  if (code == CURLUE_OK) code = curl_url_set(parts, CURLUPART_URL, base, 0);
  if (code == CURLUE_OK) code = curl_url_set(parts, CURLUPART_URL, reference, 0);
  if (code == CURLUE_OK) code = curl_url_get(parts, CURLUPART_URL, &text, 0);
  *url = code == CURLUE_OK ? zelHttpText_Widen(text) : nullptr;
  if (code == CURLUE_OK && *url == nullptr) code = CURLUE_OUT_OF_MEMORY;
  curl_free(text);
  curl_url_cleanup(parts);
  free(reference);
  return ErrorOfUrlCode(code);
}

// URLs of requests: splitting, the request target on the wire, and where a redirect leads.
#pragma once

#include <stddef.h>

#include "windows.h"

// Views into the split text.
struct UrlParts {
  bool secure;
  unsigned short port;  // the scheme's own when none is written
  const wchar_t* host;  // without user information; an IPv6 literal keeps its brackets
  size_t host_length;
  const wchar_t* path;  // path, query and fragment as written; may be empty or begin with '?'
  size_t path_length;
};

// Splits `length` units of an absolute http or https URL: 0, ERROR_WINHTTP_UNRECOGNIZED_SCHEME or
// ERROR_WINHTTP_INVALID_URL.
DWORD zelHttpUrl_Split(const wchar_t* url, size_t length, UrlParts* parts);

// The request target of a path: begins with '/'; what cannot stand in a request line (blanks, control bytes, '#', bytes
// above 127) becomes %XX, everything else stays. Malloc'ed; null with ERROR_NOT_ENOUGH_MEMORY or, for a unit that is no
// byte, ERROR_INVALID_PARAMETER in `error`.
char* zelHttpUrl_MakeTarget(const wchar_t* path, size_t length, DWORD* error);

// Whether the text can be a host: letters, digits, "-._~", or something in brackets. Anything else names no host.
bool zelHttpUrl_IsHost(const char* host);

// The absolute URL that a Location value of `size` bytes means behind `base`, without fragment, malloc'ed into `url`:
// 0, or an error number and null.
DWORD zelHttpUrl_Resolve(const char* base, const char* location, size_t size, wchar_t** url);

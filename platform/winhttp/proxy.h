// Proxy settings: from the environment, and which proxy one exchange uses.
#pragma once

#include <wchar.h>

// Proxy list and bypass list of the environment's http_proxy, https_proxy, all_proxy and no_proxy, malloc'ed, each null
// when there is nothing. HTTP_PROXY is not read: a CGI client could set it. False, and both null, when memory ran out.
bool zelHttpProxy_ReadEnvironment(wchar_t** list, wchar_t** bypass);

// The proxy for a host as a URL ("http://" unless the entry names a scheme, this machine if it is a port alone), or ""
// for a direct connection. `list` and `bypass` may be null. Malloc'ed; null when memory ran out.
char* zelHttpProxy_Select(const char* list, const char* bypass, bool secure, const char* host);

// Whether the port of what Select gave, if it has one, is a number that a port can have.
bool zelHttpProxy_IsPortValid(const char* proxy);

// The caller's request headers in libcurl's form. Nodes are the list's own; libcurl only reads them.
#pragma once

#include <curl/curl.h>

#include "windows.h"

struct HeaderNode;

// All zero is an empty list.
struct HeaderList {
  HeaderNode* first;
  HeaderNode* last;
};

// Adds "Key:Value" of `length` units, leading blanks of the value dropped: 0, ERROR_WINHTTP_INVALID_HEADER for a key
// that is no token, ERROR_INVALID_PARAMETER for CR, LF or NUL, ERROR_NOT_ENOUGH_MEMORY.
DWORD zelHttpHeaderList_Add(HeaderList* list, const wchar_t* line, size_t length);

// Removes every header with this key, whatever its case.
void zelHttpHeaderList_Remove(HeaderList* list, const char* key);

// The list as CURLOPT_HTTPHEADER takes it, with what keeps libcurl from adding headers of its own behind it. Valid
// until the list changes; never null.
curl_slist* zelHttpHeaderList_Link(HeaderList* list);

void zelHttpHeaderList_Free(HeaderList* list);

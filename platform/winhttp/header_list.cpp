#include "header_list.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "text.h"
#include "winhttp.h"

// One allocation per header; the line's text lies behind the record.
struct HeaderNode {
  curl_slist entry;  // what libcurl walks
  HeaderNode* next;  // what the list walks
  size_t key_length;
};

namespace {

// A name without a value keeps libcurl from inventing that header and is not sent itself; behind a caller's own header
// of the name it has no effect.
char keep_alive[] = "Connection: Keep-Alive";
char no_accept[] = "Accept:";
char no_content_type[] = "Content-Type:";
char no_expect[] = "Expect:";
char no_proxy_connection[] = "Proxy-Connection:";
curl_slist no_defaults[] = {{no_accept, &no_defaults[1]},
                            {no_content_type, &no_defaults[2]},
                            {no_expect, &no_defaults[3]},
                            {no_proxy_connection, nullptr}};
curl_slist keep_alive_and_no_defaults = {keep_alive, no_defaults};

bool IsToken(wchar_t unit) {
  if ((unit >= L'0' && unit <= L'9') || (unit >= L'A' && unit <= L'Z') || (unit >= L'a' && unit <= L'z')) return true;
  return unit > 0 && unit < 0x80 && strchr("!#$%&'*+-.^_`|~", static_cast<int>(unit)) != nullptr;
}

bool HasKey(const HeaderNode* node, const char* key) {
  return node->key_length == strlen(key) && zelHttpText_HasPrefix(node->entry.data, key, node->key_length);
}

void Append(HeaderList* list, HeaderNode* node) {
  if (list->last == nullptr) {
    list->first = node;
  } else {
    list->last->next = node;
    list->last->entry.next = &node->entry;
  }
  list->last = node;
}

HeaderNode* MakeNode(const wchar_t* line, size_t key_length, const wchar_t* value, size_t value_length) {
  // At most four bytes of UTF-8 a unit, a blank behind the colon and the terminator.
  if (value_length > SIZE_MAX / 8 || key_length > SIZE_MAX / 8) return nullptr;
  HeaderNode* node = static_cast<HeaderNode*>(malloc(sizeof(HeaderNode) + key_length + 4 * value_length + 3));
  if (node == nullptr) return nullptr;
  char* out = reinterpret_cast<char*>(node + 1);
  *node = {{out, nullptr}, nullptr, key_length};
  out += zelHttpText_PutUtf8(out, line, key_length);
  // "Key;" is how libcurl is told to send a header without a value.
  *out++ = value_length == 0 ? ';' : ':';
  if (value_length > 0) *out++ = ' ';
  out += zelHttpText_PutUtf8(out, value, value_length);
  *out = '\0';
  return node;
}

}  // namespace

DWORD zelHttpHeaderList_Add(HeaderList* list, const wchar_t* line, size_t length) {
  size_t key_length = 0;
  while (key_length < length && IsToken(line[key_length]))
    ++key_length;
  for (size_t i = key_length; i < length; ++i) {
    if (line[i] == L'\r' || line[i] == L'\n' || line[i] == L'\0') return ERROR_INVALID_PARAMETER;
  }
  if (key_length == 0 || key_length == length || line[key_length] != L':') return ERROR_WINHTTP_INVALID_HEADER;
  size_t value = key_length + 1;
  while (value < length && line[value] == L' ')
    ++value;
  // libcurl would drop a header whose value is nothing but blanks: it is sent as an empty one.
  size_t visible = value;
  while (visible < length && wcschr(L" \t\v\f", line[visible]) != nullptr)
    ++visible;
  if (visible == length) value = length;

  HeaderNode* node = MakeNode(line, key_length, line + value, length - value);
  if (node == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
  Append(list, node);
  return 0;
}

void zelHttpHeaderList_Remove(HeaderList* list, const char* key) {
  HeaderNode* node = list->first;
  *list = {};
  while (node != nullptr) {
    HeaderNode* next = node->next;
    node->next = nullptr;
    if (HasKey(node, key)) {
      free(node);
    } else {
      Append(list, node);
    }
    node = next;
  }
}

curl_slist* zelHttpHeaderList_Link(HeaderList* list) {
  curl_slist* tail = &keep_alive_and_no_defaults;
  for (const HeaderNode* node = list->first; node != nullptr; node = node->next) {
    if (HasKey(node, "Connection")) tail = no_defaults;
  }
  if (list->first == nullptr) return tail;
  list->last->entry.next = tail;
  return &list->first->entry;
}

void zelHttpHeaderList_Free(HeaderList* list) {
  for (HeaderNode* node = list->first; node != nullptr;) {
    HeaderNode* next = node->next;
    free(node);
    node = next;
  }
  *list = {};
}

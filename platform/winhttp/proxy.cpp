#include "proxy.h"

#include <stdlib.h>
#include <string.h>

#include "text.h"

namespace {

constexpr char kSeparators[] = "; \t\r\n";
constexpr char kBlanks[] = " \t\r\n";

// Value of a variable from its first visible byte on, null when there is none.
const char* Variable(const char* name, const char* other_name = nullptr) {
  const char* value = getenv(name);
  if (value != nullptr) value += strspn(value, kBlanks);
  if (value != nullptr && *value != '\0') return value;
  return other_name != nullptr ? Variable(other_name) : nullptr;
}

// A proxy without the blanks behind it. Inside, separators and bytes above 127 become %XX: the same in user name and
// password, and nothing that resolves in a host, so that a malformed proxy fails the exchange and is never gone past.
void AppendEntry(TextBuffer* list, const char* scheme, const char* proxy) {
  if (proxy == nullptr) return;
  size_t size = strlen(proxy);
  while (strchr(kBlanks, proxy[size - 1]) != nullptr)
    --size;
  if (list->size > 0) zelHttpText_AppendString(list, ";");
  zelHttpText_AppendString(list, scheme);
  for (const char* end = proxy + size; proxy < end; ++proxy) {
    const unsigned byte = static_cast<unsigned char>(*proxy);
    if (byte < 0x80 && strchr(kSeparators, *proxy) == nullptr) {
      zelHttpText_Append(list, proxy, 1);
    } else {
      const char escaped[] = {'%', "0123456789ABCDEF"[byte >> 4], "0123456789ABCDEF"[byte & 15]};
      zelHttpText_Append(list, escaped, sizeof escaped);
    }
  }
}

// Two colons at least: one may stand in front of a port.
bool IsIpv6Address(const char* name, size_t size) {
  size_t colons = 0;
  for (size_t i = 0; i < size; ++i)
    colons += name[i] == ':' ? 1 : 0;
  return colons > 1;
}

// "name", ".name" and "*.name" of the environment mean the host and everything below it.
void AppendException(TextBuffer* list, const char* name, size_t size) {
  if (size > 0 && name[0] == '*') ++name, --size;
  if (size > 0 && name[0] == '.') ++name, --size;
  if (size == 0) return;
  if (list->size > 0) zelHttpText_AppendString(list, ";");
  if (IsIpv6Address(name, size)) {  // as hosts of URLs are written
    const bool bare = name[0] != '[';
    if (bare) zelHttpText_AppendString(list, "[");
    zelHttpText_Append(list, name, size);
    if (bare) zelHttpText_AppendString(list, "]");
    return;
  }
  zelHttpText_Append(list, name, size);
  zelHttpText_AppendString(list, ";*.");
  zelHttpText_Append(list, name, size);
}

// Null for an empty text; false when memory ran out.
bool TakeWide(TextBuffer* buffer, wchar_t** wide) {
  *wide = buffer->size > 0 && !buffer->failed ? zelHttpText_Widen(buffer->data) : nullptr;
  const bool ok = !buffer->failed && (*wide != nullptr || buffer->size == 0);
  zelHttpText_Free(buffer);
  return ok;
}

// Whether a bypass entry covers the host: a name, "*.suffix", or "<local>" for names without a dot.
bool Covers(const char* entry, size_t size, const char* host) {
  const size_t host_size = strlen(host);
  if (size == 7 && zelHttpText_HasPrefix(entry, "<local>", 7)) return strchr(host, '.') == nullptr && host[0] != '[';
  if (size > 1 && entry[0] == '*' && entry[1] == '.') {
    const size_t suffix = size - 1;
    return host_size > suffix && zelHttpText_HasPrefix(host + host_size - suffix, entry + 1, suffix);
  }
  return host_size == size && zelHttpText_HasPrefix(host, entry, size);
}

bool IsBypassed(const char* bypass, const char* host) {
  for (const char* entry = bypass; entry != nullptr && *entry != '\0';) {
    entry += strspn(entry, kSeparators);
    const size_t size = strcspn(entry, kSeparators);
    if (size > 0 && Covers(entry, size, host)) return true;
    entry += size;
  }
  return false;
}

// The part of an entry behind "scheme=", null when the entry is for another scheme.
const char* EntryFor(const char* entry, size_t* size, bool secure) {
  size_t letters = 0;
  while (letters < *size && ((entry[letters] | 0x20) >= 'a' && (entry[letters] | 0x20) <= 'z'))
    ++letters;
  if (letters == *size || entry[letters] != '=') return entry;
  const char* wanted = secure ? "https" : "http";
  if (letters != strlen(wanted) || !zelHttpText_HasPrefix(entry, wanted, letters)) return nullptr;
  *size -= letters + 1;
  return entry + letters + 1;
}

bool HasScheme(const char* entry, size_t size) {
  for (size_t i = 0; i + 2 < size; ++i) {
    if (entry[i] == ':' && entry[i + 1] == '/' && entry[i + 2] == '/') return true;
  }
  return false;
}

}  // namespace

bool zelHttpProxy_ReadEnvironment(wchar_t** list, wchar_t** bypass) {
  *list = *bypass = nullptr;
  const char* any = Variable("all_proxy", "ALL_PROXY");
  const char* http = Variable("http_proxy");
  const char* https = Variable("https_proxy", "HTTPS_PROXY");
  if (any == nullptr && http == nullptr && https == nullptr) return true;
  const char* exceptions = Variable("no_proxy", "NO_PROXY");
  if (exceptions != nullptr && strcmp(exceptions, "*") == 0) return true;
  TextBuffer proxies = {};
  AppendEntry(&proxies, "http=", http != nullptr ? http : any);
  AppendEntry(&proxies, "https=", https != nullptr ? https : any);
  if (!TakeWide(&proxies, list)) return false;
  if (*list == nullptr || exceptions == nullptr) return true;

  TextBuffer names = {};
  while (*exceptions != '\0') {
    exceptions += strspn(exceptions, ", \t");
    const size_t size = strcspn(exceptions, ", \t");
    AppendException(&names, exceptions, size);
    exceptions += size;
  }
  if (TakeWide(&names, bypass)) return true;
  free(*list);
  *list = nullptr;
  return false;
}

char* zelHttpProxy_Select(const char* list, const char* bypass, bool secure, const char* host) {
  TextBuffer proxy = {};
  for (const char* entry = list; entry != nullptr && *entry != '\0' && proxy.size == 0;) {
    entry += strspn(entry, kSeparators);
    const size_t entry_size = strcspn(entry, kSeparators);
    size_t size = entry_size;
    const char* server = EntryFor(entry, &size, secure);
    if (server != nullptr && size > 0 && !IsBypassed(bypass, host)) {
      if (!HasScheme(server, size)) zelHttpText_AppendString(&proxy, "http://");
      // A port alone is one of this machine.
      if (*server == ':' && 1 + strspn(server + 1, "0123456789") >= size) zelHttpText_AppendString(&proxy, "127.0.0.1");
      zelHttpText_Append(&proxy, server, size);
    }
    entry += entry_size;
  }
  return zelHttpText_Take(&proxy);
}

bool zelHttpProxy_IsPortValid(const char* proxy) {
  if (*proxy == '\0') return true;
  const char* host = strstr(proxy, "://") + 3;
  const char* end = host + strcspn(host, "/?#");
  const char* port = nullptr;
  for (; host < end; ++host) {
    if (*host == ':') port = host + 1;
    if (*host == '@' || *host == ']') port = nullptr;  // it was a password, or a part of an address
  }
  return port == nullptr || (port + strspn(port, "0123456789") == end && strtoul(port, nullptr, 10) <= 65535);
}

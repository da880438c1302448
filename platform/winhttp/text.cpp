#include "text.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

namespace {

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool Reserve(TextBuffer* buffer, size_t extra) {
  if (buffer->failed || extra >= SIZE_MAX / 4 - buffer->size) return false;
  const size_t needed = buffer->size + extra + 1;
  if (buffer->data != nullptr && needed <= buffer->capacity) return true;
  const size_t capacity = needed < 128 ? 128 : 2 * needed;
  char* data = static_cast<char*>(realloc(buffer->data, capacity));
  if (data == nullptr) return false;
  buffer->data = data;
  buffer->capacity = capacity;
  return true;
}

size_t EncodeUtf8(uint32_t point, char* bytes) {
  if (point > 0x10FFFF) point = 0xFFFD;
  if (point < 0x80) {
    bytes[0] = static_cast<char>(point);
    return 1;
  }
  const size_t count = point < 0x800 ? 2 : point < 0x10000 ? 3 : 4;
  static const unsigned kLead[] = {0, 0, 0xC0, 0xE0, 0xF0};
  for (size_t i = count - 1; i > 0; --i) {
    bytes[i] = static_cast<char>(0x80 | (point & 0x3F));
    point >>= 6;
  }
  bytes[0] = static_cast<char>(kLead[count] | point);
  return count;
}

}  // namespace

void zelHttpText_Append(TextBuffer* buffer, const char* text, size_t size) {
  if (!Reserve(buffer, size)) {
    buffer->failed = true;
    return;
  }
  memcpy(buffer->data + buffer->size, text, size);
  buffer->size += size;
  buffer->data[buffer->size] = '\0';
}

void zelHttpText_AppendString(TextBuffer* buffer, const char* text) {
  zelHttpText_Append(buffer, text, strlen(text));
}

void zelHttpText_AppendPort(TextBuffer* buffer, unsigned port) {
  char digits[10];
  size_t first = sizeof digits;
  do {
    digits[--first] = static_cast<char>('0' + port % 10);
    port /= 10;
  } while (port != 0);
  zelHttpText_Append(buffer, digits + first, sizeof digits - first);
}

void zelHttpText_Free(TextBuffer* buffer) {
  free(buffer->data);
  *buffer = {};
}

char* zelHttpText_Take(TextBuffer* buffer) {
  if (buffer->data == nullptr) zelHttpText_Append(buffer, "", 0);
  char* text = nullptr;
  if (!buffer->failed) {
    text = buffer->data;
    buffer->data = nullptr;
  }
  zelHttpText_Free(buffer);
  return text;
}

size_t zelHttpText_PutUtf8(char* bytes, const wchar_t* text, size_t length) {
  uint32_t bits = 0;
  for (size_t i = 0; i < length; ++i)
    bits |= static_cast<uint32_t>(text[i]);
  if (bits < 0x80) {  // loops without branches, for the usual text
    for (size_t i = 0; i < length; ++i)
      bytes[i] = static_cast<char>(text[i]);
    return length;
  }
  size_t size = 0;
  for (size_t i = 0; i < length; ++i)
    size += EncodeUtf8(static_cast<uint32_t>(text[i]), bytes + size);
  return size;
}

char* zelHttpText_ToUtf8(const wchar_t* text, size_t length) {
  if (length >= SIZE_MAX / 8) return nullptr;
  char* bytes = static_cast<char*>(malloc(4 * length + 1));
  if (bytes != nullptr) bytes[zelHttpText_PutUtf8(bytes, text, length)] = '\0';
  return bytes;
}

wchar_t* zelHttpText_Widen(const char* text) {
  const size_t size = strlen(text) + 1;
  if (size > SIZE_MAX / sizeof(wchar_t)) return nullptr;
  wchar_t* wide = static_cast<wchar_t*>(malloc(size * sizeof(wchar_t)));
  for (size_t i = 0; wide != nullptr && i < size; ++i)
    wide[i] = static_cast<unsigned char>(text[i]);
  return wide;
}

bool zelHttpText_HasPrefix(const char* text, const char* prefix, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    if (Lower(text[i]) != Lower(prefix[i]) || text[i] == '\0') return false;
  }
  return true;
}

bool zelHttpText_Equal(const char* a, const char* b) {
  const size_t size = strlen(b);
  return zelHttpText_HasPrefix(a, b, size) && a[size] == '\0';
}

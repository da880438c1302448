// Bounded text helpers of the layer. All memory comes from malloc; a failed allocation is remembered in the buffer, so
// a caller appends freely and looks once at the end.
#pragma once

#include <stddef.h>
#include <wchar.h>

// Growing NUL-terminated bytes; all zero is an empty one.
struct TextBuffer {
  char* data;       // null while nothing was ever appended
  size_t size;      // bytes, terminator not counted
  size_t capacity;  // bytes allocated
  bool failed;      // memory ran out; the text is incomplete
};

void zelHttpText_Append(TextBuffer* buffer, const char* text, size_t size);
void zelHttpText_AppendString(TextBuffer* buffer, const char* text);
void zelHttpText_AppendPort(TextBuffer* buffer, unsigned port);  // decimal
void zelHttpText_Free(TextBuffer* buffer);

// Hands the text to the caller, who frees it; null, and nothing to free, when memory ran out.
char* zelHttpText_Take(TextBuffer* buffer);

// Writes `length` code points as UTF-8, at most four bytes each, without terminator; returns the number of bytes.
size_t zelHttpText_PutUtf8(char* bytes, const wchar_t* text, size_t length);

// A malloc'ed copy as UTF-8 of `length` code points; null when memory ran out.
char* zelHttpText_ToUtf8(const wchar_t* text, size_t length);

// A malloc'ed copy with each byte widened to the code unit of the same value; null when memory ran out.
wchar_t* zelHttpText_Widen(const char* text);

// Comparison without regard to ASCII case of `size` bytes; `text` may end early, which is a difference.
bool zelHttpText_HasPrefix(const char* text, const char* prefix, size_t size);
bool zelHttpText_Equal(const char* a, const char* b);

// The few names of the Windows headers that winhttp.h and its caller use, with the same values and meanings.
//
// Thread rule: the last error belongs to the calling thread.
#pragma once

#include <stdint.h>
#include <wchar.h>

typedef int BOOL;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef uintptr_t DWORD_PTR;
typedef DWORD* LPDWORD;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef void* HGLOBAL;
typedef wchar_t WCHAR;  // one code unit; text that comes in as bytes carries one byte in each
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;

#define FALSE 0
#define TRUE 1

#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_INSUFFICIENT_BUFFER 122u

// Error number of the thread's last failed call; a successful call leaves it alone.
DWORD GetLastError(void);
void SetLastError(DWORD error);

// Releases memory that a call left to the caller; null is allowed. Returns null.
HGLOBAL GlobalFree(HGLOBAL memory);

// The WinHTTP operations that one synchronous HTTP or HTTPS exchange needs, for systems without WinHTTP: the same
// names, signatures, constants and error numbers, on libcurl.
//
// Conventions:
//  1. A call returns FALSE, or null for a handle, after a failure; GetLastError then tells the number.
//  2. A handle belongs to one thread at a time. Different exchanges may run on different threads at once.
//  3. Handles are closed children first: request, connection, session. A parent outlives its children.
//  4. Text given to a call is copied. A code unit 0x80..0xFF of a URL stands for that one byte; everywhere else
//     it leaves as UTF-8.
//  5. Only what the signatures' comments name is supported; other options fail with ERROR_INVALID_PARAMETER.
//
// What an exchange does: one connection, never reused; HTTP/1.1; TLS 1.2 or later with certificate and host name always
// verified against the system's certificates (SSL_CERT_FILE and SSL_CERT_DIR override where they are); at most ten
// redirects, none from https to http, and neither Authorization nor cookies nor credentials to another origin; no
// signal ever reaches the process. Each of resolve, connect (TLS and proxy included), send and receive (head and body)
// ends at a deadline counted from its start, whatever trickles or floods in.
//
// What fails here though it passes elsewhere: with 12152 a head that is cut off behind its status line, a status that
// is no number, and a Content-Length that is none or negative; with 12030 a body shorter than announced, and one in
// chunks whose last line end is missing. A Content-Length with blanks in front of its colon is not seen.
#pragma once

#include "windows.h"

typedef LPVOID HINTERNET;
typedef WORD INTERNET_PORT;
typedef int INTERNET_SCHEME;

#define INTERNET_DEFAULT_PORT 0
#define INTERNET_DEFAULT_HTTP_PORT 80
#define INTERNET_DEFAULT_HTTPS_PORT 443
#define INTERNET_SCHEME_HTTP 1
#define INTERNET_SCHEME_HTTPS 2

#define WINHTTP_ACCESS_TYPE_DEFAULT_PROXY 0u
#define WINHTTP_ACCESS_TYPE_NAMED_PROXY 3u
#define WINHTTP_NO_PROXY_NAME nullptr
#define WINHTTP_NO_PROXY_BYPASS nullptr
#define WINHTTP_NO_REFERER nullptr
#define WINHTTP_DEFAULT_ACCEPT_TYPES nullptr
#define WINHTTP_NO_ADDITIONAL_HEADERS nullptr
#define WINHTTP_NO_HEADER_INDEX nullptr
#define WINHTTP_HEADER_NAME_BY_INDEX nullptr
#define WINHTTP_NO_OUTPUT_BUFFER nullptr

#define WINHTTP_FLAG_SECURE 0x00800000u
#define WINHTTP_ADDREQ_FLAG_ADD 0x20000000u
#define WINHTTP_AUTH_TARGET_SERVER 0u
#define WINHTTP_AUTH_SCHEME_BASIC 1u
#define WINHTTP_QUERY_STATUS_CODE 19u
#define WINHTTP_QUERY_RAW_HEADERS_CRLF 22u
#define WINHTTP_QUERY_FLAG_NUMBER 0x20000000u

#define ERROR_WINHTTP_TIMEOUT 12002u
#define ERROR_WINHTTP_INTERNAL_ERROR 12004u
#define ERROR_WINHTTP_INVALID_URL 12005u
#define ERROR_WINHTTP_UNRECOGNIZED_SCHEME 12006u
#define ERROR_WINHTTP_NAME_NOT_RESOLVED 12007u
#define ERROR_WINHTTP_SHUTDOWN 12012u
#define ERROR_WINHTTP_LOGIN_FAILURE 12015u
#define ERROR_WINHTTP_OPERATION_CANCELLED 12017u
#define ERROR_WINHTTP_INCORRECT_HANDLE_TYPE 12018u
#define ERROR_WINHTTP_INCORRECT_HANDLE_STATE 12019u
#define ERROR_WINHTTP_CANNOT_CONNECT 12029u
#define ERROR_WINHTTP_CONNECTION_ERROR 12030u
#define ERROR_WINHTTP_RESEND_REQUEST 12032u
#define ERROR_WINHTTP_SECURE_CERT_DATE_INVALID 12037u
#define ERROR_WINHTTP_SECURE_CERT_CN_INVALID 12038u
#define ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED 12044u
#define ERROR_WINHTTP_SECURE_INVALID_CA 12045u
#define ERROR_WINHTTP_SECURE_CERT_REV_FAILED 12057u
#define ERROR_WINHTTP_HEADER_NOT_FOUND 12150u
#define ERROR_WINHTTP_INVALID_SERVER_RESPONSE 12152u
#define ERROR_WINHTTP_INVALID_HEADER 12153u
#define ERROR_WINHTTP_REDIRECT_FAILED 12156u
#define ERROR_WINHTTP_SECURE_CHANNEL_ERROR 12157u
#define ERROR_WINHTTP_SECURE_INVALID_CERT 12169u
#define ERROR_WINHTTP_SECURE_CERT_REVOKED 12170u
#define ERROR_WINHTTP_SECURE_FAILURE 12175u
#define ERROR_WINHTTP_SECURE_CERT_WRONG_USAGE 12179u
#define ERROR_WINHTTP_HEADER_COUNT_EXCEEDED 12181u
#define ERROR_WINHTTP_HEADER_SIZE_OVERFLOW 12182u
#define ERROR_WINHTTP_CHUNKED_ENCODING_HEADER_SIZE_OVERFLOW 12183u
#define ERROR_WINHTTP_RESPONSE_DRAIN_OVERFLOW 12184u
#define ERROR_WINHTTP_CLIENT_CERT_NO_PRIVATE_KEY 12185u
#define ERROR_WINHTTP_CLIENT_CERT_NO_ACCESS_PRIVATE_KEY 12186u

typedef struct {
  DWORD dwStructSize;
  LPWSTR lpszScheme;
  DWORD dwSchemeLength;
  INTERNET_SCHEME nScheme;
  LPWSTR lpszHostName;
  DWORD dwHostNameLength;
  INTERNET_PORT nPort;
  LPWSTR lpszUserName;
  DWORD dwUserNameLength;
  LPWSTR lpszPassword;
  DWORD dwPasswordLength;
  LPWSTR lpszUrlPath;
  DWORD dwUrlPathLength;
  LPWSTR lpszExtraInfo;
  DWORD dwExtraInfoLength;
} URL_COMPONENTS;

typedef struct {
  BOOL fAutoDetect;
  LPWSTR lpszAutoConfigUrl;
  LPWSTR lpszProxy;
  LPWSTR lpszProxyBypass;
} WINHTTP_CURRENT_USER_IE_PROXY_CONFIG;

// Splits `url` (`length` units, 0: up to the terminator, which ends it in any case) into scheme, host, port and path.
// Host and path go into the caller's buffers, whose capacities the length fields hold on entry and the text's lengths
// on return; the path keeps the query. Flags: 0. ERROR_INSUFFICIENT_BUFFER leaves the needed capacities in the fields.
BOOL WinHttpCrackUrl(LPCWSTR url, DWORD length, DWORD flags, URL_COMPONENTS* components);

// Whether the HTTP library could be initialized.
BOOL WinHttpCheckPlatform(void);

// The user's proxies from http_proxy, https_proxy and all_proxy as "http=...;https=...", the exceptions from no_proxy
// separated by ';'. Null strings where there is nothing; the caller releases the others with GlobalFree. Fails, with
// null strings, when memory runs out.
BOOL WinHttpGetIEProxyConfigForCurrentUser(WINHTTP_CURRENT_USER_IE_PROXY_CONFIG* config);

// A session. Proxy list: "[scheme=][scheme://]host:port" entries separated by ';' or blanks, with NAMED_PROXY;
// bypass list: host names, "*.suffix" and "<local>", separated likewise. DEFAULT_PROXY: the user's, as above. Flags: 0.
HINTERNET WinHttpOpen(LPCWSTR agent, DWORD access_type, LPCWSTR proxy, LPCWSTR proxy_bypass, DWORD flags);

// Milliseconds of each phase of what the session's requests send from now on; 0 and -1: unlimited. Without this call:
// unlimited, 60000, 30000 and 30000.
BOOL WinHttpSetTimeouts(HINTERNET session, int resolve, int connect, int send, int receive);

// Port 0 stands for the scheme's own port. Nothing is sent yet.
HINTERNET WinHttpConnect(HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved);

// Version, referrer and accept types: null. Flags: 0 or WINHTTP_FLAG_SECURE.
HINTERNET WinHttpOpenRequest(HINTERNET connection, LPCWSTR verb, LPCWSTR path, LPCWSTR version, LPCWSTR referrer,
                             LPCWSTR* accept_types, DWORD flags);

// Adds one header line "Key:Value"; length (DWORD)-1: up to the terminator. CR and LF are refused. Modifiers:
// WINHTTP_ADDREQ_FLAG_ADD.
BOOL WinHttpAddRequestHeaders(HINTERNET request, LPCWSTR header, DWORD length, DWORD modifiers);

// Basic credentials for the server, sent with the first request.
BOOL WinHttpSetCredentials(HINTERNET request, DWORD target, DWORD scheme, LPCWSTR user, LPCWSTR password,
                           LPVOID parameters);

// Connects and sends the request with `size` bytes of body, which stay the caller's and must live until the request
// handle is closed. No additional headers; total = size.
BOOL WinHttpSendRequest(HINTERNET request, LPCWSTR headers, DWORD headers_length, LPVOID body, DWORD size, DWORD total,
                        DWORD_PTR context);

// Waits for the head of the final response, following redirects.
BOOL WinHttpReceiveResponse(HINTERNET request, LPVOID reserved);

// RAW_HEADERS_CRLF (text; size in bytes) or STATUS_CODE | FLAG_NUMBER (a DWORD).
BOOL WinHttpQueryHeaders(HINTERNET request, DWORD level, LPCWSTR name, LPVOID buffer, LPDWORD size, LPDWORD index);

// Waits for body bytes: how many can be read at once (at most 8192), 0 at the end.
BOOL WinHttpQueryDataAvailable(HINTERNET request, LPDWORD available);

// Fills `buffer` with `size` bytes, fewer at the end of the body. Does not wait for bytes that were announced.
BOOL WinHttpReadData(HINTERNET request, LPVOID buffer, DWORD size, LPDWORD read);

BOOL WinHttpCloseHandle(HINTERNET handle);

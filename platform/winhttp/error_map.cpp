#include "error_map.h"

#include <errno.h>
#include <string.h>

#include "winhttp.h"

namespace {

bool Says(const TransferFailure* failure, const char* words) {
  return strstr(failure->message, words) != nullptr;
}

bool IsBroken(long os_error) {
  return os_error == ECONNRESET || os_error == EPIPE || os_error == ECONNABORTED || os_error == ENOTCONN;
}

DWORD FromConnect(const TransferFailure* failure) {
  return failure->os_error == ETIMEDOUT ? ERROR_WINHTTP_TIMEOUT : ERROR_WINHTTP_CANNOT_CONNECT;
}

DWORD FromHandshake(const TransferFailure* failure) {
  // A peer that hangs up, as opposed to one that answers wrongly.
  const bool closed = IsBroken(failure->os_error) || Says(failure, "SSL_ERROR_SYSCALL") ||
                      Says(failure, "SSL_ERROR_ZERO_RETURN") || Says(failure, "unexpected eof");
  return closed ? ERROR_WINHTTP_CONNECTION_ERROR : ERROR_WINHTTP_SECURE_CHANNEL_ERROR;
}

// The texts are those of libcurl 7.88; one that is worded otherwise falls back to "connection error".
DWORD FromSocket(const TransferFailure* failure) {
  if (failure->phase <= TRANSFER_CONNECT && failure->connect_status >= 300) return ERROR_WINHTTP_CANNOT_CONNECT;
  if (failure->os_error == ETIMEDOUT) return ERROR_WINHTTP_TIMEOUT;
  if (IsBroken(failure->os_error)) return ERROR_WINHTTP_CONNECTION_ERROR;
  if (Says(failure, "certificate required")) return ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED;
  if (Says(failure, "Too long hexadecimal")) return ERROR_WINHTTP_CHUNKED_ENCODING_HEADER_SIZE_OVERFLOW;
  if (Says(failure, "chunked-encoding")) return ERROR_WINHTTP_INVALID_SERVER_RESPONSE;
  if (Says(failure, "response headers")) return ERROR_WINHTTP_HEADER_SIZE_OVERFLOW;
  return ERROR_WINHTTP_CONNECTION_ERROR;
}

}  // namespace

DWORD zelHttpError_FromFailure(const TransferFailure* failure) {
  switch (failure->code) {
    case CURLE_URL_MALFORMAT:  // the URL is built here: only its host can be at fault
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
      return ERROR_WINHTTP_NAME_NOT_RESOLVED;
    case CURLE_COULDNT_CONNECT:
      return FromConnect(failure);
    case CURLE_PROXY:
      return ERROR_WINHTTP_CANNOT_CONNECT;
    case CURLE_OPERATION_TIMEDOUT:
      return ERROR_WINHTTP_TIMEOUT;
    case CURLE_PEER_FAILED_VERIFICATION:
      return ERROR_WINHTTP_SECURE_FAILURE;
    case CURLE_SSL_CONNECT_ERROR:
      return FromHandshake(failure);
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_USE_SSL_FAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return ERROR_WINHTTP_SECURE_CHANNEL_ERROR;
    case CURLE_SSL_CLIENTCERT:
      return ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED;
    case CURLE_UNSUPPORTED_PROTOCOL:  // behind the request: an answer that is no HTTP/1
      return failure->phase >= TRANSFER_SEND ? ERROR_WINHTTP_INVALID_SERVER_RESPONSE
                                             : ERROR_WINHTTP_UNRECOGNIZED_SCHEME;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_GOT_NOTHING:
    case CURLE_BAD_CONTENT_ENCODING:
      return ERROR_WINHTTP_INVALID_SERVER_RESPONSE;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return FromSocket(failure);
    case CURLE_PARTIAL_FILE:  // also in a head that has announced a body: cut off like any other head
      return failure->head_complete ? ERROR_WINHTTP_CONNECTION_ERROR : ERROR_WINHTTP_INVALID_SERVER_RESPONSE;
    case CURLE_OUT_OF_MEMORY:  // also libcurl's limit on one header line
      return failure->phase == TRANSFER_RECEIVE && !failure->head_complete ? ERROR_WINHTTP_HEADER_SIZE_OVERFLOW
                                                                           : ERROR_NOT_ENOUGH_MEMORY;
    default:  // behind the request: whatever libcurl did not like about the answer
      return failure->phase == TRANSFER_RECEIVE ? ERROR_WINHTTP_INVALID_SERVER_RESPONSE : ERROR_WINHTTP_INTERNAL_ERROR;
  }
}

// One request and its response over libcurl, pulled: nothing moves unless one of the Await functions runs.
//
// Thread rule: a transfer belongs to one thread at a time.
// Invariants:
//  1. Each phase ends at its deadline, counted from the start of the phase, whatever moves in between.
//  2. At most kTransferQueueCapacity bytes of body wait here; then libcurl is paused until they are read.
//  3. Bytes that have arrived are handed out before an error behind them is told.
//  4. No Await or Close ends with SIGPIPE delivered.
#pragma once

#include <curl/curl.h>
#include <stddef.h>
#include <stdint.h>

#include "error_map.h"
#include "text.h"

constexpr size_t kTransferQueueCapacity = size_t{2} * CURL_MAX_WRITE_SIZE;

// Milliseconds; 0 or less: unlimited.
struct TransferLimits {
  int milliseconds[TRANSFER_PHASE_COUNT];
};

struct Transfer {
  CURL* easy;  // the owner sets what to request between Open and Start
  CURLM* multi;
  bool started;  // `easy` is in `multi`

  TransferLimits limits;
  TransferPhase phase;
  int64_t deadline;      // of the phase, in nanoseconds of the monotonic clock
  int64_t start;         // of the round, likewise
  uint64_t body_size;    // of the request
  bool secure;           // TLS may write at any time
  long tunnel_size;      // bytes of request that went to a proxy alone
  bool idle;             // nothing to do before the next event
  bool done;             // ended, well or with `error`
  DWORD error;           // 0 while all is well
  DWORD callback_error;  // why a callback of ours made libcurl give up
  char message[CURL_ERROR_SIZE];

  TextBuffer head;       // of the final response, each line ending in CRLF, the empty line included
  size_t head_received;  // bytes of all heads, interim ones included
  bool head_ended;       // an interim head is in `head`; the next line replaces it
  bool head_complete;
  long status;

  TextBuffer queue;  // body bytes, of which those before `queue_begin` have been read
  size_t queue_begin;
  bool paused;
};

// Opens an all-zero transfer: 0 or an error number. Close is allowed after any outcome, also on an all-zero one.
DWORD zelHttpTransfer_Open(Transfer* transfer);
void zelHttpTransfer_Close(Transfer* transfer);

// Begins what the easy handle describes, with `body_size` bytes of request body; ends an earlier round first. `secure`
// tells whether TLS is used anywhere on the way.
DWORD zelHttpTransfer_Start(Transfer* transfer, const TransferLimits* limits, uint64_t body_size, bool secure);

// Wait until the request is out, until the head of the final response is here, and until body bytes are queued or the
// body has ended: 0 or an error number.
DWORD zelHttpTransfer_AwaitSent(Transfer* transfer);
DWORD zelHttpTransfer_AwaitHead(Transfer* transfer);
DWORD zelHttpTransfer_AwaitBody(Transfer* transfer);

// For callbacks in the middle of what a peer can draw out by sending on and on: whether the deadline has passed. Then
// the transfer ends as timed out, and the callback sees to it that libcurl returns.
bool zelHttpTransfer_IsOver(Transfer* transfer);

// Body bytes that can be read without waiting.
size_t zelHttpTransfer_GetQueued(const Transfer* transfer);

// Takes up to `size` queued bytes.
size_t zelHttpTransfer_Read(Transfer* transfer, void* bytes, size_t size);

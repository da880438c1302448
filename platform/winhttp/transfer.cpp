#include "transfer.h"

#include <limits.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include "signal_guard.h"
#include "winhttp.h"

namespace {

constexpr size_t kMaxHeadSize = 65536;
constexpr long kReceiveBufferSize = 8192;
constexpr int kConnectPollMilliseconds = 500;
constexpr int64_t kNanosecondsPerMillisecond = 1000000;

int64_t Now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 * kNanosecondsPerMillisecond + now.tv_nsec;
}

void BeginPhase(Transfer* transfer, TransferPhase phase) {
  transfer->phase = phase;
  const int limit = transfer->limits.milliseconds[phase];
  transfer->deadline = limit > 0 ? Now() + limit * kNanosecondsPerMillisecond : INT64_MAX;
}

void AdvanceTo(Transfer* transfer, TransferPhase phase) {
  if (transfer->phase < phase) BeginPhase(transfer, phase);
}

// Milliseconds up to the deadline, rounded up; 0 when it has passed.
int Remaining(const Transfer* transfer) {
  if (transfer->deadline == INT64_MAX) return INT_MAX;
  const int64_t left = (transfer->deadline - Now() + kNanosecondsPerMillisecond - 1) / kNanosecondsPerMillisecond;
  return left <= 0 ? 0 : left > INT_MAX ? INT_MAX : static_cast<int>(left);
}

void End(Transfer* transfer, DWORD error) {
  transfer->done = true;
  transfer->error = error;
}

long GetLong(CURL* easy, CURLINFO info) {
  long value = 0;
  curl_easy_getinfo(easy, info, &value);
  return value;
}

// libcurl gives the first of several addresses half of what is left for connecting, so it must know when that ends: as
// long as the name is being resolved, the phase's whole limit from now on. Whichever deadline is met first gives the
// same error.
void GrantConnectTime(Transfer* transfer) {
  const int limit = transfer->limits.milliseconds[TRANSFER_CONNECT];
  const int64_t elapsed = (Now() - transfer->start) / kNanosecondsPerMillisecond + 1;
  const long budget = limit > 0 && limit < INT_MAX - elapsed ? static_cast<long>(limit + elapsed) : INT_MAX;
  curl_easy_setopt(transfer->easy, CURLOPT_CONNECTTIMEOUT_MS, budget);
}

// The name is resolved. The socket stays out of programs that the process starts.
curl_socket_t OnSocket(void* user, curlsocktype, curl_sockaddr* address) {
  AdvanceTo(static_cast<Transfer*>(user), TRANSFER_CONNECT);
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

// The connection stands, tunnel and TLS included.
int OnConnected(void* user, char*, char*, int, int) {
  Transfer* transfer = static_cast<Transfer*>(user);
  transfer->tunnel_size = GetLong(transfer->easy, CURLINFO_REQUEST_SIZE);
  AdvanceTo(transfer, TRANSFER_SEND);
  return CURL_PREREQFUNC_OK;
}

// Called between any two bytes of a proxy's answer to CONNECT, which libcurl reads to its end before it returns.
int OnProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  Transfer* transfer = static_cast<Transfer*>(user);
  return transfer->phase == TRANSFER_CONNECT && zelHttpTransfer_IsOver(transfer) ? 1 : 0;
}

void EndHead(Transfer* transfer) {
  transfer->status = GetLong(transfer->easy, CURLINFO_RESPONSE_CODE);
  transfer->head_complete = transfer->status < 100 || transfer->status > 199;
  transfer->head_ended = !transfer->head_complete;
}

size_t OnHeaderLine(char* line, size_t, size_t size, void* user) {
  Transfer* transfer = static_cast<Transfer*>(user);
  AdvanceTo(transfer, TRANSFER_RECEIVE);
  if (transfer->head_complete) return size;  // a trailer
  transfer->head_received += size;
  if (transfer->head_received > kMaxHeadSize) {
    transfer->callback_error = ERROR_WINHTTP_HEADER_SIZE_OVERFLOW;
    return 0;
  }
  if (transfer->head_ended) {
    transfer->head.size = 0;
    transfer->head_ended = false;
  }
  size_t length = size;
  while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r'))
    --length;
  zelHttpText_Append(&transfer->head, line, length);
  zelHttpText_Append(&transfer->head, "\r\n", 2);
  if (transfer->head.failed) {
    transfer->callback_error = ERROR_NOT_ENOUGH_MEMORY;
    return 0;
  }
  if (length == 0) EndHead(transfer);
  return size;
}

size_t OnBody(char* bytes, size_t, size_t size, void* user) {
  Transfer* transfer = static_cast<Transfer*>(user);
  if (!transfer->head_complete) {  // libcurl and OnHeaderLine disagree about where a malformed head ends
    transfer->callback_error = ERROR_WINHTTP_INVALID_SERVER_RESPONSE;
    return 0;
  }
  if (size > kTransferQueueCapacity - transfer->queue.size) {
    transfer->paused = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  zelHttpText_Append(&transfer->queue, bytes, size);
  if (!transfer->queue.failed) return size;
  transfer->callback_error = ERROR_NOT_ENOUGH_MEMORY;
  return 0;
}

void TakeResult(Transfer* transfer, CURLcode code) {
  if (code == CURLE_OK) return End(transfer, 0);
  if (transfer->callback_error != 0) return End(transfer, transfer->callback_error);
  const TransferFailure failure = {
      .code = code,
      .phase = transfer->phase,
      .head_complete = transfer->head_complete,
      .os_error = GetLong(transfer->easy, CURLINFO_OS_ERRNO),
      .connect_status = GetLong(transfer->easy, CURLINFO_HTTP_CONNECTCODE),
      .message = transfer->message,
  };
  End(transfer, zelHttpError_FromFailure(&failure));
}

void NoticeSent(Transfer* transfer) {
  if (transfer->phase != TRANSFER_SEND) return;
  if (GetLong(transfer->easy, CURLINFO_REQUEST_SIZE) <= transfer->tunnel_size) return;
  curl_off_t uploaded = 0;
  curl_easy_getinfo(transfer->easy, CURLINFO_SIZE_UPLOAD_T, &uploaded);
  if (static_cast<uint64_t>(uploaded) >= transfer->body_size) BeginPhase(transfer, TRANSFER_RECEIVE);
}

// Waits for an event, unless there is something to do at once, and lets libcurl deal with it.
void Step(Transfer* transfer) {
  if (transfer->idle) {
    int wait = Remaining(transfer);
    if (wait == 0) return End(transfer, ERROR_WINHTTP_TIMEOUT);
    // No event tells that it is another address's turn.
    if (transfer->phase == TRANSFER_CONNECT && wait > kConnectPollMilliseconds) wait = kConnectPollMilliseconds;
    if (curl_multi_poll(transfer->multi, nullptr, 0, wait, nullptr) != CURLM_OK) {
      return End(transfer, ERROR_WINHTTP_INTERNAL_ERROR);
    }
  }
  transfer->idle = true;
  if (transfer->phase == TRANSFER_RESOLVE) GrantConnectTime(transfer);
  int running = 0;
  if (curl_multi_perform(transfer->multi, &running) != CURLM_OK) return End(transfer, ERROR_WINHTTP_INTERNAL_ERROR);
  NoticeSent(transfer);
  int left = 0;
  for (CURLMsg* message; running == 0 && (message = curl_multi_info_read(transfer->multi, &left)) != nullptr;) {
    if (message->msg == CURLMSG_DONE) TakeResult(transfer, message->data.result);
  }
  if (!transfer->done && transfer->callback_error != 0) End(transfer, transfer->callback_error);
}

// Lets a paused transfer go on; that alone may bring bytes.
void Resume(Transfer* transfer) {
  transfer->paused = false;
  transfer->idle = false;
  const CURLcode code = curl_easy_pause(transfer->easy, CURLPAUSE_CONT);
  if (code != CURLE_OK) TakeResult(transfer, code);
}

bool IsSent(const Transfer* transfer) {
  return transfer->phase == TRANSFER_RECEIVE;
}
bool IsHeadComplete(const Transfer* transfer) {
  return transfer->head_complete;
}
bool HasBody(const Transfer* transfer) {
  return transfer->queue.size > transfer->queue_begin;
}

// A plain connection is only read once the request is out; TLS also answers, and says farewell.
bool MayWrite(const Transfer* transfer) {
  return transfer->secure || !IsSent(transfer);
}

void Await(Transfer* transfer, bool (*reached)(const Transfer*)) {
  if (transfer->done || reached(transfer)) return;
  SignalGuard guard;
  const bool writes = MayWrite(transfer);
  if (writes) zelHttpSignal_Block(&guard);
  if (transfer->paused) Resume(transfer);
  while (!transfer->done && !reached(transfer))
    Step(transfer);
  if (writes) zelHttpSignal_Restore(&guard);
}

bool SetOptions(Transfer* transfer) {
  CURL* easy = transfer->easy;
  bool ok = true;
  const auto set = [&ok, easy](CURLoption option, auto value) {
    ok = ok && curl_easy_setopt(easy, option, value) == CURLE_OK;
  };
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);  // closing must not wait for a name server
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_PATH_AS_IS, 1L);
  set(CURLOPT_FORBID_REUSE, 1L);
  set(CURLOPT_EXPECT_100_TIMEOUT_MS, 1L);
  set(CURLOPT_BUFFERSIZE, kReceiveBufferSize);
  set(CURLOPT_ERRORBUFFER, transfer->message);
  set(CURLOPT_OPENSOCKETFUNCTION, OnSocket);
  set(CURLOPT_OPENSOCKETDATA, transfer);
  set(CURLOPT_PREREQFUNCTION, OnConnected);
  set(CURLOPT_PREREQDATA, transfer);
  set(CURLOPT_HEADERFUNCTION, OnHeaderLine);
  set(CURLOPT_HEADERDATA, transfer);
  set(CURLOPT_WRITEFUNCTION, OnBody);
  set(CURLOPT_WRITEDATA, transfer);
  return ok;
}

bool WatchProgress(Transfer* transfer) {
  return curl_easy_setopt(transfer->easy, CURLOPT_NOPROGRESS, 0L) == CURLE_OK &&
         curl_easy_setopt(transfer->easy, CURLOPT_XFERINFODATA, transfer) == CURLE_OK &&
         curl_easy_setopt(transfer->easy, CURLOPT_XFERINFOFUNCTION, OnProgress) == CURLE_OK;
}

void Stop(Transfer* transfer) {
  if (!transfer->started) return;
  SignalGuard guard;
  const bool writes = MayWrite(transfer);
  if (writes) zelHttpSignal_Block(&guard);
  transfer->deadline = 0;  // the farewell of TLS reads no more than has come
  curl_multi_remove_handle(transfer->multi, transfer->easy);
  if (writes) zelHttpSignal_Restore(&guard);
  transfer->started = false;
}

}  // namespace

DWORD zelHttpTransfer_Open(Transfer* transfer) {
  transfer->easy = curl_easy_init();
  transfer->multi = curl_multi_init();
  if (transfer->easy == nullptr || transfer->multi == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
  return SetOptions(transfer) ? 0 : ERROR_NOT_ENOUGH_MEMORY;
}

void zelHttpTransfer_Close(Transfer* transfer) {
  Stop(transfer);
  if (transfer->easy != nullptr) curl_easy_cleanup(transfer->easy);
  if (transfer->multi != nullptr) curl_multi_cleanup(transfer->multi);
  zelHttpText_Free(&transfer->head);
  zelHttpText_Free(&transfer->queue);
  *transfer = {};
}

DWORD zelHttpTransfer_Start(Transfer* transfer, const TransferLimits* limits, uint64_t body_size, bool secure) {
  Stop(transfer);
  transfer->limits = *limits;
  transfer->body_size = body_size;
  transfer->secure = secure;
  transfer->idle = transfer->done = transfer->paused = false;
  transfer->error = transfer->callback_error = 0;
  transfer->message[0] = '\0';
  transfer->head.size = transfer->head_received = 0;
  transfer->head_ended = transfer->head_complete = false;
  transfer->queue_begin = transfer->queue.size = 0;
  BeginPhase(transfer, TRANSFER_RESOLVE);
  transfer->start = Now();
  if (secure && !WatchProgress(transfer)) return ERROR_NOT_ENOUGH_MEMORY;  // a tunnel is for TLS
  if (curl_multi_add_handle(transfer->multi, transfer->easy) != CURLM_OK) return ERROR_NOT_ENOUGH_MEMORY;
  transfer->started = true;
  return 0;
}

DWORD zelHttpTransfer_AwaitSent(Transfer* transfer) {
  Await(transfer, IsSent);
  return transfer->phase == TRANSFER_RECEIVE ? 0 : transfer->error;
}

DWORD zelHttpTransfer_AwaitHead(Transfer* transfer) {
  Await(transfer, IsHeadComplete);
  if (transfer->head_complete) return 0;
  return transfer->error != 0 ? transfer->error : ERROR_WINHTTP_INVALID_SERVER_RESPONSE;
}

DWORD zelHttpTransfer_AwaitBody(Transfer* transfer) {
  Await(transfer, HasBody);
  return HasBody(transfer) ? 0 : transfer->error;
}

bool zelHttpTransfer_IsOver(Transfer* transfer) {
  if (transfer->deadline == INT64_MAX || Now() < transfer->deadline) return false;
  if (transfer->callback_error == 0) transfer->callback_error = ERROR_WINHTTP_TIMEOUT;
  return true;
}

size_t zelHttpTransfer_GetQueued(const Transfer* transfer) {
  return transfer->queue.size - transfer->queue_begin;
}

size_t zelHttpTransfer_Read(Transfer* transfer, void* bytes, size_t size) {
  const size_t queued = zelHttpTransfer_GetQueued(transfer);
  if (size > queued) size = queued;
  if (size > 0) memcpy(bytes, transfer->queue.data + transfer->queue_begin, size);
  transfer->queue_begin += size;
  if (transfer->queue_begin == transfer->queue.size) transfer->queue_begin = transfer->queue.size = 0;
  return size;
}

#include "curl_post.h"

#include <curl/curl.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <ctime>
#include <memory>
#include <stdexcept>

#include "freed.h"

namespace bench {
namespace {

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}

// The worker's buffer.
struct Reply {
  std::array<char, kReplyCapacity> bytes;
  std::size_t size = 0;
};

std::size_t take_reply(char* bytes, std::size_t, std::size_t size, void* user) {
  auto& reply = *static_cast<Reply*>(user);
  if (size >= kReplyCapacity - reply.size) return 0;
  std::copy_n(bytes, size, reply.bytes.data() + reply.size);
  reply.size += size;
  return size;
}

using Easy = std::unique_ptr<CURL, Freed<curl_easy_cleanup>>;
using Multi = std::unique_ptr<CURLM, Freed<curl_multi_cleanup>>;
using List = std::unique_ptr<curl_slist, Freed<curl_slist_free_all>>;

List make_headers(const Post& post) {
  const std::string authorization = "Authorization: " + post.authorization;
  curl_slist* headers = nullptr;
  // The last two: no headers of libcurl's own.
  for (const char* line : {"Content-Type: audio/ogg; codecs=opus", authorization.c_str(), "Accept: application/json",
                           "Connection: Keep-Alive", "Expect:"})
    headers = curl_slist_append(headers, line);
  return List(headers);
}

template <typename Value>
void set(CURL* easy, CURLoption option, Value value) {
  require(curl_easy_setopt(easy, option, value) == CURLE_OK, "libcurl option");
}

// The three callbacks tell the plug-in which phase an exchange is in.
std::size_t notice_line(char*, std::size_t, std::size_t size, void*) {
  return size;
}
curl_socket_t open_socket(void*, curlsocktype, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}
int notice_connection(void*, char*, char*, int, int) {
  return CURL_PREREQFUNC_OK;
}

// A SIGPIPE of this thread, held back and taken as long as the object lives.
class PipeGuard {
 public:
  PipeGuard() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &mask_);
  }
  ~PipeGuard() {
    const timespec now{};
    sigtimedwait(&pipe_, nullptr, &now);
    pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
  }
  PipeGuard(const PipeGuard&) = delete;
  PipeGuard& operator=(const PipeGuard&) = delete;

 private:
  sigset_t pipe_;
  sigset_t mask_;
};

CURLcode perform_step_by_step(CURL* easy) {
  set(easy, CURLOPT_HEADERFUNCTION, notice_line);
  set(easy, CURLOPT_OPENSOCKETFUNCTION, open_socket);
  set(easy, CURLOPT_PREREQFUNCTION, notice_connection);
  const Multi handle(curl_multi_init());
  CURLM* multi = handle.get();
  const PipeGuard guard;
  require(curl_multi_add_handle(multi, easy) == CURLM_OK, "libcurl's multi handle");
  int running = 0;
  while (curl_multi_perform(multi, &running) == CURLM_OK && running != 0)
    curl_multi_poll(multi, nullptr, 0, kTimeoutSeconds * 1000, nullptr);
  int left = 0;
  const CURLMsg* message = curl_multi_info_read(multi, &left);
  const CURLcode code = message != nullptr ? message->data.result : CURLE_GOT_NOTHING;
  curl_multi_remove_handle(multi, easy);
  return code;
}

std::string post_by(CURLcode (*perform)(CURL*), const Post& post, const std::string& trusted) {
  const Easy handle(curl_easy_init());
  CURL* easy = handle.get();
  const List headers = make_headers(post);
  Reply reply;
  std::array<char, CURL_ERROR_SIZE> message;
  const std::string url = post.origin + post.target;
  set(easy, CURLOPT_URL, url.c_str());
  set(easy, CURLOPT_PATH_AS_IS, 1L);
  set(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  set(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(easy, CURLOPT_NOSIGNAL, 1L);
  set(easy, CURLOPT_FORBID_REUSE, 1L);
  set(easy, CURLOPT_CONNECTTIMEOUT_MS, 2 * kTimeoutSeconds * 1000);
  set(easy, CURLOPT_TIMEOUT_MS, 4 * kTimeoutSeconds * 1000);
  set(easy, CURLOPT_BUFFERSIZE, 8192L);
  set(easy, CURLOPT_ERRORBUFFER, message.data());
  set(easy, CURLOPT_USERAGENT, "ZEL Wreq/0.31");
  set(easy, CURLOPT_HTTPHEADER, headers.get());
  set(easy, CURLOPT_POST, 1L);
  set(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(post.body.size()));
  set(easy, CURLOPT_POSTFIELDS, post.body.data());
  set(easy, CURLOPT_WRITEFUNCTION, take_reply);
  set(easy, CURLOPT_WRITEDATA, &reply);
  if (!trusted.empty()) {
    set(easy, CURLOPT_CAINFO, trusted.c_str());
    set(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    set(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    set(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    set(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  }
  require(perform(easy) == CURLE_OK, "libcurl's exchange");
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  require(status == 200, "libcurl's exchange");
  return {reply.bytes.data(), reply.size};
}

}  // namespace

std::string post_with_curl(const Post& post, const std::string& trusted) {
  return post_by(curl_easy_perform, post, trusted);
}

std::string post_step_by_step(const Post& post, const std::string& trusted) {
  return post_by(perform_step_by_step, post, trusted);
}

}  // namespace bench

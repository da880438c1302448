#include "contestants.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "wreq_execute.h"

namespace bench {
namespace {

constexpr std::size_t kReplyCapacity = 1232;  // of the plug-in's worker, terminator included
constexpr long kTimeoutSeconds = 20;

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

struct EasyFree {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct ListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct MultiFree {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
using Easy = std::unique_ptr<CURL, EasyFree>;
using Multi = std::unique_ptr<CURLM, MultiFree>;
using List = std::unique_ptr<curl_slist, ListFree>;

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

CURLcode perform_step_by_step(CURL* easy) {
  set(easy, CURLOPT_HEADERFUNCTION, notice_line);
  set(easy, CURLOPT_OPENSOCKETFUNCTION, open_socket);
  set(easy, CURLOPT_PREREQFUNCTION, notice_connection);
  const Multi handle(curl_multi_init());
  CURLM* multi = handle.get();
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

std::string post_by(CURLcode (*perform)(CURL*), const Post& post, const Trust& trust) {
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
  if (!trust.file.empty()) {
    set(easy, CURLOPT_CAINFO, trust.file.c_str());
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

std::string post_with_plugin(const Post& post) {
  const std::string url = post.origin + post.target;
  const std::array headers = {WreqHeader{"Content-Type", "audio/ogg; codecs=opus"},
                              WreqHeader{"Authorization", post.authorization.c_str()},
                              WreqHeader{"Accept", "application/json"}};
  const WreqRequest request = {.url = url.c_str(),
                               .method = "POST",
                               .num_headers = static_cast<std::int32_t>(headers.size()),
                               .headers = headers.data(),
                               .data = post.body.data(),
                               .data_len = static_cast<std::int32_t>(post.body.size()),
                               .timeout_sec = static_cast<std::int32_t>(kTimeoutSeconds),
                               .auth_basic = {}};
  std::array<std::uint8_t, kReplyCapacity> buffer{};
  WreqResponse response{};
  response.buffer = buffer.data();
  response.buffer_size = buffer.size();
  require(zelWreq_Execute(&request, &response) == WREQ_EXECUTE_OK && response.status_code == 200, "plug-in's exchange");
  return {reinterpret_cast<const char*>(response.data), response.data_size};
}

std::string post_with_curl(const Post& post, const Trust& trust) {
  return post_by(curl_easy_perform, post, trust);
}

std::string post_step_by_step(const Post& post, const Trust& trust) {
  return post_by(perform_step_by_step, post, trust);
}

std::string post_with_sockets(const Post& post) {
  const std::string host = post.origin.substr(post.origin.find("//") + 2);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<unsigned short>(std::strtoul(host.c_str() + host.find(':') + 1, nullptr, 10)));
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");

  // As libcurl puts it.
  std::string head =
      "POST " + post.target + " HTTP/1.1\r\nHost: " + host +
      "\r\nUser-Agent: ZEL Wreq/0.31\r\nContent-Type: audio/ogg; codecs=opus\r\nAuthorization: " + post.authorization +
      "\r\nAccept: application/json\r\nConnection: Keep-Alive\r\nContent-Length: " + std::to_string(post.body.size()) +
      "\r\n\r\n";
  const std::array parts = {iovec{head.data(), head.size()},
                            iovec{const_cast<unsigned char*>(post.body.data()), post.body.size()}};
  require(writev(connection, parts.data(), parts.size()) == static_cast<ssize_t>(head.size() + post.body.size()),
          "send");

  std::string reply;
  std::size_t wanted = 1;
  std::size_t begin = 0;
  while (reply.size() < wanted) {
    std::array<char, 8192> bytes;
    const ssize_t count = recv(connection, bytes.data(), bytes.size(), 0);
    require(count > 0, "receive");
    reply.append(bytes.data(), static_cast<std::size_t>(count));
    wanted = reply.size() + 1;
    const std::size_t end = reply.find("\r\n\r\n");
    if (end == std::string::npos) continue;
    begin = end + 4;
    wanted = begin + std::strtoul(reply.c_str() + reply.find("Content-Length: ") + 16, nullptr, 10);
  }
  close(connection);
  return reply.substr(begin);
}

}  // namespace bench

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
using Easy = std::unique_ptr<CURL, EasyFree>;
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
  const Easy handle(curl_easy_init());
  CURL* easy = handle.get();
  const List headers = make_headers(post);
  Reply reply;
  std::array<char, CURL_ERROR_SIZE> message;
  const std::string url = post.origin + post.target;
  const auto set = [easy](CURLoption option, auto value) {
    require(curl_easy_setopt(easy, option, value) == CURLE_OK, "libcurl option");
  };
  set(CURLOPT_URL, url.c_str());
  set(CURLOPT_PATH_AS_IS, 1L);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_FORBID_REUSE, 1L);
  set(CURLOPT_CONNECTTIMEOUT_MS, 2 * kTimeoutSeconds * 1000);
  set(CURLOPT_TIMEOUT_MS, 4 * kTimeoutSeconds * 1000);
  set(CURLOPT_BUFFERSIZE, 8192L);
  set(CURLOPT_ERRORBUFFER, message.data());
  set(CURLOPT_USERAGENT, "ZEL Wreq/0.31");
  set(CURLOPT_HTTPHEADER, headers.get());
  set(CURLOPT_POST, 1L);
  set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(post.body.size()));
  set(CURLOPT_POSTFIELDS, post.body.data());
  set(CURLOPT_WRITEFUNCTION, take_reply);
  set(CURLOPT_WRITEDATA, &reply);
  if (!trust.file.empty()) {
    set(CURLOPT_CAINFO, trust.file.c_str());
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    set(CURLOPT_SSL_SESSIONID_CACHE, 0L);
    set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  }
  require(curl_easy_perform(easy) == CURLE_OK, "libcurl's exchange");
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  require(status == 200, "libcurl's exchange");
  return {reply.bytes.data(), reply.size};
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

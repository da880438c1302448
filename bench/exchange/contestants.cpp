#include "contestants.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

#include "wreq_execute.h"

namespace bench {
namespace {

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
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

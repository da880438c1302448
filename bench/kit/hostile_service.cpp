#include "hostile_service.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace bench {
namespace {

constexpr int kThreads = 12;
constexpr std::size_t kMaxRequest = 131'072;

int open_socket(bool listening) {
  const int opened = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (opened < 0 || bind(opened, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      (listening && listen(opened, 1024) != 0)) {
    throw std::system_error(errno, std::generic_category(), "hostile service");
  }
  return opened;
}

std::string url_of(int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/stt";
}

// Reads one request. False when the client leaves before its end.
bool read_request(int socket, std::string& request) {
  std::array<char, 32'768> bytes;
  std::size_t wanted = kMaxRequest;
  while (request.size() < wanted) {
    const ssize_t count = recv(socket, bytes.data(), bytes.size(), 0);
    if (count <= 0) return false;
    request.append(bytes.data(), static_cast<std::size_t>(count));
    const std::size_t end = request.find("\r\n\r\n");
    if (wanted != kMaxRequest || end == std::string::npos) continue;
    const std::size_t length = request.find("Content-Length: ");
    wanted = end + 4 + (length < end ? std::strtoul(request.c_str() + length + 16, nullptr, 10) : 0);
  }
  return true;
}

std::string speaker_of(const std::string& request) {
  const std::size_t begin = request.find("speaker=") + 8;
  return request.substr(begin, request.find(' ', begin) - begin);
}

void write_all(int socket, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = send(socket, text.data(), text.size(), MSG_NOSIGNAL);
    if (count <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

void reset_connection(int socket) {
  const linger now{1, 0};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

std::string with_length(std::string_view status, std::string_view body) {
  return "HTTP/1.1 " + std::string(status) + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         std::string(body);
}

std::string in_chunks(std::string_view body) {
  std::string reply = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (const char byte : body)
    reply.append("1\r\n").append(1, byte).append("\r\n");
  return reply + "0\r\n\r\n";
}

constexpr std::string_view kText = R"({"result":"success","version":"1","speaker":"x","text":"as it was said"})";
constexpr std::string_view kEmpty = R"({"result":"success","version":"1","speaker":"x","text":""})";
constexpr std::string_view kRefusal = R"({"result":"error","error_code":"E1","error_message":"no \ud800 \"%s%n\""})";
constexpr std::string_view kNoHead = "HTTP/1.1 200 OK\r\nContent-Le";

struct Reply {
  std::string bytes;
  std::uint64_t HostileService::Answers::*kind;
};

// Everything the service may say.
const std::vector<Reply>& replies() {
  using Answers = HostileService::Answers;
  static const std::vector<Reply> all = {
      {with_length("200 OK", kText), &Answers::texts},
      {with_length("500 Internal Server Error", kText), &Answers::texts},
      {in_chunks(kText), &Answers::texts},
      {"HTTP/1.0 200 OK\r\n\r\n" + std::string(kText), &Answers::texts},
      {"HTTP/1.1 100 Continue\r\n\r\n" + with_length("200 OK", kText), &Answers::texts},
      {with_length("200 OK", kEmpty), &Answers::empty_texts},
      {with_length("400 Bad Request", kRefusal), &Answers::failures},
      {with_length("404 Not Found", "<html>not here</html>"), &Answers::failures},
      {with_length("200 OK", ""), &Answers::failures},
      {with_length("200 OK", std::string(100'000, 'x')), &Answers::failures},
      {with_length("200 OK", std::string(1200, '[')), &Answers::failures},
      {with_length("200 OK", std::string(600, '{') + "\"result\""), &Answers::failures},
      {with_length("200 OK", R"({"result":1e99999,"text":"\u12)"), &Answers::failures},
      {with_length("200 OK", std::string_view("{\"result\"\0:\"success\"}", 21)), &Answers::failures},
      {"HTTP/1.1 200 OK\r\nX: " + std::string(300'000, 'y') + "\r\n\r\n", &Answers::failures},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", &Answers::failures},
      {"HTTP/1.1 200 OK\r\nContent-Length: 500\r\n\r\n" + std::string(kText), &Answers::failures},
      {"HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n", &Answers::failures},
      {std::string(kNoHead), &Answers::failures},
      {"\x16\x03\x01 not HTTP at all\r\n\r\n", &Answers::failures},
      {"", &Answers::failures},
  };
  return all;
}

}  // namespace

HostileService::HostileService(std::uint64_t seed, std::uint32_t max_stall_ms)
    : max_stall_ms_(max_stall_ms), listener_(open_socket(true)), refusing_(open_socket(false)) {
  replies();
  for (std::uint64_t i = 0; i < kThreads; ++i)
    threads_.emplace_back([this, seed, i] { serve(seed * kThreads + i); });
}

HostileService::~HostileService() {
  ended_ = true;
  shutdown(listener_, SHUT_RDWR);
  for (std::thread& thread : threads_)
    thread.join();
  close(listener_);
  close(refusing_);
}

std::string HostileService::url() const {
  return url_of(listener_);
}

std::string HostileService::refusing_url() const {
  return url_of(refusing_);
}

std::map<std::string, HostileService::Answers> HostileService::answers() const {
  std::lock_guard hold(mutex_);
  return answers_;
}

void HostileService::serve(std::uint64_t seed) {
  Random random(seed);
  while (!ended_) {
    const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) continue;
    {
      std::lock_guard hold(mutex_);
      ++connections_;
      ++open_;
    }
    serve_connection(socket, random);
    close(socket);
    std::lock_guard hold(mutex_);
    if (--open_ == 0) closed_.notify_all();
  }
}

bool HostileService::wait_until_idle(std::chrono::seconds limit) {
  std::unique_lock hold(mutex_);
  return closed_.wait_for(hold, limit, [this] { return open_ == 0; });
}

void HostileService::serve_connection(int socket, Random& random) {
  if (random.one_in(40)) return reset_connection(socket);
  std::string request;
  if (!read_request(socket, request)) return;
  hold_back(random);
  const std::string speaker = speaker_of(request);
  const bool as_it_should = !random.one_in(2);
  if (!as_it_should && random.one_in(20)) {
    count(speaker, &Answers::failures);
    return reset_connection(socket);
  }
  const Reply& reply = replies()[as_it_should ? 0 : random.below(static_cast<std::uint32_t>(replies().size()))];
  count(speaker, reply.kind);
  const std::size_t first = random.one_in(4) ? random.below(static_cast<std::uint32_t>(reply.bytes.size() + 1)) : 0;
  write_all(socket, std::string_view(reply.bytes).substr(0, first));
  if (first > 0) hold_back(random);
  write_all(socket, std::string_view(reply.bytes).substr(first));
}

void HostileService::hold_back(Random& random) const {
  if (max_stall_ms_ > 0 && random.one_in(8)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random.below(max_stall_ms_ + 1)));
  }
}

void HostileService::count(const std::string& speaker, std::uint64_t Answers::*kind) {
  std::lock_guard hold(mutex_);
  ++(answers_[speaker].*kind);
}

std::FILE* take_standard_output() {
  std::FILE* taken = fdopen(dup(STDOUT_FILENO), "w");
  if (taken == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "standard output");
  }
  setvbuf(taken, nullptr, _IOLBF, 0);
  return taken;
}

void use_no_proxy() {
  for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
    unsetenv(name);
}

}  // namespace bench

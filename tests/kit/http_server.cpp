#include "http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <list>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "test_certificates.h"

namespace kit {
namespace {

constexpr int kTrickleInterval = 20;  // ms between two bytes, or two sips
constexpr std::size_t kMaxRequest = 16 * 1024 * 1024;

std::string Replace(std::string text, std::string_view what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
  return text;
}

std::size_t AnnouncedBody(const std::string& head) {
  const std::size_t at = head.find("\r\nContent-Length: ");
  return at == std::string::npos ? 0 : std::strtoul(head.c_str() + at + 18, nullptr, 10);
}

}  // namespace

struct HttpServer::State {
  class Connection;

  explicit State(std::vector<Script> given);
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void Accept();
  SSL_CTX* Context(Identity identity);

  const std::vector<Script> scripts;
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int release = eventfd(0, EFD_CLOEXEC);  // readable once released
  const int stop = eventfd(0, EFD_CLOEXEC);     // readable once the server ends
  std::uint16_t port = 0;
  std::mutex mutex;  // guards requests and contexts
  std::vector<std::string> requests;
  std::map<Identity, ContextPointer> contexts;
  std::list<std::jthread> connections;  // the accepting thread's until it ends
  std::thread acceptor;
};

// One accepted connection; closed with it.
class HttpServer::State::Connection {
 public:
  Connection(State* server, int socket) : server_(server), socket_(socket) {
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  ~Connection() {
    SSL_free(ssl_);
    close(socket_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // False when the connection is over.
  bool Run(const Step& step) {
    switch (step.kind) {
      case Step::Kind::kReadRequest:
        return ReadRequest(true);
      case Step::Kind::kReadHead:
        return ReadRequest(false);
      case Step::Kind::kReadSome:
        return ReadSome();
      case Step::Kind::kSend:
        return Write(Replace(Replace(step.text, "{port}", std::to_string(server_->port)), "{hash}", hash_));
      case Step::Kind::kSendPlain:
        return WritePlain(step.text);
      case Step::Kind::kFlood:
        while (Write(step.text)) {
        }
        return false;
      case Step::Kind::kTrickle:
        return TrickleText(step.text);
      case Step::Kind::kSip:
        while (Wait(kTrickleInterval, -1) && ReadSome()) {
        }
        return false;
      case Step::Kind::kStall:
        return Wait(-1, server_->release);
      case Step::Kind::kTls:
        return StartTls(step.identity);
      case Step::Kind::kReset:
        return ResetConnection();
      case Step::Kind::kDrop:
        shutdown(socket_, SHUT_WR);
        return false;
    }
    return false;
  }

  bool reset() const { return reset_; }

  // Waits until the client has closed, so that closing first cannot turn into a reset under unread bytes.
  void Linger() {
    if (ssl_ != nullptr) SSL_shutdown(ssl_);
    shutdown(socket_, SHUT_WR);
    char rest[4096];
    while (WaitReadable() && recv(socket_, rest, sizeof rest, 0) > 0) {
    }
  }

 private:
  bool WaitReadable() {
    pollfd events[] = {{socket_, POLLIN, 0}, {server_->stop, POLLIN, 0}};
    return poll(events, 2, -1) > 0 && events[1].revents == 0;
  }

  // Waits for `milliseconds` (-1: for ever) or for `event`; false when the client has gone or the server ends.
  bool Wait(int milliseconds, int event) {
    pollfd events[] = {{socket_, POLLRDHUP, 0}, {server_->stop, POLLIN, 0}, {event, POLLIN, 0}};
    poll(events, 3, milliseconds);
    return events[0].revents == 0 && events[1].revents == 0;
  }

  long Read(char* bytes, int size) {
    if (ssl_ != nullptr && SSL_pending(ssl_) > 0) return SSL_read(ssl_, bytes, size);
    if (!WaitReadable()) return 0;
    return ssl_ != nullptr ? SSL_read(ssl_, bytes, size) : recv(socket_, bytes, static_cast<std::size_t>(size), 0);
  }

  bool WritePlain(const std::string& text) {
    return send(socket_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }

  bool Write(const std::string& text) {
    if (ssl_ == nullptr || text.empty()) return WritePlain(text);
    return SSL_write(ssl_, text.data(), static_cast<int>(text.size())) > 0;
  }

  bool ReadRequest(bool with_body) {
    std::string request;
    std::size_t wanted = kMaxRequest;
    char bytes[16 * 1024];
    while (request.size() < wanted) {
      const long count = Read(bytes, sizeof bytes);
      if (count <= 0) break;
      request.append(bytes, static_cast<std::size_t>(count));
      const std::size_t end = request.find("\r\n\r\n");
      if (end == std::string::npos || wanted != kMaxRequest) continue;
      wanted = end + 4 + (with_body ? AnnouncedBody(request.substr(0, end)) : 0);
    }
    const bool complete = request.size() >= wanted;
    hash_ = RequestHash(request);
    const std::lock_guard lock(server_->mutex);
    server_->requests.push_back(std::move(request));
    return complete;
  }

  bool ReadSome() {
    char bytes[1024];
    return Read(bytes, sizeof bytes) > 0;
  }

  bool TrickleText(const std::string& text) {
    for (std::size_t i = 0; Write(text.substr(i % text.size(), 1)); ++i) {
      if (!Wait(kTrickleInterval, -1)) return false;
    }
    return false;
  }

  bool StartTls(Identity identity) {
    ssl_ = SSL_new(server_->Context(identity));
    return ssl_ != nullptr && SSL_set_fd(ssl_, socket_) == 1 && SSL_accept(ssl_) == 1;
  }

  bool ResetConnection() {
    const linger now = {1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    reset_ = true;
    return false;
  }

  State* server_;
  int socket_;
  SSL* ssl_ = nullptr;
  std::string hash_;  // of the request read last
  bool reset_ = false;
};

HttpServer::State::State(std::vector<Script> given) : scripts(std::move(given)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener, generic, size) != 0 || listen(listener, 128) != 0 || getsockname(listener, generic, &size) != 0)
    throw std::runtime_error("no server on loopback");
  port = ntohs(address.sin_port);
  acceptor = std::thread([this] { Accept(); });
}

HttpServer::State::~State() {
  eventfd_write(stop, 1);
  acceptor.join();
  connections.clear();
  for (const int descriptor : {listener, release, stop})
    close(descriptor);
}

SSL_CTX* HttpServer::State::Context(Identity identity) {
  const std::lock_guard lock(mutex);
  ContextPointer& context = contexts[identity];
  if (context == nullptr) context = Authority::Get().MakeContext(identity);
  return context.get();
}

void HttpServer::State::Accept() {
  // The handshake writes without MSG_NOSIGNAL; threads started here inherit the mask.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  for (std::size_t number = 0;; ++number) {
    pollfd events[] = {{listener, POLLIN, 0}, {stop, POLLIN, 0}};
    if (poll(events, 2, -1) < 0 || events[1].revents != 0) return;
    const int socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) continue;
    const Script& script = scripts[number < scripts.size() ? number : scripts.size() - 1];
    connections.emplace_back([this, socket, &script] {
      Connection connection(this, socket);
      for (const Step& step : script) {
        if (!connection.Run(step)) break;
      }
      if (!connection.reset()) connection.Linger();
    });
  }
}

HttpServer::HttpServer(std::vector<Script> scripts) : state_(std::make_unique<State>(std::move(scripts))) {
  port_ = state_->port;
}

HttpServer::~HttpServer() = default;

void HttpServer::Release() {
  eventfd_write(state_->release, 1);
}

std::vector<std::string> HttpServer::requests() const {
  const std::lock_guard lock(state_->mutex);
  return state_->requests;
}

void TrustTestAuthority() {
  setenv("SSL_CERT_FILE", Authority::Get().file().c_str(), 1);
}

void UseNoProxy() {
  for (const char* name :
       {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
    unsetenv(name);
}

}  // namespace kit

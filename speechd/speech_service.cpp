#include "speech_service.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <exception>
#include <future>
#include <thread>
#include <utility>

#include "ogg_opus.h"
#include "recognition_pool.h"
#include "reply.h"

namespace zel::speechd {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kJsonType = "application/json";
// Connections beyond those whose utterances are being recognized or wait: enough to refuse the rest at once.
constexpr std::size_t kSpareConnections = 8;
constexpr std::size_t kMaxDiscarded = 64 << 20;  // bytes
constexpr std::chrono::seconds kDiscardWithin{10};
constexpr time_t kIoTimeout = 10;  // seconds without a byte

struct Refusal {
  int status;
  const char* code;
  std::string message;
};

void refuse(httplib::Response& response, const Refusal& refusal) {
  response.status = refusal.status;
  response.set_content(error_reply(refusal.code, refusal.message), kJsonType);
}

Refusal refusal_of(const AudioError& error) {
  switch (error.fault()) {
    case AudioFault::kEmpty:
      return {400, "empty_audio", error.what()};
    case AudioFault::kTooLong:
      return {413, "audio_too_long", error.what()};
    case AudioFault::kNotOggOpus:
      break;
  }
  return {415, "not_ogg_opus", error.what()};
}

using Digest = std::array<unsigned char, EVP_MAX_MD_SIZE>;

Digest digest(const std::string& bytes) {
  Digest result{};
  if (EVP_Digest(bytes.data(), bytes.size(), result.data(), nullptr, EVP_sha256(), nullptr) != 1)
    throw std::runtime_error("SHA-256 is not available");
  return result;
}

// Takes the same time wherever the difference is and whatever the lengths are.
bool same_secret(const std::string& a, const std::string& b) {
  const Digest digest_a = digest(a);
  const Digest digest_b = digest(b);
  return CRYPTO_memcmp(digest_a.data(), digest_b.data(), digest_a.size()) == 0;
}

// Two listeners on one port would each get some of the requests; only a port in its closing time may be taken over.
void set_socket_options(int socket) {
  const int yes = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

// Reads the body, whatever its framing and encoding says of its size. False when it is too large; the rest is read
// within reason: a connection closed before its client has sent everything is reset, and the answer lost with it.
bool read_body(const httplib::ContentReader& reader, std::size_t max_size, std::string& body) {
  std::size_t size = 0;
  Clock::time_point give_up = Clock::time_point::max();
  const bool read = reader([&](const char* data, std::size_t count) {
    size += count;
    if (size <= max_size) {
      body.append(data, count);
      return true;
    }
    if (give_up == Clock::time_point::max()) give_up = Clock::now() + kDiscardWithin;
    return size <= max_size + kMaxDiscarded && Clock::now() < give_up;
  });
  return read && size <= max_size;
}

}  // namespace

std::size_t default_engines() {
  return std::max(1u, std::thread::hardware_concurrency());
}

bool is_loopback(const std::string& host) {
  in_addr v4{};
  in6_addr v6{};
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return ntohl(v4.s_addr) >> 24 == 127;
  if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
  return host == "localhost";
}

struct SpeechService::State {
  State(ServiceConfig the_config, const EngineFactory& factory);
  ~State() { stop(); }

  std::unique_ptr<httplib::Server> make_server() const;
  void set_routes();
  void listen();
  std::string url() const;
  void stop();

  void recognize(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& reader);
  Recognition recognize(const std::string& body, Deadline deadline);
  bool authorized(const httplib::Request& request) const;
  bool supports(const std::string& language) const;
  void health(httplib::Response& response) const;
  void log(const std::string& line) const;

  const ServiceConfig config;
  const std::unique_ptr<httplib::Server> server;
  int port = 0;
  RecognitionPool pool;
  std::future<bool> listener;
};

SpeechService::State::State(ServiceConfig the_config, const EngineFactory& factory)
    : config(std::move(the_config)),
      server(make_server()),
      pool(config.engines > 0 ? config.engines : default_engines(), factory, config.max_waiting) {
  set_routes();
  listen();
}

std::unique_ptr<httplib::Server> SpeechService::State::make_server() const {
  if (config.tls_certificate.empty() != config.tls_key.empty())
    throw ServiceError("HTTPS needs both a certificate and its key");
  std::unique_ptr<httplib::Server> made;
  if (config.tls_certificate.empty())
    made = std::make_unique<httplib::Server>();
  else
    made = std::make_unique<httplib::SSLServer>(config.tls_certificate.c_str(), config.tls_key.c_str());
  if (!made->is_valid())
    throw ServiceError("cannot use certificate " + config.tls_certificate + " with key " + config.tls_key);
  return made;
}

void SpeechService::State::set_routes() {
  server->Get("/healthz", [this](const httplib::Request&, httplib::Response& response) { health(response); });
  server->Post("/v1/recognize", [this](const httplib::Request& request, httplib::Response& response,
                                       const httplib::ContentReader& reader) { recognize(request, response, reader); });
  // What the HTTP layer refuses by itself has a status and no body yet.
  server->set_error_handler([](const httplib::Request& request, httplib::Response& response) {
    if (!response.body.empty()) return;
    if (response.status == 404)
      refuse(response, {404, "not_found", request.method + " is not offered at this path"});
    else if (response.status == 413)
      refuse(response, {413, "body_too_large", "the request is too large"});
    else
      refuse(response, {response.status, "bad_request", "the request cannot be understood"});
  });
  server->set_exception_handler([this](const httplib::Request&, httplib::Response& response, std::exception_ptr error) {
    try {
      std::rethrow_exception(std::move(error));
    } catch (const std::exception& e) {
      log(std::string("request failed: ") + e.what());
    } catch (...) {
      log("request failed");
    }
    refuse(response, {500, "internal", "the service failed on this request"});
  });
}

void SpeechService::State::listen() {
  server->set_socket_options(set_socket_options);
  server->set_tcp_nodelay(true);
  server->set_keep_alive_max_count(1);  // clients come once per utterance; nobody holds a thread between requests
  server->set_read_timeout(kIoTimeout);
  server->set_write_timeout(kIoTimeout);
  const std::size_t connections = pool.engines() + config.max_waiting + kSpareConnections;
  server->new_task_queue = [connections] { return new httplib::ThreadPool(connections); };

  if (config.port == 0)
    port = server->bind_to_any_port(config.host);
  else
    port = server->bind_to_port(config.host, config.port) ? config.port : -1;
  if (port <= 0) throw ServiceError("cannot listen on " + config.host + " port " + std::to_string(config.port));

  listener = std::async(std::launch::async, [this] { return server->listen_after_bind(); });
  // Stopping a server that does not run yet would be lost on it.
  while (!server->is_running())
    if (listener.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready)
      throw ServiceError("cannot accept connections on " + url());
}

std::string SpeechService::State::url() const {
  const std::string& host = config.host;
  const std::string scheme = config.tls_certificate.empty() ? "http://" : "https://";
  const bool v6 = host.find(':') != std::string::npos;
  return scheme + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

void SpeechService::State::stop() {
  if (!listener.valid()) return;
  server->stop();
  listener.get();
}

void SpeechService::State::recognize(const httplib::Request& request, httplib::Response& response,
                                     const httplib::ContentReader& reader) {
  const Deadline deadline = Clock::now() + config.answer_within;
  // Forms would be taken apart by the HTTP layer.
  if (request.is_multipart_form_data()) return refuse(response, {415, "not_ogg_opus", "the body is a form"});
  std::string body;
  const bool fits = read_body(reader, config.max_body, body);
  if (!authorized(request)) {
    response.set_header("WWW-Authenticate", "Bearer");
    return refuse(response, {401, "unauthorized", "the access token is missing or wrong"});
  }
  if (!fits) {
    const std::string limit = std::to_string(config.max_body);
    return refuse(response, {413, "body_too_large", "the body is incomplete or over " + limit + " bytes"});
  }
  if (!supports(request.get_param_value("language"))) {
    std::string message = "unsupported language, supported:";
    for (const std::string& language : config.languages)
      message += " " + language;
    return refuse(response, {400, "unsupported_language", message});
  }

  try {
    response.set_content(success_reply(request.get_param_value("speaker"), recognize(body, deadline)), kJsonType);
  } catch (const AudioError& error) {
    refuse(response, refusal_of(error));
  } catch (const Overload& error) {
    response.set_header("Retry-After", "5");
    refuse(response, {503, "overload", error.what()});
  }
}

Recognition SpeechService::State::recognize(const std::string& body, Deadline deadline) {
  return pool.submit(decode_ogg_opus(body, config.max_duration), deadline).get().get();
}

bool SpeechService::State::authorized(const httplib::Request& request) const {
  if (config.token.empty()) return true;
  return same_secret(request.get_header_value("Authorization"), "Bearer " + config.token);
}

bool SpeechService::State::supports(const std::string& language) const {
  return std::find(config.languages.begin(), config.languages.end(), language) != config.languages.end();
}

void SpeechService::State::health(httplib::Response& response) const {
  const Health now = {config.languages, pool.engines(), pool.waiting(), config.max_waiting};
  response.set_content(health_reply(now), kJsonType);
}

void SpeechService::State::log(const std::string& line) const {
  if (config.log) config.log(line);
}

SpeechService::SpeechService(ServiceConfig config, const EngineFactory& factory)
    : state_(std::make_unique<State>(std::move(config), factory)) {}

SpeechService::~SpeechService() = default;

int SpeechService::port() const noexcept {
  return state_->port;
}

std::string SpeechService::url() const {
  return state_->url();
}

void SpeechService::stop() {
  state_->stop();
}

}  // namespace zel::speechd

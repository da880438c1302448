#include "loopback_service.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "freed.h"

namespace bench {
namespace {

constexpr std::size_t kMaxRequest = 131'072;
constexpr long kHour = 3600;

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}

using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freed<X509_free>>;
using Memory = std::unique_ptr<BIO, Freed<BIO_free_all>>;
using Context = std::unique_ptr<SSL_CTX, Freed<SSL_CTX_free>>;
using Connection = std::unique_ptr<SSL, Freed<SSL_free>>;

std::string text_of(const Memory& memory) {
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

std::string pem_of(X509* certificate) {
  const Memory memory(BIO_new(BIO_s_mem()));
  require(PEM_write_bio_X509(memory.get(), certificate) == 1, "certificate text");
  return text_of(memory);
}

std::string pem_of(EVP_PKEY* key) {
  const Memory memory(BIO_new(BIO_s_mem()));
  require(PEM_write_bio_PrivateKey(memory.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1, "key text");
  return text_of(memory);
}

// A null issuer makes it sign itself.
Certificate make_certificate(EVP_PKEY* key, const char* name, int extension, const char* value, X509* issuer,
                             EVP_PKEY* issuer_key) {
  Certificate certificate(X509_new());
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), issuer == nullptr ? 1 : 2);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kHour);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 24 * kHour);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), issuer != nullptr ? X509_get_subject_name(issuer) : subject);
  X509_EXTENSION* made = X509V3_EXT_conf_nid(nullptr, nullptr, extension, value);
  require(made != nullptr, "certificate extension");
  X509_add_ext(certificate.get(), made, -1);
  X509_EXTENSION_free(made);
  require(X509_sign(certificate.get(), issuer_key, EVP_sha256()) > 0, "certificate");
  return certificate;
}

Context make_context(const Identity& identity) {
  Context context(SSL_CTX_new(TLS_server_method()));
  const Memory certificate_text(BIO_new_mem_buf(identity.certificate.data(), -1));
  const Memory key_text(BIO_new_mem_buf(identity.key.data(), -1));
  const Certificate certificate(PEM_read_bio_X509(certificate_text.get(), nullptr, nullptr, nullptr));
  const Key key(PEM_read_bio_PrivateKey(key_text.get(), nullptr, nullptr, nullptr));
  require(SSL_CTX_use_certificate(context.get(), certificate.get()) == 1 &&
              SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1,
          "server identity");
  return context;
}

int open_listener(unsigned short& port) {
  const int opened = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  socklen_t size = sizeof address;
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  require(opened >= 0 && bind(opened, generic, size) == 0 && listen(opened, 128) == 0 &&
              getsockname(opened, generic, &size) == 0,
          "loopback service");
  port = ntohs(address.sin_port);
  return opened;
}

// Like recv and send.
using Receive = std::function<long(char*, std::size_t)>;
using Send = std::function<long(const char*, std::size_t)>;

// The head of one request, read to the end of its body; empty when the client leaves before that.
std::string read_request(const Receive& receive) {
  std::array<char, 32'768> bytes;
  std::string request;
  std::string head;
  for (std::size_t wanted = kMaxRequest; request.size() < wanted;) {
    const long count = receive(bytes.data(), bytes.size());
    if (count <= 0) return {};
    request.append(bytes.data(), static_cast<std::size_t>(count));
    const std::size_t end = request.find("\r\n\r\n");
    if (!head.empty() || end == std::string::npos) continue;
    head = request.substr(0, end + 4);
    const std::size_t length = head.find("Content-Length: ");
    wanted = end + 4 + (length < end ? std::strtoul(head.c_str() + length + 16, nullptr, 10) : 0);
  }
  return head;
}

std::string reply_with(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

void serve_exchange(const std::string& reply, const Receive& receive, const Send& send) {
  const std::string head = read_request(receive);
  if (head.empty()) return;
  const std::string echo = head.starts_with("POST /echo") ? reply_with(head) : std::string();
  const std::string& answer = echo.empty() ? reply : echo;
  send(answer.data(), answer.size());
}

void serve(int connection, const std::string& reply, SSL_CTX* context) {
  if (context == nullptr) {
    serve_exchange(
        reply, [connection](char* bytes, std::size_t size) { return recv(connection, bytes, size, 0); },
        [connection](const char* bytes, std::size_t size) { return send(connection, bytes, size, 0); });
    return;
  }
  const Connection tls(SSL_new(context));
  SSL* ssl = tls.get();
  if (ssl == nullptr || SSL_set_fd(ssl, connection) != 1 || SSL_accept(ssl) != 1) return;
  serve_exchange(
      reply, [ssl](char* bytes, std::size_t size) { return SSL_read(ssl, bytes, static_cast<int>(size)); },
      [ssl](const char* bytes, std::size_t size) { return SSL_write(ssl, bytes, static_cast<int>(size)); });
  SSL_shutdown(ssl);
}

[[noreturn]] void serve_for_ever(int listener, const std::string& reply, SSL_CTX* context) {
  for (;;) {
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    serve(connection, reply, context);
    close(connection);
  }
}

}  // namespace

// The authority signs with RSA and the server with an elliptic curve, as is usual.
Identity make_identity() {
  const Key authority_key(EVP_RSA_gen(2048));
  const Key key(EVP_EC_gen("P-256"));
  require(authority_key != nullptr && key != nullptr, "key");
  const Certificate authority = make_certificate(authority_key.get(), "Bench Authority", NID_basic_constraints,
                                                 "critical,CA:TRUE", nullptr, authority_key.get());
  const Certificate certificate = make_certificate(key.get(), "Bench Server", NID_subject_alt_name, "IP:127.0.0.1",
                                                   authority.get(), authority_key.get());
  return {pem_of(authority.get()), pem_of(certificate.get()), pem_of(key.get())};
}

LoopbackService::LoopbackService(const std::string& reply, const Identity* identity) {
  const int listener = open_listener(port_);
  origin_ = (identity != nullptr ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port_);
  const pid_t parent = getpid();
  process_ = fork();
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    std::signal(SIGPIPE, SIG_IGN);
    const Context context = identity != nullptr ? make_context(*identity) : nullptr;
    serve_for_ever(listener, reply_with(reply), context.get());
  }
  close(listener);
  require(process_ > 0, "process of the loopback service");
}

LoopbackService::~LoopbackService() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

TemporaryFile::TemporaryFile(const std::string& text) : path_("/tmp/zel-bench-XXXXXX") {
  const int file = mkstemp(path_.data());
  const bool written = file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  require(file >= 0 && close(file) == 0 && written, "temporary file");
}

TemporaryFile::~TemporaryFile() {
  unlink(path_.c_str());
}

}  // namespace bench

// A server on loopback that does to each connection what a script says and keeps what the client sent. It knows no HTTP
// beyond the end of a request, so replies can be as wrong as a test wants.
//
// Thread rule: every operation may be called from any thread. The destructor lets waiting connections go on and joins.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "test_certificates.h"

namespace kit {

// What a connection does next. After the last step, and when the client has gone, the connection is closed.
struct Step {
  enum class Kind {
    kReadRequest,  // head and the body that its Content-Length announces
    kReadHead,     // head only
    kReadSome,     // whatever comes first; not recorded
    kSend,         // the text
    kTrickle,      // the text byte by byte, again and again until the client has gone
    kStall,        // nothing until Release or the client has gone
    kTls,          // server side of a TLS handshake
    kReset,        // close with a TCP reset
    kDrop,         // end the stream without a TLS farewell
  };

  Kind kind;
  std::string text = {};
  Identity identity = Identity::kTrusted;
};

using Script = std::vector<Step>;

// The usual steps by name.
inline Step ReadRequest() {
  return {Step::Kind::kReadRequest};
}
inline Step ReadHead() {
  return {Step::Kind::kReadHead};
}
inline Step ReadSome() {
  return {Step::Kind::kReadSome};
}
inline Step Send(std::string text) {
  return {Step::Kind::kSend, std::move(text)};
}
inline Step Trickle(std::string text) {
  return {Step::Kind::kTrickle, std::move(text)};
}
inline Step Stall() {
  return {Step::Kind::kStall};
}
inline Step Tls(Identity identity = Identity::kTrusted) {
  return {Step::Kind::kTls, {}, identity};
}
inline Step Drop() {
  return {Step::Kind::kDrop};
}
inline Step Reset() {
  return {Step::Kind::kReset};
}

// A reply with a Content-Length; `headers` are whole lines.
std::string Reply(std::string_view status, std::string_view body, std::string_view headers = "");

class HttpServer {
 public:
  // The n-th connection runs the n-th script; further ones run the last. "{port}" in texts becomes the server's port.
  explicit HttpServer(std::vector<Script> scripts);
  explicit HttpServer(Script script) : HttpServer(std::vector<Script>{std::move(script)}) {}
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::uint16_t port() const { return port_; }

  // Lets every connection go on that is or will be at a kStall.
  void Release();

  // What arrived so far, one entry per request read, in the order they were complete. A request that is being read when
  // its client leaves counts as it is.
  std::vector<std::string> requests() const;

 private:
  class Connection;

  void Accept();
  void Record(std::string request);
  SSL_CTX* Context(Identity identity);

  std::vector<Script> scripts_;
  int listener_ = -1;
  int release_ = -1;  // readable once released
  int stop_ = -1;     // readable once the server ends
  std::uint16_t port_ = 0;
  mutable std::mutex mutex_;  // guards requests_ and contexts_
  std::vector<std::string> requests_;
  std::map<Identity, ContextPointer> contexts_;
  std::list<std::thread> connections_;  // the accepting thread's until it ends
  std::thread acceptor_;
};

}  // namespace kit

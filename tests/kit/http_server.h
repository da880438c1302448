// A server on loopback that does to each connection what a script says and keeps what the client sent. It knows no HTTP
// beyond the end of a request, so replies can be as wrong as a test wants.
//
// On Linux it runs in the test's process. On Windows it runs in kit-server, a Linux process beside the test at the
// address in ZEL_TEST_SERVER, and this is its remote control (control_link.h).
//
// Thread rule: every operation may be called from any thread. The destructor lets waiting connections go on and joins.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "http_script.h"

namespace kit {

class HttpServer {
 public:
  // The n-th connection runs the n-th script; further ones run the last. "{port}" in texts becomes the server's port,
  // "{hash}" the RequestHash of the connection's last request.
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
  struct State;
  std::uint16_t port_ = 0;
  std::unique_ptr<State> state_;
};

// Makes the exchanges of this process trust the servers' authority, and go to no proxy. Call before the first exchange.
void TrustTestAuthority();
void UseNoProxy();

}  // namespace kit

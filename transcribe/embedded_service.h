// The speech service inside the program: offline, on a free port of the loopback network, with a token nobody knows.
//
// Thread rule: constructor and destructor on one thread. The constructor must come before other threads: it changes the
// environment, so that no proxy is asked for the loopback address. Errors: std::runtime_error.
#pragma once

#include <memory>
#include <string>

namespace zel::transcribe {

class EmbeddedService {
 public:
  EmbeddedService();
  ~EmbeddedService();
  EmbeddedService(const EmbeddedService&) = delete;
  EmbeddedService& operator=(const EmbeddedService&) = delete;

  const std::string& endpoint() const { return endpoint_; }
  const std::string& token() const { return token_; }

 private:
  struct Service;
  std::string token_;
  std::unique_ptr<Service> service_;
  std::string endpoint_;
};

/** Languages that it recognizes. */
bool embedded_service_knows(const std::string& language);

}  // namespace zel::transcribe

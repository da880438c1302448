// Certificates for servers on loopback, made when a test runs and forgotten with it.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "http_script.h"

namespace kit {

struct ContextFree {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using ContextPointer = std::unique_ptr<SSL_CTX, ContextFree>;

// The authority of this process, and server contexts with certificates that it signed.
class Authority {
 public:
  static Authority& Get();

  // PEM file with the authority's certificate, removed when the process ends.
  const std::string& file() const { return file_; }
  std::string Der() const;
  ContextPointer MakeContext(Identity identity) const;

  Authority(const Authority&) = delete;
  Authority& operator=(const Authority&) = delete;

 private:
  Authority();
  ~Authority();

  EVP_PKEY* key_;
  X509* certificate_;
  std::string file_;
};

}  // namespace kit

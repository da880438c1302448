// Certificates for servers on loopback, made when a test runs and forgotten with it.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace kit {

struct ContextFree {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using ContextPointer = std::unique_ptr<SSL_CTX, ContextFree>;

enum class Identity {
  kTrusted,     // 127.0.0.1 and localhost, signed by the test authority
  kOtherHost,   // another host's, signed by the test authority
  kExpired,     // out of date, signed by the test authority
  kSelfSigned,  // signed by itself
};

// The authority of this process, and server contexts with certificates that it signed.
class Authority {
 public:
  static Authority& Get();

  // PEM file with the authority's certificate, removed when the process ends.
  const std::string& file() const { return file_; }
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

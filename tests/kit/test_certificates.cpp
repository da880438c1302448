#include "test_certificates.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace kit {
namespace {

constexpr long kDay = 24 * 60 * 60;

void Require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}

void AddExtension(X509* certificate, int nid, const char* value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value);
  Require(extension != nullptr, "certificate extension");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

// A certificate for `key`; a null issuer makes it sign itself.
X509* MakeCertificate(EVP_PKEY* key, const char* name, const char* alternative_name, bool authority, long first_day,
                      X509* issuer, EVP_PKEY* issuer_key) {
  X509* certificate = X509_new();
  X509_set_version(certificate, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), std::rand() + 1L);
  X509_gmtime_adj(X509_getm_notBefore(certificate), first_day * kDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate), (first_day + 3) * kDay);
  X509_set_pubkey(certificate, key);
  X509_NAME* subject = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
  X509_set_issuer_name(certificate, issuer != nullptr ? X509_get_subject_name(issuer) : subject);
  AddExtension(certificate, NID_basic_constraints, authority ? "critical,CA:TRUE" : "CA:FALSE");
  if (alternative_name != nullptr) AddExtension(certificate, NID_subject_alt_name, alternative_name);
  Require(X509_sign(certificate, issuer_key != nullptr ? issuer_key : key, EVP_sha256()) > 0, "certificate");
  return certificate;
}

}  // namespace

Authority& Authority::Get() {
  static Authority authority;
  return authority;
}

// RSA, because Wine refuses about one in a hundred ECDSA signatures: those with a number that begins with a zero byte.
Authority::Authority() : key_(EVP_RSA_gen(2048)), certificate_(nullptr), file_("/tmp/zel-test-ca-XXXXXX") {
  Require(key_ != nullptr, "key");
  certificate_ = MakeCertificate(key_, "Test Authority", nullptr, true, -1, nullptr, nullptr);
  const int descriptor = mkstemp(file_.data());
  std::FILE* file = descriptor >= 0 ? fdopen(descriptor, "w") : nullptr;
  Require(file != nullptr && PEM_write_X509(file, certificate_) == 1 && std::fclose(file) == 0, "certificate file");
}

Authority::~Authority() {
  unlink(file_.c_str());
  X509_free(certificate_);
  EVP_PKEY_free(key_);
}

std::string Authority::Der() const {
  unsigned char* bytes = nullptr;
  const int size = i2d_X509(certificate_, &bytes);
  Require(size > 0, "certificate");
  const std::string der(bytes, bytes + size);
  OPENSSL_free(bytes);
  return der;
}

ContextPointer Authority::MakeContext(Identity identity) const {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  EVP_PKEY* stranger = EVP_EC_gen("P-256");
  Require(key != nullptr && stranger != nullptr, "key");
  const char* name = identity == Identity::kOtherHost ? "DNS:other.invalid" : "IP:127.0.0.1,DNS:localhost";
  const long first_day = identity == Identity::kExpired ? -10 : identity == Identity::kNotYet ? 1 : -1;
  X509* unknown = MakeCertificate(stranger, "Unknown Authority", nullptr, true, -1, nullptr, nullptr);
  X509* issuer = identity == Identity::kStranger ? unknown : identity == Identity::kSelfSigned ? nullptr : certificate_;
  X509* certificate = MakeCertificate(key, "Test Server", name, false, first_day, issuer,
                                      issuer == unknown   ? stranger
                                      : issuer != nullptr ? key_
                                                          : nullptr);
  ContextPointer context(SSL_CTX_new(TLS_server_method()));
  bool ok = context != nullptr;
  if (ok && identity == Identity::kOldTls) {
    SSL_CTX_set_security_level(context.get(), 0);
    ok = SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION) == 1 &&
         SSL_CTX_set_max_proto_version(context.get(), TLS1_VERSION) == 1;
  }
  if (ok && identity == Identity::kAsksBack) {
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  ok =
      ok && SSL_CTX_use_certificate(context.get(), certificate) == 1 && SSL_CTX_use_PrivateKey(context.get(), key) == 1;
  X509_free(certificate);
  X509_free(unknown);
  EVP_PKEY_free(stranger);
  EVP_PKEY_free(key);
  Require(ok, "server context");
  return context;
}

}  // namespace kit

#include "trust_store.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

namespace {

struct TrustState {
  X509_STORE* store;  // never released: handshakes may run until the process ends
  bool shared;        // libcurl's TLS library is this OpenSSL
};

TrustState trust;
pthread_once_t backend_once = PTHREAD_ONCE_INIT;
pthread_once_t store_once = PTHREAD_ONCE_INIT;

// OpenSSL's variables, otherwise what libcurl was built with. Either may be null.
const char* BundleFile() {
  const char* file = secure_getenv("SSL_CERT_FILE");
  return file != nullptr && *file != '\0' ? file : curl_version_info(CURLVERSION_NOW)->cainfo;
}

const char* BundleFolder() {
  const char* folder = secure_getenv("SSL_CERT_DIR");
  return folder != nullptr && *folder != '\0' ? folder : curl_version_info(CURLVERSION_NOW)->capath;
}

// A context of one OpenSSL must not reach another one's functions.
void CompareBackend() {
  const char* backend = curl_version_info(CURLVERSION_NOW)->ssl_version;
  constexpr char kName[] = "OpenSSL/";
  trust.shared = backend != nullptr && strncmp(backend, kName, sizeof kName - 1) == 0 &&
                 strcmp(backend + sizeof kName - 1, OpenSSL_version(OPENSSL_VERSION_STRING)) == 0;
}

// Whatever cannot be read is left out; without certificates no server is trusted.
void LoadStore() {
  X509_STORE* store = X509_STORE_new();
  if (store == nullptr) return;
  const char* file = BundleFile();
  const char* folder = BundleFolder();
  if (file != nullptr) X509_STORE_load_locations(store, file, nullptr);
  if (folder != nullptr) X509_STORE_load_locations(store, nullptr, folder);
  // As libcurl sets up its own.
  X509_STORE_set_flags(store, X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
  ERR_clear_error();
  trust.store = store;
}

CURLcode PrepareContext(CURL*, void* context, void*) {
  pthread_once(&store_once, LoadStore);
  SSL_CTX* ssl = static_cast<SSL_CTX*>(context);
  if (trust.store == nullptr) return CURLE_OUT_OF_MEMORY;
  SSL_CTX_set1_cert_store(ssl, trust.store);
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
  // Many servers end a connection without saying so; lengths tell whether a body is whole.
  SSL_CTX_set_options(ssl, SSL_OP_IGNORE_UNEXPECTED_EOF);
#endif
  return CURLE_OK;
}

bool UseShared(CURL* easy) {
  constexpr CURLoption kSources[] = {CURLOPT_CAINFO, CURLOPT_CAPATH, CURLOPT_PROXY_CAINFO, CURLOPT_PROXY_CAPATH};
  for (const CURLoption source : kSources) {
    if (curl_easy_setopt(easy, source, static_cast<char*>(nullptr)) != CURLE_OK) return false;
  }
  return curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, PrepareContext) == CURLE_OK;
}

bool UseOwnOfLibrary(CURL* easy) {
  const char* file = BundleFile();
  const char* folder = BundleFolder();
  if (file != nullptr && curl_easy_setopt(easy, CURLOPT_CAINFO, file) != CURLE_OK) return false;
  // Not every TLS library takes a folder; the file is enough then.
  if (folder != nullptr) curl_easy_setopt(easy, CURLOPT_CAPATH, folder);
  return true;
}

}  // namespace

bool zelHttpTrustStore_Use(CURL* easy) {
  pthread_once(&backend_once, CompareBackend);
  if (curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2)) != CURLE_OK) {
    return false;
  }
  return trust.shared ? UseShared(easy) : UseOwnOfLibrary(easy);
}

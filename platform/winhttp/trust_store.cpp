#include "trust_store.h"

#include <errno.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

namespace {

X509_STORE* trusted;     // atomic; never released: handshakes may run until the process ends
bool is_backend_shared;  // libcurl's TLS library is this OpenSSL
pthread_once_t backend_once = PTHREAD_ONCE_INIT;
pthread_mutex_t loading = PTHREAD_MUTEX_INITIALIZER;

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
  is_backend_shared = backend != nullptr && strncmp(backend, kName, sizeof kName - 1) == 0 &&
                      strcmp(backend + sizeof kName - 1, OpenSSL_version(OPENSSL_VERSION_STRING)) == 0;
}

enum AddResult : int {
  ADDED_ALL = 0,
  ADDED_PART = 1,  // something is missing or no certificate
  RAN_SHORT = 2,   // of memory or descriptors, which may be over soon
};

// Adds a file's or a folder's certificates. Not every shortage can be told from something missing: some leave no trace
// but the failure, some a trace but no failure, and some the trace of something else.
AddResult Add(X509_STORE* store, const char* file, const char* folder) {
  if (file == nullptr && folder == nullptr) return ADDED_ALL;
  ERR_clear_error();
  const bool ok = X509_STORE_load_locations(store, file, folder) == 1;
  bool shortage = !ok && ERR_peek_error() == 0;
  for (unsigned long error; (error = ERR_get_error()) != 0;) {
    const int reason = ERR_GET_REASON(error);
    const bool system = ERR_GET_LIB(error) == ERR_LIB_SYS;
    if (system ? reason == EMFILE || reason == ENFILE || reason == ENOMEM : reason == ERR_R_MALLOC_FAILURE)
      shortage = true;
  }
  if (shortage) return RAN_SHORT;
  return ok ? ADDED_ALL : ADDED_PART;
}

// Null on a shortage. Without certificates no server is trusted.
X509_STORE* LoadStore(bool* whole) {
  *whole = false;
  X509_STORE* store = X509_STORE_new();
  if (store == nullptr) return nullptr;
  const AddResult file = Add(store, BundleFile(), nullptr);
  const AddResult folder = file != RAN_SHORT ? Add(store, nullptr, BundleFolder()) : RAN_SHORT;
  // The flags are those that libcurl gives its own.
  if (folder != RAN_SHORT && X509_STORE_set_flags(store, X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN) == 1) {
    *whole = file == ADDED_ALL && folder == ADDED_ALL;
    return store;
  }
  X509_STORE_free(store);
  return nullptr;
}

// A reference to the shared certificates or, while not all can be loaded, to those of one handshake alone: the next one
// tries again. Null on a shortage.
X509_STORE* TakeStore() {
  X509_STORE* store = __atomic_load_n(&trusted, __ATOMIC_ACQUIRE);
  bool shared = store != nullptr;
  if (!shared) {
    pthread_mutex_lock(&loading);
    store = trusted;
    shared = store != nullptr;
    if (!shared) store = LoadStore(&shared);
    if (shared) __atomic_store_n(&trusted, store, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&loading);
  }
  if (shared) X509_STORE_up_ref(store);
  return store;
}

// OpenSSL does not return from a handshake, nor from reading behind one, as long as a peer sends handshake messages
// faster than they are taken. Behind the deadline nothing more comes: it reads from where nothing ever is. That is
// neither an error nor an end, so that a body which lasts until the end of the stream cannot seem whole.
void OnMessage(int written, int, int, const void*, size_t, SSL* ssl, void* user) {
  if (written != 0 || !SSL_in_init(ssl) || !zelHttpTransfer_IsOver(static_cast<Transfer*>(user))) return;
  SSL_set0_rbio(ssl, BIO_new(BIO_s_mem()));  // reading fails without
}

CURLcode PrepareContext(CURL*, void* context, void* user) {
  SSL_CTX* ssl = static_cast<SSL_CTX*>(context);
  X509_STORE* store = TakeStore();
  if (store == nullptr) return CURLE_OUT_OF_MEMORY;
  SSL_CTX_set_cert_store(ssl, store);
  SSL_CTX_set_msg_callback(ssl, OnMessage);
  SSL_CTX_set_msg_callback_arg(ssl, user);
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
  // Many servers end a connection without saying so; lengths tell whether a body is whole.
  SSL_CTX_set_options(ssl, SSL_OP_IGNORE_UNEXPECTED_EOF);
#endif
  return CURLE_OK;
}

bool UseShared(Transfer* transfer) {
  CURL* easy = transfer->easy;
  constexpr CURLoption kSources[] = {CURLOPT_CAINFO, CURLOPT_CAPATH, CURLOPT_PROXY_CAINFO, CURLOPT_PROXY_CAPATH};
  for (const CURLoption source : kSources) {
    if (curl_easy_setopt(easy, source, static_cast<char*>(nullptr)) != CURLE_OK) return false;
  }
  return curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, transfer) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, PrepareContext) == CURLE_OK;
}

bool UseOwnOfLibrary(CURL* easy) {
  const char* file = BundleFile();
  const char* folder = BundleFolder();
  constexpr CURLoption kFiles[] = {CURLOPT_CAINFO, CURLOPT_PROXY_CAINFO};
  constexpr CURLoption kFolders[] = {CURLOPT_CAPATH, CURLOPT_PROXY_CAPATH};
  for (const CURLoption option : kFiles) {
    if (file != nullptr && curl_easy_setopt(easy, option, file) != CURLE_OK) return false;
  }
  // Not every TLS library takes a folder; the file is enough then.
  for (const CURLoption option : kFolders) {
    if (folder != nullptr) curl_easy_setopt(easy, option, folder);
  }
  return true;
}

}  // namespace

bool zelHttpTrustStore_Use(Transfer* transfer) {
  CURL* easy = transfer->easy;
  pthread_once(&backend_once, CompareBackend);
  constexpr long kVersion = CURL_SSLVERSION_TLSv1_2;
  if (curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_SSLVERSION, kVersion) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_PROXY_SSLVERSION, kVersion) != CURLE_OK) {
    return false;
  }
  return is_backend_shared ? UseShared(transfer) : UseOwnOfLibrary(easy);
}

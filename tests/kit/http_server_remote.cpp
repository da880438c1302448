// The scripted server by remote control, for Windows.
#include <winsock2.h>
// Before the system's other headers, which would bring an older one.
#include <wincrypt.h>
#include <windows.h>

#include <cstdlib>
#include <mutex>
#include <stdexcept>

#include "control_link.h"
#include "http_server.h"

namespace kit {
namespace {

class Control {
 public:
  Control() {
    static const int started = [] {
      WSADATA data;
      return WSAStartup(MAKEWORD(2, 2), &data);
    }();
    const char* address = std::getenv("ZEL_TEST_SERVER");
    const std::string text = address != nullptr ? address : "";
    const std::size_t colon = text.find(':');
    if (started != 0 || colon == std::string::npos) throw std::runtime_error("ZEL_TEST_SERVER names no kit-server");
    sockaddr_in name = {};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = inet_addr(text.substr(0, colon).c_str());
    name.sin_port = htons(static_cast<u_short>(std::stoi(text.substr(colon + 1))));
    socket_ = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(socket_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
      closesocket(socket_);
      throw std::runtime_error("kit-server does not answer");
    }
  }
  // Returns when the server has ended.
  ~Control() {
    shutdown(socket_, SD_SEND);
    ReceiveTexts(socket_);
    closesocket(socket_);
  }
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  std::vector<std::string> Ask(const std::vector<std::string>& request) {
    const std::lock_guard lock(mutex_);
    if (SendTexts(socket_, request)) {
      if (std::optional<std::vector<std::string>> answer = ReceiveTexts(socket_)) return std::move(*answer);
    }
    throw std::runtime_error("kit-server has gone");
  }

 private:
  SOCKET socket_;
  std::mutex mutex_;
};

}  // namespace

struct HttpServer::State : Control {};

HttpServer::HttpServer(std::vector<Script> scripts) : state_(std::make_unique<State>()) {
  port_ = static_cast<std::uint16_t>(std::stoi(state_->Ask({"serve", PackScripts(scripts)}).at(0)));
}

HttpServer::~HttpServer() = default;

void HttpServer::Release() {
  state_->Ask({"release"});
}

std::vector<std::string> HttpServer::requests() const {
  return state_->Ask({"requests"});
}

// Into the user's store of trusted roots. Only for a user made for the tests, such as that of a Wine prefix of their
// own.
void TrustTestAuthority() {
  const std::string certificate = Control().Ask({"authority"}).at(0);
  const HCERTSTORE store =
      CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, static_cast<const void*>(L"Root"));
  const bool added =
      store != nullptr && CertAddEncodedCertificateToStore(
                              store, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(certificate.data()),
                              static_cast<DWORD>(certificate.size()), CERT_STORE_ADD_USE_EXISTING, nullptr) != FALSE;
  if (store != nullptr) CertCloseStore(store, 0);
  if (!added) throw std::runtime_error("the test authority is not trusted");
}

// Wine's default proxy comes from the environment, the user's from the registry, where a new user has none.
void UseNoProxy() {
  for (const char* name : {"http_proxy", "HTTP_PROXY"})
    SetEnvironmentVariableA(name, nullptr);
}

}  // namespace kit

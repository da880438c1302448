#include "embedded_service.h"

#include <cstdio>
#include <cstdlib>
#include <random>

#include "pocketsphinx_engine.h"
#include "speech_service.h"

namespace zel::transcribe {
namespace {

constexpr const char* kLoopback = "127.0.0.1";

void bypass_proxy() {
  for (const char* name : {"no_proxy", "NO_PROXY"}) {
    const char* old = std::getenv(name);
    const std::string value = old != nullptr && *old != '\0' ? std::string(old) + "," + kLoopback : kLoopback;
    if (old == nullptr || std::string(old) != "*") setenv(name, value.c_str(), 1);
  }
}

std::string random_token() {
  std::random_device random;
  std::string token;
  for (int i = 0; i < 8; ++i) {
    char word[9];
    std::snprintf(word, sizeof word, "%08x", random());
    token += word;
  }
  return token;
}

speechd::ServiceConfig config(const std::string& token) {
  speechd::ServiceConfig config;
  config.host = kLoopback;
  config.token = token;
  config.languages = {speechd::kPocketSphinxLanguage};
  config.log = [](const std::string& line) { std::fprintf(stderr, "speech service: %s\n", line.c_str()); };
  return config;
}

}  // namespace

struct EmbeddedService::Service {
  speechd::SpeechService service;
};

EmbeddedService::EmbeddedService() : token_(random_token()) {
  bypass_proxy();
  service_.reset(new Service{speechd::SpeechService(config(token_), speechd::pocketsphinx_factory())});
  endpoint_ = service_->service.url() + "/v1/recognize";
}

EmbeddedService::~EmbeddedService() = default;

bool embedded_service_knows(const std::string& language) {
  return language == speechd::kPocketSphinxLanguage;
}

}  // namespace zel::transcribe

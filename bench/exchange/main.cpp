// bench_exchange: what an exchange costs, from the hand-over to the worker up to the text.
#include <curl/curl.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include "bridge_services.h"
#include "exchange.h"
#include "hostile_service.h"
#include "loopback_service.h"
#include "program.h"
#include "zel_rtc_speech_to_text.h"

namespace {

constexpr char kReply[] = R"({"result":"success","version":"1.0","speaker":"user01","text":"one two three four five"})";

// The certificates that libcurl uses on this system.
std::string system_certificates() {
  const char* file = curl_version_info(CURLVERSION_NOW)->cainfo;
  std::ifstream stream(file != nullptr ? file : "");
  std::string text{std::istreambuf_iterator<char>(stream), {}};
  if (text.empty()) throw std::runtime_error("no system certificates");
  return text;
}

int run(int argc, char** argv) {
  // The services come first: they are forked, and this process must have no threads yet.
  const bench::Identity identity = bench::make_identity();
  const bench::LoopbackService plain(kReply);
  const bench::LoopbackService tls(kReply, &identity);
  const bench::TemporaryFile authority(identity.authority);
  const bench::TemporaryFile bundle(system_certificates() + identity.authority);
  bench::use_no_proxy();
  setenv("SSL_CERT_FILE", bundle.path().c_str(), 1);  // what the plug-in trusts, whichever exchange comes first
  unsetenv("SSL_CERT_DIR");
  std::signal(SIGPIPE, SIG_IGN);  // the plug-in sees to that itself, libcurl's easy interface does not
  curl_global_init(CURL_GLOBAL_DEFAULT);
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&zel::host::bridge_interface());

  const bench::Services services = {plain.origin(), tls.origin(), authority.path(), bundle.path()};
  return bench::run_program(argc, argv, [&services] {
    bench::register_exchanges(services);
    bench::register_hand_over();
    bench::register_last_words(services);
  });
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "bench_exchange: " << error.what() << '\n';
    return 1;
  }
}

// zel-speechd: the speech service as a program.
#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <string>
#include <utility>

#include "pocketsphinx_engine.h"
#include "speech_service.h"

namespace {

using zel::speechd::ServiceConfig;

constexpr int kFailure = 1;
constexpr int kUsage = 2;

struct Options {
  std::string listen = "127.0.0.1:8080";
  std::string token;
  std::string token_file;
  std::string model = zel::speechd::default_model_folder();
  ServiceConfig service;
};

void add_options(CLI::App& app, Options& options) {
  app.add_option("--listen", options.listen, "address and port; port 0: any free one")
      ->type_name("HOST:PORT")
      ->capture_default_str();
  auto* token = app.add_option("--token", options.token,
                               "bearer token that requests must carry; seen by everybody who "
                               "may list processes, so better use --token-file");
  app.add_option("--token-file", options.token_file, "file whose first line is the token")->excludes(token);
  auto* certificate =
      app.add_option("--tls-cert", options.service.tls_certificate, "PEM file with the certificate chain")
          ->check(CLI::ExistingFile);
  auto* key =
      app.add_option("--tls-key", options.service.tls_key, "PEM file with the private key")->check(CLI::ExistingFile);
  certificate->needs(key);
  key->needs(certificate);
  app.add_option("--threads", options.service.engines, "utterances recognized at the same time; default: one per core")
      ->check(CLI::Range(1, 256));
  app.add_option("--max-waiting", options.service.max_waiting, "utterances that may wait for a thread")
      ->check(CLI::Range(0, 1024))
      ->capture_default_str();
  app.add_option("--model", options.model, "folder of the recognition model")->capture_default_str();
  app.footer(
      "The service answers POST /v1/recognize?language=en-US&speaker=NAME with an Ogg Opus body, and GET "
      "/healthz.\nIt runs until SIGTERM or SIGINT and finishes what is in flight then.");
}

void split_address(const std::string& listen, ServiceConfig& config) {
  const std::size_t colon = listen.rfind(':');
  if (colon == std::string::npos) throw CLI::ValidationError("--listen", "HOST:PORT is needed, not " + listen);
  config.host = listen.substr(0, colon);
  if (config.host.size() > 2 && config.host.front() == '[' && config.host.back() == ']')
    config.host = config.host.substr(1, config.host.size() - 2);
  if (config.host.empty()) throw CLI::ValidationError("--listen", "a host is needed before the port");
  if (!CLI::detail::lexical_cast(listen.substr(colon + 1), config.port) || config.port < 0 || config.port > 65535)
    throw CLI::ValidationError("--listen", "the port must be a number from 0 to 65535");
}

std::string read_token(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  if (line.empty()) throw CLI::ValidationError("--token-file", "no token can be read from " + path);
  return line;
}

void complete(Options& options) {
  split_address(options.listen, options.service);
  options.service.token = options.token_file.empty() ? options.token : read_token(options.token_file);
  options.service.languages = {zel::speechd::kPocketSphinxLanguage};
  options.service.log = [](const std::string& line) { std::fprintf(stderr, "zel-speechd: %s\n", line.c_str()); };
  if (options.service.token.empty() && !zel::speechd::is_loopback(options.service.host))
    throw CLI::ValidationError("--listen", "listening beyond this machine needs --token or --token-file");
}

// Until a signal ends it. Throws when the service cannot be set up.
void serve(ServiceConfig config, const std::string& model) {
  // Blocked before the first thread starts, so that every thread leaves them to this one.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const bool open = config.tls_certificate.empty() && !zel::speechd::is_loopback(config.host);
  zel::speechd::SpeechService service(std::move(config), zel::speechd::pocketsphinx_factory(model));
  if (open) std::fputs("zel-speechd: warning: token and voices travel unencrypted; see --tls-cert\n", stderr);
  std::printf("listening on %s\n", service.url().c_str());
  std::fflush(stdout);

  int signal = 0;
  sigwait(&signals, &signal);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);  // a second one ends the program at once
  service.stop();
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Local speech recognition service for the voice-room speech-to-text plug-in (US English).",
               "zel-speechd");
  Options options;
  try {
    add_options(app, options);
    app.parse(argc, argv);
    complete(options);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  serve(std::move(options.service), options.model);
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "zel-speechd: %s\n", error.what());
  return kFailure;
}

// The speech service: HTTP(S) in front of a pool of recognition engines.
//
//   POST /v1/recognize?language=en-US&speaker=NAME   body: one utterance as an Ogg Opus stream
//   GET  /healthz                                    needs no token
//
// Every answer is JSON. A recognition's says "result" "success" with "speaker" and "text"; a refusal's says "result"
// "error" with "error_code" and "error_message" under a fitting HTTP status:
//
//   401 unauthorized          no token, or not this one
//   400 unsupported_language  none, or not one of the engine's
//   413 body_too_large        over max_body
//   415 not_ogg_opus          something else, or damaged
//   400 empty_audio           no body, or a stream without audio
//   413 audio_too_long        over max_duration
//   503 overload              the queue is full, or the answer would come too late
//   500 internal              the engine failed
//   404 not_found, 400 bad_request
//
// Thread rule: constructor, stop and destructor on one thread; the rest from any.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine.h"

namespace zel::speechd {

struct ServiceConfig {
  std::string host = "127.0.0.1";    ///< address or name to listen on
  int port = 0;                      ///< 0: any free one
  std::string token = {};            ///< bearer token that requests must carry; empty: none is asked for
  std::string tls_certificate = {};  ///< PEM file with the certificate chain; with tls_key: HTTPS
  std::string tls_key = {};          ///< PEM file with the private key

  std::vector<std::string> languages = {"en-US"};  ///< what the engine recognizes
  std::size_t engines = 0;                         ///< engines working side by side; 0: one per core
  std::size_t max_waiting = 32;                    ///< utterances that wait for an engine
  std::size_t max_body = 81920;                    ///< bytes
  std::chrono::seconds max_duration{65};           ///< of one utterance
  /** From the arrival of a request to its answer. Clients give up after 20 s. */
  std::chrono::milliseconds answer_within{18'000};

  std::function<void(const std::string&)> log = {};  ///< one line per failure of the service itself; from any thread
};

/** The service cannot be set up: certificate, key, address. */
class ServiceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/** One per core. */
std::size_t default_engines();

/** Whether only this machine can reach a listener on `host`: an address of the loopback network, or "localhost". */
bool is_loopback(const std::string& host);

class SpeechService {
 public:
  /** Makes the engines and listens: requests are answered once this returns. Throws ServiceError, and what the factory
   * throws. */
  SpeechService(ServiceConfig config, const EngineFactory& factory);
  /** Stops. */
  ~SpeechService();
  SpeechService(const SpeechService&) = delete;
  SpeechService& operator=(const SpeechService&) = delete;

  /** The port listened on. */
  int port() const noexcept;
  /** Scheme, host and port, without a path. */
  std::string url() const;

  /** Accepts no more requests and returns when all accepted ones have been answered. */
  void stop();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zel::speechd

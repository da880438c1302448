// What the service needs of a speech recognition engine.
//
// Thread rule: an engine belongs to one thread; different engines work at the same time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace zel::speechd {

/** Sampling rate of all audio handed to engines, Hz; one channel. */
inline constexpr int kSampleRate = 16000;

using Deadline = std::chrono::steady_clock::time_point;

/** What was heard. */
struct Recognition {
  std::string text;      ///< UTF-8; empty when nothing was understood
  bool complete = true;  ///< false when the deadline came before the end of the audio
};

class Engine {
 public:
  virtual ~Engine() = default;

  /** Recognizes one utterance on its own: earlier ones leave no trace. Stops early rather than miss the deadline, as
   * well as it can foresee that. Throws on failure; the engine stays usable. */
  virtual Recognition recognize(std::span<const std::int16_t> samples, Deadline deadline) = 0;
};

/** Makes one engine; throws when it cannot. Called on the thread that will use the engine, on several at once. */
using EngineFactory = std::function<std::unique_ptr<Engine>()>;

}  // namespace zel::speechd

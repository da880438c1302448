// Engines that answer by the number of samples they get, and that a test can hold up.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "engine.h"

namespace speechd_test {

class Script {
 public:
  // Engines do not answer until Open. Closed at first when so made.
  explicit Script(bool open = true) : open_(open) {}

  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  // Returns when so many engines are at work.
  void AwaitBusy(int engines) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return busy_ >= engines; });
  }
  zel::speechd::EngineFactory Factory() {
    return [this] {
      ++made;
      return std::make_unique<ScriptedEngine>(*this);
    };
  }

  std::atomic<int> made{0};
  bool fail = false;  // set before engines are at work

 private:
  struct ScriptedEngine final : zel::speechd::Engine {
    explicit ScriptedEngine(Script& the_script) : script(the_script) {}
    zel::speechd::Recognition recognize(std::span<const std::int16_t> samples, zel::speechd::Deadline) override {
      std::unique_lock lock(script.mutex_);
      ++script.busy_;
      script.changed_.notify_all();
      script.changed_.wait(lock, [this] { return script.open_; });
      --script.busy_;
      if (script.fail) throw std::runtime_error("scripted failure");
      return {std::to_string(samples.size()) + " samples"};
    }
    Script& script;
  };

  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_;
  int busy_ = 0;
};

}  // namespace speechd_test

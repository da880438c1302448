// Stands in for the executor of HTTP exchanges: no network, replies as scripted. An executable that links it leaves the
// real one out.
//
// Thread rule: workers execute on their threads; script and look at exchanges from the test's.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct ScriptedReply {
  std::string body = "{}";
  std::int32_t result = 0;  // of zelWreq_Execute
  std::uint32_t status_code = 200;
  std::uint32_t error_kind = 0;  // written when the result is 1
};

// A reply that reports success.
ScriptedReply Recognized(const std::string& text);

// One request as the executor got it.
struct Exchange {
  std::string url, method;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::int32_t timeout_sec = 0;
  std::optional<std::string> user_name, user_pass;
};

class ScriptedExecutor {
 public:
  ScriptedExecutor() { current = this; }
  ~ScriptedExecutor() { current = nullptr; }
  ScriptedExecutor(const ScriptedExecutor&) = delete;
  ScriptedExecutor& operator=(const ScriptedExecutor&) = delete;

  // For one exchange, first come first served; then the default.
  void Reply(ScriptedReply reply) {
    const std::lock_guard lock(mutex_);
    replies_.push_back(std::move(reply));
  }
  // Exchanges do not end until LetGo.
  void Hold() { held_ = true; }
  void LetGo() {
    const std::lock_guard lock(mutex_);
    held_ = false;
    changed_.notify_all();
  }
  // Until n have begun.
  void WaitForExchanges(std::size_t n) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return exchanges_.size() >= n; });
  }
  std::vector<Exchange> exchanges() {
    const std::lock_guard lock(mutex_);
    return exchanges_;
  }

  // Records the exchange and answers it.
  ScriptedReply Execute(Exchange exchange);

  inline static ScriptedExecutor* current;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::atomic<bool> held_ = false;
  std::deque<ScriptedReply> replies_;
  std::vector<Exchange> exchanges_;
};

// Stands in for the executor of HTTP exchanges: no network, replies as scripted. An executable that links it leaves the
// real one out.
//
// Thread rule: workers execute on their threads; script and look at exchanges from the test's.
#pragma once

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
  ScriptedExecutor();
  ~ScriptedExecutor();
  ScriptedExecutor(const ScriptedExecutor&) = delete;
  ScriptedExecutor& operator=(const ScriptedExecutor&) = delete;

  void Reply(ScriptedReply reply);       // for one exchange, first come first served; then the default
  void Hold();                           // exchanges do not end until
  void LetGo();                          // this
  void WaitForExchanges(std::size_t n);  // until n have begun
  std::vector<Exchange> exchanges();

  // Records the exchange and answers it.
  ScriptedReply Execute(Exchange exchange);

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool held_ = false;
  std::deque<ScriptedReply> replies_;
  std::vector<Exchange> exchanges_;
};

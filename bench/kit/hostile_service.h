// A speech service on loopback that serves and fails at random, by seed.
//
// A connection carries one exchange. The service always ends it first, so that ports rest on its side of the connection
// and the client's never run out.
//
// Thread rule: every operation may be called from any thread. The service's threads are all there are from the
// constructor on; they answer from prepared texts. Errors: constructor throws std::system_error.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "random.h"

namespace bench {

class HostileService {
 public:
  /** What was answered to one speaker, as far as the answer went out whole. */
  struct Answers {
    std::uint64_t texts = 0;
    std::uint64_t empty_texts = 0;
    std::uint64_t failures = 0;  ///< everything else that happened to a request whose speaker was read
  };

  /** `max_stall_ms`: longest time that an answer is held back. */
  HostileService(std::uint64_t seed, std::uint32_t max_stall_ms);
  ~HostileService();
  HostileService(const HostileService&) = delete;
  HostileService& operator=(const HostileService&) = delete;

  std::string url() const;
  /** Where every connection is refused. */
  std::string refusing_url() const;
  /** By speaker. */
  std::map<std::string, Answers> answers() const;
  std::uint64_t connections() const { return connections_.load(); }
  /** Waits until no connection is open on this side. False when that has not come true after `limit`. */
  bool wait_until_idle(std::chrono::seconds limit);

 private:
  void serve(std::uint64_t seed);
  void serve_connection(int socket, Random& random);
  void hold_back(Random& random) const;
  void count(const std::string& speaker, std::uint64_t Answers::*kind);

  const std::uint32_t max_stall_ms_;
  int listener_ = -1;
  int refusing_ = -1;  // bound, and nobody listens
  std::atomic<bool> ended_{false};
  std::atomic<std::uint64_t> connections_{0};
  mutable std::mutex mutex_;
  std::map<std::string, Answers> answers_;  // guarded by mutex_
  int open_ = 0;                            // connections accepted and not closed; guarded by mutex_
  std::condition_variable closed_;
  std::vector<std::thread> threads_;
};

/** Where a program prints from now on; standard output itself goes nowhere. The plug-in's JSON reader complains there,
 * once for each of the replies it cannot make sense of. */
std::FILE* take_standard_output();

/** Lets every connection of this process go straight to its address. Call before there are threads. */
void use_no_proxy();

}  // namespace bench

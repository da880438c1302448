#include "watchdog.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace bench {
namespace {

constexpr int kMaxStill = 300;  // seconds: more than the time-outs of two exchanges, 80 s each

// By gdb when it is there; the core that abort leaves has them too.
[[noreturn]] void dump_and_abort() {
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  const std::string process = std::to_string(getpid());
  const pid_t child = fork();
  if (child == 0) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    execlp("gdb", "gdb", "-p", process.c_str(), "-batch", "-ex", "thread apply all bt 16", nullptr);
    _exit(127);
  }
  if (child > 0) waitpid(child, nullptr, 0);
  std::abort();
}

}  // namespace

void Watchdog::watch(std::stop_token end) {
  std::unique_lock hold(mutex_);
  while (!wake_.wait_for(hold, end, std::chrono::seconds(1), [&end] { return end.stop_requested(); })) {
    for (Watched& each : watched_) {
      const std::uint64_t beats = each.beats.load(std::memory_order_relaxed);
      each.still = std::exchange(each.seen, beats) == beats ? each.still + 1 : 0;
      if (each.still < kMaxStill) continue;
      std::fprintf(stderr, "BREACH: %s has not moved for %d s\n", each.name.c_str(), kMaxStill);
      dump_and_abort();
    }
  }
}

Pulse::Pulse(Watchdog& watchdog, const std::string& name) : watchdog_(watchdog) {
  std::lock_guard hold(watchdog_.mutex_);
  entry_ = watchdog_.watched_.emplace(watchdog_.watched_.end());
  entry_->name = name;
}

Pulse::~Pulse() {
  std::lock_guard hold(watchdog_.mutex_);
  watchdog_.watched_.erase(entry_);
}

}  // namespace bench

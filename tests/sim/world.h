// One run: a seed and everything that follows from it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "random.h"
#include "scheduler.h"
#include "trace.h"

namespace sim {

// What kind of world a seed makes: a trouble is off in many seeds (0), so that the others are seen without it.
struct Knobs {
  Random& random;
  std::uint32_t switch_one_in = random.Pick({2, 4, 16, 64});         // scheduling points at which somebody else goes on
  std::uint32_t stall_one_in = random.Pick({0, 0, 500, 5000});       // ... a thread is held up for up to 100 ms
  std::uint32_t starve_one_in = random.Pick({0, 0, 0, 0, 20, 300});  // ring acquires that give less than asked
  std::uint32_t refuse_one_in = random.Pick({0, 0, 10, 60, 300});    // services that fail while something is set up
  std::uint32_t no_memory_one_in = random.Pick({0, 0, 0, 10, 50});   // heap allocations of the executor that fail
  std::uint32_t web_fail_one_in = random.Pick({0, 0, 2, 10});        // exchanges that end with a platform error
  std::uint32_t slow_one_in = random.Pick({0, 0, 5, 40});            // phases of an exchange that take seconds
  std::uint32_t odd_reply_one_in = random.Pick({0, 1, 3, 10});       // replies that are not a plain success
  std::uint32_t hold_ms = random.Pick({100, 2000, 60000});           // how long the host keeps a text packet at most
  std::uint32_t trouble_one_in = random.Pick({0, 30, 200, 1000});    // ticks of a room with a reset, a leave, a setting
  std::uint32_t spurt_frames = random.Pick({12, 40, 300, 3000});     // longest stretch of talk
  std::uint32_t pause_frames = random.Pick({10, 20, 400});           // longest pause
  std::uint32_t ops_ms = random.Pick({100, 2000});                   // longest pause between the application's calls
  std::uint32_t disable_one_in = random.Pick({2, 8, 40});            // of the calls that enable or disable a member
  std::uint64_t frequency = random.Pick({1'000'000, 3'579'545, 10'000'000, 1'000'000'000});  // of the host's clock
};

struct World {
  World(std::uint64_t seed, bool print);
  ~World();

  const std::uint64_t seed;
  Random random;
  const Knobs knobs;
  Trace trace;
  Scheduler scheduler;
  int live = 0;                              // host objects and allocations that belong to no room
  int timer_depth = 0;                       // starts of the clock service without a stop
  std::uint32_t exchanges = 0, packets = 0;  // serial numbers
  bool setting_up = false;                   // the library is being initialized, and services may refuse
};

// The run under way.
World& TheWorld();

inline void Note(std::string_view event, std::uint64_t number) {
  TheWorld().trace.Note(event, std::to_string(number));
}
inline void Note(std::string_view event, std::string_view text) {
  TheWorld().trace.Note(event, text);
}
inline std::uint32_t Below(std::uint32_t n) {
  return TheWorld().random.Below(n);
}
inline bool OneIn(std::uint32_t n) {
  return TheWorld().random.OneIn(n);
}
inline Micros Now() {
  return TheWorld().scheduler.now();
}
inline Caller& Me() {
  return TheWorld().scheduler.current().caller;
}

// How often each report was made, over all runs of the process.
using Tally = std::map<std::string, std::uint64_t, std::less<>>;
Tally& ReportTally();

// Ends the process: says what was found, in which seed, and the command that replays it.
[[noreturn, gnu::format(printf, 1, 2)]] void Fail(const char* format, ...);

// Fails unless `sound`.
#define SIM_CHECK(sound, ...)               \
  do {                                      \
    if (!(sound)) ::sim::Fail(__VA_ARGS__); \
  } while (false)

// From now on a crash, too, says which seed made it.
void CatchCrashes();

}  // namespace sim

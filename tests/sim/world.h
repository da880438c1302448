// One run: a seed and everything that follows from it.
#pragma once

#include <cstdint>
#include <string_view>

#include "random.h"
#include "scheduler.h"

namespace sim {

// What kind of world a seed makes: a trouble is off in many seeds (0), so that the others are seen without it.
struct Knobs {
  Random& random;
  std::uint32_t switch_one_in = random.Pick({2, 4, 16, 64});         // scheduling points at which somebody else goes on
  std::uint32_t stall_one_in = random.Pick({0, 0, 500, 5000});       // ... a thread is held up for up to 100 ms
  std::uint32_t starve_one_in = random.Pick({0, 0, 0, 0, 20, 300});  // ring acquires that give less than asked
  std::uint32_t web_fail_one_in = random.Pick({0, 0, 2, 10});        // exchanges that end with a platform error
  std::uint32_t slow_one_in = random.Pick({0, 0, 5, 40});            // phases of an exchange that take seconds
  std::uint32_t odd_reply_one_in = random.Pick({0, 1, 3, 10});       // replies that are not a plain success
  std::uint32_t hold_ms = random.Pick({100, 2000, 60000});           // how long the host keeps a text packet at most
  std::uint32_t trouble_one_in = random.Pick({0, 30, 200, 1000});    // ticks of a room with a reset, a leave, a setting
  std::uint32_t spurt_frames = random.Pick({12, 40, 300, 3000});     // longest stretch of talk
  std::uint32_t pause_frames = random.Pick({10, 20, 400});           // longest pause
  std::uint32_t disable_one_in = random.Pick({2, 8, 40});            // of the calls that enable or disable a member
  std::uint64_t frequency = random.Pick({1'000'000, 3'579'545, 10'000'000, 1'000'000'000});  // of the host's clock
};

// The run under way.
struct World;
inline World* the_world = nullptr;

struct World {
  World(std::uint64_t run_seed, bool print_events) : seed(run_seed), print(print_events) { the_world = this; }
  ~World() { the_world = nullptr; }

  const std::uint64_t seed;
  const bool print;  // the event log
  Random random{seed};
  const Knobs knobs{random};
  Scheduler scheduler;
  std::uint64_t log_hash = 0;
  int live = 0;                              // host objects and allocations that belong to no room
  int timer_depth = 0;                       // starts of the clock service without a stop
  std::uint32_t exchanges = 0, packets = 0;  // serial numbers
};

inline World& TheWorld() {
  return *the_world;
}
inline std::uint32_t Below(std::uint32_t n) {
  return the_world->random.Below(n);
}
inline bool OneIn(std::uint32_t n) {
  return the_world->random.OneIn(n);
}
inline Micros Now() {
  return the_world->scheduler.now();
}
inline Caller& Me() {
  return the_world->scheduler.current().caller;
}

// Adds to the event log. Nothing that differs between two runs of a seed (addresses, wall-clock time) may go into it.
void Note(std::string_view event, std::string_view detail);

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

// Threads of a simulated process: fibers that run one at a time. At every scheduling point the seed decides who goes
// on; virtual time passes only while nobody can run. So a run depends on its seed alone, and a simulated minute takes
// milliseconds.
//
// A fiber that can never run again is a deadlock and fails the run.
#pragma once

#include <ucontext.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "random.h"
#include "trace.h"

namespace sim {

using Micros = std::uint64_t;
inline constexpr Micros kMillisecond = 1000;
inline constexpr Micros kSecond = 1000 * kMillisecond;

class Mutex;
class Room;
class Seat;

enum class Role { kApplication, kDriver, kAudio, kListener, kWorker };

// What is known of the thread that calls a host service.
struct Caller {
  Role role = Role::kApplication;
  Room* room = nullptr;                 // whose session it works on
  Seat* seat = nullptr;                 // the recognizer it works on: a worker's own, otherwise the one it touched last
  bool updating = false;                // inside the session's update
  bool in_frame = false;                // inside PutAudioFrame
  std::vector<const Mutex*> held = {};  // in the order taken, repeated for a mutex taken again
  std::vector<std::string> reports = {};  // made in the current call into the plug-in and not yet accounted for
};

struct Fiber {
  std::uint32_t number = 0;
  std::string name;
  Caller caller;
  std::function<void()> body;
  bool ended = false;

  // The scheduler's own.
  bool started = false;
  const void* blocked_on = nullptr;
  Micros due = 0;
  std::byte* stack = nullptr;  // null: the process's own stack
  std::size_t stack_size = 0;
  ucontext_t start;
  void* jump[5];  // where it goes on
};

class Scheduler {
 public:
  Scheduler(Random& random, Trace& trace, std::uint32_t switch_one_in, std::uint32_t stall_one_in);
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // What a run may take at most; more is a failure.
  void set_limits(std::uint64_t steps, Micros time) { max_steps_ = steps, max_time_ = time; }

  // Runs `body` and all that it spawns to their ends.
  void Run(std::function<void()> body);

  // For fibers.
  Fiber* Spawn(std::string name, Caller caller, std::function<void()> body);
  void Point();                   // a scheduling point: anybody may go on, now or after a stall
  void Sleep(Micros duration);    // lets virtual time pass
  void Block(const void* what);   // until somebody wakes those who wait for `what`
  void Wake(const void* what);    // all of them; they look for themselves whether they can go on
  void Join(const Fiber* fiber);  // until it has ended
  Fiber& current() { return *current_; }

  Micros now() const { return trace_.now; }
  std::uint64_t steps() const { return steps_; }

 private:
  static void Enter();
  void SwitchTo(Fiber* next);
  void RunAnother();
  [[noreturn]] void Deadlock() const;

  Random& random_;
  Trace& trace_;
  const std::uint32_t switch_one_in_, stall_one_in_;
  std::vector<std::unique_ptr<Fiber>> fibers_;
  std::vector<Fiber*> ready_, blocked_, sleeping_;  // sleeping_: a heap, the earliest first
  Fiber process_;                                   // the process's own thread of control
  Fiber* current_ = &process_;
  std::uint64_t steps_ = 0, max_steps_ = UINT64_MAX;
  Micros max_time_ = UINT64_MAX;
};

// A host-side lock between fibers; no service of the plug-in.
class Gate {
 public:
  void lock();
  void unlock();

 private:
  bool held_ = false;
};

}  // namespace sim

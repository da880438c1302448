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
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sim {

using Micros = std::uint64_t;
inline constexpr Micros kMillisecond = 1000;
inline constexpr Micros kSecond = 1000 * kMillisecond;

struct HostObject;
class Room;
class Seat;

// What is known of the thread that calls a host service.
struct Caller {
  bool worker = false;    // a thread of the plug-in
  Room* room = nullptr;   // whose session it works on
  Seat* seat = nullptr;   // the recognizer it works on: a worker's own, otherwise the one it touched last
  bool updating = false;  // inside the session's update
  bool in_frame = false;  // inside PutAudioFrame
  std::vector<const HostObject*> held = {};  // mutexes, in the order taken, repeated for one taken again
  std::vector<std::string> reports = {};     // made in the current call into the plug-in and not yet accounted for
};

struct Fiber {
  std::string name = "application";
  Caller caller = {};
  std::function<void()> body = {};
  bool ended = false;

  // The scheduler's own.
  bool started = false;
  std::byte* memory = nullptr;
  const void* stack = nullptr;
  std::size_t stack_size = 0;
  ucontext_t start = {};
  void* jump[5] = {};  // where it goes on
};

class Scheduler {
 public:
  Scheduler() = default;
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  Fiber* Spawn(std::string name, Caller caller, std::function<void()> body);
  void Point();                   // a scheduling point: anybody may go on, now or after a stall
  void Sleep(Micros duration);    // lets virtual time pass
  void Block(const void* what);   // until somebody wakes those who wait for `what`
  void Wake(const void* what);    // all of them; they look for themselves whether they can go on
  void Join(const Fiber* fiber);  // until it has ended

  Fiber& current() { return *current_; }
  Micros now() const { return now_; }
  std::uint64_t steps() const { return steps_; }

 private:
  static void Enter();
  void SwitchTo(Fiber* next);
  void RunAnother();

  std::vector<std::unique_ptr<Fiber>> fibers_;
  std::vector<Fiber*> ready_;
  std::multimap<const void*, Fiber*> blocked_;  // by what they wait for
  std::multimap<Micros, Fiber*> sleeping_;      // by the time they wake
  Fiber process_ = {.started = true};           // the process's own thread of control
  Fiber* current_ = &process_;
  std::uint64_t steps_ = 0;
  Micros now_ = 0;
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

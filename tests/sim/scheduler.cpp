#include "scheduler.h"

#include <sys/mman.h>

#include <algorithm>
#include <utility>

#include "world.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#else
static void __sanitizer_start_switch_fiber(void**, const void*, std::size_t) {}
static void __sanitizer_finish_switch_fiber(void*, const void**, std::size_t*) {}
#endif

namespace sim {

namespace {

constexpr std::size_t kStackSize = 256 * 1024;
constexpr std::size_t kGuardSize = 4096;

std::vector<std::byte*> g_spare_stacks;  // mapping one costs more than most fibers do

std::byte* TakeStack() {
  if (!g_spare_stacks.empty()) {
    std::byte* stack = g_spare_stacks.back();
    g_spare_stacks.pop_back();
    return stack;
  }
  void* area = mmap(nullptr, kGuardSize + kStackSize, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (area == MAP_FAILED) Fail("no memory for a stack");
  mprotect(area, kGuardSize, PROT_NONE);
  return static_cast<std::byte*>(area) + kGuardSize;
}

bool Later(const Fiber* a, const Fiber* b) {
  return a->due > b->due;
}

template <typename T>
T TakeAt(std::vector<T>& from, std::size_t index) {
  std::swap(from[index], from.back());
  T taken = from.back();
  from.pop_back();
  return taken;
}

// __builtin_longjmp must not be called by the function that holds the matching __builtin_setjmp.
[[noreturn, gnu::noinline]] void Jump(Fiber* to) {
  if (!to->started) {
    to->started = true;
    setcontext(&to->start);
  }
  __builtin_longjmp(to->jump, 1);
}

}  // namespace

Scheduler::Scheduler(Random& random, Trace& trace, std::uint32_t switch_one_in, std::uint32_t stall_one_in)
    : random_(random), trace_(trace), switch_one_in_(switch_one_in), stall_one_in_(stall_one_in) {
  process_.name = "process";
  process_.started = true;
}

Scheduler::~Scheduler() {
  for (const auto& fiber : fibers_)
    g_spare_stacks.push_back(fiber->stack);
}

void Scheduler::Run(std::function<void()> body) {
  const Fiber* first = Spawn("application", {}, std::move(body));
  Join(first);
}

Fiber* Scheduler::Spawn(std::string name, Caller caller, std::function<void()> body) {
  fibers_.push_back(std::make_unique<Fiber>());
  Fiber* fiber = fibers_.back().get();
  fiber->number = static_cast<std::uint32_t>(fibers_.size());
  fiber->name = std::move(name);
  fiber->caller = std::move(caller);
  fiber->body = std::move(body);
  fiber->stack = TakeStack();
  fiber->stack_size = kStackSize;
  getcontext(&fiber->start);
  fiber->start.uc_stack.ss_sp = fiber->stack;
  fiber->start.uc_stack.ss_size = kStackSize;
  makecontext(&fiber->start, Enter, 0);
  ready_.push_back(fiber);
  return fiber;
}

void Scheduler::Enter() {
  Scheduler& self = TheWorld().scheduler;
  const void* bottom = nullptr;
  std::size_t size = 0;
  __sanitizer_finish_switch_fiber(nullptr, &bottom, &size);
  if (self.process_.stack == nullptr) {  // the very first fiber comes from the process's own stack
    self.process_.stack = static_cast<std::byte*>(const_cast<void*>(bottom));
    self.process_.stack_size = size;
  }
  Fiber* fiber = self.current_;
  fiber->body();
  fiber->body = nullptr;
  fiber->ended = true;
  self.Wake(fiber);
  self.RunAnother();
}

void Scheduler::SwitchTo(Fiber* next) {
  if (next == current_) return;
  Fiber* previous = std::exchange(current_, next);
  trace_.who = next->name.c_str();
  trace_.Mix(next->number);
  void* fake_stack = nullptr;
  __sanitizer_start_switch_fiber(previous->ended ? nullptr : &fake_stack, next->stack, next->stack_size);
  if (__builtin_setjmp(previous->jump) == 0) Jump(next);
  __sanitizer_finish_switch_fiber(fake_stack, nullptr, nullptr);
}

void Scheduler::RunAnother() {
  if (ready_.empty()) {
    if (sleeping_.empty()) Deadlock();
    trace_.now = sleeping_.front()->due;
    if (now() > max_time_) Fail("no end: somebody waits for what never comes");
    while (!sleeping_.empty() && sleeping_.front()->due <= now()) {
      std::pop_heap(sleeping_.begin(), sleeping_.end(), Later);
      ready_.push_back(sleeping_.back());
      sleeping_.pop_back();
    }
  }
  SwitchTo(TakeAt(ready_, random_.Below(ready_.size())));
}

void Scheduler::Point() {
  if (++steps_ > max_steps_) Fail("no end after %llu steps", static_cast<unsigned long long>(steps_));
  if (random_.OneIn(stall_one_in_)) return Sleep(random_.Below(100 * kMillisecond));
  if (ready_.empty() || !random_.OneIn(switch_one_in_)) return;
  ready_.push_back(current_);
  RunAnother();
}

void Scheduler::Sleep(Micros duration) {
  ++steps_;
  current_->due = now() + duration;
  sleeping_.push_back(current_);
  std::push_heap(sleeping_.begin(), sleeping_.end(), Later);
  RunAnother();
}

void Scheduler::Block(const void* what) {
  ++steps_;
  current_->blocked_on = what;
  blocked_.push_back(current_);
  RunAnother();
}

void Scheduler::Wake(const void* what) {
  for (std::size_t i = blocked_.size(); i-- > 0;) {
    if (blocked_[i]->blocked_on == what) ready_.push_back(TakeAt(blocked_, i));
  }
}

void Scheduler::Join(const Fiber* fiber) {
  while (!fiber->ended)
    Block(fiber);
}

void Scheduler::Deadlock() const {
  std::string names;
  for (const Fiber* fiber : blocked_)
    names += " " + fiber->name;
  Fail("deadlock, nobody can run:%s", names.c_str());
}

void Gate::lock() {
  while (held_)
    TheWorld().scheduler.Block(this);
  held_ = true;
}

void Gate::unlock() {
  held_ = false;
  TheWorld().scheduler.Wake(this);
}

}  // namespace sim

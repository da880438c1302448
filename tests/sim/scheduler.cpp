#include "scheduler.h"

#include <sys/mman.h>

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

// What a run may take at most.
constexpr std::uint64_t kMaxSteps = 50'000'000;
constexpr Micros kMaxTime = 6 * 3600 * kSecond;
constexpr std::size_t kStackSize = 256 * 1024;
constexpr std::size_t kGuardSize = 4096;

std::vector<std::byte*> spare_stacks;  // mapping one costs more than most fibers do

std::byte* TakeStack() {
  if (!spare_stacks.empty()) {
    std::byte* stack = spare_stacks.back();
    spare_stacks.pop_back();
    return stack;
  }
  void* area = mmap(nullptr, kGuardSize + kStackSize, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (area == MAP_FAILED) Fail("no memory for a stack");
  mprotect(area, kGuardSize, PROT_NONE);
  return static_cast<std::byte*>(area) + kGuardSize;
}

// __builtin_longjmp must not be called by the function that holds the matching __builtin_setjmp. The frame is
// abandoned: it holds nothing whose address is taken, or AddressSanitizer's red zones around that would stay behind in
// the stack.
[[noreturn, gnu::noinline]] void Jump(Fiber* to) {
  const bool started = to->started;
  to->started = true;
  if (!started) setcontext(&to->start);
  __builtin_longjmp(to->jump, 1);
}

}  // namespace

Scheduler::~Scheduler() {
  for (const auto& fiber : fibers_)
    spare_stacks.push_back(fiber->memory);
}

Fiber* Scheduler::Spawn(std::string name, Caller caller, std::function<void()> body) {
  Fiber* fiber = fibers_.emplace_back(std::make_unique<Fiber>()).get();
  fiber->name = std::move(name);
  fiber->caller = std::move(caller);
  fiber->body = std::move(body);
  fiber->stack = fiber->memory = TakeStack();
  fiber->stack_size = kStackSize;
  getcontext(&fiber->start);
  fiber->start.uc_stack.ss_sp = fiber->memory;
  fiber->start.uc_stack.ss_size = kStackSize;
  makecontext(&fiber->start, Enter, 0);
  ready_.push_back(fiber);
  return fiber;
}

void Scheduler::Enter() {
  Scheduler& self = TheWorld().scheduler;
  // The very first fiber comes from the process's own stack.
  Fiber& process = self.process_;
  const bool first = process.stack == nullptr;
  __sanitizer_finish_switch_fiber(nullptr, first ? &process.stack : nullptr, first ? &process.stack_size : nullptr);
  Fiber* fiber = self.current_;
  fiber->body();
  fiber->ended = true;
  self.Wake(fiber);
  self.RunAnother();
}

void Scheduler::SwitchTo(Fiber* next) {
  if (next == current_) return;
  Fiber* previous = std::exchange(current_, next);
  void* fake_stack = nullptr;
  __sanitizer_start_switch_fiber(previous->ended ? nullptr : &fake_stack, next->stack, next->stack_size);
  if (__builtin_setjmp(previous->jump) == 0) Jump(next);
  __sanitizer_finish_switch_fiber(fake_stack, nullptr, nullptr);
}

void Scheduler::RunAnother() {
  if (ready_.empty()) {
    if (sleeping_.empty()) Fail("deadlock: %zu threads wait for what never comes", blocked_.size());
    now_ = sleeping_.begin()->first;
    SIM_CHECK(now_ < kMaxTime, "no end: somebody waits for what never comes");
    for (; !sleeping_.empty() && sleeping_.begin()->first == now_; sleeping_.erase(sleeping_.begin()))
      ready_.push_back(sleeping_.begin()->second);
  }
  std::swap(TheWorld().random.Pick(ready_), ready_.back());
  Fiber* next = ready_.back();
  ready_.pop_back();
  SwitchTo(next);
}

void Scheduler::Point() {
  SIM_CHECK(++steps_ < kMaxSteps, "no end");
  if (OneIn(TheWorld().knobs.stall_one_in)) return Sleep(Below(100 * kMillisecond));
  if (ready_.empty() || !OneIn(TheWorld().knobs.switch_one_in)) return;
  ready_.push_back(current_);
  RunAnother();
}

void Scheduler::Sleep(Micros duration) {
  sleeping_.emplace(now_ + duration, current_);
  RunAnother();
}

void Scheduler::Block(const void* what) {
  blocked_.emplace(what, current_);
  RunAnother();
}

void Scheduler::Wake(const void* what) {
  const auto [begin, end] = blocked_.equal_range(what);
  for (auto at = begin; at != end; ++at)
    ready_.push_back(at->second);
  blocked_.erase(begin, end);
}

void Scheduler::Join(const Fiber* fiber) {
  while (!fiber->ended)
    Block(fiber);
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

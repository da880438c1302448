#include "world.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace sim {

namespace {

World* g_world;

void SayWhere() {
  if (g_world == nullptr) return;
  std::fprintf(stderr, "\n  seed %llu, step %llu, virtual time %.6f s, thread %s\n  replay: sim --seed %llu --trace\n",
               static_cast<unsigned long long>(g_world->seed),
               static_cast<unsigned long long>(g_world->scheduler.steps()),
               static_cast<double>(g_world->trace.now) / 1e6, g_world->trace.who,
               static_cast<unsigned long long>(g_world->seed));
}

#if !defined(__SANITIZE_ADDRESS__)
void Crashed(int signal) {
  std::fprintf(stderr, "FOUND: signal %d", signal);
  SayWhere();
  std::_Exit(1);
}
#endif

}  // namespace

World::World(std::uint64_t run_seed, bool print)
    : seed(run_seed),
      random(run_seed),
      knobs{random},
      trace{.print = print},
      scheduler(random, trace, knobs.switch_one_in, knobs.stall_one_in) {
  g_world = this;
}

World::~World() {
  g_world = nullptr;
}

World& TheWorld() {
  return *g_world;
}

Tally& ReportTally() {
  static Tally tally;
  return tally;
}

void Fail(const char* format, ...) {
  std::fflush(stdout);
  std::fputs("FOUND: ", stderr);
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  SayWhere();
  std::_Exit(1);
}

void CatchCrashes() {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_set_death_callback(SayWhere);
#else
  static char stack[16384];
  stack_t alternative = {};
  alternative.ss_sp = stack;
  alternative.ss_size = sizeof stack;
  sigaltstack(&alternative, nullptr);
  struct sigaction action = {};
  action.sa_handler = Crashed;
  action.sa_flags = SA_ONSTACK;
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
    sigaction(signal, &action, nullptr);
#endif
}

}  // namespace sim

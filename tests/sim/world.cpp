#include "world.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace sim {

namespace {

void SayWhere() {
  if (the_world == nullptr) return;
  const auto seed = static_cast<unsigned long long>(the_world->seed);
  std::fprintf(stderr, "  seed %llu, virtual time %.6f s, thread %s\n  replay: sim --seed %llu --trace\n", seed,
               static_cast<double>(Now()) / 1e6, the_world->scheduler.current().name.c_str(), seed);
}

}  // namespace

void Note(std::string_view event, std::string_view detail) {
  char line[256];
  std::snprintf(line, sizeof line, "%12.6f %-14s %.*s %.*s", static_cast<double>(Now()) / 1e6,
                the_world->scheduler.current().name.c_str(), static_cast<int>(event.size()), event.data(),
                static_cast<int>(detail.size()), detail.data());
  the_world->log_hash = the_world->log_hash * 31 + std::hash<std::string_view>{}(line);
  if (the_world->print) std::fprintf(stdout, "%s\n", line);
}

void Fail(const char* format, ...) {
  std::fflush(stdout);
  std::fputs("FOUND: ", stderr);
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  SayWhere();
  std::_Exit(1);
}

void CatchCrashes() {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_set_death_callback(SayWhere);
#else
  static char stack[16384];
  const stack_t alternative = {.ss_sp = stack, .ss_flags = 0, .ss_size = sizeof stack};
  sigaltstack(&alternative, nullptr);
  struct sigaction action = {};
  action.sa_handler = [](int signal) { Fail("signal %d", signal); };
  action.sa_flags = SA_ONSTACK;
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
    sigaction(signal, &action, nullptr);
#endif
}

}  // namespace sim

#include "signal_guard.h"

#include <pthread.h>
#include <time.h>

void zelHttpSignal_Block(SignalGuard* guard) {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  guard->pending = false;
  pthread_sigmask(SIG_BLOCK, &pipe, &guard->mask);
  if (sigismember(&guard->mask, SIGPIPE) != 1) return;  // it could not have been waiting
  sigset_t waiting;
  guard->pending = sigpending(&waiting) == 0 && sigismember(&waiting, SIGPIPE) == 1;
}

void zelHttpSignal_Restore(const SignalGuard* guard) {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  const timespec now = {};
  if (!guard->pending) sigtimedwait(&pipe, nullptr, &now);
  pthread_sigmask(SIG_SETMASK, &guard->mask, nullptr);
}

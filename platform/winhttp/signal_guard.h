// Keeps SIGPIPE from the process while libcurl writes to sockets, without touching the process's handlers.
#pragma once

#include <signal.h>

struct SignalGuard {
  sigset_t mask;  // of the thread before
  bool pending;   // a SIGPIPE was already waiting then
};

// Blocks SIGPIPE in the calling thread.
void zelHttpSignal_Block(SignalGuard* guard);

// Takes back a SIGPIPE that came in between and restores the thread's mask.
void zelHttpSignal_Restore(const SignalGuard* guard);

// One exchange of one worker: what it will meet, what it has done so far, and what it may allocate.
#pragma once

#include <windows.h>

#include <winhttp.h>

#include <string>
#include <vector>

#include "web.h"

namespace sim {

// What can fail in an exchange, in its order.
// clang-format off
enum Step { kCrack, kPlatform, kOpen, kTimeouts, kConnect, kRequest, kHeader, kSend, kReceive, kProbe, kStatus,
            kAvailable, kRead, kSteps };
// clang-format on

struct Error {
  DWORD number;
  const char* name;
  const char* word;  // of the failed exchange
};
enum HandleKind { kSession, kConnection, kRequestHandle, kHandleKinds };

struct Exchange {
  Utterance* utterance = nullptr;
  Reply reply;
  int fails_at = -1;  // Step
  const Error* error = nullptr;
  const char* word = "unknown";  // class of the last error met
  std::string due;               // report that must come next; empty: none
  bool starved = false;          // an allocation failed: the report of the step that meets it must come next
  bool settled = false;          // its utterance's fate is known, and the executor knows it too
  DWORD last_error = 0;
  bool open[kHandleKinds] = {};
  char tokens[kHandleKinds] = {};  // their addresses are the handles
  int blocks = 0;                  // heap blocks and strings not yet released
  std::wstring host, path;
  bool secure = false;
  std::vector<std::wstring> headers;
  std::size_t sent = 0, announced = 0;  // bytes of the reply
};

// The calling worker's exchange, which begins with its first step.
Exchange& Current();

// Whether the step succeeds. Where it waits for the network, time passes: 20 s at most, then it has failed. `report`:
// the step's own when null.
BOOL Allow(Exchange& exchange, Step step, const char* report = nullptr);
// The step fails with that error, and the executor must report it next.
BOOL FailWith(Exchange& exchange, Step step, const char* report, DWORD number);
// What is to become of the utterance.
void Settle(Exchange& exchange, Fate fate, std::string report, std::string text = {});
void SettleFailed(Exchange& exchange);

}  // namespace sim

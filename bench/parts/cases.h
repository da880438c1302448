// What this program measures. A case is one contestant on one input, run by the benchmark library for time and under
// callgrind for instructions.
//
// Thread rule: cases run on one thread. Contestants of a row do the same work on the same input; each Add function
// compares their results first and throws std::runtime_error when they differ.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Case {
  std::string name;           // <row>/<contestant>, or <row>/<contestant>/<input>
  std::int64_t units;         // packets, frames, replies or pairs of calls in one run
  std::function<void()> run;  // leaves everything as it found it
};

using Cases = std::vector<Case>;

void add_container_cases(Cases& cases);
void add_audio_cases(Cases& cases);
void add_reply_cases(Cases& cases);
void add_pool_cases(Cases& cases);

// Only counted: time is measured where the sessions are as large as they get.
void add_update_cases(Cases& cases);

// Throws unless `same`.
void require(bool same, const std::string& what);

}  // namespace bench

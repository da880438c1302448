// The event log of a run: always hashed, printed on demand. Nothing that differs between two runs of a seed (addresses,
// wall-clock time) may go into it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace sim {

struct Trace {
  bool print = false;
  std::uint64_t hash = 0xCBF29CE484222325;
  std::uint64_t now = 0;  // virtual microseconds
  const char* who = "";   // the running fiber

  void Note(std::string_view event, std::string_view detail) {
    Mix(now);
    for (const std::string_view part : {std::string_view(who), event, detail}) {
      for (const char c : part)
        Mix(static_cast<unsigned char>(c));
    }
    if (!print) return;
    std::fprintf(stdout, "%12.6f %-14s %.*s %.*s\n", static_cast<double>(now) / 1e6, who,
                 static_cast<int>(event.size()), event.data(), static_cast<int>(detail.size()), detail.data());
  }
  // Hashed only: who runs, how many bytes moved.
  void Mix(std::uint64_t value) { hash = (hash ^ value) * 0x100000001B3; }
};

}  // namespace sim

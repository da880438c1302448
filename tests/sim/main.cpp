// sim: runs the plug-in in simulated rooms, one seed after the other, until it is told to stop or something is found.
// Every eighth run is made twice and must give the same event log.
#include <getopt.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "room.h"
#include "seat.h"
#include "world.h"

namespace {

constexpr char kUsage[] =
    "usage: sim [options]\n"
    "  --seed S       begins with that seed (default: from the clock); may be given several times\n"
    "  --seeds N      so many seeds, each time (default: 1 with --seed, otherwise 100)\n"
    "  --seconds N    as many seeds as fit\n"
    "  --trace        prints the event log\n";

using Clock = std::chrono::steady_clock;
using Number = unsigned long long;

struct Options {
  std::vector<Number> seeds;
  Number count = 0, seconds = 0;  // 0: not given
  bool trace = false;
};

bool Parse(int count, char** arguments, Options& options) {
  const option known[] = {{"seed", 1, nullptr, 's'},
                          {"seeds", 1, nullptr, 'n'},
                          {"seconds", 1, nullptr, 't'},
                          {"trace", 0, nullptr, 'v'},
                          {}};
  for (int name = 0; (name = getopt_long(count, arguments, "", known, nullptr)) != -1;) {
    char* end = nullptr;
    const Number number = optarg != nullptr ? std::strtoull(optarg, &end, 10) : 0;
    if (name == '?' || (optarg != nullptr && (end == optarg || *end != '\0'))) return false;
    if (name == 's') options.seeds.push_back(number);
    if (name == 'n') options.count = number;
    if (name == 't') options.seconds = number;
    if (name == 'v') options.trace = true;
  }
  if (options.count == 0) options.count = options.seconds > 0 ? ~Number{0} : options.seeds.empty() ? 100 : 1;
  const auto now = static_cast<Number>(std::chrono::system_clock::now().time_since_epoch().count());
  if (options.seeds.empty()) options.seeds.push_back(now % 1'000'000'000'000);
  return optind == count;
}

// The hash of the event log.
std::uint64_t Run(Number seed, bool trace) {
  sim::World world(seed, trace);
  sim::RunApplication();
  return world.log_hash;
}

// Whether nothing was found; `done`: seeds run.
bool RunAll(const Options& options, Clock::time_point begin, Number& done) {
  for (const Number first : options.seeds) {
    std::printf("seeds from %llu\n", first);
    std::fflush(stdout);
    for (Number seed = first; seed - first < options.count; ++seed) {
      if (options.seconds > 0 && Clock::now() - begin >= std::chrono::seconds(options.seconds)) return true;
      const std::uint64_t hash = Run(seed, options.trace);
      if (options.trace || done++ % 8 != 0 || Run(seed, false) == hash) continue;
      std::fprintf(stderr, "FOUND: seed %llu does not replay\n", seed);
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  Options options;
  if (!Parse(count, arguments, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  sim::CatchCrashes();
  Number done = 0;
  const Clock::time_point begin = Clock::now();
  const bool sound = RunAll(options, begin, done);
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  for (const auto& [name, number] : zel::host::kLedgerCounts)
    if (sim::ledger_totals.*number != 0)
      std::printf("%12llu  %s\n", static_cast<Number>(sim::ledger_totals.*number), name);
  std::printf("%llu seeds in %.1f s\n", done, seconds);
  return sound ? 0 : 1;
}

// sim: runs the plug-in in simulated rooms, one seed after the other, until it is told to stop or something is found.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <string>

#include "application.h"
#include "ledger.h"
#include "world.h"

namespace {

constexpr char kUsage[] =
    "usage: sim [options]\n"
    "  --seed S       the seed to run, or the first one (default: from the clock)\n"
    "  --seeds N      so many seeds (default: 1 with --seed, otherwise 100)\n"
    "  --seconds N    as many seeds as fit\n"
    "  --file NAME    the seeds in that file, one a line; '#' begins a comment\n"
    "  --twice        runs every seed twice and compares the event logs\n"
    "  --trace        prints the event log\n"
    "  --steps N      fails a run that takes more scheduling steps\n";

using Clock = std::chrono::steady_clock;
using Number = std::optional<std::uint64_t>;

struct Options {
  Number seed, seeds, seconds, steps;
  std::string file;
  bool twice = false, trace = false;
};

struct Totals {
  std::uint64_t seeds = 0, steps = 0, simulated = 0;
};

std::optional<Options> Parse(int count, char** arguments) {
  Options options;
  const std::map<std::string_view, bool*> flags = {{"--twice", &options.twice}, {"--trace", &options.trace}};
  const std::map<std::string_view, Number*> numbers = {{"--seed", &options.seed},
                                                       {"--seeds", &options.seeds},
                                                       {"--seconds", &options.seconds},
                                                       {"--steps", &options.steps}};
  for (int i = 1; i < count; ++i) {
    const std::string_view name = arguments[i];
    if (flags.contains(name)) {
      *flags.at(name) = true;
    } else if (++i == count) {
      return {};
    } else if (name == "--file") {
      options.file = arguments[i];
    } else {
      char* end = nullptr;
      const std::uint64_t number = std::strtoull(arguments[i], &end, 10);
      if (!numbers.contains(name) || end == arguments[i] || *end != '\0') return {};
      *numbers.at(name) = number;
    }
  }
  return options;
}

// The hash of the event log.
std::uint64_t RunOnce(std::uint64_t seed, const Options& options, Totals& totals) {
  sim::World world(seed, options.trace);
  world.scheduler.set_limits(options.steps.value_or(50'000'000), 6 * 3600 * sim::kSecond);
  world.scheduler.Run(sim::RunApplication);
  totals.steps += world.scheduler.steps();
  totals.simulated += world.scheduler.now() / sim::kSecond;
  return world.trace.hash;
}

bool RunSeed(std::uint64_t seed, const Options& options, Totals& totals) {
  ++totals.seeds;
  const std::uint64_t hash = RunOnce(seed, options, totals);
  if (!options.twice || RunOnce(seed, options, totals) == hash) return true;
  std::fprintf(stderr, "FOUND: seed %llu does not replay\n", static_cast<unsigned long long>(seed));
  return false;
}

bool RunFile(const Options& options, Totals& totals) {
  std::ifstream file(options.file);
  if (!file) {
    std::fprintf(stderr, "sim: cannot read %s\n", options.file.c_str());
    return false;
  }
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line.front() == '#') continue;
    if (!RunSeed(std::strtoull(line.c_str(), nullptr, 10), options, totals)) return false;
  }
  return true;
}

bool RunRange(const Options& options, Totals& totals) {
  const Clock::time_point begin = Clock::now();
  const auto now = static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
  const std::uint64_t first = options.seed.value_or(now % 1'000'000'000'000);
  const std::uint64_t count = options.seeds.value_or(options.seconds ? UINT64_MAX : options.seed ? 1 : 100);
  std::fprintf(stdout, "seeds from %llu\n", static_cast<unsigned long long>(first));
  std::fflush(stdout);
  for (std::uint64_t i = 0; i < count; ++i) {
    if (options.seconds && Clock::now() - begin >= std::chrono::seconds(*options.seconds)) break;
    if (!RunSeed(first + i, options, totals)) return false;
  }
  return true;
}

void Print(const Totals& totals, double seconds) {
  for (const auto& [report, count] : sim::ReportTally())
    std::fprintf(stdout, "%12llu  %s\n", static_cast<unsigned long long>(count), report.c_str());
  for (int i = 0; i < sim::kCounts; ++i) {
    std::fprintf(stdout, "%12llu  utterances %s\n",
                 static_cast<unsigned long long>(sim::UtteranceTotals()[static_cast<std::size_t>(i)]),
                 sim::kCountNames[i]);
  }
  std::fprintf(stdout, "%llu seeds, %llu steps, %.1f h of virtual time in %.1f s: %.0f seeds a minute\n",
               static_cast<unsigned long long>(totals.seeds), static_cast<unsigned long long>(totals.steps),
               static_cast<double>(totals.simulated) / 3600, seconds, static_cast<double>(totals.seeds) * 60 / seconds);
}

}  // namespace

int main(int count, char** arguments) {
  const std::optional<Options> options = Parse(count, arguments);
  if (!options) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  sim::CatchCrashes();
  Totals totals;
  const Clock::time_point begin = Clock::now();
  const bool sound = options->file.empty() ? RunRange(*options, totals) : RunFile(*options, totals);
  Print(totals, std::chrono::duration<double>(Clock::now() - begin).count());
  return sound ? 0 : 1;
}

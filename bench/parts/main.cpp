// The hot paths beside the libraries they stand on and what people would use instead.
//
// Arguments: those of the benchmark library; or --count alone, under callgrind with --collect-atstart=no: then each
// case runs once, its instructions are dumped under the trigger "<name> <units>", and nothing is timed.
#include <benchmark/benchmark.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "bridge_services.h"
#include "cases.h"
#include "program.h"
#include "zel_rtc_speech_to_text.h"

namespace bench {

void require(bool same, const std::string& what) {
  if (!same) throw std::runtime_error("not as it must be: " + what);
}

namespace {

Cases all_cases(bool counting) {
  Cases cases;
  add_container_cases(cases);
  add_audio_cases(cases);
  add_reply_cases(cases);
  add_pool_cases(cases);
  if (counting) add_update_cases(cases);
  return cases;
}

// The first run binds what is bound lazily and fills what is filled once.
void count(const Cases& cases) {
  for (const Case& measured : cases) {
    measured.run();
    CALLGRIND_ZERO_STATS;
    CALLGRIND_TOGGLE_COLLECT;
    measured.run();
    CALLGRIND_TOGGLE_COLLECT;
    const std::string trigger = measured.name + " " + std::to_string(measured.units);
    CALLGRIND_DUMP_STATS_AT(trigger.c_str());
  }
}

void register_cases(const Cases& cases) {
  for (const Case& measured : cases) {
    benchmark::RegisterBenchmark(measured.name.c_str(), [measured](benchmark::State& state) {
      for ([[maybe_unused]] auto iteration : state)
        measured.run();
      state.SetItemsProcessed(state.iterations() * measured.units);
    });
  }
}

// The reference host's services, but reports go nowhere: making a line of them is the host's affair.
void install_services() {
  static BridgeTable table = *zel::host::bridge_interface().table;
  table.err_notify = [](std::uint32_t, const char*) {};
  table.err_notify2 = [](std::uint32_t, const char*, std::uint64_t, std::uint64_t) {};
  static const ZelBaseRtcBridgeInterface bridge_interface = {ZEL_BASE_RTC_BRIDGE_VERSION, &table};
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&bridge_interface);
}

int run(int argc, char** argv) {
  install_services();
  if (argc == 2 && std::strcmp(argv[1], "--count") == 0) {
    count(all_cases(true));
    return 0;
  }
  return run_program(argc, argv, [] { register_cases(all_cases(false)); });
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  try {
    return bench::run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
}

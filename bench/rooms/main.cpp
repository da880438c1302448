// bench_rooms: many members at once. With --measure-memory and a contestant's name as the only arguments: what
// memory.cpp runs as a process of its own.
#include <cstdio>
#include <exception>
#include <string_view>

#include "bridge_services.h"
#include "hostile_service.h"
#include "program.h"
#include "reports.h"
#include "room_session.h"
#include "rooms.h"

namespace {

int run(int argc, char** argv) {
  bench::use_no_proxy();
  zel::host::set_report_sink([](const zel::host::Report&) {});
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&zel::host::bridge_interface());
  const bench::Library library;
  if (argc == 3 && std::string_view(argv[1]) == "--measure-memory") {
    bench::print_memory(argv[2]);
    return 0;
  }
  return bench::run_program(argc, argv, [] {
    bench::register_creation();
    bench::register_updates();
    bench::register_memory();
    bench::register_pipeline();
    bench::register_growth();
  });
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_rooms: %s\n", error.what());
    return 1;
  }
}

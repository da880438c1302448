// Benchmarks of many members at once. With --measure-memory and a contestant's name as the only arguments: what
// memory.cpp runs as a process of its own.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include "memory.h"
#include "room_session.h"

int main(int argc, char** argv) {
  for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
    unsetenv(name);
  if (argc == 3 && std::strcmp(argv[1], "--measure-memory") == 0) return rooms::PrintMemory(argv[2]);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  rooms::InitializeLibrary();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

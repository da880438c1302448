// Row creation: a session of 1,000 recognizers, created and destroyed. One iteration is both.
//
// Inputs: fresh, the work area's pages are not resident, as from a new mapping; reused, they are.
// Limit: one clear of the same area, and 1,000 threads of the reference host, each of which waits for its event and
// ends when that comes; signalled and joined one after the other, as a session has to. It builds nothing in the area
// and encodes no header pages.
#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstring>
#include <vector>

#include "bridge.h"
#include "room_session.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kMembers = 1000;

struct Sleeper {
  std::array<std::byte, ZEL_HOST_OBJECT_WORK_SIZE> event_work{};
  std::array<std::byte, ZEL_HOST_OBJECT_WORK_SIZE> thread_work{};
  void* event = nullptr;
  void* thread = nullptr;
};

void Sleep(void* event) {
  zelEvent_Wait(event);
}

void RunPlugin(rooms::Area& area) {
  const ZelRtcSpeechToTextSessionConfig config = rooms::SessionConfig(kMembers);
  ZelRtcSpeechToTextSessionHn session =
      zelRtcSpeechToTextSession_Create(&config, area.data(), static_cast<std::int32_t>(area.size()));
  benchmark::DoNotOptimize(zelRtcSpeechToTextSession_Destroy(session));
}

void RunLimit(rooms::Area& area) {
  static std::vector<Sleeper> sleepers(kMembers);
  std::memset(area.data(), 0, area.size());
  for (Sleeper& sleeper : sleepers) {
    sleeper.event = zelEvent_Create(sleeper.event_work.data(), ZEL_HOST_OBJECT_WORK_SIZE);
    sleeper.thread = zelThread_Create(sleeper.thread_work.data(), ZEL_HOST_OBJECT_WORK_SIZE, Sleep, sleeper.event,
                                      "ZEL Wreq Async Thread");
  }
  for (Sleeper& sleeper : sleepers) {
    zelEvent_Signal(sleeper.event);
    zelThread_Join(sleeper.thread);
    zelEvent_Destroy(sleeper.event);
  }
}

template <void (*kRun)(rooms::Area&), bool kFresh>
void Creation(benchmark::State& state) {
  static rooms::Area area(rooms::SessionSize(kMembers));
  if (!kFresh) std::memset(area.data(), 1, area.size());
  for ([[maybe_unused]] auto step : state) {
    if (kFresh) area.Discard();
    const auto start = Clock::now();
    kRun(area);
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  area.Discard();
}

BENCHMARK(Creation<RunPlugin, true>)->Name("creation/plugin/fresh")->UseManualTime()->Iterations(1);
BENCHMARK(Creation<RunLimit, true>)->Name("creation/limit/fresh")->UseManualTime()->Iterations(1);
BENCHMARK(Creation<RunPlugin, false>)->Name("creation/plugin/reused")->UseManualTime()->Iterations(1);
BENCHMARK(Creation<RunLimit, false>)->Name("creation/limit/reused")->UseManualTime()->Iterations(1);

}  // namespace

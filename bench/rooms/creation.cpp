// Row creation: a session of 250 recognizers, created and destroyed. One iteration is both.
//
// Inputs: fresh, the work area's pages are not resident, as from a new mapping; reused, they are.
// Limit: one clear of the same area, and 250 threads of the reference host, each of which waits for its event and ends
// when that comes; signalled and joined one after the other, as a session has to. It builds nothing in the area and
// encodes no header pages. nested: the same, but memory is cleared as often as it is handed on: by the session, by each
// recognizer and by its request, of which each must find its area empty whoever gave it.
#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "bridge.h"
#include "program.h"
#include "recognition_request.h"
#include "room_session.h"
#include "rooms.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kMembers = 250;

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}

struct Sleeper {
  std::array<std::byte, ZEL_HOST_OBJECT_WORK_SIZE> event_work{};
  std::array<std::byte, ZEL_HOST_OBJECT_WORK_SIZE> thread_work{};
  void* event = nullptr;
  void* thread = nullptr;
};

struct Ground {
  Area area{session_size(kMembers)};
  std::vector<Sleeper> sleepers = std::vector<Sleeper>(kMembers);
};

void run_plugin(Ground& ground) {
  const ZelRtcSpeechToTextSessionConfig config = session_config(kMembers);
  ZelRtcSpeechToTextSessionHn session =
      zelRtcSpeechToTextSession_Create(&config, ground.area.data(), static_cast<std::int32_t>(ground.area.size()));
  require(session != nullptr && zelRtcSpeechToTextSession_Destroy(session) == 1, "creation: session");
}

void run_threads(Ground& ground) {
  for (Sleeper& sleeper : ground.sleepers) {
    sleeper.event = zelEvent_Create(sleeper.event_work.data(), ZEL_HOST_OBJECT_WORK_SIZE);
    sleeper.thread = zelThread_Create(sleeper.thread_work.data(), ZEL_HOST_OBJECT_WORK_SIZE, zelEvent_Wait,
                                      sleeper.event, "ZEL Wreq Async Thread");
    require(sleeper.event != nullptr && sleeper.thread != nullptr, "creation: event and thread");
  }
  for (Sleeper& sleeper : ground.sleepers) {
    zelEvent_Signal(sleeper.event);
    zelThread_Join(sleeper.thread);
    zelEvent_Destroy(sleeper.event);
  }
}

void run_limit(Ground& ground) {
  std::memset(ground.area.data(), 0, ground.area.size());
  run_threads(ground);
}

void run_nested(Ground& ground) {
  std::memset(ground.area.data(), 0, ground.area.size());
  constexpr SttRequestConfig request_config = {};
  const auto request = static_cast<std::size_t>(zelSttRequest_CalculateWorkSize(&request_config));
  const std::size_t recognizer = ground.area.size() / kMembers;
  for (std::size_t i = 0; i < kMembers; ++i) {
    std::byte* area = ground.area.data() + i * recognizer;
    std::memset(area, 0, recognizer);
    std::memset(area + recognizer - request, 0, request);
  }
  run_threads(ground);
}

void measure(benchmark::State& state, Ground& ground, void (*run)(Ground&), bool fresh) {
  if (!fresh) std::memset(ground.area.data(), 1, ground.area.size());
  for ([[maybe_unused]] auto step : state) {
    if (fresh) ground.area.discard();
    const auto start = Clock::now();
    run(ground);
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}

}  // namespace

void register_creation() {
  const Shared<Ground> ground;
  const auto add = [&ground](const char* name, void (*run)(Ground&), bool fresh) {
    benchmark::RegisterBenchmark(name, [=](auto& state) { measure(state, ground(), run, fresh); })
        ->UseManualTime()
        ->Iterations(1);
  };
  add("creation/plugin/fresh", run_plugin, true);
  add("creation/limit/fresh", run_limit, true);
  add("creation/nested/fresh", run_nested, true);
  add("creation/plugin/reused", run_plugin, false);
  add("creation/limit/reused", run_limit, false);
  add("creation/nested/reused", run_nested, false);
}

}  // namespace bench

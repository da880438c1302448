// Rows update_cold and update_warm: the session's Update over 1,000 idle recognizers. One iteration is one Update.
//
// Limit: one atomic load per recognizer, of the word in its area that tells whether the member is enabled. The
// addresses come from an array, so that the loads do not wait for one another, which those of a list must. It takes no
// lock, calls nothing and decides nothing.
#include <benchmark/benchmark.h>
#include <immintrin.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "recognizer_record.h"
#include "room_session.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kMembers = 1000;
constexpr std::size_t kLine = 64;
constexpr std::size_t kEvictingBytes = std::size_t{16} << 20;  // several times what a core has to itself

struct IdleRoom {
  IdleRoom() : session(kMembers) {
    session.SetActive(kMembers);
    for (SttRecognizerHn recognizer : session.active())
      words.push_back(&recognizer->instance->enabled);
  }
  rooms::RoomSession session;
  std::vector<const std::uint32_t*> words;
};

IdleRoom& Room() {
  static IdleRoom room;
  return room;
}

void UpdatePlugin() {
  Room().session.Update();
}

void UpdateLimit() {
  std::uint32_t sum = 0;
  for (const std::uint32_t* word : Room().words)
    sum += __atomic_load_n(word, __ATOMIC_SEQ_CST);
  benchmark::DoNotOptimize(sum);
}

// Sends every line of the session to memory, whatever the size of the last cache, and the page tables out of the core's
// own caches.
void EvictCaches() {
  static std::vector<std::uint8_t> other(kEvictingBytes);
  const rooms::Area& area = Room().session.area();
  for (std::size_t i = 0; i < area.size(); i += kLine)
    _mm_clflush(area.data() + i);
  for (std::size_t i = 0; i < other.size(); i += kLine)
    other[i] += 1;
  _mm_mfence();
}

template <void (*kUpdate)()>
void Cold(benchmark::State& state) {
  Room();
  for ([[maybe_unused]] auto step : state) {
    EvictCaches();
    const auto start = Clock::now();
    kUpdate();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}

template <void (*kUpdate)()>
void Warm(benchmark::State& state) {
  Room();
  kUpdate();
  for ([[maybe_unused]] auto step : state)
    kUpdate();
}

BENCHMARK(Cold<UpdatePlugin>)->Name("update_cold/plugin")->UseManualTime()->Iterations(3);
BENCHMARK(Cold<UpdateLimit>)->Name("update_cold/limit")->UseManualTime()->Iterations(3);
BENCHMARK(Warm<UpdatePlugin>)->Name("update_warm/plugin");
BENCHMARK(Warm<UpdateLimit>)->Name("update_warm/limit");

}  // namespace

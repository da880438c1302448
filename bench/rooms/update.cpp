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

#include "program.h"
#include "recognizer_record.h"
#include "room_session.h"
#include "rooms.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kMembers = 1000;
constexpr std::size_t kLine = 64;
constexpr std::size_t kEvictingBytes = std::size_t{16} << 20;  // several times what a core has to itself

class IdleRoom {
 public:
  IdleRoom() {
    session_.lend(kMembers);
    for (SttRecognizerHn recognizer : session_.lent())
      words_.push_back(&recognizer->instance->enabled);
  }

  void update() { session_.update(); }
  void touch() {
    std::uint32_t sum = 0;
    for (const std::uint32_t* word : words_)
      sum += __atomic_load_n(word, __ATOMIC_SEQ_CST);
    benchmark::DoNotOptimize(sum);
  }
  // Sends every line of the session to memory, whatever the size of the last cache, and the page tables out of the
  // core's own caches.
  void evict() {
    for (std::size_t i = 0; i < session_.area().size(); i += kLine)
      _mm_clflush(session_.area().data() + i);
    for (std::size_t i = 0; i < other_.size(); i += kLine)
      other_[i] += 1;
    _mm_mfence();
  }

 private:
  RoomSession session_{kMembers};
  std::vector<const std::uint32_t*> words_;
  std::vector<std::uint8_t> other_ = std::vector<std::uint8_t>(kEvictingBytes);
};

// A template, so that what is measured is inlined.
template <void (IdleRoom::*kRun)()>
void measure_cold(benchmark::State& state, IdleRoom& room) {
  for ([[maybe_unused]] auto step : state) {
    room.evict();
    const auto start = Clock::now();
    (room.*kRun)();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}

template <void (IdleRoom::*kRun)()>
void measure_warm(benchmark::State& state, IdleRoom& room) {
  (room.*kRun)();
  for ([[maybe_unused]] auto step : state)
    (room.*kRun)();
}

template <void (IdleRoom::*kRun)()>
void add(const Shared<IdleRoom>& room, const std::string& contestant) {
  benchmark::RegisterBenchmark(("update_cold/" + contestant).c_str(),
                               [room](auto& state) { measure_cold<kRun>(state, room()); })
      ->UseManualTime()
      ->Iterations(1);
  benchmark::RegisterBenchmark(("update_warm/" + contestant).c_str(),
                               [room](auto& state) { measure_warm<kRun>(state, room()); });
}

}  // namespace

void register_updates() {
  const Shared<IdleRoom> room;
  add<&IdleRoom::update>(room, "plugin");
  add<&IdleRoom::touch>(room, "limit");
}

}  // namespace bench

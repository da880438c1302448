// Row growth: what one member costs as the room grows. One iteration is one tick of the whole room; the counter
// ns_member is the share of a member.
//
// Inputs: frame_N, a frame of each of N members who all speak; update_N, one Update over N idle members.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "program.h"
#include "recognizer.h"
#include "room_session.h"
#include "rooms.h"
#include "script.h"

namespace bench {
namespace {

constexpr std::uint32_t kMaxMembers = 4096;
constexpr std::uint32_t kSessionMembers = 2048;  // a session's work area has at most 2 GiB

// As many sessions as the members need.
class House {
 public:
  void lend(std::uint32_t members) {
    recognizers.clear();
    open_ = 0;
    for (std::uint32_t left = members; left > 0; ++open_) {
      if (sessions_.size() == open_) sessions_.push_back(std::make_unique<RoomSession>(kSessionMembers));
      const std::uint32_t count = std::min(left, kSessionMembers);
      sessions_[open_]->lend(count);
      recognizers.insert(recognizers.end(), sessions_[open_]->lent().begin(), sessions_[open_]->lent().end());
      left -= count;
    }
  }
  void update() {
    for (std::size_t i = 0; i < open_; ++i)
      sessions_[i]->update();
  }

  std::vector<SttRecognizerHn> recognizers;  // of the active members

 private:
  std::vector<std::unique_ptr<RoomSession>> sessions_;
  std::size_t open_ = 0;
};

void count_members(benchmark::State& state, std::uint32_t members) {
  state.counters["ns_member"] =
      benchmark::Counter(members * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void measure_frames(benchmark::State& state, House& house, std::uint32_t members) {
  house.lend(members);
  std::vector<Place> places;
  for (std::uint32_t i = 0; i < members; ++i)
    places.emplace_back(i, members);
  for ([[maybe_unused]] auto step : state) {
    for (std::uint32_t i = 0; i < members; ++i) {
      SttRecognizerHn recognizer = house.recognizers[i];
      // Stands in for the replies that free the slots of the last round.
      if (places[i].at_start()) zelSttRecognizer_Reset(recognizer);
      recognizer->interface_table->PutAudioFrame(recognizer->instance, &places[i].next());
    }
  }
  count_members(state, members);
}

void measure_updates(benchmark::State& state, House& house, std::uint32_t members) {
  house.lend(members);
  for ([[maybe_unused]] auto step : state)
    house.update();
  count_members(state, members);
}

}  // namespace

void register_growth() {
  const Shared<House> house;
  for (std::uint32_t members = 1; members <= kMaxMembers; members *= 4) {
    const std::string suffix = std::to_string(members);
    benchmark::RegisterBenchmark(("growth/plugin/frame_" + suffix).c_str(),
                                 [=](auto& state) { measure_frames(state, house(), members); });
    benchmark::RegisterBenchmark(("growth/plugin/update_" + suffix).c_str(),
                                 [=](auto& state) { measure_updates(state, house(), members); });
  }
}

}  // namespace bench

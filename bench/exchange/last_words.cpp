// last_words: from the frame that ends an utterance of five seconds until its text is popped, the service answering at
// once; a room on the reference host, updated every 40 ms, or every millisecond to see what the periods add. One
// iteration is one utterance; p50_ms is the median of a repetition.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "contestants.h"
#include "exchange.h"
#include "room.h"
#include "room_session.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int kAudioFrames = 125;
constexpr int kSilentFrames = 7;  // they end the utterance
constexpr std::uint32_t kMember = 1;
constexpr std::array<std::uint8_t, 80> kPacket{0x58};

// Feeds the last frame at `begin` and updates from then on.
class Plugin {
 public:
  Plugin(const Services& services, std::chrono::milliseconds period)
      : period_(period),
        room_(session_.handle(), {.text = [this](const zel::host::RoomText&) { heard_ = Clock::now(); }, .left = {}}) {
    room_.set_endpoint(services.plain + "/stt");
    room_.set_token("token");
    room_.add_member(kMember, "user01");
  }

  Milliseconds operator()() {
    heard_.reset();
    for (int i = 0; i < kAudioFrames; ++i)
      room_.feed(kMember, kPacket);
    for (int i = 1; i < kSilentFrames; ++i)
      room_.feed(kMember, {});
    const auto begin = Clock::now();
    room_.feed(kMember, {});
    room_.pump();
    for (int update = 1; !heard_; ++update) {
      if (room_.waiting() == 0) throw std::runtime_error("no text");
      std::this_thread::sleep_until(begin + update * period_);
      room_.pump();
    }
    return *heard_ - begin;
  }

 private:
  const std::chrono::milliseconds period_;
  Library library_;
  RoomSession session_{1};
  std::optional<Clock::time_point> heard_;
  zel::host::Room room_;
};

// One exchange of libcurl's and one period after it.
class Limit {
 public:
  Limit(const Services& services, std::chrono::milliseconds period)
      : period_(period), post_{services.plain, "/stt?language=en-US&speaker=user01", "Bearer token", body_} {}

  Milliseconds operator()() const {
    const auto begin = Clock::now();
    benchmark::DoNotOptimize(post_with_curl(post_, ""));
    std::this_thread::sleep_for(period_);
    return Clock::now() - begin;
  }

 private:
  const std::chrono::milliseconds period_;
  const std::vector<unsigned char> body_ = std::vector<unsigned char>(kAudioFrames * kPacket.size());
  const Post post_;
};

template <typename Contestant>
void last_words(benchmark::State& state, const Services& services, std::chrono::milliseconds period) {
  Contestant contestant(services, period);
  std::vector<Milliseconds> times;
  for (auto _ : state) {
    times.push_back(contestant());
    state.SetIterationTime(times.back().count() / 1e3);
  }
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), middle, times.end());
  state.counters["p50_ms"] = middle->count();
}

template <typename Contestant>
void add(const std::string& name, const Services& services, std::chrono::milliseconds period) {
  const std::string full_name = "last_words/" + name + "/" + std::to_string(period.count()) + "ms";
  benchmark::RegisterBenchmark(full_name.c_str(),
                               [services, period](auto& state) { last_words<Contestant>(state, services, period); })
      ->Unit(benchmark::kMillisecond)
      ->Iterations(period.count() > 1 ? 3 : 21)
      ->UseManualTime();
}

}  // namespace

void register_last_words(const Services& services) {
  for (const std::chrono::milliseconds period : {zel::host::kFrameDuration, std::chrono::milliseconds(1)}) {
    add<Plugin>("plugin", services, period);
    add<Limit>("limit", services, period);
  }
}

}  // namespace bench

// Row memory: what one recognizer of a session takes, by the pages that are resident in the process.
//
// Counters, in bytes per recognizer: `bytes_created`, after the session's creation; `bytes`, after 10,000 utterances,
// what exchanges leave on the stacks and heaps of their threads included; `growth`, from 2,500 utterances to 10,000.
// Limit: a recognizer's share of the session's work size, and nothing for its thread. Peer `curl_threads`: that share
// and a thread that makes as many exchanges with bare libcurl, measured in the same way; `thread` is what the thread
// takes.
// Input `no_cache`: with the C library told not to keep, for each thread, what libcurl has given back. Kernel memory
// does not count.
#include "memory.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "loopback_service.h"
#include "room_session.h"
#include "script.h"

namespace {

constexpr std::uint32_t kMembers = 250;
constexpr std::size_t kEarlyUtterances = 2500;  // ten of each member: until then the allocator's caches fill
constexpr std::size_t kUtterances = 10'000;
constexpr std::size_t kSpokenFrames = 25;
constexpr std::size_t kGroup = 25;       // members who speak at a time: what a service has to keep waiting
constexpr std::size_t kBodySize = 2500;  // about an utterance's stream
constexpr int kMaxPolls = 60'000;        // of a millisecond, for one group
constexpr char kReply[] = R"({"result":"success","version":"1","speaker":"x","text":"as it was said"})";

double Resident() {
  std::int64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return static_cast<double>(pages * sysconf(_SC_PAGESIZE));
}

void Speak(SttRecognizerHn recognizer, std::size_t place) {
  for (std::size_t i = 0; i < kSpokenFrames + rooms::kPause; ++i) {
    const SttAudioFrame silence{nullptr, 0};
    const std::vector<SttAudioFrame>& script = rooms::Script();
    const SttAudioFrame& frame = i < kSpokenFrames ? script[(place + i) % 100] : silence;
    recognizer->interface_table->PutAudioFrame(recognizer->instance, &frame);
  }
}

// Releases a packet as hosts do.
void Release(PacketRef* ref) {
  if (--ref->ref_count > 0) return;
  ref->release_callback(ref->release_context, ref);
  PtrQueue& queue = *ref->owner_queue;
  queue.items[queue.write_index++ % queue.capacity] = ref;
}

// One utterance of each member of a group, up to its text.
void Converse(rooms::RoomSession& session, std::size_t first, std::size_t count) {
  for (std::size_t i = first; i < first + count; ++i)
    Speak(session.active()[i], i);
  std::size_t texts = 0;
  for (int poll = 0; texts < count; ++poll) {
    if (poll == kMaxPolls) throw std::runtime_error("memory: the service does not answer");
    session.Update();
    for (std::size_t i = first; i < first + count; ++i) {
      SttRecognizerHn recognizer = session.active()[i];
      PacketRef* packet = recognizer->interface_table->PopTextPacket(recognizer->instance);
      if (packet == nullptr) continue;
      Release(packet);
      ++texts;
    }
    usleep(1000);
  }
}

struct Numbers {
  double created;
  double early;
  double late;
};

// `create` makes kMembers of a contestant; `converse` has one utterance of each of `count` of them.
template <typename Create, typename Converse>
Numbers Measure(const Create& create, const Converse& converse) {
  // What the process takes once, the libraries of the exchange for example, is there before anything is measured.
  {
    const auto few = create(kGroup);
    converse(*few, 0, kGroup);
  }
  const double before = Resident();
  const auto many = create(kMembers);
  const auto share = [&] { return (Resident() - before) / kMembers; };
  std::size_t done = 0;
  const auto converse_until = [&](std::size_t utterances) {
    for (; done < utterances; done += kGroup)
      converse(*many, done % kMembers, kGroup);
    return share();
  };
  const double created = share();
  const double early = converse_until(kEarlyUtterances);
  return {created, early, converse_until(kUtterances)};
}

Numbers MeasurePlugin() {
  const bench_kit::LoopbackService service(kReply);
  const auto create = [&](std::uint32_t members) {
    auto session = std::make_unique<rooms::RoomSession>(members);
    session->SetActive(members);
    session->SetEndpoint(service.origin().c_str());
    return session;
  };
  return Measure(create, Converse);
}

Numbers MeasureCurlThreads() {
  const bench_kit::LoopbackService service(kReply);
  const auto create = [&](std::uint32_t members) {
    return std::make_unique<rooms::CurlThreads>(members, service.origin() + "/", kBodySize);
  };
  return Measure(create, [](rooms::CurlThreads& threads, std::size_t first, std::size_t count) {
    threads.Converse(first, count);
  });
}

// From a process of its own: in this one, earlier benchmarks have left stacks and heaps behind.
Numbers MeasureApart(const std::string& contestant, bool thread_cache) {
  const std::string command = (thread_cache ? "" : "GLIBC_TUNABLES=glibc.malloc.tcache_count=0 ") +
                              std::filesystem::read_symlink("/proc/self/exe").string() + " --measure-memory " +
                              contestant;
  std::FILE* output = popen(command.c_str(), "r");
  std::array<char, 128> line{};
  const bool answered = output != nullptr && std::fgets(line.data(), static_cast<int>(line.size()), output) != nullptr;
  std::istringstream words(line.data());
  Numbers numbers{};
  if (output == nullptr || pclose(output) != 0 || !answered ||
      !(words >> numbers.created >> numbers.early >> numbers.late)) {
    throw std::runtime_error("memory: measuring has failed");
  }
  return numbers;
}

template <bool kThreadCache>
void Plugin(benchmark::State& state) {
  static const Numbers numbers = MeasureApart("plugin", kThreadCache);
  for ([[maybe_unused]] auto step : state) {
  }
  state.counters["bytes"] = numbers.late;
  state.counters["bytes_created"] = numbers.created;
  state.counters["growth"] = numbers.late - numbers.early;
}

double WorkShare() {
  return static_cast<double>(rooms::SessionSize(2) - rooms::SessionSize(1));
}

void Limit(benchmark::State& state) {
  for ([[maybe_unused]] auto step : state) {
  }
  state.counters["bytes"] = WorkShare();
}

template <bool kThreadCache>
void CurlThreads(benchmark::State& state) {
  static const Numbers numbers = MeasureApart("curl_threads", kThreadCache);
  for ([[maybe_unused]] auto step : state) {
  }
  state.counters["bytes"] = WorkShare() + numbers.late;
  state.counters["thread"] = numbers.late;
  state.counters["growth"] = numbers.late - numbers.early;
}

BENCHMARK(Plugin<true>)->Name("memory/plugin")->Iterations(1);
BENCHMARK(Limit)->Name("memory/limit")->Iterations(1);
BENCHMARK(CurlThreads<true>)->Name("memory/curl_threads")->Iterations(1);
BENCHMARK(Plugin<false>)->Name("memory/plugin/no_cache")->Iterations(1);
BENCHMARK(Limit)->Name("memory/limit/no_cache")->Iterations(1);
BENCHMARK(CurlThreads<false>)->Name("memory/curl_threads/no_cache")->Iterations(1);

}  // namespace

int rooms::PrintMemory(const std::string& contestant) {
  const Numbers numbers = contestant == "plugin" ? MeasurePlugin() : MeasureCurlThreads();
  std::printf("%.0f %.0f %.0f\n", numbers.created, numbers.early, numbers.late);
  return 0;
}

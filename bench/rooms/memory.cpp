// Row memory: what one recognizer of a session takes, by the pages that are resident in the process.
//
// Counters, in bytes per recognizer: `bytes_created`, after the session's creation; `bytes`, after 10,000 utterances,
// what exchanges leave on the stacks and heaps of their threads included; `growth`, from 2,500 utterances to 10,000.
// Limit: a recognizer's share of the session's work size, and nothing for its thread. Peer `curl_threads`: that share
// and a thread that makes as many exchanges with bare libcurl, measured in the same way; `thread` is what the thread
// takes.
// Input `no_cache`: with the C library told not to keep, for each thread, what libcurl has given back. Kernel memory
// does not count.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "curl_threads.h"
#include "loopback_service.h"
#include "room_session.h"
#include "rooms.h"
#include "script.h"

namespace bench {
namespace {

constexpr std::uint32_t kMembers = 250;
constexpr std::size_t kEarlyUtterances = 2500;  // ten of each member: until then the allocator's caches fill
constexpr std::size_t kLateUtterances = 10'000;
constexpr std::size_t kSpokenFrames = 25;
constexpr std::size_t kGroup = 25;       // members who speak at a time: what a service has to keep waiting
constexpr std::size_t kBodySize = 2500;  // about an utterance's stream
constexpr int kMaxPolls = 60'000;        // of a millisecond, for one group
constexpr char kReply[] = R"({"result":"success","version":"1","speaker":"x","text":"as it was said"})";

double resident() {
  std::int64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return static_cast<double>(pages * sysconf(_SC_PAGESIZE));
}

void speak(SttRecognizerHn recognizer, std::size_t place) {
  for (std::size_t i = 0; i < kSpokenFrames + kPause; ++i) {
    const SttAudioFrame silence{nullptr, 0};
    const SttAudioFrame& frame = i < kSpokenFrames ? script()[(place + i) % 100] : silence;
    recognizer->interface_table->PutAudioFrame(recognizer->instance, &frame);
  }
}

// Releases a packet as hosts do.
void release(PacketRef* ref) {
  if (--ref->ref_count > 0) return;
  ref->release_callback(ref->release_context, ref);
  PtrQueue& queue = *ref->owner_queue;
  queue.items[queue.write_index++ % queue.capacity] = ref;
}

// One utterance of each member of a group, up to its text.
void converse(RoomSession& session, std::size_t first, std::size_t count) {
  for (std::size_t i = first; i < first + count; ++i)
    speak(session.lent()[i], i);
  std::size_t texts = 0;
  for (int poll = 0; texts < count; ++poll) {
    if (poll == kMaxPolls) throw std::runtime_error("memory: the service does not answer");
    session.update();
    for (std::size_t i = first; i < first + count; ++i) {
      SttRecognizerHn recognizer = session.lent()[i];
      PacketRef* packet = recognizer->interface_table->PopTextPacket(recognizer->instance);
      if (packet == nullptr) continue;
      release(packet);
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
Numbers measure(const Create& create, const Converse& converse) {
  // What the process takes once, the libraries of the exchange for example, is there before anything is measured.
  {
    const auto few = create(kGroup);
    converse(*few, 0, kGroup);
  }
  const double before = resident();
  const auto many = create(kMembers);
  const auto share = [&] { return (resident() - before) / kMembers; };
  std::size_t done = 0;
  const auto converse_until = [&](std::size_t utterances) {
    for (; done < utterances; done += kGroup)
      converse(*many, done % kMembers, kGroup);
    return share();
  };
  const double created = share();
  const double early = converse_until(kEarlyUtterances);
  return {created, early, converse_until(kLateUtterances)};
}

Numbers measure_plugin() {
  const LoopbackService service(kReply);
  const auto create = [&](std::uint32_t members) {
    auto session = std::make_unique<RoomSession>(members);
    session->lend(members);
    session->set_endpoint(service.origin());
    return session;
  };
  return measure(create, converse);
}

Numbers measure_curl_threads() {
  const LoopbackService service(kReply);
  const auto create = [&](std::uint32_t members) {
    return std::make_unique<CurlThreads>(members, service.origin(), kBodySize);
  };
  return measure(create,
                 [](CurlThreads& threads, std::size_t first, std::size_t count) { threads.converse(first, count); });
}

// From a process of its own, where nothing has left stacks and heaps behind. The shell's parent is this process.
Numbers measure_apart(const std::string& contestant, bool thread_cache) {
  const std::string command = (thread_cache ? "" : "GLIBC_TUNABLES=glibc.malloc.tcache_count=0 ") +
                              std::string("/proc/$PPID/exe --measure-memory ") + contestant;
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

double work_share() {
  return static_cast<double>(session_size(2) - session_size(1));
}

using Counters = std::map<std::string, double>;

void add(const std::string& name, const std::function<Counters()>& count) {
  benchmark::RegisterBenchmark(("memory/" + name).c_str(), [=, counters = Counters()](auto& state) mutable {
    if (counters.empty()) counters = count();
    for ([[maybe_unused]] auto step : state) {
    }
    for (const auto& [counter, value] : counters)
      state.counters[counter] = value;
  })->Iterations(1);
}

}  // namespace

void register_memory() {
  for (const bool cache : {true, false}) {
    const std::string input = cache ? "" : "/no_cache";
    add("plugin" + input, [=]() -> Counters {
      const Numbers numbers = measure_apart("plugin", cache);
      return {{"bytes", numbers.late}, {"bytes_created", numbers.created}, {"growth", numbers.late - numbers.early}};
    });
    add("limit" + input, []() -> Counters { return {{"bytes", work_share()}}; });
    add("curl_threads" + input, [=]() -> Counters {
      const Numbers numbers = measure_apart("curl_threads", cache);
      return {
          {"bytes", work_share() + numbers.late}, {"thread", numbers.late}, {"growth", numbers.late - numbers.early}};
    });
  }
}

void print_memory(const std::string& contestant) {
  if (contestant != "plugin" && contestant != "curl_threads") throw std::runtime_error("memory: no such contestant");
  const Numbers numbers = contestant == "plugin" ? measure_plugin() : measure_curl_threads();
  std::printf("%.0f %.0f %.0f\n", numbers.created, numbers.early, numbers.late);
}

}  // namespace bench

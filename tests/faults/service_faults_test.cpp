// Each service of the host that can fail fails at its k-th call of an operation, k = 0, 1, 2, ..., until the operation
// succeeds. The tables say what is reported for each k, and so how often the service is called.
#include <cstdlib>
#include <functional>
#include <map>

#include "ogg_pages.h"
#include "packet_ref.h"
#include "session_registry.h"
#include "session_rig.h"

namespace {

// What the failures of a service's calls make the plug-in report, call by call; one line per report.
using Faults = std::vector<std::string>;

struct Service {
  int slot;
  Faults faults;
};

Faults Silent(std::size_t calls) {
  return Faults(calls);
}
Faults operator+(Faults a, const Faults& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
std::string Lines(const Reports& reports) {
  std::string lines;
  for (const std::string& report : reports)
    lines += report + "\n";
  return lines;
}

const std::string kSizeFailed = "0 E2022111475:ZelRtcSpeechToText is failed to initialize.\n";
const std::string kLibraryFailed = "0 E2022111476:ZelRtcSpeechToText is failed to initialize.\n";
const std::string kNoRegistry = "0 E2022111472:ZelRtcSpeechToTextSesion is failed to initialize.\n";
const std::string kNoRegistryMutex = "0 E2022111473:ZelRtcSpeechToTextSesion is failed to initialize.\n";
const std::string kNoRoom =
    "0 E2022103100:Failed to write buffer because it is not enough buffer length of out data.\n";

std::string Worker(const std::string& number) {
  return "0 E2022121" + number + ":Failed create wreq async handle.\n";
}

// The carves of one recognizer: handle, record, formatter and its seven parts, ring buffer, pool; the pool's; the rest
// of the pool, queue, stack, items, texts, mutex, request, its record, reader and worker; the worker's; six buffers.
Faults RecognizerCarves() {
  Faults worker;
  for (const char* number : {"304", "305", "335", "306", "336", "307", "308", "309", "310", "313", "314", "315"})
    worker.push_back(Worker(number));
  const std::string pool = ":zelFixedAllocator_Allocate() Failed.\n";
  return Silent(12) + Faults{"0 E2021100782" + pool, "0 E2021100783" + pool, "0 E2021100784" + pool} + Silent(6) +
         Faults{"0 E2022110908 -2\n"} + Silent(2) + Faults{"0 E2022121302 -2\n"} + worker + Silent(6);
}

// The carves for one recognizer: its node and its area.
Faults SeatCarves() {
  return Silent(1) + Faults{"0 E2022111406 -2\n"};
}

// The totals asked for while one recognizer is built: its four parts', formatter, pool, the worker's for its area, and
// the worker's own.
Faults RecognizerTotals() {
  return Silent(7) + Faults{"0 E2022121303 -2\n"};
}

// Lets every service fail at every call of `attempt`, which tells whether it succeeded; `undo` takes a success back.
void Sweep(ScriptedHost& host, const std::vector<Service>& services, const std::function<bool()>& attempt,
           const std::function<void()>& undo, const std::function<void()>& expect_nothing_done) {
  const auto live = host.Live();
  const int timers = host.timer_depth;
  const auto expect_undone = [&] {
    EXPECT_EQ(host.Live(), live);
    EXPECT_EQ(host.timer_depth, timers);
    expect_nothing_done();
  };
  for (const Service& service : services) {
    for (std::size_t k = 0; k <= service.faults.size(); ++k) {
      SCOPED_TRACE("slot " + std::to_string(service.slot) + ", call " + std::to_string(k));
      const bool fails = k < service.faults.size();
      host.Fail(service.slot, static_cast<int>(k) + 1);
      const bool succeeded = attempt();
      ASSERT_EQ(host.Failed(), fails) << "the service is called more or less often than the table says";
      ASSERT_EQ(succeeded, !fails);
      EXPECT_EQ(Lines(host.TakeReports()), fails ? service.faults[k] : "");
      if (fails) {
        expect_undone();
        ASSERT_TRUE(attempt()) << "the next try";
      }
      undo();
      expect_undone();
    }
  }
}

void RegisterHeap() {
  zelRtcSpeechToText_SetUserMallocFunction([](void*, uint32_t size) { return std::malloc(size); }, nullptr);
  zelRtcSpeechToText_SetUserFreeFunction([](void*, void* block) { std::free(block); }, nullptr);
}

TEST(ServiceFaults, LibraryInitialization) {
  ScriptedHost host;
  RegisterHeap();
  const std::vector<Service> services = {
      {SLOT(work_size_total), {kSizeFailed, "", kSizeFailed}},
      {SLOT(user_allocator_is_set), {"0 E2022101104:User allocator function has not been set.\n"}},
      {SLOT(user_allocator_allocate), {"0 E2022101105 -3\n"}},
      {SLOT(fixed_allocator_allocate),
       {"0 E2022111445 -2\n" + kLibraryFailed, kNoRegistry + kLibraryFailed, kNoRegistryMutex + kLibraryFailed}},
      {SLOT(mutex_create), {kNoRegistryMutex + kLibraryFailed}},
  };
  Sweep(
      host, services, [] { return zelRtcSpeechToText_Initialize(nullptr, nullptr, 0) == 1; },
      zelRtcSpeechToText_Finalize,
      [] {
        EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), 0u);
        EXPECT_FALSE(zelSttRegistry_Exists());
      });
  host.Fail(SLOT(work_size_total), 2);
  EXPECT_EQ(zelRtcSpeechToText_CalculateWorkSize(nullptr), -1);
}

// In an area of the session's own; the sessions in front of it and behind it stay registered.
TEST(ServiceFaults, SessionCreation) {
  LibraryRig library;
  RegisterHeap();
  SessionRig first(1);
  const ZelRtcSpeechToTextSessionConfig config = {4, 10, 0, 2};
  const std::vector<Service> services = {
      // The size of the session, then of its recognizers, then each of them: its node, its area and its parts.
      {SLOT(work_size_total), Silent(6) + Silent(5) + RecognizerTotals() + RecognizerTotals()},
      {SLOT(ring_buffer_calculate_work_size), Silent(4)},
      {SLOT(user_allocator_is_set), {"0 E2022102101:User allocator function has not been set.\n"}},
      {SLOT(user_allocator_allocate), {"0 E2022102102 -3\n"}},
      {SLOT(fixed_allocator_allocate),
       Silent(3) + SeatCarves() + RecognizerCarves() + SeatCarves() + RecognizerCarves()},
      {SLOT(mutex_create), Silent(3)},
      {SLOT(ring_buffer_create), Silent(2)},
      {SLOT(event_create), {Worker("314"), Worker("314")}},
      {SLOT(thread_create), {Worker("315"), Worker("315")}},
  };
  ZelRtcSpeechToTextSessionHn session = nullptr;
  Sweep(
      library.host, services,
      [&] { return (session = zelRtcSpeechToTextSession_Create(&config, nullptr, 0)) != nullptr; },
      [&] {
        EXPECT_EQ(first.session->registry_link.next, &session->registry_link);
        EXPECT_EQ(zelRtcSpeechToTextSession_Destroy(session), 1u);
      },
      [&] { EXPECT_EQ(first.session->registry_link.next, nullptr) << "still registered"; });
}

// One exchange: a recognizer is lent, five frames are spoken, posted, answered and popped, and it is taken back. Adds
// the text to `texts`; returns what was posted, or nothing.
std::string RunExchange(LibraryRig& library, SessionRig& rig, std::vector<std::string>& texts) {
  const std::size_t posted = library.executor.exchanges().size();
  SttRecognizerHn member = rig.slots->AcquireRecognizer(rig.body);
  const SttAudioFrame voice = {reinterpret_cast<const std::uint8_t*>("voice"), 5}, silence = {nullptr, 0};
  for (int i = 0; i < 5 + 7; ++i)
    EXPECT_EQ(member->interface_table->PutAudioFrame(member->instance, i < 5 ? &voice : &silence), 1u);
  for (int i = 0; i < 3; ++i) {
    rig.slots->Update(rig.body);
    library.host.WaitForWorkers();
  }
  while (PacketRef* packet = member->interface_table->PopTextPacket(member->instance)) {
    texts.emplace_back(reinterpret_cast<const char*>(packet->payload->field_values[0]));
    zelPacketRef_Release(packet);
  }
  EXPECT_EQ(rig.Release(member), 1u);
  EXPECT_EQ(rig.body->free_list.count, 1u);
  const std::vector<Exchange> exchanges = library.executor.exchanges();
  return exchanges.size() > posted ? exchanges.back().body : "";
}

TEST(ServiceFaults, OneExchange) {
  const std::string kNoBody =
      "0 E2022121329:Failed to request becase ZelWreqAsyncConfig::max_request_body_length is not enough.\n"
      "0 E2022110407:Failed to request for SpeechToText.\n";
  struct Fault {
    std::string reports = {};
    bool delivered = true;
  };
  const struct {
    int slot;
    std::size_t calls;
    std::map<std::size_t, Fault> faults;  // of the calls whose failure shows
  } services[] = {
      // Five frames that finish no page, the last page, the whole stream, the next stream, and the one after the reset.
      {SLOT(ring_buffer_acquire), 9, {{5, {kNoRoom, false}}, {6, {"", false}}, {7, {kNoRoom}}, {8, {kNoRoom}}}},
      // Five packets, the last page and the header pages of the next stream, whose copies are not examined, then the
      // request's body, and the header pages after the reset.
      {SLOT(memory_copy), 16, {{11, {kNoBody, false}}}},
  };
  LibraryRig library;
  SessionRig rig(1);
  rig.slots->SetEndpointUrl(rig.body, "http://service", 14);
  const auto live = library.host.Live();
  const auto run = [&](bool delivered) {
    if (delivered) library.executor.Reply(Recognized("hello"));
    std::vector<std::string> texts;
    const std::string body = RunExchange(library, rig, texts);
    EXPECT_EQ(texts, std::vector<std::string>(delivered ? 1 : 0, "hello"));
    EXPECT_EQ(library.host.Live(), live);
    return body;
  };
  for (const auto& [slot, calls, faults] : services) {
    for (std::size_t k = 0; k <= calls; ++k) {
      SCOPED_TRACE(std::to_string(slot) + ", call " + std::to_string(k));
      const Fault expected = faults.contains(k) ? faults.at(k) : Fault{};
      library.host.Fail(slot, static_cast<int>(k) + 1);
      const std::string body = run(expected.delivered);
      ASSERT_EQ(library.host.Failed(), k < calls) << "the service is called more or less often than the table says";
      EXPECT_EQ(Lines(library.host.TakeReports()), expected.reports);
      EXPECT_EQ(body.empty(), !expected.delivered);
      // What cannot be acquired costs audio at most: a stream that is posted is whole.
      const std::vector<std::string> packets(5, "voice");
      if (slot == SLOT(ring_buffer_acquire) && !body.empty()) ExpectOpusStream(body, packets);
      run(true);  // what the failed copies of this exchange left behind goes out with it
      ExpectOpusStream(run(true), packets);
    }
  }
}

}  // namespace

#include "application.h"

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

#include "host_services.h"
#include "reports.h"
#include "room.h"
#include "world.h"
#include "zel_rtc_speech_to_text.h"

namespace sim {

namespace {

// What the application's allocation function has given out, and whose count of live objects it is in.
struct Allocation {
  std::unique_ptr<WorkArea> area;
  int* live;
};
using Allocations = std::map<const void*, Allocation>;

void* Allocate(void* object, std::uint32_t size) {
  auto area = std::make_unique<WorkArea>(static_cast<std::int32_t>(size), Below(8));
  void* memory = area->data();
  int& live = Room::LiveOf(Me().room);
  ++live;
  static_cast<Allocations*>(object)->emplace(memory, Allocation{std::move(area), &live});
  return memory;
}

void Release(void* object, void* memory) {
  auto& allocations = *static_cast<Allocations*>(object);
  const auto at = allocations.find(memory);
  SIM_CHECK(at != allocations.end(), "memory is returned that is not out");
  --*at->second.live;
  allocations.erase(at);
}

void InstallBridge() {
  static const ZelBaseRtcBridgeInterface sound = {ZEL_BASE_RTC_BRIDGE_VERSION, &HostTable()};
  static const ZelBaseRtcBridgeInterface foreign = {7, &HostTable()};
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&sound);
  ExpectReports();
  if (!OneIn(8)) return;
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&foreign);
  ExpectReports({std::string(ReportText("E2022111826")) + "|539165955|7"});
}

// Initializes until it succeeds; a failure leaves nothing behind.
std::unique_ptr<WorkArea> Initialize() {
  World& world = TheWorld();
  for (;;) {
    const std::int32_t size = zelRtcSpeechToText_CalculateWorkSize(nullptr);
    auto area = OneIn(2) ? std::make_unique<WorkArea>(size, Below(8)) : nullptr;
    world.setting_up = true;
    const std::uint32_t done = zelRtcSpeechToText_Initialize(nullptr, area ? area->data() : nullptr, area ? size : 0);
    world.setting_up = false;
    SIM_CHECK(done == zelRtcSpeechToText_IsInitialized(), "IsInitialized");
    if (done == 1) {
      ExpectReports();
      return area;
    }
    Me().reports.clear();
    SIM_CHECK(world.live == 0 && world.timer_depth == 0, "a failed initialization left %d objects", world.live);
  }
}

// After finalization has destroyed what it could.
void BuryDetached(const std::vector<std::unique_ptr<Room>>& rooms) {
  for (const auto& room : rooms) {
    if (room->attached()) continue;
    room->ExpectLeaks();
    room->SessionIsGone();
  }
}

// Finalization gives up on sessions that are attached, each with a report, and keeps the library as it is.
void FinalizeUnderAttached(const std::vector<std::unique_ptr<Room>>& rooms) {
  zelRtcSpeechToText_Finalize();
  SIM_CHECK(zelRtcSpeechToText_IsInitialized() == 1, "finalized under an attached session");
  BuryDetached(rooms);
  for (const auto& room : rooms) {
    if (!room->attached()) continue;
    const auto refusal = std::ranges::find(Me().reports, std::string(ReportText("E2022102623")) + "|");
    SIM_CHECK(refusal != Me().reports.end(), "an attached session refused silently");
    Me().reports.erase(refusal);
    room->Detach();
  }
}

}  // namespace

void RunApplication() {
  World& world = TheWorld();
  Allocations allocations;
  InstallBridge();
  zelRtcSpeechToText_SetUserMallocFunction(Allocate, &allocations);
  zelRtcSpeechToText_SetUserFreeFunction(Release, &allocations);
  for (std::uint32_t lives = OneIn(4) ? 2 : 1; lives > 0; --lives) {
    const auto area = Initialize();
    std::vector<std::unique_ptr<Room>> rooms;
    std::vector<const Fiber*> drivers;
    for (std::uint32_t count = 1 + Below(2); count > 0; --count) {
      rooms.push_back(std::make_unique<Room>(static_cast<std::uint32_t>(rooms.size())));
      Room* room = rooms.back().get();
      drivers.push_back(world.scheduler.Spawn("driver " + room->name(), {.role = Role::kDriver, .room = room},
                                              [room] { room->Run(); }));
    }
    for (const Fiber* driver : drivers)
      world.scheduler.Join(driver);
    if (std::ranges::any_of(rooms, [](const auto& room) { return room->attached(); })) FinalizeUnderAttached(rooms);
    zelRtcSpeechToText_Finalize();
    BuryDetached(rooms);
    ExpectReports();
    SIM_CHECK(zelRtcSpeechToText_IsInitialized() == 0 && world.live == 0 && world.timer_depth == 0,
              "finalization left %d objects", world.live);
  }
  SIM_CHECK(allocations.empty(), "memory of the application's allocator was not returned");
}

}  // namespace sim

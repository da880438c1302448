#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "expected_reports.h"
#include "host_services.h"
#include "room.h"
#include "world.h"

namespace sim {

namespace {

// Finalization gives up on sessions that are attached, each with a report, and keeps the library as it is.
void Finalize(const std::vector<std::unique_ptr<Room>>& rooms) {
  bool again = false;
  do {
    again = std::ranges::any_of(rooms, [](const auto& room) { return room->attached(); });
    zelRtcSpeechToText_Finalize();
    SIM_CHECK(zelRtcSpeechToText_IsInitialized() == (again ? 1u : 0u), "finalized under an attached session, or not");
    for (const auto& room : rooms) {
      if (!room->attached()) {
        room->SessionIsGone();
      } else {
        SIM_CHECK(std::erase(Me().reports, room->Refusal()) == 1, "an attached session refused silently");
        room->Detach();
      }
    }
  } while (again);
}

}  // namespace

void RunApplication() {
  World& world = TheWorld();
  static const ZelBaseRtcBridgeInterface bridge = {ZEL_BASE_RTC_BRIDGE_VERSION, &HostTable()};
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(&bridge);
  zelRtcSpeechToText_SetUserMallocFunction(Allocate, nullptr);
  zelRtcSpeechToText_SetUserFreeFunction(Release, nullptr);
  for (std::uint32_t lives = OneIn(4) ? 2 : 1; lives > 0; --lives) {
    SIM_CHECK(zelRtcSpeechToText_Initialize(nullptr, nullptr, 0) == 1, "the library was not initialized");
    std::vector<std::unique_ptr<Room>> rooms;
    std::vector<const Fiber*> drivers;
    for (std::uint32_t number = 0, count = 1 + Below(2); number < count; ++number) {
      Room* room = rooms.emplace_back(std::make_unique<Room>(number)).get();
      drivers.push_back(world.scheduler.Spawn("driver " + room->name, {.room = room}, [room] { room->Run(); }));
    }
    for (const Fiber* driver : drivers)
      world.scheduler.Join(driver);
    Finalize(rooms);
    ExpectReport();
    SIM_CHECK(world.live == 0 && world.timer_depth == 0, "finalization left %d objects", world.live);
  }
}

}  // namespace sim

// The other threads of a room.
#include <algorithm>
#include <mutex>

#include "expected_reports.h"
#include "room.h"
#include "world.h"

namespace sim {

// ---- The audio thread

void Room::Talk() {
  std::vector<Speech> speeches(seats.size());
  while (!closing_) {
    for (std::size_t i = 0; i < seats.size(); ++i) {
      const std::lock_guard alone(seats[i]->frames);
      if (seats[i]->joined) Feed(*seats[i], speeches[i]);
    }
    TheWorld().scheduler.Sleep(40 * kMillisecond);
  }
}

void Room::Feed(Seat& seat, Speech& speech) {
  if (speech.frames == 0) {
    constexpr std::uint32_t kLongest[] = {20, 60, 120, 256, 262};
    const Knobs& knobs = TheWorld().knobs;
    speech.talking = !speech.talking;
    speech.frames = 1 + Below(speech.talking ? knobs.spurt_frames : knobs.pause_frames);
    speech.size = TheWorld().random.Pick(kLongest);
  }
  --speech.frames;
  if (!speech.talking) return seat.Put({});
  seat.Put(Packet{++TheWorld().packets, speech.size / 2 + Below(speech.size / 2 + 1)});
}

// ---- The listener

void Room::Listen() {
  while (!closing_) {
    for (const auto& seat : seats) {
      const std::lock_guard alone(seat->pops);
      for (PacketRef* packet = nullptr; seat->joined && (packet = seat->Pop()) != nullptr;)
        held_.push_back({packet, seat.get(), Now() + Below(TheWorld().knobs.hold_ms) * kMillisecond});
    }
    Release(false);
    if (OneIn(8)) ChangeSetting();
    TheWorld().scheduler.Sleep(Below(300) * kMillisecond);
  }
  if (!OneIn(8)) Release(true);  // otherwise a host that forgets what it holds
}

// As the host header describes it.
void Room::Release(bool all) {
  const std::lock_guard hold(driving_);
  std::erase_if(held_, [all](const Held& held) {
    if (!all && held.until > Now()) return false;
    PacketRef* packet = held.packet;
    SIM_CHECK(packet->ref_count == 1, "a packet in the host's hands has %u references", packet->ref_count);
    packet->ref_count = 0;
    packet->release_callback(packet->release_context, packet);
    PtrQueue* owner = packet->owner_queue;
    owner->items[owner->write_index % owner->capacity] = packet;
    owner->write_index += 1;
    --held.seat->held;
    return true;
  });
}

// The member may leave in the middle: then it may not be found.
void Room::ChangeSetting() {
  const std::lock_guard hold(client_ids_);
  Seat* seat = Somebody();
  if (seat == nullptr) return;
  const char* id = seat->client_id.c_str();
  if (OneIn(2)) {
    const std::uint32_t language = Below(4);  // 3: no such language
    seat->language.Begin(language % 3);
    const std::uint32_t stored = zelRtcSpeechToTextSession_SetLanguage(session_, id, language);
    seat->language.End(stored == 1 && seat->joined);
    SIM_CHECK(!seat->joined || stored == (language < 3 ? 1u : 0u), "SetLanguage of a member");
    if (seat->joined && stored == 0) ExpectReport("E2022111425");
  } else {
    seat->enabled.Begin(OneIn(TheWorld().knobs.disable_one_in) ? 0 : OneIn(2) ? 1 : 5);
    const std::uint32_t stored = zelRtcSpeechToTextSession_EnableMember(session_, id, *seat->enabled.pending);
    seat->enabled.End(stored == 1);  // kept for the next member
    SIM_CHECK(!seat->joined || stored == 1, "EnableMember of a member");
  }
  if (!seat->joined) Me().reports.clear();
  ExpectReport();
}

}  // namespace sim

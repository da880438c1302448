// The other threads of a room.
#include <algorithm>
#include <mutex>

#include "reports.h"
#include "room.h"
#include "world.h"

namespace sim {

// ---- The audio thread

void Room::Talk() {
  std::vector<Speech> speeches(seats.size());
  while (!closing_) {
    for (std::size_t i = 0; i < seats.size(); ++i) {
      if (!seats[i]->joined) continue;
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
  const std::optional<Packet> packet =
      speech.talking ? std::optional(Packet{++TheWorld().packets, speech.size / 2 + Below(speech.size / 2 + 1)})
                     : std::nullopt;
  const std::string bytes = packet ? PacketBytes(*packet) : "";
  const SttAudioFrame frame = {packet ? reinterpret_cast<const std::uint8_t*>(bytes.data()) : nullptr,
                               static_cast<std::uint32_t>(bytes.size())};
  Caller& me = Me();
  me.seat = &seat;
  seat.BeginFrame(packet, bytes.size() > 256);
  me.in_frame = true;
  const std::uint32_t taken = seat.handle->interface_table->PutAudioFrame(seat.handle->instance, &frame);
  me.in_frame = false;
  seat.EndFrame(taken == 1);
}

// ---- The listener

void Room::Listen() {
  while (!closing_) {
    PopAll();
    const auto due = std::ranges::partition(held_, [](const Held& held) { return held.until > Now(); });
    std::ranges::for_each(due, [this](const Held& held) { Release(held); });
    held_.erase(due.begin(), due.end());
    TheWorld().scheduler.Sleep(Below(300) * kMillisecond);
  }
  PopAll();
  if (OneIn(8)) return;  // a host that forgets what it holds
  std::ranges::for_each(held_, [this](const Held& held) { Release(held); });
}

void Room::PopAll() {
  for (const auto& seat : seats) {
    for (;;) {
      if (!seat->joined) break;
      const std::lock_guard alone(seat->pops);
      if (!seat->joined) break;
      Me().seat = seat.get();
      seat->BeginPop();
      PacketRef* packet = seat->handle->interface_table->PopTextPacket(seat->handle->instance);
      seat->EndPop(packet);
      if (packet == nullptr) break;
      held_.push_back({packet, seat.get(), Now() + Below(TheWorld().knobs.hold_ms) * kMillisecond});
    }
  }
}

// As the host header describes it.
void Room::Release(const Held& held) {
  const std::lock_guard hold(driving_);
  PacketRef* packet = held.packet;
  SIM_CHECK(packet->ref_count == 1, "a packet in the host's hands has %u references", packet->ref_count);
  packet->ref_count = 0;
  packet->release_callback(packet->release_context, packet);
  PtrQueue* owner = packet->owner_queue;
  owner->items[owner->write_index % owner->capacity] = packet;
  owner->write_index += 1;
  --held.seat->held;
}

// ---- The application

void Room::ChangeSettings() {
  while (!closing_) {
    TheWorld().scheduler.Sleep(Below(TheWorld().knobs.ops_ms) * kMillisecond);
    const std::lock_guard hold(client_ids_);
    Seat* seat = Somebody();
    if (seat == nullptr || OneIn(10)) {
      AskForStranger();
    } else if (OneIn(2)) {
      SetLanguage(*seat);
    } else {
      Enable(*seat);
    }
    ExpectReports();
  }
}

void Room::SetLanguage(Seat& seat) {
  const std::uint32_t visit = seat.visits, language = Below(4);  // 3: no such language
  seat.language.Begin(language % 3);
  const std::uint32_t stored = zelRtcSpeechToTextSession_SetLanguage(session_, seat.client_id.c_str(), language);
  const bool stayed = seat.joined && seat.visits == visit;
  seat.language.End(stored == 1 && stayed);
  if (stayed) SIM_CHECK(stored == (language < 3 ? 1u : 0u), "SetLanguage of a member");
  if (stored == 0 && language == 3 && stayed) ExpectReports({"E2022111425"});
  if (stored == 0 && !stayed) Me().reports.clear();
  const std::int32_t now = zelRtcSpeechToTextSession_GetLanguage(session_, seat.client_id.c_str());
  const bool still = stayed && seat.joined && seat.visits == visit;
  SIM_CHECK(!still || now == static_cast<std::int32_t>(seat.language.value), "GetLanguage of a member");
  if (!still) Me().reports.clear();
}

void Room::Enable(Seat& seat) {
  const std::uint32_t visit = seat.visits;
  seat.enabled.Begin(OneIn(TheWorld().knobs.disable_one_in) ? 0 : OneIn(2) ? 1 : 5);
  const std::uint32_t stored =
      zelRtcSpeechToTextSession_EnableMember(session_, seat.client_id.c_str(), *seat.enabled.pending);
  seat.enabled.End(stored == 1);  // kept for the next member
  const bool stayed = seat.joined && seat.visits == visit;
  SIM_CHECK(!stayed || stored == 1, "EnableMember of a member");
  const std::uint32_t now = zelRtcSpeechToTextSession_IsEnabledMember(session_, seat.client_id.c_str());
  const bool still = stayed && seat.joined && seat.visits == visit;
  SIM_CHECK(!still || now == seat.enabled.value, "IsEnabledMember of a member");
  if (!still) Me().reports.clear();
}

void Room::AskForStranger() {
  const auto expect = [](const char* id, const char* name = "|nobody") {
    ExpectReports({std::string(ReportText(id)) + name});
  };
  SIM_CHECK(zelRtcSpeechToTextSession_EnableMember(session_, "nobody", 1) == 0, "EnableMember");
  expect("W2022102700");
  SIM_CHECK(zelRtcSpeechToTextSession_IsEnabledMember(session_, "nobody") == 0, "IsEnabledMember");
  expect("W2022110822");
  SIM_CHECK(zelRtcSpeechToTextSession_SetLanguage(session_, "nobody", 1) == 0, "SetLanguage");
  expect("W2022102702");
  SIM_CHECK(zelRtcSpeechToTextSession_GetLanguage(session_, "nobody") == -1, "GetLanguage");
  expect("W2022102703");
  SIM_CHECK(zelRtcSpeechToTextSession_SetLanguage(nullptr, "nobody", 1) == 0, "SetLanguage");
  expect("E2022102827", "");
  SIM_CHECK(zelRtcSpeechToTextSession_GetLanguage(session_, nullptr) == -1, "GetLanguage");
  expect("E2022102830", "");
  SIM_CHECK(table_->SetAccessToken(body_, "token", 0) == 0, "SetAccessToken");
  expect("E2022111467", "");
  SIM_CHECK(table_->AcquireRecognizer(nullptr) == nullptr, "AcquireRecognizer");
  expect("E2022111460", "");
}

}  // namespace sim

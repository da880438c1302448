#include "room.h"

#include <algorithm>
#include <mutex>

#include "expected_reports.h"
#include "world.h"

namespace sim {

int& Room::LiveOf(Room* room) {
  return room != nullptr ? room->live : TheWorld().live;
}

Seat* Room::SeatOf(const void* address) const {
  const auto seat = std::ranges::find_if(seats, [=](const auto& each) { return address <= each->end; });
  return seat != seats.end() ? seat->get() : nullptr;
}

Seat* Room::AddSeat(std::uint32_t ring_bytes) {
  ++live;
  seats.push_back(std::make_unique<Seat>(settings_, name + std::to_string(seats.size()), live, ring_bytes));
  return seats.back().get();
}

Seat* Room::Somebody() {
  Seat* seat = TheWorld().random.Pick(seats).get();
  return seat->joined ? seat : nullptr;
}

// ---- Sessions

void Room::Run() {
  for (std::uint32_t left = 1 + Below(2); left > 0; --left) {
    CreateSession();
    Drive();
    if (left == 1 && OneIn(3)) return;
    if (attached()) Detach();
    SIM_CHECK(zelRtcSpeechToTextSession_Destroy(session_) == 1, "a detached session was not destroyed");
    SessionIsGone();
    ExpectReport();
  }
}

void Room::CreateSession() {
  constexpr std::uint32_t kTextSizes[] = {24, 400, 1024, 1200};
  Random& random = TheWorld().random;
  settings_ = {};
  settings_.max_packets = random.Between(4, 12);
  settings_.max_text = random.Pick(kTextSizes);
  const ZelRtcSpeechToTextSessionConfig config = {static_cast<std::uint16_t>(settings_.max_packets), settings_.max_text,
                                                  20000, random.Between(1, 8)};
  session_ = zelRtcSpeechToTextSession_Create(&config, nullptr, 0);
  Note("creates a session with recognizers:", std::to_string(seats.size()));
  ExpectReport();
  SIM_CHECK(session_ != nullptr && seats.size() == config.max_identifiable_members, "%zu recognizers", seats.size());
  table_ = session_->interface_table;
  body_ = session_->body;
}

void Room::SessionIsGone() {
  for (const auto& seat : seats) {
    ledger_totals += seat->ledger;
    if (seat->held == 0) continue;
    const auto leak = std::ranges::find(Me().reports, "E2021100512");
    SIM_CHECK(leak != Me().reports.end(), "packets that the host has kept were not reported");
    Me().reports.erase(leak);
  }
  SIM_CHECK(live == 0, "%d host objects and areas were left behind", live);
  session_ = nullptr;
  seats.clear();
  held_.clear();
  Me().seat = nullptr;
}

std::string Room::Refusal() const {
  return ReportText("E2022102623", {reinterpret_cast<std::uintptr_t>(session_)});
}

void Room::Detach() {
  SIM_CHECK(table_->Detach(body_) == 1 && table_->Detach(body_) == 0, "Detach");
  settings_.attached = false;
}

// ---- The driver

void Room::Drive() {
  Scheduler& scheduler = TheWorld().scheduler;
  settings_.attached_at = Now();
  SIM_CHECK(table_->Attach(body_) == 1 && table_->Attach(body_) == 0 && table_->IsAttached(body_) == 1, "Attach");
  settings_.attached = true;
  closing_ = false;
  if (!OneIn(10)) SetEndpoint();
  SetToken();
  const auto thread = [&](const char* title, void (Room::*body)()) {
    return scheduler.Spawn(title + name, {.room = this}, [this, body] { (this->*body)(); });
  };
  const Fiber *audio = thread("audio ", &Room::Talk), *listener = thread("listener ", &Room::Listen);
  const Micros end = Now() + TheWorld().random.Between(5, 90) * kSecond;
  while (Now() < end) {
    if (OneIn(30)) Join();
    if (OneIn(TheWorld().knobs.trouble_one_in)) Trouble();
    Update();
    scheduler.Sleep(40 * kMillisecond);
  }
  closing_ = true;
  scheduler.Join(audio);
  scheduler.Join(listener);
  if (OneIn(2)) LeaveAll();
  if (OneIn(4)) {
    SIM_CHECK(zelRtcSpeechToTextSession_Destroy(session_) == 0, "an attached session was destroyed");
    ExpectReport(Refusal());
  }
  if (!OneIn(4)) Detach();
}

void Room::Trouble() {
  constexpr void (Room::*kTroubles[])() = {&Room::ResetAll,     &Room::SetEndpoint,    &Room::SetToken,
                                           &Room::LeaveAll,     &Room::RenameSomebody, &Room::LeaveSomebody,
                                           &Room::LeaveSomebody};
  (this->*TheWorld().random.Pick(kTroubles))();
}

void Room::LeaveAll() {
  Leave(nullptr);
}

void Room::LeaveSomebody() {
  if (Seat* seat = Somebody()) Leave(seat);
}

void Room::RenameSomebody() {
  const std::lock_guard hold(client_ids_);
  if (Seat* seat = Somebody()) SetClientId(*seat);
}

void Room::Update() {
  const std::lock_guard hold(driving_);
  settings_.update_began = Now();
  ++settings_.updates;
  Me().updating = settings_.updating = true;
  table_->Update(body_);
  Me().updating = settings_.updating = false;
  ExpectReport();
  for (const auto& seat : seats)
    SIM_CHECK(seat->Out(0, true) + seat->Out(1, true) == 0, "an update kept chunks of %s", seat->name.c_str());
}

void Room::Join() {
  const std::lock_guard hold(client_ids_);
  const bool full = std::ranges::all_of(seats, [](const auto& seat) { return seat->handle != nullptr; });
  SttRecognizerHn handle = table_->AcquireRecognizer(body_);
  SIM_CHECK(full == (handle == nullptr), "a recognizer was refused, or there was one too many");
  if (handle == nullptr) return;
  Seat& seat = *SeatOf(handle);
  SIM_CHECK(seat.handle == nullptr, "a recognizer was lent twice");
  seat.handle = handle;
  seat.member_id = static_cast<std::uint32_t>(TheWorld().random.Next());
  SIM_CHECK(handle->interface_table->SetMemberId(handle->instance, seat.member_id) == 1, "SetMemberId");
  SetClientId(seat);
  seat.joined = true;
  Note("lends", seat.name);
}

void Room::SetClientId(Seat& seat) {
  seat.client_id = "member " + std::to_string(Below(1'000'000)) + "&\xC3\xA9 of " + seat.name;
  if (OneIn(8)) seat.client_id.resize(OneIn(2) ? 511 : 30 + Below(480), '%');
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(seat.client_id.c_str());
  const auto size = static_cast<std::uint32_t>(seat.client_id.size() + 1);
  SIM_CHECK(seat.handle->interface_table->SetClientId(seat.handle->instance, bytes, size) == 1, "SetClientId");
}

void Room::Leave(Seat* only) {
  std::vector<Seat*> leaving;
  for (const auto& seat : seats) {
    if (seat->handle == nullptr || (only != nullptr && seat.get() != only)) continue;
    const std::lock_guard no_frame(seat->frames), no_pop(seat->pops);
    seat->joined = false;
    leaving.push_back(seat.get());
  }
  const std::lock_guard hold(driving_);
  for (Seat* seat : leaving)
    seat->resetting = true;
  const std::uint32_t done = only != nullptr ? table_->ReleaseRecognizer(body_, only->handle)  //
                                             : table_->ReleaseAllRecognizers(body_);
  SIM_CHECK(done == 1, "recognizers were not taken back");
  if (only != nullptr)
    SIM_CHECK(table_->ReleaseRecognizer(body_, only->handle) == 0, "a recognizer was taken back twice");
  for (Seat* seat : leaving)
    seat->Left();
  ExpectReport();
}

void Room::ResetAll() {
  for (const auto& seat : seats)
    seat->frames.lock();
  driving_.lock();
  for (const auto& seat : seats)
    seat->resetting = seat->handle != nullptr;
  (OneIn(2) ? table_->ResetRecognizersA : table_->ResetRecognizersB)(body_);
  for (const auto& seat : seats)
    seat->resetting = false;
  ExpectReport();
  driving_.unlock();
  for (const auto& seat : seats)
    seat->frames.unlock();
}

void Room::SetEndpoint() {
  static const std::string kEndpoints[] = {"http://a.example/stt", "https://b.example/v1/recognize?a=b", "nowhere",
                                           "http://f.example/" + std::string(900, 'p'),
                                           "http://g.example/" + std::string(1100, 'p')};
  settings_.endpoint = kEndpoints[Below(OneIn(4) ? 5 : 2)];  // most of the time, one that can be reached
  SIM_CHECK(table_->SetEndpointUrl(body_, settings_.endpoint.c_str(), 1) == 1, "SetEndpointUrl");
}

void Room::SetToken() {
  const std::string token(OneIn(8) ? 500 + Below(10) : 1 + Below(60), static_cast<char>('A' + Below(26)));
  SIM_CHECK(table_->SetAccessToken(body_, token.c_str(), 1) == 1, "SetAccessToken");
  settings_.authorization = "Bearer " + token;
}

}  // namespace sim

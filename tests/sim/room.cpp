#include "room.h"

#include <algorithm>
#include <functional>
#include <mutex>

#include "reports.h"
#include "world.h"

namespace sim {

int& Room::LiveOf(Room* room) {
  return room != nullptr ? room->live : TheWorld().live;
}

Seat* Room::SeatOf(const void* address) const {
  for (const auto& seat : seats) {
    if (address <= seat->end) return seat.get();
  }
  return nullptr;
}

Ring* Room::AddSeat(std::uint32_t ring_bytes) {
  seats.push_back(std::make_unique<Seat>(settings_, name_ + std::to_string(seats.size()), live));
  Seat& seat = *seats.back();
  seat.destroying = true;
  seat.ring = std::make_unique<Ring>(seat, ring_bytes);
  ++live;
  return seat.ring.get();
}

Seat* Room::Somebody() {
  const std::size_t start = Below(static_cast<std::uint32_t>(seats.size()));
  for (std::size_t i = 0; i < seats.size(); ++i) {
    Seat* seat = seats[(start + i) % seats.size()].get();
    if (seat->joined) return seat;
  }
  return nullptr;
}

// ---- Sessions

void Room::Run() {
  for (std::uint32_t left = 1 + Below(2); left > 0; --left) {
    for (int tries = 0; !CreateSession(tries < 5); ++tries)
      TheWorld().scheduler.Sleep(Below(kSecond));
    Drive();
    if (left == 1 && OneIn(3)) return;
    if (attached_) Detach();
    DestroySession();
  }
}

bool Room::CreateSession(bool troubled) {
  constexpr std::uint32_t kTextSizes[] = {24, 400, 1024, 1200};
  Random& random = TheWorld().random;
  settings_ = {};
  settings_.max_packets = random.Between(4, 12);
  settings_.max_text = random.Pick(kTextSizes);
  const ZelRtcSpeechToTextSessionConfig config = {static_cast<std::uint16_t>(settings_.max_packets), settings_.max_text,
                                                  20000, random.Between(1, 8)};
  const std::int32_t size = zelRtcSpeechToTextSession_CalculateWorkSize(&config);
  area_ = OneIn(2) ? std::make_unique<WorkArea>(size, Below(8)) : nullptr;
  setting_up = troubled;
  session_ = zelRtcSpeechToTextSession_Create(&config, area_ ? area_->data() : nullptr, area_ ? size : 0);
  setting_up = false;
  Note("creates a session with recognizers:", seats.size());
  if (session_ == nullptr) {
    SIM_CHECK(troubled, "a session was not created, though nothing was refused");
    Me().reports.clear();  // which part could not be had; a host that refuses a mutex hears nothing
    SessionIsGone();
    return false;
  }
  ExpectReports();
  SIM_CHECK(seats.size() == config.max_identifiable_members, "%zu recognizers", seats.size());
  for (const auto& seat : seats)
    seat->destroying = false;
  table_ = session_->interface_table;
  body_ = session_->body;
  return true;
}

void Room::DestroySession() {
  for (const auto& seat : seats)
    seat->destroying = true;
  SIM_CHECK(zelRtcSpeechToTextSession_Destroy(session_) == 1, "a detached session was not destroyed");
  ExpectLeaks();
  ExpectReports();
  SessionIsGone();
}

void Room::ExpectLeaks() {
  for (const auto& seat : seats) {
    std::vector<std::string>& reports = Me().reports;
    if (seat->held == 0) continue;
    const auto leak = std::ranges::find(reports, "E2021100512");
    SIM_CHECK(leak != reports.end(), "packets that the host has kept were not reported");
    reports.erase(leak);
  }
}

void Room::SessionIsGone() {
  SIM_CHECK(live == 0, "%d host objects, carvings and areas were left behind", live);
  for (const auto& seat : seats)
    std::ranges::transform(seat->counts, UtteranceTotals(), UtteranceTotals().begin(), std::plus());
  session_ = nullptr;
  seats.clear();
  held_.clear();
  area_.reset();
  Me().seat = nullptr;
}

void Room::Detach() {
  SIM_CHECK(table_->Detach(body_) == 1 && table_->Detach(body_) == 0, "Detach");
  attached_ = false;
  for (const auto& seat : seats)
    seat->destroying = true;
}

// ---- The driver

void Room::Drive() {
  Scheduler& scheduler = TheWorld().scheduler;
  settings_.attached_at = Now();
  SIM_CHECK(table_->Attach(body_) == 1, "Attach");
  attached_ = true;
  closing_ = false;
  if (!OneIn(10)) SetEndpoint();
  SetToken();
  const auto thread = [&](Role role, const char* name, void (Room::*body)()) {
    return scheduler.Spawn(name + name_, {.role = role, .room = this}, [this, body] { (this->*body)(); });
  };
  const Fiber* threads[] = {thread(Role::kAudio, "audio ", &Room::Talk),
                            thread(Role::kListener, "listener ", &Room::Listen),
                            thread(Role::kApplication, "member ops ", &Room::ChangeSettings)};
  const Micros end = Now() + TheWorld().random.Between(5, 90) * kSecond;
  while (Now() < end) {
    if (OneIn(30)) Join();
    if (OneIn(TheWorld().knobs.trouble_one_in)) Trouble();
    Update();
    scheduler.Sleep(40 * kMillisecond);
  }
  closing_ = true;
  for (const Fiber* each : threads)
    scheduler.Join(each);
  if (OneIn(2)) LeaveAll();
  if (OneIn(4)) {
    SIM_CHECK(zelRtcSpeechToTextSession_Destroy(session_) == 0, "an attached session was destroyed");
    ExpectReports({std::string(ReportText("E2022102623")) + "|"});
  }
  if (!OneIn(4)) Detach();
}

void Room::Trouble() {
  Seat* seat = Somebody();
  switch (Below(9)) {
    case 0:
      return ResetAll();
    case 1:
      return SetEndpoint();
    case 2:
      return SetToken();
    case 3:
      return LeaveAll();
    case 4:
      SIM_CHECK(table_->Attach(body_) == 0 && table_->IsAttached(body_) == 1, "a second attachment");
      return;
    case 5:
      if (seat != nullptr) SetClientId(*seat);
      return;
    default:
      if (seat != nullptr) Leave(*seat);
  }
}

void Room::Update() {
  const std::lock_guard hold(driving_);
  Caller& me = Me();
  settings_.update_began = Now();
  ++settings_.updates;
  me.updating = settings_.updating = true;
  table_->Update(body_);
  me.updating = settings_.updating = false;
  ExpectReports();
  for (const auto& seat : seats)
    SIM_CHECK(seat->ring->Out(0, true) + seat->ring->Out(1, true) == 0, "an update kept chunks of %s",
              seat->name().c_str());
}

void Room::Join() {
  const bool full = std::ranges::all_of(seats, [](const auto& seat) { return seat->handle != nullptr; });
  SttRecognizerHn handle = table_->AcquireRecognizer(body_);
  SIM_CHECK(full == (handle == nullptr), "a recognizer was refused, or there was one too many");
  if (handle == nullptr) return;
  Seat& seat = *SeatOf(handle);
  SIM_CHECK(seat.handle == nullptr, "a recognizer was lent twice");
  seat.handle = handle;
  seat.member_id = static_cast<std::uint32_t>(TheWorld().random.Next());
  ++seat.visits;
  SIM_CHECK(handle->interface_table->SetMemberId(handle->instance, seat.member_id) == 1, "SetMemberId");
  SetClientId(seat);
  seat.joined = true;
  Note("lends", seat.name());
}

void Room::SetClientId(Seat& seat) {
  const std::lock_guard hold(client_ids_);
  std::string id = "member " + std::to_string(Below(1'000'000)) + "&\xC3\xA9 of " + seat.name();
  if (OneIn(8)) id.resize(OneIn(2) ? 511 : 30 + Below(480), '%');
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(id.c_str());
  SttRecognizerHn handle = seat.handle;
  SIM_CHECK(
      handle->interface_table->SetClientId(handle->instance, bytes, static_cast<std::uint32_t>(id.size() + 1)) == 1,
      "SetClientId");
  seat.client_id = id;
}

void Room::Leave(Seat& seat) {
  {
    const std::lock_guard no_frame(seat.frames);
    const std::lock_guard no_pop(seat.pops);
    seat.joined = false;
  }
  const std::lock_guard hold(driving_);
  seat.resetting = true;
  SIM_CHECK(table_->ReleaseRecognizer(body_, seat.handle) == 1, "a member's recognizer was not taken back");
  SIM_CHECK(table_->ReleaseRecognizer(body_, seat.handle) == 0, "a recognizer was taken back twice");
  seat.Left();
  ExpectReports();
}

void Room::LeaveAll() {
  for (const auto& seat : seats) {
    const std::lock_guard no_frame(seat->frames);
    const std::lock_guard no_pop(seat->pops);
    seat->joined = false;
  }
  const std::lock_guard hold(driving_);
  for (const auto& seat : seats)
    seat->resetting = seat->handle != nullptr;
  SIM_CHECK(table_->ReleaseAllRecognizers(body_) == 1, "ReleaseAllRecognizers");
  for (const auto& seat : seats) {
    if (seat->handle != nullptr) seat->Left();
  }
  ExpectReports();
}

void Room::ResetAll() {
  for (const auto& seat : seats)
    seat->frames.lock();
  {
    const std::lock_guard hold(driving_);
    for (const auto& seat : seats)
      seat->resetting = seat->handle != nullptr;
    (OneIn(2) ? table_->ResetRecognizersA : table_->ResetRecognizersB)(body_);
    for (const auto& seat : seats)
      seat->resetting = false;
    ExpectReports();
  }
  for (const auto& seat : seats)
    seat->frames.unlock();
}

void Room::SetEndpoint() {
  static const std::string kEndpoints[] = {
      "http://a.example/stt",
      "https://b.example/v1/recognize",
      "https://c.example",
      "http://d.example/x?a=b",
      "ftp://e.example/x",
      "nowhere",
      "http://f.example/" + std::string(900, 'p'),
      "http://g.example/" + std::string(1100, 'p'),
  };
  // Most of the time, one that can be reached.
  const std::string& url = kEndpoints[Below(OneIn(4) ? 8 : 4)];
  SIM_CHECK(table_->SetEndpointUrl(body_, url.c_str(), 1) == 1, "SetEndpointUrl");
  settings_.endpoint = url;
}

void Room::SetToken() {
  const std::string token(OneIn(8) ? 500 + Below(10) : 1 + Below(60), static_cast<char>('A' + Below(26)));
  SIM_CHECK(table_->SetAccessToken(body_, token.c_str(), 1) == 1, "SetAccessToken");
  settings_.authorization = "Bearer " + token;
}

}  // namespace sim

#include "room.h"

#include <algorithm>
#include <array>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "bridge_services.h"
#include "member.h"
#include "reports.h"
#include "text_packet.h"

namespace zel::host {
namespace {

using Clock = std::chrono::steady_clock;
using Members = std::map<std::uint32_t, std::unique_ptr<Member>>;
constexpr std::chrono::milliseconds kDrainPoll{5};
constexpr std::size_t kMaxText = 1023;  // bytes of the longest text that the plug-in delivers

void require(bool condition, RoomErrorCode code, const std::string& what) {
  if (!condition) throw RoomError(code, what);
}

std::string checked_text(std::string_view text, std::size_t max_size, const char* what) {
  const bool sound = !text.empty() && text.size() <= max_size && text.find('\0') == std::string_view::npos;
  require(sound, RoomErrorCode::kInvalidArgument,
          std::string(what) + " must have 1 to " + std::to_string(max_size) + " bytes, none of them NUL");
  return std::string(text);
}

// Never beyond the clock's end.
Clock::time_point deadline_after(std::chrono::milliseconds drain_time) {
  const auto now = Clock::now();
  const auto longest = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - now);
  return now + std::clamp(drain_time, std::chrono::milliseconds{0}, longest);
}

}  // namespace

struct Room::State {
  SttSession* session = nullptr;
  RoomEvents events;

  // Held while the session's interface is called; the recognizers' audio goes on beside it. Taken before `lock`.
  std::mutex drive;
  bool attached = true;  // guarded by drive

  // Guards everything below, and keeps audio, update, pop and release of packets apart.
  mutable std::mutex lock;
  bool closed = false;
  bool resetting = false;  // no frame may be put
  Members members;
  Events outbox;

  const SttSessionInterface& api() const { return *session->interface_table; }

  Member* find(std::uint32_t member_id) const {
    const auto found = members.find(member_id);
    return found != members.end() ? found->second.get() : nullptr;
  }
  Member& get(std::uint32_t member_id) const {
    Member* member = find(member_id);
    require(member != nullptr, RoomErrorCode::kNoSuchMember, "no member " + std::to_string(member_id));
    return *member;
  }

  void reserve_events();
  void update();
  void collect(Member& member) noexcept;
  Members take_departed() noexcept;
  void release_departed() noexcept;
  std::size_t deliver();
  void leave_all(Clock::time_point deadline);
  void detach();
};

// Nothing may fail any more once an update has begun: its texts would be lost.
void Room::State::reserve_events() {
  for (auto& [id, member] : members) {
    if (!member->next_text.empty()) continue;
    Events next(1);
    auto& text = std::get<RoomText>(next.front());
    text.client_id = member->ledger.client_id;
    text.text.reserve(kMaxText);
    member->next_text.swap(next);
  }
}

// One update of the session, and what it did to each member.
void Room::State::update() {
  reserve_events();
  std::array<std::size_t, kFailureReports.size()> reported{};  // by the recognizer at work
  std::size_t count = 0;
  {
    const ReportWatch reports([&](const Report& report) {
      const auto* known = std::find(kFailureReports.begin(), kFailureReports.end(), report.identifier);
      if (known == kFailureReports.end() || count == reported.size()) return;
      reported[count++] = static_cast<std::size_t>(known - kFailureReports.begin());
    });
    const WordWatch words([&](const std::uint32_t* word) {
      if (count == 0) return;
      const auto reporter =
          std::find_if(members.begin(), members.end(), [&](auto& each) { return each.second->enabled_word == word; });
      if (reporter == members.end()) return;
      for (; count > 0; --count)
        reporter->second->note_failure(reported[count - 1]);
    });
    api().Update(session->body);
  }
  for (auto& [id, member] : members)
    collect(*member);
}

// Takes the member's text, of which an update gives at most one, and balances its ledger.
void Room::State::collect(Member& member) noexcept {
  const TextPacket packet(member.recognizer->interface_table->PopTextPacket(member.recognizer->instance));
  member.settle(packet ? 1 : 0);
  if (!packet) return;
  auto& text = *std::get_if<RoomText>(&member.next_text.front());
  text.member_id = packet.member_id();
  text.utterance = member.ledger.stored() - member.ledger.waiting;
  text.text = packet.text();
  text.timestamp_us = packet.timestamp_us();
  outbox.splice(outbox.end(), member.next_text);
}

// Moves leaving members on; those who are done are no longer members afterwards.
Members Room::State::take_departed() noexcept {
  Members departed;
  const auto now = Clock::now();
  for (auto entry = members.begin(); entry != members.end();) {
    Member& member = *entry->second;
    if (member.leaving && member.has_slot() && member.has_headroom()) member.put_pause();
    const bool drained = member.utterance.audio_frames == 0 && member.ledger.waiting == 0;
    if (member.leaving && (drained || now >= member.deadline)) {
      departed.insert(members.extract(entry++));
    } else {
      ++entry;
    }
  }
  return departed;
}

// Takes their recognizers back; waits for exchanges in flight. Under drive.
void Room::State::release_departed() noexcept {
  Members departed;
  {
    std::lock_guard hold(lock);
    departed = take_departed();
  }
  for (auto& [id, member] : departed) {
    api().ReleaseRecognizer(session->body, member->recognizer);
    member->lose_all();
    *std::get_if<MemberLedger>(&member->farewell.front()) = std::move(member->ledger);
    std::lock_guard hold(lock);
    outbox.splice(outbox.end(), member->farewell);
  }
}

// Calls the events that have come up, in order. Result: number of texts.
std::size_t Room::State::deliver() {
  std::size_t texts = 0;
  for (;;) {
    Events event;
    {
      std::lock_guard hold(lock);
      if (outbox.empty()) return texts;
      event.splice(event.end(), outbox, outbox.begin());
    }
    if (const auto* text = std::get_if<RoomText>(&event.front())) {
      ++texts;
      if (events.text) events.text(*text);
    } else if (events.left) {
      events.left(std::get<MemberLedger>(event.front()));
    }
  }
}

void Room::State::leave_all(Clock::time_point deadline) {
  std::lock_guard hold(lock);
  closed = true;
  for (auto& [id, member] : members) {
    member->deadline = member->leaving ? std::min(member->deadline, deadline) : deadline;
    member->leaving = true;
  }
}

void Room::State::detach() {
  std::lock_guard hold(drive);
  if (std::exchange(attached, false)) api().Detach(session->body);
}

Room::Room(ZelRtcSpeechToTextSessionHn session, RoomEvents events) : state_(std::make_unique<State>()) {
  require(session != nullptr, RoomErrorCode::kSessionInUse, "no session");
  state_->session = session;
  state_->events = std::move(events);
  require(state_->api().Attach(session->body) != 0, RoomErrorCode::kSessionInUse, "session is attached already");
}

Room::~Room() {
  state_->leave_all(Clock::now());
  {
    std::lock_guard drive(state_->drive);
    state_->release_departed();
  }
  state_->detach();
}

void Room::set_endpoint(std::string_view url) {
  const std::string text = checked_text(url, 1023, "endpoint");
  std::lock_guard drive(state_->drive);
  require(state_->attached, RoomErrorCode::kClosed, "room is closed");
  state_->api().SetEndpointUrl(state_->session->body, text.c_str(), static_cast<std::int32_t>(text.size()));
}

void Room::set_token(std::string_view token) {
  const std::string text = checked_text(token, 504, "token");
  std::lock_guard drive(state_->drive);
  require(state_->attached, RoomErrorCode::kClosed, "room is closed");
  state_->api().SetAccessToken(state_->session->body, text.c_str(), static_cast<std::int32_t>(text.size()));
}

void Room::add_member(std::uint32_t member_id, std::string_view client_id) {
  auto member = std::make_unique<Member>();
  member->ledger.member_id = member_id;
  member->ledger.client_id = checked_text(client_id, 511, "client id");
  std::lock_guard drive(state_->drive);
  std::lock_guard hold(state_->lock);
  require(!state_->closed, RoomErrorCode::kClosed, "room is closed");
  const auto same = [&](const auto& entry) {
    return entry.first == member_id || entry.second->ledger.client_id == client_id;
  };
  require(std::none_of(state_->members.begin(), state_->members.end(), same), RoomErrorCode::kDuplicateMember,
          "member " + std::to_string(member_id) + " or client " + member->ledger.client_id + " is in the room");
  // The entry first: nothing may fail any more once the recognizer is lent.
  auto& entry = state_->members[member_id];
  SttRecognizerHn recognizer = state_->api().AcquireRecognizer(state_->session->body);
  if (recognizer == nullptr) {
    state_->members.erase(member_id);
    throw RoomError(RoomErrorCode::kNoFreeRecognizer, "all recognizers of the session are in use");
  }
  const std::string& id = member->ledger.client_id;
  recognizer->interface_table->SetMemberId(recognizer->instance, member_id);
  recognizer->interface_table->SetClientId(recognizer->instance, reinterpret_cast<const std::uint8_t*>(id.c_str()),
                                           static_cast<std::uint32_t>(id.size() + 1));
  member->recognizer = recognizer;
  entry = std::move(member);
}

FrameResult Room::feed(std::uint32_t member_id, std::span<const std::uint8_t> packet) noexcept {
  std::lock_guard hold(state_->lock);
  Member* member = state_->find(member_id);
  if (member == nullptr || member->leaving) return FrameResult::kNoSuchMember;
  if (state_->resetting) {
    ++member->ledger.refused_frames;
    return FrameResult::kFull;
  }
  return member->take_frame(packet);
}

bool Room::can_accept(std::uint32_t member_id) const {
  std::lock_guard hold(state_->lock);
  const Member* member = state_->find(member_id);
  return member != nullptr && !member->leaving && !state_->resetting && member->has_slot() && member->has_headroom();
}

std::size_t Room::waiting(std::uint32_t member_id) const {
  std::lock_guard hold(state_->lock);
  const Member* member = state_->find(member_id);
  return member != nullptr ? member->ledger.waiting : 0;
}

std::size_t Room::waiting() const {
  std::lock_guard hold(state_->lock);
  std::size_t sum = 0;
  for (const auto& [id, member] : state_->members)
    sum += member->ledger.waiting;
  return sum;
}

std::size_t Room::pump() {
  {
    std::lock_guard drive(state_->drive);
    if (state_->attached) {
      std::lock_guard hold(state_->lock);
      state_->update();
    }
    state_->release_departed();
  }
  return state_->deliver();
}

void Room::reset() {
  std::lock_guard drive(state_->drive);
  require(state_->attached, RoomErrorCode::kClosed, "room is closed");
  {
    std::lock_guard hold(state_->lock);
    state_->resetting = true;
  }
  state_->api().ResetRecognizersA(state_->session->body);
  std::lock_guard hold(state_->lock);
  for (auto& [id, member] : state_->members)
    member->lose_all();
  state_->resetting = false;
}

void Room::begin_leave(std::uint32_t member_id, std::chrono::milliseconds drain_time) {
  const auto deadline = deadline_after(drain_time);
  std::lock_guard hold(state_->lock);
  Member& member = state_->get(member_id);
  member.deadline = member.leaving ? std::min(member.deadline, deadline) : deadline;
  member.leaving = true;
}

void Room::leave(std::uint32_t member_id, std::chrono::milliseconds drain_time) {
  begin_leave(member_id, drain_time);
  for (pump(); has_member(member_id); pump())
    std::this_thread::sleep_for(kDrainPoll);
}

void Room::close(std::chrono::milliseconds drain_time) {
  state_->leave_all(deadline_after(drain_time));
  for (pump(); member_count() > 0; pump())
    std::this_thread::sleep_for(kDrainPoll);
  state_->detach();
}

bool Room::has_member(std::uint32_t member_id) const {
  std::lock_guard hold(state_->lock);
  return state_->find(member_id) != nullptr;
}

std::size_t Room::member_count() const {
  std::lock_guard hold(state_->lock);
  return state_->members.size();
}

MemberLedger Room::ledger(std::uint32_t member_id) const {
  std::lock_guard hold(state_->lock);
  return state_->get(member_id).ledger;
}

std::vector<MemberLedger> Room::ledgers() const {
  std::lock_guard hold(state_->lock);
  std::vector<MemberLedger> ledgers;
  for (const auto& [id, member] : state_->members)
    ledgers.push_back(member->ledger);
  return ledgers;
}

}  // namespace zel::host

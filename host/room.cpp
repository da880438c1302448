#include "room.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <variant>

#include "reports.h"
#include "ring_buffer.h"
#include "text_packet.h"

namespace zel::host {
namespace {

using Clock = std::chrono::steady_clock;
using Packet = std::span<const std::uint8_t>;

constexpr std::uint32_t kPauseFrames = 7;        // silent frames in a row that end an utterance
constexpr std::uint32_t kMinAudioFrames = 5;     // fewer, and the utterance is dropped
constexpr std::uint32_t kMaxAudioFrames = 1500;  // as many, and the utterance ends
// The most that one frame takes from lane 0: its page, the final page, the headers of the next stream.
constexpr std::uint32_t kHeadroom = 3 * 5120;
constexpr std::uint64_t kMaxBody = 81920;     // longest stream that can be posted
constexpr std::uint64_t kSoftLimit = 73'728;  // from here on a quiet frame is taken for a pause
constexpr std::chrono::milliseconds kDrainPoll{5};

// The utterance that a member is speaking, as the plug-in keeps it.
struct Utterance {
  std::uint32_t audio_frames = 0;
  std::uint64_t payload = 0;  // bytes of its packets
  std::uint64_t lacing = 0;   // bytes that say how long they are

  void add(Packet packet) {
    ++audio_frames;
    payload += packet.size();
    lacing += packet.size() / 255 + 1;
  }

  // At least the length of its Ogg stream: two header pages, packets and their lengths, and a header for every page. A
  // page but the last is cut when it has more than 4096 bytes or 255 lengths.
  std::uint64_t max_stream_size() const { return 91 + payload + lacing + 27 * (payload / 4096 + lacing / 255 + 2); }

  // A frame so small beside the others that nothing is being said in it.
  bool is_quiet(Packet packet) const { return 2 * packet.size() * audio_frames < payload; }
};

struct Member {
  MemberRecord record;
  SttRecognizerHn recognizer = nullptr;
  RingBuffer* ring = nullptr;  // null until the first audio frame
  RingStatistics ring_seen;    // at the last look
  Utterance utterance;
  std::uint32_t silent_frames = 0;
  bool leaving = false;
  Clock::time_point deadline;

  std::uint64_t answered() const { return record.delivered + record.failed + record.empty + record.unexplained; }
  bool has_slot() const { return record.waiting < kMaxWaiting; }
  bool has_headroom() const { return ring == nullptr || ring->statistics().free_bytes >= kHeadroom; }
};

// What happened at the ring buffer since the last look.
struct RingChange {
  std::uint32_t taken = 0;
  std::uint32_t returned = 0;
};

RingChange look_at_ring(Member& member) {
  if (member.ring == nullptr) return {};
  const RingStatistics now = member.ring->statistics();
  const RingChange change{now.taken - member.ring_seen.taken, now.returned - member.ring_seen.returned};
  member.ring_seen = now;
  member.record.waiting = now.waiting();
  return change;
}

// The utterance is over and did not become one that waits.
void give_up_utterance(Member& member) {
  if (member.utterance.audio_frames == 0) return;
  ++member.record.ended;
  ++member.record.dropped;
  member.utterance = {};
}

// Hands one frame to the plug-in. False when it takes none because the member is disabled.
bool put(Member& member, Packet packet) {
  const SttAudioFrame frame{packet.empty() ? nullptr : packet.data(), static_cast<std::uint32_t>(packet.size())};
  const RingWatch watch;
  if (member.recognizer->interface_table->PutAudioFrame(member.recognizer->instance, &frame) == 0) return false;
  if (member.ring == nullptr && watch.seen() != nullptr) {
    member.ring = watch.seen();
    member.ring_seen = member.ring->statistics();
  }
  if (packet.empty()) {
    member.silent_frames = (member.silent_frames + 1) % kPauseFrames;
  } else {
    member.silent_frames = 0;
    member.utterance.add(packet);
  }
  const RingChange change = look_at_ring(member);
  if (change.taken == 0) return true;
  if (change.taken != change.returned) {
    ++member.record.ended;
    ++member.record.stored;
  } else if (member.utterance.audio_frames < kMinAudioFrames) {
    ++member.record.ended;
    ++member.record.too_short;
  } else {
    give_up_utterance(member);
  }
  member.utterance = {};
  return true;
}

// Ends the member's utterance with as many silent frames as that takes. False when it cannot be ended: the member is
// disabled.
bool put_pause(Member& member) {
  for (std::uint32_t i = 0; i < kPauseFrames && member.utterance.audio_frames > 0; ++i) {
    if (!put(member, {})) return false;
  }
  return true;
}

// Whether the plug-in can take this frame without losing anything.
bool can_take(const Member& member, Packet packet) {
  Utterance next = member.utterance;
  bool ends = false;
  if (packet.empty()) {
    if (next.audio_frames == 0) return true;
    ends = member.silent_frames + 1 == kPauseFrames;
  } else {
    next.add(packet);
    ends = next.audio_frames == kMaxAudioFrames || next.max_stream_size() > kMaxBody;
  }
  if (ends && next.audio_frames >= kMinAudioFrames && !member.has_slot()) return false;
  return (packet.empty() && !ends) || member.has_headroom();
}

FrameResult take_frame(Member& member, Packet packet) {
  MemberRecord& record = member.record;
  if (packet.size() > kMaxPacketSize || !can_take(member, packet)) {
    ++record.refused_frames;
    return packet.size() > kMaxPacketSize ? FrameResult::kTooLong : FrameResult::kFull;
  }
  Utterance next = member.utterance;
  if (!packet.empty()) next.add(packet);
  if (next.max_stream_size() > kMaxBody && put_pause(member)) ++record.forced_pauses;
  if (!put(member, packet)) {
    ++record.disabled_frames;
    return FrameResult::kDisabled;
  }
  ++record.frames;
  if (!packet.empty()) ++record.audio_frames;
  const bool wants_pause = member.utterance.max_stream_size() >= kSoftLimit && member.utterance.is_quiet(packet);
  if (wants_pause && member.has_slot() && member.has_headroom() && put_pause(member)) ++record.forced_pauses;
  return FrameResult::kTaken;
}

// Failure reports of one update. Those of the exchange come one update before the utterance is given back, those of the
// delivery in the same update.
struct Failures {
  std::uint64_t exchange = 0;
  std::uint64_t delivery = 0;

  void see(const Report& report) {
    const std::string_view id = report.identifier;
    if (id == "E2022110401" || id == "E2022110402" || id == "E2022110407") ++exchange;
    if (id == "E2022110403" || id == "E2022110404" || id == "E2022110405" || id == "E2022110406") ++delivery;
  }
};

void require(bool condition, RoomErrorCode code, const std::string& what) {
  if (!condition) throw RoomError(code, what);
}

std::string checked_text(std::string_view text, std::size_t max_size, const char* what) {
  const bool sound = !text.empty() && text.size() <= max_size && text.find('\0') == std::string_view::npos;
  require(sound, RoomErrorCode::kInvalidArgument,
          std::string(what) + " must have 1 to " + std::to_string(max_size) + " bytes, none of them NUL");
  return std::string(text);
}

}  // namespace

struct Room::State {
  SttSession* session = nullptr;
  RoomEvents events;

  // Held while the session's interface is called; the recognizers' audio goes on beside it. Taken before `lock`.
  std::mutex drive;
  bool attached = true;         // guarded by drive
  std::uint64_t pending = 0;    // exchange failures whose utterances the next update gives back; guarded by drive
  bool pending_unsure = false;  // some of them may have gone with a member; guarded by drive

  // Guards everything below, and keeps audio, update, pop and release of packets apart.
  mutable std::mutex lock;
  bool closed = false;
  std::map<std::uint32_t, std::unique_ptr<Member>> members;
  std::deque<std::variant<RoomText, MemberRecord>> outbox;

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

  void update();
  bool collect(Member& member);
  std::vector<std::unique_ptr<Member>> take_departed();
  void release(Member& member);
  std::size_t deliver();
};

// One update of the session, and what it did to each member.
void Room::State::update() {
  Failures failures;
  {
    const ReportWatch watch([&failures](const Report& report) { failures.see(report); });
    api().Update(session->body);
  }
  std::vector<Member*> textless;
  for (auto& [id, member] : members) {
    if (collect(*member)) textless.push_back(member.get());
  }
  const std::uint64_t reported = pending + failures.delivery;
  for (Member* member : textless) {
    MemberRecord& record = member->record;
    const bool known = !pending_unsure && reported >= textless.size();
    ++(reported == 0 ? record.empty : known ? record.failed : record.unexplained);
  }
  for (auto& [id, member] : members) {
    member->record.posted = std::max(member->record.posted, member->answered() + (member->record.waiting > 0 ? 1 : 0));
  }
  pending = failures.exchange;
  pending_unsure = false;
}

// Takes the member's texts. True when an utterance was answered without one.
bool Room::State::collect(Member& member) {
  const RingChange change = look_at_ring(member);
  if (change.taken > 0) {  // an update takes from lane 1 only to drop a disabled member's audio
    give_up_utterance(member);
    member.silent_frames = 0;
  }
  std::uint32_t answers = change.returned - change.taken;
  for (;;) {
    const TextPacket packet(member.recognizer->interface_table->PopTextPacket(member.recognizer->instance));
    if (!packet) return answers > 0;
    outbox.emplace_back(
        RoomText{packet.member_id(), member.record.client_id, std::string(packet.text()), packet.timestamp_us()});
    ++member.record.delivered;
    if (answers > 0) --answers;
  }
}

// Moves leaving members on; those who are done are no longer members afterwards.
std::vector<std::unique_ptr<Member>> Room::State::take_departed() {
  std::vector<std::unique_ptr<Member>> departed;
  const auto now = Clock::now();
  for (auto entry = members.begin(); entry != members.end();) {
    Member& member = *entry->second;
    if (member.leaving && member.has_slot() && member.has_headroom()) put_pause(member);
    const bool drained = member.utterance.audio_frames == 0 && member.record.waiting == 0;
    if (member.leaving && (drained || now >= member.deadline)) {
      departed.push_back(std::move(entry->second));
      entry = members.erase(entry);
    } else {
      ++entry;
    }
  }
  return departed;
}

// Takes the recognizer back; waits for its exchange in flight.
void Room::State::release(Member& member) {
  api().ReleaseRecognizer(session->body, member.recognizer);
  if (member.record.waiting > 0 && pending > 0) pending_unsure = true;
  give_up_utterance(member);
  member.record.abandoned += std::exchange(member.record.waiting, 0);
  std::lock_guard hold(lock);
  outbox.emplace_back(std::move(member.record));
}

// Calls the events that have come up, in order. Result: number of texts.
std::size_t Room::State::deliver() {
  std::size_t texts = 0;
  for (;;) {
    std::variant<RoomText, MemberRecord> event;
    {
      std::lock_guard hold(lock);
      if (outbox.empty()) return texts;
      event = std::move(outbox.front());
      outbox.pop_front();
    }
    if (const auto* text = std::get_if<RoomText>(&event)) {
      ++texts;
      if (events.text) events.text(*text);
    } else if (events.left) {
      events.left(std::get<MemberRecord>(event));
    }
  }
}

Room::Room(ZelRtcSpeechToTextSessionHn session, RoomEvents events) : state_(std::make_unique<State>()) {
  require(session != nullptr, RoomErrorCode::kSessionInUse, "no session");
  state_->session = session;
  state_->events = std::move(events);
  require(state_->api().Attach(session->body) != 0, RoomErrorCode::kSessionInUse, "session is attached already");
}

Room::~Room() {
  state_->events = {};
  try {
    close(std::chrono::milliseconds{0});
  } catch (...) {  // no memory for the last events, which nobody hears
  }
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
  member->record.member_id = member_id;
  member->record.client_id = checked_text(client_id, 511, "client id");
  std::lock_guard drive(state_->drive);
  std::lock_guard hold(state_->lock);
  require(!state_->closed, RoomErrorCode::kClosed, "room is closed");
  const auto same = [&](const auto& entry) {
    return entry.first == member_id || entry.second->record.client_id == client_id;
  };
  require(std::none_of(state_->members.begin(), state_->members.end(), same), RoomErrorCode::kDuplicateMember,
          "member " + std::to_string(member_id) + " or client " + member->record.client_id + " is in the room");
  // The entry first: nothing may fail any more once the recognizer is lent.
  auto& entry = state_->members[member_id];
  SttRecognizerHn recognizer = state_->api().AcquireRecognizer(state_->session->body);
  if (recognizer == nullptr) {
    state_->members.erase(member_id);
    throw RoomError(RoomErrorCode::kNoFreeRecognizer, "all recognizers of the session are in use");
  }
  const std::string& id = member->record.client_id;
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
  return take_frame(*member, packet);
}

bool Room::can_accept(std::uint32_t member_id) const {
  std::lock_guard hold(state_->lock);
  const Member* member = state_->find(member_id);
  return member != nullptr && !member->leaving && member->has_slot() && member->has_headroom();
}

std::size_t Room::waiting(std::uint32_t member_id) const {
  std::lock_guard hold(state_->lock);
  const Member* member = state_->find(member_id);
  return member != nullptr ? member->record.waiting : 0;
}

std::size_t Room::waiting() const {
  std::lock_guard hold(state_->lock);
  std::size_t sum = 0;
  for (const auto& [id, member] : state_->members)
    sum += member->record.waiting;
  return sum;
}

std::size_t Room::pump() {
  {
    std::lock_guard drive(state_->drive);
    std::vector<std::unique_ptr<Member>> departed;
    if (state_->attached) {
      std::lock_guard hold(state_->lock);
      state_->update();
      departed = state_->take_departed();
    }
    for (auto& member : departed)
      state_->release(*member);
  }
  return state_->deliver();
}

void Room::begin_leave(std::uint32_t member_id, std::chrono::milliseconds drain_time) {
  const auto deadline = Clock::now() + drain_time;
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
  const auto deadline = Clock::now() + drain_time;
  {
    std::lock_guard hold(state_->lock);
    state_->closed = true;
    for (auto& [id, member] : state_->members) {
      member->deadline = member->leaving ? std::min(member->deadline, deadline) : deadline;
      member->leaving = true;
    }
  }
  for (pump(); member_count() > 0; pump())
    std::this_thread::sleep_for(kDrainPoll);
  std::lock_guard drive(state_->drive);
  if (std::exchange(state_->attached, false)) state_->api().Detach(state_->session->body);
}

bool Room::has_member(std::uint32_t member_id) const {
  std::lock_guard hold(state_->lock);
  return state_->find(member_id) != nullptr;
}

std::size_t Room::member_count() const {
  std::lock_guard hold(state_->lock);
  return state_->members.size();
}

MemberRecord Room::record(std::uint32_t member_id) const {
  std::lock_guard hold(state_->lock);
  return state_->get(member_id).record;
}

std::vector<MemberRecord> Room::records() const {
  std::lock_guard hold(state_->lock);
  std::vector<MemberRecord> records;
  for (const auto& [id, member] : state_->members)
    records.push_back(member->record);
  return records;
}

}  // namespace zel::host
